// Reading the record queue from outside the driver.
//
// The writer thread is what normally empties the queue into the log file. Host programs
// that run the driver in the user-mode kernel (the tests, the simulator) read the queue
// here instead: a copy that leaves the records queued, or a drain that takes them off the
// queue and frees them, as the writer does, so that the 4,096-record bound counts from
// there. Both take the queue lock and may be called at IRQL up to DISPATCH_LEVEL while the
// driver records.
#pragma once
#include "log/cbt_event_log.h"

// Copies up to MaximumCount queued bodies, oldest first, into Bodies (which may be NULL
// when MaximumCount is 0). Returns the number of records queued, which may exceed what
// was copied.
ULONG CbtCopyQueuedLogRecords(_Out_writes_(MaximumCount) CBT_LOG_RECORD_BODY* Bodies, _In_ ULONG MaximumCount);

// Takes up to MaximumCount records off the head of the queue, copies their bodies into
// Bodies (NULL: discard them) and frees them. Returns the number taken.
ULONG CbtDrainQueuedLogRecords(_Out_writes_(MaximumCount) CBT_LOG_RECORD_BODY* Bodies, _In_ ULONG MaximumCount);
