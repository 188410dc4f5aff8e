// The log writer thread and the log file.
//
// Seam: no writer thread is started yet; records stay queued in memory, up to the queue's
// bound, where host programs read them (cbt_log_inspection.h).
#include "log/cbt_event_log.h"

NTSTATUS CbtStartLogWriter(PCBT_EVENT_LOG Log, PDEVICE_OBJECT Device) {
  UNREFERENCED_PARAMETER(Log);
  UNREFERENCED_PARAMETER(Device);
  return STATUS_NOT_SUPPORTED;
}
