// String buffers for the run-time library's callers, from paged pool like the system's.
#include "rtl_string_memory.h"

namespace kvhost {

void* AllocateStringBuffer(size_t bytes, ULONG tag) { return ExAllocatePoolWithTag(PagedPool, bytes, tag); }

void FreeStringBuffer(void* buffer) { ExFreePool(buffer); }

}  // namespace kvhost
