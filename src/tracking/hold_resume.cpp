// Ending a hold of a volume's writes.
//
// Seam: nothing holds writes until flush-and-hold is built, so there is nothing to resume.
#include "driver/cbt_device_extension.h"
#include "tracking/cbt_tracking.h"

VOID CbtResumeVolumeIo(PCBT_DEVICE_EXTENSION Extension) { UNREFERENCED_PARAMETER(Extension); }
