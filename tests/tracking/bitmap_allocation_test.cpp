// Sizing a volume's bitmap: the buffer sizes of the worked volumes, reallocation that keeps
// the bits, and refusal and failure that leave the bitmap in force.
#include <gtest/gtest.h>
#include <wdm.h>

#include "driver/cbt_driver.h"
#include "kvhost/pool.h"
#include "tracked_volume.h"
#include "tracking/cbt_tracking.h"

namespace kvtest {
namespace {

class BitmapAllocationTest : public TrackingTest {
 protected:
  PCBT_DEVICE_EXTENSION Untracked() { return AddVolume(FixedVolume(1)).Extension(); }

  static void Mark(PCBT_DEVICE_EXTENSION e, std::initializer_list<ULONG> bits) {
    e->BytesPerBit = 4096;
    for (ULONG bit : bits) ASSERT_TRUE(CbtSetBitsInTrackingBitmap(e, 4096ll * bit, 1, FALSE)) << bit;
  }
};

TEST_F(BitmapAllocationTest, TheBufferIsWholePagesOfZeroedNonPagedPool) {
  PCBT_DEVICE_EXTENSION e = Untracked();
  const struct {
    ULONG Bits;
    ULONG Bytes;
  } sizes[] = {{1, 4096}, {16384, 4096}, {32769, 8192}, {1048576, 131072}, {3512815, 442368}, {3497531, 438272}};
  for (const auto& size : sizes) {
    ASSERT_EQ(CbtAllocateTrackingBitMap(e, size.Bits), STATUS_SUCCESS) << size.Bits;
    EXPECT_EQ(e->BitmapAllocationSize, size.Bytes) << size.Bits;
    EXPECT_EQ(e->TrackingBitmap.SizeOfBitMap, size.Bits);
    EXPECT_EQ(RtlNumberOfSetBits(&e->TrackingBitmap), 0u) << "a new bitmap starts clear";
  }
  bool found = false;
  for (const kvhost::PoolBlockInfo& block : kvhost::OutstandingPool())
    if (block.Address == e->TrackingBitmap.Buffer) {
      found = true;
      EXPECT_EQ(block.Tag, CBT_POOL_TAG);
      EXPECT_EQ(block.Type, NonPagedPoolNx);
      EXPECT_EQ(block.Bytes, SIZE_T{438272});
    }
  EXPECT_TRUE(found);
}

TEST_F(BitmapAllocationTest, ReallocationKeepsTheBitsThatStillFit) {
  PCBT_DEVICE_EXTENSION e = Untracked();
  ASSERT_EQ(CbtAllocateTrackingBitMap(e, 40000), STATUS_SUCCESS);
  const size_t blocks = kvhost::OutstandingBlocks(CBT_POOL_TAG);
  Mark(e, {0, 31, 32, 39999});
  PULONG buffer = e->TrackingBitmap.Buffer;

  EXPECT_EQ(CbtAllocateTrackingBitMap(e, 40000), STATUS_SUCCESS);
  EXPECT_EQ(e->TrackingBitmap.Buffer, buffer) << "the same size changes nothing";
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{0, 31, 32, 39999}));

  ASSERT_EQ(CbtAllocateTrackingBitMap(e, 100000), STATUS_SUCCESS);
  EXPECT_EQ(e->BitmapAllocationSize, 16384u);
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{0, 31, 32, 39999})) << "growing adds clear bits";

  Mark(e, {99999});
  ASSERT_EQ(CbtAllocateTrackingBitMap(e, 33), STATUS_SUCCESS);
  EXPECT_EQ(e->BitmapAllocationSize, 4096u);
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{0, 31, 32})) << "shrinking keeps what still fits";
  EXPECT_EQ(kvhost::OutstandingBlocks(CBT_POOL_TAG), blocks) << "each old buffer is freed";
}

TEST_F(BitmapAllocationTest, NoBitsIsRefusedAndRecorded) {
  PCBT_DEVICE_EXTENSION e = Untracked();
  EXPECT_EQ(CbtAllocateTrackingBitMap(e, 0), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(e->TrackingBitmap.Buffer, nullptr);
  std::vector<CBT_LOG_RECORD_BODY> records = RecordsOf("CbtAllocateTrackingBitMap");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(+records[0].Status, static_cast<ULONG>(STATUS_INVALID_PARAMETER));
}

TEST_F(BitmapAllocationTest, WithoutPoolTheOldBitmapStaysInForce) {
  PCBT_DEVICE_EXTENSION e = Untracked();
  ASSERT_EQ(CbtAllocateTrackingBitMap(e, 1000), STATUS_SUCCESS);
  Mark(e, {7, 999});
  DropRecords();
  kvhost::FailNthAllocation(1, CBT_POOL_TAG);
  EXPECT_EQ(CbtAllocateTrackingBitMap(e, 50000), STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(e->TrackingBitmap.SizeOfBitMap, 1000u);
  EXPECT_EQ(e->BitmapAllocationSize, 4096u);
  EXPECT_EQ(SetBits(e), (std::set<ULONG>{7, 999}));
  std::vector<CBT_LOG_RECORD_BODY> records = RecordsOf("CbtAllocateTrackingBitMap");
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(+records[0].Status, 8192u) << "the record carries the size that could not be had";
  EXPECT_TRUE(CbtSetBitsInTrackingBitmap(e, 4096 * 8, 1, FALSE)) << "marking goes on in the old bitmap";
}

}  // namespace
}  // namespace kvtest
