// File records: the header checks, the update sequence fixup, and reading a record by its
// file reference through the map of $MFT.
#include "fs/cbt_ntfs.h"

BOOLEAN NtfsCheckFileRecord(PNTFS_VOLUME_CONTEXT Context, PVOID Record) {
  const FILE_RECORD_SEGMENT_HEADER* header = static_cast<const FILE_RECORD_SEGMENT_HEADER*>(Record);
  const ULONG recordSize = Context->FileRecordSize;
  const ULONG strides = recordSize / NTFS_SEQUENCE_STRIDE;
  const ULONG minimumFirstAttribute = (strides * 2 - 1) & 7;
  const bool valid = header->MultiSectorHeader.Signature == NTFS_FILE_SIGNATURE &&
                     header->MultiSectorHeader.UpdateSequenceArrayOffset <= 498 &&
                     (static_cast<ULONG>(header->MultiSectorHeader.UpdateSequenceArrayCount) - 1) *
                             NTFS_SEQUENCE_STRIDE ==
                         recordSize &&
                     header->FirstAttributeOffset >= minimumFirstAttribute &&
                     header->FirstAttributeOffset <= recordSize - 24 && header->BytesAvailable == recordSize;
  if (!valid) NTFS_LOG(Context, "NtfsCheckFileRecord", STATUS_FILE_CORRUPT_ERROR);
  return valid ? TRUE : FALSE;
}

NTSTATUS NtfsApplyUpdateSequence(PVOID Record, ULONG Length) {
  PUCHAR bytes = static_cast<PUCHAR>(Record);
  const NTFS_MULTI_SECTOR_HEADER* header = static_cast<const NTFS_MULTI_SECTOR_HEADER*>(Record);
  const USHORT strides = static_cast<USHORT>(header->UpdateSequenceArrayCount - 1);
  const ULONG arrayOffset = header->UpdateSequenceArrayOffset;
  const LONG arrayLimit = static_cast<LONG>(strides) * NTFS_SEQUENCE_STRIDE - 2 * (static_cast<LONG>(strides) + 1);
  if ((arrayOffset & 1) != 0 || static_cast<LONG>(arrayOffset) >= arrayLimit) return STATUS_FILE_CORRUPT_ERROR;
  // The strides must lie in what was read: a count that claims more would restore bytes
  // past the record or page.
  if (static_cast<ULONG>(strides) * NTFS_SEQUENCE_STRIDE > Length) return STATUS_FILE_CORRUPT_ERROR;

  const PUCHAR array = bytes + arrayOffset;
  const USHORT sequenceNumber = static_cast<USHORT>(array[0] | (array[1] << 8));
  for (ULONG i = 1; i <= strides; ++i) {
    PUCHAR tail = bytes + i * NTFS_SEQUENCE_STRIDE - 2;
    const USHORT onDisk = static_cast<USHORT>(tail[0] | (tail[1] << 8));
    if (onDisk != sequenceNumber) return STATUS_FILE_CORRUPT_ERROR;
    tail[0] = array[2 * i];
    tail[1] = array[2 * i + 1];
  }
  return STATUS_SUCCESS;
}

NTSTATUS NtfsReadFileRecord(PNTFS_VOLUME_CONTEXT Context, ULONGLONG FileReference, PVOID Record) {
  const ULONGLONG segment = FileReference & NTFS_SEGMENT_NUMBER_MASK;
  const LONGLONG offset = static_cast<LONGLONG>(segment * Context->FileRecordSize);
  NTFS_MAPPED_STREAM stream;
  NTSTATUS status = NtfsMapStream(Context, &Context->MftMcb, offset, Context->FileRecordSize, &stream);
  if (NT_SUCCESS(status)) {
    RtlCopyMemory(Record, stream.Data, Context->FileRecordSize);
    NtfsFreeMappedStream(&stream);
    if (!NtfsCheckFileRecord(Context, Record))
      status = STATUS_FILE_CORRUPT_ERROR;
    else
      status = NtfsApplyUpdateSequence(Record, Context->FileRecordSize);
  }
  if (!NT_SUCCESS(status)) NTFS_LOG(Context, "NtfsReadFileRecord", status);
  return status;
}
