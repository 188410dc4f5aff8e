// IRP allocation, reuse and freeing, the table of live IRPs, and the end-of-test report of
// IRPs left behind.
//
// An IRP comes from non-paged pool (tag "Irp "), so the kernel core's fault injection and
// leak accounting see it like any allocation; the block holds an IrpHeader, the IRP and its
// stack locations.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <thread>
#include <unordered_map>

#include "io_internal.h"
#include "kvhost/io.h"
#include "kvhost/verifier.h"

namespace kvhost::io {
namespace {

constexpr uint64_t kDeadIrpMagic = 0x4441454454534F48ULL;

// What is remembered of a freed IRP, to name it when it is used again.
struct FreedIrp {
  PIRP Irp = nullptr;
  uint64_t Serial = 0;
  UCHAR Major = 0;
  PDEVICE_OBJECT Device = nullptr;
};

struct IrpTable {
  std::mutex Lock;
  std::unordered_map<PIRP, IrpHeader*> Live;
  std::array<FreedIrp, 64> Freed{};
  size_t FreedNext = 0;
  uint64_t Allocated = 0;
  // IRPs freed while a host frame still pinned them: their memory goes with the last pin.
  std::atomic<uint64_t> AwaitingRelease{0};
};

IrpTable& Table() {
  static IrpTable* table = new IrpTable;  // outlives late worker threads
  return *table;
}

void ReleaseMemory(IrpHeader* header) {
  header->Magic = kDeadIrpMagic;
  FreeIoPool(header, kIrpTag, "IoFreeIrp");
}

const FreedIrp* FindFreed(IrpTable& table, PIRP irp) {
  for (const FreedIrp& f : table.Freed)
    if (f.Irp == irp) return &f;
  return nullptr;
}

std::string DescribeFreed(const FreedIrp& f) {
  char text[96];
  std::snprintf(text, sizeof text, "IRP %p (#%llu, %s), already freed, last sent to ", f.Irp,
                static_cast<unsigned long long>(f.Serial), MajorFunctionName(f.Major));
  return text + DescribeDevice(f.Device);
}

const char* StateText(IrpState state) {
  switch (state) {
    case IrpState::Idle:
      return "was never sent or freed";
    case IrpState::Dispatched:
      return "was never completed";
    case IrpState::Completing:
      return "is still being completed";
    case IrpState::Held:
      return "was kept by a completion routine (STATUS_MORE_PROCESSING_REQUIRED) and never freed or completed";
    case IrpState::Finished:
      return "was completed back to its owner and never freed";
  }
  return "is in an unknown state";
}

std::function<void(const kvhost::IrpCompletion&)>& Observer() {
  static auto* observer = new std::function<void(const kvhost::IrpCompletion&)>;
  return *observer;
}
std::atomic<bool> g_observerSet{false};

}  // namespace

PIRP AllocateIrp(CCHAR stackSize, IrpOrigin origin, void* caller) {
  if (stackSize < 1) {
    ReportViolationF("IrpBadStackSize", "IoAllocateIrp asked for %d stack locations", stackSize);
    return nullptr;
  }
  const size_t bytes = sizeof(IrpHeader) + IoSizeOfIrp(stackSize);
  void* block = AllocateIoPool(bytes, kIrpTag, caller, "IoAllocateIrp");
  if (block == nullptr) return nullptr;
  auto* header = new (block) IrpHeader{};
  header->Magic = kIrpMagic;
  header->Origin = origin;
  header->PriorityHint = IoPriorityNormal;
  header->AllocatedBy = caller;
  auto* irp = reinterpret_cast<PIRP>(header + 1);
  irp->Type = IO_TYPE_IRP;
  irp->Size = IoSizeOfIrp(stackSize);
  irp->StackCount = stackSize;
  irp->CurrentLocation = static_cast<CHAR>(stackSize + 1);
  irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1) + stackSize;
  InitializeListHead(&irp->ThreadListEntry);
  IrpTable& table = Table();
  std::lock_guard<std::mutex> guard(table.Lock);
  header->Serial = ++table.Allocated;
  table.Live.emplace(irp, header);
  return irp;
}

