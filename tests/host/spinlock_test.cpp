// IRQL and spin locks: what raising and lowering allow, mutual exclusion, and the misuse
// Windows would bug-check on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wdm.h>

#include <future>
#include <thread>
#include <vector>

#include "kvhost/irql.h"
#include "kvhost/verifier.h"

namespace {

using testing::HasSubstr;

TEST(Irql, RaiseAndLowerFollowTheRulesAndReportTheirMisuse) {
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
  {
    kvhost::ScopedIrql apc(APC_LEVEL);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_EQ(old, APC_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeLowerIrql(old);
    EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
  }
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
  EXPECT_EQ(std::async(std::launch::async, [] { return KeGetCurrentIrql(); }).get(), PASSIVE_LEVEL)
      << "IRQL belongs to the thread";

  kvhost::ViolationCapture capture;
  kvhost::RunAtIrql(DISPATCH_LEVEL, [] {
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);  // raising to a lower level
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL) << "a refused raise leaves the level alone";
    KeLowerIrql(old);
  });
  KeLowerIrql(APC_LEVEL);  // lowering to a higher level
  EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
  EXPECT_EQ(capture.Count("IrqlNotGreaterOrEqual"), 1u) << capture.Describe();
  EXPECT_EQ(capture.Count("IrqlNotLessOrEqual"), 1u) << capture.Describe();
  EXPECT_THAT(capture.Describe(), HasSubstr("spinlock_test.cpp")) << "the caller is named";
}

TEST(SpinLock, ExcludesOtherThreadsAndRestoresTheCallersIrql) {
  KSPIN_LOCK lock;
  KeInitializeSpinLock(&lock);
  long counter = 0;  // deliberately not atomic: only the lock protects it
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        if ((i + t) % 2 == 0) {
          KIRQL old;
          KeAcquireSpinLock(&lock, &old);
          EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
          ++counter;
          KeReleaseSpinLock(&lock, old);
        } else {
          KLOCK_QUEUE_HANDLE handle;
          KeAcquireInStackQueuedSpinLock(&lock, &handle);
          ++counter;
          KeReleaseInStackQueuedSpinLock(&handle);
        }
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
      }
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
  EXPECT_EQ(lock, 0u) << "a released lock is free";

  kvhost::ScopedIrql apc(APC_LEVEL);
  KIRQL old;
  KeAcquireSpinLock(&lock, &old);
  EXPECT_EQ(old, APC_LEVEL);
  KeReleaseSpinLock(&lock, old);
  EXPECT_EQ(KeGetCurrentIrql(), APC_LEVEL);
}

TEST(SpinLock, DpcLevelFormsRequireDispatchLevelAndTryDoesNotWait) {
  KSPIN_LOCK lock;
  KeInitializeSpinLock(&lock);
  KIRQL old;
  KeAcquireSpinLock(&lock, &old);
  bool acquiredElsewhere = std::async(std::launch::async, [&] {
                             return kvhost::RunAtIrql(DISPATCH_LEVEL,
                                                      [&] { return KeTryToAcquireSpinLockAtDpcLevel(&lock) != 0; });
                           }).get();
  EXPECT_FALSE(acquiredElsewhere);
  KeReleaseSpinLock(&lock, old);

  kvhost::RunAtIrql(DISPATCH_LEVEL, [&] {
    ASSERT_TRUE(KeTryToAcquireSpinLockAtDpcLevel(&lock));
    KeReleaseSpinLockFromDpcLevel(&lock);
    KLOCK_QUEUE_HANDLE handle;
    KeAcquireInStackQueuedSpinLockAtDpcLevel(&lock, &handle);
    KeReleaseInStackQueuedSpinLockFromDpcLevel(&handle);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
  });

  kvhost::ViolationCapture capture;
  KeAcquireSpinLockAtDpcLevel(&lock);  // at PASSIVE_LEVEL
  KeReleaseSpinLockFromDpcLevel(&lock);
  EXPECT_EQ(capture.Count("SpinLockIrql"), 2u) << capture.Describe();
}

TEST(SpinLock, ReleasingALockNotHeldNamesTheOwnerAndTheCaller) {
  KSPIN_LOCK lock;
  KeInitializeSpinLock(&lock);
  kvhost::ViolationCapture capture;
  kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { KeReleaseSpinLockFromDpcLevel(&lock); });
  ASSERT_EQ(capture.Count("SpinLockNotOwned"), 1u);
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("not held"));
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("spinlock_test.cpp"));

  KIRQL old;
  KeAcquireSpinLock(&lock, &old);
  std::async(std::launch::async, [&] {
    kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { KeReleaseSpinLockFromDpcLevel(&lock); });
  }).get();
  ASSERT_EQ(capture.Count("SpinLockNotOwned"), 2u);
  EXPECT_THAT(capture.All()[1].Message, HasSubstr("held by thread"));
  EXPECT_NE(lock, 0u) << "a foreign release leaves the owner's lock alone";
  KeReleaseSpinLock(&lock, old);
}

TEST(SpinLock, LoweringBelowDispatchWhileHoldingALockIsReported) {
  KSPIN_LOCK a, b;
  KeInitializeSpinLock(&a);
  KeInitializeSpinLock(&b);
  kvhost::ViolationCapture capture;
  KIRQL oldA, oldB;
  KeAcquireSpinLock(&a, &oldA);
  KeAcquireSpinLock(&b, &oldB);
  KeReleaseSpinLock(&a, oldA);  // out of order: restores PASSIVE_LEVEL while b is held
  EXPECT_EQ(capture.Count("IrqlLoweredHoldingSpinLock"), 1u) << capture.Describe();
  KeRaiseIrql(DISPATCH_LEVEL, &oldA);
  KeReleaseSpinLock(&b, PASSIVE_LEVEL);
}

