// File-system awareness: recognising NTFS or ReFS on a volume that comes online, following
// its restart count, and tearing the reader down again.
#pragma once
#include <ntddk.h>

#include "fs/cbt_fs_context.h"

struct _CBT_DEVICE_EXTENSION;

// Builds the volume's reader (NTFS, then ReFS), sizes its bitmap and takes the baseline
// restart or checkpoint count; sets CBT_FLAG_FS_CONTEXT on success. Recovery and reserved
// partitions and BitLocker-locked volumes get no reader. PASSIVE_LEVEL.
NTSTATUS CbtInitializeFileSystem(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension);

// Asks the volume for its partition and marks recovery (CBT_FLAG_RECOVERY_PARTITION) and
// Microsoft reserved (CBT_FLAG_RESERVED_PARTITION) partitions. Returns the query's status.
NTSTATUS CbtCheckPartitionType(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension);

// The readers' set-up and teardown. Callers of the teardown hold the volume's
// FileSystemMutex and then set FileSystemType to none and clear CBT_FLAG_FS_CONTEXT.
NTSTATUS NtfsInitialize(_In_ PDEVICE_OBJECT Device, _In_ ULONG Flags, _In_ ULONG VolumeNumber,
                        _In_ WCHAR DriveLetter, _Out_ PNTFS_VOLUME_CONTEXT Context);

// Drops the volume's reader, if it has one: under FileSystemMutex, once no write holds a
// reference on FileSystemRundown any more, the reader that FileSystemType names is torn
// down, FileSystemType becomes none and CBT_FLAG_FS_CONTEXT is cleared. Every teardown goes
// through here, so that a write never finds a reader half gone (the write path uses the
// NTFS reader under such a reference and the ReFS reader under the mutex). PASSIVE_LEVEL.
VOID CbtUninitializeFileSystem(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension);

// Tear a reader down. Callers hold the volume's FileSystemMutex and then set
// FileSystemType to none and clear CBT_FLAG_FS_CONTEXT.
VOID NtfsUninitialize(_Inout_ PNTFS_VOLUME_CONTEXT Context);
NTSTATUS RefsInitialize(_In_ PDEVICE_OBJECT Device, _In_ ULONG Flags, _In_ ULONG VolumeNumber,
                        _In_ WCHAR DriveLetter, _Out_ PREFS_VOLUME_CONTEXT Context);
VOID RefsUninitialize(_Inout_ PREFS_VOLUME_CONTEXT Context);

// The write-side watch of the readers, called by the write path for each tracked write.
// NTFS, under a reference on the volume's FileSystemRundown and by many writes at once:
// TRUE when the write's data begins with a $LogFile restart page, with Count set to its
// restart count; the page's clean flag is then cleared in the data on its way to the disk.
// Only reads the context, takes no lock of its own and reads nothing from disk; IRQL up to
// DISPATCH_LEVEL. ReFS, under FileSystemMutex: TRUE when Data, written at ByteOffset,
// replaces a checkpoint with one of another count; the context then holds the new count.
BOOLEAN NtfsIsLogFileRestartCountIrp(_In_opt_ PNTFS_VOLUME_CONTEXT Context, _In_opt_ PIRP Irp,
                                     _Out_opt_ PULONG Count);
BOOLEAN RefsIsWriteToCheckpoint(_Inout_ PREFS_VOLUME_CONTEXT Context, _In_ PVOID Data, _In_ ULONGLONG ByteOffset);
