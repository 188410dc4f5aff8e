// CbtSendDeviceControl against a scripted device: what the target receives, what comes
// back to the caller, waiting for a target that pends, and running out of memory.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "control/cbt_control.h"
#include "control_request.h"
#include "kvhost/io.h"
#include "kvhost/pool.h"
#include "probe_device.h"

namespace {

using kvtest::Pattern;
using kvtest::ProbeDevice;
using kvtest::ProbeReply;

constexpr ULONG kBufferedQuestion = CTL_CODE(FILE_DEVICE_DISK, 0x900, METHOD_BUFFERED, FILE_ANY_ACCESS);

TEST(SendDeviceControl, RefusesEveryMethodButBufferedWithoutSendingOrAllocating) {
  ProbeDevice target;
  for (ULONG method : {METHOD_IN_DIRECT, METHOD_OUT_DIRECT, METHOD_NEITHER}) {
    SCOPED_TRACE(method);
    uint8_t output[16] = {};
    IO_STATUS_BLOCK iosb{};
    const kvhost::PoolMark mark = kvhost::MarkPool();
    EXPECT_EQ(CbtSendDeviceControl(target.Device(), CTL_CODE(FILE_DEVICE_DISK, 0x900, method, FILE_ANY_ACCESS), output,
                                   sizeof output, output, sizeof output, &iosb),
              STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(kvhost::AllocationsSince(mark), 0u);
  }
  EXPECT_EQ(target.RequestCount(), 0u);
}

TEST(SendDeviceControl, OneBufferOfTheLargerSizeCarriesTheInputDownAndTheWholeOutputBack) {
  ProbeDevice target(512, 4096, /*stackSize=*/3);
  const std::vector<uint8_t> input = Pattern(12, 0x10);
  const std::vector<uint8_t> answer = Pattern(32, 0xA0);
  // The target reports only 4 bytes, but the caller's whole output is refreshed from the
  // shared buffer.
  target.QueueReply(ProbeReply{STATUS_SUCCESS, 4, answer});
  std::vector<uint8_t> output(32, 0xEE);
  IO_STATUS_BLOCK iosb{};
  iosb.Status = STATUS_UNSUCCESSFUL;

  EXPECT_EQ(CbtSendDeviceControl(target.Device(), kBufferedQuestion, const_cast<uint8_t*>(input.data()), 12,
                                 output.data(), 32, &iosb),
            STATUS_SUCCESS);
  EXPECT_EQ(output, answer);
  EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
  EXPECT_EQ(iosb.Information, 4u);

  ASSERT_EQ(target.RequestCount(), 1u);
  const kvtest::ProbeRequest seen = target.Requests()[0];
  EXPECT_EQ(seen.MajorFunction, IRP_MJ_DEVICE_CONTROL);
  EXPECT_EQ(seen.ControlCode, kBufferedQuestion);
  EXPECT_EQ(seen.InputLength, 12u);
  EXPECT_EQ(seen.OutputLength, 32u);
  EXPECT_EQ(seen.IrpFlags & (IRP_BUFFERED_IO | IRP_INPUT_OPERATION | IRP_DEALLOCATE_BUFFER),
            static_cast<ULONG>(IRP_BUFFERED_IO | IRP_INPUT_OPERATION));
  EXPECT_EQ(seen.UserBuffer, output.data());
  EXPECT_EQ(seen.RequestorMode, KernelMode);
  EXPECT_NE(seen.Thread, nullptr);
  EXPECT_EQ(seen.StackCount, 3 + 8) << "the target's stack and eight locations to spare";
  ASSERT_EQ(seen.SystemBufferBytes.size(), 32u);
  EXPECT_TRUE(std::equal(input.begin(), input.end(), seen.SystemBufferBytes.begin()));
  EXPECT_EQ(kvhost::IoGetCounters().IrpsLive, 0u);
}

TEST(SendDeviceControl, InputLongerThanOutputSizesTheBufferByTheInput) {
  ProbeDevice target;
  const std::vector<uint8_t> input = Pattern(40, 1);
  uint8_t output[8] = {};
  IO_STATUS_BLOCK iosb{};
  ASSERT_EQ(CbtSendDeviceControl(target.Device(), kBufferedQuestion, const_cast<uint8_t*>(input.data()), 40, output,
                                 sizeof output, &iosb),
            STATUS_SUCCESS);
  const kvtest::ProbeRequest seen = target.Requests().at(0);
  EXPECT_EQ(seen.SystemBufferBytes, input);
}

TEST(SendDeviceControl, WithoutLengthsTheRequestCarriesNoBufferAndTheOutputIsNotWritten) {
  ProbeDevice target;
  target.QueueReply(ProbeReply{STATUS_SUCCESS, 0, {}});
  uint8_t output[4] = {0x5A, 0x5A, 0x5A, 0x5A};
  IO_STATUS_BLOCK iosb{};
  const kvhost::PoolMark mark = kvhost::MarkPool();
  ASSERT_EQ(CbtSendDeviceControl(target.Device(), kBufferedQuestion, output, 0, output, 0, &iosb), STATUS_SUCCESS);
  const kvtest::ProbeRequest seen = target.Requests().at(0);
  EXPECT_FALSE(seen.HadSystemBuffer);
  EXPECT_EQ(seen.IrpFlags, 0u);
  EXPECT_EQ(seen.UserBuffer, nullptr);
  EXPECT_EQ(kvhost::AllocationsSince(mark), 1u) << "only the request itself";
  for (uint8_t byte : output) EXPECT_EQ(byte, 0x5A);
}

TEST(SendDeviceControl, AFailedAnswerIsStillCopiedBack) {
  ProbeDevice target;
  const std::vector<uint8_t> answer = Pattern(16, 0x40);
  target.QueueReply(ProbeReply{STATUS_INVALID_DEVICE_STATE, 0, answer});
  std::vector<uint8_t> output(16, 0);
  IO_STATUS_BLOCK iosb{};
  EXPECT_EQ(CbtSendDeviceControl(target.Device(), kBufferedQuestion, nullptr, 0, output.data(), 16, &iosb),
            STATUS_INVALID_DEVICE_STATE);
  EXPECT_EQ(output, answer);
  EXPECT_EQ(iosb.Status, STATUS_INVALID_DEVICE_STATE);
}

TEST(SendDeviceControl, APendingTargetIsWaitedForAndItsFinalStatusReturned) {
  ProbeDevice target;
  const std::vector<uint8_t> answer = Pattern(8, 0x70);
  target.QueueReply(ProbeReply{STATUS_DEVICE_BUSY, 8, answer, /*Pend=*/true});
  target.QueueReply(ProbeReply{STATUS_SUCCESS, 8, answer, /*Pend=*/true});
  std::vector<uint8_t> output(8, 0);
  IO_STATUS_BLOCK iosb{};
  EXPECT_EQ(CbtSendDeviceControl(target.Device(), kBufferedQuestion, nullptr, 0, output.data(), 8, &iosb),
            STATUS_DEVICE_BUSY);
  EXPECT_EQ(iosb.Status, STATUS_DEVICE_BUSY);
  EXPECT_EQ(CbtSendDeviceControl(target.Device(), kBufferedQuestion, nullptr, 0, output.data(), 8, &iosb),
            STATUS_SUCCESS);
  EXPECT_EQ(iosb.Information, 8u);
  EXPECT_EQ(output, answer);
}

TEST(SendDeviceControl, EachAllocationThatFailsEndsInInsufficientResourcesWithNothingSent) {
  ProbeDevice target;
  target.SetDefaultReply(ProbeReply{STATUS_SUCCESS, 32, Pattern(32, 1)});
  const std::vector<uint8_t> input = Pattern(12, 9);
  const unsigned long long attempts = kvhost::ForEachAllocationFailure([&](unsigned long long k) {
    std::vector<uint8_t> output(32, 0);
    IO_STATUS_BLOCK iosb{};
    const size_t sentBefore = target.RequestCount();
    const NTSTATUS status = CbtSendDeviceControl(target.Device(), kBufferedQuestion,
                                                 const_cast<uint8_t*>(input.data()), 12, output.data(), 32, &iosb);
    if (k == 0) {
      EXPECT_EQ(status, STATUS_SUCCESS);
    } else {
      EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << "attempt " << k;
      EXPECT_EQ(target.RequestCount(), sentBefore) << "attempt " << k;
    }
  });
  EXPECT_EQ(attempts, 2u) << "the request and its buffer";
}

}  // namespace
