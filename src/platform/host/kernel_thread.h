// The kernel's record of a thread, shared by the executive's own modules (not by drivers,
// which see PKTHREAD and PETHREAD as opaque, nor by tests).
//
// Every host thread that enters the kernel has one: system threads get theirs from
// PsCreateSystemThread (the body is a thread object of the object manager), and any other
// host thread (a test's thread, a system worker) is adopted on first use with a body that
// is not an object. The body is the dispatcher object others wait on; the HostThread holds
// what only the running thread needs and goes away with it.
#pragma once

#include <wdm.h>

#include <condition_variable>
#include <csetjmp>
#include <string>

namespace kvhost::detail {
struct HostThread;
}

struct _KTHREAD {
  DISPATCHER_HEADER Header;  // signalled when the thread has ended
  KPRIORITY Priority;
  NTSTATUS ExitStatus;
  ULONG_PTR ThreadId;  // never reused; also the owner mark of the spin locks it holds
  PKSTART_ROUTINE StartRoutine;  // null for an adopted host thread
  PVOID StartContext;
  BOOLEAN SystemThread;
  // The running thread; null once it has ended. Guarded by the dispatcher lock.
  kvhost::detail::HostThread* Host;
};

struct _ETHREAD {
  _KTHREAD Tcb;
};

static_assert(sizeof(_KTHREAD) / sizeof(LONG) <= 0xFF, "the dispatcher header's Size must hold a thread body");

namespace kvhost::detail {

constexpr ULONG kMaxTrackedSpinLocks = 8;

struct HostThread {
  PKTHREAD Thread = nullptr;  // the system thread's object body, or &Adopted.Tcb
  _ETHREAD Adopted{};

  // Wait state, guarded by the dispatcher lock.
  std::condition_variable WakeUp;
  bool Waiting = false;
  NTSTATUS WaitStatus = STATUS_SUCCESS;
  WAIT_TYPE WaitType = WaitAny;
  PKWAIT_BLOCK WaitBlocks = nullptr;
  ULONG WaitCount = 0;
  bool TimedWait = false;
  KWAIT_BLOCK OwnWaitBlocks[THREAD_WAIT_OBJECTS]{};

  // Spin locks this thread holds, for the checks at the end of a work item or a thread.
  ULONG SpinLocksHeld = 0;
  PKSPIN_LOCK HeldLocks[kMaxTrackedSpinLocks]{};

  // Where PsTerminateSystemThread returns to (system threads only).
  std::jmp_buf* TerminateTarget = nullptr;
};

// The calling thread's record; a host thread is adopted on its first call.
HostThread& CurrentThread();

// Marks the calling (adopted) thread as one of the system's own, as the worker threads are.
void BecomeSystemThread();

// Sets the calling thread's IRQL without the raise/lower checks: a thread's or a worker's
// fresh start at PASSIVE_LEVEL, and the recovery after a violation was reported.
void ForceIrql(KIRQL irql);

// Releases every spin lock the calling thread still holds and returns how many there were;
// `names` gets their addresses.
ULONG ReleaseAbandonedSpinLocks(std::string* names);

// After a work routine or a system thread's start routine returned: it must have come back
// at PASSIVE_LEVEL holding no spin lock. Reports what is wrong (naming `routine`) and puts
// the thread back at PASSIVE_LEVEL with no lock held, so the worker can go on.
void CheckReturnedClean(const char* what, const void* routine);

}  // namespace kvhost::detail
