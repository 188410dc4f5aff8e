// Deadlines of timed waits, as the dispatcher measures them against the machine's clock.
#pragma once

#include <wdm.h>

#include <chrono>

namespace kvhost::detail {

struct Deadline {
  bool Absolute;  // At is a system time; otherwise an interrupt time
  LONGLONG At;
};

// For a wait's non-zero Timeout: negative is relative, positive an absolute system time.
Deadline DeadlineFromTimeout(LONGLONG timeout);

bool DeadlinePassed(const Deadline& deadline);

// The host time at which a waiter should look again; false when the clock is frozen (the
// waiter sleeps until the clock is moved).
bool HostWakeTime(const Deadline& deadline, std::chrono::steady_clock::time_point* at);

}  // namespace kvhost::detail
