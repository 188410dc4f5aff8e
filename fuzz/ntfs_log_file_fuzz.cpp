// $LogFile restart pages, both ways: the input is the start of a volume's $LogFile (read by
// the restart-count query), and the data of a write (looked at by the write-side check,
// from a buffer of exactly the write's size).
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ntfs_fuzz_volume.h"

namespace {

constexpr ULONG kLogClusters = 16;
constexpr ULONG kFuzzTag = KV_POOL_TAG('F', 'u', 'z', 'z');

void CheckWrite(const uint8_t* data, size_t size) {
  if (size == 0) return;
  PVOID buffer = ExAllocatePoolWithTag(NonPagedPoolNx, size, kFuzzTag);
  std::memcpy(buffer, data, size);
  PMDL mdl = IoAllocateMdl(buffer, static_cast<ULONG>(size), FALSE, FALSE, nullptr);
  MmBuildMdlForNonPagedPool(mdl);
  PIRP irp = IoAllocateIrp(1, FALSE);
  irp->MdlAddress = mdl;
  ULONG count = 0;
  const BOOLEAN restart = NtfsIsLogFileRestartCountIrp(nullptr, irp, &count);
  // Only a recognised restart page may change, and only in its flags' clean bit.
  size_t changed = 0;
  for (size_t i = 0; i < size; ++i) changed += static_cast<const uint8_t*>(buffer)[i] != data[i];
  if ((!restart && changed != 0) || changed > 1) {
    std::fprintf(stderr, "the write-side check changed %zu bytes (restart page: %d)\n", changed, restart);
    std::abort();
  }
  // A page that read whole before the change reads whole after it, its restart area's flags
  // without the clean bit: the bit goes wherever the page keeps the flags on its way to the
  // disk, never onto a stride's update sequence number. Flags past the first page are under
  // another page's protection, which this does not undo.
  if (restart) {
    const ULONG pageBytes = static_cast<ULONG>(std::min<size_t>(size, 4096));
    uint16_t areaOffset;
    std::memcpy(&areaOffset, &data[0x18], 2);
    std::vector<uint8_t> before(data, data + pageBytes);
    std::vector<uint8_t> after(static_cast<const uint8_t*>(buffer), static_cast<const uint8_t*>(buffer) + pageBytes);
    if (areaOffset + 0x10u <= pageBytes && NT_SUCCESS(NtfsApplyUpdateSequence(before.data(), pageBytes))) {
      if (!NT_SUCCESS(NtfsApplyUpdateSequence(after.data(), pageBytes))) {
        std::fprintf(stderr, "the write-side check tore the page\n");
        std::abort();
      }
      uint16_t flagsBefore, flagsAfter;
      std::memcpy(&flagsBefore, &before[areaOffset + 0x0E], 2);
      std::memcpy(&flagsAfter, &after[areaOffset + 0x0E], 2);
      if (flagsAfter != (flagsBefore & ~0x0002)) {
        std::fprintf(stderr, "the restart area's flags read 0x%04X, not 0x%04X\n", flagsAfter, flagsBefore & ~0x0002);
        std::abort();
      }
    }
  }
  irp->MdlAddress = nullptr;
  IoFreeIrp(irp);
  IoFreeMdl(mdl);
  ExFreePoolWithTag(buffer, kFuzzTag);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kvfuzz;
  const size_t mark = PoolMark();
  CheckWrite(data, size);

  FuzzDisk& disk = FuzzDisk::Instance();
  SyntheticVolume::Build(disk, kLogClusters);
  // The rest of the log reads as a reset log would: all 0xFF.
  std::vector<uint8_t> log(kLogClusters * SyntheticVolume::kClusterSize, 0xFF);
  std::memcpy(log.data(), data, std::min(size, log.size()));
  disk.Write(SyntheticVolume::kLogFileLcn * SyntheticVolume::kClusterSize, log.data(), log.size());

  static NTFS_VOLUME_CONTEXT context;
  const NTSTATUS status = NtfsInitialize(disk.Device(), 0, 1, L'F', &context);
  if (!NT_SUCCESS(status)) {
    std::fprintf(stderr, "the synthetic volume is not recognised: 0x%08X\n", static_cast<unsigned>(status));
    std::abort();
  }
  ULONG count = 0;
  ExpectReaderStatus(NtfsQueryLogFileRestartCount(&context, &count), "NtfsQueryLogFileRestartCount");
  NtfsUninitialize(&context);
  AbortOnLeak(mark, "the restart pages");
  return 0;
}
