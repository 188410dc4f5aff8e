// Threads, waiters and processors, as tests observe and control them.
#pragma once

#include <wdm.h>

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace kvhost {

// System threads (PsCreateSystemThread) that have not ended: one line each naming the
// start routine and the thread id. Those still running at the end of a test are reported.
std::vector<std::string> DescribeRunningSystemThreads();
size_t RunningSystemThreadCount();
// Waits (in real time, up to `limit`) until every system thread has ended.
bool WaitForSystemThreads(std::chrono::milliseconds limit = std::chrono::seconds(10));

// Threads currently blocked waiting on a dispatcher object (an event, a semaphore, a
// thread), and a wait (in real time, up to `limit`) until at least `count` are: lets a test
// act only once the waits it means to release have begun.
size_t WaitersOn(const void* dispatcherObject);
bool WaitForWaiters(const void* dispatcherObject, size_t count,
                    std::chrono::milliseconds limit = std::chrono::seconds(10));

// The number of processors KeQueryActiveProcessorCount reports (1 to 64). The default, and
// the value at the start of every test, is the host's count.
void SetActiveProcessorCount(ULONG count);

}  // namespace kvhost
