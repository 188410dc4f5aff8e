// Zw system services: handles, registry keys and values, named events, files.
#pragma once
#include "basetypes.h"
#include "cm.h"
#include "ke.h"

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

// ---------------------------------------------------------------------------------------
// Events by handle, and waits on any waitable object's handle (events, semaphores,
// threads). Named events live in the object namespace ("\Device\VolumesSafeForWriteAccess");
// a name that is not there is STATUS_OBJECT_NAME_NOT_FOUND, one that names another kind of
// object STATUS_OBJECT_TYPE_MISMATCH.

#define EVENT_QUERY_STATE 0x0001
#define EVENT_MODIFY_STATE 0x0002
#define EVENT_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3)
C_ASSERT(EVENT_ALL_ACCESS == 0x1F0003);

EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwOpenEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess,
                                             POBJECT_ATTRIBUTES ObjectAttributes);
// Without a name the event is the handle's alone. A name that is taken is
// STATUS_OBJECT_NAME_COLLISION, or with OBJ_OPENIF opens that event and returns
// STATUS_OBJECT_NAME_EXISTS.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwCreateEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess,
                                               POBJECT_ATTRIBUTES ObjectAttributes, EVENT_TYPE EventType,
                                               BOOLEAN InitialState);
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwSetEvent(HANDLE EventHandle, PLONG PreviousState);
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwClearEvent(HANDLE EventHandle);
// Timeout as KeWaitForSingleObject's; STATUS_SUCCESS when signalled, STATUS_TIMEOUT.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout);
