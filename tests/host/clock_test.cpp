// The machine's clock: what drivers read (system time, the shared page, interrupt time,
// tick count, performance counter) while it follows the host and while a test holds it.
#include <gtest/gtest.h>
#include <wdm.h>

#include <chrono>
#include <thread>

#include "kvhost/clock.h"
#include "kvhost/verifier.h"

namespace {

using namespace std::chrono_literals;

// The way a driver reads a KSYSTEM_TIME without a lock: High1Time, LowPart, then
// High2Time must match.
LONGLONG SharedSystemTime() {
  for (;;) {
    LONG high = SharedUserData->SystemTime.High1Time;
    ULONG low = SharedUserData->SystemTime.LowPart;
    if (high == SharedUserData->SystemTime.High2Time)
      return static_cast<LONGLONG>((static_cast<ULONGLONG>(static_cast<ULONG>(high)) << 32) | low);
  }
}

LONGLONG HostNow() {
  return kvhost::kUnixEpochAsSystemTime +
         std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
                 .count() /
             100;
}

TEST(Clock, FollowsTheHostAtClockTickGranularity) {
  ASSERT_FALSE(kvhost::IsClockFrozen());
  LARGE_INTEGER coarse, precise;
  KeQuerySystemTime(&coarse);
  KeQuerySystemTimePrecise(&precise);
  EXPECT_NEAR(static_cast<double>(precise.QuadPart), static_cast<double>(HostNow()), 1e7) << "within a second";
  EXPECT_EQ(coarse.QuadPart % KeQueryTimeIncrement(), 0) << "the coarse time moves by whole ticks";
  EXPECT_LE(coarse.QuadPart, precise.QuadPart);
  EXPECT_EQ(KeQueryTimeIncrement(), 156250u);

  // The shared page moves on its own, tick by tick.
  LONGLONG first = SharedSystemTime();
  EXPECT_NEAR(static_cast<double>(first), static_cast<double>(HostNow()), 1e7);
  auto until = std::chrono::steady_clock::now() + 5s;
  while (SharedSystemTime() == first && std::chrono::steady_clock::now() < until) std::this_thread::sleep_for(5ms);
  EXPECT_GT(SharedSystemTime(), first);

  LARGE_INTEGER frequency;
  LARGE_INTEGER a = KeQueryPerformanceCounter(&frequency);
  std::this_thread::sleep_for(2ms);
  LARGE_INTEGER b = KeQueryPerformanceCounter(nullptr);
  EXPECT_EQ(frequency.QuadPart, 10'000'000);
  EXPECT_GE(b.QuadPart - a.QuadPart, 20'000) << "2 ms at 10 MHz";
}

TEST(Clock, FrozenClockMovesOnlyWhenTheTestMovesIt) {
  const LONGLONG start = kvhost::SystemTimeFromUnixSeconds(1'600'000'000) + 1234567;  // not on a tick
  kvhost::SetSystemTime(start);
  ULONGLONG interrupt = KeQueryInterruptTime();
  LARGE_INTEGER ticks, counter = KeQueryPerformanceCounter(nullptr);
  KeQueryTickCount(&ticks);
  std::this_thread::sleep_for(20ms);

  LARGE_INTEGER now;
  KeQuerySystemTime(&now);
  EXPECT_EQ(now.QuadPart, start) << "exactly what the test set";
  EXPECT_EQ(SharedSystemTime(), start);
  EXPECT_EQ(KeQueryInterruptTime(), interrupt);

  kvhost::AdvanceClock(10s);
  KeQuerySystemTimePrecise(&now);
  EXPECT_EQ(now.QuadPart, start + 10 * kvhost::kSystemTimeUnitsPerSecond);
  EXPECT_EQ(SharedSystemTime(), now.QuadPart);
  EXPECT_EQ(KeQueryInterruptTime(), interrupt + 100'000'000);
  EXPECT_EQ(KeQueryPerformanceCounter(nullptr).QuadPart, counter.QuadPart + 100'000'000);
  LARGE_INTEGER laterTicks;
  KeQueryTickCount(&laterTicks);
  EXPECT_EQ(laterTicks.QuadPart - ticks.QuadPart, 640) << "10 s of 15.625 ms ticks";

  kvhost::ViolationCapture capture;
  kvhost::AdvanceClock(-1);
  EXPECT_TRUE(capture.Saw("ClockMisuse"));
}

TEST(Clock, InterruptTimeNeverGoesBackAndEveryTestStartsOnTheHostClock) {
  kvhost::FreezeClock();
  kvhost::AdvanceClock(std::chrono::hours(1));
  ULONGLONG advanced = KeQueryInterruptTime();
  kvhost::FollowHostClock();
  EXPECT_GE(KeQueryInterruptTime(), advanced);

  kvhost::SetSystemTime(0);
  kvhost::BeginTest();  // what the harness does before the next test
  EXPECT_FALSE(kvhost::IsClockFrozen());
  LARGE_INTEGER now;
  KeQuerySystemTimePrecise(&now);
  EXPECT_NEAR(static_cast<double>(now.QuadPart), static_cast<double>(HostNow()), 1e7);
}

}  // namespace
