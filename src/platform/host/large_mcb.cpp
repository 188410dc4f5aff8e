// The FsRtl large MCB: a sorted map of a file's blocks (VBN) to the volume's (LBN).
//
// The map keeps only its mapped runs, sorted by VBN, merged where both VBNs and LBNs
// continue each other, in one pool block of the map's pool type (BASE_MCB.Mapping, with
// PairCount runs used of MaximumPairCount). Holes are the gaps between runs: they are
// reported as runs of LBN -1 and counted in run indices, as Windows does, but take no
// room. The map ends with its last mapped run.
#include <algorithm>
#include <cstdint>
#include <mutex>
#include <vector>

#include <ntifs.h>

#include "pool_internal.h"
#include "kvhost/verifier.h"

namespace {

constexpr ULONG kMcbTag = KV_POOL_TAG('F', 'S', 'm', 'c');
// BASE_MCB.Flags of a map FsRtlInitializeLargeMcb set up (Windows keeps its own bits
// there; drivers never read them).
constexpr USHORT kInitialized = 0x4D43;
constexpr ULONG kFirstCapacity = 8;
constexpr LONGLONG kHole = -1;

struct Run {
  LONGLONG Vbn;
  LONGLONG Lbn;
  LONGLONG Count;
  LONGLONG End() const { return Vbn + Count; }
};

// The routines synchronise themselves, as Windows' do with the map's guarded mutex; one
// lock for every map is plenty for a host.
std::mutex& McbLock() {
  static std::mutex* lock = new std::mutex;
  return *lock;
}

bool IsInitialized(PLARGE_MCB mcb, const char* routine) {
  if (mcb != nullptr && mcb->BaseMcb.Flags == kInitialized) return true;
  kvhost::ReportViolationF("LargeMcbNotInitialized", "%s on large MCB %p, which FsRtlInitializeLargeMcb did not set up",
                           routine, static_cast<void*>(mcb));
  return false;
}

std::vector<Run> RunsOf(PLARGE_MCB mcb) {
  auto* runs = static_cast<Run*>(mcb->BaseMcb.Mapping);
  return std::vector<Run>(runs, runs + mcb->BaseMcb.PairCount);
}

// Sorts and merges runs that overlap or touch with the same VBN-to-LBN offset.
std::vector<Run> Normalized(std::vector<Run> runs) {
  std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.Vbn < b.Vbn; });
  std::vector<Run> out;
  for (const Run& run : runs) {
    if (!out.empty()) {
      Run& last = out.back();
      if (run.Vbn <= last.End() && run.Lbn - run.Vbn == last.Lbn - last.Vbn) {
        last.Count = std::max(last.End(), run.End()) - last.Vbn;
        continue;
      }
    }
    out.push_back(run);
  }
  return out;
}

// Stores `runs` as the map, growing its block when needed; false (map unchanged) when the
// pool cannot give the room.
bool Store(PLARGE_MCB mcb, const std::vector<Run>& runs, const void* site, const char* routine) {
  PBASE_MCB base = &mcb->BaseMcb;
  if (runs.size() > base->MaximumPairCount) {
    ULONG capacity = std::max(kFirstCapacity, base->MaximumPairCount * 2);
    while (capacity < runs.size()) capacity *= 2;
    auto* grown = static_cast<Run*>(kvhost::detail::AllocatePool(static_cast<POOL_TYPE>(base->PoolType),
                                                                 capacity * sizeof(Run), kMcbTag,
                                                                 kvhost::detail::PoolFill::Pattern, site, routine));
    if (grown == nullptr) return false;
    if (base->Mapping != nullptr) kvhost::detail::FreePool(base->Mapping, kMcbTag, site, routine);
    base->Mapping = grown;
    base->MaximumPairCount = capacity;
  }
  std::copy(runs.begin(), runs.end(), static_cast<Run*>(base->Mapping));
  base->PairCount = static_cast<ULONG>(runs.size());
  return true;
}

