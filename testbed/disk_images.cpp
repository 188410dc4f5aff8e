// Formatted disks: mkntfs run as a program on a sparse image, and the image's data put on a
// volume.
#include "kvtestbed/disk_images.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "kvtestbed/volume.h"

extern char** environ;

namespace kvtestbed {
namespace {

constexpr size_t kPieceBytes = 64 * 1024;

std::string FindProgram(const std::string& name) {
  for (const char* dir : {"/usr/sbin/", "/sbin/", "/usr/bin/", "/bin/"}) {
    const std::string path = dir + name;
    if (access(path.c_str(), X_OK) == 0) return path;
  }
  return name;
}

bool MakeSparseFile(const std::string& path, uint64_t bytes) {
  const int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
  if (fd < 0) return false;
  const bool ok = ftruncate(fd, static_cast<off_t>(bytes)) == 0;
  close(fd);
  return ok;
}

bool IsPowerOfTwo(uint32_t value) { return value != 0 && (value & (value - 1)) == 0; }

}  // namespace

int RunHostProgram(const std::vector<std::string>& argv) {
  if (argv.empty()) return -1;
  const std::string program = FindProgram(argv[0]);
  std::vector<char*> args;
  args.push_back(const_cast<char*>(program.c_str()));
  for (size_t i = 1; i < argv.size(); ++i) args.push_back(const_cast<char*>(argv[i].c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid;
  const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return -1;
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string MakeNtfsImage(const std::string& path, uint64_t bytes, uint32_t sectorSize, const NtfsFormat& format) {
  if (sectorSize != 512 && sectorSize != 4096) return "an NTFS disk has 512- or 4096-byte sectors";
  if (!IsPowerOfTwo(format.ClusterSize) || format.ClusterSize < sectorSize || format.ClusterSize > (2u << 20))
    return "cluster size " + std::to_string(format.ClusterSize) + " (a power of two from the sector size to 2 MiB)";
  if (!MakeSparseFile(path, bytes)) return "cannot create the image " + path + ": " + std::strerror(errno);
  // Quick (no zeroing: the image is sparse), no geometry of a BIOS disk, the whole image.
  std::vector<std::string> argv = {"mkntfs", "-F", "-q", "-Q", "-p", "0", "-H", "0", "-S", "0",
                                   "-s", std::to_string(sectorSize), "-c", std::to_string(format.ClusterSize)};
  if (!format.Label.empty()) {
    argv.push_back("-L");
    argv.push_back(format.Label);
  }
  argv.push_back(path);
  const int rc = RunHostProgram(argv);
  if (rc == -1) return "mkntfs could not run (Debian's ntfs-3g package provides it)";
  if (rc != 0) return "mkntfs exited with " + std::to_string(rc) + " (a volume too small for NTFS?)";
  return "";
}

std::string ForEachImagePiece(const std::string& path,
                              const std::function<void(uint64_t offset, std::span<const uint8_t> data)>& piece) {
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return "cannot open " + path + ": " + std::strerror(errno);
  const off_t end = lseek(fd, 0, SEEK_END);
  std::vector<uint8_t> block(kPieceBytes);
  std::string error;
  off_t data = lseek(fd, 0, SEEK_DATA);
  while (data >= 0 && data < end && error.empty()) {
    off_t hole = lseek(fd, data, SEEK_HOLE);
    if (hole < 0) hole = end;
    for (off_t at = data; at < hole;) {
      const size_t want = static_cast<size_t>(std::min<off_t>(static_cast<off_t>(block.size()), hole - at));
      const ssize_t got = pread(fd, block.data(), want, at);
      if (got <= 0) {
        error = "cannot read " + path;
        break;
      }
      const std::span<const uint8_t> bytes(block.data(), static_cast<size_t>(got));
      if (std::any_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b != 0; }))
        piece(static_cast<uint64_t>(at), bytes);
      at += got;
    }
    data = lseek(fd, hole, SEEK_DATA);
  }
  close(fd);
  return error;
}

std::string LoadImage(Volume& volume, const std::string& path) {
  std::string error;
  const std::string read = ForEachImagePiece(path, [&](uint64_t offset, std::span<const uint8_t> data) {
    if (offset + data.size() > volume.SizeBytes()) {
      if (error.empty()) error = "the image " + path + " is larger than the volume";
      return;
    }
    volume.WriteDirect(offset, data);
  });
  return read.empty() ? error : read;
}

std::string FormatNtfs(Volume& volume, const NtfsFormat& format) {
  const char* directory = std::getenv("TMPDIR");
  std::string path = std::string(directory != nullptr && *directory != '\0' ? directory : "/tmp") + "/kvtestbed-ntfs-XXXXXX";
  const int fd = mkstemp(path.data());
  if (fd < 0) return "cannot make a temporary image: " + std::string(std::strerror(errno));
  close(fd);
  std::string error = MakeNtfsImage(path, volume.SizeBytes(), volume.Config().SectorSize, format);
  if (error.empty()) error = LoadImage(volume, path);
  unlink(path.c_str());
  return error;
}

}  // namespace kvtestbed
