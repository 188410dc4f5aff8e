// Per-thread I/O settings: the stack limits a driver measures its remaining stack against,
// and the hard-error mode.
#include <pthread.h>

#include "io_internal.h"

namespace {

struct StackLimits {
  ULONG_PTR Low = 0;
  ULONG_PTR High = 0;
};

// The real limits of the calling host thread, read once per thread (reading them is slow
// for the main thread).
const StackLimits& ThreadStack() {
  thread_local StackLimits limits = [] {
    StackLimits l;
    pthread_attr_t attr;
    if (pthread_getattr_np(pthread_self(), &attr) == 0) {
      void* base = nullptr;
      size_t size = 0;
      if (pthread_attr_getstack(&attr, &base, &size) == 0) {
        l.Low = reinterpret_cast<ULONG_PTR>(base);
        l.High = l.Low + size;
      }
      pthread_attr_destroy(&attr);
    }
    return l;
  }();
  return limits;
}

// Bytes a test lets the thread appear to have left; 0 when it looks as it is.
thread_local size_t t_shortStackBytes = 0;
thread_local bool t_hardErrorsEnabled = true;

}  // namespace

extern "C" {

__attribute__((noinline)) void IoGetStackLimits(PULONG_PTR LowLimit, PULONG_PTR HighLimit) {
  const StackLimits& limits = ThreadStack();
  *HighLimit = limits.High;
  *LowLimit = limits.Low;
  if (t_shortStackBytes != 0) {
    // Just below the caller's frame: whatever the caller measures from one of its locals
    // is about the bytes the test asked for.
    const ULONG_PTR here = reinterpret_cast<ULONG_PTR>(__builtin_frame_address(0));
    if (here - limits.Low > t_shortStackBytes) *LowLimit = here - t_shortStackBytes;
  }
}

BOOLEAN IoSetThreadHardErrorMode(BOOLEAN EnableHardErrors) {
  const BOOLEAN previous = t_hardErrorsEnabled ? TRUE : FALSE;
  t_hardErrorsEnabled = EnableHardErrors != FALSE;
  return previous;
}

}  // extern "C"

namespace kvhost {

ScopedShortStack::ScopedShortStack(size_t bytesLeft) : previous_(t_shortStackBytes) { t_shortStackBytes = bytesLeft; }
ScopedShortStack::~ScopedShortStack() { t_shortStackBytes = previous_; }

}  // namespace kvhost
