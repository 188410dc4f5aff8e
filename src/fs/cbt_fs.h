// File-system awareness: recognising NTFS or ReFS on a volume that comes online, and
// tearing the reader down again.
#pragma once
#include <ntddk.h>

#include "fs/cbt_fs_context.h"

struct _CBT_DEVICE_EXTENSION;

// Builds the volume's reader (NTFS, then ReFS), sizes its bitmap and takes the baseline
// restart or checkpoint count; sets CBT_FLAG_FS_CONTEXT on success. PASSIVE_LEVEL.
NTSTATUS CbtInitializeFileSystem(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension);

// Tear a reader down. Callers hold the volume's FileSystemMutex and then set
// FileSystemType to none and clear CBT_FLAG_FS_CONTEXT.
VOID NtfsUninitialize(_Inout_ PNTFS_VOLUME_CONTEXT Context);
VOID RefsUninitialize(_Inout_ PREFS_VOLUME_CONTEXT Context);
