// Every row of the control-code table, driven through the top of a tracked volume's stack on
// the simulated machine the way an application's DeviceIoControl arrives. A probe filter
// between the driver and the volume device shows what the driver passes down and answers
// in the volume's place, so each reply is known byte for byte.
#include <gtest/gtest.h>

#include <mountdev.h>
#include <ntdddisk.h>
#include <ntddscsi.h>
#include <ntddsnap.h>
#include <ntddstor.h>
#include <ntddvol.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "control/cbt_control.h"
#include "control_request.h"
#include "driver/cbt_device_extension.h"
#include "driver/cbt_removal_protection.h"
#include "probe_machine.h"

namespace {

using kvtest::ControlRequest;
using kvtest::ControlResult;
using kvtest::kUntouched;
using kvtest::Pattern;
using kvtest::ProbeReply;
using kvtest::ProbeRequest;

constexpr ULONG kUnknownDriverCode = 0x8CB70104;  // function 0x41, METHOD_BUFFERED: not the driver's
constexpr ULONG kUnknownDriverDirectCode = 0x8CB7C1FE;  // function 0x7F, METHOD_NEITHER, read and write

using Record = kvtest::LoggedRecord;

class DeviceControlTest : public kvtest::ProbeMachineTest {
 protected:
  void SetUp() override {
    BootWithOneVolume();
    ASSERT_EQ(Extension()->DeviceObject, Top()) << "the driver's filter is the top of the volume's stack";
  }

  PDEVICE_OBJECT Top() const { return volume_->TopOfStack(); }
  PCBT_DEVICE_EXTENSION Extension() const { return ExtensionOf(volume_); }

  ControlResult Send(ControlRequest request) { return kvtest::SendControlRequest(Top(), request); }

  // The records the dispatch made since the last call.
  static std::vector<Record> TakeDispatchRecords() { return TakeRecords("CbtDispatchDeviceControl"); }

  // What the volume device would have answered, from the probe: a success whose Information
  // is half the output, and the output filled with a pattern.
  void ScriptAnswer(ULONG code, ULONG outputLength, NTSTATUS status = STATUS_SUCCESS) {
    probe_.Answer(code, ProbeReply{status, outputLength / 2, Pattern(outputLength, 0x40)});
  }

  // Defined with the rows of requests that travel on down, below.
  template <typename Rows>
  void SendEachAndExpectItPassedDown(const Rows& rows);
};

// ---------------------------------------------------------------------------------------
// Replies produced by the driver itself.

TEST_F(DeviceControlTest, DriverVersionFillsTwelveBytesOfAnyLargeEnoughBuffer) {
  for (ULONG outputLength : {12u, 64u}) {
    SCOPED_TRACE(outputLength);
    ControlResult result = Send({.Code = IOCTL_KVCBT_QUERY_DRIVER_VERSION,
                                 .Input = Pattern(20, 1),  // the input is not looked at
                                 .OutputLength = outputLength});
    EXPECT_EQ(result.Returned, STATUS_SUCCESS);
    EXPECT_EQ(result.Status, STATUS_SUCCESS);
    EXPECT_EQ(result.Information, sizeof(CBT_DRIVER_VERSION));
    CBT_DRIVER_VERSION version;
    std::memcpy(&version, result.Output.data(), sizeof version);
    EXPECT_EQ(version.Major, 10u);
    EXPECT_EQ(version.Minor, 0u);
    EXPECT_EQ(version.Build, 1000u);
    EXPECT_TRUE(std::all_of(result.Output.begin() + 12, result.Output.end(), [](uint8_t b) { return b == kUntouched; }));
  }
  EXPECT_TRUE(TakeDispatchRecords().empty());

  for (ULONG outputLength : {11u, 0u}) {
    SCOPED_TRACE(outputLength);
    ControlResult result = Send({.Code = IOCTL_KVCBT_QUERY_DRIVER_VERSION, .OutputLength = outputLength});
    EXPECT_EQ(result.Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(result.Information, 0u);
    EXPECT_TRUE(std::all_of(result.Output.begin(), result.Output.end(), [](uint8_t b) { return b == kUntouched; }));
    const std::vector<Record> records = TakeDispatchRecords();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].Status, static_cast<ULONG>(STATUS_INVALID_PARAMETER));
  }

