// File-system reader state kept in each volume's extension: the NTFS or ReFS context,
// chosen by the extension's FileSystemType.
#pragma once
#include <ntifs.h>

#define CBT_FILE_SYSTEM_NONE 0
#define CBT_FILE_SYSTEM_NTFS 1
#define CBT_FILE_SYSTEM_REFS 2

// The NTFS reader's state.
typedef struct _NTFS_VOLUME_CONTEXT {
  KSEMAPHORE Lock;  // limit 1, count 1; serialises every operation on the context
  PDEVICE_OBJECT Device;  // the volume's lower device
  ULONG LogFlags;         // the volume's Flags, VolumeNumber and DriveLetter, for CbtLogEvent
  ULONG LogVolumeNumber;
  WCHAR LogDriveLetter;
  ULONG BytesPerSector;  // the disk's sector size
  ULONG SectorsPerCluster;
  ULONG BytesPerCluster;
  ULONG FileRecordSize;
  LONGLONG TotalSectors;
  LONGLONG TotalClusters;
  LONGLONG VolumeLength;
  PVOID MftRecord;  // copy of the $MFT base record, FileRecordSize bytes of paged pool
  UCHAR MftHasAttributeList;
  UCHAR Initialized;  // MftMcb is valid
  LONGLONG MftLcn;
  LONGLONG MftOffset;
  LARGE_MCB MftMcb;  // VCN to LCN of $MFT
  UCHAR LogFileMcbValid;
  LARGE_MCB LogFileMcb;  // VCN to LCN of $LogFile
} NTFS_VOLUME_CONTEXT, *PNTFS_VOLUME_CONTEXT;

// The ReFS reader's state.
typedef struct _REFS_VOLUME_CONTEXT {
  KSEMAPHORE Lock;  // limit 1, count 1; held during initialisation
  PDEVICE_OBJECT Device;  // the volume's lower device
  UCHAR MajorVersion;
  UCHAR MinorVersion;
  ULONG BytesPerSector;
  ULONG SectorsPerCluster;
  ULONG BytesPerCluster;
  ULONGLONG TotalSectors;
  LONGLONG TotalClusters;
  ULONG BlockSize;  // one metadata block; equals BytesPerCluster
  ULONGLONG SuperblockOffset;
  ULONGLONG CheckpointOffset1;
  ULONGLONG CheckpointOffset2;
  ULONGLONG CheckpointCount;  // the larger checkpoint counter last seen
  ULONG LogFlags;             // the volume's Flags, VolumeNumber and DriveLetter, for CbtLogEvent
  ULONG LogVolumeNumber;
  WCHAR LogDriveLetter;
} REFS_VOLUME_CONTEXT, *PREFS_VOLUME_CONTEXT;

// One reader's state at a time, the one FileSystemType names.
typedef union _CBT_FILE_SYSTEM_CONTEXT {
  NTFS_VOLUME_CONTEXT Ntfs;
  REFS_VOLUME_CONTEXT Refs;
} CBT_FILE_SYSTEM_CONTEXT, *PCBT_FILE_SYSTEM_CONTEXT;
