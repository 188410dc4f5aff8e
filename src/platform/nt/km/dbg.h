// Debug output: DbgPrintEx and its component and level identifiers.
//
// A Level of 0 to 31 is a severity (the message is shown when the component's filter has
// that bit); a larger Level is itself a mask. Messages are cut at 512 bytes. Callable at
// any IRQL; the Unicode conversions (%wZ, %ws, %S, %C) only at PASSIVE_LEVEL.
#pragma once
#include "basetypes.h"

typedef const CHAR* PCCH;

typedef enum _DPFLTR_TYPE {
  DPFLTR_SYSTEM_ID = 0,
  DPFLTR_IHVDRIVER_ID = 77,
  DPFLTR_IHVVIDEO_ID = 78,
  DPFLTR_IHVAUDIO_ID = 79,
  DPFLTR_IHVNETWORK_ID = 80,
  DPFLTR_IHVSTREAMING_ID = 81,
  DPFLTR_IHVBUS_ID = 82,
  DPFLTR_DEFAULT_ID = 101,
} DPFLTR_TYPE;

#define DPFLTR_ERROR_LEVEL 0
#define DPFLTR_WARNING_LEVEL 1
#define DPFLTR_TRACE_LEVEL 2
#define DPFLTR_INFO_LEVEL 3
#define DPFLTR_MASK 0x80000000

// DbgPrint is DbgPrintEx for DPFLTR_DEFAULT_ID at DPFLTR_INFO_LEVEL.
EXTERN_C NTSYSAPI ULONG __cdecl DbgPrint(PCSTR Format, ...);
EXTERN_C NTSYSAPI ULONG __cdecl DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...);
EXTERN_C NTSYSAPI ULONG NTAPI vDbgPrintEx(ULONG ComponentId, ULONG Level, PCCH Format, va_list arglist);

#if DBG
#define KdPrint(_x_) DbgPrint _x_
#define KdPrintEx(_x_) DbgPrintEx _x_
#else
#define KdPrint(_x_)
#define KdPrintEx(_x_)
#endif
