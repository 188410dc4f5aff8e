// Pool: blocks as Windows hands them out, the accounting tests read, the misuse the
// verifier names, and exact fault injection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <wdm.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "kvhost/irql.h"
#include "kvhost/pool.h"
#include "kvhost/verifier.h"

namespace {

using testing::HasSubstr;

constexpr ULONG kTagA = KV_POOL_TAG('T', 's', 't', 'A');
constexpr ULONG kTagB = KV_POOL_TAG('T', 's', 't', 'B');

// One fixed allocation site, so a test can fail it by its return address.
__attribute__((noinline)) PVOID AllocateAtFixedSite(SIZE_T bytes) {
  PVOID p = ExAllocatePoolWithTag(NonPagedPoolNx, bytes, kTagA);
  asm volatile("");  // keeps the call from becoming a tail call
  return p;
}

TEST(Pool, BlocksAreAlignedAndFilledAsWindowsHandsThemOut) {
  auto* small = static_cast<unsigned char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 24, kTagA));
  auto* page = static_cast<unsigned char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 8192, kTagA));
  auto* zeroed = static_cast<unsigned char*>(ExAllocatePoolZero(PagedPool, 100, kTagA));
  auto* modern = static_cast<unsigned char*>(ExAllocatePool2(POOL_FLAG_NON_PAGED, 64, kTagA));
  ASSERT_TRUE(small && page && zeroed && modern);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(small) % 16, 0u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(page) % 4096, 0u) << "a page or more starts on a page";
  EXPECT_EQ(small[0], 0xCD) << "ExAllocatePoolWithTag does not zero";
  EXPECT_EQ(small[23], 0xCD);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(zeroed[i], 0);
  for (int i = 0; i < 64; ++i) ASSERT_EQ(modern[i], 0) << "ExAllocatePool2 zeroes by default";
  EXPECT_EQ(kvhost::OutstandingBlocks(kTagA), 4u);
  EXPECT_EQ(kvhost::OutstandingBytes(kTagA), 24u + 8192u + 100u + 64u);
  ExFreePoolWithTag(small, kTagA);
  ExFreePoolWithTag(page, kTagA);
  ExFreePool(zeroed);
  ExFreePoolWithTag(modern, kTagA);
  EXPECT_EQ(kvhost::OutstandingBytes(), 0u);
}

TEST(Pool, CountsAttemptsByTagSinceAMark) {
  PVOID before = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
  kvhost::PoolMark mark = kvhost::MarkPool();
  PVOID a = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
  PVOID b = ExAllocatePoolWithTag(PagedPool, 8, kTagB);
  PVOID c = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagB);
  EXPECT_EQ(kvhost::AllocationsSince(mark), 3u);
  EXPECT_EQ(kvhost::AllocationsSince(mark, kTagA), 1u);
  EXPECT_EQ(kvhost::AllocationsSince(mark, kTagB), 2u);
  EXPECT_EQ(kvhost::OutstandingBlocks(kTagB), 2u);
  for (PVOID p : {before, a, b, c}) ExFreePool(p);
  EXPECT_EQ(kvhost::OutstandingBlocks(), 0u);
}

TEST(Pool, ALeakFailsTheTestNamingTagSizeAndSite) {
  for (SIZE_T bytes : {40, 24}) ExAllocatePoolWithTag(NonPagedPoolNx, bytes, kTagA);
  std::vector<std::string> problems = kvhost::EndTest();  // what the harness runs after the test
  ASSERT_EQ(problems.size(), 1u) << "one line per tag and site: " << testing::PrintToString(problems);
  EXPECT_THAT(problems[0], HasSubstr("'TstA' (0x41747354)"));
  EXPECT_THAT(problems[0], HasSubstr("2 block(s), 64 bytes"));
  EXPECT_THAT(problems[0], HasSubstr("pool_test.cpp"));
  EXPECT_EQ(kvhost::OutstandingBlocks(), 0u) << "reported blocks are released";
}

TEST(Pool, DoubleFreeNamesTheTagAndBothCallers) {
  PVOID p = ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTagA);
  ExFreePoolWithTag(p, kTagA);
  kvhost::ViolationCapture capture;
  ExFreePoolWithTag(p, kTagA);
  ASSERT_EQ(capture.Count("PoolDoubleFree"), 1u) << capture.Describe();
  std::string message = capture.All()[0].Message;
  EXPECT_THAT(message, HasSubstr("'TstA'"));
  EXPECT_THAT(message, HasSubstr("already freed by"));
  EXPECT_THAT(message, HasSubstr("pool_test.cpp"));
}

TEST(Pool, FreeWithAnotherTagOrOfAForeignPointerIsReported) {
  kvhost::ViolationCapture capture;
  PVOID p = ExAllocatePoolWithTag(NonPagedPoolNx, 32, kTagA);
  ExFreePoolWithTag(p, kTagB);
  ASSERT_EQ(capture.Count("PoolFreeWrongTag"), 1u) << capture.Describe();
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("tag 'TstB'"));
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("allocated with tag 'TstA'"));
  EXPECT_EQ(kvhost::OutstandingBlocks(), 0u) << "the block is freed all the same";

  PVOID protectedBlock = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA | PROTECTED_POOL);
  ExFreePool(protectedBlock);
  EXPECT_EQ(capture.Count("PoolFreeWrongTag"), 2u) << "a protected tag must be named";

  int onTheStack = 0;
  ExFreePool(&onTheStack);
  auto* block = static_cast<char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 64, kTagB));
  ExFreePool(block + 8);
  ASSERT_EQ(capture.Count("PoolFreeUnknown"), 2u) << capture.Describe();
  EXPECT_THAT(capture.All()[2].Message, HasSubstr("not a pool block"));
  EXPECT_THAT(capture.All()[3].Message, HasSubstr("points 8 bytes into a block of tag 'TstB'"));
  ExFreePoolWithTag(block, kTagB);
}

