// Flush-and-hold: the moment before a shadow copy is taken, which closes one tracking period
// and opens the next.
//
// Seam: until the tracking period is closed here, the request travels on down to the
// shadow-copy provider unchanged.
#include "control/cbt_control_handlers.h"
#include "driver/cbt_dispatch.h"

NTSTATUS CbtFlushAndHoldWrites(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return CbtReleaseAndPassDown(DeviceObject, Irp);
}
