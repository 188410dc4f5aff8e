// Volume interfaces arriving.
//
// Seam: the target-device notifications are built with the tracking file they protect;
// until then an arriving volume needs nothing from here.
#include "notify/cbt_notify.h"

NTSTATUS CbtVolumeArrival(PVOID NotificationStructure, PVOID Context) {
  UNREFERENCED_PARAMETER(NotificationStructure);
  UNREFERENCED_PARAMETER(Context);
  return STATUS_SUCCESS;
}
