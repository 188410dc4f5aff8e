// Checks of the boot environment, made once while the driver loads.
#pragma once
#include <ntddk.h>

// TRUE when the DefragFs boot-time defragmenter is set to run at this boot; the driver
// then filters no volume until a boot without it.
BOOLEAN CbtIsRaxcoBootTimeDefragEnabled(VOID);

// Records the upper or lower filter list of a device class ("none" when it has none or
// cannot be read), with Line as the record's line. Returns the query's status.
NTSTATUS CbtLogClassFilters(_In_ const GUID* ClassGuid, _In_ PCWSTR ValueName, _In_ ULONG Line);

// Appends the class's filter list (ValueName: L"UpperFilters" or L"LowerFilters") to
// Output, the names joined and ended by ';'.
NTSTATUS CbtQueryClassFilters(_In_ const GUID* ClassGuid, _In_ PCWSTR ValueName, _Inout_ PUNICODE_STRING Output);
