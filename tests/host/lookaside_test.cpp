// Lookaside lists: blocks come from the pool under the list's tag and type (so faults and
// leaks are seen), are cached up to the list's depth, and can be exhausted by a test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wdm.h>

#include <vector>

#include "kvhost/irql.h"
#include "kvhost/pool.h"
#include "kvhost/verifier.h"

namespace {

using testing::HasSubstr;

constexpr ULONG kRecordTag = 0x0157544A;
constexpr SIZE_T kRecordSize = 110;

TEST(Lookaside, BlocksAreAccountedUnderTheListsTagAndCachedUpToItsDepth) {
  NPAGED_LOOKASIDE_LIST list;
  RtlZeroMemory(&list, sizeof list);
  ExInitializeNPagedLookasideList(&list, nullptr, nullptr, POOL_NX_ALLOCATION, kRecordSize, kRecordTag, 0);
  EXPECT_EQ(list.L.Type, NonPagedPoolNx);
  const USHORT depth = list.L.Depth;
  ASSERT_GT(depth, 0) << "depth 0 asks for the system's";

  kvhost::PoolMark mark = kvhost::MarkPool();
  std::vector<PVOID> blocks;
  for (int i = 0; i < depth + 2; ++i) blocks.push_back(ExAllocateFromNPagedLookasideList(&list));
  EXPECT_EQ(kvhost::AllocationsSince(mark, kRecordTag), depth + 2u) << "an empty list allocates from the pool";
  EXPECT_EQ(kvhost::OutstandingBytes(kRecordTag), (depth + 2u) * kRecordSize);

  for (PVOID b : blocks) ExFreeToNPagedLookasideList(&list, b);
  EXPECT_EQ(kvhost::OutstandingBlocks(kRecordTag), depth) << "the list keeps as many as its depth";

  mark = kvhost::MarkPool();
  PVOID again = ExAllocateFromNPagedLookasideList(&list);
  EXPECT_EQ(kvhost::AllocationsSince(mark), 0u) << "a cached block is not a pool allocation";
  EXPECT_EQ(kvhost::CachedAllocationsSince(mark, kRecordTag), 1u);
  EXPECT_EQ(list.L.TotalAllocates, depth + 3u);
  EXPECT_EQ(list.L.AllocateMisses, depth + 2u);
  ExFreeToNPagedLookasideList(&list, again);

  ExDeleteNPagedLookasideList(&list);
  EXPECT_EQ(kvhost::OutstandingBlocks(), 0u) << "deleting the list frees what it cached";
}

TEST(Lookaside, ListNeverDeletedShowsAsLeakedPoolByItsTag) {
  PAGED_LOOKASIDE_LIST list;
  RtlZeroMemory(&list, sizeof list);
  ExInitializePagedLookasideList(&list, nullptr, nullptr, 0, 48, kRecordTag, 0);
  ExFreeToPagedLookasideList(&list, ExAllocateFromPagedLookasideList(&list));
  std::vector<std::string> leaks = kvhost::DescribePoolLeaks();
  ASSERT_EQ(leaks.size(), 1u);
  EXPECT_THAT(leaks[0], HasSubstr("(0x0157544A): 1 block(s), 48 bytes"));
  ExDeletePagedLookasideList(&list);
}

TEST(Lookaside, FaultsReachItThroughThePoolAndATestCanExhaustIt) {
  NPAGED_LOOKASIDE_LIST list;
  RtlZeroMemory(&list, sizeof list);
  ExInitializeNPagedLookasideList(&list, nullptr, nullptr, POOL_NX_ALLOCATION, kRecordSize, kRecordTag, 0);
  kvhost::FailAllocationsWithTag(kRecordTag);
  EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), nullptr);
  kvhost::ClearPoolFaults();

  PVOID cached = ExAllocateFromNPagedLookasideList(&list);
  ASSERT_NE(cached, nullptr);
  ExFreeToNPagedLookasideList(&list, cached);
  kvhost::ExhaustLookasideList(&list);
  EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), nullptr) << "even with a block cached";
  kvhost::ExhaustLookasideList(&list, false);
  EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), cached);
  ExFreeToNPagedLookasideList(&list, cached);
  ExDeleteNPagedLookasideList(&list);
}

