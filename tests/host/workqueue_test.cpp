// System worker queues: where and how work items run, manual mode's exact replay, and the
// misuse the verifier names.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wdm.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "kvhost/irql.h"
#include "kvhost/pool.h"
#include "kvhost/verifier.h"
#include "kvhost/workqueue.h"

namespace {

using testing::HasSubstr;

struct Observed {
  KEVENT Done;
  KIRQL Irql = HIGH_LEVEL;
  HANDLE ThreadId = nullptr;
  BOOLEAN SystemThread = FALSE;
};

void Observe(PVOID parameter) {
  auto* o = static_cast<Observed*>(parameter);
  o->Irql = KeGetCurrentIrql();
  o->ThreadId = PsGetCurrentThreadId();
  o->SystemThread = PsIsSystemThread(PsGetCurrentThread());
  KeSetEvent(&o->Done, 0, FALSE);
}

TEST(WorkQueue, ItemsRunAtPassiveLevelOnSystemWorkerThreads) {
  for (WORK_QUEUE_TYPE queue : {CriticalWorkQueue, DelayedWorkQueue}) {
    Observed seen;
    KeInitializeEvent(&seen.Done, NotificationEvent, FALSE);
    WORK_QUEUE_ITEM item;
    ExInitializeWorkItem(&item, Observe, &seen);
    kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { ExQueueWorkItem(&item, queue); });  // allowed at DISPATCH_LEVEL
    ASSERT_EQ(KeWaitForSingleObject(&seen.Done, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
    EXPECT_EQ(seen.Irql, PASSIVE_LEVEL);
    EXPECT_NE(seen.ThreadId, PsGetCurrentThreadId());
    EXPECT_TRUE(seen.SystemThread);
    EXPECT_FALSE(PsIsSystemThread(PsGetCurrentThread())) << "the test's own thread is not a system thread";
    ASSERT_TRUE(kvhost::WaitForWorkQueuesIdle());
  }
}

std::atomic<int> g_finished{0};

void CountSlowly(PVOID) {
  LARGE_INTEGER oneMs;
  oneMs.QuadPart = -10'000;
  KeDelayExecutionThread(KernelMode, FALSE, &oneMs);
  ++g_finished;
}

TEST(WorkQueue, IdleMeansEveryQueuedItemHasFinished) {
  g_finished = 0;
  std::vector<WORK_QUEUE_ITEM> items(24);
  for (size_t i = 0; i < items.size(); ++i) {
    ExInitializeWorkItem(&items[i], CountSlowly, nullptr);
    ExQueueWorkItem(&items[i], i % 2 ? CriticalWorkQueue : DelayedWorkQueue);
  }
  ASSERT_TRUE(kvhost::WaitForWorkQueuesIdle());
  EXPECT_EQ(g_finished, 24);
}

struct Recorder {
  std::mutex Lock;
  std::string Order;
  WORK_QUEUE_ITEM FollowUp;
};
Recorder* g_recorder = nullptr;

void RecordA(PVOID) {
  std::lock_guard<std::mutex> guard(g_recorder->Lock);
  g_recorder->Order += 'A';
}
void RecordB(PVOID) {
  std::lock_guard<std::mutex> guard(g_recorder->Lock);
  g_recorder->Order += 'B';
}
void RecordF(PVOID) {
  std::lock_guard<std::mutex> guard(g_recorder->Lock);
  g_recorder->Order += 'F';
}
void RecordCAndQueueFollowUp(PVOID) {
  {
    std::lock_guard<std::mutex> guard(g_recorder->Lock);
    g_recorder->Order += 'C';
  }
  ExInitializeWorkItem(&g_recorder->FollowUp, RecordF, nullptr);
  ExQueueWorkItem(&g_recorder->FollowUp, DelayedWorkQueue);
}

TEST(WorkQueue, ManualModeReplaysTheOrderTheTestChooses) {
  Recorder recorder;
  g_recorder = &recorder;
  kvhost::SetManualWorkQueues(true);
  WORK_QUEUE_ITEM a, b, c;
  ExInitializeWorkItem(&a, RecordA, &a);
  ExInitializeWorkItem(&b, RecordB, &b);
  ExInitializeWorkItem(&c, RecordCAndQueueFollowUp, &c);
  ExQueueWorkItem(&a, CriticalWorkQueue);
  ExQueueWorkItem(&b, DelayedWorkQueue);
  ExQueueWorkItem(&c, CriticalWorkQueue);
  ASSERT_TRUE(kvhost::WaitForWorkQueuesIdle()) << "held items do not keep the queues busy";
  EXPECT_EQ(recorder.Order, "") << "nothing runs until the test says so";

  std::vector<kvhost::PendingWorkItem> pending = kvhost::PendingWorkItems();
  ASSERT_EQ(pending.size(), 3u);
  EXPECT_EQ(pending[0].Routine, reinterpret_cast<const void*>(&RecordA));
  EXPECT_EQ(pending[1].Queue, DelayedWorkQueue);
  EXPECT_EQ(pending[2].Parameter, &c);

  ASSERT_TRUE(kvhost::RunWorkItem(2));
  EXPECT_EQ(recorder.Order, "C") << "RunWorkItem returns once the routine has returned";
  ASSERT_TRUE(kvhost::RunWorkItem(1));
  EXPECT_EQ(kvhost::RunAllWorkItems(), 2u);
  EXPECT_EQ(recorder.Order, "CBAF") << "the follow-up queued by C came last";
  EXPECT_FALSE(kvhost::RunNextWorkItem());
  g_recorder = nullptr;
}

TEST(WorkQueue, LeavingManualModeHandsHeldItemsToTheWorkers) {
  Recorder recorder;
  g_recorder = &recorder;
  kvhost::SetManualWorkQueues(true);
  WORK_QUEUE_ITEM a;
  ExInitializeWorkItem(&a, RecordA, nullptr);
  ExQueueWorkItem(&a, CriticalWorkQueue);
  kvhost::SetManualWorkQueues(false);
  ASSERT_TRUE(kvhost::WaitForWorkQueuesIdle());
  EXPECT_EQ(recorder.Order, "A");
  g_recorder = nullptr;
}

KSPIN_LOCK g_abandonedLock;

void ReturnAtDispatch(PVOID) {
  KIRQL old;
  KeRaiseIrql(DISPATCH_LEVEL, &old);
}

void ReturnHoldingLock(PVOID) {
  KIRQL old;
  KeAcquireSpinLock(&g_abandonedLock, &old);
  KeLowerIrql(old);  // reported as well: lowering while holding the lock
}

TEST(WorkQueue, ARoutineReturningAtRaisedIrqlOrHoldingALockIsNamed) {
  KeInitializeSpinLock(&g_abandonedLock);
  kvhost::ViolationCapture capture;
  WORK_QUEUE_ITEM raised, locked;
  ExInitializeWorkItem(&raised, ReturnAtDispatch, nullptr);
  ExInitializeWorkItem(&locked, ReturnHoldingLock, nullptr);
  ExQueueWorkItem(&raised, CriticalWorkQueue);
  ExQueueWorkItem(&locked, DelayedWorkQueue);
  ASSERT_TRUE(kvhost::WaitForWorkQueuesIdle());
  ASSERT_EQ(capture.Count("ReturnedAtRaisedIrql"), 1u) << capture.Describe();
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("ReturnAtDispatch"));
  ASSERT_EQ(capture.Count("ReturnedHoldingSpinLock"), 1u) << capture.Describe();
  EXPECT_THAT(capture.Describe(), HasSubstr("ReturnHoldingLock"));

  KIRQL old;
  KeAcquireSpinLock(&g_abandonedLock, &old);  // released behind the routine's back
  KeReleaseSpinLock(&g_abandonedLock, old);
}

void Nothing(PVOID) {}

TEST(WorkQueue, QueuingAnItemTwiceOrFreeingItWhileQueuedIsReported) {
  kvhost::ViolationCapture capture;
  kvhost::SetManualWorkQueues(true);
  WORK_QUEUE_ITEM item;
  ExInitializeWorkItem(&item, Nothing, nullptr);
  ExQueueWorkItem(&item, CriticalWorkQueue);
  ExQueueWorkItem(&item, CriticalWorkQueue);
  EXPECT_EQ(capture.Count("WorkItemAlreadyQueued"), 1u) << capture.Describe();
  EXPECT_EQ(kvhost::PendingWorkItems().size(), 1u);
  EXPECT_EQ(kvhost::RunAllWorkItems(), 1u);
  ExQueueWorkItem(&item, CriticalWorkQueue);  // fine again once it has run
  EXPECT_EQ(kvhost::RunAllWorkItems(), 1u);

  auto* pooled = static_cast<PWORK_QUEUE_ITEM>(ExAllocatePoolWithTag(NonPagedPoolNx, 64, KV_POOL_TAG('W', 'o', 'r', 'k')));
  ExInitializeWorkItem(pooled, Nothing, nullptr);
  ExQueueWorkItem(pooled, DelayedWorkQueue);
  ExFreePoolWithTag(pooled, KV_POOL_TAG('W', 'o', 'r', 'k'));
  ASSERT_EQ(capture.Count("PoolFreeActiveStructure"), 1u) << capture.Describe();
  EXPECT_THAT(capture.All().back().Message, HasSubstr("a queued work item"));
  EXPECT_EQ(kvhost::DiscardPendingWorkItems(), 1u);
  EXPECT_EQ(capture.Count(), 2u) << capture.Describe();
}

}  // namespace
