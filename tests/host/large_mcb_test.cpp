// The FsRtl large MCB against a block-by-block reference: random adds, removes and
// truncations, after each of which every lookup, the run count and the enumeration must
// describe the same map; and what the map does when pool runs out or it is misused.
#include <gtest/gtest.h>
#include <ntifs.h>

#include <map>
#include <random>
#include <vector>

#include "kvhost/pool.h"
#include "kvhost/verifier.h"

namespace {

constexpr LONGLONG kHole = -1;

// The map as one entry per mapped block.
class ReferenceMap {
 public:
  // False (and no change) when a block in the range is mapped to another LBN.
  bool Add(LONGLONG vbn, LONGLONG lbn, LONGLONG count) {
    for (LONGLONG i = 0; i < count; ++i) {
      auto it = blocks_.find(vbn + i);
      if (it != blocks_.end() && it->second != lbn + i) return false;
    }
    for (LONGLONG i = 0; i < count; ++i) blocks_[vbn + i] = lbn + i;
    return true;
  }
  void Remove(LONGLONG vbn, LONGLONG count) {
    for (LONGLONG i = 0; i < count; ++i) blocks_.erase(vbn + i);
  }
  void Truncate(LONGLONG vbn) { blocks_.erase(blocks_.lower_bound(vbn), blocks_.end()); }
  LONGLONG End() const { return blocks_.empty() ? 0 : blocks_.rbegin()->first + 1; }
  LONGLONG LbnOf(LONGLONG vbn) const {
    auto it = blocks_.find(vbn);
    return it == blocks_.end() ? kHole : it->second;
  }
  // Whether `next` continues the run that `vbn` is in.
  bool Continues(LONGLONG vbn, LONGLONG next) const {
    const LONGLONG a = LbnOf(vbn);
    const LONGLONG b = LbnOf(next);
    return a == kHole ? b == kHole : b == a + 1;
  }

  struct Run {
    LONGLONG Vbn, Lbn, Count;
    bool operator==(const Run&) const = default;
  };
  std::vector<Run> Runs() const {
    std::vector<Run> runs;
    for (LONGLONG vbn = 0; vbn < End(); ++vbn) {
      if (vbn > 0 && Continues(vbn - 1, vbn))
        ++runs.back().Count;
      else
        runs.push_back({vbn, LbnOf(vbn), 1});
    }
    return runs;
  }

 private:
  std::map<LONGLONG, LONGLONG> blocks_;
};

std::string Describe(const std::vector<ReferenceMap::Run>& runs) {
  std::string out;
  for (const auto& run : runs)
    out += "[" + std::to_string(run.Vbn) + "+" + std::to_string(run.Count) + "->" + std::to_string(run.Lbn) + "]";
  return out;
}

class LargeMcb : public testing::Test {
 protected:
  void SetUp() override { FsRtlInitializeLargeMcb(&mcb_, PagedPool); }
  void TearDown() override { FsRtlUninitializeLargeMcb(&mcb_); }

  std::vector<ReferenceMap::Run> Enumerate() {
    std::vector<ReferenceMap::Run> runs;
    LONGLONG vbn = 0, lbn = 0, count = 0;
    for (ULONG i = 0; FsRtlGetNextLargeMcbEntry(&mcb_, i, &vbn, &lbn, &count); ++i) runs.push_back({vbn, lbn, count});
    return runs;
  }

  // Every way of reading the map agrees with the reference.
  void ExpectSameAs(const ReferenceMap& ref, const std::string& step) {
    const std::vector<ReferenceMap::Run> runs = ref.Runs();
    ASSERT_EQ(Describe(Enumerate()), Describe(runs)) << "after " << step;
    ASSERT_EQ(FsRtlNumberOfRunsInLargeMcb(&mcb_), runs.size()) << "after " << step;
    LONGLONG lastVbn = 0, lastLbn = 0;
    const BOOLEAN hasLast = FsRtlLookupLastLargeMcbEntry(&mcb_, &lastVbn, &lastLbn);
    ASSERT_EQ(hasLast != FALSE, ref.End() > 0) << "after " << step;
    if (hasLast) {
      EXPECT_EQ(lastVbn, ref.End() - 1);
      EXPECT_EQ(lastLbn, ref.LbnOf(ref.End() - 1));
    }
    for (LONGLONG vbn = 0; vbn < ref.End() + 3; ++vbn) {
      LONGLONG lbn = 0, fromLbn = 0, start = 0, runLength = 0;
      ULONG index = 0;
      const BOOLEAN found = FsRtlLookupLargeMcbEntry(&mcb_, vbn, &lbn, &fromLbn, &start, &runLength, &index);
      ASSERT_EQ(found != FALSE, vbn < ref.End()) << "lookup of " << vbn << " after " << step;
      if (!found) continue;
      size_t r = 0;
      while (vbn >= runs[r].Vbn + runs[r].Count) ++r;
      EXPECT_EQ(lbn, ref.LbnOf(vbn)) << "lookup of " << vbn << " after " << step;
      EXPECT_EQ(fromLbn, runs[r].Vbn + runs[r].Count - vbn) << "lookup of " << vbn << " after " << step;
      EXPECT_EQ(start, runs[r].Lbn) << "lookup of " << vbn << " after " << step;
      EXPECT_EQ(runLength, runs[r].Count) << "lookup of " << vbn << " after " << step;
      EXPECT_EQ(index, r) << "lookup of " << vbn << " after " << step;
    }
  }

