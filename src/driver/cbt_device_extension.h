// The per-volume record: the device extension of each filter device the driver attaches
// above a volume or a volume shadow copy. Every room of the driver reads and changes it;
// the Flags word (kvcbt/device_flags.h) is their shared vocabulary of volume state.
//
// Locks, and their order: VolumeSemaphore before TrackingFileSemaphore, which comes before
// Lock and BitmapLock. Lock, BitmapLock and HoldLock are spin locks held only briefly,
// never across a wait, an allocation or I/O, and never two at once. FileSystemMutex comes
// before the reader context's own semaphore and may be held while BitmapLock is taken for
// a reallocation.
#pragma once
#include <ntddk.h>

#include "driver/cbt_driver.h"
#include "fs/cbt_fs_context.h"
#include "kvcbt/device_flags.h"

struct _CBT_TRACKING_FILE_HEADER;

// Where a volume is in its removal. Moves only forwards.
typedef enum _CBT_REMOVAL_STATE {
  CbtRemovalActive = 0,    // from CbtAddDevice
  CbtRemovalPending = 1,   // IRP_MN_REMOVE_DEVICE arrived
  CbtRemovalComplete = 2   // every reference released; the rundown block is gone
} CBT_REMOVAL_STATE;

// Room for the volume GUID name ("\??\Volume{...}" is 96 bytes, 48 characters) and a
// trailing separator.
#define CBT_VOLUME_GUID_NAME_CHARS 50

// The GPT attributes of a shadow copy: read-only and shadow copy.
#define CBT_SNAPSHOT_GPT_ATTRIBUTES 0x3000000000000000ull

typedef struct _CBT_DEVICE_EXTENSION {
  KSPIN_LOCK Lock;  // guards read-modify-write of Flags where a writer may race
  volatile ULONG Flags;  // CBT_FLAG_*
  ULONG QueryRemoveSavedFlags;  // copies of Flags taken by the volume notifications
  ULONG DismountSavedFlags;
  ULONG LockSavedFlags;
  KEVENT FileSystemMutex;  // synchronization event used as a mutex over FileSystemType and FileSystemContext
  UCHAR TrackingEnabled;   // tracking switched on by a backup application or restored from the tracking file
  ULONGLONG GptAttributes;

  PDEVICE_OBJECT DeviceObject;          // the filter device
  PDEVICE_OBJECT PhysicalDeviceObject;  // the device given to CbtAddDevice
  PDEVICE_OBJECT LowerDeviceObject;     // the device the filter is attached to
  POBJECT_NAME_INFORMATION DeviceName;  // name of the physical device; pool owned by the extension
  ULONG VolumeNumber;                   // from "\Device\HarddiskVolumeN" or "...ShadowCopyN"; 0 otherwise

  // Volume and bitmap geometry, from the file system.
  ULONG BytesPerSector;
  ULONGLONG TotalSectors;
  ULONGLONG VolumeSize;
  ULONG BytesPerCluster;
  ULONG TotalClusters;
  ULONG BytesPerBit;
  ULONG BitCount;

  // The tracking file.
  HANDLE TrackingFileHandle;
  LONGLONG TrackingFileOffset;  // volume byte offset of its first cluster
  ULONG TrackingFileLength;
  struct _CBT_TRACKING_FILE_HEADER* TrackingFileHeader;  // the file's image in memory

  KSPIN_LOCK BitmapLock;  // guards TrackingBitmap: its size, buffer and every bit
  RTL_BITMAP TrackingBitmap;
  ULONG BitmapAllocationSize;

  PVOID TargetNotificationEntry;  // the volume's target-device registration
  KSEMAPHORE VolumeSemaphore;     // serialises the volume notifications

  // Statistics: changed only by interlocked adds, read without a lock.
  volatile LONG64 TrackedWriteCount;
  volatile LONG64 TrackedWriteBytes;
  volatile LONG64 TrackedWriteBits;
  volatile LONG64 UntrackedWriteCount;
  volatile LONG64 TrimClearedBytes;
  volatile LONG64 TrackingTimeMicroseconds;
  volatile LONG64 TrackingFileBytesWritten;
  volatile LONG64 PagingWriteCount;
  volatile LONG64 DeferredWriteCount;

  KSEMAPHORE TrackingFileSemaphore;  // serialises tracking-file writes
  ULONG BaselineRestartCount;        // file-system restart or checkpoint count when tracking began
  volatile ULONG LastRestartCount;   // the count last seen written; exchanged as one interlocked operation

  WCHAR DriveLetter;  // '?' until a drive-letter link is seen; 'C' marks the system volume
  UNICODE_STRING VolumeGuidName;  // over VolumeGuidNameBuffer
  WCHAR VolumeGuidNameBuffer[CBT_VOLUME_GUID_NAME_CHARS];
  struct _CBT_DEVICE_EXTENSION* SnapshotInfo;  // a shadow copy's original volume

  ULONG SessionId;          // stamp of the current tracking period
  ULONG PreviousSessionId;  // stamp of the period the last shadow copy closed

  // Removal protection: a cache-aware rundown block, the count of acquisitions that failed
  // because rundown had begun and are still owed a release, and the removal state.
  volatile LONG RundownBypassCount;
  volatile LONG RemovalState;  // CBT_REMOVAL_STATE
  PEX_RUNDOWN_REF_CACHE_AWARE RundownProtection;  // NULL when it could not be had, or after removal

  ULONG FileSystemType;  // CBT_FILE_SYSTEM_NONE, _NTFS or _REFS
  CBT_FILE_SYSTEM_CONTEXT FileSystemContext;
  // Held by each write while it looks at its data through the NTFS reader, so that writes
  // do so side by side rather than one at a time under FileSystemMutex; every teardown of
  // the reader, under the mutex, waits for these references before the reader goes.
  EX_RUNDOWN_REF FileSystemRundown;

  KSPIN_LOCK HoldLock;        // guards HoldCount's changes and HeldWriteList
  volatile ULONG HoldCount;   // while non-zero, writes are held; changed by interlocked operations
  LIST_ENTRY HeldWriteList;

  PCBT_DRIVER_EXTENSION DriverExtension;
} CBT_DEVICE_EXTENSION, *PCBT_DEVICE_EXTENSION;

