// Recognising an NTFS volume: the disk's geometry, the boot sector's checks, the $MFT base
// record and the map of $MFT; and tearing the reader's state down again.
#include <ntdddisk.h>

#include "control/cbt_control.h"
#include "driver/cbt_driver.h"
#include "fs/cbt_ntfs.h"
#include "fs/ntfs_request.h"

namespace {

// The boot sector and the first file record are read in one request of at least this size.
constexpr ULONG kBootReadBytes = 4096;
// The largest cluster NTFS formats (2 MiB). A larger one is no NTFS volume, and taking it
// at its word would size the reader's requests by it.
constexpr ULONGLONG kMaxBytesPerCluster = 2ull << 20;
// File records are 1 KiB or 4 KiB on disk. Below one 512-byte stride neither the record
// checks nor the update sequence can work; above 64 KiB the size is damage, not a format.
constexpr ULONG kMinFileRecordSize = 512;
constexpr ULONG kMaxFileRecordSize = 64 * 1024;

constexpr UCHAR kNtfsOemId[8] = {'N', 'T', 'F', 'S', ' ', ' ', ' ', ' '};

NTSTATUS QueryDiskGeometry(PNTFS_VOLUME_CONTEXT Context, PDEVICE_OBJECT Device) {
  DISK_GEOMETRY geometry = {};
  IO_STATUS_BLOCK iosb = {};
  NTSTATUS status =
      CbtSendDeviceControl(Device, IOCTL_DISK_GET_DRIVE_GEOMETRY, NULL, 0, &geometry, sizeof(geometry), &iosb);
  if (!NT_SUCCESS(status)) return status;
  Context->BytesPerSector = geometry.BytesPerSector;

  GET_LENGTH_INFORMATION length = {};
  status = CbtSendDeviceControl(Device, IOCTL_DISK_GET_LENGTH_INFO, NULL, 0, &length, sizeof(length), &iosb);
  if (!NT_SUCCESS(status)) return status;
  Context->VolumeLength = length.Length.QuadPart;
  return STATUS_SUCCESS;
}

// The boot sector's checks, and the geometry it gives. STATUS_UNRECOGNIZED_VOLUME for
// anything that is not an NTFS boot sector this disk can carry.
NTSTATUS ReadBootSector(PNTFS_VOLUME_CONTEXT Context, const NTFS_BOOT_SECTOR* Boot) {
  const ULONG diskBytesPerSector = Context->BytesPerSector;
  // A disk that reports no sector size has no sectors to count.
  if (diskBytesPerSector == 0 || Context->VolumeLength <= 0) return STATUS_UNRECOGNIZED_VOLUME;
  const ULONGLONG diskSectors = static_cast<ULONGLONG>(Context->VolumeLength) / diskBytesPerSector;

  const ULONG bootBytesPerSector = Boot->BytesPerSector;
  if (bootBytesPerSector != 512 && bootBytesPerSector != 4096 && bootBytesPerSector != diskBytesPerSector)
    return STATUS_UNRECOGNIZED_VOLUME;
  if (RtlCompareMemory(Boot->OemId, kNtfsOemId, sizeof(kNtfsOemId)) != sizeof(kNtfsOemId))
    return STATUS_UNRECOGNIZED_VOLUME;
  if ((bootBytesPerSector & 0xFF) != 0 || bootBytesPerSector > 4096 || bootBytesPerSector == 0)
    return STATUS_UNRECOGNIZED_VOLUME;
  if (Boot->ReservedSectors != 0 || Boot->NumberOfFats != 0 || Boot->RootEntries != 0 || Boot->Sectors16 != 0 ||
      Boot->SectorsPerFat != 0 || Boot->Sectors32 != 0)
    return STATUS_UNRECOGNIZED_VOLUME;
  // A negative count is no count; it would pass the comparison below.
  const LONGLONG totalSectors = Boot->TotalSectors;
  if (totalSectors < 0 || static_cast<ULONGLONG>(totalSectors) > diskSectors) return STATUS_UNRECOGNIZED_VOLUME;

  const UCHAR sectorsPerClusterCode = Boot->SectorsPerCluster;
  const ULONG sectorsPerCluster =
      sectorsPerClusterCode > 128 ? 1u << ((256u - sectorsPerClusterCode) % 32u) : sectorsPerClusterCode;
  const ULONGLONG bytesPerCluster = static_cast<ULONGLONG>(sectorsPerCluster) * diskBytesPerSector;
  if (bytesPerCluster == 0 || bytesPerCluster > kMaxBytesPerCluster) return STATUS_UNRECOGNIZED_VOLUME;
  Context->SectorsPerCluster = sectorsPerCluster;
  Context->BytesPerCluster = static_cast<ULONG>(bytesPerCluster);

  const CHAR recordCode = Boot->ClustersPerFileRecord;
  ULONGLONG fileRecordSize;
  if (recordCode < 0) {
    const ULONG shift = static_cast<ULONG>(-static_cast<LONG>(recordCode));
    fileRecordSize = shift < 32 ? (1ull << shift) : 0;
  } else {
    fileRecordSize = static_cast<ULONGLONG>(recordCode) * bytesPerCluster;
  }
  if (fileRecordSize < kMinFileRecordSize || fileRecordSize > kMaxFileRecordSize) return STATUS_UNRECOGNIZED_VOLUME;
  Context->FileRecordSize = static_cast<ULONG>(fileRecordSize);

  Context->TotalSectors = totalSectors;
  // Bounded by the disk's sector count, so the products below stay far inside 64 bits.
  Context->TotalClusters =
      static_cast<LONGLONG>(static_cast<ULONGLONG>(bootBytesPerSector) * static_cast<ULONGLONG>(totalSectors) /
                            bytesPerCluster);

  const ULONGLONG volumeLength = static_cast<ULONGLONG>(Context->VolumeLength);
  if (static_cast<ULONGLONG>(diskBytesPerSector) * static_cast<ULONGLONG>(totalSectors) > volumeLength)
    return STATUS_UNRECOGNIZED_VOLUME;
  if (bytesPerCluster * static_cast<ULONGLONG>(Context->TotalClusters) > volumeLength)
    return STATUS_UNRECOGNIZED_VOLUME;
  // Negative cluster numbers would pass the bounds below and address before the volume.
  if (Boot->MftLcn < 0 || Boot->MftLcn > Context->TotalClusters) return STATUS_UNRECOGNIZED_VOLUME;
  if (Boot->MftMirrorLcn < 0 || Boot->MftMirrorLcn > Context->TotalClusters) return STATUS_UNRECOGNIZED_VOLUME;

  Context->MftLcn = Boot->MftLcn;
  Context->MftOffset = Boot->MftLcn * static_cast<LONGLONG>(bytesPerCluster);
  return STATUS_SUCCESS;
}

// Reads the $MFT base record into a copy of its own (MftRecord), checked and fixed up.
NTSTATUS ReadMftRecord(PNTFS_VOLUME_CONTEXT Context, PIRP* Request) {
  ULONG needed = Context->FileRecordSize;
  if (Context->BytesPerCluster > needed) needed = Context->BytesPerCluster;
  if (needed > kBootReadBytes) {
    CbtFreeRawIrp(*Request, TRUE);
    *Request = NtfsAllocateReadRequest(Context->Device, needed);
    if (*Request == NULL) return STATUS_INSUFFICIENT_RESOURCES;
  }
  NTSTATUS status = NtfsReadVolume(Context->Device, *Request, Context->MftOffset, Context->FileRecordSize);
  if (!NT_SUCCESS(status)) return status;

  Context->MftRecord = ExAllocatePoolWithTag(PagedPool, Context->FileRecordSize, CBT_POOL_TAG);
  if (Context->MftRecord == NULL) return STATUS_INSUFFICIENT_RESOURCES;
  RtlCopyMemory(Context->MftRecord, NtfsRequestBuffer(*Request), Context->FileRecordSize);

  if (!NtfsCheckFileRecord(Context, Context->MftRecord)) return STATUS_FILE_CORRUPT_ERROR;
  status = NtfsApplyUpdateSequence(Context->MftRecord, Context->FileRecordSize);
  if (!NT_SUCCESS(status)) return status;
  return NtfsBuildMcbForMft(Context);
}

}  // namespace

