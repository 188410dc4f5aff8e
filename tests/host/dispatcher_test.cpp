// Events, semaphores and waits: who wakes, what is consumed, what a wait returns, and the
// waits Windows would not allow.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wdm.h>

#include <atomic>
#include <future>
#include <thread>
#include <vector>

#include "kvhost/clock.h"
#include "kvhost/irql.h"
#include "kvhost/thread.h"
#include "kvhost/verifier.h"

namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;

LARGE_INTEGER Timeout(LONGLONG value) {
  LARGE_INTEGER t;
  t.QuadPart = value;
  return t;
}

// Starts `count` threads that each wait once on `object` and count their returns.
std::vector<std::thread> StartWaiters(PVOID object, int count, std::atomic<int>* returned) {
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i)
    threads.emplace_back([object, returned] {
      EXPECT_EQ(KeWaitForSingleObject(object, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
      ++*returned;
    });
  return threads;
}

void JoinAll(std::vector<std::thread>& threads) {
  for (std::thread& t : threads) t.join();
}

TEST(Event, SynchronizationEventWakesExactlyOneWaiterAndResets) {
  KEVENT event;
  KeInitializeEvent(&event, SynchronizationEvent, FALSE);
  std::atomic<int> returned{0};
  std::vector<std::thread> waiters = StartWaiters(&event, 3, &returned);
  ASSERT_TRUE(kvhost::WaitForWaiters(&event, 3));

  EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0);
  EXPECT_EQ(kvhost::WaitersOn(&event), 2u) << "one wait satisfied by the set";
  EXPECT_EQ(KeReadStateEvent(&event), 0) << "the woken waiter consumed the signal";
  KeSetEvent(&event, 0, FALSE);
  EXPECT_EQ(kvhost::WaitersOn(&event), 1u);
  KeSetEvent(&event, 0, FALSE);
  JoinAll(waiters);
  EXPECT_EQ(returned, 3);

  EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 0) << "no waiter: the event stays set";
  EXPECT_EQ(KeSetEvent(&event, 0, FALSE), 1) << "returns the previous state";
  EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr), STATUS_WAIT_0);
  LARGE_INTEGER poll = Timeout(0);
  EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &poll), STATUS_TIMEOUT)
      << "the one signal was taken by the first wait";
}

TEST(Event, NotificationEventWakesEveryWaiterAndStaysSignalled) {
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  std::atomic<int> returned{0};
  std::vector<std::thread> waiters = StartWaiters(&event, 3, &returned);
  ASSERT_TRUE(kvhost::WaitForWaiters(&event, 3));
  KeSetEvent(&event, 0, FALSE);
  EXPECT_EQ(kvhost::WaitersOn(&event), 0u);
  JoinAll(waiters);
  EXPECT_EQ(returned, 3);
  EXPECT_EQ(KeReadStateEvent(&event), 1);
  EXPECT_EQ(KeResetEvent(&event), 1);
  EXPECT_EQ(KeReadStateEvent(&event), 0);
}

TEST(Semaphore, ReleaseWakesAsManyWaitersAsItAddsAndRefusesToPassTheLimit) {
  KSEMAPHORE semaphore;
  KeInitializeSemaphore(&semaphore, 0, 3);
  std::atomic<int> returned{0};
  std::vector<std::thread> waiters = StartWaiters(&semaphore, 3, &returned);
  ASSERT_TRUE(kvhost::WaitForWaiters(&semaphore, 3));
  EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 2, FALSE), 0);
  EXPECT_EQ(kvhost::WaitersOn(&semaphore), 1u);
  EXPECT_EQ(KeReadStateSemaphore(&semaphore), 0) << "both counts went to waiters";
  KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
  JoinAll(waiters);

  EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 3, FALSE), 0);
  kvhost::ViolationCapture capture;
  EXPECT_EQ(KeReleaseSemaphore(&semaphore, 0, 1, FALSE), 3);
  EXPECT_EQ(KeReadStateSemaphore(&semaphore), 3) << "the count stays at the limit";
  ASSERT_EQ(capture.Count("SemaphoreLimitExceeded"), 1u);
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("dispatcher_test.cpp"));
}

