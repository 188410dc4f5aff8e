// The cost of taking the $LogFile restart count when a volume's file system is initialised:
// the reader is set up on the volume device (boot sector, $MFT's record) and reads the whole
// 64 MiB $LogFile through its cluster map. The baseline, in the same run, is a plain
// sequential read of the same bytes from the same device, in requests of the same size,
// straight into one buffer; the difference is what the reader adds to the disk reads.
//
// The volume is a 13 GiB NTFS image made by mkntfs (above 12 GiB it gives a 64 MiB
// $LogFile), on a volume of the simulated machine held in memory.
#include <benchmark/benchmark.h>
#include <ntifs.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>

#include "fs/cbt_ntfs.h"
#include "kvhost/verifier.h"
#include "kvtestbed/machine.h"
#include "ntfs_fixture.h"

namespace {

constexpr ULONG kBenchTag = KV_POOL_TAG('B', 'n', 'c', 'h');
// The reader's batch: both sides read in requests of this size.
constexpr ULONG kRequestBytes = 64 * 1024;
constexpr int64_t kLogFileBytes = 64ll << 20;

// A machine with one volume holding the image, for the benchmark's run.
class LogFileVolume {
 public:
  LogFileVolume() {
    kvhost::BeginTest();
    const std::string image = kvfs::NtfsImage({.SizeBytes = 13ull << 30, .ClusterSize = 4096, .Label = "Bench"});
    layout_ = kvfs::ReadLogFileLayout(image);
    kvtestbed::MachineConfig machineConfig;
    machineConfig.VolumeUpperFilters = {};  // the volume device alone, as the reader sees it
    machine_ = std::make_unique<kvtestbed::Machine>(machineConfig);
    kvtestbed::VolumeConfig config;
    config.SizeBytes = 13ull << 30;
    std::string error;
    volume_ = machine_->AddVolume(config, &error);
    if (volume_ == nullptr) {
      std::fprintf(stderr, "volume: %s\n", error.c_str());
      return;
    }
    for (const kvfs::ImagePiece& piece : kvfs::ReadImagePieces(image)) volume_->WriteDirect(piece.Offset, piece.Data);
    if (machine_->Boot() != STATUS_SUCCESS) volume_ = nullptr;
  }

  ~LogFileVolume() {
    machine_.reset();
    for (const std::string& problem : kvhost::EndTest()) std::fprintf(stderr, "left behind: %s\n", problem.c_str());
  }

  // Why the run cannot measure what it should, or "".
  std::string Problem() const {
    if (volume_ == nullptr) return "the volume could not be made";
    if (layout_.Size != kLogFileBytes) return "$LogFile is " + std::to_string(layout_.Size) + " bytes";
    return "";
  }
  PDEVICE_OBJECT Device() const { return volume_->Device(); }
  const kvfs::LogFileLayout& Layout() const { return layout_; }

 private:
  std::unique_ptr<kvtestbed::Machine> machine_;
  kvtestbed::Volume* volume_ = nullptr;
  kvfs::LogFileLayout layout_;
};

// What initialisation does for the count: set up, query, tear down.
void ReadRestartCount(PDEVICE_OBJECT device) {
  NTFS_VOLUME_CONTEXT context = {};
  NTSTATUS status = NtfsInitialize(device, 0, 1, L'B', &context);
  ULONG count = 0;
  if (NT_SUCCESS(status)) {
    status = NtfsQueryLogFileRestartCount(&context, &count);
    NtfsUninitialize(&context);
  }
  if (!NT_SUCCESS(status)) std::fprintf(stderr, "the reader failed: 0x%08X\n", static_cast<unsigned>(status));
  benchmark::DoNotOptimize(count);
}

// The log's bytes read in order, each request straight into its place in one buffer.
void ReadLogFileBytes(PDEVICE_OBJECT device, const kvfs::LogFileLayout& layout) {
  auto* buffer = static_cast<PUCHAR>(ExAllocatePoolWithTag(PagedPool, static_cast<SIZE_T>(layout.Size), kBenchTag));
  PUCHAR next = buffer;
  for (const kvfs::LogFileRun& run : layout.Runs) {
    const int64_t runBytes = run.Clusters * layout.ClusterSize;
    if (run.Lcn < 0) {  // a hole reads as zeros
      RtlZeroMemory(next, static_cast<SIZE_T>(runBytes));
      next += runBytes;
      continue;
    }
    for (int64_t done = 0; done < runBytes;) {
      const ULONG bytes = static_cast<ULONG>(std::min<int64_t>(kRequestBytes, runBytes - done));
      LARGE_INTEGER offset;
      offset.QuadPart = run.Lcn * layout.ClusterSize + done;
      KEVENT event;
      KeInitializeEvent(&event, NotificationEvent, FALSE);
      IO_STATUS_BLOCK iosb;
      PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_READ, device, next, bytes, &offset, &event, &iosb);
      if (IoCallDriver(device, irp) == STATUS_PENDING) KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
      if (!NT_SUCCESS(iosb.Status)) std::fprintf(stderr, "a read failed: 0x%08X\n", static_cast<unsigned>(iosb.Status));
      next += bytes;
      done += bytes;
    }
  }
  ExFreePoolWithTag(buffer, kBenchTag);
}

template <typename Read>
double MillisecondsFor(Read read) {
  const auto start = std::chrono::steady_clock::now();
  read();
  const std::chrono::duration<double, std::milli> spent = std::chrono::steady_clock::now() - start;
  return spent.count();
}

void BM_ReadLogFileSequentially(benchmark::State& state) {
  LogFileVolume volume;
  if (!volume.Problem().empty()) {
    state.SkipWithError(volume.Problem().c_str());
    return;
  }
  for (auto _ : state) ReadLogFileBytes(volume.Device(), volume.Layout());
  state.SetBytesProcessed(state.iterations() * kLogFileBytes);
}
BENCHMARK(BM_ReadLogFileSequentially)->Unit(benchmark::kMillisecond);

void BM_QueryRestartCountAtInitialisation(benchmark::State& state) {
  LogFileVolume volume;
  if (!volume.Problem().empty()) {
    state.SkipWithError(volume.Problem().c_str());
    return;
  }
  for (auto _ : state) ReadRestartCount(volume.Device());
  state.SetBytesProcessed(state.iterations() * kLogFileBytes);
  // Both measured again side by side, in alternating rounds, for the ratio.
  double plain = 0, reader = 0;
  constexpr int kRounds = 8;
  for (int round = 0; round < kRounds; ++round) {
    plain += MillisecondsFor([&] { ReadLogFileBytes(volume.Device(), volume.Layout()); });
    reader += MillisecondsFor([&] { ReadRestartCount(volume.Device()); });
  }
  state.counters["plain_ms"] = plain / kRounds;
  state.counters["reader_ms"] = reader / kRounds;
  state.counters["reader_vs_plain"] = reader / plain;
}
BENCHMARK(BM_QueryRestartCountAtInitialisation)->Unit(benchmark::kMillisecond);

}  // namespace
