#include "fs_volume.h"

#include <filesystem>

#include "kvtestbed/driver_images.h"

namespace kvfs {

void FsMachineTest::TearDown() { machine_.reset(); }

std::vector<kvtestbed::Volume*> FsMachineTest::Boot(const std::vector<ImageVolume>& volumes, bool withDriver) {
  kvtestbed::RegisterDriverImage(u"kvcbt", DriverEntry);
  kvtestbed::MachineConfig config;
  config.VolumeUpperFilters = withDriver ? std::vector<std::u16string>{u"kvcbt"} : std::vector<std::u16string>{};
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

}  // namespace kvfs
