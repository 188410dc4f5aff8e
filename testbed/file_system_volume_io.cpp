// Sector I/O of a mounted file system: non-cached paging reads and writes, built as a file
// system builds them (its own IRP and an MDL over its buffer, waited for through a
// completion routine that keeps the request) and sent to the top of the volume's stack, so
// the volume's filters see every one of them.
#include <algorithm>

#include "file_system_internal.h"

namespace kvtestbed::fs {
namespace {

// Large transfers go down in pieces of at most this many bytes.
constexpr size_t kLargestTransfer = 1 << 20;

NTSTATUS SignalTransferDone(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
  UNREFERENCED_PARAMETER(device);
  UNREFERENCED_PARAMETER(irp);
  KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

}  // namespace

StackVolumeIo::StackVolumeIo(PDEVICE_OBJECT target) : target_(target) { ObReferenceObject(target_); }

StackVolumeIo::~StackVolumeIo() {
  if (target_ != nullptr) ObDereferenceObject(target_);
}

ULONG StackVolumeIo::SectorSize() const { return target_->SectorSize != 0 ? target_->SectorSize : 512; }

NTSTATUS StackVolumeIo::Read(uint64_t offset, void* buffer, size_t length) {
  return Transfer(IRP_MJ_READ, offset, buffer, length);
}

NTSTATUS StackVolumeIo::Write(uint64_t offset, const void* buffer, size_t length) {
  return Transfer(IRP_MJ_WRITE, offset, const_cast<void*>(buffer), length);
}

NTSTATUS StackVolumeIo::Transfer(UCHAR major, uint64_t offset, void* buffer, size_t length) {
  if (target_ == nullptr) return STATUS_NO_SUCH_DEVICE;
  const ULONG sector = SectorSize();
  if (offset % sector != 0 || length % sector != 0 || offset > INT64_MAX - length) return STATUS_INVALID_PARAMETER;
  auto* bytes = static_cast<UCHAR*>(buffer);
  for (size_t done = 0; done < length;) {
    const ULONG piece = static_cast<ULONG>(std::min(kLargestTransfer, length - done));
    PIRP irp = IoAllocateIrp(target_->StackSize, FALSE);
    if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
    PMDL mdl = IoAllocateMdl(bytes + done, piece, FALSE, FALSE, irp);
    if (mdl == nullptr) {
      IoFreeIrp(irp);
      return STATUS_INSUFFICIENT_RESOURCES;
    }
    MmBuildMdlForNonPagedPool(mdl);
    irp->UserBuffer = bytes + done;
    irp->Flags = IRP_NOCACHE | IRP_PAGING_IO | IRP_SYNCHRONOUS_PAGING_IO |
                 (major == IRP_MJ_READ ? IRP_READ_OPERATION : IRP_WRITE_OPERATION);
    irp->RequestorMode = KernelMode;
    irp->Tail.Overlay.Thread = PsGetCurrentThread();
    PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
    sp->MajorFunction = major;
    sp->Parameters.Read.Length = piece;
    sp->Parameters.Read.ByteOffset.QuadPart = static_cast<LONGLONG>(offset + done);
    KEVENT event;
    KeInitializeEvent(&event, NotificationEvent, FALSE);
    IoSetCompletionRoutine(irp, SignalTransferDone, &event, TRUE, TRUE, TRUE);
    if (IoCallDriver(target_, irp) == STATUS_PENDING) KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    const NTSTATUS status = irp->IoStatus.Status;
    IoFreeMdl(mdl);
    IoFreeIrp(irp);
    if (!NT_SUCCESS(status)) return status;
    done += piece;
  }
  return STATUS_SUCCESS;
}

}  // namespace kvtestbed::fs
