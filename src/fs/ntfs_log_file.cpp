// The $LogFile restart count: how often NTFS has opened the volume's log. Read from disk
// once when the file system is initialised, and followed afterwards in the restart pages
// NTFS writes, which pass this driver on their way to the disk.
#include "fs/cbt_ntfs.h"

namespace {

// Bytes of a restart page header that the walk and the write-side check read.
constexpr ULONG kRestartHeaderBytes = sizeof(LFS_RESTART_PAGE_HEADER);

// Records a write-side refusal with the volume's values when the reader state is given.
VOID LogWriteCheck(PNTFS_VOLUME_CONTEXT Context, NTSTATUS Status) {
  if (Context != NULL)
    NTFS_LOG(Context, "NtfsIsLogFileRestartCountIrp", Status);
  else
    CBT_LOG_DRIVER("NtfsIsLogFileRestartCountIrp", Status);
}

bool IsRestartSignature(ULONG Signature) {
  return Signature == LFS_SIGNATURE_RESTART_PAGE || Signature == LFS_SIGNATURE_CHKDSK_PAGE;
}

// Builds LogFileMcb from every $DATA attribute of $LogFile's record. The map counts as built
// (LogFileMcbValid, by which NtfsUninitialize knows to release it) only once the search went
// through all of them; a search that fails takes the map down again, so that nothing marks
// the log as read and the query can be made anew once the record reads right.
NTSTATUS MapLogFile(PNTFS_VOLUME_CONTEXT Context, PVOID Record, PNTFS_ATTRIBUTE_CONTEXT Search) {
  FsRtlInitializeLargeMcb(&Context->LogFileMcb, PagedPool);
  NTSTATUS status;
  for (;;) {
    PATTRIBUTE_RECORD_HEADER data = NULL;
    status = NtfsFindResidentAttribute(Context, Record, NTFS_DATA, Search, &data);
    if (!NT_SUCCESS(status)) break;
    if (data->FormCode == NTFS_RESIDENT_FORM) {
      status = STATUS_FILE_CORRUPT_ERROR;
      break;
    }
    const USHORT pairsOffset = data->Form.Nonresident.MappingPairsOffset;
    status = NtfsAddMappingPairsToMcb(Context, &Context->LogFileMcb, reinterpret_cast<PUCHAR>(data) + pairsOffset,
                                      data->RecordLength - pairsOffset, data->Form.Nonresident.LowestVcn);
    if (!NT_SUCCESS(status)) break;
  }
  if (status == STATUS_NOT_FOUND) {
    Context->LogFileMcbValid = TRUE;
    return STATUS_SUCCESS;
  }
  FsRtlUninitializeLargeMcb(&Context->LogFileMcb);
  return status;
}

// Bytes of $LogFile by its map (holes included); 0 when the map is empty, or claims more than
// 32 bits or the volume can hold. The log lies on its volume: a larger one is damage, and the
// whole of it would be asked for in one allocation before a read could fail.
ULONG LogFileSize(PNTFS_VOLUME_CONTEXT Context) {
  const ULONGLONG volumeBytes = static_cast<ULONGLONG>(Context->VolumeLength);
  const ULONGLONG limit = volumeBytes < MAXULONG ? volumeBytes : MAXULONG;
  ULONGLONG size = 0;
  LONGLONG vcn, lcn, clusters;
  for (ULONG index = 0; FsRtlGetNextLargeMcbEntry(&Context->LogFileMcb, index, &vcn, &lcn, &clusters); ++index) {
    // Stops as soon as the size is out of range, before the sum could overflow.
    if (static_cast<ULONGLONG>(clusters) > limit / Context->BytesPerCluster) return 0;
    size += static_cast<ULONGLONG>(clusters) * Context->BytesPerCluster;
    if (size > limit) return 0;
  }
  return static_cast<ULONG>(size);
}

// The restart count of the log's restart pages, up to the first log record page.
NTSTATUS ReadRestartCount(PNTFS_VOLUME_CONTEXT Context, PUCHAR Data, ULONG Size, PULONG Count) {
  ULONG count = 0;
  LONGLONG bestLsn = 0;
  for (ULONG offset = 0; offset < Size; offset += LFS_PAGE_SIZE) {
    PUCHAR page = Data + offset;
    const ULONG pageBytes = Size - offset < LFS_PAGE_SIZE ? Size - offset : LFS_PAGE_SIZE;
    // A tail shorter than a page header holds no restart page.
    if (pageBytes < kRestartHeaderBytes) break;
    const PLFS_RESTART_PAGE_HEADER header = reinterpret_cast<PLFS_RESTART_PAGE_HEADER>(page);
    const ULONG signature = header->MultiSectorHeader.Signature;
    if (signature == LFS_SIGNATURE_RECORD_PAGE) break;
    if (!IsRestartSignature(signature)) continue;
    if (header->MultiSectorHeader.UpdateSequenceArrayCount != 0) {
      NTSTATUS status = NtfsApplyUpdateSequence(page, pageBytes);
      if (!NT_SUCCESS(status)) return status;
    }
    const ULONG areaOffset = header->RestartOffset;
    if ((areaOffset & 7) != 0) return STATUS_FILE_CORRUPT_ERROR;
    // The restart area must lie in the log as read; its count is not read from beyond it.
    if (static_cast<ULONGLONG>(offset) + areaOffset + sizeof(LFS_RESTART_AREA) > Size) return STATUS_FILE_CORRUPT_ERROR;
    const PLFS_RESTART_AREA area = reinterpret_cast<PLFS_RESTART_AREA>(page + areaOffset);
    if (count == 0) {
      count = area->RestartLogOpenCount;
      bestLsn = area->CurrentLsn;
    } else if (area->CurrentLsn > bestLsn) {
      count = area->RestartLogOpenCount;
    }
  }
  *Count = count;
  return STATUS_SUCCESS;
}

// Where the restart area's flags are as the page goes to the disk, or NULL when they cannot
// be changed without tearing the page.
//
// The page travels protected: the last two bytes of every 512-byte stride hold the update
// sequence number, and the bytes that belong there wait in the update sequence array. The
// area starts at a multiple of 8, so its count (bytes 0 to 3 of an 8-byte group) never lies
// on a stride's last two bytes (6 and 7 of a group) and is read where it is. Its flags (6
// and 7) do when the area starts 16 bytes before a stride's end: clearing the bit there
// would change the sequence number and every reader would find the page torn. Their array
// entry is changed instead. It must lie where the log puts its array, between the page's
// header and the restart area, off the strides' ends, and the stride must carry the
// sequence number. Flags elsewhere are changed where they are, unless they lie in the array
// itself, where they would be the sequence number or another stride's bytes too. A page that
// fails this is not one any reader would take for a restart page, and changing it by
// guesswork could only damage it further. Everything looked at lies before the end of the
// area, which the caller found inside the write.
PUCHAR RestartAreaFlagsAsWritten(PUCHAR Data, ULONG AreaOffset) {
  const ULONG flagsOffset = AreaOffset + FIELD_OFFSET(LFS_RESTART_AREA, Flags);
  const NTFS_MULTI_SECTOR_HEADER* header = reinterpret_cast<const NTFS_MULTI_SECTOR_HEADER*>(Data);
  const ULONG entries = header->UpdateSequenceArrayCount;
  // Without an array the page is taken as it stands, as the log's reader takes it.
  if (entries == 0) return Data + flagsOffset;
  const ULONG arrayOffset = header->UpdateSequenceArrayOffset;
  const ULONG stride = flagsOffset / NTFS_SEQUENCE_STRIDE + 1;  // counted from 1, as the array counts them
  if (flagsOffset != stride * NTFS_SEQUENCE_STRIDE - sizeof(USHORT)) {
    const bool inArray =
        flagsOffset + sizeof(USHORT) > arrayOffset && flagsOffset < arrayOffset + entries * sizeof(USHORT);
    return inArray ? NULL : Data + flagsOffset;
  }
  const ULONG entryOffset = arrayOffset + stride * sizeof(USHORT);
  if ((arrayOffset & 1) != 0 || stride >= entries || arrayOffset < kRestartHeaderBytes ||
      entryOffset + sizeof(USHORT) > AreaOffset ||
      entryOffset % NTFS_SEQUENCE_STRIDE == NTFS_SEQUENCE_STRIDE - sizeof(USHORT))
    return NULL;
  if (Data[flagsOffset] != Data[arrayOffset] || Data[flagsOffset + 1] != Data[arrayOffset + 1]) return NULL;
  return Data + entryOffset;
}

}  // namespace

