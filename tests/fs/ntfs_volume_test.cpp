// The NTFS reader on real volumes made by mkntfs: geometry, label and restart count agree
// with what libntfs-3g reads from the same image; volumes that are not NTFS are refused;
// failing disks and pool leave nothing behind.
#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "fs/cbt_ntfs.h"
#include "fs_volume.h"
#include "kvhost/pool.h"
#include "kvhost/object.h"

namespace kvfs {
namespace {

std::u16string LabelOf(const UNICODE_STRING& name) {
  return std::u16string(reinterpret_cast<const char16_t*>(name.Buffer), name.Length / sizeof(WCHAR));
}

class NtfsVolumeTest : public FsMachineTest {
 protected:
  // Reads the volume with a fresh context; the context is torn down by the test.
  NTSTATUS Initialize(kvtestbed::Volume* volume) {
    return NtfsInitialize(volume->Device(), 0x10, volume->Number(), u'E', &context_);
  }

  NTFS_VOLUME_CONTEXT context_ = {};
};

struct FixtureCase {
  NtfsImageSpec Spec;
  const char* Name;
};

class NtfsFixtureTest : public NtfsVolumeTest, public testing::WithParamInterface<FixtureCase> {};

TEST_P(NtfsFixtureTest, GeometryLabelAndRestartCountAgreeWithTheImage) {
  const NtfsImageSpec& spec = GetParam().Spec;
  const std::string image = NtfsImage(spec);
  ASSERT_FALSE(image.empty());
  const VolumeGeometry expected = ReadVolumeGeometry(image);
  kvtestbed::Volume* volume = BootOne({.Image = image, .SectorSize = spec.SectorSize}, false);

  ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
  EXPECT_TRUE(context_.Initialized);
  EXPECT_EQ(context_.Device, volume->Device());
  EXPECT_EQ(context_.BytesPerSector, spec.SectorSize);
  EXPECT_EQ(context_.BytesPerCluster, expected.ClusterSize);
  EXPECT_EQ(context_.SectorsPerCluster, expected.ClusterSize / spec.SectorSize);
  EXPECT_EQ(context_.FileRecordSize, expected.FileRecordSize);
  EXPECT_EQ(context_.TotalClusters, expected.TotalClusters);
  EXPECT_EQ(context_.MftLcn, expected.MftLcn);
  EXPECT_EQ(context_.MftOffset, expected.MftLcn * expected.ClusterSize);
  EXPECT_EQ(static_cast<uint64_t>(context_.VolumeLength), spec.SizeBytes);
  EXPECT_EQ(context_.MftHasAttributeList, spec.MftAttributeList ? 1 : 0);

  UNICODE_STRING label;
  ASSERT_EQ(NtfsQueryVolumeName(&context_, &label), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::ToUtf8(LabelOf(label)), expected.Label);
  EXPECT_EQ(kvhost::ToUtf8(LabelOf(label)), spec.Label);
  if (label.Buffer != nullptr) ExFreePoolWithTag(label.Buffer, NTFS_POOL_TAG);

  // mkntfs leaves the log reset: no restart page, count 0.
  ULONG count = 99;
  EXPECT_EQ(NtfsQueryLogFileRestartCount(&context_, &count), STATUS_SUCCESS);
  EXPECT_EQ(count, 0u);
  EXPECT_TRUE(context_.LogFileMcbValid);
  NtfsUninitialize(&context_);
  EXPECT_FALSE(context_.Initialized);
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, NtfsFixtureTest,
    testing::Values(FixtureCase{{.SectorSize = 512, .ClusterSize = 512, .Label = "Small"}, "Sector512Cluster512"},
                    FixtureCase{{.SectorSize = 512, .ClusterSize = 4096, .Label = "Data"}, "Sector512Cluster4K"},
                    FixtureCase{{.SectorSize = 512, .ClusterSize = 65536, .Label = "Big clusters"},
                                "Sector512Cluster64K"},
                    FixtureCase{{.SectorSize = 4096, .ClusterSize = 4096, .Label = "Native4K"}, "Sector4KCluster4K"},
                    FixtureCase{{.SectorSize = 4096, .ClusterSize = 65536}, "Sector4KCluster64KNoLabel"},
                    FixtureCase{{.SizeBytes = 24ull << 20, .ClusterSize = 512, .Label = "Fragmented",
                                 .MftAttributeList = true},
                                "MftAttributeList"}),
    [](const testing::TestParamInfo<FixtureCase>& info) { return std::string(info.param.Name); });

// Records beyond the first run of a fragmented $MFT are reached through the map built from
// its attribute list, and read the same as libntfs-3g sees them (they are in use: "FILE").
TEST_F(NtfsVolumeTest, RecordsInLaterFragmentsOfTheMftAreRead) {
  const std::string image = NtfsImage({.SizeBytes = 24ull << 20, .ClusterSize = 512, .Label = "Fragmented",
                                       .MftAttributeList = true});
  kvtestbed::Volume* volume = BootOne({.Image = image}, false);
  ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
  ULONG runs = FsRtlNumberOfRunsInLargeMcb(&context_.MftMcb);
  EXPECT_GT(runs, 20u) << "the fixture's $MFT is fragmented";
  LONGLONG lastVcn = 0, lastLcn = 0;
  ASSERT_TRUE(FsRtlLookupLastLargeMcbEntry(&context_.MftMcb, &lastVcn, &lastLcn));
  const ULONGLONG lastRecord = static_cast<ULONGLONG>(lastVcn) * context_.BytesPerCluster / context_.FileRecordSize;
  std::vector<uint8_t> record(context_.FileRecordSize);
  // A file made late by the fixture: far beyond the first fragment.
  EXPECT_EQ(NtfsReadFileRecord(&context_, lastRecord - 100, record.data()), STATUS_SUCCESS);
  EXPECT_EQ(std::string(record.begin(), record.begin() + 4), "FILE");
  NtfsUninitialize(&context_);
}

struct RestartCase {
  std::vector<RestartPage> Pages;
  ULONG Expected;
  const char* Name;
};

class NtfsRestartCountTest : public NtfsVolumeTest, public testing::WithParamInterface<RestartCase> {};

TEST_P(NtfsRestartCountTest, TheRestartAreaWithTheNewerLsnGivesTheCount) {
  const std::string image = NtfsImage({.ClusterSize = 4096, .Label = "Logged"});
  kvtestbed::Volume* volume = BootOne({.Image = image, .RestartPages = GetParam().Pages}, false);
  ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
  ULONG count = 0xDEAD;
  EXPECT_EQ(NtfsQueryLogFileRestartCount(&context_, &count), STATUS_SUCCESS);
  EXPECT_EQ(count, GetParam().Expected);
  // Once per context: the second query leaves the count alone.
  ULONG again = 0xBEEF;
  EXPECT_EQ(NtfsQueryLogFileRestartCount(&context_, &again), NTFS_STATUS_LOG_FILE_ALREADY_READ);
  EXPECT_EQ(again, 0xBEEFu);
  NtfsUninitialize(&context_);
}

INSTANTIATE_TEST_SUITE_P(
    Pages, NtfsRestartCountTest,
    testing::Values(RestartCase{{{.Count = 7, .Lsn = 100}, {.Count = 8, .Lsn = 200}}, 8, "SecondIsNewer"},
                    RestartCase{{{.Count = 7, .Lsn = 200}, {.Count = 8, .Lsn = 100}}, 7, "FirstIsNewer"},
                    RestartCase{{{.Count = 7, .Lsn = 150}, {.Count = 8, .Lsn = 150}}, 7, "TieKeepsTheFirst"},
                    RestartCase{{{.Count = 0, .Lsn = 500}, {.Count = 9, .Lsn = 100}}, 9, "ZeroCountCountsAsNone"},
                    RestartCase{{{.Count = 5, .Lsn = 10, .Signature = "CHKD"}, {.Count = 6, .Lsn = 20}},
                                6, "CheckDiskPage"},
                    RestartCase{{{.Count = 4, .Lsn = 10, .AreaOffset = 0x40}, {.Count = 3, .Lsn = 5, .AreaOffset = 0x40}},
                                4, "AreaFurtherIn"},
                    RestartCase{{{.Count = 7, .Lsn = 100, .Signature = "RCRD"}, {.Count = 8, .Lsn = 200}}, 0,
                                "RecordPageFirst"}),
    [](const testing::TestParamInfo<RestartCase>& info) { return std::string(info.param.Name); });

TEST_F(NtfsVolumeTest, DamagedRestartPagesAreCorruptAndTheMapStaysForTeardown) {
  const std::string image = NtfsImage({.ClusterSize = 4096, .Label = "Logged"});
  const LogFileLayout layout = ReadLogFileLayout(image);
  kvtestbed::Volume* volume = BootOne({.Image = image}, false);

  // A stride whose end lost its update sequence number (a torn write).
  std::vector<uint8_t> torn = BuildRestartPage({.Count = 3, .Lsn = 1});
  torn[1022] ^= 0xFF;
  // A restart area offset that is not a multiple of 8.
  std::vector<uint8_t> misaligned = BuildRestartPage({.Count = 3, .Lsn = 1, .AreaOffset = 0x30});
  misaligned[0x18] = 0x34;
  for (const std::vector<uint8_t>& page : {torn, misaligned}) {
    std::vector<std::vector<uint8_t>> pages = {page};
    for (const ImagePiece& piece : LogFilePagePieces(layout, pages)) volume->WriteDirect(piece.Offset, piece.Data);
    ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
    ULONG count = 77;
    EXPECT_EQ(NtfsQueryLogFileRestartCount(&context_, &count), STATUS_FILE_CORRUPT_ERROR);
    EXPECT_EQ(count, 77u);
    NtfsUninitialize(&context_);
  }
}

TEST_F(NtfsVolumeTest, VolumesThatAreNotNtfsAreUnrecognised) {
  std::vector<kvtestbed::Volume*> volumes =
      Boot({{.Image = FatImage(64ull << 20)}, {.Image = RandomImage(16ull << 20, 7)}}, false);
  for (kvtestbed::Volume* volume : volumes) {
    EXPECT_EQ(Initialize(volume), STATUS_UNRECOGNIZED_VOLUME);
    // A failed probe leaves the context as it found no volume.
    EXPECT_FALSE(context_.Initialized);
    EXPECT_EQ(context_.MftRecord, nullptr);
  }
}

// Boot sectors that claim NTFS but cannot be: each is refused before anything else is read.
TEST_F(NtfsVolumeTest, BootSectorChecksRefuseWhatNoNtfsVolumeHas) {
  const std::string image = NtfsImage({.ClusterSize = 4096, .Label = "Data"});
  kvtestbed::Volume* volume = BootOne({.Image = image}, false);
  const std::vector<uint8_t> boot = volume->ReadDirect(0, 512);
  struct Damage {
    size_t Offset;
    std::vector<uint8_t> Bytes;
    const char* What;
  };
  const std::vector<Damage> damages = {
      {0x0B, {0x08, 0x02}, "520 bytes per sector"},
      {0x03, {'N', 'T', 'F', 'S', '-', ' ', ' ', ' '}, "another OEM id"},
      {0x0E, {0x01, 0x00}, "reserved sectors"},
      {0x10, {0x02}, "FATs"},
      {0x20, {0x00, 0x10, 0x00, 0x00}, "32-bit sector count"},
      {0x28, {0, 0, 0, 0, 0, 0, 0, 0x7F}, "more sectors than the disk"},
      {0x28, {0, 0, 0, 0, 0, 0, 0, 0x80}, "negative sector count"},
      {0x30, {0, 0, 0, 0, 0, 0, 0x10, 0}, "$MFT beyond the volume"},
      {0x38, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, "$MFTMirr before the volume"},
      {0x40, {0xF8}, "256-byte file records"},
      {0x40, {0x00}, "no file records"},
      {0x40, {0x80}, "file records of 2^128 bytes"},
      {0x0D, {0x00}, "no sectors per cluster"},
  };
  for (const Damage& damage : damages) {
    std::vector<uint8_t> bad = boot;
    std::copy(damage.Bytes.begin(), damage.Bytes.end(), bad.begin() + static_cast<long>(damage.Offset));
    volume->WriteDirect(0, bad);
    EXPECT_EQ(Initialize(volume), STATUS_UNRECOGNIZED_VOLUME) << damage.What;
  }
  // A record size encoded as NTFS writes it: 0xF6 is 2^10, a 1 KiB record.
  std::vector<uint8_t> coded = boot;
  coded[0x40] = 0xF6;
  volume->WriteDirect(0, coded);
  ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
  EXPECT_EQ(context_.FileRecordSize, 1024u);
  NtfsUninitialize(&context_);
}

// Sectors per cluster above 128 are encoded as a power of two, as mkntfs writes 2 MiB clusters
// on 512-byte sectors: 0xF4 is 2^12 sectors. 2 MiB is the largest cluster NTFS makes, and a
// larger one is refused for its size alone: with $MFT and its mirror moved to clusters 0 and 1,
// which every cluster size allows, 0xF3 (4 MiB) is refused while 0xF4 passes the boot sector's
// checks and fails only at the record it then finds at cluster 0 (the boot sector).
TEST_F(NtfsVolumeTest, ClusterSizesAreDecodedAndCappedAtTwoMegabytes) {
  const std::string image = NtfsImage({.SizeBytes = 1ull << 30, .ClusterSize = 2u << 20, .Label = "Huge"});
  kvtestbed::Volume* volume = BootOne({.Image = image}, false);
  const std::vector<uint8_t> boot = volume->ReadDirect(0, 512);
  ASSERT_EQ(boot[0x0D], 0xF4);
  ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
  EXPECT_EQ(context_.SectorsPerCluster, 4096u);
  EXPECT_EQ(context_.BytesPerCluster, 2u << 20);
  EXPECT_EQ(context_.FileRecordSize, ReadVolumeGeometry(image).FileRecordSize);
  NtfsUninitialize(&context_);

  for (const auto& [code, expected] : {std::pair<uint8_t, NTSTATUS>{0xF3, STATUS_UNRECOGNIZED_VOLUME},
                                       std::pair<uint8_t, NTSTATUS>{0xF4, STATUS_FILE_CORRUPT_ERROR}}) {
    std::vector<uint8_t> moved = boot;
    moved[0x0D] = code;
    std::fill(moved.begin() + 0x30, moved.begin() + 0x40, 0);
    moved[0x38] = 1;
    volume->WriteDirect(0, moved);
    EXPECT_EQ(Initialize(volume), expected) << "sectors per cluster " << int{code};
  }
}

// A stream's holes read as zeros, also where a batch read before them left other bytes in the
// request's buffer and where they span more than one batch (64 KiB). The stream lies on
// $LogFile's clusters, which mkntfs fills with 0xFF and which this test reads only this way.
TEST_F(NtfsVolumeTest, HolesInAStreamReadAsZeros) {
  const std::string image = NtfsImage({.ClusterSize = 4096, .Label = "Holes"});
  const LogFileLayout layout = ReadLogFileLayout(image);
  ASSERT_FALSE(layout.Runs.empty());
  ASSERT_GE(layout.Runs[0].Clusters, 8);
  const LONGLONG lcn = layout.Runs[0].Lcn;
  kvtestbed::Volume* volume = BootOne({.Image = image}, false);
  ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
  const std::vector<uint8_t> clusters = volume->ReadDirect(static_cast<uint64_t>(lcn) * 4096, 8 * 4096);
  ASSERT_EQ(std::count(clusters.begin(), clusters.end(), 0), 0) << "the run's bytes tell from a hole's";

  struct Case {
    const char* What;
    std::vector<std::pair<LONGLONG, LONGLONG>> Runs;  // VCN, LCN of 4 clusters each
    LONGLONG Clusters;
  };
  const std::vector<Case> cases = {{"a hole of 20 clusters between two runs", {{0, lcn}, {24, lcn + 4}}, 28},
                                   {"a hole at the start", {{3, lcn}}, 7}};
  for (const Case& c : cases) {
    LARGE_MCB mcb;
    FsRtlInitializeLargeMcb(&mcb, PagedPool);
    std::vector<uint8_t> expected(static_cast<size_t>(c.Clusters) * 4096, 0);
    for (const auto& [vcn, runLcn] : c.Runs) {
      ASSERT_EQ(NtfsSetMcbEntry(&mcb, vcn, runLcn, 4), STATUS_SUCCESS);
      std::copy_n(clusters.begin() + (runLcn - lcn) * 4096, 4 * 4096, expected.begin() + vcn * 4096);
    }
    // From the middle of the first cluster to the middle of the last.
    NTFS_MAPPED_STREAM stream;
    const ULONG length = static_cast<ULONG>(expected.size() - 4096);
    ASSERT_EQ(NtfsMapStream(&context_, &mcb, 2048, length, &stream), STATUS_SUCCESS) << c.What;
    EXPECT_TRUE(std::equal(expected.begin() + 2048, expected.begin() + 2048 + length, stream.Data)) << c.What;
    NtfsFreeMappedStream(&stream);
    FsRtlUninitializeLargeMcb(&mcb);
  }
  NtfsUninitialize(&context_);
}

// A $Volume record without a $VOLUME_NAME has no label to give: STATUS_NOT_FOUND, and no
// buffer to free.
TEST_F(NtfsVolumeTest, AVolumeRecordWithoutItsNameAttributeHasNoLabel) {
  const std::string image = NtfsImage({.ClusterSize = 4096, .Label = "Data"});
  kvtestbed::Volume* volume = BootOne({.Image = image}, false);
  EditFileRecord(volume, PlaceOfFileRecord(image, 3), [](std::vector<uint8_t>& record) {
    const size_t at = FindAttribute(record, NTFS_VOLUME_NAME);
    ASSERT_NE(at, 0u);
    const uint32_t objectId = 0x40;  // resident like the name, and not looked for
    std::memcpy(&record[at], &objectId, 4);
  });
  ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
  UNICODE_STRING label;
  EXPECT_EQ(NtfsQueryVolumeName(&context_, &label), STATUS_NOT_FOUND);
  EXPECT_EQ(label.Buffer, nullptr);
  EXPECT_EQ(label.Length, 0u);
  NtfsUninitialize(&context_);
}

// $LogFile's record must map the log: a $DATA kept in the record, or runs that claim more
// than the volume holds, make the log corrupt. A failed search leaves no map behind, so the
// same context reads the log once the record is right again; a log larger than the volume is
// refused before its size is asked of the pool.
TEST_F(NtfsVolumeTest, ALogFileRecordThatDoesNotMapTheLogIsCorrupt) {
  const std::string image = NtfsImage({.ClusterSize = 4096, .Label = "Logged"});
  const LogFileLayout layout = ReadLogFileLayout(image);
  const FileRecordPlace place = PlaceOfFileRecord(image, 2);
  kvtestbed::Volume* volume = BootOne({.Image = image, .RestartPages = {{.Count = 6, .Lsn = 3}}}, false);
  const std::vector<uint8_t> original = volume->ReadDirect(place.Offset, place.Size);

  EditFileRecord(volume, place, [](std::vector<uint8_t>& record) {
    const size_t at = FindAttribute(record, NTFS_DATA);
    ASSERT_NE(at, 0u);
    record[at + 8] = NTFS_RESIDENT_FORM;
    std::fill(record.begin() + static_cast<long>(at) + 0x10, record.begin() + static_cast<long>(at) + 0x18, 0);
    record[at + 0x14] = 0x18;  // an empty value right after the header
  });
  ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
  ULONG count = 77;
  EXPECT_EQ(NtfsQueryLogFileRestartCount(&context_, &count), STATUS_FILE_CORRUPT_ERROR);
  EXPECT_EQ(count, 77u);
  EXPECT_FALSE(context_.LogFileMcbValid);
  volume->WriteDirect(place.Offset, original);
  EXPECT_EQ(NtfsQueryLogFileRestartCount(&context_, &count), STATUS_SUCCESS) << "read again, not refused as read";
  EXPECT_EQ(count, 6u);
  NtfsUninitialize(&context_);

  // One run from the log's first cluster, one cluster longer than the whole volume.
  const uint64_t clusters = volume->SizeBytes() / layout.ClusterSize + 1;
  ASSERT_LT(clusters, 0x8000u);
  const int64_t lcn = layout.Runs[0].Lcn;
  ASSERT_LT(lcn, 0x8000);
  const std::vector<uint8_t> pairs = {0x22, static_cast<uint8_t>(clusters), static_cast<uint8_t>(clusters >> 8),
                                      static_cast<uint8_t>(lcn), static_cast<uint8_t>(lcn >> 8), 0x00};
  EditFileRecord(volume, place, [&](std::vector<uint8_t>& record) {
    const size_t at = FindAttribute(record, NTFS_DATA);
    ASSERT_NE(at, 0u);
    uint16_t pairsOffset;
    uint32_t length;
    std::memcpy(&pairsOffset, &record[at + 0x20], 2);
    std::memcpy(&length, &record[at + 4], 4);
    ASSERT_LE(pairsOffset + pairs.size(), length);
    std::copy(pairs.begin(), pairs.end(), record.begin() + static_cast<long>(at + pairsOffset));
  });
  ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
  kvhost::LogAllocations(true);
  EXPECT_EQ(NtfsQueryLogFileRestartCount(&context_, &count), STATUS_FILE_CORRUPT_ERROR);
  kvhost::LogAllocations(false);
  SIZE_T largest = 0;
  for (const kvhost::PoolBlockInfo& attempt : kvhost::TakeAllocationLog()) largest = std::max(largest, attempt.Bytes);
  EXPECT_LT(largest, SIZE_T{1} << 20);
  NtfsUninitialize(&context_);
}

// The $MFT base record is checked before it is used: damage to it makes the volume corrupt.
TEST_F(NtfsVolumeTest, ADamagedMftRecordIsCorrupt) {
  const std::string image = NtfsImage({.ClusterSize = 4096, .Label = "Data"});
  const VolumeGeometry geometry = ReadVolumeGeometry(image);
  kvtestbed::Volume* volume = BootOne({.Image = image}, false);
  const uint64_t mft = static_cast<uint64_t>(geometry.MftLcn) * geometry.ClusterSize;
  const std::vector<uint8_t> record = volume->ReadDirect(mft, 1024);
  for (size_t offset : {size_t{0}, size_t{0x1FE}, size_t{0x1C}}) {
    std::vector<uint8_t> bad = record;
    bad[offset] ^= 0x40;
    volume->WriteDirect(mft, bad);
    EXPECT_EQ(Initialize(volume), STATUS_FILE_CORRUPT_ERROR) << "byte " << offset;
  }
  volume->WriteDirect(mft, record);
  EXPECT_EQ(Initialize(volume), STATUS_SUCCESS);
  NtfsUninitialize(&context_);
}

TEST_F(NtfsVolumeTest, AFailingDiskGivesItsStatusAndALockedOneBitLockers) {
  const std::string image = NtfsImage({.ClusterSize = 4096, .Label = "Data"});
  kvtestbed::Volume* volume = BootOne({.Image = image}, false);
  volume->FailTransfers(STATUS_DEVICE_DATA_ERROR, 1, kvtestbed::TransferKind::Reads);
  EXPECT_EQ(Initialize(volume), STATUS_DEVICE_DATA_ERROR);
  volume->SetBitLockerLocked(true);
  EXPECT_EQ(Initialize(volume), STATUS_FVE_LOCKED_VOLUME);
  volume->SetBitLockerLocked(false);

  // The label's and the log's reads fail the same way, and leave the context usable.
  ASSERT_EQ(Initialize(volume), STATUS_SUCCESS);
  volume->FailTransfers(STATUS_IO_DEVICE_ERROR, 1, kvtestbed::TransferKind::Reads);
  UNICODE_STRING label;
  EXPECT_EQ(NtfsQueryVolumeName(&context_, &label), STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(label.Buffer, nullptr);
  volume->FailTransfers(STATUS_IO_DEVICE_ERROR, 1, kvtestbed::TransferKind::Reads);
  ULONG count = 5;
  EXPECT_EQ(NtfsQueryLogFileRestartCount(&context_, &count), STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(count, 5u);
  NtfsUninitialize(&context_);
}

// Every allocation the reader makes can fail: each failure is STATUS_INSUFFICIENT_RESOURCES
// and leaves no pool behind. The cluster maps are the exception: this kernel's map answers an
// add it has no room for with FALSE, as it answers a conflicting one, and the reader takes
// that for a map the volume's records contradict.
TEST_F(NtfsVolumeTest, EveryAllocationFailureIsReportedAndLeavesNothing) {
  constexpr ULONG kClusterMapTag = KV_POOL_TAG('F', 'S', 'm', 'c');
  const std::string image = NtfsImage({.SizeBytes = 24ull << 20, .ClusterSize = 512, .Label = "Fragmented",
                                       .MftAttributeList = true});
  kvtestbed::Volume* volume = BootOne({.Image = image, .RestartPages = {{.Count = 2, .Lsn = 9}}}, false);
  const unsigned long long attempts = kvhost::ForEachAllocationFailure([&](unsigned long long k) {
    kvhost::LogAllocations(true);
    NTSTATUS status = Initialize(volume);
    if (NT_SUCCESS(status)) {
      UNICODE_STRING label;
      status = NtfsQueryVolumeName(&context_, &label);
      if (NT_SUCCESS(status)) {
        ExFreePoolWithTag(label.Buffer, NTFS_POOL_TAG);
        ULONG count = 0;
        status = NtfsQueryLogFileRestartCount(&context_, &count);
        if (NT_SUCCESS(status)) {
          EXPECT_EQ(count, 2u);
        }
      }
      NtfsUninitialize(&context_);
    }
    kvhost::LogAllocations(false);
    ULONG failedTag = 0;
    for (const kvhost::PoolBlockInfo& attempt : kvhost::TakeAllocationLog())
      if (attempt.Address == nullptr) failedTag = attempt.Tag;
    const NTSTATUS expected = k == 0                        ? STATUS_SUCCESS
                              : failedTag == kClusterMapTag ? STATUS_FILE_CORRUPT_ERROR
                                                            : STATUS_INSUFFICIENT_RESOURCES;
    EXPECT_EQ(status, expected) << "allocation " << k;
  });
  EXPECT_GT(attempts, 20u) << "the records of a fragmented $MFT, the label and the log's map all allocate";
}

}  // namespace
}  // namespace kvfs
