// The machine's clock: system time, interrupt time, tick count, performance counter and the
// shared page that carries them, following the host clock or frozen under a test's hand.
#include <atomic>
#include <cstdint>
#include <chrono>
#include <mutex>
#include <thread>

#include "clock_internal.h"
#include "dispatcher_internal.h"
#include "kvhost/clock.h"
#include "kvhost/verifier.h"

extern "C" {
alignas(64) KUSER_SHARED_DATA KvUserSharedData;
}

namespace {

// The Windows default clock tick, 15.625 ms.
constexpr ULONG kTimeIncrement = 156250;
// The performance counter ticks in 100 ns units, as on current Windows.
constexpr LONGLONG kPerformanceFrequency = 10'000'000;

using Steady = std::chrono::steady_clock;

struct Reading {
  LONGLONG System;     // precise
  LONGLONG Interrupt;  // precise
};

struct ClockState {
  std::mutex Lock;
  bool Frozen = false;
  Reading FrozenAt{};
  // Added to the host's monotonic reading, so that interrupt time continues from a frozen
  // clock instead of going back when the clock follows the host again.
  LONGLONG InterruptOffset = 0;
  Steady::time_point Boot = Steady::now();

  // What the performance counter needs (whether frozen, the frozen interrupt time, the
  // offset), published under a sequence count at every change, so that the counter is
  // read without the lock: drivers read it on every request they time, from many
  // processors at once. An odd sequence means a change is under way.
  std::atomic<uint64_t> Sequence{0};
  std::atomic<bool> PublishedFrozen{false};
  std::atomic<LONGLONG> PublishedFrozenInterrupt{0};
  std::atomic<LONGLONG> PublishedInterruptOffset{0};
};

ClockState& Clock() {
  static ClockState* clock = new ClockState;  // the ticker outlives static destruction
  return *clock;
}

LONGLONG Units(std::chrono::nanoseconds d) { return static_cast<LONGLONG>(d.count() / 100); }

LONGLONG RawHostInterrupt(const ClockState& c) { return Units(Steady::now() - c.Boot); }

LONGLONG HostSystem() {
  return kvhost::kUnixEpochAsSystemTime + Units(std::chrono::system_clock::now().time_since_epoch());
}

// With the clock's lock held.
Reading Now(const ClockState& c) {
  if (c.Frozen) return c.FrozenAt;
  return {HostSystem(), RawHostInterrupt(c) + c.InterruptOffset};
}

Reading Read() {
  ClockState& c = Clock();
  std::lock_guard<std::mutex> guard(c.Lock);
  return Now(c);
}

// Interrupt time as Now(c).Interrupt gives it, without the lock. A reading that overlaps a
// change is taken again, so it is never one from before a freeze that is already in force.
LONGLONG ReadInterruptWithoutLock() {
  const ClockState& c = Clock();
  for (;;) {
    const uint64_t sequence = c.Sequence.load(std::memory_order_acquire);
    if ((sequence & 1) != 0) {
      std::this_thread::yield();
      continue;
    }
    // Acquire loads keep the second look at the sequence after them.
    const LONGLONG value = c.PublishedFrozen.load(std::memory_order_acquire)
                               ? c.PublishedFrozenInterrupt.load(std::memory_order_acquire)
                               : RawHostInterrupt(c) + c.PublishedInterruptOffset.load(std::memory_order_acquire);
    if (c.Sequence.load(std::memory_order_relaxed) == sequence) return value;
  }
}

// What Windows shows between clock ticks: the value at the last tick. A frozen clock shows
// exactly what the test set.
LONGLONG AtTick(LONGLONG value, bool frozen) { return frozen ? value : value - value % kTimeIncrement; }

void StoreSharedTime(volatile KSYSTEM_TIME* target, LONGLONG value) {
  // High2Time first, then the low 8 bytes at once: a reader that loads the 64 bits sees
  // either the old or the new value.
  __atomic_store_n(&target->High2Time, static_cast<LONG>(static_cast<ULONGLONG>(value) >> 32), __ATOMIC_RELEASE);
  __atomic_store_n(reinterpret_cast<volatile ULONG64*>(target), static_cast<ULONG64>(value), __ATOMIC_RELEASE);
}

// With the clock's lock held.
void PublishShared(const ClockState& c) {
  Reading r = Now(c);
  LONGLONG interrupt = AtTick(r.Interrupt, c.Frozen);
  StoreSharedTime(&KvUserSharedData.InterruptTime, interrupt);
  StoreSharedTime(&KvUserSharedData.SystemTime, AtTick(r.System, c.Frozen));
  StoreSharedTime(&KvUserSharedData.TickCount, r.Interrupt / kTimeIncrement);
  KvUserSharedData.TickCountLowDeprecated = static_cast<ULONG>(r.Interrupt / kTimeIncrement);
  KvUserSharedData.TickCountMultiplier = static_cast<ULONG>((static_cast<ULONGLONG>(kTimeIncrement) << 24) / 10000);
}

// The clock interrupt: refreshes the shared page at every tick while the clock follows the
// host. Started with the first test (or the first clock query) and kept for the process.
void EnsureTicker() {
  static std::atomic<bool> started{false};
  if (started.load(std::memory_order_acquire) || started.exchange(true)) return;
  {
    ClockState& c = Clock();
    std::lock_guard<std::mutex> guard(c.Lock);
    PublishShared(c);
  }
  std::thread([] {
    ClockState& c = Clock();
    auto next = Steady::now();
    for (;;) {
      next += std::chrono::nanoseconds(kTimeIncrement * 100LL);
      std::this_thread::sleep_until(next);
      std::lock_guard<std::mutex> guard(c.Lock);
      if (!c.Frozen) PublishShared(c);
    }
  }).detach();
}

// Changes the clock under its lock, publishes it and lets timed waiters look again.
template <class Change>
void ChangeClock(Change&& change) {
  EnsureTicker();
  ClockState& c = Clock();
  {
    std::lock_guard<std::mutex> guard(c.Lock);
    // Odd before the change reads the host clock, so that a reading taken after the change
    // began is taken again; the published values are release stores that cannot be seen
    // before the odd count.
    const uint64_t sequence = c.Sequence.fetch_add(1, std::memory_order_seq_cst);
    change(c);
    c.PublishedFrozen.store(c.Frozen, std::memory_order_release);
    c.PublishedFrozenInterrupt.store(c.FrozenAt.Interrupt, std::memory_order_release);
    c.PublishedInterruptOffset.store(c.InterruptOffset, std::memory_order_release);
    c.Sequence.store(sequence + 2, std::memory_order_release);
    PublishShared(c);
  }
  kvhost::detail::WakeTimedWaiters();
}

void FreezeLocked(ClockState& c) {
  if (c.Frozen) return;
  c.FrozenAt = Now(c);
  c.Frozen = true;
}

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "clock",
      .Order = 0,
      .Reset = [] { kvhost::FollowHostClock(); },
      .Quiesce = nullptr,
      .Check = nullptr,
      .SurvivesPowerLoss = true,
  });
  return true;
}();

}  // namespace

