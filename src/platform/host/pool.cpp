// Pool: tagged blocks from malloc, accounted by tag and call site, with the checks of
// Driver Verifier's pool tracking and the faults of its low-resources simulation.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <unordered_map>

#include "kvhost/pool.h"
#include "kvhost/symbolize.h"
#include "kvhost/verifier.h"
#include "pool_internal.h"

namespace {

using kvhost::PoolBlockInfo;

constexpr unsigned char kUninitializedFill = 0xCD;
constexpr unsigned char kFreedFill = 0xDD;
constexpr SIZE_T kPageSize = 4096;
// How many freed blocks are remembered to tell a double free from a stray pointer.
constexpr size_t kFreedMemory = 1 << 16;
// The tag ExAllocatePool (untagged) gives, "None".
constexpr ULONG kUntaggedTag = 0x656E6F4E;

struct FreedBlock {
  unsigned long long Sequence;  // of the allocation, to match FreedOrder
  ULONG Tag;
  SIZE_T Bytes;
  const void* AllocSite;
  const void* FreeSite;
};

struct TagCount {
  unsigned long long Attempts = 0;
  unsigned long long CachedAllocations = 0;
  size_t Blocks = 0;
  SIZE_T Bytes = 0;
};

struct ActiveStructure {
  size_t Bytes;
  const char* What;
  const void* Owner;
};

struct PoolState {
  std::mutex Lock;
  std::map<const void*, PoolBlockInfo> Live;  // ordered, to find the block a pointer falls in
  std::unordered_map<const void*, FreedBlock> Freed;
  std::deque<std::pair<const void*, unsigned long long>> FreedOrder;
  std::map<ULONG, TagCount> Tags;
  unsigned long long Attempts = 0;
  unsigned long long CachedAllocations = 0;  // served from lookaside caches
  // Faults.
  unsigned long long FailCountdown = 0;  // 0: none armed
  ULONG FailCountdownTag = 0;
  std::set<ULONG> FailTags;
  std::set<const void*> FailSites;
  unsigned long long Injected = 0;
  // Log.
  bool Logging = false;
  std::vector<PoolBlockInfo> Log;
  std::map<const void*, ActiveStructure> Active;
};

PoolState& Pool() {
  static PoolState* pool = new PoolState;  // late threads may still free
  return *pool;
}

std::string Site(const void* site) { return kvhost::DescribeCodeAddress(site); }

bool IsPaged(POOL_TYPE type) { return (type & 1) != 0; }

// Strips the modifiers a POOL_TYPE may carry; false for a type no caller may use.
bool NormalizeType(POOL_TYPE requested, POOL_TYPE* type, bool* mustSucceed, bool* raiseOnFailure) {
  ULONG bits = static_cast<ULONG>(requested);
  *raiseOnFailure = (bits & POOL_RAISE_IF_ALLOCATION_FAILURE) != 0;
  bits &= ~static_cast<ULONG>(POOL_RAISE_IF_ALLOCATION_FAILURE | POOL_QUOTA_FAIL_INSTEAD_OF_RAISE |
                              POOL_COLD_ALLOCATION);
  *type = static_cast<POOL_TYPE>(bits);
  switch (bits) {
    case NonPagedPool:
    case PagedPool:
    case NonPagedPoolCacheAligned:
    case PagedPoolCacheAligned:
    case NonPagedPoolSession:
    case PagedPoolSession:
    case NonPagedPoolCacheAlignedSession:
    case PagedPoolCacheAlignedSession:
    case NonPagedPoolNx:
    case NonPagedPoolNxCacheAligned:
    case NonPagedPoolSessionNx:
      *mustSucceed = false;
      return true;
    case NonPagedPoolMustSucceed:
    case NonPagedPoolCacheAlignedMustS:
    case NonPagedPoolMustSucceedSession:
    case NonPagedPoolCacheAlignedMustSSession:
      *mustSucceed = true;
      return true;
    default:
      return false;
  }
}

// With the lock held: whether an armed fault takes this attempt.
bool ShouldFail(PoolState& s, ULONG tag, const void* site) {
  bool fail = false;
  if (s.FailCountdown != 0 && (s.FailCountdownTag == 0 || s.FailCountdownTag == tag) && --s.FailCountdown == 0)
    fail = true;
  if (s.FailTags.count(tag) != 0 || s.FailSites.count(site) != 0) fail = true;
  return fail;
}

void CheckIrql(POOL_TYPE type, const char* routine, ULONG tag, const void* site) {
  KIRQL irql = KeGetCurrentIrql();
  if (IsPaged(type) && irql > APC_LEVEL)
    kvhost::ReportViolationF("PagedPoolAtRaisedIrql", "%s of paged pool (tag %s) by %s at IRQL %u", routine,
                             kvhost::DescribeTag(tag).c_str(), Site(site).c_str(), irql);
  else if (irql > DISPATCH_LEVEL)
    kvhost::ReportViolationF("PoolAtRaisedIrql", "%s (tag %s) by %s at IRQL %u", routine,
                             kvhost::DescribeTag(tag).c_str(), Site(site).c_str(), irql);
}

// With the lock held: forgets a block as allocated and remembers it as freed.
void Forget(PoolState& s, std::map<const void*, PoolBlockInfo>::iterator it, const void* freeSite) {
  const PoolBlockInfo& b = it->second;
  TagCount& t = s.Tags[b.Tag];
  --t.Blocks;
  t.Bytes -= b.Bytes;
  s.Freed[b.Address] = FreedBlock{b.Sequence, b.Tag, b.Bytes, b.Site, freeSite};
  s.FreedOrder.emplace_back(b.Address, b.Sequence);
  if (s.FreedOrder.size() > kFreedMemory) {
    auto [oldest, sequence] = s.FreedOrder.front();
    s.FreedOrder.pop_front();
    auto f = s.Freed.find(oldest);
    if (f != s.Freed.end() && f->second.Sequence == sequence) s.Freed.erase(f);
  }
  s.Live.erase(it);
}

void Release(void* block, SIZE_T bytes) {
  std::memset(block, kFreedFill, bytes);
  std::free(block);
}

struct LeakGroup {
  ULONG Tag;
  std::string Site;
  size_t Blocks = 0;
  SIZE_T Bytes = 0;
  unsigned long long FirstSequence = 0;
};

// By tag and named call site (one source line may hold several call instructions).
std::vector<LeakGroup> GroupBlocks(const std::vector<PoolBlockInfo>& blocks) {
  std::map<std::pair<ULONG, std::string>, LeakGroup> groups;
  for (const PoolBlockInfo& b : blocks) {
    std::string site = Site(b.Site);
    LeakGroup& g = groups[{b.Tag, site}];
    if (g.Blocks == 0) {
      g.Tag = b.Tag;
      g.Site = site;
      g.FirstSequence = b.Sequence;
    }
    ++g.Blocks;
    g.Bytes += b.Bytes;
  }
  std::vector<LeakGroup> out;
  for (auto& [key, g] : groups) out.push_back(g);
  std::sort(out.begin(), out.end(),
            [](const LeakGroup& a, const LeakGroup& b) { return a.FirstSequence < b.FirstSequence; });
  return out;
}

std::string DescribeGroup(const LeakGroup& g) {
  char text[128];
  std::snprintf(text, sizeof text, ": %zu block(s), %llu bytes still allocated by ", g.Blocks,
                static_cast<unsigned long long>(g.Bytes));
  return "pool tag " + kvhost::DescribeTag(g.Tag) + text + g.Site;
}

std::vector<PoolBlockInfo> BlocksSince(unsigned long long sequence) {
  PoolState& s = Pool();
  std::lock_guard<std::mutex> guard(s.Lock);
  std::vector<PoolBlockInfo> out;
  for (const auto& [address, b] : s.Live)
    if (b.Sequence > sequence) out.push_back(b);
  return out;
}

unsigned long long AttemptCount() {
  std::lock_guard<std::mutex> guard(Pool().Lock);
  return Pool().Attempts;
}

void ResetPool() {
  kvhost::FreeAllPool();
  PoolState& s = Pool();
  std::lock_guard<std::mutex> guard(s.Lock);
  s.Freed.clear();
  s.FreedOrder.clear();
  s.Tags.clear();
  s.Attempts = 0;
  s.CachedAllocations = 0;
  s.FailCountdown = 0;
  s.FailTags.clear();
  s.FailSites.clear();
  s.Injected = 0;
  s.Logging = false;
  s.Log.clear();
  s.Active.clear();
}

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "pool",
      .Order = 110,  // after every subsystem whose teardown frees pool
      .Reset = ResetPool,
      .Quiesce = nullptr,
      .Check =
          [](std::vector<std::string>& problems) {
            for (std::string& line : kvhost::DescribePoolLeaks()) problems.push_back(std::move(line));
            kvhost::FreeAllPool();
          },
  });
  return true;
}();

}  // namespace

