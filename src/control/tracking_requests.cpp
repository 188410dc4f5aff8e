// The backup application's tracking switch and its geometry and statistics queries.
//
// Seam: tracking cannot be switched on until the tracking file exists, so enabling reports
// STATUS_NOT_IMPLEMENTED (the dispatch completes the request with it); the other requests
// travel on down the volume's stack unchanged.
#include "control/cbt_control_handlers.h"
#include "driver/cbt_dispatch.h"

NTSTATUS CbtEnableTracking(PDEVICE_OBJECT DeviceObject) {
  UNREFERENCED_PARAMETER(DeviceObject);
  return STATUS_NOT_IMPLEMENTED;
}

NTSTATUS CbtDisableTracking(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return CbtReleaseAndPassDown(DeviceObject, Irp); }

NTSTATUS CbtQueryVolumeTrackingInformation(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return CbtReleaseAndPassDown(DeviceObject, Irp);
}

NTSTATUS CbtQueryVolumeTrackingInformationEx(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return CbtReleaseAndPassDown(DeviceObject, Irp);
}

NTSTATUS CbtSetResetTime(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return CbtReleaseAndPassDown(DeviceObject, Irp); }