TEST(WaitMultiple, WaitAnyReturnsTheIndexOfTheSignalledObject) {
  KEVENT events[3];
  for (KEVENT& e : events) KeInitializeEvent(&e, SynchronizationEvent, FALSE);
  PVOID objects[3] = {&events[0], &events[1], &events[2]};
  auto waiter = std::async(std::launch::async, [&] {
    return KeWaitForMultipleObjects(3, objects, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr);
  });
  ASSERT_TRUE(kvhost::WaitForWaiters(&events[2], 1));
  KeSetEvent(&events[2], 0, FALSE);
  EXPECT_EQ(waiter.get(), STATUS_WAIT_0 + 2);
  EXPECT_EQ(kvhost::WaitersOn(&events[0]), 0u) << "a satisfied wait leaves every object's list";

  KeSetEvent(&events[1], 0, FALSE);
  KeSetEvent(&events[2], 0, FALSE);
  EXPECT_EQ(KeWaitForMultipleObjects(3, objects, WaitAny, Executive, KernelMode, FALSE, nullptr, nullptr),
            STATUS_WAIT_1)
      << "the lowest signalled index wins";
  EXPECT_EQ(KeReadStateEvent(&events[2]), 1) << "only the chosen object is consumed";
}

TEST(WaitMultiple, WaitAllConsumesNothingUntilEveryObjectIsSignalled) {
  KEVENT event;
  KeInitializeEvent(&event, SynchronizationEvent, FALSE);
  KSEMAPHORE semaphore;
  KeInitializeSemaphore(&semaphore, 0, 1);
  PVOID objects[2] = {&event, &semaphore};
  auto waiter = std::async(std::launch::async, [&] {
    return KeWaitForMultipleObjects(2, objects, WaitAll, Executive, KernelMode, FALSE, nullptr, nullptr);
  });
  ASSERT_TRUE(kvhost::WaitForWaiters(&semaphore, 1));
  KeSetEvent(&event, 0, FALSE);
  EXPECT_EQ(KeReadStateEvent(&event), 1) << "the event waits for the semaphore, unconsumed";
  EXPECT_EQ(kvhost::WaitersOn(&event), 1u);
  KeReleaseSemaphore(&semaphore, 0, 1, FALSE);
  EXPECT_EQ(waiter.get(), STATUS_WAIT_0);
  EXPECT_EQ(KeReadStateEvent(&event), 0);
  EXPECT_EQ(KeReadStateSemaphore(&semaphore), 0);
}

TEST(WaitMultiple, MoreObjectsThanTheThreadsOwnBlocksNeedAnArray) {
  KEVENT events[THREAD_WAIT_OBJECTS + 1];
  PVOID objects[THREAD_WAIT_OBJECTS + 1];
  for (int i = 0; i <= THREAD_WAIT_OBJECTS; ++i) {
    KeInitializeEvent(&events[i], NotificationEvent, i == THREAD_WAIT_OBJECTS);
    objects[i] = &events[i];
  }
  KWAIT_BLOCK blocks[THREAD_WAIT_OBJECTS + 1];
  EXPECT_EQ(KeWaitForMultipleObjects(THREAD_WAIT_OBJECTS + 1, objects, WaitAny, Executive, KernelMode, FALSE,
                                     nullptr, blocks),
            STATUS_WAIT_0 + THREAD_WAIT_OBJECTS);
  kvhost::ViolationCapture capture;
  EXPECT_EQ(KeWaitForMultipleObjects(THREAD_WAIT_OBJECTS + 1, objects, WaitAny, Executive, KernelMode, FALSE,
                                     nullptr, nullptr),
            STATUS_INVALID_PARAMETER);
  EXPECT_EQ(capture.Count("WaitObjectCount"), 1u) << capture.Describe();
}

TEST(Wait, AtDispatchLevelIsReportedWithTheCallerAndDoesNotBlock) {
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  kvhost::ViolationCapture capture;
  NTSTATUS status = kvhost::RunAtIrql(
      DISPATCH_LEVEL, [&] { return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr); });
  EXPECT_EQ(status, STATUS_TIMEOUT) << "the wait only looks at the object";
  ASSERT_EQ(capture.Count("WaitAtRaisedIrql"), 1u) << capture.Describe();
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("IRQL 2"));
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("dispatcher_test.cpp"));

  LARGE_INTEGER poll = Timeout(0);
  EXPECT_EQ(kvhost::RunAtIrql(DISPATCH_LEVEL,
                              [&] { return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &poll); }),
            STATUS_TIMEOUT);
  EXPECT_EQ(capture.Count(), 1u) << "a zero timeout is allowed at DISPATCH_LEVEL";

  LARGE_INTEGER second = Timeout(-10'000'000);
  kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { KeDelayExecutionThread(KernelMode, FALSE, &second); });
  EXPECT_EQ(capture.Count("WaitAtRaisedIrql"), 2u);
}

