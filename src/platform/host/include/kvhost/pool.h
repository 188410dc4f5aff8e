// Pool as tests see it: accounting by tag, the end-of-test leak report, and fault
// injection in the manner of Driver Verifier's low-resources simulation, made exact.
//
// Every block comes from malloc, so the asan variant sees overflows past its end. A block
// that is not zeroed by its allocation routine is filled with 0xCD; a freed block is
// overwritten with 0xDD before it goes back. At the end of every test each block still
// allocated is reported, by tag and allocating call site, and fails the test.
#pragma once

#include <wdm.h>

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace kvhost {

// "'Cbt0' (0x30746243)"; bytes that are not printable show as '.'.
std::string DescribeTag(ULONG tag);

// The largest single block the pool hands out; a larger request fails as an exhausted pool
// would.
constexpr SIZE_T kMaxPoolBlockBytes = SIZE_T{1} << 30;

// ----- Accounting. An allocation attempt is every call that reaches the pool (also from a
// lookaside list that has no cached block), whether it succeeds or fails. An allocation a
// lookaside list serves from its cache is not one; it is counted apart.
struct PoolMark {
  unsigned long long Attempts = 0;
  std::map<ULONG, unsigned long long> AttemptsByTag;
  unsigned long long CachedAllocations = 0;
  std::map<ULONG, unsigned long long> CachedAllocationsByTag;
};
PoolMark MarkPool();
unsigned long long AllocationsSince(const PoolMark& mark);
unsigned long long AllocationsSince(const PoolMark& mark, ULONG tag);
// Allocations served from lookaside lists' caches since the mark (of `tag`, or all).
unsigned long long CachedAllocationsSince(const PoolMark& mark, ULONG tag = 0);

// Blocks and bytes allocated now, of one tag or (tag 0) of all.
size_t OutstandingBlocks(ULONG tag = 0);
SIZE_T OutstandingBytes(ULONG tag = 0);

struct PoolBlockInfo {
  const void* Address = nullptr;  // null for a failed attempt in the allocation log
  SIZE_T Bytes = 0;
  ULONG Tag = 0;
  POOL_TYPE Type = NonPagedPoolNx;
  const void* Site = nullptr;  // the allocating call's return address
  unsigned long long Sequence = 0;  // the attempt's number since the start of the test
  // Served from a lookaside list's cache (in the allocation log only): not a pool attempt;
  // Sequence is then the number of the last pool attempt before it.
  bool FromLookasideCache = false;
};
// Blocks allocated now, oldest first.
std::vector<PoolBlockInfo> OutstandingPool();

// While on, every allocation attempt is recorded (a test can find a call site to fail).
void LogAllocations(bool on);
std::vector<PoolBlockInfo> TakeAllocationLog();

// One line per tag and allocating site still allocated, as the end-of-test check reports.
std::vector<std::string> DescribePoolLeaks();
// Frees every block still allocated (the end-of-test check does so after reporting).
void FreeAllPool();

// ----- Fault injection. An injected failure returns NULL as an exhausted pool would.
// Faults reach allocations served from a lookaside list's cache too: a driver meets a list
// with an empty cache whenever the system trims it, so each of its lookaside allocations is
// a place that must cope with NULL. Such an allocation counts as an attempt here, and a
// failed one leaves its block cached.
// The n-th attempt from now (1 = the next) fails; with a tag, the n-th attempt with that
// tag. A new call replaces the previous one.
void FailNthAllocation(unsigned long long n, ULONG tag = 0);
// Every attempt with the tag fails until the faults are cleared.
void FailAllocationsWithTag(ULONG tag);
// Every attempt made from this call site (a return address, see PoolBlockInfo::Site) fails.
void FailAllocationSite(const void* site);
void ClearPoolFaults();
// Attempts failed by injection since the start of the test.
unsigned long long InjectedPoolFailures();

// Every allocation from the lookaside list fails (cached blocks too) until restored.
void ExhaustLookasideList(const void* lookasideList, bool exhausted = true);

// The fault walk: runs `scenario(0)` without faults to count its allocation attempts (of
// `tag`, or all; lookaside allocations served from a cache included), then `scenario(k)` for each k from 1 to that count with exactly its k-th
// attempt failing. Each run must leave the pool as it found it: a run that leaves blocks
// behind (PoolLeakUnderFault) or makes fewer attempts than its fault needs
// (PoolWalkDiverged: the scenario is not deterministic) is reported. Returns the count.
unsigned long long ForEachAllocationFailure(const std::function<void(unsigned long long k)>& scenario,
                                            ULONG tag = 0);

}  // namespace kvhost
