// Trims that clear the bits of wholly trimmed blocks, and copy offload whose destination is
// marked as written.
//
// Seam: until these are handled, both requests travel on down the volume's stack unchanged.
#include "control/cbt_control_handlers.h"
#include "driver/cbt_dispatch.h"

NTSTATUS CbtManageDataSetAttributes(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return CbtReleaseAndPassDown(DeviceObject, Irp);
}

NTSTATUS CbtCopyData(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return CbtReleaseAndPassDown(DeviceObject, Irp); }
