// Memory descriptor lists: allocation by the I/O manager, building for non-paged pool,
// locking, system address mappings (which a test can make fail), and the end-of-test
// report of MDLs never freed.
//
// The host has one address space, so a mapping of an MDL is the address of the data
// itself; what is modelled is the state an MDL goes through and the ways that can fail. The
// page frame array holds the virtual page numbers of the buffer.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <unordered_map>

#include "io_internal.h"
#include "kvhost/verifier.h"

namespace kvhost::io {
namespace {

struct MdlTable {
  std::mutex Lock;
  std::unordered_map<PMDL, void*> Live;  // MDL -> the caller that allocated it
  uint64_t Allocated = 0;
};

MdlTable& Table() {
  static MdlTable* table = new MdlTable;
  return *table;
}

// Remaining mappings to fail: 0 none, -1 all.
std::atomic<int> g_failMappings{0};

bool TakeMappingFailure() {
  int left = g_failMappings.load();
  while (left != 0) {
    if (left < 0) return true;
    if (g_failMappings.compare_exchange_weak(left, left - 1)) return true;
  }
  return false;
}

void FillPageFrames(PMDL mdl) {
  PPFN_NUMBER frames = MmGetMdlPfnArray(mdl);
  const ULONG_PTR firstPage = reinterpret_cast<ULONG_PTR>(mdl->StartVa) >> PAGE_SHIFT;
  const size_t pages = ADDRESS_AND_SIZE_TO_SPAN_PAGES(MmGetMdlVirtualAddress(mdl), mdl->ByteCount);
  for (size_t i = 0; i < pages; ++i) frames[i] = firstPage + i;
}

std::string DescribeMdl(PMDL mdl) {
  char text[96];
  std::snprintf(text, sizeof text, "MDL %p (%lu bytes at %p, flags 0x%04X)", static_cast<void*>(mdl),
                static_cast<unsigned long>(mdl->ByteCount), MmGetMdlVirtualAddress(mdl),
                static_cast<unsigned>(static_cast<USHORT>(mdl->MdlFlags)));
  return text;
}

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "I/O manager: MDLs",
      .Order = 50,
      .Reset =
          [] {
            std::lock_guard<std::mutex> guard(Table().Lock);
            Table().Live.clear();  // forgotten: the pool's accounting has reported them
            Table().Allocated = 0;
            g_failMappings.store(0);
          },
      .Quiesce = nullptr,
      .Check =
          [](std::vector<std::string>& problems) {
            std::lock_guard<std::mutex> guard(Table().Lock);
            for (const auto& [mdl, caller] : Table().Live)
              problems.push_back("[MdlLeftBehind] " + DescribeMdl(mdl) + " was never freed");
          },
  });
  return true;
}();

}  // namespace

void FreeMdlChain(PMDL mdl) {
  while (mdl != nullptr) {
    PMDL next = mdl->Next;
    if (mdl->MdlFlags & MDL_PAGES_LOCKED) MmUnlockPages(mdl);
    IoFreeMdl(mdl);
    mdl = next;
  }
}

void FillMdlCounters(kvhost::IoCounters* counters) {
  std::lock_guard<std::mutex> guard(Table().Lock);
  counters->MdlsAllocated = Table().Allocated;
  counters->MdlsLive = Table().Live.size();
}

}  // namespace kvhost::io

using namespace kvhost::io;

extern "C" {

PMDL IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer, BOOLEAN ChargeQuota, PIRP Irp) {
  UNREFERENCED_PARAMETER(ChargeQuota);
  if (Length == 0) return nullptr;
  const SIZE_T bytes = MmSizeOfMdl(VirtualAddress, Length);
  void* site = __builtin_return_address(0);
  auto* mdl = static_cast<PMDL>(AllocateIoPool(bytes, kMdlTag, site, "IoAllocateMdl"));
  if (mdl == nullptr) return nullptr;
  MmInitializeMdl(mdl, VirtualAddress, Length);
  if (Irp != nullptr) {
    if (!SecondaryBuffer) {
      Irp->MdlAddress = mdl;
    } else {
      PMDL* link = &Irp->MdlAddress;
      while (*link != nullptr) link = &(*link)->Next;
      *link = mdl;
    }
  }
  std::lock_guard<std::mutex> guard(Table().Lock);
  Table().Live.emplace(mdl, site);
  ++Table().Allocated;
  return mdl;
}

