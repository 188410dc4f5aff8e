// The machine's clock, as tests control it.
//
// By default (and again at the start of every test) the clock follows the host's: system
// time is the host's UTC time, interrupt time counts from the start of the process. A
// test can freeze it and then set and advance it by hand; timed waits and
// KeDelayExecutionThread follow the frozen clock, so a one-second wait ends exactly when
// the test advances the clock past it (and never on its own).
//
// Relative timeouts count interrupt time; absolute ones count system time, so setting the
// system time ends absolute waits it passes but not relative ones.
#pragma once

#include <wdm.h>

#include <chrono>
#include <cstddef>

namespace kvhost {

// System time units.
constexpr LONGLONG kSystemTimeUnitsPerSecond = 10'000'000;
constexpr LONGLONG kSystemTimeUnitsPerMillisecond = 10'000;
// 1970-01-01 00:00:00 UTC as system time (100 ns units since 1601-01-01).
constexpr LONGLONG kUnixEpochAsSystemTime = 116'444'736'000'000'000LL;

constexpr LONGLONG SystemTimeFromUnixSeconds(long long seconds) {
  return kUnixEpochAsSystemTime + seconds * kSystemTimeUnitsPerSecond;
}

// Back to following the host clock. Interrupt time never goes back: it continues from
// where a frozen clock left it.
void FollowHostClock();

// Freezes the clock at its current reading.
void FreezeClock();

bool IsClockFrozen();

// Sets the system time (freezing the clock first). Interrupt time does not move.
void SetSystemTime(LONGLONG systemTime);

// Moves a frozen clock forward (freezing it first): system time, interrupt time, tick
// count and performance counter advance together, and every timed wait whose deadline has
// passed ends.
void AdvanceClock(LONGLONG interval100ns);

inline void AdvanceClock(std::chrono::nanoseconds interval) { AdvanceClock(interval.count() / 100); }

// Number of threads blocked in a wait with a timeout (or in KeDelayExecutionThread); and
// a wait (in real time, up to `limit`) until at least `count` are. Lets a test advance the
// frozen clock only once the waits it means to end have begun.
size_t ThreadsInTimedWait();
bool WaitForThreadsInTimedWait(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10));

}  // namespace kvhost
