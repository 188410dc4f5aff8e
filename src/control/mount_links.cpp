// The mount manager's links: the volume's drive letter and its volume GUID name.
//
// Seam: until the links are recorded, both requests travel on down the volume's stack
// unchanged.
#include "control/cbt_control_handlers.h"

NTSTATUS CbtMountDevLinkCreated(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return CbtReleaseAndPassDown(DeviceObject, Irp);
}

NTSTATUS CbtMountDevLinkDeleted(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return CbtReleaseAndPassDown(DeviceObject, Irp);
}
