// File-system initialisation of a volume under the driver: recovery and reserved partitions
// stay out, BitLocker-locked and unknown file systems get no reader (their writes go
// untracked), NTFS volumes get their geometry, label flags and baseline restart count.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "fs/cbt_fs.h"
#include "fs/cbt_ntfs.h"
#include "fs_volume.h"
#include "tracking/cbt_tracking.h"

namespace kvfs {
namespace {

using FileSystemTest = FsMachineTest;

// The bitmap geometry rule, worked independently: about 3.5 million bits per 64 TiB, whole
// clusters per bit and at least 64 KiB.
void ExpectedGeometry(uint64_t clusters, uint32_t clusterSize, uint32_t* bits, uint32_t* bytesPerBit) {
  const uint64_t bytes = clusters * clusterSize;
  const uint64_t target = ((bytes >> 46) + 1) * 104857600ull / 30;
  uint64_t perBit = std::max<uint64_t>(1, bytes / target / clusterSize) * clusterSize;
  if (perBit < 65536) perBit = std::max<uint64_t>(1, 65536 / clusterSize) * clusterSize;
  *bytesPerBit = static_cast<uint32_t>(perBit);
  *bits = static_cast<uint32_t>((bytes + perBit - 1) / perBit);
}

TEST_F(FileSystemTest, NtfsVolumesGetGeometryAndTheBaselineRestartCountOnce) {
  const NtfsImageSpec specs[] = {{.SectorSize = 512, .ClusterSize = 512, .Label = "Small"},
                                 {.SectorSize = 512, .ClusterSize = 4096, .Label = "Data"},
                                 {.SectorSize = 4096, .ClusterSize = 65536, .Label = "Big"},
                                 {.SizeBytes = 24ull << 20, .ClusterSize = 512, .Label = "Fragmented",
                                  .MftAttributeList = true}};
  std::vector<ImageVolume> images;
  for (const NtfsImageSpec& spec : specs)
    images.push_back({.Image = NtfsImage(spec), .SectorSize = spec.SectorSize,
                      .RestartPages = {{.Count = 31, .Lsn = 7}, {.Count = 32, .Lsn = 8}}});
  std::vector<kvtestbed::Volume*> volumes = Boot(images, true);
  ASSERT_EQ(volumes.size(), std::size(specs));
  for (size_t i = 0; i < volumes.size(); ++i) {
    PCBT_DEVICE_EXTENSION e = ExtensionOf(volumes[i]);
    ASSERT_NE(e, nullptr);
    const VolumeGeometry geometry = ReadVolumeGeometry(images[i].Image);
    ASSERT_EQ(CbtInitializeFileSystem(e), STATUS_SUCCESS) << images[i].Image;
    EXPECT_EQ(e->FileSystemType, ULONG{CBT_FILE_SYSTEM_NTFS});
    EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));
    EXPECT_EQ(CbtFlagsSet(e, CBT_FLAG_MFT_ATTRIBUTE_LIST), specs[i].MftAttributeList);
    EXPECT_EQ(e->BytesPerSector, specs[i].SectorSize);
    EXPECT_EQ(e->BytesPerCluster, geometry.ClusterSize);
    EXPECT_EQ(e->TotalClusters, static_cast<ULONG>(geometry.TotalClusters));
    EXPECT_EQ(e->TotalSectors * e->BytesPerSector, e->VolumeSize);
    EXPECT_EQ(e->VolumeSize, specs[i].SizeBytes - specs[i].SectorSize) << "the backup boot sector lies past the volume";
    uint32_t bits = 0, bytesPerBit = 0;
    ExpectedGeometry(static_cast<uint64_t>(geometry.TotalClusters), geometry.ClusterSize, &bits, &bytesPerBit);
    EXPECT_EQ(e->BytesPerBit, bytesPerBit);
    EXPECT_EQ(e->BitCount, bits);
    EXPECT_EQ(e->TrackingBitmap.SizeOfBitMap, bits);
    EXPECT_EQ(e->BaselineRestartCount, 32u) << "the newer restart area's count";

