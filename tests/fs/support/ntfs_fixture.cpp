// Making the images: mkntfs and mkfs.vfat run as programs, libntfs-3g does the rest.
#include "ntfs_fixture.h"

#include <fcntl.h>
#include <spawn.h>
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

#include "ntfs_fixture_volume.h"

extern char** environ;

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

std::string FindProgram(const char* name) {
  for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
    std::string path = std::string(dir) + name;
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  return name;
}

// Runs a program with its output discarded; its exit status, or -1.
int Run(const std::vector<std::string>& argv) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid;
  int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  int status = 0;
  if (waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool MakeSparseFile(const std::string& path, uint64_t bytes) {
  int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  if (fd < 0) return false;
  bool ok = ftruncate(fd, static_cast<off_t>(bytes)) == 0;
  close(fd);
  return ok;
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
    if (!MakeSparseFile(path, spec.SizeBytes)) return "cannot create the image file";
    std::vector<std::string> argv = {FindProgram("mkntfs"), "-F", "-q", "-Q", "-p", "0", "-H", "0", "-S", "0",
                                     "-s", std::to_string(spec.SectorSize), "-c", std::to_string(spec.ClusterSize)};
    if (!spec.Label.empty()) {
      argv.push_back("-L");
      argv.push_back(spec.Label);
    }
    argv.push_back(path);
    const int rc = Run(argv);
    if (rc != 0) return "mkntfs exited with " + std::to_string(rc);
    if (spec.MftAttributeList) {
      // 24 MiB of 512-byte clusters: the filler takes the data zone, 6,000 files make
      // $MFT grow in dozens of fragments around their clusters.
      const int result = kvfs_add_mft_attribute_list(path.c_str(), 6000, 10ll << 20);
      if (result != 0) return "libntfs-3g could not fill the volume: " + std::string(strerror(-result));
    }
    return "";
  });
}

std::string FatImage(uint64_t sizeBytes) {
  return Cached("fat-v" + std::to_string(kFixtureVersion) + "-" + std::to_string(sizeBytes >> 20) + "m.img",
                [&](const std::string& path) -> std::string {
                  if (!MakeSparseFile(path, sizeBytes)) return "cannot create the image file";
                  const int rc = Run({FindProgram("mkfs.vfat"), "-n", "KVFAT", path});
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
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) {
    ADD_FAILURE() << "cannot open " << path;
    return pieces;
  }
  const off_t end = lseek(fd, 0, SEEK_END);
  // Only the data the sparse image holds is read: a large image is mostly holes.
  off_t data = lseek(fd, 0, SEEK_DATA);
  std::vector<uint8_t> block(kPieceBytes);
  while (data >= 0 && data < end) {
    off_t hole = lseek(fd, data, SEEK_HOLE);
    if (hole < 0) hole = end;
    for (off_t at = data; at < hole;) {
      const size_t want = static_cast<size_t>(std::min<off_t>(static_cast<off_t>(block.size()), hole - at));
      const ssize_t got = pread(fd, block.data(), want, at);
      if (got <= 0) break;
      if (std::any_of(block.begin(), block.begin() + got, [](uint8_t b) { return b != 0; }))
        pieces.push_back({static_cast<uint64_t>(at), std::vector<uint8_t>(block.begin(), block.begin() + got)});
      at += got;
    }
    data = lseek(fd, hole, SEEK_DATA);
  }
  close(fd);
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
