// Mapping pairs: the compressed run list of a non-resident attribute, decoded into a large
// MCB (VCN -> LCN); and the map of $MFT built from its base record.
#include "fs/cbt_ntfs.h"

namespace {

// Little-endian, Bytes bytes (1 to 8); sign-extended when Signed.
ULONGLONG ReadPairField(const UCHAR* Field, ULONG Bytes, bool Signed) {
  ULONGLONG value = 0;
  for (ULONG i = Bytes; i > 0; --i) value = (value << 8) | Field[i - 1];
  if (Signed && Bytes < 8 && (Field[Bytes - 1] & 0x80) != 0) value |= ~0ull << (Bytes * 8);
  return value;
}

}  // namespace

NTSTATUS NtfsSetMcbEntry(PLARGE_MCB Mcb, LONGLONG Vcn, LONGLONG Lcn, ULONG ClusterCount) {
  // A later run of the same attribute replaces what an earlier one (or the seed of $MFT's
  // map) said about these clusters.
  FsRtlRemoveLargeMcbEntry(Mcb, Vcn, ClusterCount);
  return FsRtlAddLargeMcbEntry(Mcb, Vcn, Lcn, ClusterCount) ? STATUS_SUCCESS : STATUS_FILE_CORRUPT_ERROR;
}

NTSTATUS NtfsAddMappingPairsToMcb(PNTFS_VOLUME_CONTEXT Context, PLARGE_MCB Mcb, PUCHAR MappingPairs, ULONG Length,
                                  LONGLONG LowestVcn) {
  const PUCHAR end = MappingPairs + Length;
  PUCHAR pair = MappingPairs;
  // Counted in unsigned arithmetic: damaged lengths and offsets wrap instead of overflowing,
  // and the checks below see the negative values that result.
  ULONGLONG currentVcn = static_cast<ULONGLONG>(LowestVcn);
  ULONGLONG currentLcn = 0;
  NTSTATUS status = STATUS_SUCCESS;
  for (;;) {
    // The list ends with a zero header byte inside the attribute.
    if (pair >= end) {
      status = STATUS_FILE_CORRUPT_ERROR;
      break;
    }
    const CHAR header = static_cast<CHAR>(*pair);
    if (header == 0) break;
    if (static_cast<LONGLONG>(currentVcn) < 0) {
      status = STATUS_FILE_CORRUPT_ERROR;
      break;
    }
    const ULONG lengthBytes = static_cast<ULONG>(header & 0x0F);
    const LONG offsetBytes = header >> 4;  // arithmetic: a negative size stays negative
    if (lengthBytes == 0 || lengthBytes > 8 || offsetBytes < 0 || offsetBytes > 8 ||
        static_cast<ULONG_PTR>(end - pair) < 1 + lengthBytes + static_cast<ULONG>(offsetBytes) + 1) {
      status = STATUS_FILE_CORRUPT_ERROR;
      break;
    }
    const PUCHAR lengthField = pair + 1;
    if ((lengthField[lengthBytes - 1] & 0x80) != 0) {
      status = STATUS_FILE_CORRUPT_ERROR;
      break;
    }
    const ULONGLONG runLength = ReadPairField(lengthField, lengthBytes, false);
    const ULONGLONG runVcn = currentVcn;
    const ULONGLONG nextVcn = currentVcn + runLength;
    if (offsetBytes != 0) {
      currentLcn += ReadPairField(lengthField + lengthBytes, static_cast<ULONG>(offsetBytes), true);
      const LONGLONG lcn = static_cast<LONGLONG>(currentLcn);
      if (lcn >= 0 && static_cast<LONGLONG>(runVcn) >= LowestVcn) {
        if (lcn > Context->TotalClusters) {
          status = STATUS_FILE_CORRUPT_ERROR;
          break;
        }
        status = NtfsSetMcbEntry(Mcb, static_cast<LONGLONG>(runVcn), lcn, static_cast<ULONG>(nextVcn - runVcn));
        if (!NT_SUCCESS(status)) break;
      }
    }
    // A pair without an offset is a sparse run: nothing is mapped, the VCN moves on.
    currentVcn = nextVcn;
    pair += 1 + lengthBytes + static_cast<ULONG>(offsetBytes);
  }
  if (!NT_SUCCESS(status)) NTFS_LOG(Context, "NtfsAddMappingPairsToMcb", status);
  return status;
}

NTSTATUS NtfsBuildMcbForMft(PNTFS_VOLUME_CONTEXT Context) {
  FsRtlInitializeLargeMcb(&Context->MftMcb, PagedPool);
  // The first records of $MFT (its own extension records among them) are readable before
  // its mapping pairs are decoded: they lie at the start of its first run.
  const ULONG seedClusters =
      static_cast<ULONG>((15ull * Context->FileRecordSize + Context->BytesPerCluster - 1) / Context->BytesPerCluster);
  NTSTATUS status = NtfsSetMcbEntry(&Context->MftMcb, 0, Context->MftLcn, seedClusters);

  NTFS_ATTRIBUTE_CONTEXT search;
  NtfsInitAttributeContext(&search);
  ULONG added = 0;
  while (NT_SUCCESS(status)) {
    PATTRIBUTE_RECORD_HEADER data = NULL;
    status = NtfsFindResidentAttribute(Context, Context->MftRecord, NTFS_DATA, &search, &data);
    if (!NT_SUCCESS(status)) break;
    if (data->NameLength != 0) {
      NTFS_LOG(Context, "NtfsBuildMcbForMft", STATUS_FILE_CORRUPT_ERROR);
      continue;
    }
    if (data->FormCode == NTFS_RESIDENT_FORM) {
      status = STATUS_FILE_CORRUPT_ERROR;
      break;
    }
    ++added;
    const USHORT pairsOffset = data->Form.Nonresident.MappingPairsOffset;
    status = NtfsAddMappingPairsToMcb(Context, &Context->MftMcb, reinterpret_cast<PUCHAR>(data) + pairsOffset,
                                      data->RecordLength - pairsOffset, data->Form.Nonresident.LowestVcn);
  }
  if (status == STATUS_NOT_FOUND && added != 0) status = STATUS_SUCCESS;
  NtfsFreeAttributeContext(&search);
  if (!NT_SUCCESS(status)) {
    NTFS_LOG(Context, "NtfsBuildMcbForMft", status);
    // The map is released here: the context counts as initialised only once it is built.
    FsRtlUninitializeLargeMcb(&Context->MftMcb);
  }
  return status;
}
