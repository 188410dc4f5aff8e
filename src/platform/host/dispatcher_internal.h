// The dispatcher's own state as the kernel's other modules use it: the lock over every
// dispatcher object's signal state and wait list, and the waking of waiters.
#pragma once

#include <wdm.h>

#include <cstddef>
#include <mutex>

namespace kvhost::detail {

// Like the Windows dispatcher database lock: held while a signal state or a wait list
// changes. Taken before the clock's own lock.
std::mutex& DispatcherLock();

// With the dispatcher lock held, after `object` became signalled: satisfies the waits it
// now satisfies, in the order they began.
void WakeWaiters(PDISPATCHER_HEADER object);

// The clock moved: every thread in a timed wait looks at its deadline again.
void WakeTimedWaiters();

size_t TimedWaiterCount();

}  // namespace kvhost::detail
