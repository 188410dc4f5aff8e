// Lookaside lists: blocks of one size, pool type and tag, cached for reuse.
//
// The state lives in the caller's structure as in Windows: cached blocks are linked
// through their first bytes from L.ListHead (Region holds the first block, Alignment the
// count), the obsolete lock word serialises the list, and Future[] marks an initialised
// list and one a test has exhausted. Blocks come from the pool with the list's type and
// tag, so fault injection and leak accounting see them; injected faults reach a block handed
// out from the cache as well.
#include <thread>

#include "kvhost/pool.h"
#include "kvhost/symbolize.h"
#include "kvhost/verifier.h"
#include "pool_internal.h"

namespace {

// The depth the system gives a list that asks for none (Windows' minimum depth, which it
// would raise under load; kept fixed here so runs repeat exactly), and the most it allows.
constexpr USHORT kDefaultDepth = 4;
constexpr USHORT kMaximumDepth = 256;
constexpr ULONG kInitializedMark = 0x4B4F4F4C;  // "LOOK"

enum FutureSlot { kExhaustedSlot = 0, kMarkSlot = 1 };

struct Cached {
  Cached* Next;
};

std::string Caller(const void* address) { return kvhost::DescribeCodeAddress(address); }

class ListLock {
 public:
  explicit ListLock(PKSPIN_LOCK word) : word_(word) {
    ULONG_PTR expected = 0;
    while (!__atomic_compare_exchange_n(word_, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
      expected = 0;
      std::this_thread::yield();
    }
  }
  ~ListLock() { __atomic_store_n(word_, 0, __ATOMIC_RELEASE); }
  ListLock(const ListLock&) = delete;
  ListLock& operator=(const ListLock&) = delete;

 private:
  PKSPIN_LOCK word_;
};

Cached* FirstCached(const GENERAL_LOOKASIDE& l) { return reinterpret_cast<Cached*>(l.ListHead.Region); }
void SetFirstCached(GENERAL_LOOKASIDE& l, Cached* first) { l.ListHead.Region = reinterpret_cast<ULONGLONG>(first); }
ULONGLONG& CachedCount(GENERAL_LOOKASIDE& l) { return l.ListHead.Alignment; }

bool IsInitialized(const GENERAL_LOOKASIDE& l) { return l.Future[kMarkSlot] == kInitializedMark; }

bool CheckList(const GENERAL_LOOKASIDE& l, const char* routine, const void* list, const void* caller) {
  if (IsInitialized(l)) return true;
  kvhost::ReportViolationF("LookasideNotInitialized", "%s(%p) by %s: not an initialised lookaside list", routine, list,
                           Caller(caller).c_str());
  return false;
}

void CheckIrql(const GENERAL_LOOKASIDE& l, const char* routine, const void* caller) {
  KIRQL most = (l.Type & 1) != 0 ? APC_LEVEL : DISPATCH_LEVEL;
  if (KeGetCurrentIrql() > most)
    kvhost::ReportViolationF("LookasideIrql", "%s (tag %s) by %s at IRQL %u", routine,
                             kvhost::DescribeTag(l.Tag).c_str(), Caller(caller).c_str(), KeGetCurrentIrql());
}

void Initialize(GENERAL_LOOKASIDE& l, PKSPIN_LOCK lock, POOL_TYPE baseType, ULONG allowedFlags,
                PALLOCATE_FUNCTION allocate, PFREE_FUNCTION free, ULONG flags, SIZE_T size, ULONG tag, USHORT depth,
                const char* routine, const void* caller) {
  if ((flags & ~allowedFlags) != 0)
    kvhost::ReportViolationF("LookasideInvalidFlags", "%s (tag %s) by %s with flags 0x%x", routine,
                             kvhost::DescribeTag(tag).c_str(), Caller(caller).c_str(), flags);
  if (IsInitialized(l))
    kvhost::ReportViolationF("LookasideReinitialized", "%s(%p, tag %s) by %s: the list is live and was never deleted",
                             routine, static_cast<void*>(&l), kvhost::DescribeTag(tag).c_str(),
                             Caller(caller).c_str());
  __builtin_memset(&l, 0, sizeof l);
  *lock = 0;
  l.Type = static_cast<POOL_TYPE>(baseType | (flags & allowedFlags));
  l.Tag = tag;
  // A cached block holds the link in its first bytes.
  l.Size = static_cast<ULONG>(size < sizeof(SLIST_ENTRY) ? sizeof(SLIST_ENTRY) : size);
  l.Allocate = allocate;
  l.Free = free;
  l.MaximumDepth = kMaximumDepth;
  l.Depth = depth == 0 ? kDefaultDepth : (depth > kMaximumDepth ? kMaximumDepth : depth);
  l.Future[kMarkSlot] = kInitializedMark;
  kvhost::detail::RegisterActiveStructure(&l, sizeof l, "an active lookaside list", caller);
}

void ReleaseBlock(GENERAL_LOOKASIDE& l, PVOID block, const char* routine, const void* caller) {
  if (l.Free != nullptr)
    l.Free(block);
  else
    kvhost::detail::FreePool(block, l.Tag, caller, routine);
}

PVOID Allocate(GENERAL_LOOKASIDE& l, PKSPIN_LOCK lock, const char* routine, const void* caller) {
  if (!CheckList(l, routine, &l, caller)) return nullptr;
  CheckIrql(l, routine, caller);
  __atomic_add_fetch(&l.TotalAllocates, 1, __ATOMIC_RELAXED);
  if (__atomic_load_n(&l.Future[kExhaustedSlot], __ATOMIC_RELAXED) != 0) {
    __atomic_add_fetch(&l.AllocateMisses, 1, __ATOMIC_RELAXED);
    return nullptr;
  }
  {
    ListLock guard(lock);
    Cached* first = FirstCached(l);
    if (first != nullptr) {
      if (!kvhost::detail::TakeCachedBlock(l.Type, l.Size, l.Tag, first, caller)) {
        __atomic_add_fetch(&l.AllocateMisses, 1, __ATOMIC_RELAXED);
        return nullptr;
      }
      SetFirstCached(l, first->Next);
      --CachedCount(l);
      return first;
    }
  }
  __atomic_add_fetch(&l.AllocateMisses, 1, __ATOMIC_RELAXED);
  if (l.Allocate != nullptr) return l.Allocate(l.Type, l.Size, l.Tag);
  return kvhost::detail::AllocatePool(l.Type, l.Size, l.Tag, kvhost::detail::PoolFill::Pattern, caller, routine);
}

void Free(GENERAL_LOOKASIDE& l, PKSPIN_LOCK lock, PVOID entry, const char* routine, const void* caller) {
  if (!CheckList(l, routine, &l, caller)) return;
  CheckIrql(l, routine, caller);
  if (entry == nullptr) {
    kvhost::ReportViolationF("LookasideFreeNull", "%s (tag %s) by %s of NULL", routine,
                             kvhost::DescribeTag(l.Tag).c_str(), Caller(caller).c_str());
    return;
  }
  __atomic_add_fetch(&l.TotalFrees, 1, __ATOMIC_RELAXED);
  {
    ListLock guard(lock);
    for (Cached* c = FirstCached(l); c != nullptr; c = c->Next)
      if (c == entry) {
        kvhost::ReportViolationF("LookasideDoubleFree", "%s(%p) (tag %s) by %s: the block is already on the list",
                                 routine, entry, kvhost::DescribeTag(l.Tag).c_str(), Caller(caller).c_str());
        return;
      }
    if (CachedCount(l) < l.Depth) {
      auto* c = static_cast<Cached*>(entry);
      c->Next = FirstCached(l);
      SetFirstCached(l, c);
      ++CachedCount(l);
      return;
    }
  }
  __atomic_add_fetch(&l.FreeMisses, 1, __ATOMIC_RELAXED);
  ReleaseBlock(l, entry, routine, caller);
}

void Delete(GENERAL_LOOKASIDE& l, PKSPIN_LOCK lock, const char* routine, const void* caller) {
  if (!CheckList(l, routine, &l, caller)) return;
  Cached* cached;
  {
    ListLock guard(lock);
    cached = FirstCached(l);
    SetFirstCached(l, nullptr);
    CachedCount(l) = 0;
  }
  while (cached != nullptr) {
    Cached* next = cached->Next;
    ReleaseBlock(l, cached, routine, caller);
    cached = next;
  }
  l.Future[kMarkSlot] = 0;
  kvhost::detail::UnregisterActiveStructure(&l);
}

}  // namespace

namespace kvhost {

void ExhaustLookasideList(const void* lookasideList, bool exhausted) {
  auto* l = static_cast<GENERAL_LOOKASIDE*>(const_cast<void*>(lookasideList));
  if (!CheckList(*l, "ExhaustLookasideList", lookasideList, __builtin_return_address(0))) return;
  __atomic_store_n(&l->Future[kExhaustedSlot], exhausted ? 1u : 0u, __ATOMIC_RELAXED);
}

}  // namespace kvhost

extern "C" {

VOID ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate,
                                     PFREE_FUNCTION Free, ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth) {
  Initialize(Lookaside->L, &Lookaside->Lock__ObsoleteButDoNotDelete, NonPagedPool,
             POOL_NX_ALLOCATION | POOL_RAISE_IF_ALLOCATION_FAILURE, Allocate, Free, Flags, Size, Tag, Depth,
             "ExInitializeNPagedLookasideList", __builtin_return_address(0));
}

VOID ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
  Delete(Lookaside->L, &Lookaside->Lock__ObsoleteButDoNotDelete, "ExDeleteNPagedLookasideList",
         __builtin_return_address(0));
}

