// Routing of a filter device's requests: excluded volumes, reads (removable media, not yet
// readable, the shadow-copy view of the tracking file), shutdown and power.
#include <cstring>
#include <string>
#include <vector>

#include "cbt_driver_fixture.h"
#include "control/cbt_control.h"
#include "driver/cbt_dispatch.h"
#include "kvhost/io.h"
#include "kvhost/irql.h"
#include "kvhost/pool.h"
#include "kvhost/registry.h"
#include "kvhost/workqueue.h"
#include "trackfile/cbt_trackfile.h"

namespace kvtest {
namespace {

class DispatchTest : public CbtDriverTest {
 protected:
  void SetUp() override {
    CbtDriverTest::SetUp();
    ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  }

  Volume& Tracked() {
    Volume& volume = AddVolume(FixedVolume(2));
    EXPECT_NE(volume.Filter, nullptr);
    DropRecords();
    return volume;
  }

  static bool Recorded(const char* text) {
    for (const std::string& t : RecordTexts())
      if (t == text) return true;
    return false;
  }
};

TEST_F(DispatchTest, RequestsOfATrackedVolumeReachTheVolume) {
  Volume& volume = Tracked();
  std::vector<unsigned char> data(4096, 0x5A), back(4096, 0);
  EXPECT_EQ(Transfer(volume.Top(), IRP_MJ_WRITE, data.data(), 4096, 8192).Status.Status, STATUS_SUCCESS);
  // Until its file system is readable a volume's reads come back through the driver, which
  // answers STATUS_PENDING for them.
  Transferred read = Transfer(volume.Top(), IRP_MJ_READ, back.data(), 4096, 8192);
  EXPECT_EQ(read.Returned, STATUS_PENDING);
  EXPECT_EQ(read.Status.Status, STATUS_SUCCESS);
  EXPECT_EQ(read.Status.Information, 4096u);
  EXPECT_EQ(back, data);
  CbtSetFlags(volume.Extension(), CBT_FLAG_FILE_SYSTEM_READABLE);
  EXPECT_EQ(Transfer(volume.Top(), IRP_MJ_READ, back.data(), 4096, 8192).Returned, STATUS_SUCCESS)
      << "a readable volume's reads go straight down";

  for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_FLUSH_BUFFERS, IRP_MJ_SYSTEM_CONTROL})
    EXPECT_EQ(SendMajor(volume.Top(), major).Status.Status, STATUS_SUCCESS) << int(major);
  for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_FLUSH_BUFFERS, IRP_MJ_SYSTEM_CONTROL})
    EXPECT_EQ(volume.Lower->Requests[major], 1) << int(major);
  EXPECT_EQ(volume.Lower->Requests[IRP_MJ_READ], 2);
}

TEST_F(DispatchTest, AReadFromRemovableMediaGoesStraightDown) {
  Volume& volume = Tracked();
  volume.Pdo->Characteristics |= FILE_REMOVABLE_MEDIA;
  std::vector<unsigned char> buffer(512);
  EXPECT_EQ(Transfer(volume.Top(), IRP_MJ_READ, buffer.data(), 512, 0).Returned, STATUS_SUCCESS)
      << "no completion routine of the driver's own, even though the file system is not readable";
}