NTSTATUS NtfsQueryLogFileRestartCount(PNTFS_VOLUME_CONTEXT Context, PULONG Count) {
  KeWaitForSingleObject(&Context->Lock, Executive, KernelMode, FALSE, NULL);
  if (Context->LogFileMcbValid) {
    KeReleaseSemaphore(&Context->Lock, IO_NO_INCREMENT, 1, FALSE);
    return NTFS_STATUS_LOG_FILE_ALREADY_READ;
  }

  NTFS_ATTRIBUTE_CONTEXT search;
  NtfsInitAttributeContext(&search);
  NTFS_MAPPED_STREAM stream = {};
  // Once the map stands the log counts as read for this context, whatever becomes of the
  // rest of the query: the baseline is taken once per reader, and a fresh reader reads the
  // log again. Failures before that (the record, the search) leave no map behind.
  NTSTATUS status = STATUS_SUCCESS;
  PVOID record = ExAllocatePoolWithTag(PagedPool, Context->FileRecordSize, NTFS_POOL_TAG);
  if (record == NULL) status = STATUS_INSUFFICIENT_RESOURCES;
  if (NT_SUCCESS(status)) status = NtfsReadFileRecord(Context, NTFS_LOG_FILE_REFERENCE, record);
  if (NT_SUCCESS(status)) status = MapLogFile(Context, record, &search);
  ULONG size = 0;
  if (NT_SUCCESS(status)) {
    size = LogFileSize(Context);
    if (size == 0) status = STATUS_FILE_CORRUPT_ERROR;
  }
  if (NT_SUCCESS(status)) status = NtfsMapStream(Context, &Context->LogFileMcb, 0, size, &stream);
  ULONG count = 0;
  if (NT_SUCCESS(status)) status = ReadRestartCount(Context, stream.Data, size, &count);
  if (NT_SUCCESS(status))
    *Count = count;
  else
    NTFS_LOG(Context, "NtfsQueryLogFileRestartCount", status);

  NtfsFreeMappedStream(&stream);
  NtfsFreeAttributeContext(&search);
  if (record != NULL) ExFreePoolWithTag(record, NTFS_POOL_TAG);
  KeReleaseSemaphore(&Context->Lock, IO_NO_INCREMENT, 1, FALSE);
  return status;
}

