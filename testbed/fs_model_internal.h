// The model file system's parts: its metadata as held in memory, the on-disk layout of the
// boot record and the catalogue, and the cluster map.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kvtestbed/fs_model.h"

namespace kvtestbed::model {

constexpr FileId kRootId = 1;

// A run of a file's clusters; a file's runs follow each other in virtual cluster order.
struct Run {
  int64_t Lcn = 0;
  int64_t Clusters = 0;
};

struct Node {
  FileId Id = 0;
  FileId Parent = 0;
  std::u16string Name;
  bool Directory = false;
  ULONG Attributes = 0;
  LONGLONG CreationTime = 0, LastAccessTime = 0, LastWriteTime = 0, ChangeTime = 0;
  uint64_t EndOfFile = 0;
  uint64_t ValidDataLength = 0;
  USHORT Compression = COMPRESSION_FORMAT_NONE;
  std::vector<uint8_t> Security;
  std::vector<Run> Runs;
  ULONG Protected = 0;  // in memory only: handles holding the clusters in place

  uint64_t AllocatedClusters() const {
    uint64_t total = 0;
    for (const Run& run : Runs) total += run.Clusters;
    return total;
  }
};

// The boot record's geometry.
struct Geometry {
  ULONG BytesPerCluster = 0;
  uint64_t TotalClusters = 0;
  uint64_t CatalogueLcn[2] = {0, 0};
  ULONG CatalogueClusters = 0;
  ULONG SerialNumber = 0;
  LONGLONG CreationTime = 0;
  // Clusters the model's own structures occupy: the boot record and both catalogue copies.
  uint64_t ReservedClusters() const { return 1 + 2 * uint64_t(CatalogueClusters); }
};

struct Catalogue {
  uint64_t Sequence = 0;
  FileId NextId = kRootId + 1;
  std::u16string Label;
  std::map<FileId, Node> Nodes;
};

// fs_model_layout.cpp: the boot record and the catalogue on disk.
NTSTATUS ReadGeometry(VolumeIo& io, Geometry* geometry);  // STATUS_UNRECOGNIZED_VOLUME when not a model volume
NTSTATUS WriteGeometry(VolumeIo& io, const Geometry& geometry);
// The newer valid copy; STATUS_FILE_CORRUPT_ERROR when neither is valid.
NTSTATUS ReadCatalogue(VolumeIo& io, const Geometry& geometry, Catalogue* catalogue);
// Writes the catalogue, with its Sequence, into the copy that sequence selects.
// STATUS_DISK_FULL when it does not fit the copy's room.
NTSTATUS WriteCatalogue(VolumeIo& io, const Geometry& geometry, const Catalogue& catalogue);

// fs_model_clusters.cpp: which clusters are in use.
class ClusterMap {
 public:
  void Reset(uint64_t totalClusters);
  uint64_t Total() const { return used_.size(); }
  uint64_t FreeCount() const { return free_; }
  bool IsFree(int64_t lcn, int64_t count) const;
  void Mark(int64_t lcn, int64_t count, bool used);
  void MarkRuns(const std::vector<Run>& runs, bool used);
  // Allocates `count` clusters, marking them used: in `pieces` runs that do not touch each
  // other or `after` (the end of the runs they continue) when pieces > 1; otherwise from
  // `after` when the clusters there are free, then the first free run that holds the rest,
  // then the first free runs. Nothing when the volume lacks the room.
  std::optional<std::vector<Run>> Allocate(uint64_t count, unsigned pieces, std::optional<int64_t> after);

 private:
  int64_t FindFree(uint64_t count, int64_t from) const;  // first fit from `from`, or -1
  std::vector<bool> used_;
  uint64_t free_ = 0;
};

// Appends `added` to `runs`, merging runs that continue each other on the volume.
void AppendRuns(std::vector<Run>& runs, const std::vector<Run>& added);

// Whole-sector access to any byte range of the volume (read-modify-write at the edges).
NTSTATUS ReadBytes(VolumeIo& io, uint64_t offset, void* buffer, size_t length);
NTSTATUS WriteBytes(VolumeIo& io, uint64_t offset, const void* buffer, size_t length);

}  // namespace kvtestbed::model