IrpHeader* CheckedHeader(PIRP irp, const char* routine, const char* freedCheck) {
  IrpTable& table = Table();
  std::unique_lock<std::mutex> guard(table.Lock);
  auto it = table.Live.find(irp);
  if (it != table.Live.end()) return it->second;
  const FreedIrp* freed = irp != nullptr ? FindFreed(table, irp) : nullptr;
  std::string what = freed != nullptr ? DescribeFreed(*freed) : std::string();
  guard.unlock();
  if (irp == nullptr)
    ReportViolationF("IrpNullPointer", "%s called with a NULL IRP", routine);
  else if (!what.empty())
    ReportViolation(freedCheck, std::string(routine) + " on " + what);
  else
    ReportViolationF("IrpNotAnIrp", "%s on %p, which is not an IRP the I/O manager allocated", routine, irp);
  return nullptr;
}

bool FreeIrp(PIRP irp, const char* routine) {
  IrpTable& table = Table();
  IrpHeader* header = nullptr;
  {
    std::unique_lock<std::mutex> guard(table.Lock);
    auto it = table.Live.find(irp);
    if (it == table.Live.end()) {
      guard.unlock();
      CheckedHeader(irp, routine);  // reports what it was
      return false;
    }
    header = it->second;
    table.Live.erase(it);
    PIO_STACK_LOCATION sp = DescribingLocation(irp);
    table.Freed[table.FreedNext] = {irp, header->Serial, sp != nullptr ? sp->MajorFunction : UCHAR(0),
                                    sp != nullptr ? sp->DeviceObject : nullptr};
    table.FreedNext = (table.FreedNext + 1) % table.Freed.size();
  }
  uint32_t before = header->Pins.fetch_or(kFreeRequested, std::memory_order_acq_rel);
  if ((before & ~kFreeRequested) == 0)
    ReleaseMemory(header);
  else
    table.AwaitingRelease.fetch_add(1, std::memory_order_acq_rel);
  return true;
}

void UnpinIrp(IrpHeader* header) {
  uint32_t before = header->Pins.fetch_sub(1, std::memory_order_acq_rel);
  if (before == (kFreeRequested | 1)) {
    ReleaseMemory(header);
    Table().AwaitingRelease.fetch_sub(1, std::memory_order_acq_rel);
  }
}

PIO_STACK_LOCATION DescribingLocation(PIRP irp) {
  if (irp->StackCount < 1) return nullptr;
  auto* first = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1);
  if (irp->CurrentLocation >= 1 && irp->CurrentLocation <= irp->StackCount) return first + irp->CurrentLocation - 1;
  return first + irp->StackCount - 1;  // the location its sender fills first
}

std::string DescribeIrp(PIRP irp) {
  PIO_STACK_LOCATION sp = DescribingLocation(irp);
  char text[128];
  std::snprintf(text, sizeof text, "IRP %p (#%llu, %s, minor 0x%02X) ", irp,
                static_cast<unsigned long long>(HeaderOf(irp)->Serial),
                MajorFunctionName(sp != nullptr ? sp->MajorFunction : 0), sp != nullptr ? sp->MinorFunction : 0);
  if (sp == nullptr || sp->DeviceObject == nullptr) return std::string(text) + "not sent to any device";
  return std::string(text) + "at " + DescribeDevice(sp->DeviceObject);
}