    // Once captured, the baseline stays through later initialisations of the device.
    CbtUninitializeFileSystem(e);
    std::vector<std::vector<uint8_t>> pages = {BuildRestartPage({.Count = 40, .Lsn = 99})};
    for (const ImagePiece& piece : LogFilePagePieces(ReadLogFileLayout(images[i].Image), pages))
      volumes[i]->WriteDirect(piece.Offset, piece.Data);
    ASSERT_EQ(CbtInitializeFileSystem(e), STATUS_SUCCESS);
    EXPECT_EQ(e->BaselineRestartCount, 32u);

    // With a context in place a second call returns at once, without reading the disk.
    const uint64_t reads = volumes[i]->Counters().Reads;
    EXPECT_EQ(CbtInitializeFileSystem(e), STATUS_SUCCESS);
    EXPECT_EQ(volumes[i]->Counters().Reads, reads);
  }
}

// Windows writing a restart page, as it does when it mounts the volume: the write path hands
// it to the reader, which gives its count to the volume, and the page reaches the disk
// without its clean flag, like every other byte of the write as sent.
TEST_F(FileSystemTest, ARestartPageWrittenThroughTheFilterIsFollowedAndReachesTheDiskNotClean) {
  const std::string image = NtfsImage({.ClusterSize = 4096, .Label = "Logged"});
  kvtestbed::Volume* volume =
      BootOne({.Image = image, .RestartPages = {{.Count = 5, .Lsn = 10}, {.Count = 5, .Lsn = 11}}}, true);
  PCBT_DEVICE_EXTENSION e = ExtensionOf(volume);
  ASSERT_NE(e, nullptr);
  ASSERT_EQ(CbtInitializeFileSystem(e), STATUS_SUCCESS);
  ASSERT_EQ(e->BaselineRestartCount, 5u);
  e->LastRestartCount = e->BaselineRestartCount;

  const LogFileLayout layout = ReadLogFileLayout(image);
  const uint64_t secondPage = layout.VolumeOffset(4096);
  const std::vector<uint8_t> page = BuildRestartPage({.Count = 6, .Lsn = 12, .Flags = 0x0002});
  ASSERT_EQ(machine_->Write(*volume, secondPage, page).Status, STATUS_SUCCESS);
  EXPECT_EQ(e->LastRestartCount, 6u);
  EXPECT_EQ(e->BaselineRestartCount, 5u) << "the baseline is the count at initialisation";
  std::vector<uint8_t> expected = page;
  expected[0x30 + 0x0E] = 0x00;  // the restart area's flags, clean flag cleared
  EXPECT_EQ(volume->ReadDirect(secondPage, page.size()), expected);
  const ULONG bit = static_cast<ULONG>(secondPage / e->BytesPerBit);
  EXPECT_TRUE(RtlTestBit(&e->TrackingBitmap, bit)) << "the page is a change like any other";

  // Ordinary data at the same place is written as sent and leaves the count alone.
  const std::vector<uint8_t> data(4096, 0x5A);
  ASSERT_EQ(machine_->Write(*volume, secondPage, data).Status, STATUS_SUCCESS);
  EXPECT_EQ(e->LastRestartCount, 6u);
  EXPECT_EQ(volume->ReadDirect(secondPage, data.size()), data);
  EXPECT_EQ(e->UntrackedWriteCount, 0);
}

