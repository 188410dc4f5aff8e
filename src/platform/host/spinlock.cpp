// Spin locks and the executive's list operations under a spin lock.
//
// The lock word holds the id of the thread that owns it (zero when free), so a recursive
// acquisition, a release by a thread that does not own it and a lock held far too long can
// each be named. Acquisition spins briefly, then yields: host threads, unlike processors at
// DISPATCH_LEVEL, can be preempted while holding a lock.
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "kernel_thread.h"
#include "kvhost/symbolize.h"
#include "kvhost/verifier.h"

namespace {

using kvhost::detail::HostThread;

// Windows' DPC watchdog ends a system that spends this long at DISPATCH_LEVEL; here it ends
// a test that would otherwise hang on a lock nobody releases.
constexpr auto kSpinWatchdog = std::chrono::seconds(20);

std::string Caller(const void* address) { return kvhost::DescribeCodeAddress(address); }

void NoteHeld(HostThread& self, PKSPIN_LOCK lock) {
  if (self.SpinLocksHeld < kvhost::detail::kMaxTrackedSpinLocks) self.HeldLocks[self.SpinLocksHeld] = lock;
  ++self.SpinLocksHeld;
}

void NoteReleased(HostThread& self, PKSPIN_LOCK lock) {
  ULONG tracked = self.SpinLocksHeld < kvhost::detail::kMaxTrackedSpinLocks ? self.SpinLocksHeld
                                                                            : kvhost::detail::kMaxTrackedSpinLocks;
  for (ULONG i = 0; i < tracked; ++i) {
    if (self.HeldLocks[i] != lock) continue;
    self.HeldLocks[i] = self.HeldLocks[tracked - 1];
    self.HeldLocks[tracked - 1] = nullptr;
    break;
  }
  if (self.SpinLocksHeld != 0) --self.SpinLocksHeld;
}

void AcquireLockWord(PKSPIN_LOCK lock, const char* routine, const void* caller) {
  HostThread& self = kvhost::detail::CurrentThread();
  const ULONG_PTR me = self.Thread->ThreadId;
  ULONG_PTR seen = 0;
  if (__atomic_compare_exchange_n(lock, &seen, me, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
    NoteHeld(self, lock);
    return;
  }
  if (seen == me) {
    // The thread would spin on itself forever.
    char reason[512];
    std::snprintf(reason, sizeof reason,
                  "SPIN_LOCK_ALREADY_OWNED: %s of spin lock %p by %s, whose thread %llu already holds it", routine,
                  static_cast<void*>(lock), Caller(caller).c_str(), static_cast<unsigned long long>(me));
    kvhost::BugCheck(0xF, reason);
  }
  auto started = std::chrono::steady_clock::now();
  for (unsigned spins = 1;; ++spins) {
    seen = 0;
    if (__atomic_load_n(lock, __ATOMIC_RELAXED) == 0 &&
        __atomic_compare_exchange_n(lock, &seen, me, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
      break;
    if (spins < 64) continue;
    std::this_thread::yield();
    if (spins % 4096 == 0 && std::chrono::steady_clock::now() - started > kSpinWatchdog) {
      char reason[512];
      std::snprintf(reason, sizeof reason,
                    "DPC_WATCHDOG_VIOLATION: %s of spin lock %p by %s spun for %lld s; thread %llu holds it",
                    routine, static_cast<void*>(lock), Caller(caller).c_str(),
                    static_cast<long long>(kSpinWatchdog.count()),
                    static_cast<unsigned long long>(__atomic_load_n(lock, __ATOMIC_RELAXED)));
      kvhost::BugCheck(0x133, reason);
    }
  }
  NoteHeld(self, lock);
}

// False (after reporting) when the caller does not hold the lock; the word is then left
// alone, since it belongs to someone else or to nobody.
bool ReleaseLockWord(PKSPIN_LOCK lock, const char* routine, const void* caller) {
  HostThread& self = kvhost::detail::CurrentThread();
  const ULONG_PTR me = self.Thread->ThreadId;
  ULONG_PTR owner = __atomic_load_n(lock, __ATOMIC_RELAXED);
  if (owner != me) {
    // Windows: bug check 0x10, SPIN_LOCK_NOT_OWNED.
    if (owner == 0)
      kvhost::ReportViolationF("SpinLockNotOwned", "%s of spin lock %p by %s: the lock is not held", routine,
                               static_cast<void*>(lock), Caller(caller).c_str());
    else
      kvhost::ReportViolationF("SpinLockNotOwned", "%s of spin lock %p by %s: the lock is held by thread %llu, not %llu",
                               routine, static_cast<void*>(lock), Caller(caller).c_str(),
                               static_cast<unsigned long long>(owner), static_cast<unsigned long long>(me));
    return false;
  }
  __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
  NoteReleased(self, lock);
  return true;
}

void RequireIrqlAtMost(KIRQL most, const char* routine, PKSPIN_LOCK lock, const void* caller) {
  KIRQL irql = KeGetCurrentIrql();
  if (irql > most)
    kvhost::ReportViolationF("SpinLockIrql", "%s of spin lock %p by %s at IRQL %u (at most %u allowed)", routine,
                             static_cast<void*>(lock), Caller(caller).c_str(), irql, most);
}

void RequireDispatchLevel(const char* routine, PKSPIN_LOCK lock, const void* caller) {
  KIRQL irql = KeGetCurrentIrql();
  if (irql < DISPATCH_LEVEL)
    kvhost::ReportViolationF("SpinLockIrql", "%s of spin lock %p by %s at IRQL %u (DISPATCH_LEVEL required)",
                             routine, static_cast<void*>(lock), Caller(caller).c_str(), irql);
}

KIRQL RaiseAndAcquire(PKSPIN_LOCK lock, const char* routine, const void* caller) {
  RequireIrqlAtMost(DISPATCH_LEVEL, routine, lock, caller);
  KIRQL old = KeGetCurrentIrql();
  if (old < DISPATCH_LEVEL) kvhost::detail::ForceIrql(DISPATCH_LEVEL);
  AcquireLockWord(lock, routine, caller);
  return old;
}

void ReleaseAndLower(PKSPIN_LOCK lock, KIRQL newIrql, const char* routine, const void* caller) {
  KIRQL irql = KeGetCurrentIrql();
  if (irql != DISPATCH_LEVEL)
    kvhost::ReportViolationF("SpinLockIrql", "%s of spin lock %p by %s at IRQL %u (DISPATCH_LEVEL required)",
                             routine, static_cast<void*>(lock), Caller(caller).c_str(), irql);
  ReleaseLockWord(lock, routine, caller);
  if (newIrql > DISPATCH_LEVEL) {
    kvhost::ReportViolationF("SpinLockIrql", "%s of spin lock %p by %s restores IRQL %u, above DISPATCH_LEVEL",
                             routine, static_cast<void*>(lock), Caller(caller).c_str(), newIrql);
    return;
  }
  if (newIrql >= irql) return;
  ULONG stillHeld = kvhost::detail::CurrentThread().SpinLocksHeld;
  if (newIrql < DISPATCH_LEVEL && stillHeld != 0)
    kvhost::ReportViolationF("IrqlLoweredHoldingSpinLock",
                             "%s of spin lock %p by %s lowers IRQL to %u while %lu other spin lock(s) are held", routine,
                             static_cast<void*>(lock), Caller(caller).c_str(), newIrql,
                             static_cast<unsigned long>(stillHeld));
  kvhost::detail::ForceIrql(newIrql);
}

}  // namespace

namespace kvhost::detail {

ULONG ReleaseAbandonedSpinLocks(std::string* names) {
  HostThread& self = CurrentThread();
  ULONG count = self.SpinLocksHeld;
  ULONG tracked = count < kMaxTrackedSpinLocks ? count : kMaxTrackedSpinLocks;
  for (ULONG i = 0; i < tracked; ++i) {
    char text[40];
    std::snprintf(text, sizeof text, "%s%p", i == 0 ? "" : ", ", static_cast<void*>(self.HeldLocks[i]));
    if (names != nullptr) *names += text;
    ULONG_PTR me = self.Thread->ThreadId;
    __atomic_compare_exchange_n(self.HeldLocks[i], &me, 0, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED);
    self.HeldLocks[i] = nullptr;
  }
  self.SpinLocksHeld = 0;
  return count;
}

}  // namespace kvhost::detail

extern "C" {

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock) {
  return RaiseAndAcquire(SpinLock, "KeAcquireSpinLock", __builtin_return_address(0));
}

VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql) {
  ReleaseAndLower(SpinLock, NewIrql, "KeReleaseSpinLock", __builtin_return_address(0));
}

VOID KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
  const void* caller = __builtin_return_address(0);
  RequireDispatchLevel("KeAcquireSpinLockAtDpcLevel", SpinLock, caller);
  AcquireLockWord(SpinLock, "KeAcquireSpinLockAtDpcLevel", caller);
}

VOID KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock) {
  const void* caller = __builtin_return_address(0);
  RequireDispatchLevel("KeReleaseSpinLockFromDpcLevel", SpinLock, caller);
  ReleaseLockWord(SpinLock, "KeReleaseSpinLockFromDpcLevel", caller);
}