TEST(Pool, PagedPoolAboveApcLevelAndBadRequestsAreReported) {
  kvhost::ViolationCapture capture;
  kvhost::RunAtIrql(DISPATCH_LEVEL, [] {
    PVOID nonPaged = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
    PVOID paged = ExAllocatePoolWithTag(PagedPool, 8, kTagA);
    ExFreePool(nonPaged);
    ExFreePool(paged);
  });
  EXPECT_EQ(capture.Count("PagedPoolAtRaisedIrql"), 2u) << capture.Describe();
  EXPECT_EQ(capture.Count(), 2u) << "non-paged pool is fine at DISPATCH_LEVEL";

  EXPECT_EQ(ExAllocatePool2(POOL_FLAG_PAGED | POOL_FLAG_NON_PAGED, 8, kTagA), nullptr);
  EXPECT_EQ(ExAllocatePoolWithTag(DontUseThisType, 8, kTagA), nullptr);
  ExFreePool(ExAllocatePoolWithTag(NonPagedPoolNx, 8, 0));
  EXPECT_TRUE(capture.Saw("BadPoolFlags"));
  EXPECT_TRUE(capture.Saw("BadPoolType"));
  EXPECT_TRUE(capture.Saw("PoolZeroTag"));
  EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolNx, kvhost::kMaxPoolBlockBytes + 1, kTagA), nullptr);
}

TEST(PoolFaults, FailExactlyTheNthTheTaggedAndTheSiteAllocations) {
  kvhost::FailNthAllocation(3);
  PVOID a1 = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
  PVOID a2 = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagB);
  PVOID a3 = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
  PVOID a4 = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
  EXPECT_TRUE(a1 && a2 && a4);
  EXPECT_EQ(a3, nullptr);

  kvhost::FailNthAllocation(2, kTagB);
  PVOID b1 = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagB);
  PVOID b2 = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
  PVOID b3 = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagB);
  PVOID b4 = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagB);
  EXPECT_TRUE(b1 && b2 && b4);
  EXPECT_EQ(b3, nullptr) << "the second attempt with the tag";

  kvhost::FailAllocationsWithTag(kTagB);
  EXPECT_EQ(ExAllocatePoolWithTag(PagedPool, 8, kTagB), nullptr);
  EXPECT_EQ(ExAllocatePool2(POOL_FLAG_NON_PAGED, 8, kTagB), nullptr);
  PVOID other = ExAllocatePoolWithTag(PagedPool, 8, kTagA);
  EXPECT_NE(other, nullptr);
  kvhost::ClearPoolFaults();

  kvhost::LogAllocations(true);
  PVOID fromSite = AllocateAtFixedSite(8);
  std::vector<kvhost::PoolBlockInfo> log = kvhost::TakeAllocationLog();
  ASSERT_EQ(log.size(), 1u);
  kvhost::FailAllocationSite(log[0].Site);
  EXPECT_EQ(AllocateAtFixedSite(8), nullptr);
  PVOID elsewhere = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTagA);
  EXPECT_NE(elsewhere, nullptr) << "same tag, another site";
  EXPECT_EQ(kvhost::InjectedPoolFailures(), 5u);

  for (PVOID p : {a1, a2, a4, b1, b2, b4, other, fromSite, elsewhere}) ExFreePool(p);
}

// A small operation that cleans up after a failed allocation, or (leaky) does not.
bool BuildThree(bool leaky) {
  PVOID a = ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTagA);
  if (a == nullptr) return false;
  PVOID b = ExAllocatePoolWithTag(PagedPool, 16, kTagB);
  if (b == nullptr) {
    if (!leaky) ExFreePool(a);
    return false;
  }
  PVOID c = ExAllocatePoolWithTag(NonPagedPoolNx, 16, kTagA);
  bool built = c != nullptr;
  if (c != nullptr) ExFreePool(c);
  ExFreePool(b);
  ExFreePool(a);
  return built;
}

TEST(PoolFaults, TheWalkFailsEachAllocationInTurnAndCatchesLeaksOnFailurePaths) {
  std::vector<bool> outcomes;
  unsigned long long count = kvhost::ForEachAllocationFailure([&](unsigned long long k) {
    outcomes.push_back(BuildThree(false));
    EXPECT_EQ(kvhost::InjectedPoolFailures(), k) << "run k fails exactly one more attempt";
  });
  EXPECT_EQ(count, 3u);
  EXPECT_EQ(outcomes, (std::vector<bool>{true, false, false, false}));

  EXPECT_EQ(kvhost::ForEachAllocationFailure([](unsigned long long) { BuildThree(false); }, kTagB), 1u)
      << "walk only the attempts with one tag";

  kvhost::ViolationCapture capture;
  kvhost::ForEachAllocationFailure([](unsigned long long) { BuildThree(true); });
  ASSERT_EQ(capture.Count("PoolLeakUnderFault"), 1u) << capture.Describe();
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("with allocation 2 failing"));
  EXPECT_THAT(capture.All()[0].Message, HasSubstr("'TstA'"));
  kvhost::FreeAllPool();

  kvhost::ForEachAllocationFailure([](unsigned long long k) {
    if (k == 0) BuildThree(false);  // later runs allocate nothing
  });
  EXPECT_EQ(capture.Count("PoolWalkDiverged"), 3u);
}

}  // namespace
