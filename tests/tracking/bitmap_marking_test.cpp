// Marking written ranges in the change bitmap: the worked ranges, the fast path for blocks
// already marked, ranges at and past the end, and random ranges against a plain model of
// which blocks a write touches.
#include <gtest/gtest.h>
#include <wdm.h>

#include <random>
#include <vector>

#include "kvhost/irql.h"
#include "tracked_volume.h"
#include "tracking/cbt_tracking.h"

namespace kvtest {
namespace {

struct Counters {
  LONG64 Count, Bytes, Bits, Paging;
  bool operator==(const Counters&) const = default;
};

Counters CountersOf(const CBT_DEVICE_EXTENSION* e) {
  return {e->TrackedWriteCount, e->TrackedWriteBytes, e->TrackedWriteBits, e->PagingWriteCount};
}

class BitmapMarkingTest : public TrackingTest {
 protected:
  PCBT_DEVICE_EXTENSION Tracked(ULONG bytesPerBit = 65536, ULONG volumeBytes = 1 << 20) {
    return AddTrackedVolume({.BytesPerBit = bytesPerBit, .VolumeBytes = volumeBytes}).Extension();
  }
};

TEST_F(BitmapMarkingTest, ARangeMarksEveryBlockItTouches) {
  PCBT_DEVICE_EXTENSION e = Tracked();
  EXPECT_TRUE(CbtSetBitsInTrackingBitmap(e, 65535, 2, FALSE)) << "two bytes across a block boundary";
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{0, 1}));
  EXPECT_EQ(CountersOf(e), (Counters{1, 2, 2, 0}));

  PCBT_DEVICE_EXTENSION other = AddTrackedVolume({.BytesPerBit = 65536, .Number = 2}).Extension();
  EXPECT_TRUE(CbtSetBitsInTrackingBitmap(other, 65536, 65536, TRUE)) << "exactly the second block";
  EXPECT_EQ(SetBits(other), (std::set<ULONG>{1}));
  EXPECT_EQ(CountersOf(other), (Counters{1, 65536, 1, 1}));
  EXPECT_TRUE(RecordsOf("CbtSetBitsInTrackingBitmap").empty());
}

TEST_F(BitmapMarkingTest, RewritingMarkedBlocksReturnsFalseAndCountsNothing) {
  PCBT_DEVICE_EXTENSION e = Tracked();
  ASSERT_TRUE(CbtSetBitsInTrackingBitmap(e, 4096, 200000, FALSE));
  const Counters before = CountersOf(e);
  const LONG64 timeBefore = e->TrackingTimeMicroseconds;
  EXPECT_FALSE(CbtSetBitsInTrackingBitmap(e, 4096, 200000, TRUE));
  EXPECT_FALSE(CbtSetBitsInTrackingBitmap(e, 70000, 10, TRUE)) << "a range inside marked blocks";
  EXPECT_EQ(CountersOf(e), before);
  EXPECT_EQ(e->TrackingTimeMicroseconds, timeBefore);
  EXPECT_TRUE(CbtSetBitsInTrackingBitmap(e, 4096, 300000, FALSE)) << "one more block than before";
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{0, 1, 2, 3, 4}));
}

// The time spent setting bits adds up, in microseconds, with each mark that sets some; a
// mark of blocks already set adds nothing. Millions of bits take the clock far past a
// microsecond each time.
TEST_F(BitmapMarkingTest, TheTimeSpentSettingNewBitsAccumulates) {
  PCBT_DEVICE_EXTENSION e = Tracked(512);
  ASSERT_EQ(CbtAllocateTrackingBitMap(e, 4u << 20), STATUS_SUCCESS);  // 2 GiB in 512-byte blocks
  constexpr ULONG kHalf = 1u << 30;
  ASSERT_TRUE(CbtSetBitsInTrackingBitmap(e, 0, kHalf, FALSE));
  const LONG64 first = e->TrackingTimeMicroseconds;
  EXPECT_GT(first, 0);
  EXPECT_FALSE(CbtSetBitsInTrackingBitmap(e, 0, kHalf, FALSE));
  EXPECT_EQ(e->TrackingTimeMicroseconds, first);
  ASSERT_TRUE(CbtSetBitsInTrackingBitmap(e, kHalf, kHalf, FALSE));
  EXPECT_GT(e->TrackingTimeMicroseconds, first);
}

