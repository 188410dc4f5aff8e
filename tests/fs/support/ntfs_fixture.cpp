// Making the images: mkntfs and mkfs.vfat run as programs (by the testbed's disk images),
// libntfs-3g does the rest.
#include "ntfs_fixture.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "kvtestbed/disk_images.h"
#include "ntfs_fixture_volume.h"

namespace kvfs {
namespace {

// Bumped whenever what the fixtures put into an image changes, so that a build tree does
// not keep using images made the old way.
constexpr int kFixtureVersion = 2;
constexpr size_t kPieceBytes = 64 * 1024;

std::string FixtureDirectory() {
  std::filesystem::path dir = KV_FS_FIXTURE_DIR;
  std::filesystem::create_directories(dir);
  return dir.string();
}

// Makes `path` with `make` (given a temporary path) unless it exists. Tests running at once
// may each make it; the last rename wins with an identical image.
std::string Cached(const std::string& name, const std::function<std::string(const std::string&)>& make) {
  const std::string path = FixtureDirectory() + "/" + name;
  if (access(path.c_str(), R_OK) == 0) return path;
  const std::string temporary = path + ".tmp" + std::to_string(getpid());
  const std::string error = make(temporary);
  if (!error.empty()) {
    unlink(temporary.c_str());
    ADD_FAILURE() << "fixture " << name << ": " << error;
    return "";
  }
  if (rename(temporary.c_str(), path.c_str()) != 0) {
    ADD_FAILURE() << "fixture " << name << ": rename: " << strerror(errno);
    return "";
  }
  return path;
}

}  // namespace

std::string NtfsImage(const NtfsImageSpec& spec) {
  std::ostringstream name;
  name << "ntfs-v" << kFixtureVersion << "-" << (spec.SizeBytes >> 20) << "m-s" << spec.SectorSize << "-c"
       << spec.ClusterSize << (spec.MftAttributeList ? "-attrlist" : "") << "-L";
  for (char c : spec.Label) name << std::hex << static_cast<int>(static_cast<unsigned char>(c));
  name << ".img";
  return Cached(name.str(), [&](const std::string& path) -> std::string {
    const std::string made = kvtestbed::MakeNtfsImage(path, spec.SizeBytes, spec.SectorSize,
                                                      {.ClusterSize = spec.ClusterSize, .Label = spec.Label});
    if (!made.empty()) return made;
    if (spec.MftAttributeList) {
      // 24 MiB of 512-byte clusters: the filler takes the data zone, 6,000 files make
      // $MFT grow in dozens of fragments around their clusters.
      // In a child process: libntfs-3g leaves an inode behind when closing one of $MFT's
      // extension records fails, which the leak checker would blame on the test that made the
      // image first.
      const pid_t child = fork();
      if (child == 0) _exit(-kvfs_add_mft_attribute_list(path.c_str(), 6000, 10ll << 20) & 0xFF);
      int status = 0;
      if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return "libntfs-3g could not fill the volume: the child process failed";
      if (WEXITSTATUS(status) != 0)
        return "libntfs-3g could not fill the volume: " + std::string(strerror(WEXITSTATUS(status)));
    }
    return "";
  });
}

std::string FatImage(uint64_t sizeBytes) {
  return Cached("fat-v" + std::to_string(kFixtureVersion) + "-" + std::to_string(sizeBytes >> 20) + "m.img",
                [&](const std::string& path) -> std::string {
                  const int rc = kvtestbed::RunHostProgram(
                      {"mkfs.vfat", "-C", "-n", "KVFAT", path, std::to_string(sizeBytes / 1024)});
                  return rc == 0 ? "" : "mkfs.vfat exited with " + std::to_string(rc);
                });
}

std::string RandomImage(uint64_t sizeBytes, uint32_t seed) {
  return Cached("random-" + std::to_string(seed) + "-" + std::to_string(sizeBytes >> 20) + "m.img",
                [&](const std::string& path) -> std::string {
                  std::ofstream out(path, std::ios::binary);
                  std::mt19937 random(seed);
                  std::vector<uint8_t> block(kPieceBytes);
                  for (uint64_t done = 0; done < sizeBytes; done += block.size()) {
                    for (uint8_t& b : block) b = static_cast<uint8_t>(random());
                    out.write(reinterpret_cast<const char*>(block.data()),
                              static_cast<std::streamsize>(std::min<uint64_t>(block.size(), sizeBytes - done)));
                  }
                  return out ? "" : "cannot write the image";
                });
}

std::vector<ImagePiece> ReadImagePieces(const std::string& path) {
  std::vector<ImagePiece> pieces;
  const std::string error = kvtestbed::ForEachImagePiece(path, [&](uint64_t offset, std::span<const uint8_t> data) {
    pieces.push_back({offset, std::vector<uint8_t>(data.begin(), data.end())});
  });
  if (!error.empty()) ADD_FAILURE() << error;
  return pieces;
}

VolumeGeometry ReadVolumeGeometry(const std::string& path) {
  kvfs_geometry g;
  VolumeGeometry out;
  const int rc = kvfs_volume_geometry(path.c_str(), &g);
  if (rc != 0) {
    ADD_FAILURE() << "libntfs-3g cannot read " << path << ": " << strerror(-rc);
    return out;
  }
  out = {g.sector_size, g.cluster_size, g.mft_record_size, g.total_clusters, g.mft_lcn, g.label};
  return out;
}

uint64_t LogFileLayout::VolumeOffset(uint64_t offset) const {
  const int64_t vcn = static_cast<int64_t>(offset / ClusterSize);
  for (const LogFileRun& run : Runs)
    if (vcn >= run.Vcn && vcn < run.Vcn + run.Clusters && run.Lcn >= 0)
      return static_cast<uint64_t>(run.Lcn + (vcn - run.Vcn)) * ClusterSize + offset % ClusterSize;
  ADD_FAILURE() << "$LogFile byte " << offset << " is not on the volume";
  return 0;
}

LogFileLayout ReadLogFileLayout(const std::string& path) {
  LogFileLayout layout;
  std::vector<kvfs_run> runs(1024);
  int64_t size = 0;
  const int count = kvfs_log_file_runs(path.c_str(), runs.data(), static_cast<int>(runs.size()), &layout.ClusterSize,
                                       &size);
  if (count < 0) {
    ADD_FAILURE() << "libntfs-3g cannot read $LogFile of " << path << ": " << strerror(-count);
    return layout;
  }
  layout.Size = size;
  for (int i = 0; i < count; ++i) layout.Runs.push_back({runs[i].vcn, runs[i].lcn, runs[i].clusters});
  return layout;
}

std::vector<uint8_t> DataMappingPairs(const std::string& path, uint64_t record) {
  std::vector<uint8_t> pairs(64 * 1024);
  const int size = kvfs_data_mapping_pairs(path.c_str(), record, pairs.data(), static_cast<int>(pairs.size()));
  if (size < 0) {
    ADD_FAILURE() << "libntfs-3g cannot encode the runs of record " << record << " of " << path;
    return {};
  }
  pairs.resize(static_cast<size_t>(size));
  return pairs;
}

std::vector<uint8_t> BuildRestartPage(const RestartPage& page) {
  std::vector<uint8_t> bytes(4096);
  if (kvfs_build_restart_page(bytes.data(), page.Signature, page.AreaOffset, page.Count, page.Lsn, page.Flags) != 0)
    ADD_FAILURE() << "libntfs-3g cannot protect a restart page";
  return bytes;
}

bool UnprotectRecord(std::vector<uint8_t>& bytes) {
  return kvfs_unprotect(bytes.data(), static_cast<uint32_t>(bytes.size())) == 0;
}

bool ProtectRecord(std::vector<uint8_t>& bytes) {
  return kvfs_protect(bytes.data(), static_cast<uint32_t>(bytes.size())) == 0;
}

std::vector<ImagePiece> LogFilePagePieces(const LogFileLayout& layout, std::span<const std::vector<uint8_t>> pages) {
  std::vector<ImagePiece> pieces;
  uint64_t logOffset = 0;
  for (const std::vector<uint8_t>& page : pages) {
    // A page may straddle clusters that are not adjacent on the volume.
    for (size_t done = 0; done < page.size();) {
      const uint64_t at = logOffset + done;
      const size_t inCluster = std::min<size_t>(page.size() - done, layout.ClusterSize - at % layout.ClusterSize);
      pieces.push_back({layout.VolumeOffset(at), std::vector<uint8_t>(page.begin() + static_cast<long>(done),
                                                                       page.begin() + static_cast<long>(done + inCluster))});
      done += inCluster;
    }
    logOffset += page.size();
  }
  return pieces;
}

}  // namespace kvfs
