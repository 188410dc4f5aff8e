// Dispatcher objects and waits: events, semaphores, thread objects, KeWaitFor*Objects and
// KeDelayExecutionThread.
//
// As in Windows, the whole state of an object lives in its DISPATCHER_HEADER: the signal
// state and a list of the wait blocks of the threads waiting on it. One lock guards them
// all. The thread that signals an object satisfies the waits it can (consuming a
// synchronization event or a semaphore count as it goes), in the order they began, and
// wakes those threads; a waiter only looks at its own result.
#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "clock_internal.h"
#include "dispatcher_internal.h"
#include "kernel_thread.h"
#include "kvhost/symbolize.h"
#include "kvhost/verifier.h"

namespace {

using kvhost::detail::HostThread;

struct DispatcherState {
  std::mutex Lock;
  std::vector<HostThread*> TimedWaiters;
};

DispatcherState& State() {
  static DispatcherState* state = new DispatcherState;  // used by threads that outlive main
  return *state;
}

constexpr UCHAR SizeInLongs(size_t bytes) { return static_cast<UCHAR>(bytes / sizeof(LONG)); }

std::string Caller(const void* address) { return kvhost::DescribeCodeAddress(address); }

// An initialised header has a known type, the size its initialisation wrote and a linked
// wait list; a zeroed or foreign structure has not.
bool IsDispatcherObject(const DISPATCHER_HEADER* h) {
  if (h == nullptr || h->WaitListHead.Flink == nullptr || h->WaitListHead.Blink == nullptr) return false;
  switch (h->Type) {
    case EventNotificationObject:
    case EventSynchronizationObject:
      return h->Size == SizeInLongs(sizeof(KEVENT));
    case SemaphoreObject:
      return h->Size == SizeInLongs(sizeof(KSEMAPHORE));
    case ThreadObject:
      return h->Size == SizeInLongs(sizeof(_KTHREAD));
    default:
      return false;
  }
}

bool IsEvent(const DISPATCHER_HEADER* h) {
  return IsDispatcherObject(h) && (h->Type == EventNotificationObject || h->Type == EventSynchronizationObject);
}

bool IsSemaphore(const DISPATCHER_HEADER* h) { return IsDispatcherObject(h) && h->Type == SemaphoreObject; }

PDISPATCHER_HEADER HeaderOf(PVOID object) { return static_cast<PDISPATCHER_HEADER>(object); }

bool Signalled(const DISPATCHER_HEADER* h) { return h->SignalState > 0; }

// What satisfying a wait takes from the object.
void Consume(PDISPATCHER_HEADER h) {
  if (h->Type == EventSynchronizationObject)
    h->SignalState = 0;
  else if (h->Type == SemaphoreObject)
    --h->SignalState;
}

// With the lock held: takes the thread's wait blocks off every object's wait list.
void UnlinkWaitBlocks(HostThread& t) {
  for (ULONG i = 0; i < t.WaitCount; ++i) RemoveEntryList(&t.WaitBlocks[i].WaitListEntry);
  t.WaitBlocks = nullptr;
  t.WaitCount = 0;
}

// With the lock held: the waiting thread's wait is over with `status`.
void EndWait(HostThread& t, NTSTATUS status) {
  UnlinkWaitBlocks(t);
  t.Waiting = false;
  t.WaitStatus = status;
  t.WakeUp.notify_one();
}

// With the lock held: whether the objects satisfy the wait now; consumes them if so.
bool TrySatisfy(ULONG count, PVOID objects[], WAIT_TYPE type, NTSTATUS* status) {
  if (type == WaitAny) {
    for (ULONG i = 0; i < count; ++i) {
      PDISPATCHER_HEADER h = HeaderOf(objects[i]);
      if (!Signalled(h)) continue;
      Consume(h);
      *status = STATUS_WAIT_0 + static_cast<NTSTATUS>(i);
      return true;
    }
    return false;
  }
  for (ULONG i = 0; i < count; ++i)
    if (!Signalled(HeaderOf(objects[i]))) return false;
  for (ULONG i = 0; i < count; ++i) Consume(HeaderOf(objects[i]));
  *status = STATUS_WAIT_0;
  return count != 0;
}

void AddTimedWaiter(HostThread* t) { State().TimedWaiters.push_back(t); }

void RemoveTimedWaiter(HostThread* t) {
  auto& v = State().TimedWaiters;
  v.erase(std::remove(v.begin(), v.end(), t), v.end());
}

bool CheckWaitIrql(const LARGE_INTEGER* timeout, const char* routine, const void* caller) {
  KIRQL irql = KeGetCurrentIrql();
  bool poll = timeout != nullptr && timeout->QuadPart == 0;
  if ((!poll && irql > APC_LEVEL) || irql > DISPATCH_LEVEL) {
    // Windows: bug check 0xA, IRQL_NOT_LESS_OR_EQUAL (a thread cannot block at
    // DISPATCH_LEVEL, and the lock the signaller needs may be the one this thread holds).
    kvhost::ReportViolationF("WaitAtRaisedIrql", "%s by %s at IRQL %u with %s", routine, Caller(caller).c_str(), irql,
                             timeout == nullptr ? "no timeout (infinite)" : "a non-zero timeout");
    return false;
  }
  return true;
}

// The common wait. count 0 is KeDelayExecutionThread's pure timeout.
NTSTATUS Wait(ULONG count, PVOID objects[], WAIT_TYPE type, const LARGE_INTEGER* timeout, PKWAIT_BLOCK blocks,
              const char* routine, const void* caller) {
  bool poll = timeout != nullptr && timeout->QuadPart == 0;
  if (!CheckWaitIrql(timeout, routine, caller)) {
    // Blocking here could hang the test for good (the signaller may need the spin lock
    // this thread holds), so the wait only looks at the objects, as a zero timeout would:
    // the driver sees a plausible result and the test fails on the violation.
    poll = true;
  }
  HostThread& self = kvhost::detail::CurrentThread();
  if (blocks == nullptr) blocks = self.OwnWaitBlocks;

  std::unique_lock<std::mutex> lock(State().Lock);
  NTSTATUS status;
  if (TrySatisfy(count, objects, type, &status)) return status;
  if (poll) return STATUS_TIMEOUT;

  bool timed = timeout != nullptr;
  kvhost::detail::Deadline deadline{};
  if (timed) {
    deadline = kvhost::detail::DeadlineFromTimeout(timeout->QuadPart);
    if (kvhost::detail::DeadlinePassed(deadline)) return STATUS_TIMEOUT;
  }

  for (ULONG i = 0; i < count; ++i) {
    PKWAIT_BLOCK b = &blocks[i];
    b->WaitType = static_cast<UCHAR>(type);
    b->BlockState = 1;
    b->WaitKey = static_cast<USHORT>(i);
    b->Thread = self.Thread;
    b->Object = objects[i];
    b->SparePtr = &self;  // the waiter's host record, for the thread that satisfies the wait
    InsertTailList(&HeaderOf(objects[i])->WaitListHead, &b->WaitListEntry);
  }
  self.WaitBlocks = blocks;
  self.WaitCount = count;
  self.WaitType = type;
  self.Waiting = true;
  self.TimedWait = timed;
  if (timed) AddTimedWaiter(&self);

  while (self.Waiting) {
    if (!timed) {
      self.WakeUp.wait(lock);
      continue;
    }
    if (kvhost::detail::DeadlinePassed(deadline)) {
      EndWait(self, STATUS_TIMEOUT);
      break;
    }
    std::chrono::steady_clock::time_point at;
    if (kvhost::detail::HostWakeTime(deadline, &at))
      self.WakeUp.wait_until(lock, at);
    else
      self.WakeUp.wait(lock);  // a frozen clock: woken when it moves
  }
  if (timed) RemoveTimedWaiter(&self);
  self.TimedWait = false;
  return self.WaitStatus;
}

bool ValidateWaitObjects(ULONG count, PVOID objects[], WAIT_TYPE type, const char* routine, const void* caller) {
  for (ULONG i = 0; i < count; ++i) {
    PDISPATCHER_HEADER h = HeaderOf(objects[i]);
    if (!IsDispatcherObject(h)) {
      kvhost::ReportViolationF("WaitOnInvalidObject",
                               "%s by %s on %p (object %lu), which is not an initialised dispatcher object", routine,
                               Caller(caller).c_str(), objects[i], static_cast<unsigned long>(i));
      return false;
    }
    if (type == WaitAll)
      for (ULONG j = 0; j < i; ++j)
        if (objects[j] == objects[i]) {
          kvhost::ReportViolationF("WaitAllDuplicateObject", "%s by %s: object %p appears twice in a WaitAll",
                                   routine, Caller(caller).c_str(), objects[i]);
          return false;
        }
  }
  return true;
}

}  // namespace

