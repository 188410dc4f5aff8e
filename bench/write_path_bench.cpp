// The write path's costs, each against a baseline measured in the same run.
//
// Marking the change bitmap (CbtSetBitsInTrackingBitmap): a rewrite of marked blocks, a new
// single block, a new 1 MiB range; alone and with two threads marking one volume. The
// baseline is one acquisition and release of the bitmap's spin lock, the least any marking
// pays.
//
// The filter's added cost per write: the same stream of writes sent to a memory-backed
// volume straight and through the driver's filter, with a file-system context so that each
// write is tracked, in alternating rounds of one run.
#include <benchmark/benchmark.h>
#include <wdm.h>

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "driver/cbt_device_extension.h"
#include "driver/cbt_driver.h"
#include "kvhost/io.h"
#include "kvhost/registry.h"
#include "kvhost/verifier.h"
#include "test_volume.h"
#include "tracking/cbt_tracking.h"

namespace {

constexpr char16_t kServiceKey[] = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kvcbt";
constexpr ULONG kBenchTag = KV_POOL_TAG('B', 'n', 'c', 'h');
constexpr ULONG kBytesPerBit = 65536;  // the block of every volume up to about 200 GiB
constexpr ULONG kVolumeBytes = 16 << 20;
constexpr ULONG kLargestWrite = 64 * 1024;
// Marking benchmarks use a bitmap of their own size, far larger than the volume behind it:
// a new bit is found for many millions of marks before the bitmap is cleared again.
constexpr ULONG kMarkingBits = 1u << 24;

NTSTATUS SignalAndKeep(PDEVICE_OBJECT, PIRP, PVOID context) {
  KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS KeepRequest(PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_MORE_PROCESSING_REQUIRED; }

NTSTATUS SendPnp(PDEVICE_OBJECT top, UCHAR minor) {
  PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
  irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = IRP_MJ_PNP;
  sp->MinorFunction = minor;
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoSetCompletionRoutine(irp, SignalAndKeep, &done, TRUE, TRUE, TRUE);
  IoCallDriver(top, irp);
  KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  const NTSTATUS status = irp->IoStatus.Status;
  IoFreeIrp(irp);
  return status;
}

// The driver loaded, one memory-backed volume with the driver's filter on it, given what the
// file system's initialisation gives a volume (geometry, bitmap, file-system context,
// online), and MDLs over a buffer for the writes.
class TrackedVolumeMachine {
 public:
  explicit TrackedVolumeMachine(ULONG bitCount = kVolumeBytes / kBytesPerBit) {
    kvhost::BeginTest();
    kvhost::CreateRegistryKey(kServiceKey);
    volumeDriver_ = kvtest::LoadTestVolumeDriver();
    driver_ = kvhost::IoLoadDriver(u"kvcbt", DriverEntry, kServiceKey).DriverObject;
    kvhost::IoRunBootDriverReinitialization();
    kvtest::VolumeSpec spec = kvtest::FixedVolume(1);
    spec.Size = kVolumeBytes;
    volume_ = kvtest::CreateTestVolume(volumeDriver_, spec);
    driver_->DriverExtension->AddDevice(driver_, volume_->Device);
    filter_ = volume_->Device->AttachedDevice;
    SendPnp(filter_, IRP_MN_START_DEVICE);

    extension_ = CbtExtensionOf(filter_);
    KeWaitForSingleObject(&extension_->FileSystemMutex, Executive, KernelMode, FALSE, nullptr);
    CbtAllocateTrackingBitMap(extension_, bitCount);
    KeSetEvent(&extension_->FileSystemMutex, IO_NO_INCREMENT, FALSE);
    extension_->BytesPerBit = kBytesPerBit;
    extension_->BitCount = bitCount;
    extension_->VolumeSize = kVolumeBytes;
    extension_->FileSystemType = CBT_FILE_SYSTEM_NTFS;
    // A reader that recognised nothing yet: its lock is what the teardown at removal waits on.
    KeInitializeSemaphore(&extension_->FileSystemContext.Ntfs.Lock, 1, 1);
    CbtSetFlags(extension_, CBT_FLAG_FS_CONTEXT | CBT_FLAG_ONLINE | CBT_FLAG_FILE_SYSTEM_READABLE);

    buffer_ = ExAllocatePoolWithTag(NonPagedPoolNx, kLargestWrite, kBenchTag);
    RtlFillMemory(buffer_, kLargestWrite, 0x5A);
  }

  ~TrackedVolumeMachine() {
    ExFreePoolWithTag(buffer_, kBenchTag);
    SendPnp(filter_, IRP_MN_REMOVE_DEVICE);
    kvtest::DeleteTestVolume(volume_);
    kvhost::IoUnloadDriver(driver_);
    kvtest::UnloadTestVolumeDriver(volumeDriver_);
    for (const std::string& problem : kvhost::EndTest()) std::fprintf(stderr, "left behind: %s\n", problem.c_str());
  }

  PCBT_DEVICE_EXTENSION Extension() const { return extension_; }
  PDEVICE_OBJECT Volume() const { return volume_->Device; }
  PDEVICE_OBJECT Filter() const { return filter_; }
  PVOID Buffer() const { return buffer_; }

  // Clears the bitmap, as a flush-and-hold does, so that marks find new bits again.
  void ClearBitmap() {
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&extension_->BitmapLock);
    RtlClearAllBits(&extension_->TrackingBitmap);
    KeReleaseSpinLock(&extension_->BitmapLock, irql);
  }

 private:
  PDRIVER_OBJECT volumeDriver_ = nullptr;
  PDRIVER_OBJECT driver_ = nullptr;
  kvtest::TestVolume* volume_ = nullptr;
  PDEVICE_OBJECT filter_ = nullptr;
  PCBT_DEVICE_EXTENSION extension_ = nullptr;
  PVOID buffer_ = nullptr;
};

// ---------------------------------------------------------------------------------------
// Marking.

// Costs are read from the thread's processor time: the machine is shared, and time spent
// waiting for a processor is no cost of the code measured. Every write here completes in
// the sending thread, so its processor time is all the write costs.
double ThreadNanoseconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e9 + static_cast<double>(now.tv_nsec);
}