namespace kvhost::detail {

PVOID AllocatePool(POOL_TYPE requested, SIZE_T bytes, ULONG tag, PoolFill fill, const void* site,
                   const char* routine) {
  POOL_TYPE type;
  bool mustSucceed = false;
  bool raiseOnFailure = false;
  if (!NormalizeType(requested, &type, &mustSucceed, &raiseOnFailure)) {
    ReportViolationF("BadPoolType", "%s (tag %s) by %s with pool type %d", routine, DescribeTag(tag).c_str(),
                     Site(site).c_str(), static_cast<int>(requested));
    return nullptr;
  }
  if (mustSucceed)
    ReportViolationF("MustSucceedPool", "%s (tag %s) by %s asks for must-succeed pool, which drivers may not use",
                     routine, DescribeTag(tag).c_str(), Site(site).c_str());
  if (tag == 0)
    // Windows: bug check 0xC2, BAD_POOL_CALLER (0x9B), under the verifier.
    ReportViolationF("PoolZeroTag", "%s by %s with tag 0", routine, Site(site).c_str());
  CheckIrql(type, routine, tag, site);

  PoolState& s = Pool();
  std::unique_lock<std::mutex> lock(s.Lock);
  unsigned long long sequence = ++s.Attempts;
  ++s.Tags[tag].Attempts;
  bool fail = ShouldFail(s, tag, site);
  if (fail) ++s.Injected;
  void* block = nullptr;
  if (!fail && bytes <= kvhost::kMaxPoolBlockBytes) {
    bool cacheAligned = (type & 4) != 0;
    size_t alignment = bytes >= kPageSize ? kPageSize : (cacheAligned ? 64 : 16);
    if (posix_memalign(&block, alignment, bytes == 0 ? 1 : bytes) != 0) block = nullptr;
  }
  PoolBlockInfo info{block, bytes, tag, type, site, sequence};
  if (s.Logging) s.Log.push_back(info);
  if (block != nullptr) {
    s.Live[block] = info;
    s.Freed.erase(block);
    TagCount& t = s.Tags[tag];
    ++t.Blocks;
    t.Bytes += bytes;
  }
  lock.unlock();

  if (block == nullptr) {
    if (raiseOnFailure)
      ReportViolationF("PoolRaiseOnFailure",
                       "%s (tag %s) by %s failed with POOL_RAISE_IF_ALLOCATION_FAILURE: Windows raises an "
                       "exception here",
                       routine, DescribeTag(tag).c_str(), Site(site).c_str());
    return nullptr;
  }
  std::memset(block, fill == PoolFill::Zero ? 0 : kUninitializedFill, bytes);
  return block;
}

void FreePool(PVOID block, ULONG tag, const void* site, const char* routine) {
  if (block == nullptr) {
    ReportViolationF("PoolFreeNull", "%s(NULL) by %s", routine, Site(site).c_str());
    return;
  }
  PoolState& s = Pool();
  std::unique_lock<std::mutex> lock(s.Lock);
  auto it = s.Live.find(block);
  if (it == s.Live.end()) {
    auto freed = s.Freed.find(block);
    if (freed != s.Freed.end()) {
      FreedBlock f = freed->second;
      lock.unlock();
      ReportViolationF("PoolDoubleFree",
                       "%s(%p) by %s: the block (tag %s, %llu bytes, allocated by %s) was already freed by %s",
                       routine, block, Site(site).c_str(), DescribeTag(f.Tag).c_str(),
                       static_cast<unsigned long long>(f.Bytes), Site(f.AllocSite).c_str(),
                       Site(f.FreeSite).c_str());
      return;
    }
    auto after = s.Live.upper_bound(block);
    if (after != s.Live.begin()) {
      const PoolBlockInfo& b = std::prev(after)->second;
      auto offset = static_cast<const char*>(block) - static_cast<const char*>(b.Address);
      if (static_cast<SIZE_T>(offset) < b.Bytes) {
        PoolBlockInfo inside = b;
        lock.unlock();
        ReportViolationF("PoolFreeUnknown", "%s(%p) by %s: points %lld bytes into a block of tag %s allocated by %s",
                         routine, block, Site(site).c_str(), static_cast<long long>(offset),
                         DescribeTag(inside.Tag).c_str(), Site(inside.Site).c_str());
        return;
      }
    }
    lock.unlock();
    ReportViolationF("PoolFreeUnknown", "%s(%p) by %s: not a pool block", routine, block, Site(site).c_str());
    return;
  }

  PoolBlockInfo b = it->second;
  std::vector<std::pair<const void*, ActiveStructure>> active;
  const char* end = static_cast<const char*>(block) + b.Bytes;
  for (auto a = s.Active.lower_bound(block); a != s.Active.end() && static_cast<const char*>(a->first) < end;) {
    active.emplace_back(*a);
    a = s.Active.erase(a);
  }
  Forget(s, it, site);
  lock.unlock();

  bool protectedTag = (b.Tag & PROTECTED_POOL) != 0;
  if ((tag != 0 && tag != b.Tag) || (tag == 0 && protectedTag))
    ReportViolationF("PoolFreeWrongTag", "%s(%p, tag %s) by %s: the block was allocated with tag %s by %s", routine,
                     block, DescribeTag(tag).c_str(), Site(site).c_str(), DescribeTag(b.Tag).c_str(),
                     Site(b.Site).c_str());
  CheckIrql(b.Type, routine, b.Tag, site);
  for (const auto& [address, a] : active)
    ReportViolationF("PoolFreeActiveStructure",
                     "%s(%p, tag %s) by %s frees %s at %p (set up by %s) that is still in use", routine, block,
                     DescribeTag(b.Tag).c_str(), Site(site).c_str(), a.What, address, Site(a.Owner).c_str());
  Release(block, b.Bytes);
}

bool TakeCachedBlock(POOL_TYPE type, SIZE_T bytes, ULONG tag, const void* block, const void* site) {
  PoolState& s = Pool();
  std::lock_guard<std::mutex> guard(s.Lock);
  ++s.CachedAllocations;
  ++s.Tags[tag].CachedAllocations;
  const bool fail = ShouldFail(s, tag, site);
  if (fail) ++s.Injected;
  if (s.Logging) {
    PoolBlockInfo info{fail ? nullptr : block, bytes, tag, type, site, s.Attempts};
    info.FromLookasideCache = true;
    s.Log.push_back(info);
  }
  return !fail;
}

void RegisterActiveStructure(const void* address, size_t bytes, const char* what, const void* owner) {
  std::lock_guard<std::mutex> guard(Pool().Lock);
  Pool().Active[address] = ActiveStructure{bytes, what, owner};
}

void UnregisterActiveStructure(const void* address) {
  std::lock_guard<std::mutex> guard(Pool().Lock);
  Pool().Active.erase(address);
}

}  // namespace kvhost::detail