namespace kvhost::detail {

std::mutex& DispatcherLock() { return State().Lock; }

void WakeWaiters(PDISPATCHER_HEADER object) {
  PLIST_ENTRY entry = object->WaitListHead.Flink;
  while (Signalled(object) && entry != &object->WaitListHead) {
    PKWAIT_BLOCK block = CONTAINING_RECORD(entry, KWAIT_BLOCK, WaitListEntry);
    HostThread* t = static_cast<HostThread*>(block->SparePtr);
    NTSTATUS status;
    if (block->WaitType == WaitAny) {
      Consume(object);
      status = STATUS_WAIT_0 + block->WaitKey;
    } else {
      PVOID objects[MAXIMUM_WAIT_OBJECTS];
      for (ULONG i = 0; i < t->WaitCount; ++i) objects[i] = t->WaitBlocks[i].Object;
      if (!TrySatisfy(t->WaitCount, objects, WaitAll, &status)) {
        entry = entry->Flink;
        continue;
      }
    }
    EndWait(*t, status);
    // The satisfied thread's blocks left every list; start again from the oldest waiter.
    entry = object->WaitListHead.Flink;
  }
}

void WakeTimedWaiters() {
  std::lock_guard<std::mutex> guard(State().Lock);
  for (HostThread* t : State().TimedWaiters) t->WakeUp.notify_one();
}

size_t TimedWaiterCount() {
  std::lock_guard<std::mutex> guard(State().Lock);
  return State().TimedWaiters.size();
}

}  // namespace kvhost::detail

