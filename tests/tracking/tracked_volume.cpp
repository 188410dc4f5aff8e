// Tracked volumes for the tests of the change bitmap and the write path (tracked_volume.h).
#include "tracked_volume.h"

#include "tracking/cbt_tracking.h"

namespace kvtest {

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

std::vector<CBT_LOG_RECORD_BODY> TrackingTest::RecordsOf(const std::string& text) {
  std::vector<CBT_LOG_RECORD_BODY> found;
  for (const CBT_LOG_RECORD_BODY& record : Records())
    if (text == record.Text) found.push_back(record);
  return found;
}

}  // namespace kvtest