FORCEINLINE PCBT_DEVICE_EXTENSION CbtExtensionOf(PDEVICE_OBJECT DeviceObject) {
  return static_cast<PCBT_DEVICE_EXTENSION>(DeviceObject->DeviceExtension);
}

// Flags as one load; bits set or cleared as one interlocked operation. Each returns the
// word as it was before.
FORCEINLINE ULONG CbtReadFlags(const CBT_DEVICE_EXTENSION* Extension) {
  return static_cast<ULONG>(ReadNoFence(reinterpret_cast<LONG const volatile*>(&Extension->Flags)));
}
FORCEINLINE ULONG CbtSetFlags(PCBT_DEVICE_EXTENSION Extension, ULONG Bits) {
  return static_cast<ULONG>(InterlockedOr(reinterpret_cast<LONG volatile*>(&Extension->Flags), static_cast<LONG>(Bits)));
}
FORCEINLINE ULONG CbtClearFlags(PCBT_DEVICE_EXTENSION Extension, ULONG Bits) {
  return static_cast<ULONG>(
      InterlockedAnd(reinterpret_cast<LONG volatile*>(&Extension->Flags), ~static_cast<LONG>(Bits)));
}
FORCEINLINE BOOLEAN CbtFlagsSet(const CBT_DEVICE_EXTENSION* Extension, ULONG Bits) {
  return (CbtReadFlags(Extension) & Bits) == Bits;
}

// Records for a volume carry its Flags, VolumeNumber and DriveLetter.
#define CBT_LOG_VOLUME(Extension, Text, Status)                                                         \
  CbtLogEvent(CbtReadFlags(Extension), (Extension)->VolumeNumber, (Extension)->DriveLetter, (Text), __LINE__, \
              static_cast<ULONG>(Status))