NTSTATUS NtfsInitialize(PDEVICE_OBJECT Device, ULONG Flags, ULONG VolumeNumber, WCHAR DriveLetter,
                        PNTFS_VOLUME_CONTEXT Context) {
  RtlZeroMemory(Context, sizeof(*Context));
  Context->LogFlags = Flags;
  Context->LogVolumeNumber = VolumeNumber;
  Context->LogDriveLetter = DriveLetter;
  NTFS_LOG(Context, "NtfsInitialize", STATUS_SUCCESS);
  KeInitializeSemaphore(&Context->Lock, 1, 1);
  KeWaitForSingleObject(&Context->Lock, Executive, KernelMode, FALSE, NULL);

  PIRP request = NULL;
  NTSTATUS status = QueryDiskGeometry(Context, Device);
  if (NT_SUCCESS(status)) {
    request = NtfsAllocateReadRequest(Device, kBootReadBytes);
    status = request != NULL ? NtfsReadVolume(Device, request, 0, kBootReadBytes) : STATUS_INSUFFICIENT_RESOURCES;
  }
  if (NT_SUCCESS(status)) status = ReadBootSector(Context, reinterpret_cast<PNTFS_BOOT_SECTOR>(NtfsRequestBuffer(request)));
  if (NT_SUCCESS(status)) {
    Context->Device = Device;
    status = ReadMftRecord(Context, &request);
  }
  if (NT_SUCCESS(status)) Context->Initialized = TRUE;

  KeReleaseSemaphore(&Context->Lock, IO_NO_INCREMENT, 1, FALSE);
  CbtFreeRawIrp(request, TRUE);
  if (!NT_SUCCESS(status)) {
    NTFS_LOG(Context, "NtfsInitialize", status);
    NtfsUninitialize(Context);
  }
  return status;
}

VOID NtfsUninitialize(PNTFS_VOLUME_CONTEXT Context) {
  NTFS_LOG(Context, "NtfsUninitialize", STATUS_SUCCESS);
  // Waiting for the lock lets an operation in progress end before the state goes.
  KeWaitForSingleObject(&Context->Lock, Executive, KernelMode, FALSE, NULL);
  KeReleaseSemaphore(&Context->Lock, IO_NO_INCREMENT, 1, FALSE);
  if (Context->LogFileMcbValid) FsRtlUninitializeLargeMcb(&Context->LogFileMcb);
  if (Context->Initialized) FsRtlUninitializeLargeMcb(&Context->MftMcb);
  if (Context->MftRecord != NULL) ExFreePoolWithTag(Context->MftRecord, CBT_POOL_TAG);
  RtlZeroMemory(Context, sizeof(*Context));
}