TEST(SpinLockDeathTest, RecursiveAcquisitionIsABugCheckNamingTheLockAndCaller) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  KSPIN_LOCK lock;
  KeInitializeSpinLock(&lock);
  auto acquireTwice = [&] {
    KIRQL old, again;
    KeAcquireSpinLock(&lock, &old);
    KeAcquireSpinLock(&lock, &again);
  };
  EXPECT_DEATH(acquireTwice(),
      "BUGCHECK 0x0000000F: SPIN_LOCK_ALREADY_OWNED.*spinlock_test.cpp");
}

TEST(InterlockedList, OperationsReturnTheFormerFirstOrLastAndKeepOrderUnderContention) {
  KSPIN_LOCK lock;
  KeInitializeSpinLock(&lock);
  LIST_ENTRY head;
  InitializeListHead(&head);
  LIST_ENTRY a, b, c;
  EXPECT_EQ(ExInterlockedInsertTailList(&head, &a, &lock), nullptr) << "NULL: the list was empty";
  EXPECT_EQ(ExInterlockedInsertTailList(&head, &b, &lock), &a);
  EXPECT_EQ(ExInterlockedInsertHeadList(&head, &c, &lock), &a);
  EXPECT_EQ(ExInterlockedRemoveHeadList(&head, &lock), &c);
  EXPECT_EQ(ExInterlockedRemoveHeadList(&head, &lock), &a);
  EXPECT_EQ(ExInterlockedRemoveHeadList(&head, &lock), &b);
  EXPECT_EQ(ExInterlockedRemoveHeadList(&head, &lock), nullptr);

  SINGLE_LIST_ENTRY stack{nullptr};
  SINGLE_LIST_ENTRY s1, s2;
  EXPECT_EQ(ExInterlockedPushEntryList(&stack, &s1, &lock), nullptr);
  EXPECT_EQ(ExInterlockedPushEntryList(&stack, &s2, &lock), &s1);
  EXPECT_EQ(ExInterlockedPopEntryList(&stack, &lock), &s2);
  EXPECT_EQ(ExInterlockedPopEntryList(&stack, &lock), &s1);
  EXPECT_EQ(ExInterlockedPopEntryList(&stack, &lock), nullptr);

  // Two producers, one consumer: every entry arrives once, each producer's in order.
  constexpr int kPerProducer = 5000;
  struct Item {
    LIST_ENTRY Link;
    int Producer;
    int Index;
  };
  std::vector<Item> items(2 * kPerProducer);
  std::vector<std::thread> producers;
  for (int p = 0; p < 2; ++p)
    producers.emplace_back([&, p] {
      for (int i = 0; i < kPerProducer; ++i) {
        Item& item = items[p * kPerProducer + i];
        item.Producer = p;
        item.Index = i;
        ExInterlockedInsertTailList(&head, &item.Link, &lock);
      }
    });
  int next[2] = {0, 0};
  for (int received = 0; received < 2 * kPerProducer;) {
    PLIST_ENTRY e = ExInterlockedRemoveHeadList(&head, &lock);
    if (e == nullptr) continue;
    Item* item = CONTAINING_RECORD(e, Item, Link);
    ASSERT_EQ(item->Index, next[item->Producer]++);
    ++received;
  }
  for (std::thread& t : producers) t.join();
  EXPECT_TRUE(IsListEmpty(&head));
}

TEST(Interlocked, ReturnValuesAreTheOnesWindowsDocuments) {
  volatile LONG v = 5;
  EXPECT_EQ(InterlockedIncrement(&v), 6);
  EXPECT_EQ(InterlockedExchangeAdd(&v, 4), 6) << "ExchangeAdd returns the old value";
  EXPECT_EQ(InterlockedAdd(&v, 4), 14) << "Add returns the new value";
  EXPECT_EQ(InterlockedCompareExchange(&v, 1, 99), 14) << "no exchange: returns the current value";
  EXPECT_EQ(InterlockedCompareExchange(&v, 1, 14), 14);
  EXPECT_EQ(v, 1);
  EXPECT_EQ(InterlockedOr(&v, 6), 1);
  EXPECT_EQ(InterlockedAnd(&v, 3), 7);
  EXPECT_EQ(InterlockedXor(&v, 1), 3);
  EXPECT_EQ(InterlockedExchange(&v, -1), 2);
  EXPECT_EQ(InterlockedIncrement(&v), 0);

  volatile LONG64 big = 0x100000000LL;
  EXPECT_EQ(InterlockedAdd64(&big, 1), 0x100000001LL);
  EXPECT_EQ(InterlockedCompareExchange64(&big, 7, 0x100000001LL), 0x100000001LL);
  EXPECT_EQ(big, 7);

  volatile LONG bits[2] = {0, 0};
  EXPECT_FALSE(InterlockedBitTestAndSet(bits, 33));
  EXPECT_TRUE(InterlockedBitTestAndSet(bits, 33));
  EXPECT_EQ(bits[1], 2);
  EXPECT_TRUE(InterlockedBitTestAndReset(bits, 33));
  EXPECT_EQ(bits[1], 0);

  int x = 0, y = 0;
  PVOID volatile slot = &x;
  EXPECT_EQ(InterlockedCompareExchangePointer(&slot, &y, &x), &x);
  EXPECT_EQ(InterlockedExchangePointer(&slot, nullptr), &y);

  volatile LONG64 counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 50000; ++i) InterlockedIncrement64(&counter);
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(counter, 200000);
}

}  // namespace
