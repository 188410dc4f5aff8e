// Copying the change bitmap out, as a backup application's DeviceIoControl arrives at the top
// of a volume's stack: the exact byte count, the bits past the end, refusals of every
// malformed request, and that a copy neither changes the bitmap nor reaches the volume below.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <memory>
#include <vector>

#include "control_request.h"
#include "driver/cbt_device_extension.h"
#include "kvcbt/control.h"
#include "kvhost/io.h"
#include "kvtestbed/disk_images.h"
#include "probe_machine.h"
#include "tracking/cbt_tracking.h"

namespace {

using kvtest::ControlRequest;
using kvtest::ControlResult;
using kvtest::kUntouched;

class BitmapCopyTest : public kvtest::ProbeMachineTest {
 protected:
  void SetUp() override {
    BootWithOneVolume();
  }

  PCBT_DEVICE_EXTENSION Extension() const { return ExtensionOf(volume_); }

  // The bitmap a recognised file system would have given the volume (the memory volume has
  // none of its own); the volume's removal frees it.
  void GiveBitmap(ULONG bits, ULONG bytesPerBit = 65536) {
    PCBT_DEVICE_EXTENSION e = Extension();
    KeWaitForSingleObject(&e->FileSystemMutex, Executive, KernelMode, FALSE, nullptr);
    ASSERT_EQ(CbtAllocateTrackingBitMap(e, bits), STATUS_SUCCESS);
    e->BitCount = bits;
    e->BytesPerBit = bytesPerBit;
    KeSetEvent(&e->FileSystemMutex, IO_NO_INCREMENT, FALSE);
  }

  ControlResult Copy(ULONG outputLength, std::vector<uint8_t> input = {}) {
    return kvtest::SendControlRequest(volume_->TopOfStack(),
                                      {.Code = IOCTL_KVCBT_GET_VOLUME_BITMAP, .Input = std::move(input),
                                       .OutputLength = outputLength});
  }

  ControlResult Check(ULONG inputLength = 0, ULONG outputLength = 0) {
    return kvtest::SendControlRequest(volume_->TopOfStack(),
                                      {.Code = IOCTL_KVCBT_CHECK_VOLUME_BITMAP,
                                       .Input = std::vector<uint8_t>(inputLength, 1), .OutputLength = outputLength});
  }