void NotifyCompletionObserver(PIRP irp, IrpHeader* header) {
  if (!g_observerSet.load(std::memory_order_acquire)) return;
  PIO_STACK_LOCATION sp = DescribingLocation(irp);
  kvhost::IrpCompletion c;
  c.Irp = irp;
  c.MajorFunction = sp != nullptr ? sp->MajorFunction : 0;
  c.MinorFunction = sp != nullptr ? sp->MinorFunction : 0;
  c.CompletedBy = header->CompletedBy;
  c.Status = header->CompletedStatus;
  c.Information = header->CompletedInformation;
  c.PriorityBoost = header->CompletedBoost;
  Observer()(c);
}

}  // namespace kvhost::io

using namespace kvhost::io;

extern "C" {

PIRP IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota) {
  PIRP irp = AllocateIrp(StackSize, IrpOrigin::Allocated, __builtin_return_address(0));
  if (irp != nullptr && ChargeQuota) irp->AllocationFlags |= IRP_QUOTA_CHARGED;
  return irp;
}

void IoFreeIrp(PIRP Irp) {
  IrpHeader* header = CheckedHeader(Irp, "IoFreeIrp");
  if (header == nullptr) return;
  IrpState state = header->State.load(std::memory_order_acquire);
  if (state == IrpState::Dispatched || state == IrpState::Completing) {
    // The IRP belongs to a driver of the stack (or the walk is running over it): freeing it
    // leaves that driver with a dangling pointer.
    kvhost::ReportViolation("IrpFreedWhileInUse", "IoFreeIrp of " + DescribeIrp(Irp) + ", which " +
                                                      (state == IrpState::Dispatched ? "a driver still owns"
                                                                                     : "is being completed"));
  }
  FreeIrp(Irp, "IoFreeIrp");
}

void IoReuseIrp(PIRP Irp, NTSTATUS Iostatus) {
  IrpHeader* header = CheckedHeader(Irp, "IoReuseIrp");
  if (header == nullptr) return;
  IrpState state = header->State.load(std::memory_order_acquire);
  if (state == IrpState::Dispatched || state == IrpState::Completing)
    kvhost::ReportViolation("IrpReusedWhileInUse", "IoReuseIrp of " + DescribeIrp(Irp) + ", which is still in use");
  if (Irp->CancelRoutine != nullptr)
    kvhost::ReportViolation("IrpReusedWithCancelRoutine",
                            "IoReuseIrp of " + DescribeIrp(Irp) + ", which still has a cancel routine");
  const UCHAR allocationFlags = Irp->AllocationFlags;
  const CCHAR stackCount = Irp->StackCount;
  std::memset(Irp, 0, IoSizeOfIrp(stackCount));
  Irp->Type = IO_TYPE_IRP;
  Irp->Size = IoSizeOfIrp(stackCount);
  Irp->StackCount = stackCount;
  Irp->CurrentLocation = static_cast<CHAR>(stackCount + 1);
  Irp->AllocationFlags = allocationFlags;
  Irp->Tail.Overlay.CurrentStackLocation = reinterpret_cast<PIO_STACK_LOCATION>(Irp + 1) + stackCount;
  InitializeListHead(&Irp->ThreadListEntry);
  Irp->IoStatus.Status = Iostatus;
  header->PendingSeen.ClearAll();
  header->WalkPassed.ClearAll();
  header->AwaitingMark.ClearAll();
  header->Completed = false;
  header->CopyBackLimitKnown = false;
  header->State.store(IrpState::Idle, std::memory_order_release);
}

NTSTATUS IoSetIoPriorityHint(PIRP Irp, IO_PRIORITY_HINT PriorityHint) {
  if (PriorityHint < IoPriorityVeryLow || PriorityHint >= MaxIoPriorityTypes) return STATUS_INVALID_PARAMETER;
  IrpHeader* header = CheckedHeader(Irp, "IoSetIoPriorityHint");
  if (header == nullptr) return STATUS_INVALID_PARAMETER;
  header->PriorityHint = PriorityHint;
  return STATUS_SUCCESS;
}

IO_PRIORITY_HINT IoGetIoPriorityHint(PIRP Irp) {
  IrpHeader* header = CheckedHeader(Irp, "IoGetIoPriorityHint");
  return header != nullptr ? header->PriorityHint : IoPriorityNormal;
}

