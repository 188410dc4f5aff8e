// Copying the volume's change bitmap out to the backup application.
//
// The reply is the raw bitmap: bit i (bit i mod 8 of byte i div 8) stands for the volume's
// bytes from i * BytesPerBit on, and is set when a write touched them since the bitmap was
// last cleared. The copy is taken under BitmapLock, the lock every change of the bitmap
// takes, so it is one consistent state of the bitmap; copying never changes a bit. Both
// requests are part of the device-control dispatch and are recorded under its name.
#include "control/cbt_control_handlers.h"
#include "driver/cbt_device_extension.h"
#include "driver/cbt_removal_protection.h"

namespace {

#define CBT_LOG_COPY(Extension, Status) CBT_LOG_VOLUME((Extension), "CbtDispatchDeviceControl", (Status))

NTSTATUS ReleaseAndComplete(PDEVICE_OBJECT DeviceObject, PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
  CbtReleaseRemovalProtection(DeviceObject);
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = Information;
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

// Bytes that hold Bits bits.
ULONG BitmapBytes(ULONG Bits) { return (Bits >> 3) + ((Bits & 7) != 0 ? 1 : 0); }

}  // namespace

NTSTATUS CbtGetVolumeBitmap(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  const ULONG inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
  const ULONG outputLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
  if (inputLength != 0 || outputLength == 0 || Irp->MdlAddress == NULL || extension->TrackingBitmap.Buffer == NULL) {
    CBT_LOG_COPY(extension, STATUS_INVALID_PARAMETER);
    return ReleaseAndComplete(DeviceObject, Irp, STATUS_INVALID_PARAMETER, 0);
  }
  // The caller learns the size from the tracking-information query, not from a refusal.
  const ULONG needed = BitmapBytes(extension->BitCount);
  if (outputLength < needed) {
    CBT_LOG_COPY(extension, STATUS_BUFFER_TOO_SMALL);
    return ReleaseAndComplete(DeviceObject, Irp, STATUS_BUFFER_TOO_SMALL, 0);
  }
  PVOID output = MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority | MdlMappingNoExecute);
  if (output == NULL) {
    CBT_LOG_COPY(extension, STATUS_INSUFFICIENT_RESOURCES);
    return ReleaseAndComplete(DeviceObject, Irp, STATUS_INSUFFICIENT_RESOURCES, 0);
  }

  // The copy is all that is done under the lock: writes wait for it. The bitmap's size is
  // read again under the lock, so that a reallocation that came in between (the volume grew
  // or shrank) is never read past; such a copy is refused like a short buffer.
  KIRQL irql;
  KeAcquireSpinLock(&extension->BitmapLock, &irql);
  const PULONG bits = extension->TrackingBitmap.Buffer;
  const ULONG bytes = BitmapBytes(extension->TrackingBitmap.SizeOfBitMap);
  const bool fits = bits != NULL && bytes <= outputLength;
  if (fits) RtlCopyMemory(output, bits, bytes);
  KeReleaseSpinLock(&extension->BitmapLock, irql);
  if (!fits) {
    const NTSTATUS status = bits == NULL ? STATUS_INVALID_PARAMETER : STATUS_BUFFER_TOO_SMALL;
    CBT_LOG_COPY(extension, status);
    return ReleaseAndComplete(DeviceObject, Irp, status, 0);
  }
  return ReleaseAndComplete(DeviceObject, Irp, STATUS_SUCCESS, bytes);
}

NTSTATUS CbtCheckVolumeBitmap(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  const PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  NTSTATUS status = STATUS_SUCCESS;
  if (stack->Parameters.DeviceIoControl.InputBufferLength != 0 ||
      stack->Parameters.DeviceIoControl.OutputBufferLength != 0 || extension->TrackingBitmap.Buffer == NULL)
    status = STATUS_INVALID_PARAMETER;
  CBT_LOG_COPY(extension, status);
  return ReleaseAndComplete(DeviceObject, Irp, status, 0);
}
