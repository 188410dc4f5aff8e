// The bitmap routines the change bitmap is built on: word boundaries, the ends of the
// bitmap, ranges that leave it, and a model check of every routine.
#include <gtest/gtest.h>
#include <wdm.h>

#include <algorithm>
#include <random>
#include <vector>

#include "kvhost/verifier.h"

namespace {

constexpr ULONG kNotFound = 0xFFFFFFFF;

// A bitmap with a guard word after its buffer, so writes past the end show.
struct GuardedBitmap {
  explicit GuardedBitmap(ULONG bits) : words((bits + 31) / 32 + 1, 0) {
    RtlInitializeBitMap(&header, words.data(), bits);
    words.back() = kGuard;
  }
  bool GuardIntact() const { return words.back() == kGuard; }
  static constexpr ULONG kGuard = 0x5A5A5A5A;
  std::vector<ULONG> words;
  RTL_BITMAP header;
};

TEST(RtlBitmap, FindsRunsAcrossWordBoundariesAndAtTheEnds) {
  GuardedBitmap b(100);
  RtlSetBits(&b.header, 30, 4);  // spans words 0 and 1
  EXPECT_EQ(b.words[0], 0xC0000000u);
  EXPECT_EQ(b.words[1], 0x00000003u);
  EXPECT_EQ(RtlFindSetBits(&b.header, 4, 0), 30u);
  EXPECT_EQ(RtlFindSetBits(&b.header, 5, 0), kNotFound);
  EXPECT_TRUE(RtlAreBitsSet(&b.header, 30, 4));
  EXPECT_FALSE(RtlAreBitsSet(&b.header, 29, 4));
  EXPECT_TRUE(RtlAreBitsClear(&b.header, 34, 66)) << "a clear range up to the last bit";

  // A run in the last, partial word, ending exactly at the bitmap's end.
  RtlSetBits(&b.header, 96, 4);
  EXPECT_EQ(RtlFindSetBits(&b.header, 4, 40), 96u);
  ULONG start = 0;
  EXPECT_EQ(RtlFindNextForwardRunSet(&b.header, 35, &start), 4u);
  EXPECT_EQ(start, 96u);
  EXPECT_EQ(RtlFindNextForwardRunClear(&b.header, 97, &start), 0u) << "no clear bit after 96";
  EXPECT_EQ(start, 100u);
  EXPECT_EQ(RtlFindNextForwardRunClear(&b.header, 100, &start), 0u);
  EXPECT_EQ(start, 100u);

  // The hint wraps: nothing at or after 98 fits, the search goes on from the start.
  EXPECT_EQ(RtlFindSetBits(&b.header, 3, 97), 97u);
  EXPECT_EQ(RtlFindSetBits(&b.header, 3, 98), 30u);
  EXPECT_EQ(RtlFindClearBits(&b.header, 60, 40), 34u) << "a run may begin before the hint";
  EXPECT_EQ(RtlFindClearBits(&b.header, 62, 0), 34u);
  EXPECT_EQ(RtlFindClearBits(&b.header, 62, 50), 34u) << "after wrapping, the whole bitmap counts";
  EXPECT_EQ(RtlFindClearBits(&b.header, 62, 5000), 34u) << "a hint past the end starts at 0";
  EXPECT_EQ(RtlFindClearBits(&b.header, 30, 0), 0u);
  EXPECT_EQ(RtlFindClearBits(&b.header, 101, 0), kNotFound);
  EXPECT_EQ(RtlFindClearBits(&b.header, 0, 13), 8u) << "an empty request gives the hint's byte";

  EXPECT_EQ(RtlFindFirstRunClear(&b.header, &start), 30u);
  EXPECT_EQ(start, 0u);
  EXPECT_EQ(RtlFindLongestRunClear(&b.header, &start), 62u);
  EXPECT_EQ(start, 34u);
  EXPECT_EQ(RtlNumberOfSetBits(&b.header), 8u);
  EXPECT_EQ(RtlNumberOfClearBits(&b.header), 92u);
  EXPECT_TRUE(b.GuardIntact());
}

TEST(RtlBitmap, RangesThatLeaveTheBitmapAreRefused) {
  GuardedBitmap b(70);
  RtlSetAllBits(&b.header);
  EXPECT_TRUE(b.GuardIntact());
  EXPECT_TRUE(RtlAreBitsSet(&b.header, 0, 70));
  EXPECT_FALSE(RtlAreBitsSet(&b.header, 0, 71));
  EXPECT_FALSE(RtlAreBitsSet(&b.header, 69, 2));
  EXPECT_FALSE(RtlAreBitsSet(&b.header, 10, 0)) << "an empty range is never 'all set'";
  EXPECT_FALSE(RtlAreBitsSet(&b.header, 0xFFFFFFF0u, 0x20)) << "start + length wraps around 2^32";
  EXPECT_FALSE(RtlAreBitsClear(&b.header, 70, 1));

  kvhost::ViolationCapture capture;
  RtlClearBits(&b.header, 60, 11);
  RtlClearBits(&b.header, 0xFFFFFFFFu, 2);
  RtlSetBit(&b.header, 70);
  EXPECT_FALSE(RtlTestBit(&b.header, 70));
  EXPECT_EQ(capture.Count("BitmapOutOfRange"), 4u) << capture.Describe();
  EXPECT_NE(capture.All()[0].Message.find("RtlClearBits of bits 60..70 on a bitmap of 70 bits"), std::string::npos)
      << capture.Describe();
  EXPECT_TRUE(RtlAreBitsSet(&b.header, 0, 70)) << "a refused range changes nothing";
  EXPECT_TRUE(b.GuardIntact());
}

TEST(RtlBitmap, BitsPastTheSizeInTheLastWordAreIgnored) {
  GuardedBitmap b(40);
  b.words[1] = 0xFFFFFF00;  // only bits 32..39 belong to the bitmap
  EXPECT_EQ(RtlNumberOfSetBits(&b.header), 0u);
  EXPECT_EQ(RtlFindSetBits(&b.header, 1, 0), kNotFound);
  ULONG start = 0;
  EXPECT_EQ(RtlFindNextForwardRunSet(&b.header, 0, &start), 0u);
  EXPECT_EQ(RtlFindFirstRunClear(&b.header, &start), 40u);
  RtlSetAllBits(&b.header);
  EXPECT_EQ(RtlNumberOfClearBits(&b.header), 0u);
  EXPECT_EQ(RtlFindClearBits(&b.header, 1, 0), kNotFound);
}

// A plain model of the documented behaviour, bit by bit.
struct Model {
  std::vector<bool> bits;

