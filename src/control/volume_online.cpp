// A volume coming online (classified, given its file-system context while its writes are
// held) and going offline (tracking file written a last time, context dropped).
//
// Seam: until a volume is brought into tracking here, both requests travel on down the
// volume's stack unchanged.
#include "control/cbt_control_handlers.h"
#include "driver/cbt_device_extension.h"

NTSTATUS CbtVolumeOnline(PCBT_DEVICE_EXTENSION Extension, PIRP Irp) {
  return CbtReleaseAndPassDown(Extension->DeviceObject, Irp);
}

NTSTATUS CbtVolumeOffline(PCBT_DEVICE_EXTENSION Extension, PIRP Irp) {
  return CbtReleaseAndPassDown(Extension->DeviceObject, Irp);
}