BOOLEAN KeTryToAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock) {
  const void* caller = __builtin_return_address(0);
  RequireDispatchLevel("KeTryToAcquireSpinLockAtDpcLevel", SpinLock, caller);
  HostThread& self = kvhost::detail::CurrentThread();
  ULONG_PTR seen = 0;
  if (!__atomic_compare_exchange_n(SpinLock, &seen, self.Thread->ThreadId, false, __ATOMIC_ACQUIRE,
                                   __ATOMIC_RELAXED))
    return FALSE;
  NoteHeld(self, SpinLock);
  return TRUE;
}

BOOLEAN KeTestSpinLock(PKSPIN_LOCK SpinLock) {
  // TRUE when the lock looks free (a hint for spinning callers).
  return __atomic_load_n(SpinLock, __ATOMIC_RELAXED) == 0 ? TRUE : FALSE;
}

KIRQL KeAcquireSpinLockForDpc(PKSPIN_LOCK SpinLock) {
  return RaiseAndAcquire(SpinLock, "KeAcquireSpinLockForDpc", __builtin_return_address(0));
}

VOID KeReleaseSpinLockForDpc(PKSPIN_LOCK SpinLock, KIRQL OldIrql) {
  ReleaseAndLower(SpinLock, OldIrql, "KeReleaseSpinLockForDpc", __builtin_return_address(0));
}

