#include "sent_write.h"

#include <gtest/gtest.h>

namespace kvtest {
namespace {

NTSTATUS CountAndKeep(PDEVICE_OBJECT, PIRP, PVOID context) {
  auto* write = static_cast<SentWrite*>(context);
  ++write->Completions;
  KeSetEvent(&write->Done, IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

}  // namespace

void Prepare(SentWrite& write, PDEVICE_OBJECT top, LONGLONG offset, ULONG length, ULONG irpFlags) {
  KeInitializeEvent(&write.Done, NotificationEvent, FALSE);
  write.Buffer.assign(length, 0xA5);
  write.Irp = IoAllocateIrp(top->StackSize, FALSE);
  ASSERT_NE(write.Irp, nullptr);
  if (length != 0) {
    PMDL mdl = IoAllocateMdl(write.Buffer.data(), length, FALSE, FALSE, write.Irp);
    ASSERT_NE(mdl, nullptr);
    MmBuildMdlForNonPagedPool(mdl);
  }
  write.Irp->Flags |= irpFlags;
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(write.Irp);
  stack->MajorFunction = IRP_MJ_WRITE;
  stack->Parameters.Write.Length = length;
  stack->Parameters.Write.ByteOffset.QuadPart = offset;
  IoSetCompletionRoutine(write.Irp, CountAndKeep, &write, TRUE, TRUE, TRUE);
}

void Send(SentWrite& write, PDEVICE_OBJECT top, LONGLONG offset, ULONG length, ULONG irpFlags) {
  Prepare(write, top, offset, length, irpFlags);
  if (write.Irp != nullptr) write.Returned = IoCallDriver(top, write.Irp);
}

bool SentWrite::Completed() { return KeReadStateEvent(&Done) != 0; }

IO_STATUS_BLOCK SentWrite::Wait() {
  KeWaitForSingleObject(&Done, Executive, KernelMode, FALSE, nullptr);
  IO_STATUS_BLOCK status = Irp->IoStatus;
  if (Irp->MdlAddress != nullptr) IoFreeMdl(Irp->MdlAddress);
  Irp->MdlAddress = nullptr;
  IoFreeIrp(Irp);
  Irp = nullptr;
  return status;
}

}  // namespace kvtest
