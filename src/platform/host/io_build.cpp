// Requests the I/O manager builds for a driver (device control, reads and writes, flushes,
// shutdown), and forwarding a request synchronously to the device below.
#include <algorithm>
#include <cstring>

#include "io_internal.h"

namespace kvhost::io {
namespace {

// Releases what a half-built request already holds.
PIRP Abandon(PIRP irp) {
  if (irp->Flags & IRP_DEALLOCATE_BUFFER) FreeIoPool(irp->AssociatedIrp.SystemBuffer, kSystemBufferTag, "IoBuild...Request");
  if (irp->MdlAddress != nullptr) FreeMdlChain(irp->MdlAddress);
  FreeIrp(irp, "IoBuild...Request");
  return nullptr;
}

// A copy of the caller's buffer in non-paged pool that the I/O manager frees at completion.
bool AttachSystemBuffer(PIRP irp, ULONG bytes, const void* input, ULONG inputBytes, const void* site) {
  void* buffer = AllocateIoPool(bytes, kSystemBufferTag, site, "IoBuild...Request");
  if (buffer == nullptr) return false;
  if (input != nullptr && inputBytes != 0) std::memcpy(buffer, input, inputBytes);
  irp->AssociatedIrp.SystemBuffer = buffer;
  irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
  return true;
}

bool AttachLockedMdl(PIRP irp, PVOID buffer, ULONG length, LOCK_OPERATION operation) {
  PMDL mdl = IoAllocateMdl(buffer, length, FALSE, FALSE, irp);
  if (mdl == nullptr) return false;
  MmProbeAndLockPages(mdl, KernelMode, operation);
  return true;
}

PIRP NewRequest(PDEVICE_OBJECT device, IrpOrigin origin, void* caller) {
  PIRP irp = AllocateIrp(device->StackSize, origin, caller);
  if (irp == nullptr) return nullptr;
  irp->Tail.Overlay.Thread = PsGetCurrentThread();
  irp->RequestorMode = KernelMode;
  return irp;
}

NTSTATUS SignalForwardedIrp(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(DeviceObject);
  UNREFERENCED_PARAMETER(Irp);
  KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

}  // namespace

PIRP BuildFsdRequest(ULONG major, PDEVICE_OBJECT device, PVOID buffer, ULONG length, PLARGE_INTEGER offset,
                     PIO_STATUS_BLOCK iosb, IrpOrigin origin, void* caller) {
  PIRP irp = NewRequest(device, origin, caller);
  if (irp == nullptr) return nullptr;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = static_cast<UCHAR>(major);
  irp->UserIosb = iosb;
  if (major != IRP_MJ_READ && major != IRP_MJ_WRITE) return irp;  // flush, shutdown, Plug and Play, power

  if (device->Flags & DO_BUFFERED_IO) {
    if (!AttachSystemBuffer(irp, length, major == IRP_MJ_WRITE ? buffer : nullptr, length, caller))
      return Abandon(irp);
    if (major == IRP_MJ_READ) {
      irp->Flags |= IRP_INPUT_OPERATION;
      irp->UserBuffer = buffer;
    }
  } else if (device->Flags & DO_DIRECT_IO) {
    if (!AttachLockedMdl(irp, buffer, length, major == IRP_MJ_READ ? IoWriteAccess : IoReadAccess))
      return Abandon(irp);
  } else {
    irp->UserBuffer = buffer;
  }
  sp->Parameters.Read.Length = length;
  sp->Parameters.Read.ByteOffset.QuadPart = offset != nullptr ? offset->QuadPart : 0;
  return irp;
}

}  // namespace kvhost::io

using namespace kvhost::io;

extern "C" {

PIRP IoBuildDeviceIoControlRequest(ULONG IoControlCode, PDEVICE_OBJECT DeviceObject, PVOID InputBuffer,
                                   ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength,
                                   BOOLEAN InternalDeviceIoControl, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock) {
  void* site = __builtin_return_address(0);
  PIRP irp = NewRequest(DeviceObject, IrpOrigin::Built, site);
  if (irp == nullptr) return nullptr;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = InternalDeviceIoControl ? IRP_MJ_INTERNAL_DEVICE_CONTROL : IRP_MJ_DEVICE_CONTROL;
  sp->Parameters.DeviceIoControl.OutputBufferLength = OutputBufferLength;
  sp->Parameters.DeviceIoControl.InputBufferLength = InputBufferLength;
  sp->Parameters.DeviceIoControl.IoControlCode = IoControlCode;

  switch (METHOD_FROM_CTL_CODE(IoControlCode)) {
    case METHOD_BUFFERED:
      // One buffer of the larger size carries the input down and the output back.
      if (InputBufferLength != 0 || OutputBufferLength != 0) {
        if (!AttachSystemBuffer(irp, std::max(InputBufferLength, OutputBufferLength), InputBuffer, InputBufferLength,
                                site))
          return Abandon(irp);
        if (OutputBuffer != nullptr) irp->Flags |= IRP_INPUT_OPERATION;
        irp->UserBuffer = OutputBuffer;
      }
      break;
    case METHOD_IN_DIRECT:
    case METHOD_OUT_DIRECT:
      // The input is buffered; the output buffer is described by an MDL.
      if (InputBuffer != nullptr && InputBufferLength != 0 &&
          !AttachSystemBuffer(irp, InputBufferLength, InputBuffer, InputBufferLength, site))
        return Abandon(irp);
      if (OutputBuffer != nullptr && OutputBufferLength != 0 &&
          !AttachLockedMdl(irp, OutputBuffer, OutputBufferLength,
                           METHOD_FROM_CTL_CODE(IoControlCode) == METHOD_IN_DIRECT ? IoReadAccess : IoWriteAccess))
        return Abandon(irp);
      break;
    case METHOD_NEITHER:
      irp->UserBuffer = OutputBuffer;
      sp->Parameters.DeviceIoControl.Type3InputBuffer = InputBuffer;
      break;
  }
  irp->UserIosb = IoStatusBlock;
  irp->UserEvent = Event;
  return irp;
}

PIRP IoBuildSynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                                  PLARGE_INTEGER StartingOffset, PKEVENT Event, PIO_STATUS_BLOCK IoStatusBlock) {
  PIRP irp = BuildFsdRequest(MajorFunction, DeviceObject, Buffer, Length, StartingOffset, IoStatusBlock,
                             IrpOrigin::Built, __builtin_return_address(0));
  if (irp != nullptr) irp->UserEvent = Event;
  return irp;
}

// The caller's completion routine usually frees such a request; one that completes to the
// top with a status block is completed and freed by the I/O manager, as in Windows.
PIRP IoBuildAsynchronousFsdRequest(ULONG MajorFunction, PDEVICE_OBJECT DeviceObject, PVOID Buffer, ULONG Length,
                                   PLARGE_INTEGER StartingOffset, PIO_STATUS_BLOCK IoStatusBlock) {
  return BuildFsdRequest(MajorFunction, DeviceObject, Buffer, Length, StartingOffset, IoStatusBlock,
                         IrpOrigin::Allocated, __builtin_return_address(0));
}

BOOLEAN IoForwardIrpSynchronously(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  if (Irp->CurrentLocation <= 1) return FALSE;  // no location left for the device below
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, SignalForwardedIrp, &event, TRUE, TRUE, TRUE);
  if (IoCallDriver(DeviceObject, Irp) == STATUS_PENDING)
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
  return TRUE;
}

}  // extern "C"