PVOID ExAllocateFromNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside) {
  return Allocate(Lookaside->L, &Lookaside->Lock__ObsoleteButDoNotDelete, "ExAllocateFromNPagedLookasideList",
                  __builtin_return_address(0));
}

VOID ExFreeToNPagedLookasideList(PNPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry) {
  Free(Lookaside->L, &Lookaside->Lock__ObsoleteButDoNotDelete, Entry, "ExFreeToNPagedLookasideList",
       __builtin_return_address(0));
}

VOID ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PALLOCATE_FUNCTION Allocate, PFREE_FUNCTION Free,
                                    ULONG Flags, SIZE_T Size, ULONG Tag, USHORT Depth) {
  Initialize(Lookaside->L, &Lookaside->Lock__ObsoleteButDoNotDelete, PagedPool, POOL_RAISE_IF_ALLOCATION_FAILURE,
             Allocate, Free, Flags, Size, Tag, Depth, "ExInitializePagedLookasideList", __builtin_return_address(0));
}

VOID ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside) {
  Delete(Lookaside->L, &Lookaside->Lock__ObsoleteButDoNotDelete, "ExDeletePagedLookasideList",
         __builtin_return_address(0));
}

PVOID ExAllocateFromPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside) {
  return Allocate(Lookaside->L, &Lookaside->Lock__ObsoleteButDoNotDelete, "ExAllocateFromPagedLookasideList",
                  __builtin_return_address(0));
}

VOID ExFreeToPagedLookasideList(PPAGED_LOOKASIDE_LIST Lookaside, PVOID Entry) {
  Free(Lookaside->L, &Lookaside->Lock__ObsoleteButDoNotDelete, Entry, "ExFreeToPagedLookasideList",
       __builtin_return_address(0));
}

}  // extern "C"
