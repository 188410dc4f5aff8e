// Tracking periods are stamped with whole seconds since 2009-12-22 00:00:00 UTC.
#pragma once
#include <ntddk.h>

// System time in seconds, truncated to 32 bits, less the seconds from 1601-01-01 to
// 2009-12-22 (0x01409D00 once truncated).
#define CBT_SESSION_EPOCH_SECONDS 0x01409D00u

ULONG CbtSessionIdFromSystemTime(_In_ LONGLONG SystemTime);
// The stamp of a period that starts now.
ULONG CbtCurrentSessionId(VOID);
