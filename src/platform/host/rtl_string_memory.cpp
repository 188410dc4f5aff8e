// String buffers for the run-time library's callers. Until the kernel core's pool is part
// of the host kernel there is no memory to hand out: every such allocation fails, and the
// routines report STATUS_NO_MEMORY as they do on a machine out of paged pool.
#include "rtl_string_memory.h"

namespace kvhost {

void* AllocateStringBuffer(size_t, ULONG) { return nullptr; }

void FreeStringBuffer(void*) {}

}  // namespace kvhost
