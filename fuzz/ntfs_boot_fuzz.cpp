// The NTFS reader from the boot sector on: the input's first 512 bytes are the volume's boot
// sector, the rest is placed where that boot sector says $MFT begins. The reader recognises
// the volume (or refuses it), reads the label and the restart count, and tears down.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "ntfs_fuzz_volume.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvfuzz;
  if (size < 512) return 0;
  FuzzDisk& disk = FuzzDisk::Instance();
  uint16_t bytesPerSector;
  std::memcpy(&bytesPerSector, data + 0x0B, 2);
  disk.Reset(64ull << 20, bytesPerSector == 4096 ? 4096 : 512);
  disk.Write(0, data, 512);
  // Where the reader will look for $MFT, computed from the same fields (clamped: the disk
  // ignores what lies beyond it).
  int64_t mftLcn;
  std::memcpy(&mftLcn, data + 0x30, 8);
  const uint8_t code = data[0x0D];
  const uint64_t sectorsPerCluster = code > 128 ? (1ull << ((256u - code) % 32u)) : code;
  const uint64_t mftOffset = static_cast<uint64_t>(mftLcn) * sectorsPerCluster * disk.SectorSize();
  if (mftLcn >= 0 && sectorsPerCluster != 0 && mftOffset / sectorsPerCluster / disk.SectorSize() ==
                                                   static_cast<uint64_t>(mftLcn))
    disk.Write(mftOffset, data + 512, size - 512);

  const size_t mark = PoolMark();
  static NTFS_VOLUME_CONTEXT context;
  NTSTATUS status = NtfsInitialize(disk.Device(), 0, 1, L'F', &context);
  ExpectReaderStatus(status, "NtfsInitialize");
  if (NT_SUCCESS(status)) {
    UNICODE_STRING label;
    status = NtfsQueryVolumeName(&context, &label);
    ExpectReaderStatus(status, "NtfsQueryVolumeName");
    if (NT_SUCCESS(status) && label.Buffer != nullptr) ExFreePoolWithTag(label.Buffer, NTFS_POOL_TAG);
    ULONG count;
    ExpectReaderStatus(NtfsQueryLogFileRestartCount(&context, &count), "NtfsQueryLogFileRestartCount");
    NtfsUninitialize(&context);
  }
  AbortOnLeak(mark, "the boot sector and $MFT path");
  return 0;
}