namespace kvhost {

std::string DescribeTag(ULONG tag) {
  char text[32];
  char c[4];
  for (int i = 0; i < 4; ++i) {
    unsigned char byte = static_cast<unsigned char>(tag >> (8 * i));
    if (i == 3) byte &= 0x7F;  // the protected-pool bit is not part of the name
    c[i] = (byte >= 0x20 && byte < 0x7F) ? static_cast<char>(byte) : '.';
  }
  std::snprintf(text, sizeof text, "'%c%c%c%c' (0x%08X)", c[0], c[1], c[2], c[3], tag);
  return text;
}

PoolMark MarkPool() {
  PoolState& s = Pool();
  std::lock_guard<std::mutex> guard(s.Lock);
  PoolMark mark;
  mark.Attempts = s.Attempts;
  mark.CachedAllocations = s.CachedAllocations;
  for (const auto& [tag, count] : s.Tags) {
    mark.AttemptsByTag[tag] = count.Attempts;
    mark.CachedAllocationsByTag[tag] = count.CachedAllocations;
  }
  return mark;
}

unsigned long long CachedAllocationsSince(const PoolMark& mark, ULONG tag) {
  PoolState& s = Pool();
  std::lock_guard<std::mutex> guard(s.Lock);
  if (tag == 0) return s.CachedAllocations - mark.CachedAllocations;
  auto now = s.Tags.find(tag);
  auto then = mark.CachedAllocationsByTag.find(tag);
  return (now == s.Tags.end() ? 0 : now->second.CachedAllocations) -
         (then == mark.CachedAllocationsByTag.end() ? 0 : then->second);
}

unsigned long long AllocationsSince(const PoolMark& mark) { return AttemptCount() - mark.Attempts; }

unsigned long long AllocationsSince(const PoolMark& mark, ULONG tag) {
  PoolState& s = Pool();
  std::lock_guard<std::mutex> guard(s.Lock);
  auto now = s.Tags.find(tag);
  auto then = mark.AttemptsByTag.find(tag);
  return (now == s.Tags.end() ? 0 : now->second.Attempts) - (then == mark.AttemptsByTag.end() ? 0 : then->second);
}

size_t OutstandingBlocks(ULONG tag) {
  PoolState& s = Pool();
  std::lock_guard<std::mutex> guard(s.Lock);
  if (tag == 0) return s.Live.size();
  auto it = s.Tags.find(tag);
  return it == s.Tags.end() ? 0 : it->second.Blocks;
}

SIZE_T OutstandingBytes(ULONG tag) {
  PoolState& s = Pool();
  std::lock_guard<std::mutex> guard(s.Lock);
  SIZE_T total = 0;
  for (const auto& [t, count] : s.Tags)
    if (tag == 0 || t == tag) total += count.Bytes;
  return total;
}

std::vector<PoolBlockInfo> OutstandingPool() {
  std::vector<PoolBlockInfo> out = BlocksSince(0);
  std::sort(out.begin(), out.end(),
            [](const PoolBlockInfo& a, const PoolBlockInfo& b) { return a.Sequence < b.Sequence; });
  return out;
}

void LogAllocations(bool on) {
  std::lock_guard<std::mutex> guard(Pool().Lock);
  Pool().Logging = on;
}

std::vector<PoolBlockInfo> TakeAllocationLog() {
  std::lock_guard<std::mutex> guard(Pool().Lock);
  std::vector<PoolBlockInfo> out;
  out.swap(Pool().Log);
  return out;
}

std::vector<std::string> DescribePoolLeaks() {
  std::vector<std::string> out;
  for (const LeakGroup& g : GroupBlocks(OutstandingPool())) out.push_back(DescribeGroup(g));
  return out;
}

void FreeAllPool() {
  std::map<const void*, PoolBlockInfo> blocks;
  {
    PoolState& s = Pool();
    std::lock_guard<std::mutex> guard(s.Lock);
    blocks.swap(s.Live);
    for (auto& [tag, count] : s.Tags) {
      count.Blocks = 0;
      count.Bytes = 0;
    }
    s.Active.clear();
  }
  for (auto& [address, b] : blocks) Release(const_cast<void*>(address), b.Bytes);
}

void FailNthAllocation(unsigned long long n, ULONG tag) {
  std::lock_guard<std::mutex> guard(Pool().Lock);
  Pool().FailCountdown = n;
  Pool().FailCountdownTag = tag;
}

void FailAllocationsWithTag(ULONG tag) {
  std::lock_guard<std::mutex> guard(Pool().Lock);
  Pool().FailTags.insert(tag);
}

void FailAllocationSite(const void* site) {
  std::lock_guard<std::mutex> guard(Pool().Lock);
  Pool().FailSites.insert(site);
}

void ClearPoolFaults() {
  PoolState& s = Pool();
  std::lock_guard<std::mutex> guard(s.Lock);
  s.FailCountdown = 0;
  s.FailCountdownTag = 0;
  s.FailTags.clear();
  s.FailSites.clear();
}

unsigned long long InjectedPoolFailures() {
  std::lock_guard<std::mutex> guard(Pool().Lock);
  return Pool().Injected;
}

unsigned long long ForEachAllocationFailure(const std::function<void(unsigned long long k)>& scenario, ULONG tag) {
  ClearPoolFaults();
  unsigned long long total = 0;
  for (unsigned long long k = 0; k == 0 || k <= total; ++k) {
    PoolMark mark = MarkPool();
    unsigned long long injectedBefore = InjectedPoolFailures();
    if (k != 0) FailNthAllocation(k, tag);
    scenario(k);
    bool fired = InjectedPoolFailures() != injectedBefore;
    ClearPoolFaults();
    if (k == 0)
      total = tag == 0 ? AllocationsSince(mark) + CachedAllocationsSince(mark)
                       : AllocationsSince(mark, tag) + CachedAllocationsSince(mark, tag);
    if (k != 0 && !fired)
      ReportViolationF("PoolWalkDiverged",
                       "run %llu of the fault walk made fewer than %llu allocation attempts%s%s, unlike the first "
                       "run: the scenario is not deterministic",
                       k, k, tag == 0 ? "" : " with tag ", tag == 0 ? "" : DescribeTag(tag).c_str());
    for (const LeakGroup& g : GroupBlocks(BlocksSince(mark.Attempts))) {
      char run[64];
      std::snprintf(run, sizeof run, k == 0 ? "with no fault" : "with allocation %llu failing", k);
      ReportViolation("PoolLeakUnderFault", std::string("the scenario ") + run + " left " + DescribeGroup(g));
    }
  }
  return total;
}

}  // namespace kvhost

