// Plug and Play on a running machine: removals and their order, vetoes, stop and start,
// arrival again, resizing, and the target-device events a watching filter hears.
#include <ioevent.h>
#include <ntdddisk.h>
#include <wdmguid.h>

#include <cstring>

#include "kvtestbed/names.h"
#include "testbed_support.h"

namespace kvtestbed::testing {
namespace {

class MachinePnp : public ::testing::Test {
 protected:
  void SetUp() override {
    c_ = machine_.AddVolume(LetteredVolume(u'C'));
    d_ = machine_.AddVolume(LetteredVolume(u'D'));
    ASSERT_EQ(machine_.Boot(), STATUS_SUCCESS);
    TakeTestFilterEvents();
  }

  std::vector<std::string> Seen(const Volume& v) { return SeenOn(TakeTestFilterEvents(), kvhost::ToUtf8(v.DeviceName())); }

  Machine machine_;
  Volume* c_ = nullptr;
  Volume* d_ = nullptr;
};

TEST_F(MachinePnp, OrderlyAndSurpriseRemovalsTakeTheStackAwayInWindowsOrder) {
  ASSERT_EQ(machine_.Remove(*c_), STATUS_SUCCESS);
  // The filter lets its registration go with its device, so the removal completion that
  // follows the removal request finds no one left to tell.
  EXPECT_EQ(Seen(*c_), (std::vector<std::string>{"GUID_TARGET_DEVICE_QUERY_REMOVE", "IRP_MN_QUERY_REMOVE_DEVICE",
                                                 "IRP_MN_REMOVE_DEVICE"}));
  ASSERT_EQ(machine_.SurpriseRemove(*d_), STATUS_SUCCESS);
  EXPECT_EQ(Seen(*d_), (std::vector<std::string>{"IRP_MN_SURPRISE_REMOVAL", "GUID_TARGET_DEVICE_REMOVE_COMPLETE",
                                                 "IRP_MN_REMOVE_DEVICE"}));

  // Both are gone until they arrive again, under the same names, with the disk as it was.
  EXPECT_EQ(c_->Device(), nullptr);
  EXPECT_EQ(machine_.Write(*c_, 0, Pattern(512, 1)).Status, STATUS_NO_SUCH_DEVICE);
  c_->WriteDirect(0, Pattern(512, 2));
  ASSERT_EQ(machine_.Arrive(*c_), STATUS_SUCCESS);
  const std::vector<std::string> again = Seen(*c_);
  ASSERT_FALSE(again.empty());
  EXPECT_EQ(again.front(), "AddDevice");
  EXPECT_EQ(again.back(), "GUID_IO_VOLUME_MOUNT") << "a volume arriving on a running machine is mounted at once";
  EXPECT_EQ(machine_.Read(*c_, 0, 512).Data, Pattern(512, 2));
}

TEST_F(MachinePnp, AVetoedQueryRemoveIsCancelledAndTheVolumeStays) {
  SetTestFilterQueryRemoveAnswer(STATUS_ACCESS_DENIED);
  EXPECT_EQ(machine_.Remove(*c_), STATUS_ACCESS_DENIED);
  EXPECT_EQ(Seen(*c_),
            (std::vector<std::string>{"GUID_TARGET_DEVICE_QUERY_REMOVE", "GUID_TARGET_DEVICE_REMOVE_CANCELLED"}))
      << "no removal request after a veto";
  EXPECT_EQ(machine_.Write(*c_, 0, Pattern(512, 1)).Status, STATUS_SUCCESS);

  // A query-remove the stack accepts can still be cancelled by the machine.
  SetTestFilterQueryRemoveAnswer(STATUS_SUCCESS);
  ASSERT_EQ(machine_.QueryRemove(*c_), STATUS_SUCCESS);
  ASSERT_EQ(machine_.CancelRemove(*c_), STATUS_SUCCESS);
  EXPECT_EQ(Seen(*c_), (std::vector<std::string>{"GUID_TARGET_DEVICE_QUERY_REMOVE", "IRP_MN_QUERY_REMOVE_DEVICE",
                                                 "IRP_MN_CANCEL_REMOVE_DEVICE", "GUID_TARGET_DEVICE_REMOVE_CANCELLED"}));
  EXPECT_EQ(machine_.CancelRemove(*c_), STATUS_INVALID_DEVICE_STATE) << "nothing pending any more";
}

TEST_F(MachinePnp, StopAndStartAgain) {
  ASSERT_EQ(machine_.Stop(*d_), STATUS_SUCCESS);
  EXPECT_EQ(machine_.Stop(*d_), STATUS_INVALID_DEVICE_STATE);
  ASSERT_EQ(machine_.Start(*d_), STATUS_SUCCESS);
  EXPECT_EQ(Seen(*d_),
            (std::vector<std::string>{"IRP_MN_QUERY_STOP_DEVICE", "IRP_MN_STOP_DEVICE", "IRP_MN_START_DEVICE"}));
  // A machine taken down with a stopped volume still removes its stack, interface and links.
  ASSERT_EQ(machine_.Stop(*d_), STATUS_SUCCESS);
}

TEST_F(MachinePnp, EveryVolumeEventReachesTheRegistrationOnThatVolume) {
  const GUID* events[] = {&GUID_IO_VOLUME_LOCK,          &GUID_IO_VOLUME_UNLOCK,
                          &GUID_IO_VOLUME_LOCK_FAILED,   &GUID_IO_VOLUME_DISMOUNT,
                          &GUID_IO_VOLUME_DISMOUNT_FAILED, &GUID_IO_VOLUME_MOUNT,
                          &GUID_TARGET_DEVICE_QUERY_REMOVE, &GUID_TARGET_DEVICE_REMOVE_CANCELLED,
                          &GUID_IO_VOLUME_CHANGE_SIZE,   &GUID_IO_VOLUME_FVE_STATUS_CHANGE,
                          &GUID_IO_VOLUME_NEED_CHKDSK,   &GUID_IO_VOLUME_FORCE_CLOSED};
  std::vector<std::string> expected;
  for (const GUID* event : events) {
    EXPECT_EQ(machine_.Notify(*d_, *event), STATUS_SUCCESS);
    expected.push_back(EventName(*event));
  }
  EXPECT_EQ(Seen(*d_), expected);
  EXPECT_TRUE(Seen(*c_).empty()) << "events of D: are not heard on C:";
}

TEST_F(MachinePnp, ResizingChangesTheReportedLengthAndTellsTheWatchers) {
  ASSERT_EQ(machine_.Resize(*d_, 128ull << 20), STATUS_SUCCESS);
  EXPECT_EQ(Seen(*d_), std::vector<std::string>{"GUID_IO_VOLUME_CHANGE_SIZE"});
  IoResult length = machine_.Control(*d_, IOCTL_DISK_GET_LENGTH_INFO, {}, sizeof(GET_LENGTH_INFORMATION));
  ASSERT_EQ(length.Status, STATUS_SUCCESS);
  GET_LENGTH_INFORMATION info;
  std::memcpy(&info, length.Data.data(), sizeof info);
  EXPECT_EQ(info.Length.QuadPart, 128ll << 20);
  EXPECT_EQ(machine_.Write(*d_, (128ull << 20) - 512, Pattern(512, 1)).Status, STATUS_SUCCESS) << "the new end";
  EXPECT_EQ(machine_.Resize(*d_, 1000), STATUS_INVALID_PARAMETER) << "not a whole number of sectors";
}

TEST_F(MachinePnp, DriveLettersComeAndGoThroughTheMountManager) {
  ASSERT_EQ(machine_.RemoveDriveLetter(*d_), STATUS_SUCCESS);
  ASSERT_EQ(machine_.AssignDriveLetter(*d_, u'F'), STATUS_SUCCESS);
  EXPECT_EQ(SeenOn(TakeTestFilterEvents(), "\\Device\\HarddiskVolume2", true),
            (std::vector<std::string>{"IOCTL_MOUNTDEV_LINK_DELETED \\DosDevices\\D:",
                                      "IOCTL_MOUNTDEV_LINK_CREATED \\DosDevices\\F:"}));
  EXPECT_EQ(d_->Config().DriveLetter, u'F') << "the mount manager remembers it across boots";
  EXPECT_EQ(machine_.AssignDriveLetter(*c_, u'F'), STATUS_OBJECT_NAME_COLLISION) << "F: is taken";
}

}  // namespace
}  // namespace kvtestbed::testing
