// Executive: pool, lookaside lists, interlocked operations and lists, rundown protection,
// system worker queues.
#pragma once
#include "ke.h"

// ---------------------------------------------------------------------------------------
// Pool.
typedef enum _POOL_TYPE {
  NonPagedPool = 0,
  NonPagedPoolExecute = NonPagedPool,
  PagedPool = 1,
  NonPagedPoolMustSucceed = NonPagedPool + 2,
  DontUseThisType = 3,
  NonPagedPoolCacheAligned = NonPagedPool + 4,
  PagedPoolCacheAligned = 5,
  NonPagedPoolCacheAlignedMustS = NonPagedPool + 6,
  MaxPoolType = 7,
  NonPagedPoolBase = 0,
  NonPagedPoolBaseMustSucceed = NonPagedPoolBase + 2,
  NonPagedPoolBaseCacheAligned = NonPagedPoolBase + 4,
  NonPagedPoolBaseCacheAlignedMustS = NonPagedPoolBase + 6,
  NonPagedPoolSession = 32,
  PagedPoolSession = NonPagedPoolSession + 1,
  NonPagedPoolMustSucceedSession = PagedPoolSession + 1,
  DontUseThisTypeSession = NonPagedPoolMustSucceedSession + 1,
  NonPagedPoolCacheAlignedSession = DontUseThisTypeSession + 1,
  PagedPoolCacheAlignedSession = NonPagedPoolCacheAlignedSession + 1,
  NonPagedPoolCacheAlignedMustSSession = PagedPoolCacheAlignedSession + 1,
  NonPagedPoolNx = 512,
  NonPagedPoolNxCacheAligned = NonPagedPoolNx + 4,
  NonPagedPoolSessionNx = NonPagedPoolNx + 32,
} POOL_TYPE;

// Modifiers OR-ed into a POOL_TYPE (and into a lookaside list's Flags).
#define POOL_COLD_ALLOCATION 256
#define POOL_NX_ALLOCATION 512
#define POOL_QUOTA_FAIL_INSTEAD_OF_RAISE 8
#define POOL_RAISE_IF_ALLOCATION_FAILURE 16

// A tag with this bit set must be given again, exactly, to free the block.
#define PROTECTED_POOL 0x80000000

typedef ULONG64 POOL_FLAGS;
#define POOL_FLAG_REQUIRED_START 0x0000000000000001ULL
#define POOL_FLAG_USE_QUOTA 0x0000000000000001ULL
#define POOL_FLAG_UNINITIALIZED 0x0000000000000002ULL
#define POOL_FLAG_SESSION 0x0000000000000004ULL
#define POOL_FLAG_CACHE_ALIGNED 0x0000000000000008ULL
#define POOL_FLAG_RESERVED1 0x0000000000000010ULL
#define POOL_FLAG_RAISE_ON_FAILURE 0x0000000000000020ULL
#define POOL_FLAG_NON_PAGED 0x0000000000000040ULL
#define POOL_FLAG_NON_PAGED_EXECUTE 0x0000000000000080ULL
#define POOL_FLAG_PAGED 0x0000000000000100ULL
#define POOL_FLAG_RESERVED2 0x0000000000000200ULL
#define POOL_FLAG_RESERVED3 0x0000000000000400ULL
#define POOL_FLAG_REQUIRED_END 0x0000000080000000ULL