// A list's cache may be empty whenever the system trims it, so an allocation served from it
// is one more place that must cope with NULL: the faults and the fault walk reach it.
TEST(Lookaside, FaultsAndTheFaultWalkReachAllocationsServedFromTheCache) {
  constexpr ULONG kOtherTag = KV_POOL_TAG('O', 't', 'h', 'r');
  NPAGED_LOOKASIDE_LIST list;
  RtlZeroMemory(&list, sizeof list);
  ExInitializeNPagedLookasideList(&list, nullptr, nullptr, POOL_NX_ALLOCATION, kRecordSize, kRecordTag, 0);
  PVOID cached = ExAllocateFromNPagedLookasideList(&list);
  ExFreeToNPagedLookasideList(&list, cached);

  std::vector<std::pair<bool, bool>> outcomes;  // (record, other block) allocated
  const unsigned long long walked = kvhost::ForEachAllocationFailure([&](unsigned long long) {
    PVOID record = ExAllocateFromNPagedLookasideList(&list);
    PVOID other = ExAllocatePoolWithTag(NonPagedPoolNx, 16, kOtherTag);
    outcomes.emplace_back(record != nullptr, other != nullptr);
    if (other != nullptr) ExFreePool(other);
    if (record != nullptr) ExFreeToNPagedLookasideList(&list, record);
  });
  EXPECT_EQ(walked, 2u) << "the cached record is one of the walk's attempts";
  EXPECT_EQ(outcomes, (std::vector<std::pair<bool, bool>>{{true, true}, {false, true}, {true, false}}));
  EXPECT_EQ(kvhost::ForEachAllocationFailure(
                [&](unsigned long long) {
                  if (PVOID record = ExAllocateFromNPagedLookasideList(&list))
                    ExFreeToNPagedLookasideList(&list, record);
                  ExFreePool(ExAllocatePoolWithTag(NonPagedPoolNx, 16, kOtherTag));
                },
                kRecordTag),
            1u)
      << "a walk of the list's tag";

  // A failed allocation leaves the block cached, and the allocation log names it.
  kvhost::LogAllocations(true);
  kvhost::FailNthAllocation(1, kRecordTag);
  EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), nullptr);
  EXPECT_EQ(ExAllocateFromNPagedLookasideList(&list), cached);
  kvhost::LogAllocations(false);
  const std::vector<kvhost::PoolBlockInfo> log = kvhost::TakeAllocationLog();
  ASSERT_EQ(log.size(), 2u);
  EXPECT_TRUE(log[0].FromLookasideCache);
  EXPECT_EQ(log[0].Address, nullptr);
  EXPECT_EQ(log[0].Tag, kRecordTag);
  EXPECT_EQ(log[1].Address, cached);
  ExFreeToNPagedLookasideList(&list, cached);
  ExDeleteNPagedLookasideList(&list);
}

TEST(Lookaside, MisuseIsReported) {
  kvhost::ViolationCapture capture;
  NPAGED_LOOKASIDE_LIST never;
  RtlZeroMemory(&never, sizeof never);
  EXPECT_EQ(ExAllocateFromNPagedLookasideList(&never), nullptr);
  EXPECT_EQ(capture.Count("LookasideNotInitialized"), 1u);

  PAGED_LOOKASIDE_LIST paged;
  RtlZeroMemory(&paged, sizeof paged);
  ExInitializePagedLookasideList(&paged, nullptr, nullptr, 0, 32, kRecordTag, 0);
  PVOID block = ExAllocateFromPagedLookasideList(&paged);
  ExFreeToPagedLookasideList(&paged, block);
  ExFreeToPagedLookasideList(&paged, block);
  EXPECT_EQ(capture.Count("LookasideDoubleFree"), 1u) << capture.Describe();
  kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { ExFreeToPagedLookasideList(&paged, ExAllocateFromPagedLookasideList(&paged)); });
  EXPECT_EQ(capture.Count("LookasideIrql"), 2u) << "paged lists need IRQL <= APC_LEVEL";
  ExDeletePagedLookasideList(&paged);

  auto* holder = static_cast<PNPAGED_LOOKASIDE_LIST>(
      ExAllocatePoolZero(NonPagedPoolNx, sizeof(NPAGED_LOOKASIDE_LIST), KV_POOL_TAG('E', 'x', 't', 'n')));
  ExInitializeNPagedLookasideList(holder, nullptr, nullptr, POOL_NX_ALLOCATION, 64, kRecordTag, 0);
  ExFreePool(holder);
  ASSERT_EQ(capture.Count("PoolFreeActiveStructure"), 1u) << capture.Describe();
  EXPECT_THAT(capture.All().back().Message, HasSubstr("an active lookaside list"));
  EXPECT_THAT(capture.All().back().Message, HasSubstr("lookaside_test.cpp"));
}

}  // namespace