extern "C" {

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
  return kvhost::detail::AllocatePool(PoolType, NumberOfBytes, Tag, kvhost::detail::PoolFill::Pattern,
                                      __builtin_return_address(0), "ExAllocatePoolWithTag");
}

PVOID ExAllocatePoolZero(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
  return kvhost::detail::AllocatePool(PoolType, NumberOfBytes, Tag, kvhost::detail::PoolFill::Zero,
                                      __builtin_return_address(0), "ExAllocatePoolZero");
}

PVOID ExAllocatePoolUninitialized(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
  return kvhost::detail::AllocatePool(PoolType, NumberOfBytes, Tag, kvhost::detail::PoolFill::Pattern,
                                      __builtin_return_address(0), "ExAllocatePoolUninitialized");
}

PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes) {
  return kvhost::detail::AllocatePool(PoolType, NumberOfBytes, kUntaggedTag, kvhost::detail::PoolFill::Pattern,
                                      __builtin_return_address(0), "ExAllocatePool");
}

PVOID ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag) {
  const void* site = __builtin_return_address(0);
  constexpr POOL_FLAGS kKnown = POOL_FLAG_USE_QUOTA | POOL_FLAG_UNINITIALIZED | POOL_FLAG_SESSION |
                                POOL_FLAG_CACHE_ALIGNED | POOL_FLAG_RAISE_ON_FAILURE | POOL_FLAG_NON_PAGED |
                                POOL_FLAG_NON_PAGED_EXECUTE | POOL_FLAG_PAGED;
  constexpr POOL_FLAGS kRequiredRange = 0xFFFFFFFFULL;  // unknown bits here are errors
  int kinds = ((Flags & POOL_FLAG_NON_PAGED) != 0) + ((Flags & POOL_FLAG_NON_PAGED_EXECUTE) != 0) +
              ((Flags & POOL_FLAG_PAGED) != 0);
  if (kinds != 1 || (Flags & kRequiredRange & ~kKnown) != 0) {
    kvhost::ReportViolationF("BadPoolFlags", "ExAllocatePool2 (tag %s) by %s with flags 0x%llx",
                             kvhost::DescribeTag(Tag).c_str(), kvhost::DescribeCodeAddress(site).c_str(),
                             static_cast<unsigned long long>(Flags));
    return nullptr;
  }
  ULONG type = (Flags & POOL_FLAG_PAGED) != 0 ? PagedPool
               : (Flags & POOL_FLAG_NON_PAGED) != 0 ? NonPagedPoolNx
                                                     : NonPagedPool;
  if ((Flags & POOL_FLAG_CACHE_ALIGNED) != 0) type += 4;
  if ((Flags & POOL_FLAG_RAISE_ON_FAILURE) != 0) type |= POOL_RAISE_IF_ALLOCATION_FAILURE;
  auto fill = (Flags & POOL_FLAG_UNINITIALIZED) != 0 ? kvhost::detail::PoolFill::Pattern
                                                      : kvhost::detail::PoolFill::Zero;
  return kvhost::detail::AllocatePool(static_cast<POOL_TYPE>(type), NumberOfBytes, Tag, fill, site,
                                      "ExAllocatePool2");
}

VOID ExFreePoolWithTag(PVOID P, ULONG Tag) {
  kvhost::detail::FreePool(P, Tag, __builtin_return_address(0), Tag == 0 ? "ExFreePool" : "ExFreePoolWithTag");
}

}  // extern "C"