TEST(Wait, OnSomethingThatIsNotADispatcherObjectIsReported) {
  KEVENT zeroed{};  // never initialised
  kvhost::ViolationCapture capture;
  EXPECT_EQ(KeWaitForSingleObject(&zeroed, Executive, KernelMode, FALSE, nullptr), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(KeSetEvent(&zeroed, 0, FALSE), 0);
  EXPECT_EQ(capture.Count("WaitOnInvalidObject"), 1u) << capture.Describe();
  EXPECT_EQ(capture.Count("EventNotInitialized"), 1u) << capture.Describe();
}

// ----- Timeouts under the frozen clock.

TEST(WaitTimeout, RelativeTimeoutEndsWhenTheClockPassesIt) {
  kvhost::FreezeClock();
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  auto waiter = std::async(std::launch::async, [&] {
    LARGE_INTEGER oneSecond = Timeout(-kvhost::kSystemTimeUnitsPerSecond);
    return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &oneSecond);
  });
  ASSERT_TRUE(kvhost::WaitForThreadsInTimedWait(1));
  kvhost::AdvanceClock(999ms);
  EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout) << "999 ms into a one-second wait";
  kvhost::SetSystemTime(kvhost::SystemTimeFromUnixSeconds(2'000'000'000));
  EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout) << "system time does not end a relative wait";
  kvhost::AdvanceClock(1ms);
  EXPECT_EQ(waiter.get(), STATUS_TIMEOUT);
  EXPECT_EQ(kvhost::WaitersOn(&event), 0u);
}

TEST(WaitTimeout, AbsoluteTimeoutEndsWhenTheSystemTimeReachesIt) {
  const LONGLONG start = kvhost::SystemTimeFromUnixSeconds(1'700'000'000);
  kvhost::SetSystemTime(start);
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  auto waiter = std::async(std::launch::async, [&] {
    LARGE_INTEGER at = Timeout(start + 5 * kvhost::kSystemTimeUnitsPerSecond);
    return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &at);
  });
  ASSERT_TRUE(kvhost::WaitForThreadsInTimedWait(1));
  kvhost::AdvanceClock(4s);
  EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout);
  kvhost::SetSystemTime(start + 5 * kvhost::kSystemTimeUnitsPerSecond);
  EXPECT_EQ(waiter.get(), STATUS_TIMEOUT);

  LARGE_INTEGER past = Timeout(start);
  EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &past), STATUS_TIMEOUT)
      << "a time already passed ends the wait at once";
}

TEST(WaitTimeout, SignalBeforeTheDeadlineWinsAndDelayFollowsTheClock) {
  kvhost::FreezeClock();
  KEVENT event;
  KeInitializeEvent(&event, SynchronizationEvent, FALSE);
  auto waiter = std::async(std::launch::async, [&] {
    LARGE_INTEGER tenSeconds = Timeout(-10 * kvhost::kSystemTimeUnitsPerSecond);
    return KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &tenSeconds);
  });
  ASSERT_TRUE(kvhost::WaitForWaiters(&event, 1));
  KeSetEvent(&event, 0, FALSE);
  EXPECT_EQ(waiter.get(), STATUS_WAIT_0);
  EXPECT_EQ(kvhost::ThreadsInTimedWait(), 0u);

  auto sleeper = std::async(std::launch::async, [] {
    LARGE_INTEGER halfSecond = Timeout(-5'000'000);
    return KeDelayExecutionThread(KernelMode, FALSE, &halfSecond);
  });
  ASSERT_TRUE(kvhost::WaitForThreadsInTimedWait(1));
  EXPECT_EQ(sleeper.wait_for(50ms), std::future_status::timeout);
  kvhost::AdvanceClock(500ms);
  EXPECT_EQ(sleeper.get(), STATUS_SUCCESS);
}

TEST(WaitTimeout, HostClockTimeoutsPassInRealTime) {
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  LARGE_INTEGER twentyMs = Timeout(-20 * kvhost::kSystemTimeUnitsPerMillisecond);
  auto before = std::chrono::steady_clock::now();
  EXPECT_EQ(KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, &twentyMs), STATUS_TIMEOUT);
  EXPECT_GE(std::chrono::steady_clock::now() - before, 20ms);
}

}  // namespace
