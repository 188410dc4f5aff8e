// Seeds for the NTFS reader's fuzz targets, taken from the mkntfs fixtures: boot sectors with
// the start of their $MFT, the first records of $MFT, the mapping pairs of $MFT and $LogFile,
// and the start of a $LogFile with restart pages.
//   kv-ntfs-fuzz-seeds <seed directory>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ntfs_fixture.h"

namespace {

std::vector<uint8_t> ReadAt(const std::string& path, uint64_t offset, size_t length) {
  std::vector<uint8_t> bytes(length);
  std::ifstream in(path, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(offset));
  in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(length));
  return bytes;
}

void Save(const std::filesystem::path& dir, const std::string& name, const std::vector<uint8_t>& bytes) {
  std::filesystem::create_directories(dir);
  std::ofstream out(dir / name, std::ios::binary);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> Cat(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::filesystem::path root = argv[1];
  const kvfs::NtfsImageSpec specs[] = {{.SectorSize = 512, .ClusterSize = 512, .Label = "Small"},
                                       {.SectorSize = 512, .ClusterSize = 4096, .Label = "Data"},
                                       {.SectorSize = 4096, .ClusterSize = 65536, .Label = "Native4K"},
                                       {.SizeBytes = 24ull << 20, .ClusterSize = 512, .Label = "Fragmented",
                                        .MftAttributeList = true}};
  int n = 0;
  for (const kvfs::NtfsImageSpec& spec : specs) {
    const std::string image = kvfs::NtfsImage(spec);
    if (image.empty()) return 1;
    const kvfs::VolumeGeometry g = kvfs::ReadVolumeGeometry(image);
    const uint64_t mft = static_cast<uint64_t>(g.MftLcn) * g.ClusterSize;
    const std::string name = "seed" + std::to_string(n++);
    Save(root / "ntfs_boot_fuzz", name, Cat(ReadAt(image, 0, 512), ReadAt(image, mft, 16 * g.FileRecordSize)));
    if (g.FileRecordSize == 1024) Save(root / "ntfs_record_fuzz", name, ReadAt(image, mft, 32 * 1024));
    const std::vector<uint8_t> lowestVcn(8, 0);
    Save(root / "ntfs_mapping_pairs_fuzz", name + "-mft", Cat(lowestVcn, kvfs::DataMappingPairs(image, 0)));
    Save(root / "ntfs_mapping_pairs_fuzz", name + "-log", Cat(lowestVcn, kvfs::DataMappingPairs(image, 2)));
  }
  Save(root / "ntfs_log_file_fuzz", "two-restart-pages",
       Cat(kvfs::BuildRestartPage({.Count = 7, .Lsn = 100}), kvfs::BuildRestartPage({.Count = 8, .Lsn = 200})));
  Save(root / "ntfs_log_file_fuzz", "check-disk-page",
       Cat(kvfs::BuildRestartPage({.Count = 3, .Lsn = 9, .Signature = "CHKD", .AreaOffset = 0x40}),
           std::vector<uint8_t>(4096, 0xFF)));
  // Restart areas whose flags lie on a stride's last two bytes, where the protected page keeps
  // the update sequence number; a number with the clean flag's bit set (protecting counts the
  // stored 6 up to 7), so that a flag cleared there shows.
  const auto flagsOnStrideEnd = [](uint32_t count, uint16_t areaOffset) {
    std::vector<uint8_t> page = kvfs::BuildRestartPage({.Count = count, .Lsn = count, .Flags = 0x0003,
                                                        .AreaOffset = areaOffset});
    kvfs::UnprotectRecord(page);
    page[0x1E] = 6;
    page[0x1F] = 0;
    kvfs::ProtectRecord(page);
    return page;
  };
  Save(root / "ntfs_log_file_fuzz", "flags-on-stride-ends",
       Cat(flagsOnStrideEnd(5, 0x1F0), flagsOnStrideEnd(6, 0x3F0)));
  return 0;
}
