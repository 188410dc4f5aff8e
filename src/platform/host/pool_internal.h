// The pool as the executive's other modules use it: allocation and free on behalf of a
// caller whose site is named, and the structures a block must not hold when it is freed.
#pragma once

#include <wdm.h>

namespace kvhost::detail {

enum class PoolFill { Pattern, Zero };

// `site` is the driver's call site (for accounting, faults and messages); `routine` the
// exported routine that was called.
PVOID AllocatePool(POOL_TYPE type, SIZE_T bytes, ULONG tag, PoolFill fill, const void* site, const char* routine);
// Tag 0 frees a block of any unprotected tag.
void FreePool(PVOID block, ULONG tag, const void* site, const char* routine);

// A lookaside list is about to hand out `block`, one of its cached blocks: not a pool
// attempt, but a place where an allocation can fail all the same, so the armed faults (and
// with them the fault walk) reach it, and the allocation log records it. False when a fault
// takes it: the block stays cached and the allocation fails.
bool TakeCachedBlock(POOL_TYPE type, SIZE_T bytes, ULONG tag, const void* block, const void* site);

// A live kernel structure (a lookaside list, a queued work item) that a block being freed
// must not contain: Windows' verifier stops a driver that frees memory still in use by
// the kernel. `what` is a static description; `owner` a code address naming who set it up.
void RegisterActiveStructure(const void* address, size_t bytes, const char* what, const void* owner);
void UnregisterActiveStructure(const void* address);

}  // namespace kvhost::detail