// The runs with the range [vbn, end) taken out.
std::vector<Run> Without(const std::vector<Run>& runs, LONGLONG vbn, LONGLONG end) {
  std::vector<Run> out;
  for (const Run& run : runs) {
    if (run.End() <= vbn || run.Vbn >= end) {
      out.push_back(run);
      continue;
    }
    if (run.Vbn < vbn) out.push_back({run.Vbn, run.Lbn, vbn - run.Vbn});
    if (run.End() > end) out.push_back({end, run.Lbn + (end - run.Vbn), run.End() - end});
  }
  return out;
}

// The runs as Windows reports them, holes included.
struct ReportedRun {
  LONGLONG Vbn;
  LONGLONG Lbn;
  LONGLONG Count;
};

std::vector<ReportedRun> WithHoles(const std::vector<Run>& runs) {
  std::vector<ReportedRun> out;
  LONGLONG next = 0;
  for (const Run& run : runs) {
    if (run.Vbn > next) out.push_back({next, kHole, run.Vbn - next});
    out.push_back({run.Vbn, run.Lbn, run.Count});
    next = run.End();
  }
  return out;
}

}  // namespace

extern "C" {

VOID FsRtlInitializeLargeMcb(PLARGE_MCB Mcb, POOL_TYPE PoolType) {
  Mcb->GuardedMutex = nullptr;
  Mcb->BaseMcb.MaximumPairCount = 0;
  Mcb->BaseMcb.PairCount = 0;
  Mcb->BaseMcb.PoolType = static_cast<USHORT>(PoolType);
  Mcb->BaseMcb.Flags = kInitialized;
  Mcb->BaseMcb.Mapping = nullptr;
}

VOID FsRtlUninitializeLargeMcb(PLARGE_MCB Mcb) {
  std::lock_guard<std::mutex> guard(McbLock());
  if (!IsInitialized(Mcb, "FsRtlUninitializeLargeMcb")) return;
  if (Mcb->BaseMcb.Mapping != nullptr)
    kvhost::detail::FreePool(Mcb->BaseMcb.Mapping, kMcbTag, __builtin_return_address(0), "FsRtlUninitializeLargeMcb");
  Mcb->BaseMcb = BASE_MCB{};
}

VOID FsRtlResetLargeMcb(PLARGE_MCB Mcb, BOOLEAN SelfSynchronized) {
  UNREFERENCED_PARAMETER(SelfSynchronized);
  std::lock_guard<std::mutex> guard(McbLock());
  if (IsInitialized(Mcb, "FsRtlResetLargeMcb")) Mcb->BaseMcb.PairCount = 0;
}

VOID FsRtlTruncateLargeMcb(PLARGE_MCB Mcb, LONGLONG Vbn) {
  std::lock_guard<std::mutex> guard(McbLock());
  if (!IsInitialized(Mcb, "FsRtlTruncateLargeMcb")) return;
  // Truncating never splits more than the one run it cuts, which keeps its room.
  std::vector<Run> runs = Without(RunsOf(Mcb), std::max<LONGLONG>(Vbn, 0), INT64_MAX);
  Store(Mcb, runs, __builtin_return_address(0), "FsRtlTruncateLargeMcb");
}

BOOLEAN FsRtlAddLargeMcbEntry(PLARGE_MCB Mcb, LONGLONG Vbn, LONGLONG Lbn, LONGLONG SectorCount) {
  std::lock_guard<std::mutex> guard(McbLock());
  if (!IsInitialized(Mcb, "FsRtlAddLargeMcbEntry")) return FALSE;
  if (Vbn < 0 || Lbn < 0 || SectorCount <= 0 || Vbn > INT64_MAX - SectorCount || Lbn > INT64_MAX - SectorCount)
    return FALSE;
  std::vector<Run> runs = RunsOf(Mcb);
  for (const Run& run : runs) {
    const bool overlaps = run.Vbn < Vbn + SectorCount && Vbn < run.End();
    if (overlaps && run.Lbn - run.Vbn != Lbn - Vbn) return FALSE;
  }
  runs.push_back({Vbn, Lbn, SectorCount});
  return Store(Mcb, Normalized(std::move(runs)), __builtin_return_address(0), "FsRtlAddLargeMcbEntry") ? TRUE
                                                                                                      : FALSE;
}

VOID FsRtlRemoveLargeMcbEntry(PLARGE_MCB Mcb, LONGLONG Vbn, LONGLONG SectorCount) {
  std::lock_guard<std::mutex> guard(McbLock());
  if (!IsInitialized(Mcb, "FsRtlRemoveLargeMcbEntry")) return;
  if (SectorCount <= 0) return;
  const LONGLONG start = std::max<LONGLONG>(Vbn, 0);
  const LONGLONG end = Vbn > INT64_MAX - SectorCount ? INT64_MAX : Vbn + SectorCount;
  if (end <= start) return;
  Store(Mcb, Without(RunsOf(Mcb), start, end), __builtin_return_address(0), "FsRtlRemoveLargeMcbEntry");
}

BOOLEAN FsRtlLookupLargeMcbEntry(PLARGE_MCB Mcb, LONGLONG Vbn, PLONGLONG Lbn, PLONGLONG SectorCountFromLbn,
                                 PLONGLONG StartingLbn, PLONGLONG SectorCountFromStartingLbn, PULONG Index) {
  std::lock_guard<std::mutex> guard(McbLock());
  if (!IsInitialized(Mcb, "FsRtlLookupLargeMcbEntry") || Vbn < 0) return FALSE;
  const std::vector<ReportedRun> runs = WithHoles(RunsOf(Mcb));
  for (size_t i = 0; i < runs.size(); ++i) {
    const ReportedRun& run = runs[i];
    if (Vbn >= run.Vbn + run.Count) continue;
    const LONGLONG into = Vbn - run.Vbn;
    if (Lbn != nullptr) *Lbn = run.Lbn == kHole ? kHole : run.Lbn + into;
    if (SectorCountFromLbn != nullptr) *SectorCountFromLbn = run.Count - into;
    if (StartingLbn != nullptr) *StartingLbn = run.Lbn;
    if (SectorCountFromStartingLbn != nullptr) *SectorCountFromStartingLbn = run.Count;
    if (Index != nullptr) *Index = static_cast<ULONG>(i);
    return TRUE;
  }
  return FALSE;
}

BOOLEAN FsRtlLookupLastLargeMcbEntry(PLARGE_MCB Mcb, PLONGLONG Vbn, PLONGLONG Lbn) {
  std::lock_guard<std::mutex> guard(McbLock());
  if (!IsInitialized(Mcb, "FsRtlLookupLastLargeMcbEntry") || Mcb->BaseMcb.PairCount == 0) return FALSE;
  const Run& last = static_cast<Run*>(Mcb->BaseMcb.Mapping)[Mcb->BaseMcb.PairCount - 1];
  *Vbn = last.End() - 1;
  *Lbn = last.Lbn + last.Count - 1;
  return TRUE;
}

ULONG FsRtlNumberOfRunsInLargeMcb(PLARGE_MCB Mcb) {
  std::lock_guard<std::mutex> guard(McbLock());
  if (!IsInitialized(Mcb, "FsRtlNumberOfRunsInLargeMcb")) return 0;
  return static_cast<ULONG>(WithHoles(RunsOf(Mcb)).size());
}

BOOLEAN FsRtlGetNextLargeMcbEntry(PLARGE_MCB Mcb, ULONG RunIndex, PLONGLONG Vbn, PLONGLONG Lbn,
                                  PLONGLONG SectorCount) {
  std::lock_guard<std::mutex> guard(McbLock());
  if (!IsInitialized(Mcb, "FsRtlGetNextLargeMcbEntry")) return FALSE;
  const std::vector<ReportedRun> runs = WithHoles(RunsOf(Mcb));
  if (RunIndex >= runs.size()) return FALSE;
  *Vbn = runs[RunIndex].Vbn;
  *Lbn = runs[RunIndex].Lbn;
  *SectorCount = runs[RunIndex].Count;
  return TRUE;
}

}  // extern "C"
