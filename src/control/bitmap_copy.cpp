// Copying the volume's change bitmap out to the backup application.
//
// Seam: until the copy-out is built, both requests travel on down the volume's stack
// unchanged.
#include "control/cbt_control_handlers.h"

NTSTATUS CbtGetVolumeBitmap(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return CbtReleaseAndPassDown(DeviceObject, Irp); }

NTSTATUS CbtCheckVolumeBitmap(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return CbtReleaseAndPassDown(DeviceObject, Irp); }
