// Shadow copies: their GPT attributes (which link a shadow copy to its original volume),
// the backup application's verification of a shadow copy, and the end of a commit.
//
// Seam: until shadow copies are followed here, these requests travel on down the volume's
// stack unchanged.
#include "control/cbt_control_handlers.h"
#include "driver/cbt_dispatch.h"

NTSTATUS CbtSetGptAttributes(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return CbtReleaseAndPassDown(DeviceObject, Irp); }

NTSTATUS CbtVerifySnapshot(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return CbtReleaseAndPassDown(DeviceObject, Irp); }

NTSTATUS CbtEndCommitSnapshot(PDEVICE_OBJECT DeviceObject, PIRP Irp) { return CbtReleaseAndPassDown(DeviceObject, Irp); }