// The block's contents are undefined (not zero). Paged pool requires IRQL <= APC_LEVEL,
// non-paged pool IRQL <= DISPATCH_LEVEL. Blocks of a page or more start on a page.
EXTERN_C NTKERNELAPI PVOID ExAllocatePoolWithTag(_In_ POOL_TYPE PoolType, _In_ SIZE_T NumberOfBytes, _In_ ULONG Tag);
// Zeroed unless POOL_FLAG_UNINITIALIZED; exactly one of POOL_FLAG_NON_PAGED,
// POOL_FLAG_NON_PAGED_EXECUTE and POOL_FLAG_PAGED.
EXTERN_C NTKERNELAPI PVOID ExAllocatePool2(_In_ POOL_FLAGS Flags, _In_ SIZE_T NumberOfBytes, _In_ ULONG Tag);
EXTERN_C NTKERNELAPI PVOID ExAllocatePoolZero(_In_ POOL_TYPE PoolType, _In_ SIZE_T NumberOfBytes, _In_ ULONG Tag);
EXTERN_C NTKERNELAPI PVOID ExAllocatePoolUninitialized(_In_ POOL_TYPE PoolType, _In_ SIZE_T NumberOfBytes,
                                                       _In_ ULONG Tag);
// Untagged (deprecated): the block carries the tag "None".
EXTERN_C NTKERNELAPI PVOID ExAllocatePool(_In_ POOL_TYPE PoolType, _In_ SIZE_T NumberOfBytes);
// Tag 0 frees a block of any unprotected tag; otherwise it must be the allocation's tag.
EXTERN_C NTKERNELAPI VOID ExFreePoolWithTag(_In_ PVOID P, _In_ ULONG Tag);
#define ExFreePool(P) ExFreePoolWithTag((P), 0)

// ---------------------------------------------------------------------------------------
// Interlocked operations: full barriers, on naturally aligned operands.
// The 32-bit (no suffix) and 64-bit ("64") families have the same members and meaning.
#define KV_INTERLOCKED_FAMILY(Type, Suffix)                                                       \
  FORCEINLINE Type InterlockedIncrement##Suffix(Type volatile* Addend) {                          \
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);                                       \
  }                                                                                               \
  FORCEINLINE Type InterlockedDecrement##Suffix(Type volatile* Addend) {                          \
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);                                       \
  }                                                                                               \
  FORCEINLINE Type InterlockedExchange##Suffix(Type volatile* Target, Type Value) {               \
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);                                  \
  }                                                                                               \
  /* Returns the value before the addition. */                                                    \
  FORCEINLINE Type InterlockedExchangeAdd##Suffix(Type volatile* Addend, Type Value) {            \
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);                                   \
  }                                                                                               \
  /* Returns the value after the addition. */                                                     \
  FORCEINLINE Type InterlockedAdd##Suffix(Type volatile* Addend, Type Value) {                    \
    return __atomic_add_fetch(Addend, Value, __ATOMIC_SEQ_CST);                                   \
  }                                                                                               \
  /* Returns the value found, whether or not it was replaced. */                                  \
  FORCEINLINE Type InterlockedCompareExchange##Suffix(Type volatile* Destination, Type ExChange,  \
                                                      Type Comperand) {                           \
    __atomic_compare_exchange_n(Destination, &Comperand, ExChange, false, __ATOMIC_SEQ_CST,       \
                                __ATOMIC_SEQ_CST);                                                \
    return Comperand;                                                                             \
  }                                                                                               \
  /* The bitwise forms return the value before the operation. */                                  \
  FORCEINLINE Type InterlockedOr##Suffix(Type volatile* Destination, Type Value) {                \
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);                               \
  }                                                                                               \
  FORCEINLINE Type InterlockedAnd##Suffix(Type volatile* Destination, Type Value) {               \
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);                              \
  }                                                                                               \
  FORCEINLINE Type InterlockedXor##Suffix(Type volatile* Destination, Type Value) {               \
    return __atomic_fetch_xor(Destination, Value, __ATOMIC_SEQ_CST);                              \
  }

KV_INTERLOCKED_FAMILY(LONG, )
KV_INTERLOCKED_FAMILY(LONG64, 64)
#undef KV_INTERLOCKED_FAMILY