void IoFreeMdl(PMDL Mdl) {
  {
    std::lock_guard<std::mutex> guard(Table().Lock);
    if (Table().Live.erase(Mdl) == 0) {
      kvhost::ReportViolationF("MdlNotAllocated",
                               "IoFreeMdl of %p, which is not an MDL from IoAllocateMdl (or was freed already)",
                               static_cast<void*>(Mdl));
      return;
    }
  }
  // Locked pages of a buffer must be unlocked first; an MDL of non-paged pool has none.
  if (Mdl->MdlFlags & MDL_PAGES_LOCKED)
    kvhost::ReportViolation("MdlFreedWithPagesLocked", "IoFreeMdl of " + DescribeMdl(Mdl) +
                                                           ", whose pages are still locked (MmUnlockPages missing)");
  FreeIoPool(Mdl, kMdlTag, "IoFreeMdl");
}

void IoBuildPartialMdl(PMDL SourceMdl, PMDL TargetMdl, PVOID VirtualAddress, ULONG Length) {
  const ULONG_PTR sourceStart = reinterpret_cast<ULONG_PTR>(MmGetMdlVirtualAddress(SourceMdl));
  const ULONG_PTR start = reinterpret_cast<ULONG_PTR>(VirtualAddress);
  if (Length == 0) Length = static_cast<ULONG>(SourceMdl->ByteCount - (start - sourceStart));
  if (start < sourceStart || start + Length > sourceStart + SourceMdl->ByteCount) {
    kvhost::BugCheck(0x32, "IoBuildPartialMdl: the range is not inside the source " + DescribeMdl(SourceMdl));
  }
  TargetMdl->StartVa = PAGE_ALIGN(VirtualAddress);
  TargetMdl->ByteOffset = BYTE_OFFSET(VirtualAddress);
  TargetMdl->ByteCount = Length;
  TargetMdl->Process = SourceMdl->Process;
  TargetMdl->MdlFlags = static_cast<CSHORT>((TargetMdl->MdlFlags & (MDL_ALLOCATED_FIXED_SIZE | MDL_ALLOCATED_MUST_SUCCEED)) |
                                            MDL_PARTIAL |
                                            (SourceMdl->MdlFlags & (MDL_SOURCE_IS_NONPAGED_POOL | MDL_IO_SPACE)));
  if (SourceMdl->MdlFlags & (MDL_MAPPED_TO_SYSTEM_VA | MDL_SOURCE_IS_NONPAGED_POOL)) {
    TargetMdl->MappedSystemVa = VirtualAddress;
    if (SourceMdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) TargetMdl->MdlFlags |= MDL_PARENT_MAPPED_SYSTEM_VA;
  }
  FillPageFrames(TargetMdl);
}

SIZE_T MmSizeOfMdl(PVOID Base, SIZE_T Length) {
  return sizeof(MDL) + sizeof(PFN_NUMBER) * ADDRESS_AND_SIZE_TO_SPAN_PAGES(Base, Length);
}

void MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList) {
  MemoryDescriptorList->Process = nullptr;
  MemoryDescriptorList->MappedSystemVa = MmGetMdlVirtualAddress(MemoryDescriptorList);
  MemoryDescriptorList->MdlFlags |= MDL_SOURCE_IS_NONPAGED_POOL;
  FillPageFrames(MemoryDescriptorList);
}

