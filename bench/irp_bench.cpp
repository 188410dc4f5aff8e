// The cost of one request through the I/O manager: a 4 KiB read allocated, sent through a
// pass-through filter to a RAM disk that completes it inline, and freed. The baseline, in
// the same run, is the same request sent straight to the disk; the difference is what one
// filter layer costs, and it bounds what a write-path benchmark can show.
#include <benchmark/benchmark.h>
#include <wdm.h>

#include <chrono>
#include <cstdio>

#include "kvhost/io.h"
#include "kvhost/verifier.h"
#include "test_drivers.h"

namespace {

constexpr ULONG kBenchTag = KV_POOL_TAG('B', 'n', 'c', 'h');
constexpr ULONG kTransferBytes = 4096;

// A machine with one RAM disk and a pass-through filter above it, for the benchmark's run.
class FilteredDisk {
 public:
  FilteredDisk() {
    kvhost::BeginTest();
    ram_ = kvhost::IoLoadDriver(u"RamDisk", RamDiskDriverEntry).DriverObject;
    filter_ = kvhost::IoLoadDriver(u"TestFilter", TestFilterDriverEntry).DriverObject;
    WCHAR name[] = L"\\Device\\RamDisk0";
    UNICODE_STRING counted = {sizeof(name) - sizeof(WCHAR), sizeof(name), name};
    RamDiskCreate(ram_, &counted, 64 * 1024, DO_DIRECT_IO, RamDiskCompleteInline, &disk_);
    TestFilterAttach(filter_, disk_, FilterPassThrough, &top_);
    buffer_ = ExAllocatePoolWithTag(NonPagedPoolNx, kTransferBytes, kBenchTag);
    mdl_ = IoAllocateMdl(buffer_, kTransferBytes, FALSE, FALSE, nullptr);
    MmBuildMdlForNonPagedPool(mdl_);
  }

  ~FilteredDisk() {
    IoFreeMdl(mdl_);
    ExFreePoolWithTag(buffer_, kBenchTag);
    kvhost::IoUnloadDriver(filter_);
    kvhost::IoUnloadDriver(ram_);
    for (const std::string& problem : kvhost::EndTest()) std::fprintf(stderr, "left behind: %s\n", problem.c_str());
  }

  PDEVICE_OBJECT Disk() const { return disk_; }
  PDEVICE_OBJECT Top() const { return top_; }
  PMDL Mdl() const { return mdl_; }

 private:
  PDRIVER_OBJECT ram_ = nullptr;
  PDRIVER_OBJECT filter_ = nullptr;
  PDEVICE_OBJECT disk_ = nullptr;
  PDEVICE_OBJECT top_ = nullptr;
  PVOID buffer_ = nullptr;
  PMDL mdl_ = nullptr;
};

NTSTATUS KeepRequest(PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_MORE_PROCESSING_REQUIRED; }

// One read, as a driver sends its own: allocated, sent, kept by its completion routine, freed.
void SendRead(PDEVICE_OBJECT target, PMDL mdl) {
  PIRP irp = IoAllocateIrp(target->StackSize, FALSE);
  irp->MdlAddress = mdl;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = IRP_MJ_READ;
  sp->Parameters.Read.Length = kTransferBytes;
  sp->Parameters.Read.ByteOffset.QuadPart = 0;
  IoSetCompletionRoutine(irp, KeepRequest, nullptr, TRUE, TRUE, TRUE);
  IoCallDriver(target, irp);
  benchmark::DoNotOptimize(irp->IoStatus.Status);
  irp->MdlAddress = nullptr;
  IoFreeIrp(irp);
}

double NanosecondsPerRead(PDEVICE_OBJECT target, PMDL mdl, int count) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < count; ++i) SendRead(target, mdl);
  const std::chrono::duration<double, std::nano> spent = std::chrono::steady_clock::now() - start;
  return spent.count() / count;
}

void BM_ReadStraightToRamDisk(benchmark::State& state) {
  FilteredDisk machine;
  for (auto _ : state) SendRead(machine.Disk(), machine.Mdl());
}
BENCHMARK(BM_ReadStraightToRamDisk);

void BM_ReadThroughPassThroughFilter(benchmark::State& state) {
  FilteredDisk machine;
  for (auto _ : state) SendRead(machine.Top(), machine.Mdl());
  // Both paths measured again side by side, in alternating rounds, for the ratio.
  double direct = 0, filtered = 0;
  constexpr int kRounds = 10, kReads = 20000;
  for (int round = 0; round < kRounds; ++round) {
    direct += NanosecondsPerRead(machine.Disk(), machine.Mdl(), kReads);
    filtered += NanosecondsPerRead(machine.Top(), machine.Mdl(), kReads);
  }
  state.counters["direct_ns"] = direct / kRounds;
  state.counters["filtered_ns"] = filtered / kRounds;
  state.counters["filtered_vs_direct"] = filtered / direct;
}
BENCHMARK(BM_ReadThroughPassThroughFilter);

}  // namespace

BENCHMARK_MAIN();