  LARGE_MCB mcb_;
};

TEST_F(LargeMcb, RandomAddsRemovesAndTruncationsMatchTheReference) {
  std::mt19937 random(20240611);
  ReferenceMap ref;
  for (int step = 0; step < 3000; ++step) {
    const LONGLONG vbn = random() % 64;
    const LONGLONG count = 1 + random() % 12;
    std::string what;
    switch (random() % 10) {
      case 0:
      case 1:
      case 2:
      case 3: {
        // LBNs from a small range, so that some adds continue or overlap earlier ones.
        const LONGLONG lbn = random() % 2 == 0 ? 1000 + vbn : random() % 200;
        what = "add " + std::to_string(vbn) + "+" + std::to_string(count) + "->" + std::to_string(lbn);
        EXPECT_EQ(FsRtlAddLargeMcbEntry(&mcb_, vbn, lbn, count) != FALSE, ref.Add(vbn, lbn, count)) << what;
        break;
      }
      case 4:
      case 5:
      case 6:
        what = "remove " + std::to_string(vbn) + "+" + std::to_string(count);
        FsRtlRemoveLargeMcbEntry(&mcb_, vbn, count);
        ref.Remove(vbn, count);
        break;
      case 7:
        what = "truncate at " + std::to_string(vbn);
        FsRtlTruncateLargeMcb(&mcb_, vbn);
        ref.Truncate(vbn);
        break;
      case 8: {
        // What a file system does to replace a run: remove the range, then add it anew.
        const LONGLONG lbn = random() % 500;
        what = "replace " + std::to_string(vbn) + "+" + std::to_string(count) + "->" + std::to_string(lbn);
        FsRtlRemoveLargeMcbEntry(&mcb_, vbn, count);
        ref.Remove(vbn, count);
        EXPECT_TRUE(FsRtlAddLargeMcbEntry(&mcb_, vbn, lbn, count)) << what;
        ref.Add(vbn, lbn, count);
        break;
      }
      default:
        if (random() % 8 == 0) {
          what = "reset";
          FsRtlResetLargeMcb(&mcb_, FALSE);
          ref = ReferenceMap();
        } else {
          what = "nothing";
        }
        break;
    }
    ExpectSameAs(ref, what);
    if (HasFatalFailure() || HasFailure()) return;
  }
}

TEST_F(LargeMcb, HolesAreRunsOfLbnMinusOneAndTheMapEndsWithItsLastRun) {
  ASSERT_TRUE(FsRtlAddLargeMcbEntry(&mcb_, 10, 500, 5));
  ASSERT_TRUE(FsRtlAddLargeMcbEntry(&mcb_, 15, 505, 5)) << "continues the run: merged";
  ASSERT_TRUE(FsRtlAddLargeMcbEntry(&mcb_, 30, 100, 2));
  EXPECT_EQ(FsRtlNumberOfRunsInLargeMcb(&mcb_), 4u) << "hole [0,10), [10,20), hole [20,30), [30,32)";

  LONGLONG lbn = 0, left = 0, start = 0, length = 0;
  ULONG index = 0;
  ASSERT_TRUE(FsRtlLookupLargeMcbEntry(&mcb_, 3, &lbn, &left, &start, &length, &index));
  EXPECT_EQ(lbn, kHole);
  EXPECT_EQ(left, 7);
  EXPECT_EQ(start, kHole);
  EXPECT_EQ(length, 10);
  EXPECT_EQ(index, 0u);
  ASSERT_TRUE(FsRtlLookupLargeMcbEntry(&mcb_, 31, &lbn, &left, nullptr, nullptr, &index));
  EXPECT_EQ(lbn, 101);
  EXPECT_EQ(left, 1);
  EXPECT_EQ(index, 3u);
  EXPECT_FALSE(FsRtlLookupLargeMcbEntry(&mcb_, 32, &lbn, nullptr, nullptr, nullptr, nullptr)) << "beyond the map";
  EXPECT_FALSE(FsRtlLookupLargeMcbEntry(&mcb_, -1, &lbn, nullptr, nullptr, nullptr, nullptr));

  EXPECT_FALSE(FsRtlAddLargeMcbEntry(&mcb_, 12, 900, 1)) << "mapped elsewhere already";
  EXPECT_TRUE(FsRtlAddLargeMcbEntry(&mcb_, 12, 502, 3)) << "the same mapping again";
  EXPECT_FALSE(FsRtlAddLargeMcbEntry(&mcb_, 40, kHole, 1)) << "a hole is not an LBN";
  EXPECT_FALSE(FsRtlAddLargeMcbEntry(&mcb_, 40, 1, 0));

  FsRtlRemoveLargeMcbEntry(&mcb_, 25, 100);
  EXPECT_EQ(FsRtlNumberOfRunsInLargeMcb(&mcb_), 2u) << "removing the last run shortens the map";
  EXPECT_FALSE(FsRtlLookupLargeMcbEntry(&mcb_, 20, &lbn, nullptr, nullptr, nullptr, nullptr));
}

TEST_F(LargeMcb, AnAddThatFindsNoPoolFailsAndLeavesTheMapAsItWas) {
  ASSERT_TRUE(FsRtlAddLargeMcbEntry(&mcb_, 0, 100, 4));
  // Fill the first block of runs, so that the next separate run needs a larger one.
  for (LONGLONG i = 1; i < 8; ++i) ASSERT_TRUE(FsRtlAddLargeMcbEntry(&mcb_, i * 10, i * 1000, 2));
  ASSERT_EQ(FsRtlNumberOfRunsInLargeMcb(&mcb_), 15u);

  kvhost::FailAllocationsWithTag(KV_POOL_TAG('F', 'S', 'm', 'c'));
  EXPECT_FALSE(FsRtlAddLargeMcbEntry(&mcb_, 90, 9000, 2));
  EXPECT_TRUE(FsRtlAddLargeMcbEntry(&mcb_, 2, 102, 4)) << "extending a run needs no room";
  // Splitting a run needs room: the removal is not made, and the add of the replacement
  // that follows it in a file system reports the failure.
  FsRtlRemoveLargeMcbEntry(&mcb_, 2, 1);
  LONGLONG lbn = 0;
  ASSERT_TRUE(FsRtlLookupLargeMcbEntry(&mcb_, 2, &lbn, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(lbn, 102);
  EXPECT_FALSE(FsRtlAddLargeMcbEntry(&mcb_, 2, 7777, 1));
  kvhost::ClearPoolFaults();

  EXPECT_EQ(FsRtlNumberOfRunsInLargeMcb(&mcb_), 15u);
  EXPECT_TRUE(FsRtlAddLargeMcbEntry(&mcb_, 90, 9000, 2));
  EXPECT_EQ(FsRtlNumberOfRunsInLargeMcb(&mcb_), 17u);
  for (const auto& block : kvhost::OutstandingPool()) {
    if (block.Tag == KV_POOL_TAG('F', 'S', 'm', 'c')) EXPECT_EQ(block.Type, PagedPool) << "the map's pool type";
  }
}

TEST(LargeMcbMisuse, AMapThatWasNeverInitialisedIsReported) {
  LARGE_MCB mcb{};
  kvhost::ViolationCapture capture;
  EXPECT_FALSE(FsRtlAddLargeMcbEntry(&mcb, 0, 1, 1));
  FsRtlInitializeLargeMcb(&mcb, NonPagedPoolNx);
  ASSERT_TRUE(FsRtlAddLargeMcbEntry(&mcb, 0, 1, 1));
  FsRtlUninitializeLargeMcb(&mcb);
  EXPECT_EQ(FsRtlNumberOfRunsInLargeMcb(&mcb), 0u) << "used after uninitialising";
  EXPECT_EQ(capture.Count("LargeMcbNotInitialized"), 2u) << capture.Describe();
}

}  // namespace
