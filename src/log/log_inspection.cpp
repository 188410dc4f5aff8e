// Reading the record queue for host programs (cbt_log_inspection.h).
#include "log/cbt_log_inspection.h"

ULONG CbtCopyQueuedLogRecords(CBT_LOG_RECORD_BODY* Bodies, ULONG MaximumCount) {
  ULONG queued = 0;
  KIRQL irql;
  KeAcquireSpinLock(&CbtEventLog.QueueLock, &irql);
  for (PLIST_ENTRY entry = CbtEventLog.Queue.Flink; entry != &CbtEventLog.Queue; entry = entry->Flink, ++queued) {
    if (queued < MaximumCount) Bodies[queued] = CONTAINING_RECORD(entry, CBT_LOG_RECORD, ListEntry)->Body;
  }
  KeReleaseSpinLock(&CbtEventLog.QueueLock, irql);
  return queued;
}

ULONG CbtDrainQueuedLogRecords(CBT_LOG_RECORD_BODY* Bodies, ULONG MaximumCount) {
  ULONG taken = 0;
  while (taken < MaximumCount) {
    PLIST_ENTRY entry = ExInterlockedRemoveHeadList(&CbtEventLog.Queue, &CbtEventLog.QueueLock);
    if (entry == NULL) break;
    PCBT_LOG_RECORD record = CONTAINING_RECORD(entry, CBT_LOG_RECORD, ListEntry);
    if (Bodies != NULL) Bodies[taken] = record->Body;
    ExFreeToNPagedLookasideList(&CbtEventLog.RecordLookaside, record);
    InterlockedDecrement(&CbtEventLog.QueuedCount);
    ++taken;
  }
  return taken;
}
