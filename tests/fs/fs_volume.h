// The file-system tests' machine: volumes loaded from fixture images, with or without the
// driver filtering them.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "driver/cbt_device_extension.h"
#include "kvtestbed/machine.h"
#include "ntfs_fixture.h"

namespace kvfs {

struct ImageVolume {
  std::string Image;
  uint32_t SectorSize = 512;
  kvtestbed::PartitionKind Partition = kvtestbed::PartitionKind::Data;
  PARTITION_STYLE PartitionStyle = PARTITION_STYLE_GPT;
  // Restart pages written into $LogFile before the machine starts.
  std::vector<RestartPage> RestartPages;
};

class FsMachineTest : public testing::Test {
 protected:
  void TearDown() override;

  // Builds and boots a machine whose volumes are filtered by the driver (or by nothing),
  // with one volume per image; returns them in order.
  std::vector<kvtestbed::Volume*> Boot(const std::vector<ImageVolume>& volumes, bool withDriver);
  kvtestbed::Volume* BootOne(const ImageVolume& volume, bool withDriver) { return Boot({volume}, withDriver)[0]; }

  // The driver's extension of a volume filtered by it.
  static PCBT_DEVICE_EXTENSION ExtensionOf(kvtestbed::Volume* volume);

  std::unique_ptr<kvtestbed::Machine> machine_;
};

}  // namespace kvfs