// One acquisition and release of the bitmap's lock, in nanoseconds.
double LockPairNanoseconds(PCBT_DEVICE_EXTENSION extension) {
  constexpr int kPairs = 2000000;
  const double start = ThreadNanoseconds();
  for (int i = 0; i < kPairs; ++i) {
    const KIRQL irql = KeAcquireSpinLockRaiseToDpc(&extension->BitmapLock);
    benchmark::DoNotOptimize(extension->TrackingBitmap.Buffer);
    KeReleaseSpinLock(&extension->BitmapLock, irql);
  }
  return (ThreadNanoseconds() - start) / kPairs;
}

// The machine the threads of one marking benchmark share; the first thread builds it before
// the timed loop and takes it down after it (Google Benchmark starts and stops the threads'
// loops together).
TrackedVolumeMachine* g_marking = nullptr;

enum class Mark { AlreadySet, NewBit, NewMebibyte };

void BM_MarkBitmap(benchmark::State& state, Mark mark) {
  if (state.thread_index() == 0) g_marking = new TrackedVolumeMachine(kMarkingBits);
  // Two threads mark interleaved blocks, so each mark of a new block sets a bit nobody set.
  const ULONG threads = static_cast<ULONG>(state.threads());
  const ULONG self = static_cast<ULONG>(state.thread_index());
  const ULONG length = mark == Mark::NewMebibyte ? 1u << 20 : 4096;
  const ULONG blocksPerMark = mark == Mark::NewMebibyte ? (1u << 20) / kBytesPerBit : 1;
  ULONGLONG block = self * blocksPerMark;
  ULONG newMarks = 0;

  const double start = ThreadNanoseconds();
  for (auto _ : state) {
    if (mark == Mark::AlreadySet) {
      benchmark::DoNotOptimize(CbtSetBitsInTrackingBitmap(g_marking->Extension(), 0, length, FALSE));
      continue;
    }
    if (block + blocksPerMark > kMarkingBits) {
      // Rarely: once every several million marks.
      if (self == 0) g_marking->ClearBitmap();
      block = self * blocksPerMark;
    }
    newMarks += CbtSetBitsInTrackingBitmap(g_marking->Extension(), static_cast<LONGLONG>(block * kBytesPerBit),
                                           length, FALSE);
    block += threads * blocksPerMark;
  }
  const double markNs = (ThreadNanoseconds() - start) / static_cast<double>(state.iterations());
  state.counters["mark_ns"] = benchmark::Counter(markNs, benchmark::Counter::kAvgThreads);
  if (mark != Mark::AlreadySet)
    state.counters["new_fraction"] = benchmark::Counter(static_cast<double>(newMarks) / state.iterations(),
                                                        benchmark::Counter::kAvgThreads);
  if (state.thread_index() == 0) {
    const double lockNs = LockPairNanoseconds(g_marking->Extension());
    state.counters["lock_pair_ns"] = lockNs;
    state.counters["mark_vs_lock_pair"] = markNs / lockNs;
    delete g_marking;
    g_marking = nullptr;
  }
}
BENCHMARK_CAPTURE(BM_MarkBitmap, already_set, Mark::AlreadySet)->Threads(1)->Threads(2);
BENCHMARK_CAPTURE(BM_MarkBitmap, new_bit, Mark::NewBit)->Threads(1)->Threads(2);
BENCHMARK_CAPTURE(BM_MarkBitmap, new_1MiB, Mark::NewMebibyte)->Threads(1)->Threads(2);