  bool RangeIs(ULONG start, ULONG length, bool value) const {
    if (length == 0 || static_cast<unsigned long long>(start) + length > bits.size()) return false;
    for (ULONG i = start; i < start + length; ++i)
      if (bits[i] != value) return false;
    return true;
  }
  ULONG Find(ULONG count, ULONG hint, bool value) const {
    ULONG size = static_cast<ULONG>(bits.size());
    if (count > size) return kNotFound;
    if (hint >= size) hint = 0;
    if (count == 0) return hint & ~7U;
    for (ULONG i = hint; i + count <= size; ++i)
      if (RangeIs(i, count, value)) return i;
    for (ULONG i = 0; i < hint && i + count <= size; ++i)
      if (RangeIs(i, count, value)) return i;
    return kNotFound;
  }
  ULONG NextRun(ULONG from, bool value, ULONG* start) const {
    ULONG size = static_cast<ULONG>(bits.size());
    if (from >= size) {
      *start = from;
      return 0;
    }
    ULONG i = from;
    while (i < size && bits[i] != value) ++i;
    *start = i;
    ULONG length = 0;
    while (i < size && bits[i] == value) ++i, ++length;
    return length;
  }
  std::vector<RTL_BITMAP_RUN> ClearRuns() const {
    std::vector<RTL_BITMAP_RUN> runs;
    ULONG from = 0;
    ULONG start = 0;
    while (ULONG length = NextRun(from, false, &start)) {
      runs.push_back({start, length});
      from = start + length;
    }
    return runs;
  }
};

bool SameRuns(const RTL_BITMAP_RUN* a, const std::vector<RTL_BITMAP_RUN>& b) {
  for (size_t i = 0; i < b.size(); ++i)
    if (a[i].StartingIndex != b[i].StartingIndex || a[i].NumberOfBits != b[i].NumberOfBits) return false;
  return true;
}

TEST(RtlBitmap, EveryRoutineAgreesWithABitByBitModel) {
  std::mt19937 rng(20240611);
  const ULONG sizes[] = {1, 31, 32, 33, 63, 64, 65, 95, 96, 127, 128, 129, 200, 257, 500};
  for (ULONG size : sizes) {
    for (int round = 0; round < 20; ++round) {
      GuardedBitmap b(size);
      Model m{std::vector<bool>(size, false)};
      auto pick = [&](ULONG limit) { return std::uniform_int_distribution<ULONG>(0, limit)(rng); };
      // Runs of varied lengths, so that both long and word-sized runs occur.
      for (int op = 0; op < 12; ++op) {
        ULONG start = pick(size - 1);
        ULONG count = pick(std::min<ULONG>(size - start, op % 3 == 0 ? 70 : 6));
        bool set = pick(1) == 1;
        if (set)
          RtlSetBits(&b.header, start, count);
        else
          RtlClearBits(&b.header, start, count);
        for (ULONG i = start; i < start + count; ++i) m.bits[i] = set;
        ULONG bit = pick(size - 1);
        if (op % 2) {
          RtlSetBit(&b.header, bit);
          m.bits[bit] = true;
        }
      }
      SCOPED_TRACE(testing::Message() << "size " << size << " round " << round);
      ULONG setCount = static_cast<ULONG>(std::count(m.bits.begin(), m.bits.end(), true));
      ASSERT_EQ(RtlNumberOfSetBits(&b.header), setCount);
      ASSERT_EQ(RtlNumberOfClearBits(&b.header), size - setCount);
      for (int q = 0; q < 40; ++q) {
        ULONG start = pick(size + 2);
        ULONG length = pick(size + 2 - std::min(start, size));
        ASSERT_EQ(RtlAreBitsSet(&b.header, start, length) != 0, m.RangeIs(start, length, true))
            << start << "+" << length;
        ASSERT_EQ(RtlAreBitsClear(&b.header, start, length) != 0, m.RangeIs(start, length, false))
            << start << "+" << length;
        ULONG count = pick(std::min<ULONG>(size + 1, 40));
        ULONG hint = pick(size + 3);
        ASSERT_EQ(RtlFindSetBits(&b.header, count, hint), m.Find(count, hint, true)) << count << " from " << hint;
        ASSERT_EQ(RtlFindClearBits(&b.header, count, hint), m.Find(count, hint, false))
            << count << " from " << hint;
        ULONG from = pick(size + 1);
        ULONG gotStart = 0, wantStart = 0;
        ASSERT_EQ(RtlFindNextForwardRunClear(&b.header, from, &gotStart), m.NextRun(from, false, &wantStart));
        ASSERT_EQ(gotStart, wantStart);
        ASSERT_EQ(RtlFindNextForwardRunSet(&b.header, from, &gotStart), m.NextRun(from, true, &wantStart));
        ASSERT_EQ(gotStart, wantStart);
        if (from < size) {
          ASSERT_EQ(RtlTestBit(&b.header, from) != 0, m.bits[from]);
        }
      }

      std::vector<RTL_BITMAP_RUN> runs = m.ClearRuns();
      std::vector<RTL_BITMAP_RUN> got(runs.size() + 1);
      ULONG limit = static_cast<ULONG>(std::min<size_t>(runs.size(), 3));
      ASSERT_EQ(RtlFindClearRuns(&b.header, got.data(), limit, FALSE), limit);
      ASSERT_TRUE(SameRuns(got.data(), std::vector<RTL_BITMAP_RUN>(runs.begin(), runs.begin() + limit)));
      std::stable_sort(runs.begin(), runs.end(), [](const RTL_BITMAP_RUN& a, const RTL_BITMAP_RUN& c) {
        return a.NumberOfBits > c.NumberOfBits;
      });
      ASSERT_EQ(RtlFindClearRuns(&b.header, got.data(), static_cast<ULONG>(got.size()), TRUE), runs.size());
      ASSERT_TRUE(SameRuns(got.data(), runs)) << "longest first, earlier first among equals";
      if (runs.size() > 1) {
        ULONG top = RtlFindClearRuns(&b.header, got.data(), 1, TRUE);
        ASSERT_EQ(top, 1u);
        ASSERT_EQ(got[0].NumberOfBits, runs[0].NumberOfBits);
        ULONG longestStart = 0;
        ASSERT_EQ(RtlFindLongestRunClear(&b.header, &longestStart), runs[0].NumberOfBits);
        ASSERT_EQ(longestStart, runs[0].StartingIndex);
      }

      // Find-and-flip leaves the model and the bitmap in step.
      ULONG count = pick(std::min<ULONG>(size, 8));
      ULONG hint = pick(size - 1);
      ULONG want = m.Find(count, hint, false);
      ASSERT_EQ(RtlFindClearBitsAndSet(&b.header, count, hint), want);
      if (want != kNotFound) {
        for (ULONG i = want; i < want + count; ++i) m.bits[i] = true;
        ASSERT_EQ(RtlNumberOfSetBits(&b.header), static_cast<ULONG>(std::count(m.bits.begin(), m.bits.end(), true)));
      }
      ASSERT_TRUE(b.GuardIntact());
    }
  }
}

}  // namespace