namespace kvhost {

void FollowHostClock() {
  ChangeClock([](ClockState& c) {
    if (!c.Frozen) return;
    // Continue from the next tick boundary, so that tick-granular readings do not fall
    // below what the frozen clock showed either.
    LONGLONG raw = RawHostInterrupt(c);
    LONGLONG resume = c.FrozenAt.Interrupt + (kTimeIncrement - c.FrozenAt.Interrupt % kTimeIncrement);
    if (resume > raw + c.InterruptOffset) c.InterruptOffset = resume - raw;
    c.Frozen = false;
  });
}

void FreezeClock() {
  ChangeClock([](ClockState& c) { FreezeLocked(c); });
}

bool IsClockFrozen() {
  ClockState& c = Clock();
  std::lock_guard<std::mutex> guard(c.Lock);
  return c.Frozen;
}

void SetSystemTime(LONGLONG systemTime) {
  ChangeClock([systemTime](ClockState& c) {
    FreezeLocked(c);
    c.FrozenAt.System = systemTime;
  });
}

void AdvanceClock(LONGLONG interval100ns) {
  if (interval100ns < 0) {
    ReportViolationF("ClockMisuse", "AdvanceClock by %lld: the clock only moves forward",
                     static_cast<long long>(interval100ns));
    return;
  }
  ChangeClock([interval100ns](ClockState& c) {
    FreezeLocked(c);
    c.FrozenAt.System += interval100ns;
    c.FrozenAt.Interrupt += interval100ns;
  });
}

size_t ThreadsInTimedWait() { return detail::TimedWaiterCount(); }

bool WaitForThreadsInTimedWait(size_t count, std::chrono::milliseconds limit) {
  auto until = Steady::now() + limit;
  while (detail::TimedWaiterCount() < count) {
    if (Steady::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace kvhost

namespace kvhost::detail {

Deadline DeadlineFromTimeout(LONGLONG timeout) {
  if (timeout > 0) return {true, timeout};
  return {false, Read().Interrupt - timeout};
}

bool DeadlinePassed(const Deadline& deadline) {
  Reading r = Read();
  return (deadline.Absolute ? r.System : r.Interrupt) >= deadline.At;
}

bool HostWakeTime(const Deadline& deadline, Steady::time_point* at) {
  ClockState& c = Clock();
  std::lock_guard<std::mutex> guard(c.Lock);
  if (c.Frozen) return false;
  Reading r = Now(c);
  LONGLONG remaining = deadline.At - (deadline.Absolute ? r.System : r.Interrupt);
  if (remaining < 0) remaining = 0;
  *at = Steady::now() + std::chrono::nanoseconds(remaining * 100);
  return true;
}

}  // namespace kvhost::detail

extern "C" {

VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime) {
  EnsureTicker();
  ClockState& c = Clock();
  std::lock_guard<std::mutex> guard(c.Lock);
  CurrentTime->QuadPart = AtTick(Now(c).System, c.Frozen);
}

VOID KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime) { CurrentTime->QuadPart = Read().System; }

ULONGLONG KeQueryInterruptTime(VOID) {
  ClockState& c = Clock();
  std::lock_guard<std::mutex> guard(c.Lock);
  return static_cast<ULONGLONG>(AtTick(Now(c).Interrupt, c.Frozen));
}

ULONGLONG KeQueryInterruptTimePrecise(PULONG64 QpcTimeStamp) {
  LONGLONG interrupt = Read().Interrupt;
  if (QpcTimeStamp != nullptr) *QpcTimeStamp = static_cast<ULONG64>(interrupt);
  return static_cast<ULONGLONG>(interrupt);
}

ULONGLONG KeQueryUnbiasedInterruptTime(VOID) { return KeQueryInterruptTime(); }

VOID KeQueryTickCount(PLARGE_INTEGER CurrentCount) { CurrentCount->QuadPart = Read().Interrupt / kTimeIncrement; }

ULONG KeQueryTimeIncrement(VOID) { return kTimeIncrement; }

LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency) {
  if (PerformanceFrequency != nullptr) PerformanceFrequency->QuadPart = kPerformanceFrequency;
  LARGE_INTEGER counter;
  counter.QuadPart = ReadInterruptWithoutLock();
  return counter;
}

VOID KeStallExecutionProcessor(ULONG MicroSeconds) {
  auto until = Steady::now() + std::chrono::microseconds(MicroSeconds);
  while (Steady::now() < until) std::this_thread::yield();
}

}  // extern "C"
