// Tracked volumes for the tests of the change bitmap and the write path (tracked_volume.h).
#include "tracked_volume.h"

#include <algorithm>

#include "fs/ntfs_layout.h"
#include "tracking/cbt_tracking.h"

namespace kvtest {
namespace {

// Where the restart area sits in a restart page built here.
constexpr USHORT kRestartAreaOffset = 0x30;

}  // namespace

void TrackingTest::SetUp() {
  CbtDriverTest::SetUp();
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
}

Volume& TrackingTest::AddTrackedVolume(const TrackedVolumeSpec& spec) {
  VolumeSpec volumeSpec = FixedVolume(spec.Number);
  volumeSpec.Size = spec.VolumeBytes;
  Volume& volume = AddVolume(volumeSpec);
  PCBT_DEVICE_EXTENSION extension = volume.Extension();
  EXPECT_NE(extension, nullptr);
  if (extension == nullptr) return volume;
  const ULONG bits = (spec.VolumeBytes + spec.BytesPerBit - 1) / spec.BytesPerBit;
  EXPECT_EQ(CbtAllocateTrackingBitMap(extension, bits), STATUS_SUCCESS);
  extension->BytesPerBit = spec.BytesPerBit;
  extension->BitCount = bits;
  extension->VolumeSize = spec.VolumeBytes;
  extension->FileSystemType = spec.FileSystemType;
  // A reader that recognised nothing yet: its lock is what the teardown at removal waits on.
  if (spec.FileSystemType == CBT_FILE_SYSTEM_NTFS)
    KeInitializeSemaphore(&extension->FileSystemContext.Ntfs.Lock, 1, 1);
  else if (spec.FileSystemType == CBT_FILE_SYSTEM_REFS)
    KeInitializeSemaphore(&extension->FileSystemContext.Refs.Lock, 1, 1);
  CbtSetFlags(extension, CBT_FLAG_FS_CONTEXT | CBT_FLAG_ONLINE | CBT_FLAG_FILE_SYSTEM_READABLE);
  DropRecords();
  return volume;
}

std::set<ULONG> TrackingTest::SetBits(const CBT_DEVICE_EXTENSION* extension) {
  std::set<ULONG> bits;
  const RTL_BITMAP& bitmap = extension->TrackingBitmap;
  for (ULONG bit = 0; bit < bitmap.SizeOfBitMap; ++bit)
    if ((bitmap.Buffer[bit / 32] >> (bit % 32)) & 1) bits.insert(bit);
  return bits;
}

Transferred TrackingTest::Write(PDEVICE_OBJECT top, LONGLONG offset, ULONG length) {
  std::vector<uint8_t> data(length, 0x5A);
  return Transfer(top, IRP_MJ_WRITE, data.data(), length, offset);
}

void TrackingTest::SendData(SentWrite& write, PDEVICE_OBJECT top, LONGLONG offset, const std::vector<uint8_t>& data) {
  Prepare(write, top, offset, static_cast<ULONG>(data.size()));
  std::copy(data.begin(), data.end(), write.Buffer.begin());
  if (write.Irp != nullptr) write.Returned = IoCallDriver(top, write.Irp);
}

std::vector<uint8_t> TrackingTest::RestartPage(ULONG count) {
  std::vector<uint8_t> page(LFS_PAGE_SIZE, 0);
  auto* header = reinterpret_cast<LFS_RESTART_PAGE_HEADER*>(page.data());
  header->MultiSectorHeader.Signature = LFS_SIGNATURE_RESTART_PAGE;
  header->SystemPageSize = LFS_PAGE_SIZE;
  header->LogPageSize = LFS_PAGE_SIZE;
  header->RestartOffset = kRestartAreaOffset;
  header->MajorVersion = 1;
  header->MinorVersion = 1;
  auto* area = reinterpret_cast<LFS_RESTART_AREA*>(page.data() + kRestartAreaOffset);
  area->Flags = LFS_RESTART_AREA_CLEAN;
  area->RestartLogOpenCount = count;
  return page;
}

bool TrackingTest::IsCleanRestartPage(const uint8_t* page) {
  const auto* area = reinterpret_cast<const LFS_RESTART_AREA*>(page + kRestartAreaOffset);
  return (area->Flags & LFS_RESTART_AREA_CLEAN) != 0;
}

std::vector<CBT_LOG_RECORD_BODY> TrackingTest::RecordsOf(const std::string& text) {
  std::vector<CBT_LOG_RECORD_BODY> found;
  for (const CBT_LOG_RECORD_BODY& record : Records())
    if (text == record.Text) found.push_back(record);
  return found;
}

}  // namespace kvtest