extern "C" {

VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State) {
  if (Type != NotificationEvent && Type != SynchronizationEvent)
    kvhost::ReportViolationF("EventInvalidType", "KeInitializeEvent(%p) by %s with event type %d",
                             static_cast<void*>(Event), Caller(__builtin_return_address(0)).c_str(),
                             static_cast<int>(Type));
  Event->Header.Type = Type == SynchronizationEvent ? EventSynchronizationObject : EventNotificationObject;
  Event->Header.Signalling = 0;
  Event->Header.Size = SizeInLongs(sizeof(KEVENT));
  Event->Header.Reserved1 = 0;
  Event->Header.SignalState = State ? 1 : 0;
  InitializeListHead(&Event->Header.WaitListHead);
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait) {
  const void* caller = __builtin_return_address(0);
  if (!IsEvent(&Event->Header)) {
    kvhost::ReportViolationF("EventNotInitialized", "KeSetEvent(%p) by %s: not an initialised event",
                             static_cast<void*>(Event), Caller(caller).c_str());
    return 0;
  }
  if (KeGetCurrentIrql() > DISPATCH_LEVEL)
    kvhost::ReportViolationF("EventIrql", "KeSetEvent(%p) by %s at IRQL %u", static_cast<void*>(Event),
                             Caller(caller).c_str(), KeGetCurrentIrql());
  std::lock_guard<std::mutex> guard(State().Lock);
  LONG previous = Event->Header.SignalState;
  if (previous == 0) {
    Event->Header.SignalState = 1;
    kvhost::detail::WakeWaiters(&Event->Header);
  }
  return previous;
}

