// Run-time lookup of kernel exports, for routines that not every Windows release has.
#pragma once
#include "basetypes.h"

// The address of the exported routine of that name, or NULL when this system does not
// export it. PASSIVE_LEVEL only.
EXTERN_C NTKERNELAPI PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName);
