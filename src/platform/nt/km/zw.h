// Zw system services: handles, registry keys and values, named events, files.
#pragma once
#include "basetypes.h"
#include "cm.h"

// Closes a kernel handle of any kind (key, file, event, thread); STATUS_INVALID_HANDLE
// for a handle that is not open.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwClose(HANDLE Handle);

// ---------------------------------------------------------------------------------------
// Registry. Key names are full paths ("\Registry\Machine\System\...") or, with a
// RootDirectory key handle, paths below that key; they never depend on case. A key or
// value that does not exist is STATUS_OBJECT_NAME_NOT_FOUND.

EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                                           POBJECT_ATTRIBUTES ObjectAttributes);
// Creates the last component of the name only: its parent must exist.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess,
                                             POBJECT_ATTRIBUTES ObjectAttributes, ULONG TitleIndex,
                                             PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition);
// A buffer shorter than the record's fixed part is STATUS_BUFFER_TOO_SMALL; one that holds
// the fixed part but not the name or data gets the fixed part, as much as fits, and
// STATUS_BUFFER_OVERFLOW. ResultLength is always the full size.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                                                 KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                                 PVOID KeyValueInformation, ULONG Length, PULONG ResultLength);
// As ZwQueryValueKey, for the value at Index; STATUS_NO_MORE_ENTRIES past the last one.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwEnumerateValueKey(HANDLE KeyHandle, ULONG Index,
                                                     KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                                     PVOID KeyValueInformation, ULONG Length, PULONG ResultLength);
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex,
                                               ULONG Type, PVOID Data, ULONG DataSize);
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName);
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwFlushKey(HANDLE KeyHandle);