// ---------------------------------------------------------------------------------------
// The filter's added cost per write.

// One write, as a driver above sends its own: allocated, sent, kept by its completion
// routine, freed.
void SendWrite(PDEVICE_OBJECT target, PMDL mdl, ULONG length, LONGLONG offset) {
  PIRP irp = IoAllocateIrp(target->StackSize, FALSE);
  irp->MdlAddress = mdl;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = IRP_MJ_WRITE;
  sp->Parameters.Write.Length = length;
  sp->Parameters.Write.ByteOffset.QuadPart = offset;
  IoSetCompletionRoutine(irp, KeepRequest, nullptr, TRUE, TRUE, TRUE);
  IoCallDriver(target, irp);
  benchmark::DoNotOptimize(irp->IoStatus.Status);
  irp->MdlAddress = nullptr;
  IoFreeIrp(irp);
}

// The stream: consecutive writes of `length` through the whole volume, again and again.
double NanosecondsPerWrite(PDEVICE_OBJECT target, PMDL mdl, ULONG length, int count) {
  LONGLONG offset = 0;
  const double start = ThreadNanoseconds();
  for (int i = 0; i < count; ++i) {
    SendWrite(target, mdl, length, offset);
    offset = (offset + length) % kVolumeBytes;
  }
  return (ThreadNanoseconds() - start) / count;
}

void BM_WriteStream(benchmark::State& state) {
  const ULONG length = static_cast<ULONG>(state.range(0));
  TrackedVolumeMachine machine;
  PMDL mdl = IoAllocateMdl(machine.Buffer(), length, FALSE, FALSE, nullptr);
  MmBuildMdlForNonPagedPool(mdl);
  LONGLONG offset = 0;
  for (auto _ : state) {
    SendWrite(machine.Filter(), mdl, length, offset);
    offset = (offset + length) % kVolumeBytes;
  }

  // Both paths side by side, in alternating rounds, for the ratio. The bitmap is cleared
  // before each filtered round, so every round marks each block of the volume anew once.
  // This machine's speed drifts from one moment to the next (a shared virtual processor),
  // so each round's ratio is taken from its own pair of runs, and the median round is the
  // figure: a burst of slowness that hits one run of a pair moves one round, not the result.
  constexpr int kRounds = 21;
  const int writes = length <= 4096 ? 20000 : 5000;
  std::vector<double> direct, filtered, ratios;
  for (int round = 0; round < kRounds; ++round) {
    direct.push_back(NanosecondsPerWrite(machine.Volume(), mdl, length, writes));
    machine.ClearBitmap();
    filtered.push_back(NanosecondsPerWrite(machine.Filter(), mdl, length, writes));
    ratios.push_back(filtered.back() / direct.back());
  }
  auto median = [](std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
  };
  state.counters["direct_ns"] = median(direct);
  state.counters["filtered_ns"] = median(filtered);
  state.counters["filtered_vs_direct"] = median(ratios);
  state.counters["tracked_writes"] = static_cast<double>(machine.Extension()->TrackedWriteCount);
  IoFreeMdl(mdl);
}
BENCHMARK(BM_WriteStream)->Arg(4096)->Arg(65536);

}  // namespace
