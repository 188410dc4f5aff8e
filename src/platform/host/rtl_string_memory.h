// Buffers that the run-time library allocates for its caller (strings built by
// RtlStringFromGUID, RtlUnicodeStringToAnsiString, registry queries, ...): paged pool that
// the caller frees with RtlFreeUnicodeString, RtlFreeAnsiString or ExFreePool.
#pragma once

#include <wdm.h>

namespace kvhost {

// The tag of the system's string allocations ("Strg").
constexpr ULONG kStringPoolTag = KV_POOL_TAG('S', 't', 'r', 'g');

void* AllocateStringBuffer(size_t bytes, ULONG tag = kStringPoolTag);
void FreeStringBuffer(void* buffer);

}  // namespace kvhost
