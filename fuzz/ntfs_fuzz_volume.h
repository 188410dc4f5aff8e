// What the NTFS reader's fuzz targets share: a volume device in memory that the reader's raw
// reads and disk queries reach through the user-mode kernel, a small NTFS volume built byte
// by byte, and the checks every input ends with (the reader's status is one it may report;
// no pool is left behind).
#pragma once

#include <ntifs.h>

#include <cstdint>
#include <map>
#include <vector>

#include "fs/cbt_ntfs.h"

namespace kvfuzz {

// A disk of SizeBytes whose unwritten bytes read as zeros. Reads reach it through a device
// object of the user-mode kernel, as they reach a volume.
class FuzzDisk {
 public:
  static FuzzDisk& Instance();
  PDEVICE_OBJECT Device() const { return device_; }
  // Forgets every byte and takes the new size and sector size.
  void Reset(uint64_t sizeBytes, ULONG sectorSize);
  void Write(uint64_t offset, const uint8_t* data, size_t length);
  void Read(uint64_t offset, uint8_t* data, size_t length) const;
  uint64_t Size() const { return size_; }
  ULONG SectorSize() const { return sectorSize_; }

 private:
  FuzzDisk();
  PDEVICE_OBJECT device_ = nullptr;
  uint64_t size_ = 0;
  ULONG sectorSize_ = 512;
  std::map<uint64_t, std::vector<uint8_t>> pieces_;  // by offset; never overlapping
};

// The statuses the reader reports: its own and those of a failed read.
bool IsReaderStatus(NTSTATUS status);

// Aborts (a finding) when `status` is not one the reader reports.
void ExpectReaderStatus(NTSTATUS status, const char* routine);

// Pool outstanding now; AbortOnLeak aborts when more is outstanding than at the mark.
size_t PoolMark();
void AbortOnLeak(size_t mark, const char* what);

// A small NTFS volume: 4 KiB clusters, 1 KiB file records, $MFT at cluster 4 (16 records,
// one run), $LogFile's $DATA over `logClusters` clusters at cluster 64, $Volume with a label.
// Written to the disk, which is reset to 8 MiB of 512-byte sectors.
struct SyntheticVolume {
  static constexpr ULONG kClusterSize = 4096;
  static constexpr ULONG kRecordSize = 1024;
  static constexpr LONGLONG kMftLcn = 4;
  static constexpr LONGLONG kLogFileLcn = 64;
  static void Build(FuzzDisk& disk, ULONG logClusters);
  // A file record with `attributes` (each a complete attribute record) and the end marker,
  // protected by its update sequence array.
  static std::vector<uint8_t> Record(const std::vector<std::vector<uint8_t>>& attributes);
  static std::vector<uint8_t> ResidentAttribute(ULONG type, const std::vector<uint8_t>& value);
  static std::vector<uint8_t> NonresidentAttribute(ULONG type, LONGLONG lcn, ULONG clusters);
};

}  // namespace kvfuzz
