// Plug and Play requests of a filter device: what is recorded and passed on, the teardown
// at surprise removal and removal, and a removal that waits for requests still inside.
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "cbt_driver_fixture.h"
#include "driver/cbt_pnp.h"
#include "driver/cbt_removal_protection.h"
#include "kvhost/io.h"

namespace kvtest {
namespace {

constexpr ULONG kCbtTag = 0x30746243;

class PnpTest : public CbtDriverTest {
 protected:
  void SetUp() override {
    CbtDriverTest::SetUp();
    ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  }
  Volume& Filtered() {
    Volume& volume = AddVolume(FixedVolume(5));
    EXPECT_NE(volume.Filter, nullptr);
    DropRecords();
    return volume;
  }
};

TEST_F(PnpTest, RequestsThatMatterToABackupAreRecordedAndAllArePassedOn) {
  Volume& volume = Filtered();
  for (UCHAR minor : {IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_QUERY_STOP_DEVICE, IRP_MN_STOP_DEVICE,
                      IRP_MN_DEVICE_USAGE_NOTIFICATION, IRP_MN_QUERY_CAPABILITIES})
    EXPECT_EQ(SendPnp(volume.Top(), minor), STATUS_SUCCESS) << int(minor);
  EXPECT_EQ(RecordTexts(), (std::vector<std::string>{"CbtQueryRemoveDevice", "CbtQueryStopDevice", "CbtStopDevice"}));
  EXPECT_EQ(volume.Lower->PnpMinors,
            (std::vector<UCHAR>{IRP_MN_START_DEVICE, IRP_MN_QUERY_REMOVE_DEVICE, IRP_MN_QUERY_STOP_DEVICE,
                                IRP_MN_STOP_DEVICE, IRP_MN_DEVICE_USAGE_NOTIFICATION, IRP_MN_QUERY_CAPABILITIES}));
  std::vector<CBT_LOG_RECORD_BODY> records = Records();
  EXPECT_EQ(+records[0].VolumeNumber, 5u);
  EXPECT_EQ(+records[0].DeviceFlags, ULONG{CBT_FLAG_TRACKING_VALID});
}

TEST_F(PnpTest, AStartThatFailsBelowIsRecordedAndReturnedAndTheFilterStays) {
  Volume& volume = Filtered();
  volume.Lower->PnpStatus = STATUS_DEVICE_NOT_READY;
  EXPECT_EQ(SendPnp(volume.Top(), IRP_MN_START_DEVICE), STATUS_DEVICE_NOT_READY);
  std::vector<CBT_LOG_RECORD_BODY> records = Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_STREQ(records[1].Text, "CbtStartDevice");
  EXPECT_EQ(+records[1].Status, static_cast<ULONG>(STATUS_DEVICE_NOT_READY));
  EXPECT_EQ(volume.Pdo->AttachedDevice, volume.Filter);
  volume.Lower->PnpStatus = STATUS_SUCCESS;
}

// Cancel-remove comes back up only after the drivers below have finished it, with their
// status, success or failure.
TEST_F(PnpTest, CancelRemoveReturnsOnlyAfterTheVolumeFinishedIt) {
  Volume& volume = Filtered();
  volume.Lower->CompleteFromWorker = true;
  for (NTSTATUS below : {STATUS_SUCCESS, STATUS_UNSUCCESSFUL}) {
    volume.Lower->PnpStatus = below;
    const Transferred sent = Send(volume.Top(), [](PIO_STACK_LOCATION stack) {
      stack->MajorFunction = IRP_MJ_PNP;
      stack->MinorFunction = IRP_MN_CANCEL_REMOVE_DEVICE;
    });
    EXPECT_EQ(sent.Returned, below) << "never STATUS_PENDING: the filter waited";
    EXPECT_EQ(sent.Status.Status, below);
  }
  volume.Lower->PnpStatus = STATUS_SUCCESS;
  volume.Lower->CompleteFromWorker = false;
  EXPECT_EQ(RecordTexts(), (std::vector<std::string>{"CbtCancelRemoveDevice", "CbtCancelRemoveDevice"}));
}

// A volume carrying all the tracking state the later stages give it.
void GiveTrackingState(PCBT_DEVICE_EXTENSION e) {
  e->TrackingBitmap.Buffer = static_cast<PULONG>(ExAllocatePoolWithTag(NonPagedPoolNx, 4096, kCbtTag));
  e->TrackingBitmap.SizeOfBitMap = 4096 * 8;
  e->TrackingFileHeader =
      static_cast<struct _CBT_TRACKING_FILE_HEADER*>(ExAllocatePoolWithTag(NonPagedPoolNx, 8192, kCbtTag));
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
  ZwCreateEvent(&e->TrackingFileHandle, EVENT_ALL_ACCESS, &attributes, NotificationEvent, FALSE);
  e->FileSystemType = CBT_FILE_SYSTEM_REFS;
  CbtSetFlags(e, CBT_FLAG_FS_CONTEXT | CBT_FLAG_TRACKING_FILE_READY | CBT_FLAG_TRACKING_FILE_OPEN |
                     CBT_FLAG_FILE_SYSTEM_READABLE);
}

// Surprise removal tears the tracking state down but keeps the name; the removal that
// follows finds only the name left, frees it and deletes the filter.
TEST_F(PnpTest, SurpriseRemovalThenRemovalTearDownEverything) {
  Volume& volume = Filtered();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  GiveTrackingState(e);
  ASSERT_NE(e->TrackingFileHandle, nullptr);

  EXPECT_EQ(SendPnp(volume.Top(), IRP_MN_SURPRISE_REMOVAL), STATUS_SUCCESS);
  EXPECT_TRUE(CbtFlagsSet(e, CBT_FLAG_SURPRISE_REMOVED | CBT_FLAG_FILE_SYSTEM_READABLE));
  EXPECT_EQ(e->Flags & (CBT_FLAG_FS_CONTEXT | CBT_FLAG_TRACKING_FILE_READY | CBT_FLAG_TRACKING_FILE_OPEN), 0u);
  EXPECT_EQ(e->FileSystemType, ULONG{CBT_FILE_SYSTEM_NONE});
  EXPECT_EQ(e->TrackingFileHandle, nullptr);
  EXPECT_EQ(e->TrackingBitmap.Buffer, nullptr);
  EXPECT_EQ(e->TrackingBitmap.SizeOfBitMap, 0u);
  EXPECT_EQ(e->TrackingFileHeader, nullptr);
  EXPECT_NE(e->DeviceName, nullptr);
  EXPECT_EQ(e->RemovalState, CbtRemovalActive);

  EXPECT_EQ(RemoveVolume(volume), STATUS_SUCCESS);
  EXPECT_EQ(RecordTexts(), (std::vector<std::string>{"CbtSurpriseRemoval", "CbtRemoveDevice"}));
  EXPECT_EQ(+Records()[1].DeviceFlags & CBT_FLAG_SURPRISE_REMOVED, ULONG{CBT_FLAG_SURPRISE_REMOVED});
}

// The removal waits for a read the volume still holds: the filter leaves the stack only
// once the read has come back through it.
TEST_F(PnpTest, RemovalWaitsForARequestStillInside) {
  Volume& volume = Filtered();
  volume.Lower->HoldTransfers = true;
  std::vector<unsigned char> buffer(512);
  auto read = std::async(std::launch::async, [&] { return Transfer(volume.Top(), IRP_MJ_READ, buffer.data(), 512, 0); });
  while (volume.Lower->HeldCount() == 0) std::this_thread::yield();

  auto removal = std::async(std::launch::async, [&] { return SendPnp(volume.Top(), IRP_MN_REMOVE_DEVICE); });
  while (volume.Extension()->RemovalState != CbtRemovalPending) std::this_thread::yield();
  EXPECT_EQ(removal.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_EQ(volume.Pdo->AttachedDevice, volume.Filter) << "still attached while the read is inside";

  EXPECT_EQ(volume.Lower->ReleaseHeld(), 1u);
  EXPECT_EQ(read.get().Status.Status, STATUS_SUCCESS);
  EXPECT_EQ(removal.get(), STATUS_SUCCESS);
  EXPECT_EQ(volume.Pdo->AttachedDevice, nullptr);
  DeleteTestVolume(volume.Lower);
  volume.Removed = true;
}

// Once removal has completed, a request that still reaches the filter is refused without
// touching the rundown block, which is gone.
TEST_F(PnpTest, RequestsAfterTheRemovalCompletedAreRefused) {
  Volume& volume = Filtered();
  PCBT_DEVICE_EXTENSION e = volume.Extension();
  CbtWaitForRemovalProtection(volume.Filter);
  EXPECT_EQ(e->RundownProtection, nullptr);
  EXPECT_EQ(e->RemovalState, CbtRemovalComplete);

  EXPECT_EQ(SendPnp(volume.Top(), IRP_MN_QUERY_REMOVE_DEVICE), STATUS_NO_SUCH_DEVICE);
  std::vector<unsigned char> buffer(512);
  EXPECT_EQ(Transfer(volume.Top(), IRP_MJ_READ, buffer.data(), 512, 0).Status.Status, STATUS_DEVICE_DOES_NOT_EXIST);
  EXPECT_EQ(Transfer(volume.Top(), IRP_MJ_WRITE, buffer.data(), 512, 0).Status.Status, STATUS_DEVICE_NOT_CONNECTED);
  EXPECT_EQ(DeviceControl(volume.Top(), 0x2D1400).Status.Status, STATUS_DEVICE_DOES_NOT_EXIST);
  EXPECT_EQ(RecordTexts(), (std::vector<std::string>{"CbtDispatchPnp", "CbtDispatchRead", "CbtDispatchWrite",
                                                     "CbtDispatchDeviceControl"}));
  EXPECT_EQ(volume.Lower->PnpMinors, std::vector<UCHAR>{IRP_MN_START_DEVICE});
  EXPECT_EQ(e->RundownBypassCount, 0);

  // The filter cannot take its own removal any more; it leaves the stack by hand.
  CbtTeardownVolume(e, TRUE);
  IoDetachDevice(volume.Pdo);
  IoDeleteDevice(volume.Filter);
  volume.Filter = nullptr;
}

}  // namespace
}  // namespace kvtest
