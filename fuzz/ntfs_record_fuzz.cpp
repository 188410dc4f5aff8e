// File records and attribute search with attribute lists: the input is the start of $MFT
// (1 KiB records, 512-byte clusters, mapped from cluster 0). Record 0 is checked, fixed up
// and searched for every attribute, then for $DATA and $VOLUME_NAME through its attribute
// list, whose entries load other records of the input; attribute values are read.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "ntfs_fuzz_volume.h"

namespace {

constexpr ULONG kRecordSize = 1024;
constexpr ULONG kClusterSize = 512;
// Attribute values larger than this are not read: the search, not the copy, is under test.
constexpr LONGLONG kMaxValueBytes = 1 << 20;

void ReadValues(PNTFS_VOLUME_CONTEXT context, PVOID record, ULONG type) {
  NTFS_ATTRIBUTE_CONTEXT search;
  NtfsInitAttributeContext(&search);
  for (int i = 0; i < 64; ++i) {
    PATTRIBUTE_RECORD_HEADER attribute;
    NTSTATUS status = NtfsFindResidentAttribute(context, record, type, &search, &attribute);
    kvfuzz::ExpectReaderStatus(status, "NtfsFindResidentAttribute");
    if (!NT_SUCCESS(status)) break;
    PVOID value = nullptr;
    ULONG length = 0;
    if (attribute->FormCode == NTFS_RESIDENT_FORM) {
      status = NtfsQueryResidentAttributeValue(context, attribute, &value, &length);
    } else if (attribute->Form.Nonresident.ValidDataLength <= kMaxValueBytes) {
      status = NtfsQueryNonResidentAttributeValue(context, attribute, &value, &length);
    }
    kvfuzz::ExpectReaderStatus(status, "attribute value");
    if (value != nullptr) ExFreePoolWithTag(value, NTFS_POOL_TAG);
  }
  NtfsFreeAttributeContext(&search);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvfuzz;
  if (size < kRecordSize || size > 64 * kRecordSize) return 0;
  FuzzDisk& disk = FuzzDisk::Instance();
  disk.Reset(8ull << 20, 512);
  disk.Write(0, data, size);

  const size_t mark = PoolMark();
  static NTFS_VOLUME_CONTEXT context;
  std::memset(&context, 0, sizeof(context));
  context.Device = disk.Device();
  context.BytesPerSector = 512;
  context.SectorsPerCluster = 1;
  context.BytesPerCluster = kClusterSize;
  context.FileRecordSize = kRecordSize;
  context.VolumeLength = static_cast<LONGLONG>(disk.Size());
  context.TotalSectors = context.TotalClusters = static_cast<LONGLONG>(disk.Size() / kClusterSize);
  FsRtlInitializeLargeMcb(&context.MftMcb, PagedPool);
  FsRtlAddLargeMcbEntry(&context.MftMcb, 0, 0, static_cast<LONGLONG>((size + kClusterSize - 1) / kClusterSize));

  std::vector<uint8_t> record(data, data + kRecordSize);
  if (NtfsCheckFileRecord(&context, record.data()) &&
      NT_SUCCESS(NtfsApplyUpdateSequence(record.data(), kRecordSize))) {
    context.MftRecord = record.data();
    ReadValues(&context, record.data(), NTFS_ATTRIBUTE_ANY);
    ReadValues(&context, record.data(), NTFS_DATA);
    ReadValues(&context, record.data(), NTFS_VOLUME_NAME);
  }
  FsRtlUninitializeLargeMcb(&context.MftMcb);
  AbortOnLeak(mark, "the attribute search");
  return 0;
}