// Writes look at restart pages through the reader under a reference on it. The set-up of
// a reader closes those references first, as its teardown does, so that no write looks
// through a reader still being built: with a reference held (by hand here, as by a write
// inside the check) the set-up waits, and once it is done, references can be had again.
TEST_F(FileSystemTest, TheReadersSetUpWaitsForWritesLookingThroughTheVolumesReader) {
  kvtestbed::Volume* volume = BootOne({.Image = NtfsImage({.Label = "Data"})}, true);
  PCBT_DEVICE_EXTENSION e = ExtensionOf(volume);
  CbtUninitializeFileSystem(e);
  ASSERT_TRUE(ExAcquireRundownProtection(&e->FileSystemRundown));
  std::atomic<bool> done{false};
  std::thread setUp([&] {
    EXPECT_EQ(CbtInitializeFileSystem(e), STATUS_SUCCESS);
    done = true;
  });
  while (!done.load() && ExAcquireRundownProtection(&e->FileSystemRundown)) {
    ExReleaseRundownProtection(&e->FileSystemRundown);
    std::this_thread::yield();
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(done.load()) << "the set-up did not wait for the reference";
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT)) << "nothing of the reader is there yet";
  ExReleaseRundownProtection(&e->FileSystemRundown);
  setUp.join();
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));
  ASSERT_TRUE(ExAcquireRundownProtection(&e->FileSystemRundown)) << "writes look through the new reader";
  ExReleaseRundownProtection(&e->FileSystemRundown);
}

TEST_F(FileSystemTest, TheSandboxBaseLayerIsRecognisedByItsExactLabel) {
  std::vector<kvtestbed::Volume*> volumes =
      Boot({{.Image = NtfsImage({.Label = "PortableBaseLayer"}), .RestartPages = {{.Count = 3, .Lsn = 1}}},
            {.Image = NtfsImage({.Label = "portablebaselayer"}), .RestartPages = {{.Count = 3, .Lsn = 1}}}},
           true);
  PCBT_DEVICE_EXTENSION baseLayer = ExtensionOf(volumes[0]);
  EXPECT_EQ(CbtInitializeFileSystem(baseLayer), STATUS_SUCCESS);
  EXPECT_TRUE(CbtFlagsSet(baseLayer, CBT_FLAG_SANDBOX_BASE_LAYER | CBT_FLAG_FS_CONTEXT));
  EXPECT_EQ(baseLayer->BaselineRestartCount, 0u) << "the base layer's count is not taken";
  PCBT_DEVICE_EXTENSION other = ExtensionOf(volumes[1]);
  EXPECT_EQ(CbtInitializeFileSystem(other), STATUS_SUCCESS);
  EXPECT_FALSE(CbtFlagsSet(other, CBT_FLAG_SANDBOX_BASE_LAYER));
  EXPECT_EQ(other->BaselineRestartCount, 3u);
}

// Each initialisation records its entry (status 0) and, when it fails, the status it returns,
// with the volume's flags as they then are.
TEST_F(FileSystemTest, OtherFileSystemsGetNoContextAndTheirWritesGoUntracked) {
  std::vector<kvtestbed::Volume*> volumes =
      Boot({{.Image = FatImage(64ull << 20)}, {.Image = RandomImage(16ull << 20, 11)}}, true);
  for (kvtestbed::Volume* volume : volumes) {
    PCBT_DEVICE_EXTENSION e = ExtensionOf(volume);
    ASSERT_NE(e, nullptr);
    DropRecords();
    EXPECT_EQ(CbtInitializeFileSystem(e), STATUS_UNRECOGNIZED_VOLUME);
    const std::vector<Record> records = TakeRecords("CbtInitializeFileSystem");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].Status, 0u);
    EXPECT_EQ(records[1].Status, static_cast<ULONG>(STATUS_UNRECOGNIZED_VOLUME)) << "the ReFS probe's status";
    EXPECT_EQ(e->FileSystemType, ULONG{CBT_FILE_SYSTEM_NONE});
    EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));
    EXPECT_EQ(e->BytesPerBit, 0u);
    const LONG64 before = e->UntrackedWriteCount;
    EXPECT_EQ(machine_->Write(*volume, 1 << 20, std::vector<uint8_t>(4096, 1)).Status, STATUS_SUCCESS);
    EXPECT_EQ(e->UntrackedWriteCount, before + 1);
  }
}