  // Statuses of the dispatch's records since the last call.
  static std::vector<ULONG> TakeRecordStatuses() {
    std::vector<ULONG> statuses;
    for (const kvtest::LoggedRecord& record : TakeRecords("CbtDispatchDeviceControl")) statuses.push_back(record.Status);
    return statuses;
  }
};

TEST_F(BitmapCopyTest, TheReplyIsExactlyTheBitmapsBytesAndTheRestOfTheBufferIsUntouched) {
  GiveBitmap(1000);
  CbtSetBitsInTrackingBitmap(Extension(), 0, 1, FALSE);                 // bit 0
  CbtSetBitsInTrackingBitmap(Extension(), 9 * 65536 + 10, 70000, FALSE);  // bits 9 and 10
  CbtSetBitsInTrackingBitmap(Extension(), 999ll * 65536, 65536, FALSE);   // the last bit

  ControlResult tooSmall = Copy(124);
  EXPECT_EQ(tooSmall.Status, STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(tooSmall.Information, 0u) << "the caller is not told the size it needs";
  EXPECT_TRUE(std::all_of(tooSmall.Output.begin(), tooSmall.Output.end(), [](uint8_t b) { return b == kUntouched; }));

  for (ULONG outputLength : {125u, 4096u}) {
    SCOPED_TRACE(outputLength);
    ControlResult copy = Copy(outputLength);
    EXPECT_EQ(copy.Status, STATUS_SUCCESS);
    ASSERT_EQ(copy.Information, 125u);
    std::vector<uint8_t> expected(125, 0);
    expected[0] = 0x01;
    expected[1] = 0x06;  // bits 9 and 10
    expected[124] = 0x80;  // bit 999
    EXPECT_EQ(std::vector<uint8_t>(copy.Output.begin(), copy.Output.begin() + 125), expected);
    EXPECT_TRUE(std::all_of(copy.Output.begin() + 125, copy.Output.end(), [](uint8_t b) { return b == kUntouched; }));
  }
  EXPECT_EQ(TakeRecordStatuses(), std::vector<ULONG>{static_cast<ULONG>(STATUS_BUFFER_TOO_SMALL)})
      << "refusals are recorded, copies are not";
  EXPECT_TRUE(probe_.ControlRequests().empty()) << "the volume below never sees the request";
}

TEST_F(BitmapCopyTest, BitsPastTheLastBlockAreNeverSetAndCopyingChangesNothing) {
  GiveBitmap(1001);
  // A write across the end of the volume marks up to the last block, never past it.
  CbtSetBitsInTrackingBitmap(Extension(), 990ll * 65536, 64 * 65536, FALSE);
  ControlResult first = Copy(126);
  ASSERT_EQ(first.Status, STATUS_SUCCESS);
  ASSERT_EQ(first.Information, 126u);
  EXPECT_EQ(first.Output[125], 0x01) << "bit 1000 is set; the seven bits after it stay clear";
  EXPECT_EQ(first.Output[124], 0xFF);
  EXPECT_EQ(first.Output[123], 0xC0);  // bits 990 and 991

  ControlResult second = Copy(126);
  EXPECT_EQ(second.Output, first.Output) << "a copy never clears a bit";
  EXPECT_EQ(Extension()->TrackedWriteCount, 1) << "nor counts as a write";
}

TEST_F(BitmapCopyTest, MalformedRequestsAreRefusedWithInvalidParameter) {
  // No bitmap yet: the volume's file system was never recognised.
  EXPECT_EQ(Copy(4096).Status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(Check().Status, STATUS_INVALID_PARAMETER);

  GiveBitmap(1000);
  const ControlRequest malformed[] = {
      {.Code = IOCTL_KVCBT_GET_VOLUME_BITMAP, .Input = {1, 2, 3, 4}, .OutputLength = 4096},  // an input
      {.Code = IOCTL_KVCBT_GET_VOLUME_BITMAP, .OutputLength = 0},                          // no output
      {.Code = IOCTL_KVCBT_GET_VOLUME_BITMAP, .OutputLength = 4096, .HasOutputBuffer = false},  // no MDL
  };
  for (const ControlRequest& request : malformed) {
    ControlResult result = kvtest::SendControlRequest(volume_->TopOfStack(), request);
    EXPECT_EQ(result.Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(result.Information, 0u);
    EXPECT_TRUE(std::all_of(result.Output.begin(), result.Output.end(), [](uint8_t b) { return b == kUntouched; }));
  }
  for (auto [in, out] : {std::pair{4u, 0u}, std::pair{0u, 4u}}) {
    ControlResult result = Check(in, out);
    EXPECT_EQ(result.Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(result.Information, 0u);
  }
  EXPECT_EQ(Check().Status, STATUS_SUCCESS);

  // Every outcome of the check is recorded; each refused copy too.
  const ULONG invalid = static_cast<ULONG>(STATUS_INVALID_PARAMETER);
  EXPECT_EQ(TakeRecordStatuses(), (std::vector<ULONG>{invalid, invalid, invalid, invalid, invalid, invalid, invalid, 0}));
  EXPECT_TRUE(probe_.ControlRequests().empty());
}

TEST_F(BitmapCopyTest, AnOutputThatCannotBeMappedIsRefusedForWantOfResources) {
  GiveBitmap(1000);
  kvhost::MmFailSystemMappings(1);
  ControlResult result = Copy(125);
  EXPECT_EQ(result.Status, STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(result.Information, 0u);
  EXPECT_EQ(Copy(125).Status, STATUS_SUCCESS) << "the next mapping works again";
}

// End to end on a real NTFS volume: after the volume came online, every block a write
// touched is set in the bitmap a backup application copies out, and no other. Writes of every
// size and alignment a volume takes, some completing from the storage thread.
using BitmapCopyEndToEnd = kvtest::ProbeMachineTest;

TEST_F(BitmapCopyEndToEnd, EveryBlockWrittenSinceOnlineIsSetAndNoOther) {
  BuildMachine();
  kvtestbed::Volume* c = AddVolume({.Name = "C:", .SizeBytes = 256ull << 20, .DriveLetter = u'C'});
  ASSERT_NE(c, nullptr);
  ASSERT_EQ(kvtestbed::FormatNtfs(*c, {.ClusterSize = 4096}), "");
  BootMachine();
  const CBT_DEVICE_EXTENSION* e = ExtensionOf(c);
  ASSERT_TRUE(CbtFlagsSet(e, CBT_FLAG_FS_CONTEXT));
  const uint64_t bytesPerBit = e->BytesPerBit;
  const uint64_t volumeBytes = c->SizeBytes();

  std::mt19937_64 random(2024);
  std::set<uint64_t> written;
  for (int i = 0; i < 300; ++i) {
    if (i == 150) c->SetCompleteFromThread(true);
    const uint64_t sectors = 1 + random() % (i % 10 == 0 ? 2048 : 16);
    const uint64_t length = sectors * 512;
    const uint64_t offset = (random() % ((volumeBytes - length) / 512)) * 512;
    ASSERT_EQ(machine_->Write(*c, offset, std::vector<uint8_t>(length, static_cast<uint8_t>(i))).Status,
              STATUS_SUCCESS);
    for (uint64_t block = offset / bytesPerBit; block <= (offset + length - 1) / bytesPerBit; ++block)
      written.insert(block);
  }
  const ULONG bytes = (e->BitCount + 7) / 8;
  const kvtestbed::IoResult copy = machine_->Control(*c, IOCTL_KVCBT_GET_VOLUME_BITMAP, {}, bytes);
  ASSERT_EQ(copy.Status, STATUS_SUCCESS);
  ASSERT_EQ(copy.Data.size(), bytes);
  std::set<uint64_t> set;
  for (uint64_t bit = 0; bit < e->BitCount; ++bit)
    if ((copy.Data[bit / 8] >> (bit % 8)) & 1) set.insert(bit);
  EXPECT_EQ(set, written);
  EXPECT_EQ(e->UntrackedWriteCount, 0);
}

}  // namespace