TEST(ExclusionTest, FollowsTheBusAndDiskKindsAndTheSettings) {
  struct Case {
    ULONG Flags;
    ULONG ExcludeUSB;
    ULONG ExcludeVHD;
    bool Excluded;
  };
  const Case cases[] = {
      {0, 1, 1, false},
      {CBT_FLAG_USB, 1, 0, true},
      {CBT_FLAG_USB, 0, 1, false},
      {CBT_FLAG_VHD, 0, 1, true},
      {CBT_FLAG_VHD, 1, 0, false},
      {CBT_FLAG_XVDD, 0, 0, true},
      {CBT_FLAG_SANDBOX_BASE_LAYER, 0, 0, true},
      {CBT_FLAG_RECOVERY_PARTITION, 0, 0, true},
      {CBT_FLAG_RESERVED_PARTITION, 0, 0, true},
      {CBT_FLAG_SNAPSHOT_DEVICE | CBT_FLAG_READ_ONLY, 1, 1, false},
  };
  const CBT_SETTINGS saved = CbtSettings;
  CBT_DEVICE_EXTENSION extension = {};
  for (const Case& c : cases) {
    extension.Flags = c.Flags;
    CbtSettings.ExcludeUSB = c.ExcludeUSB;
    CbtSettings.ExcludeVHD = c.ExcludeVHD;
    EXPECT_EQ(CbtIsVolumeExcluded(&extension), c.Excluded ? TRUE : FALSE)
        << std::hex << c.Flags << " USB " << c.ExcludeUSB << " VHD " << c.ExcludeVHD;
  }
  CbtSettings = saved;
}

// An excluded volume's requests pass untouched, and the excluded-volume probe is answered
// for it; on a tracked volume the probe fails.
TEST_F(DispatchTest, AnExcludedVolumeAnswersTheProbeAndPassesTheRestUntouched) {
  Volume& tracked = Tracked();
  Volume& usb = AddVolume(FixedVolume(3));
  CbtSetFlags(usb.Extension(), CBT_FLAG_USB);
  DropRecords();

  Transferred probe = DeviceControl(usb.Top(), IOCTL_KVCBT_CHECK_EXCLUDED);
  EXPECT_EQ(probe.Status.Status, STATUS_SUCCESS);
  EXPECT_EQ(probe.Status.Information, 0u);
  EXPECT_TRUE(usb.Lower->ControlCodes.empty());
  EXPECT_FALSE(NT_SUCCESS(DeviceControl(tracked.Top(), IOCTL_KVCBT_CHECK_EXCLUDED).Status.Status));

  std::vector<unsigned char> data(512, 1);
  EXPECT_EQ(Transfer(usb.Top(), IRP_MJ_WRITE, data.data(), 512, 0).Status.Status, STATUS_SUCCESS);
  EXPECT_EQ(Transfer(usb.Top(), IRP_MJ_READ, data.data(), 512, 0).Returned, STATUS_SUCCESS)
      << "no completion routine: an excluded volume's reads are not watched";
  EXPECT_EQ(usb.Extension()->Flags & CBT_FLAG_WRITTEN, 0u);
  EXPECT_EQ(usb.Extension()->UntrackedWriteCount, 0);
  EXPECT_TRUE(Records().empty());
}

// A shadow-copy read that overlaps the tracking file goes to the snapshot view of the file
// (at PASSIVE_LEVEL in the caller's thread, above it on a critical work item). Until the
// tracking file exists that view passes the read down unchanged.
struct SnapshotReadCase {
  LONGLONG Offset;
  ULONG Length;
  bool Overlaps;
};

class SnapshotReadTest : public DispatchTest, public testing::WithParamInterface<SnapshotReadCase> {};