BOOLEAN NtfsIsLogFileRestartCountIrp(PNTFS_VOLUME_CONTEXT Context, PIRP Irp, PULONG Count) {
  if (Irp == NULL || Irp->MdlAddress == NULL || Count == NULL) {
    LogWriteCheck(Context, STATUS_INVALID_PARAMETER);
    return FALSE;
  }
  *Count = 0;
  PMDL mdl = Irp->MdlAddress;
  PUCHAR data = static_cast<PUCHAR>(MmGetSystemAddressForMdlSafe(mdl, NormalPagePriority | MdlMappingNoExecute));
  if (data == NULL) {
    LogWriteCheck(Context, STATUS_INSUFFICIENT_RESOURCES);
    return FALSE;
  }
  // Only the bytes the write carries are looked at: a short write that begins like a
  // restart page is not read past its end.
  const ULONG bytes = MmGetMdlByteCount(mdl);
  if (bytes < kRestartHeaderBytes) return FALSE;
  const PLFS_RESTART_PAGE_HEADER header = reinterpret_cast<PLFS_RESTART_PAGE_HEADER>(data);
  if (!IsRestartSignature(header->MultiSectorHeader.Signature) || header->SystemPageSize != LFS_PAGE_SIZE) return FALSE;
  const ULONG areaOffset = header->RestartOffset;
  if (areaOffset >= LFS_PAGE_SIZE || (areaOffset & 7) != 0 || areaOffset + sizeof(LFS_RESTART_AREA) > bytes)
    return FALSE;
  PUCHAR flags = RestartAreaFlagsAsWritten(data, areaOffset);
  if (flags == NULL) {
    LogWriteCheck(Context, STATUS_FILE_CORRUPT_ERROR);
    return FALSE;
  }
  const PLFS_RESTART_AREA area = reinterpret_cast<PLFS_RESTART_AREA>(data + areaOffset);
  *Count = area->RestartLogOpenCount;
  // The clean flag is in the low byte of the little-endian field, so one byte is changed
  // wherever the field is kept.
  C_ASSERT(LFS_RESTART_AREA_CLEAN <= 0xFF);
  flags[0] = static_cast<UCHAR>(flags[0] & ~LFS_RESTART_AREA_CLEAN);
  return TRUE;
}
