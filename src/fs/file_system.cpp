// Recognising the file system of a volume that comes online: its partition, its reader
// (NTFS first, then ReFS), its geometry and bitmap, and the baseline restart count.
#include <diskguid.h>
#include <ntdddisk.h>

#include "control/cbt_control.h"
#include "driver/cbt_device_extension.h"
#include "fs/cbt_ntfs.h"
#include "tracking/cbt_tracking.h"

namespace {

// The MBR partition type of a recovery partition.
constexpr UCHAR kMbrRecoveryPartition = 0x27;
// BitLocker's status for a volume whose metadata cannot be read while it is locked, beside
// STATUS_FVE_LOCKED_VOLUME.
constexpr NTSTATUS kBitLockerLockedMetadata = static_cast<NTSTATUS>(0xC0210024L);
// The label of the sandbox base layer, whose volume is passed through untracked.
constexpr WCHAR kSandboxBaseLayerLabel[] = L"PortableBaseLayer";

bool IsSandboxBaseLayer(PCUNICODE_STRING Label) {
  UNICODE_STRING baseLayer;
  baseLayer.Buffer = const_cast<PWCH>(kSandboxBaseLayerLabel);
  baseLayer.Length = baseLayer.MaximumLength = sizeof(kSandboxBaseLayerLabel) - sizeof(WCHAR);
  return Label->Length != 0 && RtlCompareUnicodeString(Label, &baseLayer, FALSE) == 0;
}

// Geometry, bitmap and type for a reader that recognised the volume. On failure the caller
// tears the reader down.
NTSTATUS SetUpGeometry(PCBT_DEVICE_EXTENSION Extension, ULONG BytesPerSector, ULONGLONG TotalSectors,
                       ULONG BytesPerCluster, ULONGLONG TotalClusters, ULONG FileSystemType) {
  const ULONGLONG volumeSize = static_cast<ULONGLONG>(BytesPerSector) * TotalSectors;
  ULONG bitCount = 0;
  ULONG bytesPerBit = 0;
  NTSTATUS status = CbtCalculateBitmapGeometry(static_cast<ULONG>(TotalClusters), BytesPerCluster, &bitCount,
                                               &bytesPerBit);
  if (!NT_SUCCESS(status)) {
    CBT_LOG_VOLUME(Extension, "CbtInitializeFileSystem", status);
    return STATUS_FILE_CORRUPT_ERROR;
  }
  status = CbtAllocateTrackingBitMap(Extension, bitCount);
  if (!NT_SUCCESS(status)) {
    CBT_LOG_VOLUME(Extension, "CbtInitializeFileSystem", status);
    return status;
  }
  Extension->BytesPerSector = BytesPerSector;
  Extension->TotalSectors = TotalSectors;
  Extension->VolumeSize = volumeSize;
  Extension->BytesPerCluster = BytesPerCluster;
  Extension->TotalClusters = static_cast<ULONG>(TotalClusters);
  Extension->BytesPerBit = bytesPerBit;
  Extension->BitCount = bitCount;
  Extension->FileSystemType = FileSystemType;
  CbtSetFlags(Extension, CBT_FLAG_FS_CONTEXT);
  return STATUS_SUCCESS;
}

// The rest of an NTFS volume's initialisation once its geometry stands: the label, then the
// baseline restart count. The context stays whatever happens here.
NTSTATUS FinishNtfs(PCBT_DEVICE_EXTENSION Extension, PNTFS_VOLUME_CONTEXT Context) {
  UNICODE_STRING label;
  NTSTATUS status = NtfsQueryVolumeName(Context, &label);
  if (!NT_SUCCESS(status)) {
    CBT_LOG_VOLUME(Extension, "CbtInitializeFileSystem", status);
    return status;
  }
  const bool baseLayer = IsSandboxBaseLayer(&label);
  if (label.Buffer != NULL) ExFreePoolWithTag(label.Buffer, NTFS_POOL_TAG);
  if (baseLayer) {
    CbtSetFlags(Extension, CBT_FLAG_SANDBOX_BASE_LAYER);
    CBT_LOG_VOLUME(Extension, "CbtInitializeFileSystem", STATUS_SUCCESS);
    return STATUS_SUCCESS;
  }

  if (Extension->BaselineRestartCount != 0) return STATUS_SUCCESS;
  status = NtfsQueryLogFileRestartCount(Context, &Extension->BaselineRestartCount);
  if (!NT_SUCCESS(status)) CBT_LOG_VOLUME(Extension, "CbtInitializeFileSystem", status);
  return status;
}

// Probes NTFS, then ReFS, and sets the volume up with the reader that recognised it. Runs
// under FileSystemMutex.
NTSTATUS ProbeFileSystems(PCBT_DEVICE_EXTENSION Extension) {
  Extension->FileSystemType = CBT_FILE_SYSTEM_NONE;
  PNTFS_VOLUME_CONTEXT ntfs = CbtNtfsContext(&Extension->FileSystemContext);
  NTSTATUS status = NtfsInitialize(Extension->LowerDeviceObject, CbtReadFlags(Extension), Extension->VolumeNumber,
                                   Extension->DriveLetter, ntfs);
  if (NT_SUCCESS(status)) {
    if (ntfs->MftHasAttributeList) CbtSetFlags(Extension, CBT_FLAG_MFT_ATTRIBUTE_LIST);
    status = SetUpGeometry(Extension, ntfs->BytesPerSector, static_cast<ULONGLONG>(ntfs->TotalSectors),
                           ntfs->BytesPerCluster, static_cast<ULONGLONG>(ntfs->TotalClusters), CBT_FILE_SYSTEM_NTFS);
    if (!NT_SUCCESS(status)) {
      NtfsUninitialize(ntfs);
      return status;
    }
    return FinishNtfs(Extension, ntfs);
  }
  if (status == STATUS_FVE_LOCKED_VOLUME || status == kBitLockerLockedMetadata) {
    // A locked volume's metadata is not readable by anyone: it is no other file system.
    CbtSetFlags(Extension, CBT_FLAG_BITLOCKER_LOCKED);
    CBT_LOG_VOLUME(Extension, "CbtInitializeFileSystem", status);
    return status;
  }

  PREFS_VOLUME_CONTEXT refs = CbtRefsContext(&Extension->FileSystemContext);
  status = RefsInitialize(Extension->LowerDeviceObject, CbtReadFlags(Extension), Extension->VolumeNumber,
                          Extension->DriveLetter, refs);
  if (!NT_SUCCESS(status)) {
    // Neither reader knows the volume: it stays without a context, and its writes untracked.
    CBT_LOG_VOLUME(Extension, "CbtInitializeFileSystem", status);
    return status;
  }
  status = SetUpGeometry(Extension, refs->BytesPerSector, refs->TotalSectors, refs->BytesPerCluster,
                         static_cast<ULONGLONG>(refs->TotalClusters), CBT_FILE_SYSTEM_REFS);
  if (!NT_SUCCESS(status)) {
    RefsUninitialize(refs);
    return status;
  }
  if (Extension->BaselineRestartCount == 0) Extension->BaselineRestartCount = static_cast<ULONG>(refs->CheckpointCount);
  return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS CbtCheckPartitionType(PCBT_DEVICE_EXTENSION Extension) {
  PARTITION_INFORMATION_EX partition = {};
  IO_STATUS_BLOCK iosb = {};
  const NTSTATUS status = CbtSendDeviceControl(Extension->LowerDeviceObject, IOCTL_DISK_GET_PARTITION_INFO_EX, NULL, 0,
                                               &partition, sizeof(partition), &iosb);
  if (!NT_SUCCESS(status)) return status;
  if (partition.PartitionStyle == PARTITION_STYLE_MBR) {
    if (partition.Mbr.PartitionType == kMbrRecoveryPartition) CbtSetFlags(Extension, CBT_FLAG_RECOVERY_PARTITION);
  } else if (partition.PartitionStyle == PARTITION_STYLE_GPT) {
    if (IsEqualGUID(partition.Gpt.PartitionType, PARTITION_MSFT_RECOVERY_GUID))
      CbtSetFlags(Extension, CBT_FLAG_RECOVERY_PARTITION);
    else if (IsEqualGUID(partition.Gpt.PartitionType, PARTITION_MSFT_RESERVED_GUID))
      CbtSetFlags(Extension, CBT_FLAG_RESERVED_PARTITION);
  }
  return status;
}

NTSTATUS CbtInitializeFileSystem(PCBT_DEVICE_EXTENSION Extension) {
  CBT_LOG_VOLUME(Extension, "CbtInitializeFileSystem", STATUS_SUCCESS);
  // A failed query does not stop the initialisation: its status is only the result so far.
  NTSTATUS status = CbtCheckPartitionType(Extension);
  if ((CbtReadFlags(Extension) & (CBT_FLAG_RECOVERY_PARTITION | CBT_FLAG_RESERVED_PARTITION)) != 0) {
    CBT_LOG_VOLUME(Extension, "CbtInitializeFileSystem", status);
    return status;
  }

  KeWaitForSingleObject(&Extension->FileSystemMutex, Executive, KernelMode, FALSE, NULL);
  if ((CbtReadFlags(Extension) & CBT_FLAG_FS_CONTEXT) == 0) {
    // The context flag is set before the reader is whole (its label and restart count are
    // read after its geometry stands). Writes look through the reader under a reference on
    // it, not under this mutex: closing the references for the set-up keeps a write that
    // comes meanwhile from a reader still being built, as a teardown keeps it from one
    // being taken down. Such a write is still marked; only its look at the restart pages is
    // left out, and the baseline count is read from the disk here anyway.
    ExWaitForRundownProtectionRelease(&Extension->FileSystemRundown);
    status = ProbeFileSystems(Extension);
    ExReInitializeRundownProtection(&Extension->FileSystemRundown);
  }
  KeSetEvent(&Extension->FileSystemMutex, IO_NO_INCREMENT, FALSE);
  return status;
}