  // A request built without a system buffer although it states an output length.
  ControlResult result = Send({.Code = IOCTL_KVCBT_QUERY_DRIVER_VERSION, .Adjust = [](PIRP irp) {
                                 IoGetNextIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength = 64;
                               }});
  EXPECT_EQ(result.Status, STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(probe_.ControlRequests().empty());
}

TEST_F(DeviceControlTest, TrackingEnabledAnswersInExactlyEightBytes) {
  ControlResult off = Send({.Code = IOCTL_KVCBT_QUERY_TRACKING_ENABLED, .Input = Pattern(3, 9), .OutputLength = 8});
  EXPECT_EQ(off.Status, STATUS_SUCCESS);
  EXPECT_EQ(off.Information, 8u);
  EXPECT_EQ(off.Output, std::vector<uint8_t>(8, 0));

  Extension()->TrackingEnabled = 7;  // any non-zero value means on
  ControlResult on = Send({.Code = IOCTL_KVCBT_QUERY_TRACKING_ENABLED, .OutputLength = 8});
  EXPECT_EQ(on.Status, STATUS_SUCCESS);
  CBT_TRACKING_ENABLED_REPLY reply;
  std::memcpy(&reply, on.Output.data(), sizeof reply);
  EXPECT_EQ(reply, 1u);
  Extension()->TrackingEnabled = 0;

  // 16 bytes would hold the answer, but only the exact size is accepted.
  for (ULONG outputLength : {16u, 7u, 0u}) {
    SCOPED_TRACE(outputLength);
    ControlResult refused = Send({.Code = IOCTL_KVCBT_QUERY_TRACKING_ENABLED, .OutputLength = outputLength});
    EXPECT_EQ(refused.Returned, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(refused.Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(refused.Information, 0u);
  }
  // The exact length, but no buffer to write the answer into.
  ControlResult bufferless = Send({.Code = IOCTL_KVCBT_QUERY_TRACKING_ENABLED, .Adjust = [](PIRP irp) {
                                     ASSERT_EQ(irp->AssociatedIrp.SystemBuffer, nullptr);
                                     IoGetNextIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength = 8;
                                   }});
  EXPECT_EQ(bufferless.Returned, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(bufferless.Status, STATUS_INVALID_PARAMETER);
  EXPECT_EQ(bufferless.Information, 0u);

  // Every answer is recorded with status 0, the refusals too.
  const std::vector<Record> records = TakeDispatchRecords();
  ASSERT_EQ(records.size(), 6u);
  for (const Record& record : records) EXPECT_EQ(record.Status, 0u);
  EXPECT_TRUE(probe_.ControlRequests().empty());
}

TEST_F(DeviceControlTest, ReservedCodesMarkerAndExcludedProbeNeedNoBuffers) {
  for (ULONG code : {IOCTL_KVCBT_RESERVED_34, IOCTL_KVCBT_RESERVED_35}) {
    SCOPED_TRACE(code);
    for (ControlRequest request : {ControlRequest{.Code = code},
                                   ControlRequest{.Code = code, .Input = Pattern(100, 3), .OutputLength = 7}}) {
      ControlResult result = Send(request);
      EXPECT_EQ(result.Status, STATUS_SUCCESS);
      EXPECT_EQ(result.Information, 0u);
      EXPECT_TRUE(std::all_of(result.Output.begin(), result.Output.end(), [](uint8_t b) { return b == kUntouched; }));
    }
  }
  EXPECT_TRUE(TakeDispatchRecords().empty()) << "the reserved codes are not recorded";

  // The marker's record is its whole effect; the request's Information stays as it came.
  ControlResult marker = Send({.Code = IOCTL_KVCBT_LOG_MARKER, .Input = Pattern(8, 0x61), .OutputLength = 8,
                               .Adjust = [](PIRP irp) { irp->IoStatus.Information = 5; }});
  EXPECT_EQ(marker.Status, STATUS_SUCCESS);
  EXPECT_EQ(marker.Information, 5u);
  std::vector<Record> records = TakeDispatchRecords();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].Status, 0u);

  // Only a tracked volume reaches the control dispatch with the probe, and it says so.
  for (ULONG outputLength : {0u, 4u}) {
    ControlResult excluded = Send({.Code = IOCTL_KVCBT_CHECK_EXCLUDED, .OutputLength = outputLength});
    EXPECT_EQ(excluded.Status, STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(excluded.Information, 0u);
  }
  EXPECT_TRUE(TakeDispatchRecords().empty());
  EXPECT_TRUE(probe_.ControlRequests().empty());
}

// ---------------------------------------------------------------------------------------
// Requests that travel on down: the driver's codes whose handlers take them further, the
// storage stack's requests, and codes that are not the driver's.

struct PassedDown {
  const char* Name;
  ULONG Code;
  size_t InputBytes;
  ULONG OutputLength;
};

void ExpectPassedDownUnchanged(const PassedDown& row, const ControlRequest& sent, const ControlResult& result,
                               const std::vector<ProbeRequest>& seenBelow) {
  SCOPED_TRACE(row.Name);
  ASSERT_EQ(seenBelow.size(), 1u) << "the request reaches the device below once";
  const ProbeRequest& seen = seenBelow[0];
  EXPECT_EQ(seen.ControlCode, row.Code);
  EXPECT_EQ(seen.InputLength, row.InputBytes);
  EXPECT_EQ(seen.OutputLength, row.OutputLength);
  EXPECT_EQ(seen.RequestorMode, UserMode);
  EXPECT_EQ(seen.From32bitProcess, sent.From32bitProcess);
  if (METHOD_FROM_CTL_CODE(row.Code) == METHOD_BUFFERED) {
    ASSERT_GE(seen.SystemBufferBytes.size(), sent.Input.size());
    EXPECT_TRUE(std::equal(sent.Input.begin(), sent.Input.end(), seen.SystemBufferBytes.begin()));
  } else if (METHOD_FROM_CTL_CODE(row.Code) == METHOD_OUT_DIRECT) {
    EXPECT_EQ(seen.HadMdl, row.OutputLength != 0);
    EXPECT_EQ(seen.MdlBytes, row.OutputLength);
  }

  // The device below's answer comes back as it gave it.
  EXPECT_EQ(result.Status, STATUS_SUCCESS);
  EXPECT_EQ(result.Information, row.OutputLength / 2);
  const std::vector<uint8_t> answer = Pattern(row.OutputLength, 0x40);
  const size_t returned = METHOD_FROM_CTL_CODE(row.Code) == METHOD_BUFFERED ? row.OutputLength / 2 : row.OutputLength;
  EXPECT_TRUE(std::equal(answer.begin(), answer.begin() + returned, result.Output.begin()));
  EXPECT_TRUE(std::all_of(result.Output.begin() + returned, result.Output.end(), [](uint8_t b) { return b == kUntouched; }));
}

// Sends each row with a patterned input, answered by the probe in the volume's place, and
// checks that it went down and came back unchanged and that the dispatch recorded nothing.
template <typename Rows>
void DeviceControlTest::SendEachAndExpectItPassedDown(const Rows& rows) {
  for (const PassedDown& row : rows) {
    ScriptAnswer(row.Code, row.OutputLength);
    probe_.Clear();
    const ControlRequest request{.Code = row.Code, .Input = Pattern(row.InputBytes, 0x10), .OutputLength = row.OutputLength};
    const ControlResult result = Send(request);
    ExpectPassedDownUnchanged(row, request, result, probe_.ControlRequests());
  }
  EXPECT_TRUE(TakeDispatchRecords().empty());
}

// Handlers of the tracking switch and queries and the shadow-copy verification take these
// further; until they do, the requests go down unchanged, whatever their buffers.
TEST_F(DeviceControlTest, DriverCodesOfLaterHandlersGoDownUnchanged) {
  const PassedDown rows[] = {
      {"query tracking information", IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION, 0, 56},
      {"query tracking information, long buffer", IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION, 0, 4096},
      {"query tracking information, no MDL", IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION, 0, 0},
      {"query tracking information ex", IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX, 0, 120},
      {"query tracking information ex, short", IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX, 4, 100},
      {"set reset time", IOCTL_KVCBT_SET_RESET_TIME, 0, 0},
      {"disable tracking", IOCTL_KVCBT_DISABLE_TRACKING, 0, 0},
      {"disable tracking with buffers", IOCTL_KVCBT_DISABLE_TRACKING, 16, 0},
      {"verify snapshot", IOCTL_KVCBT_VERIFY_SNAPSHOT, 4, 4},
  };
  SendEachAndExpectItPassedDown(rows);

  // An output length stated without a buffer: the request arrives without an MDL, and the
  // dispatch neither maps nor completes it.
  for (ULONG code : {IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION, IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX}) {
    SCOPED_TRACE(code);
    ScriptAnswer(code, 0);
    probe_.Clear();
    const ControlResult result = Send({.Code = code, .OutputLength = 120, .HasOutputBuffer = false});
    const std::vector<ProbeRequest> seen = probe_.ControlRequests();
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_FALSE(seen[0].HadMdl);
    EXPECT_EQ(seen[0].OutputLength, 120u);
    EXPECT_EQ(result.Status, STATUS_SUCCESS);
  }
}

TEST_F(DeviceControlTest, EnablingTrackingIsAnsweredHereWithoutABuffer) {
  for (ControlRequest request : {ControlRequest{.Code = IOCTL_KVCBT_ENABLE_TRACKING},
                                 ControlRequest{.Code = IOCTL_KVCBT_ENABLE_TRACKING, .Input = Pattern(9, 1),
                                                .OutputLength = 9}}) {
    ControlResult result = Send(request);
    // No tracking file can exist yet, so the switch cannot be turned on.
    EXPECT_EQ(result.Status, STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(result.Information, 0u);
  }
  EXPECT_TRUE(probe_.ControlRequests().empty());
}

TEST_F(DeviceControlTest, StorageRequestsAndForeignCodesGoDownUnchanged) {
  const PassedDown rows[] = {
      {"copy offload", IOCTL_DISK_COPY_DATA, 40, 0},
      {"data-set management", IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES, 48, 16},
      {"link created", IOCTL_MOUNTDEV_LINK_CREATED, 30, 0},
      {"link deleted", IOCTL_MOUNTDEV_LINK_DELETED, 30, 0},
      {"flush and hold", IOCTL_VOLSNAP_FLUSH_AND_HOLD_WRITES, 0, 0},
      {"release writes", IOCTL_VOLSNAP_RELEASE_WRITES, 0, 0},
      {"prepare for snapshot", IOCTL_VOLSNAP_PREPARE_FOR_SNAPSHOT, 24, 0},
      {"commit snapshot", IOCTL_VOLSNAP_COMMIT_SNAPSHOT, 0, 0},
      {"end commit", IOCTL_VOLSNAP_END_COMMIT_SNAPSHOT, 0, 80},
      {"set GPT attributes", IOCTL_VOLUME_SET_GPT_ATTRIBUTES, 16, 0},
      {"unknown code of the driver's type", kUnknownDriverCode, 8, 8},
      {"unknown direct code of the driver's type", kUnknownDriverDirectCode, 0, 0},
      {"a disk's code", IOCTL_DISK_GET_DRIVE_GEOMETRY, 0, 24},
  };
  SendEachAndExpectItPassedDown(rows);

  // Unanswered by the probe, a foreign code reaches the volume device itself.
  probe_.Clear();
  ControlResult length = Send({.Code = IOCTL_DISK_GET_LENGTH_INFO, .OutputLength = sizeof(GET_LENGTH_INFORMATION)});
  EXPECT_EQ(length.Status, STATUS_SUCCESS);
  GET_LENGTH_INFORMATION info;
  std::memcpy(&info, length.Output.data(), sizeof info);
  EXPECT_EQ(static_cast<uint64_t>(info.Length.QuadPart), volume_->SizeBytes());
}

// ---------------------------------------------------------------------------------------
// SCSI pass-through: checked, then passed down; a malformed request never reaches the
// volume's stack and keeps the Information it came with.

// A request buffer of `bytes` bytes holding the fields that fit in it.
template <typename Field>
void Put(std::vector<uint8_t>& buffer, size_t offset, Field value) {
  if (offset + sizeof value <= buffer.size()) std::memcpy(buffer.data() + offset, &value, sizeof value);
}

std::vector<uint8_t> PassThrough(USHORT length, UCHAR cdbLength, size_t bytes) {
  std::vector<uint8_t> buffer(bytes, 0);
  Put(buffer, FIELD_OFFSET(SCSI_PASS_THROUGH, Length), length);
  Put(buffer, FIELD_OFFSET(SCSI_PASS_THROUGH, CdbLength), cdbLength);
  return buffer;
}

std::vector<uint8_t> PassThroughEx(ULONG length, ULONG cdbLength, size_t bytes) {
  std::vector<uint8_t> buffer(bytes, 0);
  Put(buffer, FIELD_OFFSET(SCSI_PASS_THROUGH_EX, Length), length);
  Put(buffer, FIELD_OFFSET(SCSI_PASS_THROUGH_EX, CdbLength), cdbLength);
  return buffer;
}

TEST_F(DeviceControlTest, WellFormedScsiPassThroughGoesDownFromNativeAnd32BitCallers) {
  struct Form {
    const char* Name;
    ULONG Code;
    bool From32bit;
    std::vector<uint8_t> Input;
  };
  const Form forms[] = {
      {"SCSI_PASS_THROUGH", IOCTL_SCSI_PASS_THROUGH, false, PassThrough(sizeof(SCSI_PASS_THROUGH), 6, sizeof(SCSI_PASS_THROUGH))},
      {"SCSI_PASS_THROUGH32", IOCTL_SCSI_PASS_THROUGH, true, PassThrough(sizeof(SCSI_PASS_THROUGH32), 10, sizeof(SCSI_PASS_THROUGH32) + 512)},
      {"SCSI_PASS_THROUGH_DIRECT", IOCTL_SCSI_PASS_THROUGH_DIRECT, false, PassThrough(sizeof(SCSI_PASS_THROUGH_DIRECT), 16, sizeof(SCSI_PASS_THROUGH_DIRECT))},
      {"SCSI_PASS_THROUGH_DIRECT32", IOCTL_SCSI_PASS_THROUGH_DIRECT, true, PassThrough(sizeof(SCSI_PASS_THROUGH_DIRECT32), 6, sizeof(SCSI_PASS_THROUGH_DIRECT32))},
      {"SCSI_PASS_THROUGH_EX", IOCTL_SCSI_PASS_THROUGH_EX, false, PassThroughEx(sizeof(SCSI_PASS_THROUGH_EX) + 16, 16, sizeof(SCSI_PASS_THROUGH_EX) + 16)},
      {"SCSI_PASS_THROUGH32_EX", IOCTL_SCSI_PASS_THROUGH_EX, true, PassThroughEx(64, 6, 64)},
      {"SCSI_PASS_THROUGH_DIRECT_EX", IOCTL_SCSI_PASS_THROUGH_DIRECT_EX, false, PassThroughEx(72, 12, 80)},
      {"SCSI_PASS_THROUGH_DIRECT32_EX", IOCTL_SCSI_PASS_THROUGH_DIRECT_EX, true, PassThroughEx(60, 6, 60)},
  };
  for (const Form& form : forms) {
    const PassedDown row{form.Name, form.Code, form.Input.size(), 96};
    ScriptAnswer(form.Code, 96);
    probe_.Clear();
    const ControlRequest request{.Code = form.Code, .Input = form.Input, .OutputLength = 96, .From32bitProcess = form.From32bit};
    const ControlResult sent = Send(request);
    ExpectPassedDownUnchanged(row, request, sent, probe_.ControlRequests());
  }
}

TEST_F(DeviceControlTest, MalformedScsiPassThroughIsRefusedAndKeepsItsInformation) {
  struct Malformed {
    const char* Name;
    ULONG Code;
    std::vector<uint8_t> Input;
    ULONG OutputLength;
    bool From32bit;
  };
  const Malformed cases[] = {
      {"command block of 5 bytes", IOCTL_SCSI_PASS_THROUGH, PassThrough(56, 5, 56), 0, false},
      {"command block of 5 bytes, 32-bit", IOCTL_SCSI_PASS_THROUGH_DIRECT, PassThrough(44, 5, 44), 0, true},
      {"stated length past the input", IOCTL_SCSI_PASS_THROUGH_DIRECT, PassThrough(57, 6, 56), 128, false},
      {"EX length past the input", IOCTL_SCSI_PASS_THROUGH_EX, PassThroughEx(65, 6, 64), 0, false},
      {"EX length past the input, 32-bit", IOCTL_SCSI_PASS_THROUGH_DIRECT_EX, PassThroughEx(61, 6, 60), 0, true},
      {"EX command block of 0 bytes", IOCTL_SCSI_PASS_THROUGH_DIRECT_EX, PassThroughEx(64, 0, 64), 0, false},
      {"no buffer", IOCTL_SCSI_PASS_THROUGH, {}, 0, false},
      {"input too short to hold the command-block length", IOCTL_SCSI_PASS_THROUGH, PassThrough(2, 6, 4), 64, false},
      {"EX input too short to hold the command-block length", IOCTL_SCSI_PASS_THROUGH_EX, PassThroughEx(8, 6, 8), 64, false},
  };
  for (const Malformed& malformed : cases) {
    SCOPED_TRACE(malformed.Name);
    ScriptAnswer(malformed.Code, 0);
    probe_.Clear();
    ControlResult result = Send({.Code = malformed.Code, .Input = malformed.Input, .OutputLength = malformed.OutputLength,
                                 .From32bitProcess = malformed.From32bit,
                                 .Adjust = [](PIRP irp) { irp->IoStatus.Information = 0x1234; }});
    EXPECT_EQ(result.Returned, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(result.Status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(result.Information, 0x1234u);
    EXPECT_TRUE(probe_.ControlRequests().empty());
  }
  EXPECT_TRUE(TakeDispatchRecords().empty()) << "refusals of pass-through requests are not recorded";
}

// ---------------------------------------------------------------------------------------
// Removal.

TEST_F(DeviceControlTest, RequestsArrivingWhileTheVolumeIsRemovedAreRefused) {
  // A request still in the driver holds the volume's removal protection, so the removal
  // waits for it; meanwhile new requests arrive.
  PDEVICE_OBJECT filter = Top();
  ASSERT_EQ(CbtAcquireRemovalProtection(filter), static_cast<ULONG>(CbtRemovalActive));
  std::atomic<NTSTATUS> removed{STATUS_PENDING};
  std::thread remover([&] { removed = machine_->Remove(*volume_); });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (ReadNoFence(&CbtExtensionOf(filter)->RemovalState) != CbtRemovalPending &&
         std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ(ReadNoFence(&CbtExtensionOf(filter)->RemovalState), CbtRemovalPending);
  probe_.Clear();
  TakeDispatchRecords();

  for (ULONG code : std::initializer_list<ULONG>{IOCTL_KVCBT_QUERY_DRIVER_VERSION, kUnknownDriverCode, IOCTL_SCSI_PASS_THROUGH}) {
    SCOPED_TRACE(code);
    ControlResult result = kvtest::SendControlRequest(filter, {.Code = code, .OutputLength = 16});
    EXPECT_EQ(result.Status, STATUS_DEVICE_DOES_NOT_EXIST);
    EXPECT_EQ(result.Information, 0u);
  }
  EXPECT_TRUE(probe_.ControlRequests().empty());
  const std::vector<Record> records = TakeDispatchRecords();
  ASSERT_EQ(records.size(), 3u);
  for (const Record& record : records) EXPECT_EQ(record.Status, static_cast<ULONG>(STATUS_DEVICE_DOES_NOT_EXIST));

  // Each refusal gave its reference back: releasing the one still held lets the removal end.
  CbtReleaseRemovalProtection(filter);
  remover.join();
  EXPECT_EQ(removed.load(), STATUS_SUCCESS);
}

// Once the removal has completed the rundown block is gone, and a request that still reaches
// the dispatch is refused without giving anything back. A release there would pay back the
// debt of a request whose acquisition failed while the removal was pending (counted in
// RundownBypassCount) and is still on its way out. The completed state, with one such debt,
// is made by hand and undone afterwards, so that the machine removes the volume for real.
TEST_F(DeviceControlTest, RequestsArrivingAfterTheRemovalCompletedReleaseNothing) {
  PCBT_DEVICE_EXTENSION e = Extension();
  PDEVICE_OBJECT filter = Top();
  PEX_RUNDOWN_REF_CACHE_AWARE rundown = e->RundownProtection;
  e->RundownProtection = nullptr;
  e->RundownBypassCount = 1;
  WriteRelease(&e->RemovalState, CbtRemovalComplete);

  for (ULONG code : {ULONG{IOCTL_KVCBT_QUERY_DRIVER_VERSION}, kUnknownDriverCode}) {
    SCOPED_TRACE(code);
    ControlResult result = kvtest::SendControlRequest(filter, {.Code = code, .OutputLength = 16});
    EXPECT_EQ(result.Status, STATUS_DEVICE_DOES_NOT_EXIST);
    EXPECT_EQ(result.Information, 0u);
  }
  EXPECT_EQ(e->RundownBypassCount, 1) << "the debt is still owed";
  EXPECT_TRUE(probe_.ControlRequests().empty());
  const std::vector<Record> records = TakeDispatchRecords();
  ASSERT_EQ(records.size(), 2u);
  for (const Record& record : records) EXPECT_EQ(record.Status, static_cast<ULONG>(STATUS_DEVICE_DOES_NOT_EXIST));

  e->RundownBypassCount = 0;
  e->RundownProtection = rundown;
  WriteRelease(&e->RemovalState, CbtRemovalActive);
}

}  // namespace
