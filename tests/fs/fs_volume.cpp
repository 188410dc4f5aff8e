#include "fs_volume.h"

#include <cstring>
#include <filesystem>

#include "kvtestbed/driver_images.h"
#include "log/cbt_log_inspection.h"

namespace kvfs {

void FsMachineTest::TearDown() { machine_.reset(); }

std::vector<kvtestbed::Volume*> FsMachineTest::Boot(const std::vector<ImageVolume>& volumes, bool withDriver) {
  kvtestbed::RegisterDriverImage(u"kvcbt", DriverEntry);
  kvtestbed::MachineConfig config;
  config.VolumeUpperFilters = withDriver ? std::vector<std::u16string>{u"kvcbt"} : std::vector<std::u16string>{};
  // The driver records its steps, for the tests that read them.
  if (withDriver) config.Services = {{u"kvcbt", nullptr, {kvtestbed::RegistrySetting::Dword(u"DebugLog", 1)}}};
  machine_ = std::make_unique<kvtestbed::Machine>(config);
  std::vector<kvtestbed::Volume*> out;
  for (const ImageVolume& image : volumes) {
    std::vector<ImagePiece> pieces = ReadImagePieces(image.Image);
    kvtestbed::VolumeConfig volumeConfig;
    volumeConfig.SizeBytes = std::filesystem::file_size(image.Image);
    volumeConfig.SectorSize = image.SectorSize;
    volumeConfig.Partition = image.Partition;
    volumeConfig.PartitionStyle = image.PartitionStyle;
    std::string error;
    kvtestbed::Volume* volume = machine_->AddVolume(volumeConfig, &error);
    if (volume == nullptr) {
      ADD_FAILURE() << "volume for " << image.Image << ": " << error;
      return out;
    }
    for (const ImagePiece& piece : pieces) volume->WriteDirect(piece.Offset, piece.Data);
    if (!image.RestartPages.empty()) {
      const LogFileLayout layout = ReadLogFileLayout(image.Image);
      std::vector<std::vector<uint8_t>> pages;
      for (const RestartPage& page : image.RestartPages) pages.push_back(BuildRestartPage(page));
      for (const ImagePiece& piece : LogFilePagePieces(layout, pages)) volume->WriteDirect(piece.Offset, piece.Data);
    }
    out.push_back(volume);
  }
  EXPECT_EQ(machine_->Boot(), STATUS_SUCCESS);
  return out;
}

PCBT_DEVICE_EXTENSION FsMachineTest::ExtensionOf(kvtestbed::Volume* volume) {
  PDEVICE_OBJECT top = volume->TopOfStack();
  return top != nullptr && top != volume->Device() ? CbtExtensionOf(top) : nullptr;
}

std::vector<FsMachineTest::Record> FsMachineTest::TakeRecords(const char* text) {
  std::vector<CBT_LOG_RECORD_BODY> bodies(CBT_LOG_QUEUE_LIMIT);
  bodies.resize(CbtDrainQueuedLogRecords(bodies.data(), CBT_LOG_QUEUE_LIMIT));
  std::vector<Record> records;
  for (const CBT_LOG_RECORD_BODY& body : bodies)
    if (std::strcmp(body.Text, text) == 0) records.push_back({body.DeviceFlags, body.Status});
  return records;
}

void FsMachineTest::DropRecords() { CbtDrainQueuedLogRecords(nullptr, CBT_LOG_QUEUE_LIMIT); }

FileRecordPlace PlaceOfFileRecord(const std::string& image, uint64_t record) {
  const VolumeGeometry geometry = ReadVolumeGeometry(image);
  return {static_cast<uint64_t>(geometry.MftLcn) * geometry.ClusterSize + record * geometry.FileRecordSize,
          geometry.FileRecordSize};
}

void EditFileRecord(kvtestbed::Volume* volume, const FileRecordPlace& place,
                    const std::function<void(std::vector<uint8_t>&)>& edit) {
  std::vector<uint8_t> record = volume->ReadDirect(place.Offset, place.Size);
  ASSERT_TRUE(UnprotectRecord(record)) << "file record at " << place.Offset;
  edit(record);
  ASSERT_TRUE(ProtectRecord(record));
  volume->WriteDirect(place.Offset, record);
}

size_t FindAttribute(const std::vector<uint8_t>& record, uint32_t type) {
  uint16_t first;
  std::memcpy(&first, &record[0x14], 2);
  for (size_t at = first; at + 8 <= record.size();) {
    uint32_t found, length;
    std::memcpy(&found, &record[at], 4);
    std::memcpy(&length, &record[at + 4], 4);
    if (found == type) return at;
    if (found == 0xFFFFFFFF || length == 0) break;
    at += length;
  }
  return 0;
}

}  // namespace kvfs