TEST_F(FileSystemTest, ABitLockerLockedVolumeIsMarkedAndNotProbedFurther) {
  kvtestbed::Volume* volume = BootOne({.Image = NtfsImage({.Label = "Data"})}, true);
  PCBT_DEVICE_EXTENSION e = ExtensionOf(volume);
  // The volume came online unlocked and has its reader; it is locked afterwards and read anew.
  CbtUninitializeFileSystem(e);
  volume->SetBitLockerLocked(true);
  DropRecords();
  EXPECT_EQ(CbtInitializeFileSystem(e), STATUS_FVE_LOCKED_VOLUME);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_BITLOCKER_LOCKED));
  EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));
  EXPECT_EQ(KeReadStateEvent(&e->FileSystemMutex), 1) << "the mutex is released";
  const std::vector<Record> records = TakeRecords("CbtInitializeFileSystem");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].Status, static_cast<ULONG>(STATUS_FVE_LOCKED_VOLUME));
  EXPECT_NE(records[1].DeviceFlags & CBT_FLAG_BITLOCKER_LOCKED, 0u) << "recorded with the flag it set";
}

// A label that cannot be read fails the initialisation with its status, recorded, but the
// reader and the geometry stay: the volume's writes are tracked.
TEST_F(FileSystemTest, AVolumeWithoutItsLabelKeepsItsReaderAndRecordsTheFailure) {
  const std::string image = NtfsImage({.Label = "Data"});
  kvtestbed::Volume* volume = BootOne({.Image = image}, true);
  PCBT_DEVICE_EXTENSION e = ExtensionOf(volume);
  CbtUninitializeFileSystem(e);
  EditFileRecord(volume, PlaceOfFileRecord(image, 3), [](std::vector<uint8_t>& record) {
    const size_t at = FindAttribute(record, NTFS_VOLUME_NAME);
    ASSERT_NE(at, 0u);
    record[at] = 0x40;  // now an object id
  });
  DropRecords();
  EXPECT_EQ(CbtInitializeFileSystem(e), STATUS_NOT_FOUND);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));
  EXPECT_EQ(e->FileSystemType, ULONG{CBT_FILE_SYSTEM_NTFS});
  EXPECT_NE(e->BitCount, 0u);
  const std::vector<Record> records = TakeRecords("CbtInitializeFileSystem");
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[1].Status, static_cast<ULONG>(STATUS_NOT_FOUND));
}

TEST_F(FileSystemTest, RecoveryAndReservedPartitionsStayWithoutContext) {
  const std::string image = NtfsImage({.Label = "Data"});
  std::vector<kvtestbed::Volume*> volumes =
      Boot({{.Image = image, .Partition = kvtestbed::PartitionKind::Recovery},
            {.Image = image, .Partition = kvtestbed::PartitionKind::Recovery, .PartitionStyle = PARTITION_STYLE_MBR},
            {.Image = image, .Partition = kvtestbed::PartitionKind::Reserved},
            {.Image = image, .Partition = kvtestbed::PartitionKind::Data, .PartitionStyle = PARTITION_STYLE_MBR}},
           true);
  const ULONG expected[] = {CBT_FLAG_RECOVERY_PARTITION, CBT_FLAG_RECOVERY_PARTITION, CBT_FLAG_RESERVED_PARTITION, 0};
  for (size_t i = 0; i < volumes.size(); ++i) {
    PCBT_DEVICE_EXTENSION e = ExtensionOf(volumes[i]);
    EXPECT_EQ(CbtCheckPartitionType(e), STATUS_SUCCESS);
    EXPECT_EQ(CbtReadFlags(e) & (CBT_FLAG_RECOVERY_PARTITION | CBT_FLAG_RESERVED_PARTITION), expected[i]) << i;
    if (expected[i] == 0) continue;
    const uint64_t reads = volumes[i]->Counters().Reads;
    // The mutex is not touched: a held one does not block the answer.
    KeClearEvent(&e->FileSystemMutex);
    EXPECT_EQ(CbtInitializeFileSystem(e), STATUS_SUCCESS);
    KeSetEvent(&e->FileSystemMutex, IO_NO_INCREMENT, FALSE);
    EXPECT_FALSE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));
    EXPECT_EQ(volumes[i]->Counters().Reads, reads) << "no probe reads the disk";
  }
}

}  // namespace
}  // namespace kvfs
