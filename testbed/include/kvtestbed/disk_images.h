// Disks that come formatted: real NTFS file systems made by mkntfs (Debian's ntfs-3g), put on
// a volume of the machine before it runs, as a disk arrives from the installer. The driver
// then reads a file system Windows itself would read.
//
//   kvtestbed::Volume* c = machine.AddVolume({.Name = "C:", .SizeBytes = 256ull << 20});
//   std::string error = kvtestbed::FormatNtfs(*c, {.ClusterSize = 4096, .Label = "System"});
//
// Images are made as sparse files; only the bytes mkntfs wrote are read back, so a large
// volume costs what its metadata takes.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace kvtestbed {

class Volume;

struct NtfsFormat {
  uint32_t ClusterSize = 4096;  // 512 to 2 MiB (the largest NTFS makes), a power of two
  std::string Label;            // the volume label ($Volume's name), none when empty
};

// Makes `path` a sparse image of `bytes` bytes holding a fresh NTFS file system for a disk
// of `sectorSize`-byte sectors. Returns "" on success, else what went wrong.
std::string MakeNtfsImage(const std::string& path, uint64_t bytes, uint32_t sectorSize, const NtfsFormat& format);

// Calls `piece` for each stretch of at most 64 KiB of the image's data that is not all
// zero, in order of offset; holes are skipped without reading. Returns "" on success.
std::string ForEachImagePiece(const std::string& path,
                              const std::function<void(uint64_t offset, std::span<const uint8_t> data)>& piece);

// Puts the image's bytes on the volume's disk, bypassing every driver. The image must not be
// larger than the volume. Returns "" on success.
std::string LoadImage(Volume& volume, const std::string& path);

// Formats the volume's disk with NTFS (a temporary image, made and loaded). The volume's size
// and sector size are the file system's. Returns "" on success.
std::string FormatNtfs(Volume& volume, const NtfsFormat& format);

// Runs a program of the machine's host, found in the system's program directories, with its
// output discarded; its exit status, or -1 when it could not run.
int RunHostProgram(const std::vector<std::string>& argv);

}  // namespace kvtestbed
