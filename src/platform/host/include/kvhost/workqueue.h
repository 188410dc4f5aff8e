// The system worker queues as tests control them.
//
// Work items run on real worker threads at PASSIVE_LEVEL (critical and delayed queues
// have their own threads, several each, so items of one queue may run concurrently). In
// manual mode, queued items wait until the test runs them, one at a time and in the order
// it chooses, on a worker thread: a scheduling race can be replayed exactly.
#pragma once

#include <wdm.h>

#include <chrono>
#include <cstddef>
#include <vector>

namespace kvhost {

// Waits (in real time, up to `limit`) until no work item is queued or running. Items
// held for the test in manual mode do not count. Also run at the end of every test.
bool WaitForWorkQueuesIdle(std::chrono::milliseconds limit = std::chrono::seconds(30));

// Manual mode; off at the start of every test. Turning it on holds the items not yet
// started; turning it off hands the held ones to the workers, oldest first.
void SetManualWorkQueues(bool manual);
bool ManualWorkQueues();

struct PendingWorkItem {
  const void* Routine;  // the worker routine (for an I/O work item, the driver's)
  const void* Parameter;
  WORK_QUEUE_TYPE Queue;
  const void* QueuedBy;  // the queuing call's return address
};

// Items held in manual mode, oldest first.
std::vector<PendingWorkItem> PendingWorkItems();
// Runs one held item on a worker thread and returns when its routine has returned; false
// when there is no such item (or manual mode is off).
bool RunWorkItem(size_t index);
bool RunNextWorkItem();
// Runs held items, oldest first, until none is left (items they queue included); returns
// how many ran.
size_t RunAllWorkItems();
// Drops the held items without running them (a test that freed one on purpose); returns
// how many there were.
size_t DiscardPendingWorkItems();

// ExQueueWorkItem for the kernel's own wrappers (the I/O manager's work items): the same
// queues, checks and manual mode. `routine` and `caller` name the driver's routine and its
// call site in messages.
void QueueWorkItem(PWORK_QUEUE_ITEM item, WORK_QUEUE_TYPE queue, const void* routine, const void* caller);

}  // namespace kvhost
