// The model file system: a small file system whose every byte lives on its volume.
//
// A formatted volume starts with a boot record (sector 0) naming the cluster size and the
// place of two copies of the catalogue, the model's whole metadata (directories, files,
// attributes, sizes, security descriptors and each file's runs of clusters). Every change
// of metadata writes the catalogue to the older copy with a higher sequence number, through
// the volume's device stack, before the change is acknowledged; mounting reads the newer
// valid copy. So the metadata belongs to the disk: after a crash and a reboot the model finds
// what had reached the disk. File data is read and written at the file's clusters, so raw
// I/O at the clusters that FSCTL_GET_RETRIEVAL_POINTERS reports sees the file's bytes.
//
// Clusters are allocated first fit, a growing file extending its last run when it can; test
// knobs fragment new allocations, fragment or move a file, as a defragmenter would (refused
// while a handle protects the file's clusters).
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kvtestbed/file_system.h"

namespace kvtestbed {

struct ModelFormat {
  uint64_t VolumeBytes = 0;  // the volume's size; required
  ULONG BytesPerCluster = 4096;
  // Room of each of the two catalogue copies, in clusters.
  ULONG CatalogueClusters = 16;
  ULONG SerialNumber = 0x4B564D31;
  std::u16string Label;
};

// Writes an empty model file system (a root directory) onto the volume, through the top of
// its device stack. STATUS_INVALID_PARAMETER for a geometry that does not fit the volume
// (clusters not a power of two or not whole sectors, no room for the catalogue).
NTSTATUS FormatModelVolume(PDEVICE_OBJECT volume, const ModelFormat& format);
NTSTATUS FormatModelVolume(VolumeIo& volume, const ModelFormat& format);

class ModelFileSystem final : public FileSystem {
 public:
  ModelFileSystem();
  ~ModelFileSystem() override;

  NTSTATUS Mount(VolumeIo& volume) override;
  void Dismount() override;
  void Abandon() override;
  VolumeInfo QueryVolume() override;
  NTSTATUS Create(const CreateRequest& request, CreateResult* result) override;
  NTSTATUS QueryInformation(FileId file, FileInfo* info) override;
  NTSTATUS Read(FileId file, uint64_t offset, void* buffer, ULONG length, ULONG* transferred) override;
  NTSTATUS Write(FileId file, uint64_t offset, const void* buffer, ULONG length) override;
  NTSTATUS SetBasicInformation(FileId file, const FILE_BASIC_INFORMATION& basic) override;
  NTSTATUS SetEndOfFile(FileId file, uint64_t endOfFile) override;
  NTSTATUS SetValidDataLength(FileId file, uint64_t validDataLength) override;
  NTSTATUS SetAllocationSize(FileId file, uint64_t allocationSize) override;
  NTSTATUS SetCompression(FileId file, USHORT format) override;
  NTSTATUS CanDelete(FileId file) override;
  NTSTATUS Delete(FileId file) override;
  NTSTATUS GetExtents(FileId file, std::vector<Extent>* extents) override;
  NTSTATUS SetClustersProtected(FileId file, bool protect) override;
  NTSTATUS QuerySecurity(FileId file, std::vector<uint8_t>* descriptor) override;
  NTSTATUS SetSecurity(FileId file, const std::vector<uint8_t>& descriptor) override;

  // ----- Knobs and inspection for tests (the volume must be mounted; paths are inside the
  // volume, "\dir\file", compared without regard to case).

  // Every allocation from now on is spread over `pieces` runs that do not touch each other
  // (1: contiguous when the volume has the room).
  void FragmentNewAllocations(unsigned pieces);
  // Moves the file's clusters into `pieces` separate runs, its data with them.
  // STATUS_ACCESS_DENIED while a handle protects its clusters, STATUS_DISK_FULL without room.
  NTSTATUS FragmentFile(const std::u16string& path, unsigned pieces);
  // Moves the file's clusters to one run starting at `lcn` (or the first free run that
  // fits), its data with them. STATUS_ALREADY_COMMITTED when those clusters are not free.
  NTSTATUS MoveFile(const std::u16string& path, std::optional<LONGLONG> lcn = std::nullopt);
  // The file's runs from virtual cluster 0; empty when it has none or is not there.
  std::vector<Extent> ExtentsOf(const std::u16string& path);
  std::optional<FileInfo> Find(const std::u16string& path);
  ULONG BytesPerCluster();
  uint64_t FreeClusters();

  struct State;  // the mounted volume, as the model's parts see it

 private:
  std::mutex lock_;
  std::unique_ptr<State> state_;  // null while not mounted
  unsigned fragmentPieces_ = 1;
};

}  // namespace kvtestbed