VOID KeClearEvent(PRKEVENT Event) {
  if (!IsEvent(&Event->Header)) {
    kvhost::ReportViolationF("EventNotInitialized", "KeClearEvent(%p) by %s: not an initialised event",
                             static_cast<void*>(Event), Caller(__builtin_return_address(0)).c_str());
    return;
  }
  std::lock_guard<std::mutex> guard(State().Lock);
  Event->Header.SignalState = 0;
}

LONG KeResetEvent(PRKEVENT Event) {
  if (!IsEvent(&Event->Header)) {
    kvhost::ReportViolationF("EventNotInitialized", "KeResetEvent(%p) by %s: not an initialised event",
                             static_cast<void*>(Event), Caller(__builtin_return_address(0)).c_str());
    return 0;
  }
  std::lock_guard<std::mutex> guard(State().Lock);
  LONG previous = Event->Header.SignalState;
  Event->Header.SignalState = 0;
  return previous;
}

LONG KeReadStateEvent(PRKEVENT Event) {
  if (!IsEvent(&Event->Header)) {
    kvhost::ReportViolationF("EventNotInitialized", "KeReadStateEvent(%p) by %s: not an initialised event",
                             static_cast<void*>(Event), Caller(__builtin_return_address(0)).c_str());
    return 0;
  }
  std::lock_guard<std::mutex> guard(State().Lock);
  return Event->Header.SignalState;
}

VOID KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit) {
  if (Count < 0 || Limit <= 0 || Count > Limit)
    kvhost::ReportViolationF("SemaphoreInvalidInit", "KeInitializeSemaphore(%p) by %s with count %d and limit %d",
                             static_cast<void*>(Semaphore), Caller(__builtin_return_address(0)).c_str(), Count, Limit);
  Semaphore->Header.Type = SemaphoreObject;
  Semaphore->Header.Signalling = 0;
  Semaphore->Header.Size = SizeInLongs(sizeof(KSEMAPHORE));
  Semaphore->Header.Reserved1 = 0;
  Semaphore->Header.SignalState = Count;
  Semaphore->Limit = Limit;
  InitializeListHead(&Semaphore->Header.WaitListHead);
}

LONG KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment, BOOLEAN Wait) {
  const void* caller = __builtin_return_address(0);
  if (!IsSemaphore(&Semaphore->Header)) {
    kvhost::ReportViolationF("SemaphoreNotInitialized", "KeReleaseSemaphore(%p) by %s: not an initialised semaphore",
                             static_cast<void*>(Semaphore), Caller(caller).c_str());
    return 0;
  }
  if (KeGetCurrentIrql() > DISPATCH_LEVEL)
    kvhost::ReportViolationF("SemaphoreIrql", "KeReleaseSemaphore(%p) by %s at IRQL %u", static_cast<void*>(Semaphore),
                             Caller(caller).c_str(), KeGetCurrentIrql());
  std::lock_guard<std::mutex> guard(State().Lock);
  LONG previous = Semaphore->Header.SignalState;
  long long raised = static_cast<long long>(previous) + Adjustment;
  if (Adjustment <= 0 || raised > Semaphore->Limit) {
    // Windows raises STATUS_SEMAPHORE_LIMIT_EXCEEDED, a bug check in kernel mode. The count
    // stays as it was.
    kvhost::ReportViolationF("SemaphoreLimitExceeded",
                             "KeReleaseSemaphore(%p, adjustment %d) by %s: count %d would pass the limit %d "
                             "(STATUS_SEMAPHORE_LIMIT_EXCEEDED)",
                             static_cast<void*>(Semaphore), Adjustment, Caller(caller).c_str(), previous,
                             Semaphore->Limit);
    return previous;
  }
  Semaphore->Header.SignalState = static_cast<LONG>(raised);
  kvhost::detail::WakeWaiters(&Semaphore->Header);
  return previous;
}

