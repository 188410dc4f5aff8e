// Zw system services: handles, registry keys and values, named events, files.
#pragma once
#include "basetypes.h"
#include "cm.h"
#include "file.h"
#include "io.h"
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

// ---------------------------------------------------------------------------------------
// Files. A name is a full path through the object namespace ("\??\D:\dir\file",
// "\Device\HarddiskVolume2\dir\file", "\SystemRoot\..."), or a path below the directory
// of a RootDirectory handle. The volume's file system serves the request; a handle that is
// no longer needed is closed with ZwClose. Requests are synchronous for a file opened with
// FILE_SYNCHRONOUS_IO_NONALERT or _ALERT (the position then follows reads and writes);
// otherwise the caller's Event, when given, is signalled at completion.
//
// Failures of the open: STATUS_OBJECT_NAME_NOT_FOUND (the file is not there),
// STATUS_OBJECT_PATH_NOT_FOUND (a directory on the way is not), STATUS_OBJECT_NAME_COLLISION
// (FILE_CREATE of a file that exists), STATUS_SHARING_VIOLATION, STATUS_ACCESS_DENIED (the
// volume is locked, or the file system refused), STATUS_DELETE_PENDING,
// STATUS_FILE_IS_A_DIRECTORY and STATUS_NOT_A_DIRECTORY, STATUS_INVALID_PARAMETER for
// contradictory options, and whatever mounting the volume failed with
// (STATUS_UNRECOGNIZED_VOLUME, STATUS_FVE_LOCKED_VOLUME, ...).

EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwCreateFile(_Out_ PHANDLE FileHandle, _In_ ACCESS_MASK DesiredAccess,
                                              _In_ POBJECT_ATTRIBUTES ObjectAttributes,
                                              _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                                              _In_opt_ PLARGE_INTEGER AllocationSize, _In_ ULONG FileAttributes,
                                              _In_ ULONG ShareAccess, _In_ ULONG CreateDisposition,
                                              _In_ ULONG CreateOptions, _In_reads_bytes_opt_(EaLength) PVOID EaBuffer,
                                              _In_ ULONG EaLength);
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwOpenFile(_Out_ PHANDLE FileHandle, _In_ ACCESS_MASK DesiredAccess,
                                            _In_ POBJECT_ATTRIBUTES ObjectAttributes,
                                            _Out_ PIO_STATUS_BLOCK IoStatusBlock, _In_ ULONG ShareAccess,
                                            _In_ ULONG OpenOptions);
// Reading at or past the end of the file is STATUS_END_OF_FILE. A file opened with
// FILE_NO_INTERMEDIATE_BUFFERING takes offsets and lengths in whole sectors only
// (STATUS_INVALID_PARAMETER otherwise).
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwReadFile(_In_ HANDLE FileHandle, _In_opt_ HANDLE Event,
                                            _In_opt_ PIO_APC_ROUTINE ApcRoutine, _In_opt_ PVOID ApcContext,
                                            _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                                            _Out_writes_bytes_(Length) PVOID Buffer, _In_ ULONG Length,
                                            _In_opt_ PLARGE_INTEGER ByteOffset, _In_opt_ PULONG Key);
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwWriteFile(_In_ HANDLE FileHandle, _In_opt_ HANDLE Event,
                                             _In_opt_ PIO_APC_ROUTINE ApcRoutine, _In_opt_ PVOID ApcContext,
                                             _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                                             _In_reads_bytes_(Length) PVOID Buffer, _In_ ULONG Length,
                                             _In_opt_ PLARGE_INTEGER ByteOffset, _In_opt_ PULONG Key);
// A buffer shorter than the class's fixed record is STATUS_INFO_LENGTH_MISMATCH; a record
// with a name that does not fit gets what fits and STATUS_BUFFER_OVERFLOW.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwQueryInformationFile(_In_ HANDLE FileHandle, _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                                                        _Out_writes_bytes_(Length) PVOID FileInformation,
                                                        _In_ ULONG Length,
                                                        _In_ FILE_INFORMATION_CLASS FileInformationClass);
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwSetInformationFile(_In_ HANDLE FileHandle, _Out_ PIO_STATUS_BLOCK IoStatusBlock,
                                                      _In_reads_bytes_(Length) PVOID FileInformation,
                                                      _In_ ULONG Length,
                                                      _In_ FILE_INFORMATION_CLASS FileInformationClass);
// Deletes the named file (or empty directory) at once.
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwDeleteFile(_In_ POBJECT_ATTRIBUTES ObjectAttributes);
EXTERN_C NTSYSAPI NTSTATUS NTAPI ZwFlushBuffersFile(_In_ HANDLE FileHandle, _Out_ PIO_STATUS_BLOCK IoStatusBlock);