TEST_F(BitmapMarkingTest, ARangePastTheEndIsCutThereAndRecorded) {
  PCBT_DEVICE_EXTENSION e = Tracked();  // 16 bits
  EXPECT_TRUE(CbtSetBitsInTrackingBitmap(e, 15 * 65536, 3 * 65536, FALSE)) << "starts at the last bit";
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{15}));
  EXPECT_EQ(e->TrackedWriteBits, 1);
  std::vector<CBT_LOG_RECORD_BODY> records = RecordsOf("CbtSetBitsInTrackingBitmap");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(+records[0].Status, static_cast<ULONG>(STATUS_INVALID_PARAMETER));
  EXPECT_EQ(+records[0].VolumeNumber, 1u);
}

TEST_F(BitmapMarkingTest, RangesOfNoBitsMarkNothingAndAreNoTrackedWrite) {
  PCBT_DEVICE_EXTENSION e = Tracked();  // 16 bits
  EXPECT_FALSE(CbtSetBitsInTrackingBitmap(e, 16 * 65536, 4096, FALSE)) << "starts right at the end";
  EXPECT_EQ(RecordsOf("CbtSetBitsInTrackingBitmap").size(), 1u) << "cut to nothing, and recorded";
  DropRecords();
  EXPECT_FALSE(CbtSetBitsInTrackingBitmap(e, 17 * 65536, 4096, FALSE)) << "starts past the end";
  EXPECT_FALSE(CbtSetBitsInTrackingBitmap(e, -512, 4096, FALSE)) << "starts before the volume";
  EXPECT_FALSE(CbtSetBitsInTrackingBitmap(e, (1ll << 32) * 65536, 4096, FALSE))
      << "a block number that would wrap into the bitmap in 32 bits";
  EXPECT_EQ(RecordsOf("CbtSetBitsInTrackingBitmap").size(), 3u);
  DropRecords();
  EXPECT_FALSE(CbtSetBitsInTrackingBitmap(e, 100, 0, FALSE)) << "a write of no bytes";
  EXPECT_FALSE(CbtSetBitsInTrackingBitmap(e, 16 * 65536, 0, FALSE)) << "no bytes, right at the end";
  EXPECT_TRUE(RecordsOf("CbtSetBitsInTrackingBitmap").empty());
  EXPECT_TRUE(SetBits(e).empty());
  EXPECT_EQ(CountersOf(e), (Counters{0, 0, 0, 0}));
}

TEST_F(BitmapMarkingTest, WithoutGeometryNothingIsMarked) {
  Volume& volume = AddVolume(FixedVolume(1));
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  EXPECT_FALSE(CbtSetBitsInTrackingBitmap(e, 0, 4096, FALSE));
  EXPECT_EQ(CountersOf(e), (Counters{0, 0, 0, 0}));
  EXPECT_TRUE(RecordsOf("CbtSetBitsInTrackingBitmap").empty());
}

// A plain model: a write touches the blocks from the one holding its first byte to the one
// holding its last, and only those inside the bitmap are marked.
struct ModelBitmap {
  std::vector<bool> Bits;
  ULONG BytesPerBit;
  Counters Expected{0, 0, 0, 0};

  struct Outcome {
    bool NewBits;
    bool Recorded;
  };