LONG KeReadStateSemaphore(PRKSEMAPHORE Semaphore) {
  if (!IsSemaphore(&Semaphore->Header)) {
    kvhost::ReportViolationF("SemaphoreNotInitialized", "KeReadStateSemaphore(%p) by %s: not an initialised semaphore",
                             static_cast<void*>(Semaphore), Caller(__builtin_return_address(0)).c_str());
    return 0;
  }
  std::lock_guard<std::mutex> guard(State().Lock);
  return Semaphore->Header.SignalState;
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                               PLARGE_INTEGER Timeout) {
  const void* caller = __builtin_return_address(0);
  PVOID objects[1] = {Object};
  if (!ValidateWaitObjects(1, objects, WaitAny, "KeWaitForSingleObject", caller)) return STATUS_INVALID_PARAMETER;
  return Wait(1, objects, WaitAny, Timeout, nullptr, "KeWaitForSingleObject", caller);
}

NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType, KWAIT_REASON WaitReason,
                                  KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                  PKWAIT_BLOCK WaitBlockArray) {
  const void* caller = __builtin_return_address(0);
  // Windows: bug check 0xC, MAXIMUM_WAIT_OBJECTS_EXCEEDED, for both.
  if (Count == 0 || Count > MAXIMUM_WAIT_OBJECTS) {
    kvhost::ReportViolationF("WaitObjectCount", "KeWaitForMultipleObjects by %s with %lu objects (1 to %d allowed)",
                             Caller(caller).c_str(), static_cast<unsigned long>(Count), MAXIMUM_WAIT_OBJECTS);
    return STATUS_INVALID_PARAMETER;
  }
  if (Count > THREAD_WAIT_OBJECTS && WaitBlockArray == nullptr) {
    kvhost::ReportViolationF("WaitObjectCount",
                             "KeWaitForMultipleObjects by %s with %lu objects and no wait block array (more than "
                             "%d need one)",
                             Caller(caller).c_str(), static_cast<unsigned long>(Count), THREAD_WAIT_OBJECTS);
    return STATUS_INVALID_PARAMETER;
  }
  if (WaitType != WaitAny && WaitType != WaitAll) {
    kvhost::ReportViolationF("WaitInvalidType", "KeWaitForMultipleObjects by %s with wait type %d",
                             Caller(caller).c_str(), static_cast<int>(WaitType));
    return STATUS_INVALID_PARAMETER;
  }
  if (!ValidateWaitObjects(Count, Object, WaitType, "KeWaitForMultipleObjects", caller))
    return WaitType == WaitAll ? STATUS_INVALID_PARAMETER_MIX : STATUS_INVALID_PARAMETER;
  return Wait(Count, Object, WaitType, Timeout, WaitBlockArray, "KeWaitForMultipleObjects", caller);
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable, PLARGE_INTEGER Interval) {
  const void* caller = __builtin_return_address(0);
  if (Interval == nullptr) {
    kvhost::ReportViolationF("DelayWithoutInterval", "KeDelayExecutionThread by %s with no interval",
                             Caller(caller).c_str());
    return STATUS_INVALID_PARAMETER;
  }
  if (KeGetCurrentIrql() > APC_LEVEL) {
    // As for a wait: reported, and returns at once rather than risk hanging the test.
    kvhost::ReportViolationF("WaitAtRaisedIrql", "KeDelayExecutionThread by %s at IRQL %u", Caller(caller).c_str(),
                             KeGetCurrentIrql());
    return STATUS_SUCCESS;
  }
  if (Interval->QuadPart == 0) {
    // A zero interval gives up the rest of the time slice.
    std::this_thread::yield();
    return STATUS_SUCCESS;
  }
  NTSTATUS status = Wait(0, nullptr, WaitAny, Interval, nullptr, "KeDelayExecutionThread", caller);
  return status == STATUS_TIMEOUT ? STATUS_SUCCESS : status;
}

}  // extern "C"
