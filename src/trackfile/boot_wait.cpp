// The boot-time wait for volumes that are safe for write access.
//
// Seam: the wait is built with the log writer that depends on it; until then nothing waits
// on CbtLogStartEvent and the reinitialization has nothing to start.
#include "driver/cbt_driver.h"
#include "trackfile/cbt_trackfile.h"

VOID CbtBootReinitialize(PDRIVER_OBJECT DriverObject, PVOID Context, ULONG Count) {
  UNREFERENCED_PARAMETER(DriverObject);
  UNREFERENCED_PARAMETER(Context);
  UNREFERENCED_PARAMETER(Count);
}