VOID KeAcquireInStackQueuedSpinLock(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle) {
  LockHandle->LockQueue.Next = nullptr;
  LockHandle->LockQueue.Lock = SpinLock;
  LockHandle->OldIrql = RaiseAndAcquire(SpinLock, "KeAcquireInStackQueuedSpinLock", __builtin_return_address(0));
}

VOID KeReleaseInStackQueuedSpinLock(PKLOCK_QUEUE_HANDLE LockHandle) {
  ReleaseAndLower(LockHandle->LockQueue.Lock, LockHandle->OldIrql, "KeReleaseInStackQueuedSpinLock",
                  __builtin_return_address(0));
}

VOID KeAcquireInStackQueuedSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock, PKLOCK_QUEUE_HANDLE LockHandle) {
  const void* caller = __builtin_return_address(0);
  RequireDispatchLevel("KeAcquireInStackQueuedSpinLockAtDpcLevel", SpinLock, caller);
  LockHandle->LockQueue.Next = nullptr;
  LockHandle->LockQueue.Lock = SpinLock;
  LockHandle->OldIrql = DISPATCH_LEVEL;
  AcquireLockWord(SpinLock, "KeAcquireInStackQueuedSpinLockAtDpcLevel", caller);
}

VOID KeReleaseInStackQueuedSpinLockFromDpcLevel(PKLOCK_QUEUE_HANDLE LockHandle) {
  const void* caller = __builtin_return_address(0);
  RequireDispatchLevel("KeReleaseInStackQueuedSpinLockFromDpcLevel", LockHandle->LockQueue.Lock, caller);
  ReleaseLockWord(LockHandle->LockQueue.Lock, "KeReleaseInStackQueuedSpinLockFromDpcLevel", caller);
}

// The executive's interlocked lists take their lock with interrupts off in Windows, so they
// work at any IRQL and leave it unchanged.

PLIST_ENTRY ExInterlockedInsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock) {
  const void* caller = __builtin_return_address(0);
  AcquireLockWord(Lock, "ExInterlockedInsertHeadList", caller);
  PLIST_ENTRY first = IsListEmpty(ListHead) ? nullptr : ListHead->Flink;
  InsertHeadList(ListHead, ListEntry);
  ReleaseLockWord(Lock, "ExInterlockedInsertHeadList", caller);
  return first;
}

PLIST_ENTRY ExInterlockedInsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY ListEntry, PKSPIN_LOCK Lock) {
  const void* caller = __builtin_return_address(0);
  AcquireLockWord(Lock, "ExInterlockedInsertTailList", caller);
  PLIST_ENTRY last = IsListEmpty(ListHead) ? nullptr : ListHead->Blink;
  InsertTailList(ListHead, ListEntry);
  ReleaseLockWord(Lock, "ExInterlockedInsertTailList", caller);
  return last;
}

PLIST_ENTRY ExInterlockedRemoveHeadList(PLIST_ENTRY ListHead, PKSPIN_LOCK Lock) {
  const void* caller = __builtin_return_address(0);
  AcquireLockWord(Lock, "ExInterlockedRemoveHeadList", caller);
  PLIST_ENTRY entry = IsListEmpty(ListHead) ? nullptr : RemoveHeadList(ListHead);
  ReleaseLockWord(Lock, "ExInterlockedRemoveHeadList", caller);
  return entry;
}

PSINGLE_LIST_ENTRY ExInterlockedPushEntryList(PSINGLE_LIST_ENTRY ListHead, PSINGLE_LIST_ENTRY ListEntry,
                                              PKSPIN_LOCK Lock) {
  const void* caller = __builtin_return_address(0);
  AcquireLockWord(Lock, "ExInterlockedPushEntryList", caller);
  PSINGLE_LIST_ENTRY first = ListHead->Next;
  PushEntryList(ListHead, ListEntry);
  ReleaseLockWord(Lock, "ExInterlockedPushEntryList", caller);
  return first;
}

PSINGLE_LIST_ENTRY ExInterlockedPopEntryList(PSINGLE_LIST_ENTRY ListHead, PKSPIN_LOCK Lock) {
  const void* caller = __builtin_return_address(0);
  AcquireLockWord(Lock, "ExInterlockedPopEntryList", caller);
  PSINGLE_LIST_ENTRY entry = PopEntryList(ListHead);
  ReleaseLockWord(Lock, "ExInterlockedPopEntryList", caller);
  return entry;
}

}  // extern "C"