TEST_P(SnapshotReadTest, ThatOverlapsTheTrackingFileIsDeferredAbovePassiveLevel) {
  const SnapshotReadCase& c = GetParam();
  Volume& copy = AddVolume(ShadowCopy(1));
  PCBT_DEVICE_EXTENSION e = copy.Extension();
  CbtSetFlags(e, CBT_FLAG_FS_CONTEXT | CBT_FLAG_FILE_SYSTEM_READABLE);
  e->TrackingFileOffset = 16384;
  e->TrackingFileLength = 8192;
  std::memset(copy.Lower->Data.data(), 0x77, copy.Lower->Data.size());

  kvhost::SetManualWorkQueues(true);
  std::vector<unsigned char> buffer(c.Length, 0);
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb = {};
  LARGE_INTEGER at;
  at.QuadPart = c.Offset;
  PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_READ, copy.Top(), buffer.data(), c.Length, &at, &done, &iosb);
  ASSERT_NE(irp, nullptr);
  const NTSTATUS returned = kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { return IoCallDriver(copy.Top(), irp); });
  std::vector<kvhost::PendingWorkItem> pending = kvhost::PendingWorkItems();
  if (c.Overlaps) {
    EXPECT_EQ(returned, STATUS_PENDING);
    ASSERT_EQ(pending.size(), 1u);
    EXPECT_EQ(pending[0].Routine, reinterpret_cast<const void*>(CbtSnapshotReadWorker));
    EXPECT_EQ(pending[0].Queue, CriticalWorkQueue);
    EXPECT_EQ(kvhost::RunAllWorkItems(), 1u);
  } else {
    EXPECT_EQ(returned, STATUS_SUCCESS);
    EXPECT_TRUE(pending.empty());
  }
  kvhost::SetManualWorkQueues(false);
  KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
  EXPECT_EQ(buffer, std::vector<unsigned char>(c.Length, 0x77));
}

INSTANTIATE_TEST_SUITE_P(Ranges, SnapshotReadTest,
                         testing::Values(SnapshotReadCase{16384, 512, true},
                                         SnapshotReadCase{16384 - 512, 512, false},   // ends just before
                                         SnapshotReadCase{16384 - 512, 513 + 0, true},  // last byte is the first
                                         SnapshotReadCase{24576 - 512, 512, true},    // ends at the last byte
                                         SnapshotReadCase{24576, 4096, false},        // starts just after
                                         SnapshotReadCase{0, 65536, true}));           // covers it

TEST_F(DispatchTest, ADeferredSnapshotReadWithoutAWorkContextFails) {
  Volume& copy = AddVolume(ShadowCopy(1));
  CbtSetFlags(copy.Extension(), CBT_FLAG_FS_CONTEXT | CBT_FLAG_FILE_SYSTEM_READABLE);
  copy.Extension()->TrackingFileLength = 4096;
  kvhost::ExhaustLookasideList(&copy.Extension()->DriverExtension->WorkItemLookaside);
  std::vector<unsigned char> buffer(512);
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb = {};
  LARGE_INTEGER at = {};
  PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_READ, copy.Top(), buffer.data(), 512, &at, &done, &iosb);
  ASSERT_NE(irp, nullptr);
  EXPECT_EQ(kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { return IoCallDriver(copy.Top(), irp); }),
            STATUS_INSUFFICIENT_RESOURCES);
  kvhost::ExhaustLookasideList(&copy.Extension()->DriverExtension->WorkItemLookaside, false);
  EXPECT_EQ(copy.Lower->Requests[IRP_MJ_READ], 0);
}

// Shutdown asks for one more write of the tracking data (through the flush, which has no
// tracking file to write yet) and, on the C: volume, hurries the log writer.
TEST_F(DispatchTest, ShutdownAsksForAFlushAndHurriesTheLogOnC) {
  Volume& data = Tracked();
  Volume& system = AddVolume(FixedVolume(1));
  system.Extension()->DriveLetter = L'C';
  CbtSetFlags(system.Extension(), CBT_FLAG_TRACKING_FILE_READY);
  DropRecords();

  EXPECT_EQ(kvhost::IoSendShutdownNotifications(true), 2u) << "both filters are registered for shutdown";
  EXPECT_TRUE(CbtFlagsSet(data.Extension(), CBT_FLAG_SHUTDOWN));
  EXPECT_FALSE(CbtFlagsSet(data.Extension(), CBT_FLAG_FLUSH_METADATA)) << "no tracking file, no flush";
  EXPECT_TRUE(CbtFlagsSet(system.Extension(), CBT_FLAG_SHUTDOWN | CBT_FLAG_FLUSH_METADATA));
  EXPECT_EQ(data.Lower->Requests[IRP_MJ_SHUTDOWN], 1);
  EXPECT_EQ(system.Lower->Requests[IRP_MJ_SHUTDOWN], 1);
  EXPECT_TRUE(Recorded("CbtFlushTrackingFile"));
  EXPECT_EQ(KeReadStateEvent(&CbtEventLog.FlushEvent), 1);
  EXPECT_TRUE(CbtSystemShutdown);
}

