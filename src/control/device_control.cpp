// Device-control requests of a tracked volume.
//
// Seam: until the control codes are handled, every request is passed down under removal
// protection, and one that arrives during removal is refused.
#include "control/cbt_control.h"
#include "control/cbt_control_handlers.h"
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"
#include "driver/cbt_removal_protection.h"

NTSTATUS CbtDispatchDeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  const ULONG state = CbtAcquireRemovalProtection(DeviceObject);
  if (state != CbtRemovalActive) {
    CBT_LOG_VOLUME(CbtExtensionOf(DeviceObject), "CbtDispatchDeviceControl", STATUS_DEVICE_DOES_NOT_EXIST);
    if (state == CbtRemovalPending) CbtReleaseRemovalProtection(DeviceObject);
    Irp->IoStatus.Status = STATUS_DEVICE_DOES_NOT_EXIST;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_DEVICE_DOES_NOT_EXIST;
  }
  CbtReleaseRemovalProtection(DeviceObject);
  return CbtDispatchPassThrough(DeviceObject, Irp);
}

NTSTATUS CbtReleaseAndPassDown(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  CbtReleaseRemovalProtection(DeviceObject);
  return CbtDispatchPassThrough(DeviceObject, Irp);
}
