// File-system reader state kept in each volume's extension: the NTFS or ReFS context,
// chosen by the extension's FileSystemType.
#pragma once
#include <ntddk.h>

#define CBT_FILE_SYSTEM_NONE 0
#define CBT_FILE_SYSTEM_NTFS 1
#define CBT_FILE_SYSTEM_REFS 2

// The NTFS reader's state. Its layout holds the reader's cluster maps (large MCBs), so it
// is completed together with the reader; until then the extension reserves room for it.
typedef struct _NTFS_VOLUME_CONTEXT NTFS_VOLUME_CONTEXT, *PNTFS_VOLUME_CONTEXT;

// Bytes reserved for a reader's state in each extension. The NTFS context (two large MCBs,
// a semaphore and its geometry) needs well under this.
#define CBT_FILE_SYSTEM_CONTEXT_BYTES 512

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

typedef union _CBT_FILE_SYSTEM_CONTEXT {
  REFS_VOLUME_CONTEXT Refs;
  DECLSPEC_ALIGN(16) UCHAR Storage[CBT_FILE_SYSTEM_CONTEXT_BYTES];
} CBT_FILE_SYSTEM_CONTEXT, *PCBT_FILE_SYSTEM_CONTEXT;

C_ASSERT(sizeof(CBT_FILE_SYSTEM_CONTEXT) == CBT_FILE_SYSTEM_CONTEXT_BYTES);

// The NTFS context in a volume's storage.
FORCEINLINE PNTFS_VOLUME_CONTEXT CbtNtfsContext(PCBT_FILE_SYSTEM_CONTEXT Context) {
  return reinterpret_cast<PNTFS_VOLUME_CONTEXT>(Context->Storage);
}