// Only the move into the shutdown state finalizes; sleep and hibernate do not flush. What
// counts is the state the system in effect enters, which a request may name apart from
// the state it carries.
struct PowerCase {
  SYSTEM_POWER_STATE State;      // as the request names it
  SYSTEM_POWER_STATE Effective;  // as its context has it
};

class PowerTest : public DispatchTest, public testing::WithParamInterface<PowerCase> {};

TEST_P(PowerTest, FlushesOnlyForTheEffectiveShutdownState) {
  const PowerCase c = GetParam();
  Volume& system = Tracked();
  system.Extension()->DriveLetter = L'C';
  CbtSetFlags(system.Extension(), CBT_FLAG_TRACKING_FILE_READY);
  EXPECT_EQ(SendSetSystemPower(system.Top(), c.State, c.Effective), STATUS_SUCCESS);
  const bool shutdown = c.Effective == PowerSystemShutdown;
  EXPECT_EQ(Recorded("CbtSetPower"), shutdown);
  EXPECT_EQ(Recorded("CbtFlushTrackingFile"), shutdown);
  EXPECT_EQ(KeReadStateEvent(&CbtEventLog.StopEvent), shutdown ? 1 : 0);
  EXPECT_EQ(system.Lower->PowerMinors, std::vector<UCHAR>{IRP_MN_SET_POWER});
}

INSTANTIATE_TEST_SUITE_P(States, PowerTest,
                         testing::Values(PowerCase{PowerSystemWorking, PowerSystemWorking},
                                         PowerCase{PowerSystemSleeping3, PowerSystemSleeping3},
                                         PowerCase{PowerSystemHibernate, PowerSystemHibernate},
                                         PowerCase{PowerSystemShutdown, PowerSystemShutdown},
                                         PowerCase{PowerSystemHibernate, PowerSystemShutdown},
                                         PowerCase{PowerSystemShutdown, PowerSystemHibernate}));

TEST_F(DispatchTest, ADevicePowerRequestNeverFlushes) {
  Volume& volume = Tracked();
  CbtSetFlags(volume.Extension(), CBT_FLAG_TRACKING_FILE_READY);
  const Transferred sent = Send(volume.Top(), [](PIO_STACK_LOCATION stack) {
    stack->MajorFunction = IRP_MJ_POWER;
    stack->MinorFunction = IRP_MN_SET_POWER;
    stack->Parameters.Power.Type = DevicePowerState;
    stack->Parameters.Power.SystemContext = PowerSystemShutdown << 12;
  });
  EXPECT_EQ(sent.Status.Status, STATUS_SUCCESS);
  EXPECT_TRUE(Records().empty());
}

TEST_F(DispatchTest, PassThroughWithoutADeviceBelowRefusesTheRequest) {
  PDEVICE_OBJECT orphan = nullptr;
  ASSERT_EQ(IoCreateDevice(Driver(), sizeof(CBT_DEVICE_EXTENSION), nullptr, FILE_DEVICE_DISK, 0, FALSE, &orphan),
            STATUS_SUCCESS);
  RtlZeroMemory(orphan->DeviceExtension, sizeof(CBT_DEVICE_EXTENSION));
  orphan->Flags &= ~DO_DEVICE_INITIALIZING;
  const Transferred sent = SendMajor(orphan, IRP_MJ_FLUSH_BUFFERS);
  EXPECT_EQ(sent.Status.Status, STATUS_INVALID_DEVICE_REQUEST);
  EXPECT_EQ(sent.Status.Information, 0u);
  IoDeleteDevice(orphan);
}

}  // namespace
}  // namespace kvtest