FORCEINLINE SHORT InterlockedIncrement16(SHORT volatile* Addend) {
  return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE SHORT InterlockedDecrement16(SHORT volatile* Addend) {
  return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE SHORT InterlockedCompareExchange16(SHORT volatile* Destination, SHORT ExChange, SHORT Comperand) {
  __atomic_compare_exchange_n(Destination, &Comperand, ExChange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return Comperand;
}
FORCEINLINE CHAR InterlockedExchange8(CHAR volatile* Target, CHAR Value) {
  return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE CHAR InterlockedOr8(CHAR volatile* Destination, CHAR Value) {
  return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE CHAR InterlockedAnd8(CHAR volatile* Destination, CHAR Value) {
  return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}

// Returns the bit's previous value.
FORCEINLINE BOOLEAN InterlockedBitTestAndSet(LONG volatile* Base, LONG Offset) {
  LONG mask = (LONG)(1U << (Offset & 31));
  return (BOOLEAN)((__atomic_fetch_or(Base + (Offset >> 5), mask, __ATOMIC_SEQ_CST) & mask) != 0);
}
FORCEINLINE BOOLEAN InterlockedBitTestAndReset(LONG volatile* Base, LONG Offset) {
  LONG mask = (LONG)(1U << (Offset & 31));
  return (BOOLEAN)((__atomic_fetch_and(Base + (Offset >> 5), ~mask, __ATOMIC_SEQ_CST) & mask) != 0);
}

FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value) {
  return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange, PVOID Comperand) {
  __atomic_compare_exchange_n(Destination, &Comperand, Exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
  return Comperand;
}

// Ordered loads and stores without a read-modify-write.
FORCEINLINE LONG ReadAcquire(LONG const volatile* Source) { return __atomic_load_n(Source, __ATOMIC_ACQUIRE); }
FORCEINLINE LONG ReadNoFence(LONG const volatile* Source) { return __atomic_load_n(Source, __ATOMIC_RELAXED); }
FORCEINLINE VOID WriteRelease(LONG volatile* Destination, LONG Value) {
  __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
FORCEINLINE VOID WriteNoFence(LONG volatile* Destination, LONG Value) {
  __atomic_store_n(Destination, Value, __ATOMIC_RELAXED);
}
FORCEINLINE LONG64 ReadAcquire64(LONG64 const volatile* Source) { return __atomic_load_n(Source, __ATOMIC_ACQUIRE); }
FORCEINLINE LONG64 ReadNoFence64(LONG64 const volatile* Source) { return __atomic_load_n(Source, __ATOMIC_RELAXED); }
FORCEINLINE VOID WriteRelease64(LONG64 volatile* Destination, LONG64 Value) {
  __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
FORCEINLINE VOID WriteNoFence64(LONG64 volatile* Destination, LONG64 Value) {
  __atomic_store_n(Destination, Value, __ATOMIC_RELAXED);
}
FORCEINLINE PVOID ReadPointerAcquire(PVOID const volatile* Source) {
  return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE PVOID ReadPointerNoFence(PVOID const volatile* Source) {
  return __atomic_load_n(Source, __ATOMIC_RELAXED);
}
FORCEINLINE VOID WritePointerRelease(PVOID volatile* Destination, PVOID Value) {
  __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
FORCEINLINE VOID WritePointerNoFence(PVOID volatile* Destination, PVOID Value) {
  __atomic_store_n(Destination, Value, __ATOMIC_RELAXED);
}

#define KeMemoryBarrier() __atomic_thread_fence(__ATOMIC_SEQ_CST)
#define KeMemoryBarrierWithoutFence() __atomic_signal_fence(__ATOMIC_SEQ_CST)
#define MemoryBarrier() __atomic_thread_fence(__ATOMIC_SEQ_CST)
#define _ReadWriteBarrier() __atomic_signal_fence(__ATOMIC_SEQ_CST)

// List operations under a spin lock that is used for nothing else. Callable at any IRQL;
// the IRQL does not change. Each returns the entry that was first (or last) before the
// operation, NULL when the list was empty.
EXTERN_C NTKERNELAPI PLIST_ENTRY ExInterlockedInsertHeadList(_Inout_ PLIST_ENTRY ListHead,
                                                             _Inout_ PLIST_ENTRY ListEntry,
                                                             _Inout_ PKSPIN_LOCK Lock);
EXTERN_C NTKERNELAPI PLIST_ENTRY ExInterlockedInsertTailList(_Inout_ PLIST_ENTRY ListHead,
                                                             _Inout_ PLIST_ENTRY ListEntry,
                                                             _Inout_ PKSPIN_LOCK Lock);
EXTERN_C NTKERNELAPI PLIST_ENTRY ExInterlockedRemoveHeadList(_Inout_ PLIST_ENTRY ListHead, _Inout_ PKSPIN_LOCK Lock);
EXTERN_C NTKERNELAPI PSINGLE_LIST_ENTRY ExInterlockedPushEntryList(_Inout_ PSINGLE_LIST_ENTRY ListHead,
                                                                   _Inout_ PSINGLE_LIST_ENTRY ListEntry,
                                                                   _Inout_ PKSPIN_LOCK Lock);
EXTERN_C NTKERNELAPI PSINGLE_LIST_ENTRY ExInterlockedPopEntryList(_Inout_ PSINGLE_LIST_ENTRY ListHead,
                                                                  _Inout_ PKSPIN_LOCK Lock);

// ---------------------------------------------------------------------------------------
// Lookaside lists: fixed-size blocks of one pool type and tag, cached for reuse.
#ifndef DUMMYUNIONNAME2
#define DUMMYUNIONNAME2
#define DUMMYUNIONNAME3
#define DUMMYUNIONNAME4
#endif
typedef struct DECLSPEC_ALIGN(16) _SLIST_ENTRY {
  struct _SLIST_ENTRY* Next;
} SLIST_ENTRY, *PSLIST_ENTRY;

typedef union DECLSPEC_ALIGN(16) _SLIST_HEADER {
  struct {
    ULONGLONG Alignment;
    ULONGLONG Region;
  } DUMMYSTRUCTNAME;
  struct {
    ULONGLONG Depth : 16;
    ULONGLONG Sequence : 48;
    ULONGLONG Reserved : 4;
    ULONGLONG NextEntry : 60;
  } HeaderX64;
} SLIST_HEADER, *PSLIST_HEADER;

typedef PVOID ALLOCATE_FUNCTION(_In_ POOL_TYPE PoolType, _In_ SIZE_T NumberOfBytes, _In_ ULONG Tag);
typedef ALLOCATE_FUNCTION* PALLOCATE_FUNCTION;
typedef VOID FREE_FUNCTION(_In_ PVOID Buffer);
typedef FREE_FUNCTION* PFREE_FUNCTION;

typedef struct _GENERAL_LOOKASIDE {
  union {
    SLIST_HEADER ListHead;
    SINGLE_LIST_ENTRY SingleListHead;
  } DUMMYUNIONNAME;
  USHORT Depth;
  USHORT MaximumDepth;
  ULONG TotalAllocates;
  union {
    ULONG AllocateMisses;
    ULONG AllocateHits;
  } DUMMYUNIONNAME2;
  ULONG TotalFrees;
  union {
    ULONG FreeMisses;
    ULONG FreeHits;
  } DUMMYUNIONNAME3;
  POOL_TYPE Type;
  ULONG Tag;
  ULONG Size;
  PALLOCATE_FUNCTION Allocate;
  PFREE_FUNCTION Free;
  LIST_ENTRY ListEntry;
  ULONG LastTotalAllocates;
  union {
    ULONG LastAllocateMisses;
    ULONG LastAllocateHits;
  } DUMMYUNIONNAME4;
  ULONG Future[2];
} GENERAL_LOOKASIDE, *PGENERAL_LOOKASIDE;

// The WDK asks for cache-line alignment of lookaside lists as a performance hint; pool
// blocks are only 16-byte aligned, and drivers embed lists in pool structures (a driver
// object extension, a device extension). The layout here keeps 16-byte alignment so that
// such an embedding is well-formed.
typedef struct DECLSPEC_ALIGN(16) _NPAGED_LOOKASIDE_LIST {
  GENERAL_LOOKASIDE L;
  KSPIN_LOCK Lock__ObsoleteButDoNotDelete;
} NPAGED_LOOKASIDE_LIST, *PNPAGED_LOOKASIDE_LIST;

typedef struct DECLSPEC_ALIGN(16) _PAGED_LOOKASIDE_LIST {
  GENERAL_LOOKASIDE L;
  KSPIN_LOCK Lock__ObsoleteButDoNotDelete;
} PAGED_LOOKASIDE_LIST, *PPAGED_LOOKASIDE_LIST;

// Allocate and Free may be NULL (pool of the list's type and tag). Flags may carry
// POOL_NX_ALLOCATION and POOL_RAISE_IF_ALLOCATION_FAILURE. Depth is reserved: zero gives
// the system's depth.
EXTERN_C NTKERNELAPI VOID ExInitializeNPagedLookasideList(_Out_ PNPAGED_LOOKASIDE_LIST Lookaside,
                                                          _In_opt_ PALLOCATE_FUNCTION Allocate,
                                                          _In_opt_ PFREE_FUNCTION Free, _In_ ULONG Flags,
                                                          _In_ SIZE_T Size, _In_ ULONG Tag, _In_ USHORT Depth);
// Frees every cached block. Blocks still handed out stay allocated (and are the caller's).
EXTERN_C NTKERNELAPI VOID ExDeleteNPagedLookasideList(_Inout_ PNPAGED_LOOKASIDE_LIST Lookaside);
EXTERN_C NTKERNELAPI PVOID ExAllocateFromNPagedLookasideList(_Inout_ PNPAGED_LOOKASIDE_LIST Lookaside);
EXTERN_C NTKERNELAPI VOID ExFreeToNPagedLookasideList(_Inout_ PNPAGED_LOOKASIDE_LIST Lookaside, _In_ PVOID Entry);

EXTERN_C NTKERNELAPI VOID ExInitializePagedLookasideList(_Out_ PPAGED_LOOKASIDE_LIST Lookaside,
                                                         _In_opt_ PALLOCATE_FUNCTION Allocate,
                                                         _In_opt_ PFREE_FUNCTION Free, _In_ ULONG Flags,
                                                         _In_ SIZE_T Size, _In_ ULONG Tag, _In_ USHORT Depth);
EXTERN_C NTKERNELAPI VOID ExDeletePagedLookasideList(_Inout_ PPAGED_LOOKASIDE_LIST Lookaside);
EXTERN_C NTKERNELAPI PVOID ExAllocateFromPagedLookasideList(_Inout_ PPAGED_LOOKASIDE_LIST Lookaside);
EXTERN_C NTKERNELAPI VOID ExFreeToPagedLookasideList(_Inout_ PPAGED_LOOKASIDE_LIST Lookaside, _In_ PVOID Entry);

// ---------------------------------------------------------------------------------------
// Rundown protection: references that can be shut off. After a wait for release begins,
// acquisitions fail; the wait returns when the last reference is given back.
typedef struct _EX_RUNDOWN_REF {
  union {
    volatile ULONG_PTR Count;
    volatile PVOID Ptr;
  } DUMMYUNIONNAME;
} EX_RUNDOWN_REF, *PEX_RUNDOWN_REF;

// Opaque; the caller provides ExSizeOfRundownProtectionCacheAware() bytes of non-paged
// memory.
typedef struct _EX_RUNDOWN_REF_CACHE_AWARE* PEX_RUNDOWN_REF_CACHE_AWARE;

EXTERN_C NTKERNELAPI VOID ExInitializeRundownProtection(_Out_ PEX_RUNDOWN_REF RunRef);
EXTERN_C NTKERNELAPI VOID ExReInitializeRundownProtection(_Inout_ PEX_RUNDOWN_REF RunRef);
EXTERN_C NTKERNELAPI BOOLEAN FASTCALL ExAcquireRundownProtection(_Inout_ PEX_RUNDOWN_REF RunRef);
EXTERN_C NTKERNELAPI BOOLEAN FASTCALL ExAcquireRundownProtectionEx(_Inout_ PEX_RUNDOWN_REF RunRef, _In_ ULONG Count);
EXTERN_C NTKERNELAPI VOID FASTCALL ExReleaseRundownProtection(_Inout_ PEX_RUNDOWN_REF RunRef);
EXTERN_C NTKERNELAPI VOID FASTCALL ExReleaseRundownProtectionEx(_Inout_ PEX_RUNDOWN_REF RunRef, _In_ ULONG Count);
EXTERN_C NTKERNELAPI VOID FASTCALL ExWaitForRundownProtectionRelease(_Inout_ PEX_RUNDOWN_REF RunRef);
EXTERN_C NTKERNELAPI VOID FASTCALL ExRundownCompleted(_Out_ PEX_RUNDOWN_REF RunRef);

EXTERN_C NTKERNELAPI SIZE_T ExSizeOfRundownProtectionCacheAware(VOID);
EXTERN_C NTKERNELAPI VOID ExInitializeRundownProtectionCacheAware(_Out_ PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware,
                                                                  _In_ SIZE_T RunRefSize);
EXTERN_C NTKERNELAPI VOID ExReInitializeRundownProtectionCacheAware(
    _Inout_ PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware);
EXTERN_C NTKERNELAPI BOOLEAN FASTCALL
ExAcquireRundownProtectionCacheAware(_Inout_ PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware);
EXTERN_C NTKERNELAPI BOOLEAN FASTCALL
ExAcquireRundownProtectionCacheAwareEx(_Inout_ PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware, _In_ ULONG Count);
EXTERN_C NTKERNELAPI VOID FASTCALL
ExReleaseRundownProtectionCacheAware(_Inout_ PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware);
EXTERN_C NTKERNELAPI VOID FASTCALL
ExReleaseRundownProtectionCacheAwareEx(_Inout_ PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware, _In_ ULONG Count);
EXTERN_C NTKERNELAPI VOID FASTCALL
ExWaitForRundownProtectionReleaseCacheAware(_Inout_ PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware);
EXTERN_C NTKERNELAPI VOID FASTCALL ExRundownCompletedCacheAware(_Inout_ PEX_RUNDOWN_REF_CACHE_AWARE RunRefCacheAware);

// ---------------------------------------------------------------------------------------
// System worker queues.
typedef enum _WORK_QUEUE_TYPE {
  CriticalWorkQueue,
  DelayedWorkQueue,
  HyperCriticalWorkQueue,
  NormalWorkQueue,
  BackgroundWorkQueue,
  RealTimeWorkQueue,
  SuperCriticalWorkQueue,
  MaximumWorkQueue,
  CustomPriorityWorkQueue = 32
} WORK_QUEUE_TYPE;

typedef VOID WORKER_THREAD_ROUTINE(_In_ PVOID Parameter);
typedef WORKER_THREAD_ROUTINE* PWORKER_THREAD_ROUTINE;

typedef struct _WORK_QUEUE_ITEM {
  LIST_ENTRY List;
  PWORKER_THREAD_ROUTINE WorkerRoutine;
  __volatile PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;

#define ExInitializeWorkItem(Item, Routine, Context) \
  do {                                                \
    (Item)->WorkerRoutine = (Routine);                \
    (Item)->Parameter = (Context);                    \
    (Item)->List.Flink = NULL;                        \
  } while (0)

// Runs WorkerRoutine(Parameter) on a system worker thread at PASSIVE_LEVEL. The item must
// not be queued again before its routine has started.
EXTERN_C NTKERNELAPI VOID ExQueueWorkItem(_Inout_ PWORK_QUEUE_ITEM WorkItem, _In_ WORK_QUEUE_TYPE QueueType);
