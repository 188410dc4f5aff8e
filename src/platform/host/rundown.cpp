// Rundown protection, plain and cache-aware.
//
// The reference word is Windows' own encoding: the count of references times two while
// bit 0 (active) is clear; once a wait for release begins, bit 0 is set and the rest of
// the word points at the waiter's block, which holds the references still out and the
// event the last release sets. Acquisitions fail from then on.
#include <string>

#include <wdm.h>

#include "kvhost/symbolize.h"
#include "kvhost/verifier.h"

struct _EX_RUNDOWN_REF_CACHE_AWARE {
  ULONG Mark;
  ULONG RunRefSize;
  // The host has no processor caches worth spreading the count over, so every processor
  // shares one reference; the semantics are those of the per-processor original.
  EX_RUNDOWN_REF RunRef;
};

namespace {

constexpr ULONG_PTR kActive = 1;
constexpr ULONG_PTR kIncrement = 2;
constexpr ULONG kCacheAwareMark = 0x4E555243;  // "CRUN"

struct alignas(8) WaitBlock {
  volatile LONG_PTR Count;  // references still out
  KEVENT WakeEvent;
};

std::string Caller(const void* address) { return kvhost::DescribeCodeAddress(address); }

void CheckIrql(KIRQL most, const char* routine, const void* ref, const void* caller) {
  if (KeGetCurrentIrql() > most)
    kvhost::ReportViolationF("RundownIrql", "%s(%p) by %s at IRQL %u", routine, ref, Caller(caller).c_str(),
                             KeGetCurrentIrql());
}

BOOLEAN Acquire(PEX_RUNDOWN_REF ref, ULONG count, const char* routine, const void* caller) {
  CheckIrql(DISPATCH_LEVEL, routine, ref, caller);
  ULONG_PTR value = __atomic_load_n(&ref->Count, __ATOMIC_RELAXED);
  for (;;) {
    if ((value & kActive) != 0) return FALSE;
    if (__atomic_compare_exchange_n(&ref->Count, &value, value + count * kIncrement, true, __ATOMIC_ACQUIRE,
                                    __ATOMIC_RELAXED))
      return TRUE;
  }
}

void Release(PEX_RUNDOWN_REF ref, ULONG count, const char* routine, const void* caller) {
  CheckIrql(DISPATCH_LEVEL, routine, ref, caller);
  // Acquire: once the word points at a wait block, the block's contents must be visible.
  ULONG_PTR value = __atomic_load_n(&ref->Count, __ATOMIC_ACQUIRE);
  for (;;) {
    if ((value & kActive) != 0) {
      auto* block = reinterpret_cast<WaitBlock*>(value & ~kActive);
      if (block == nullptr) {
        kvhost::ReportViolationF("RundownReleaseUnderflow",
                                 "%s(%p) by %s after rundown completed: more releases than acquisitions", routine,
                                 static_cast<void*>(ref), Caller(caller).c_str());
        return;
      }
      LONG_PTR left = __atomic_sub_fetch(&block->Count, static_cast<LONG_PTR>(count), __ATOMIC_ACQ_REL);
      if (left < 0)
        kvhost::ReportViolationF("RundownReleaseUnderflow", "%s(%p) by %s: more releases than acquisitions",
                                 routine, static_cast<void*>(ref), Caller(caller).c_str());
      if (left <= 0) KeSetEvent(&block->WakeEvent, 0, FALSE);
      return;
    }
    if (value < count * kIncrement) {
      kvhost::ReportViolationF("RundownReleaseUnderflow", "%s(%p) by %s: more releases than acquisitions", routine,
                               static_cast<void*>(ref), Caller(caller).c_str());
      return;
    }
    if (__atomic_compare_exchange_n(&ref->Count, &value, value - count * kIncrement, true, __ATOMIC_RELEASE,
                                    __ATOMIC_ACQUIRE))
      return;
  }
}

void WaitForRelease(PEX_RUNDOWN_REF ref, const char* routine, const void* caller) {
  if (KeGetCurrentIrql() > APC_LEVEL) {
    // Blocking at DISPATCH_LEVEL could hang the test; the rundown is marked and the call
    // returns, as a wait turned into a poll would.
    kvhost::ReportViolationF("WaitAtRaisedIrql", "%s(%p) by %s at IRQL %u", routine, static_cast<void*>(ref),
                             Caller(caller).c_str(), KeGetCurrentIrql());
  }
  WaitBlock block;
  ULONG_PTR value = __atomic_load_n(&ref->Count, __ATOMIC_RELAXED);
  for (;;) {
    if (value == kActive) return;  // already run down
    if ((value & kActive) != 0) {
      kvhost::ReportViolationF("RundownWaitTwice", "%s(%p) by %s while another wait for the same rundown is in progress",
                               routine, static_cast<void*>(ref), Caller(caller).c_str());
      return;
    }
    ULONG_PTR references = value / kIncrement;
    if (references == 0) {
      if (__atomic_compare_exchange_n(&ref->Count, &value, kActive, true, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
        return;
      continue;
    }
    block.Count = static_cast<LONG_PTR>(references);
    KeInitializeEvent(&block.WakeEvent, NotificationEvent, FALSE);
    if (__atomic_compare_exchange_n(&ref->Count, &value, reinterpret_cast<ULONG_PTR>(&block) | kActive, true,
                                    __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
      break;
  }
  if (KeGetCurrentIrql() <= APC_LEVEL) KeWaitForSingleObject(&block.WakeEvent, WrRundown, KernelMode, FALSE, nullptr);
  // The block is about to go: later releases (there should be none) see a completed rundown.
  __atomic_store_n(&ref->Count, kActive, __ATOMIC_RELEASE);
}

void ReInitialize(PEX_RUNDOWN_REF ref, const char* routine, const void* caller) {
  if (__atomic_load_n(&ref->Count, __ATOMIC_RELAXED) != kActive)
    kvhost::ReportViolationF("RundownReInitializeActive", "%s(%p) by %s before the rundown completed", routine,
                             static_cast<void*>(ref), Caller(caller).c_str());
  __atomic_store_n(&ref->Count, 0, __ATOMIC_RELEASE);
}

PEX_RUNDOWN_REF CacheAwareRef(PEX_RUNDOWN_REF_CACHE_AWARE ref, const char* routine, const void* caller) {
  if (ref != nullptr && ref->Mark == kCacheAwareMark) return &ref->RunRef;
  kvhost::ReportViolationF("RundownNotInitialized", "%s(%p) by %s: not an initialised cache-aware rundown reference",
                           routine, static_cast<void*>(ref), Caller(caller).c_str());
  return nullptr;
}

}  // namespace

extern "C" {

VOID ExInitializeRundownProtection(PEX_RUNDOWN_REF RunRef) { __atomic_store_n(&RunRef->Count, 0, __ATOMIC_RELEASE); }

VOID ExReInitializeRundownProtection(PEX_RUNDOWN_REF RunRef) {
  ReInitialize(RunRef, "ExReInitializeRundownProtection", __builtin_return_address(0));
}

BOOLEAN ExAcquireRundownProtection(PEX_RUNDOWN_REF RunRef) {
  return Acquire(RunRef, 1, "ExAcquireRundownProtection", __builtin_return_address(0));
}

BOOLEAN ExAcquireRundownProtectionEx(PEX_RUNDOWN_REF RunRef, ULONG Count) {
  return Acquire(RunRef, Count, "ExAcquireRundownProtectionEx", __builtin_return_address(0));
}

VOID ExReleaseRundownProtection(PEX_RUNDOWN_REF RunRef) {
  Release(RunRef, 1, "ExReleaseRundownProtection", __builtin_return_address(0));
}

VOID ExReleaseRundownProtectionEx(PEX_RUNDOWN_REF RunRef, ULONG Count) {
  Release(RunRef, Count, "ExReleaseRundownProtectionEx", __builtin_return_address(0));
}

VOID ExWaitForRundownProtectionRelease(PEX_RUNDOWN_REF RunRef) {
  WaitForRelease(RunRef, "ExWaitForRundownProtectionRelease", __builtin_return_address(0));
}

VOID ExRundownCompleted(PEX_RUNDOWN_REF RunRef) { __atomic_store_n(&RunRef->Count, kActive, __ATOMIC_RELEASE); }

SIZE_T ExSizeOfRundownProtectionCacheAware(VOID) { return sizeof(_EX_RUNDOWN_REF_CACHE_AWARE); }

VOID ExInitializeRundownProtectionCacheAware(PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware, SIZE_T RunRefSize) {
  if (RunRefSize < sizeof(_EX_RUNDOWN_REF_CACHE_AWARE)) {
    kvhost::ReportViolationF("RundownTooSmall",
                             "ExInitializeRundownProtectionCacheAware(%p, %llu) by %s: %llu bytes are needed",
                             static_cast<void*>(RunRefCacheAware), static_cast<unsigned long long>(RunRefSize),
                             Caller(__builtin_return_address(0)).c_str(),
                             static_cast<unsigned long long>(sizeof(_EX_RUNDOWN_REF_CACHE_AWARE)));
    return;
  }
  RunRefCacheAware->Mark = kCacheAwareMark;
  RunRefCacheAware->RunRefSize = static_cast<ULONG>(RunRefSize);
  __atomic_store_n(&RunRefCacheAware->RunRef.Count, 0, __ATOMIC_RELEASE);
}

VOID ExReInitializeRundownProtectionCacheAware(PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware) {
  const void* caller = __builtin_return_address(0);
  if (PEX_RUNDOWN_REF ref = CacheAwareRef(RunRefCacheAware, "ExReInitializeRundownProtectionCacheAware", caller))
    ReInitialize(ref, "ExReInitializeRundownProtectionCacheAware", caller);
}

BOOLEAN ExAcquireRundownProtectionCacheAware(PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware) {
  const void* caller = __builtin_return_address(0);
  PEX_RUNDOWN_REF ref = CacheAwareRef(RunRefCacheAware, "ExAcquireRundownProtectionCacheAware", caller);
  return ref != nullptr ? Acquire(ref, 1, "ExAcquireRundownProtectionCacheAware", caller) : FALSE;
}

BOOLEAN ExAcquireRundownProtectionCacheAwareEx(PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware, ULONG Count) {
  const void* caller = __builtin_return_address(0);
  PEX_RUNDOWN_REF ref = CacheAwareRef(RunRefCacheAware, "ExAcquireRundownProtectionCacheAwareEx", caller);
  return ref != nullptr ? Acquire(ref, Count, "ExAcquireRundownProtectionCacheAwareEx", caller) : FALSE;
}

VOID ExReleaseRundownProtectionCacheAware(PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware) {
  const void* caller = __builtin_return_address(0);
  if (PEX_RUNDOWN_REF ref = CacheAwareRef(RunRefCacheAware, "ExReleaseRundownProtectionCacheAware", caller))
    Release(ref, 1, "ExReleaseRundownProtectionCacheAware", caller);
}

VOID ExReleaseRundownProtectionCacheAwareEx(PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware, ULONG Count) {
  const void* caller = __builtin_return_address(0);
  if (PEX_RUNDOWN_REF ref = CacheAwareRef(RunRefCacheAware, "ExReleaseRundownProtectionCacheAwareEx", caller))
    Release(ref, Count, "ExReleaseRundownProtectionCacheAwareEx", caller);
}

VOID ExWaitForRundownProtectionReleaseCacheAware(PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware) {
  const void* caller = __builtin_return_address(0);
  if (PEX_RUNDOWN_REF ref = CacheAwareRef(RunRefCacheAware, "ExWaitForRundownProtectionReleaseCacheAware", caller))
    WaitForRelease(ref, "ExWaitForRundownProtectionReleaseCacheAware", caller);
}

VOID ExRundownCompletedCacheAware(PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware) {
  if (PEX_RUNDOWN_REF ref =
          CacheAwareRef(RunRefCacheAware, "ExRundownCompletedCacheAware", __builtin_return_address(0)))
    __atomic_store_n(&ref->Count, kActive, __ATOMIC_RELEASE);
}

}  // extern "C"
