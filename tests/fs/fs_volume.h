// The file-system tests' machine: volumes loaded from fixture images, with or without the
// driver filtering them.
#pragma once

#include <gtest/gtest.h>

#include <functional>
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

// File record `record` of the NTFS volume made as `image`: where it lies on the volume (one of
// the first records, which lie at the start of $MFT) and how long it is.
struct FileRecordPlace {
  uint64_t Offset;
  uint32_t Size;
};
FileRecordPlace PlaceOfFileRecord(const std::string& image, uint64_t record);

// Rewrites a file record on the volume: `edit` gets it without its update sequence protection,
// and it goes back protected.
void EditFileRecord(kvtestbed::Volume* volume, const FileRecordPlace& place,
                    const std::function<void(std::vector<uint8_t>&)>& edit);

// Offset of the first attribute of `type` in an unprotected file record; 0 when it has none.
size_t FindAttribute(const std::vector<uint8_t>& record, uint32_t type);

class FsMachineTest : public testing::Test {
 protected:
  void TearDown() override;

  // Builds and boots a machine whose volumes are filtered by the driver (or by nothing),
  // with one volume per image; returns them in order.
  std::vector<kvtestbed::Volume*> Boot(const std::vector<ImageVolume>& volumes, bool withDriver);
  kvtestbed::Volume* BootOne(const ImageVolume& volume, bool withDriver) { return Boot({volume}, withDriver)[0]; }

  // The driver's extension of a volume filtered by it.
  static PCBT_DEVICE_EXTENSION ExtensionOf(kvtestbed::Volume* volume);

  // The driver's queued records whose text is `text`, oldest first; the queue is emptied.
  // DropRecords empties it without looking.
  struct Record {
    ULONG DeviceFlags;
    ULONG Status;
  };
  static std::vector<Record> TakeRecords(const char* text);
  static void DropRecords();

  std::unique_ptr<kvtestbed::Machine> machine_;
};

}  // namespace kvfs