BOOLEAN IoIs32bitProcess(PIRP Irp) {
  // Without a request the caller asks about its own process, which is the system process.
  if (Irp == nullptr) return FALSE;
  IrpHeader* header = CheckedHeader(Irp, "IoIs32bitProcess");
  return header != nullptr && header->From32bitProcess && Irp->RequestorMode == UserMode;
}

}  // extern "C"

namespace kvhost {

bool IoGetLastCompletion(PIRP irp, IrpCompletion* completion) {
  IrpHeader* header = CheckedHeader(irp, "IoGetLastCompletion");
  if (header == nullptr || !header->Completed) return false;
  PIO_STACK_LOCATION sp = DescribingLocation(irp);
  completion->Irp = irp;
  completion->MajorFunction = sp != nullptr ? sp->MajorFunction : 0;
  completion->MinorFunction = sp != nullptr ? sp->MinorFunction : 0;
  completion->CompletedBy = header->CompletedBy;
  completion->Status = header->CompletedStatus;
  completion->Information = header->CompletedInformation;
  completion->PriorityBoost = header->CompletedBoost;
  return true;
}

void IoSetCompletionObserver(std::function<void(const IrpCompletion&)> observer) {
  g_observerSet.store(false, std::memory_order_release);
  Observer() = std::move(observer);
  g_observerSet.store(static_cast<bool>(Observer()), std::memory_order_release);
}

void IoSetIrpFrom32bitProcess(PIRP irp, bool from32bit) {
  IrpHeader* header = CheckedHeader(irp, "IoSetIrpFrom32bitProcess");
  if (header != nullptr) header->From32bitProcess = from32bit;
}

std::vector<std::string> IoDescribeLiveIrps() {
  std::vector<std::pair<uint64_t, std::string>> lines;
  IrpTable& table = Table();
  std::lock_guard<std::mutex> guard(table.Lock);
  for (const auto& [irp, header] : table.Live)
    lines.emplace_back(header->Serial, DescribeIrp(irp) + " " + StateText(header->State.load()));
  std::sort(lines.begin(), lines.end());
  std::vector<std::string> out;
  for (auto& [serial, line] : lines) out.push_back(std::move(line));
  return out;
}

}  // namespace kvhost

namespace kvhost {

IoCounters IoGetCounters() {
  IoCounters counters;
  {
    IrpTable& table = Table();
    std::lock_guard<std::mutex> guard(table.Lock);
    counters.IrpsAllocated = table.Allocated;
    counters.IrpsLive = table.Live.size();
  }
  io::FillMdlCounters(&counters);
  return counters;
}

}  // namespace kvhost

namespace kvhost::io {
namespace {

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "I/O manager: IRPs",
      .Order = 50,
      .Reset =
          [] {
            // Whatever a previous test left is forgotten, not freed: its pool blocks belong
            // to the pool's own accounting, which has reported them.
            IrpTable& table = Table();
            std::lock_guard<std::mutex> guard(table.Lock);
            table.Live.clear();
            table.Freed.fill({});
            table.FreedNext = 0;
            table.Allocated = 0;
            table.AwaitingRelease.store(0);
            g_observerSet.store(false);
            Observer() = nullptr;
          },
      .Quiesce =
          [] {
            // A frame that was still looking at a completed IRP lets it go shortly.
            auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while (Table().AwaitingRelease.load() != 0 && std::chrono::steady_clock::now() < deadline)
              std::this_thread::sleep_for(std::chrono::milliseconds(1));
          },
      .Check =
          [](std::vector<std::string>& problems) {
            for (std::string& line : kvhost::IoDescribeLiveIrps()) problems.push_back("[IrpLeftBehind] " + line);
          },
  });
  return true;
}();

}  // namespace
}  // namespace kvhost::io
