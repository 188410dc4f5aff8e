// Zw system services: handles, registry keys and values, named events, files.
#pragma once
#include "basetypes.h"

// Closes a kernel handle of any kind (key, file, event, thread); STATUS_INVALID_HANDLE
// for a handle that is not open.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwClose(HANDLE Handle);
