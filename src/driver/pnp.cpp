// Plug and Play requests of the filter devices, and the teardown of a volume's tracking
// state.
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"
#include "driver/cbt_pnp.h"
#include "driver/cbt_removal_protection.h"
#include "fs/cbt_fs.h"

namespace {

NTSTATUS PassDown(PCBT_DEVICE_EXTENSION Extension, PIRP Irp) {
  IoSkipCurrentIrpStackLocation(Irp);
  return IoCallDriver(Extension->LowerDeviceObject, Irp);
}

// The volume goes away: its tracking state is torn down while requests may still be
// inside the driver, then the removal waits for them (held writes included) before the
// filter device leaves the stack. The device's extension is gone once this returns.
NTSTATUS RemoveDevice(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  CBT_LOG_VOLUME(extension, "CbtRemoveDevice", STATUS_SUCCESS);
  WriteRelease(&extension->RemovalState, CbtRemovalPending);
  CbtSetFlags(extension, CBT_FLAG_REMOVED);
  CbtTeardownVolume(extension, TRUE);
  CbtReleaseRemovalProtection(DeviceObject);
  CbtWaitForRemovalProtection(DeviceObject);
  PDEVICE_OBJECT lower = extension->LowerDeviceObject;
  IoDetachDevice(lower);
  IoDeleteDevice(DeviceObject);
  IoSkipCurrentIrpStackLocation(Irp);
  return IoCallDriver(lower, Irp);
}

}  // namespace

NTSTATUS CbtDispatchPnp(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  if (CbtAcquireRemovalProtection(DeviceObject) == CbtRemovalComplete) {
    CBT_LOG_VOLUME(extension, "CbtDispatchPnp", STATUS_NO_SUCH_DEVICE);
    Irp->IoStatus.Status = STATUS_NO_SUCH_DEVICE;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_NO_SUCH_DEVICE;
  }
  NTSTATUS status;
  switch (IoGetCurrentIrpStackLocation(Irp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
      // The start is not waited for: the volume's own drivers finish it.
      CBT_LOG_VOLUME(extension, "CbtStartDevice", STATUS_SUCCESS);
      status = PassDown(extension, Irp);
      if (!NT_SUCCESS(status)) CBT_LOG_VOLUME(extension, "CbtStartDevice", status);
      CbtReleaseRemovalProtection(DeviceObject);
      return status;
    case IRP_MN_QUERY_REMOVE_DEVICE:
      CBT_LOG_VOLUME(extension, "CbtQueryRemoveDevice", STATUS_SUCCESS);
      return CbtReleaseAndPassDown(DeviceObject, Irp);
    case IRP_MN_REMOVE_DEVICE:
      return RemoveDevice(DeviceObject, Irp);
    case IRP_MN_CANCEL_REMOVE_DEVICE:
      // Returns only once the drivers below have taken the removal back.
      CBT_LOG_VOLUME(extension, "CbtCancelRemoveDevice", STATUS_SUCCESS);
      status = CbtForwardIrpSynchronously(DeviceObject, Irp);
      CbtReleaseRemovalProtection(DeviceObject);
      IoCompleteRequest(Irp, IO_NO_INCREMENT);
      return status;
    case IRP_MN_STOP_DEVICE:
      CBT_LOG_VOLUME(extension, "CbtStopDevice", STATUS_SUCCESS);
      return CbtReleaseAndPassDown(DeviceObject, Irp);
    case IRP_MN_QUERY_STOP_DEVICE:
      CBT_LOG_VOLUME(extension, "CbtQueryStopDevice", STATUS_SUCCESS);
      return CbtReleaseAndPassDown(DeviceObject, Irp);
    case IRP_MN_SURPRISE_REMOVAL:
      // The volume is gone already: nothing of its tracking state can be written back.
      CBT_LOG_VOLUME(extension, "CbtSurpriseRemoval", STATUS_SUCCESS);
      CbtSetFlags(extension, CBT_FLAG_SURPRISE_REMOVED);
      CbtTeardownVolume(extension, FALSE);
      return CbtReleaseAndPassDown(DeviceObject, Irp);
    default:
      return CbtReleaseAndPassDown(DeviceObject, Irp);
  }
}

VOID CbtTeardownVolume(PCBT_DEVICE_EXTENSION Extension, BOOLEAN FreeName) {
  if (Extension->TrackingFileHandle != NULL) {
    ZwClose(Extension->TrackingFileHandle);
    Extension->TrackingFileHandle = NULL;
  }
  CbtUninitializeFileSystem(Extension);
  if (Extension->TrackingBitmap.Buffer != NULL) {
    KIRQL irql;
    KeAcquireSpinLock(&Extension->BitmapLock, &irql);
    PULONG buffer = Extension->TrackingBitmap.Buffer;
    Extension->TrackingBitmap.Buffer = NULL;
    Extension->TrackingBitmap.SizeOfBitMap = 0;
    KeReleaseSpinLock(&Extension->BitmapLock, irql);
    if (buffer != NULL) ExFreePoolWithTag(buffer, CBT_POOL_TAG);
  }
  if (Extension->TrackingFileHeader != NULL) {
    ExFreePoolWithTag(Extension->TrackingFileHeader, CBT_POOL_TAG);
    Extension->TrackingFileHeader = NULL;
  }
  if (FreeName && Extension->DeviceName != NULL) {
    ExFreePoolWithTag(Extension->DeviceName, CBT_POOL_TAG);
    Extension->DeviceName = NULL;
  }
  CbtClearFlags(Extension, CBT_FLAG_TRACKING_FILE_READY | CBT_FLAG_TRACKING_FILE_OPEN);
}
