// Copying the change bitmap out, as a backup application's DeviceIoControl arrives at the top
// of a volume's stack: the exact byte count, the bits past the end, refusals of every
// malformed request, and that a copy neither changes the bitmap nor reaches the volume below.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "control_request.h"
#include "driver/cbt_device_extension.h"
#include "kvcbt/control.h"
#include "kvhost/io.h"
#include "kvtestbed/machine.h"
#include "log/cbt_log_inspection.h"
#include "probe_filter.h"
#include "tracking/cbt_tracking.h"

namespace {

using kvtest::ControlRequest;
using kvtest::ControlResult;
using kvtest::kUntouched;

class BitmapCopyTest : public testing::Test {
 protected:
  void SetUp() override {
    kvtestbed::MachineConfig config;
    config.VolumeUpperFilters = {std::u16string(kvtest::ProbeFilter::kService), u"kvcbt"};
    config.Services = {
        {std::u16string(kvtest::ProbeFilter::kService), &kvtest::ProbeFilter::DriverEntry, {}},
        {u"kvcbt", &DriverEntry, {kvtestbed::RegistrySetting::Dword(u"DebugLog", 1)}},
    };
    machine_ = std::make_unique<kvtestbed::Machine>(config);
    volume_ = machine_->AddVolume({.Name = "D:", .DriveLetter = u'D'});
    ASSERT_NE(volume_, nullptr);
    ASSERT_EQ(machine_->Boot(), STATUS_SUCCESS);
    probe_.Clear();
    CbtDrainQueuedLogRecords(nullptr, CBT_LOG_QUEUE_LIMIT);
  }

  PCBT_DEVICE_EXTENSION Extension() const { return CbtExtensionOf(volume_->TopOfStack()); }

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
    std::vector<CBT_LOG_RECORD_BODY> bodies(CBT_LOG_QUEUE_LIMIT);
    bodies.resize(CbtDrainQueuedLogRecords(bodies.data(), CBT_LOG_QUEUE_LIMIT));
    std::vector<ULONG> statuses;
    // The record is packed: its status is copied out, never bound to a reference.
    for (const CBT_LOG_RECORD_BODY& body : bodies)
      if (std::string(body.Text) == "CbtDispatchDeviceControl") statuses.push_back(ULONG{body.Status});
    return statuses;
  }

  kvtest::ProbeFilter probe_;
  std::unique_ptr<kvtestbed::Machine> machine_;
  kvtestbed::Volume* volume_ = nullptr;
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

}  // namespace