void MmProbeAndLockPages(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode, LOCK_OPERATION Operation) {
  UNREFERENCED_PARAMETER(AccessMode);
  if (MemoryDescriptorList->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL)) {
    kvhost::ReportViolation("MdlLockedTwice", "MmProbeAndLockPages of " + DescribeMdl(MemoryDescriptorList) +
                                                  ", which is locked already or describes non-paged memory");
    return;
  }
  FillPageFrames(MemoryDescriptorList);
  MemoryDescriptorList->MdlFlags |= MDL_PAGES_LOCKED;
  if (Operation != IoReadAccess) MemoryDescriptorList->MdlFlags |= MDL_WRITE_OPERATION;
}

void MmUnlockPages(PMDL MemoryDescriptorList) {
  if (!(MemoryDescriptorList->MdlFlags & MDL_PAGES_LOCKED)) {
    kvhost::ReportViolation("MdlNotLocked",
                            "MmUnlockPages of " + DescribeMdl(MemoryDescriptorList) + ", whose pages are not locked");
    return;
  }
  // Unlocking also ends a system mapping of the pages.
  MemoryDescriptorList->MdlFlags &= ~(MDL_PAGES_LOCKED | MDL_MAPPED_TO_SYSTEM_VA | MDL_WRITE_OPERATION);
  MemoryDescriptorList->MappedSystemVa = nullptr;
}

PVOID MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList, KPROCESSOR_MODE AccessMode,
                                   MEMORY_CACHING_TYPE CacheType, PVOID RequestedAddress, ULONG BugCheckOnFailure,
                                   ULONG Priority) {
  UNREFERENCED_PARAMETER(CacheType);
  UNREFERENCED_PARAMETER(RequestedAddress);
  UNREFERENCED_PARAMETER(Priority);
  PMDL mdl = MemoryDescriptorList;
  if (AccessMode != KernelMode) {
    kvhost::ReportViolation("MdlUserMapping", "MmMapLockedPagesSpecifyCache of " + DescribeMdl(mdl) +
                                                  " into user space, which the host does not model");
    return nullptr;
  }
  if (!(mdl->MdlFlags & (MDL_PAGES_LOCKED | MDL_SOURCE_IS_NONPAGED_POOL | MDL_PARTIAL))) {
    kvhost::ReportViolation("MdlMappedUnlocked", "MmMapLockedPagesSpecifyCache of " + DescribeMdl(mdl) +
                                                     ", whose pages are not locked");
    return nullptr;
  }
  if (mdl->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) {
    kvhost::ReportViolation("MdlMappedTwice",
                            "MmMapLockedPagesSpecifyCache of " + DescribeMdl(mdl) + ", which is mapped already");
    return mdl->MappedSystemVa;
  }
  if (TakeMappingFailure()) {
    // Windows: NO_MORE_SYSTEM_PTES for a caller that asked for a bug check instead of NULL.
    if (BugCheckOnFailure) kvhost::BugCheck(0x3F, "NO_MORE_SYSTEM_PTES: mapping " + DescribeMdl(mdl));
    return nullptr;
  }
  mdl->MappedSystemVa = MmGetMdlVirtualAddress(mdl);
  mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
  return mdl->MappedSystemVa;
}

void MmUnmapLockedPages(PVOID BaseAddress, PMDL MemoryDescriptorList) {
  if (!(MemoryDescriptorList->MdlFlags & MDL_MAPPED_TO_SYSTEM_VA) || BaseAddress != MemoryDescriptorList->MappedSystemVa) {
    kvhost::ReportViolation("MdlNotMapped", "MmUnmapLockedPages of " + DescribeMdl(MemoryDescriptorList) +
                                                " at an address it is not mapped to");
    return;
  }
  MemoryDescriptorList->MdlFlags &= ~MDL_MAPPED_TO_SYSTEM_VA;
  MemoryDescriptorList->MappedSystemVa = nullptr;
}

}  // extern "C"

namespace kvhost {

void MmFailSystemMappings(int count) { g_failMappings.store(count); }

}  // namespace kvhost
