// The system worker queues: ExQueueWorkItem, the worker threads, and manual mode.
#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <thread>

#include "kernel_thread.h"
#include "kvhost/symbolize.h"
#include "kvhost/verifier.h"
#include "kvhost/workqueue.h"
#include "pool_internal.h"

namespace {

enum WorkerPool { kCritical = 0, kDelayed = 1, kPoolCount = 2 };
constexpr int kWorkersPerPool[kPoolCount] = {4, 3};

struct Work {
  PWORK_QUEUE_ITEM Item;
  WORK_QUEUE_TYPE Queue;
  const void* Routine;
  const void* QueuedBy;
  unsigned long long Sequence;
};

struct Queues {
  std::mutex Lock;
  std::condition_variable Available[kPoolCount];
  std::condition_variable Changed;  // an item ended, or the manual slot changed
  std::deque<Work> Pending[kPoolCount];
  std::deque<Work> Held;  // manual mode, every queue, oldest first
  bool Manual = false;
  bool WorkersStarted[kPoolCount] = {false, false};
  std::vector<Work> Running;
  std::set<PWORK_QUEUE_ITEM> Queued;
  unsigned long long NextSequence = 0;
  // Manual mode's runner: one item at a time, handed over by the test.
  bool RunnerStarted = false;
  bool SlotFull = false;
  Work Slot{};
};

Queues& Q() {
  static Queues* queues = new Queues;  // workers outlive main
  return *queues;
}

const char* QueueName(WORK_QUEUE_TYPE type) {
  switch (type) {
    case CriticalWorkQueue: return "CriticalWorkQueue";
    case DelayedWorkQueue: return "DelayedWorkQueue";
    case HyperCriticalWorkQueue: return "HyperCriticalWorkQueue";
    case NormalWorkQueue: return "NormalWorkQueue";
    case BackgroundWorkQueue: return "BackgroundWorkQueue";
    case RealTimeWorkQueue: return "RealTimeWorkQueue";
    case SuperCriticalWorkQueue: return "SuperCriticalWorkQueue";
    default: return "an invalid queue";
  }
}

bool PoolOf(WORK_QUEUE_TYPE type, WorkerPool* pool) {
  switch (type) {
    case CriticalWorkQueue:
    case HyperCriticalWorkQueue:
    case RealTimeWorkQueue:
    case SuperCriticalWorkQueue:
      *pool = kCritical;
      return true;
    case DelayedWorkQueue:
    case NormalWorkQueue:
    case BackgroundWorkQueue:
      *pool = kDelayed;
      return true;
    default:
      *pool = kDelayed;
      return false;
  }
}

std::string DescribeWork(const Work& w) {
  return "work item " + kvhost::DescribeRoutine(w.Routine) + " queued on " + QueueName(w.Queue) + " by " +
         kvhost::DescribeCodeAddress(w.QueuedBy);
}

// Runs one item on the calling worker thread.
void RunWork(const Work& w) {
  PWORKER_THREAD_ROUTINE routine = w.Item->WorkerRoutine;
  PVOID parameter = w.Item->Parameter;
  {
    // From here the item is the driver's again: the routine may free or queue it.
    Queues& q = Q();
    std::lock_guard<std::mutex> guard(q.Lock);
    q.Queued.erase(w.Item);
  }
  kvhost::detail::UnregisterActiveStructure(w.Item);
  kvhost::detail::ForceIrql(PASSIVE_LEVEL);
  routine(parameter);
  kvhost::detail::CheckReturnedClean("work routine", w.Routine);
}

void EraseRunning(Queues& q, unsigned long long sequence) {
  q.Running.erase(std::remove_if(q.Running.begin(), q.Running.end(),
                                 [&](const Work& r) { return r.Sequence == sequence; }),
                  q.Running.end());
}

void WorkerLoop(WorkerPool pool) {
  kvhost::detail::BecomeSystemThread();
  Queues& q = Q();
  std::unique_lock<std::mutex> lock(q.Lock);
  for (;;) {
    q.Available[pool].wait(lock, [&] { return !q.Pending[pool].empty(); });
    Work w = q.Pending[pool].front();
    q.Pending[pool].pop_front();
    q.Running.push_back(w);
    lock.unlock();
    RunWork(w);
    lock.lock();
    EraseRunning(q, w.Sequence);
    q.Changed.notify_all();
  }
}

void RunnerLoop() {
  kvhost::detail::BecomeSystemThread();
  Queues& q = Q();
  std::unique_lock<std::mutex> lock(q.Lock);
  for (;;) {
    q.Changed.wait(lock, [&] { return q.SlotFull; });
    Work w = q.Slot;
    lock.unlock();
    RunWork(w);
    lock.lock();
    EraseRunning(q, w.Sequence);
    q.SlotFull = false;
    q.Changed.notify_all();
  }
}

// With the lock held.
void StartWorkers(Queues& q, WorkerPool pool) {
  if (q.WorkersStarted[pool]) return;
  q.WorkersStarted[pool] = true;
  for (int i = 0; i < kWorkersPerPool[pool]; ++i) std::thread(WorkerLoop, pool).detach();
}

// With the lock held: hands a work item to the workers of its queue.
void Dispatch(Queues& q, const Work& w) {
  WorkerPool pool;
  PoolOf(w.Queue, &pool);
  StartWorkers(q, pool);
  q.Pending[pool].push_back(w);
  q.Available[pool].notify_one();
}

void Enqueue(PWORK_QUEUE_ITEM item, WORK_QUEUE_TYPE type, const void* routine, const void* caller,
             const char* api) {
  if (KeGetCurrentIrql() > DISPATCH_LEVEL)
    kvhost::ReportViolationF("WorkItemIrql", "%s by %s at IRQL %u", api, kvhost::DescribeCodeAddress(caller).c_str(),
                             KeGetCurrentIrql());
  if (item == nullptr || item->WorkerRoutine == nullptr) {
    kvhost::ReportViolationF("WorkItemInvalid", "%s by %s of a work item with no worker routine", api,
                             kvhost::DescribeCodeAddress(caller).c_str());
    return;
  }
  WorkerPool pool;
  if (!PoolOf(type, &pool))
    kvhost::ReportViolationF("WorkItemInvalidQueue", "%s by %s on queue type %d; the item goes to the delayed queue",
                             api, kvhost::DescribeCodeAddress(caller).c_str(), static_cast<int>(type));
  // Registered first: a worker may run the item (and unregister it) as soon as it is queued.
  kvhost::detail::RegisterActiveStructure(item, sizeof(WORK_QUEUE_ITEM), "a queued work item", caller);
  Queues& q = Q();
  std::unique_lock<std::mutex> lock(q.Lock);
  if (!q.Queued.insert(item).second) {
    lock.unlock();
    // Windows: bug check 0xE4, WORKER_INVALID. Queuing it again would link it twice.
    kvhost::ReportViolationF("WorkItemAlreadyQueued", "%s by %s of work item %p (routine %s), which is already queued",
                             api, kvhost::DescribeCodeAddress(caller).c_str(), static_cast<void*>(item),
                             kvhost::DescribeRoutine(routine).c_str());
    return;
  }
  Work w{item, type, routine, caller, ++q.NextSequence};
  if (q.Manual) {
    q.Held.push_back(w);
  } else {
    Dispatch(q, w);
  }
}

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "work queues",
      .Order = 10,
      .Reset =
          [] {
            kvhost::DiscardPendingWorkItems();
            kvhost::SetManualWorkQueues(false);
          },
      .Quiesce =
          [] {
            if (kvhost::WaitForWorkQueuesIdle(std::chrono::seconds(30))) return;
            Queues& q = Q();
            std::vector<Work> running;
            {
              std::lock_guard<std::mutex> guard(q.Lock);
              running = q.Running;
            }
            for (const Work& w : running)
              kvhost::ReportViolation("WorkQueueNotIdle", DescribeWork(w) + " was still running 30 s after the test");
          },
      .Check =
          [](std::vector<std::string>& problems) {
            Queues& q = Q();
            std::vector<Work> held;
            {
              std::lock_guard<std::mutex> guard(q.Lock);
              held.assign(q.Held.begin(), q.Held.end());
            }
            for (const Work& w : held) problems.push_back(DescribeWork(w) + " was never run (manual work queues)");
          },
  });
  return true;
}();

}  // namespace

