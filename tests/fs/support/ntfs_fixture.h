// Volume images for the file-system tests, made at test time into the build tree: real NTFS
// volumes from mkntfs (cluster and sector sizes, a label, an $MFT with an attribute list),
// a FAT volume from mkfs.vfat, random bytes; and restart pages written into an NTFS
// volume's $LogFile as Windows writes them when it mounts the volume.
//
// Images are made once per build tree and shared by every test (read-only); a test loads
// one into a volume of the simulated machine and changes only its own copy.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace kvfs {

struct NtfsImageSpec {
  uint64_t SizeBytes = 64ull << 20;
  uint32_t SectorSize = 512;
  uint32_t ClusterSize = 4096;
  std::string Label;
  // Filled with libntfs-3g so that $MFT grows in fragments and its base record carries an
  // attribute list.
  bool MftAttributeList = false;
};

// The image's path; made with mkntfs when the build tree has none yet. Fails the test (and
// returns "") when the image cannot be made.
std::string NtfsImage(const NtfsImageSpec& spec);
std::string FatImage(uint64_t sizeBytes);
std::string RandomImage(uint64_t sizeBytes, uint32_t seed);

// The image's bytes that are not zero, as (offset, 64 KiB or less of data) pieces, in order.
struct ImagePiece {
  uint64_t Offset;
  std::vector<uint8_t> Data;
};
std::vector<ImagePiece> ReadImagePieces(const std::string& path);

// The volume as libntfs-3g reads it.
struct VolumeGeometry {
  uint32_t SectorSize = 0;
  uint32_t ClusterSize = 0;
  uint32_t FileRecordSize = 0;
  int64_t TotalClusters = 0;
  int64_t MftLcn = 0;
  std::string Label;
};
VolumeGeometry ReadVolumeGeometry(const std::string& path);

// $LogFile as libntfs-3g finds it in the image.
struct LogFileRun {
  int64_t Vcn;
  int64_t Lcn;  // negative for a hole
  int64_t Clusters;
};
struct LogFileLayout {
  uint32_t ClusterSize = 0;
  int64_t Size = 0;
  std::vector<LogFileRun> Runs;
  // Volume byte offset of the log's byte `offset`.
  uint64_t VolumeOffset(uint64_t offset) const;
};
LogFileLayout ReadLogFileLayout(const std::string& path);

// The mapping pairs of file record `record`'s unnamed $DATA, as libntfs-3g encodes them.
std::vector<uint8_t> DataMappingPairs(const std::string& path, uint64_t record);

// One restart page of 4096 bytes.
struct RestartPage {
  uint32_t Count = 0;
  int64_t Lsn = 0;
  uint16_t Flags = 0x0002;  // cleanly closed
  const char* Signature = "RSTR";
  uint16_t AreaOffset = 0x30;
};
std::vector<uint8_t> BuildRestartPage(const RestartPage& page);

// The update sequence protection of a file record or log page, undone or applied by
// libntfs-3g; false when the bytes are not protected as their header says.
bool UnprotectRecord(std::vector<uint8_t>& bytes);
bool ProtectRecord(std::vector<uint8_t>& bytes);

// Where restart pages land: page i at byte 4096 * i of $LogFile.
std::vector<ImagePiece> LogFilePagePieces(const LogFileLayout& layout, std::span<const std::vector<uint8_t>> pages);

}  // namespace kvfs