  Outcome Mark(LONGLONG offset, ULONG length, bool paging) {
    const unsigned long long size = Bits.size();
    if (offset < 0) return {false, true};
    const unsigned long long first = static_cast<unsigned long long>(offset) / BytesPerBit;
    if (length == 0) return {false, first > size};
    const unsigned long long last = (static_cast<unsigned long long>(offset) + length - 1) / BytesPerBit;
    bool fresh = false;
    unsigned long long inside = 0;
    for (unsigned long long bit = first; bit <= last && bit < size; ++bit, ++inside) {
      fresh = fresh || !Bits[bit];
      Bits[bit] = true;
    }
    if (fresh) {
      Expected.Count += 1;
      Expected.Bytes += length;
      Expected.Bits += static_cast<LONG64>(inside);
      Expected.Paging += paging ? 1 : 0;
    }
    return {fresh, last >= size};
  }
};

TEST_F(BitmapMarkingTest, RandomRangesMarkWhatTheModelMarks) {
  PCBT_DEVICE_EXTENSION e = Tracked();
  std::mt19937_64 random(2024);
  const ULONG blockSizes[] = {512, 4096, 65536, 3 * 4096, 311296};
  for (int round = 0; round < 40; ++round) {
    const ULONG bytesPerBit = blockSizes[round % 5];
    const ULONG bitCount = std::uniform_int_distribution<ULONG>(1, 3000)(random);
    ASSERT_EQ(CbtAllocateTrackingBitMap(e, bitCount), STATUS_SUCCESS);
    kvhost::RunAtIrql(DISPATCH_LEVEL, [&] {
      KeAcquireSpinLockAtDpcLevel(&e->BitmapLock);
      RtlClearAllBits(&e->TrackingBitmap);
      KeReleaseSpinLockFromDpcLevel(&e->BitmapLock);
    });
    e->BytesPerBit = bytesPerBit;
    e->TrackedWriteCount = e->TrackedWriteBytes = e->TrackedWriteBits = e->PagingWriteCount = 0;
    ModelBitmap model{std::vector<bool>(bitCount), bytesPerBit};
    const LONGLONG span = static_cast<LONGLONG>(bitCount + 2) * bytesPerBit;

    for (int i = 0; i < 400; ++i) {
      LONGLONG offset = std::uniform_int_distribution<LONGLONG>(0, span)(random);
      ULONG length = std::uniform_int_distribution<ULONG>(1, 3 * bytesPerBit)(random);
      switch (random() % 20) {
        case 0: length = 0; break;
        case 1: offset = -std::uniform_int_distribution<LONGLONG>(1, 2 * bytesPerBit)(random); break;
        case 2: length = std::uniform_int_distribution<ULONG>(0, 0xFFFFFFFFu)(random); break;
        case 3: offset = std::uniform_int_distribution<LONGLONG>(0, 1ll << 50)(random); break;
        case 4: offset = offset / bytesPerBit * bytesPerBit; length = length / bytesPerBit * bytesPerBit + 1; break;
      }
      const bool paging = random() % 3 == 0;
      const ModelBitmap::Outcome expected = model.Mark(offset, length, paging);
      DropRecords();
      const BOOLEAN marked = random() % 2 == 0
                                 ? CbtSetBitsInTrackingBitmap(e, offset, length, paging)
                                 : kvhost::RunAtIrql(DISPATCH_LEVEL, [&] {
                                     return CbtSetBitsInTrackingBitmap(e, offset, length, paging);
                                   });
      SCOPED_TRACE(testing::Message() << "offset " << offset << " length " << length << ", " << bitCount
                                      << " bits of " << bytesPerBit);
      ASSERT_EQ(marked != FALSE, expected.NewBits);
      ASSERT_EQ(RecordsOf("CbtSetBitsInTrackingBitmap").size(), expected.Recorded ? 1u : 0u);
      ASSERT_EQ(CountersOf(e), model.Expected);
    }
    std::set<ULONG> expectedBits;
    for (ULONG bit = 0; bit < bitCount; ++bit)
      if (model.Bits[bit]) expectedBits.insert(bit);
    ASSERT_EQ(SetBits(e), expectedBits) << "round " << round;
  }
}

}  // namespace
}  // namespace kvtest