namespace kvhost {

bool WaitForWorkQueuesIdle(std::chrono::milliseconds limit) {
  Queues& q = Q();
  std::unique_lock<std::mutex> lock(q.Lock);
  return q.Changed.wait_for(lock, limit, [&] {
    return q.Pending[kCritical].empty() && q.Pending[kDelayed].empty() && q.Running.empty();
  });
}

void SetManualWorkQueues(bool manual) {
  Queues& q = Q();
  std::lock_guard<std::mutex> guard(q.Lock);
  if (manual == q.Manual) return;
  q.Manual = manual;
  if (manual) {
    for (auto& pending : q.Pending) {
      q.Held.insert(q.Held.end(), pending.begin(), pending.end());
      pending.clear();
    }
    std::sort(q.Held.begin(), q.Held.end(), [](const Work& a, const Work& b) { return a.Sequence < b.Sequence; });
    return;
  }
  for (const Work& w : q.Held) Dispatch(q, w);
  q.Held.clear();
}

bool ManualWorkQueues() {
  std::lock_guard<std::mutex> guard(Q().Lock);
  return Q().Manual;
}

std::vector<PendingWorkItem> PendingWorkItems() {
  Queues& q = Q();
  std::lock_guard<std::mutex> guard(q.Lock);
  std::vector<PendingWorkItem> out;
  for (const Work& w : q.Held) out.push_back({w.Routine, w.Item->Parameter, w.Queue, w.QueuedBy});
  return out;
}

bool RunWorkItem(size_t index) {
  Queues& q = Q();
  std::unique_lock<std::mutex> lock(q.Lock);
  if (!q.Manual || index >= q.Held.size()) return false;
  if (!q.RunnerStarted) {
    q.RunnerStarted = true;
    std::thread(RunnerLoop).detach();
  }
  q.Changed.wait(lock, [&] { return !q.SlotFull; });
  q.Slot = q.Held[index];
  q.Held.erase(q.Held.begin() + static_cast<std::ptrdiff_t>(index));
  q.Running.push_back(q.Slot);
  q.SlotFull = true;
  q.Changed.notify_all();
  q.Changed.wait(lock, [&] { return !q.SlotFull; });
  return true;
}

bool RunNextWorkItem() { return RunWorkItem(0); }

size_t RunAllWorkItems() {
  size_t ran = 0;
  while (RunWorkItem(0)) ++ran;
  return ran;
}

size_t DiscardPendingWorkItems() {
  Queues& q = Q();
  std::lock_guard<std::mutex> guard(q.Lock);
  size_t count = q.Held.size();
  for (const Work& w : q.Held) q.Queued.erase(w.Item);
  q.Held.clear();
  return count;
}

void QueueWorkItem(PWORK_QUEUE_ITEM item, WORK_QUEUE_TYPE queue, const void* routine, const void* caller) {
  Enqueue(item, queue, routine, caller, "IoQueueWorkItem");
}

}  // namespace kvhost

extern "C" VOID ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType) {
  Enqueue(WorkItem, QueueType, WorkItem != nullptr ? reinterpret_cast<const void*>(WorkItem->WorkerRoutine) : nullptr,
          __builtin_return_address(0), "ExQueueWorkItem");
}
