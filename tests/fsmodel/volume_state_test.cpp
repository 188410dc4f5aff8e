// The volume around the files: mounting and the notifications the file system raises, the
// lock that keeps opens out, dismounting under open files, metadata that survives a remount
// and a failed write, and file-system I/O that passes the volume's filters.
#include <ioevent.h>
#include <wdmguid.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "kvhost/file_systems.h"
#include "kvhost/workqueue.h"
#include "model_volume.h"

namespace {

// Volume notifications as a driver registered on the volume hears them. On GUID_IO_VOLUME_LOCK
// it closes the handle it was given, as the driver closes its tracking file.
class VolumeListener {
 public:
  VolumeListener(PDRIVER_OBJECT driver, const char16_t* volumeName) {
    Text name(volumeName);
    PDEVICE_OBJECT device = nullptr;
    EXPECT_EQ(IoGetDeviceObjectPointer(name.get(), FILE_READ_ATTRIBUTES, &file_, &device), STATUS_SUCCESS);
    EXPECT_EQ(IoRegisterPlugPlayNotification(EventCategoryTargetDeviceChange, 0, file_, driver, Callback, this, &entry_),
              STATUS_SUCCESS);
  }
  ~VolumeListener() {
    IoUnregisterPlugPlayNotification(entry_);
    ObDereferenceObject(file_);
  }
  std::vector<GUID> Events;
  Handle CloseOnLock;

 private:
  static NTSTATUS Callback(PVOID notification, PVOID context) {
    auto* self = static_cast<VolumeListener*>(context);
    const GUID event = static_cast<PPLUGPLAY_NOTIFICATION_HEADER>(notification)->Event;
    self->Events.push_back(event);
    if (IsEqualGUID(event, GUID_IO_VOLUME_LOCK)) self->CloseOnLock.Close();
    return STATUS_SUCCESS;
  }
  PFILE_OBJECT file_ = nullptr;
  PVOID entry_ = nullptr;
};

class VolumeState : public ModelVolumeTest {
 protected:
  OpenResult OpenVolume() {
    return Open(u"\\??\\D:", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN,
                FILE_SYNCHRONOUS_IO_NONALERT);
  }
};

TEST_F(VolumeState, TheFirstOpenMountsTheVolumeAndTheMountIsAnnounced) {
  VolumeListener listener(filterDriver_, kDeviceName);
  EXPECT_FALSE(kvtestbed::IsVolumeMounted(disk_)) << "the listener's open asked for attributes only";
  ASSERT_EQ(Open(u"\\??\\D:\\first.bin").Status, STATUS_SUCCESS);
  EXPECT_TRUE(kvtestbed::IsVolumeMounted(disk_));
  ASSERT_EQ(Open(u"\\??\\D:\\second.bin").Status, STATUS_SUCCESS);
  kvhost::WaitForWorkQueuesIdle();  // the announcement comes from a worker thread
  ASSERT_EQ(listener.Events.size(), 1u);
  EXPECT_TRUE(IsEqualGUID(listener.Events[0], GUID_IO_VOLUME_MOUNT));
  EXPECT_EQ(kvtestbed::MountVolume(disk_), STATUS_SUCCESS) << "mounted already";
}

TEST_F(VolumeState, AMountWhoseCallerAnnouncesItIsNotAnnouncedAgain) {
  VolumeListener listener(filterDriver_, kDeviceName);
  ASSERT_EQ(kvtestbed::MountVolume(disk_, kvtestbed::MountAnnouncement::ByCaller), STATUS_SUCCESS);
  EXPECT_TRUE(kvtestbed::IsVolumeMounted(disk_));
  kvhost::WaitForWorkQueuesIdle();
  EXPECT_TRUE(listener.Events.empty());
}

TEST_F(VolumeState, ALockKeepsOpensOutAfterHandleHoldersHaveClosedTheirHandles) {
  VolumeListener listener(filterDriver_, kDeviceName);
  OpenResult tracking = Open(u"\\??\\D:\\track.bin");
  ASSERT_EQ(tracking.Status, STATUS_SUCCESS);
  OpenResult volume = OpenVolume();
  ASSERT_EQ(volume.Status, STATUS_SUCCESS);
  kvhost::WaitForWorkQueuesIdle();

  // A handle nobody closes makes the lock fail.
  EXPECT_EQ(FsControl(volume.File.get(), FSCTL_LOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_ACCESS_DENIED);
  ASSERT_EQ(listener.Events.size(), 3u);
  EXPECT_TRUE(IsEqualGUID(listener.Events[1], GUID_IO_VOLUME_LOCK));
  EXPECT_TRUE(IsEqualGUID(listener.Events[2], GUID_IO_VOLUME_LOCK_FAILED));

  listener.CloseOnLock = std::move(tracking.File);
  ASSERT_EQ(FsControl(volume.File.get(), FSCTL_LOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
  EXPECT_EQ(Open(u"\\??\\D:\\track.bin").Status, STATUS_ACCESS_DENIED);
  EXPECT_EQ(Open(u"\\??\\D:").Status, STATUS_ACCESS_DENIED);
  OpenResult second = Open(u"\\??\\D:", FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, 0);
  EXPECT_EQ(second.Status, STATUS_SUCCESS) << "an open of the device for attributes does not reach the file system";

  EXPECT_EQ(FsControl(second.File.get(), FSCTL_UNLOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_INVALID_DEVICE_REQUEST);
  ASSERT_EQ(FsControl(volume.File.get(), FSCTL_UNLOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
  EXPECT_EQ(FsControl(volume.File.get(), FSCTL_UNLOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_NOT_LOCKED);
  EXPECT_TRUE(IsEqualGUID(listener.Events.back(), GUID_IO_VOLUME_UNLOCK));
  EXPECT_EQ(Open(u"\\??\\D:\\track.bin").Status, STATUS_SUCCESS);

  // Closing the locking handle unlocks as well.
  ASSERT_EQ(FsControl(volume.File.get(), FSCTL_LOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
  volume.File.Close();
  EXPECT_TRUE(IsEqualGUID(listener.Events.back(), GUID_IO_VOLUME_UNLOCK));
  EXPECT_EQ(Open(u"\\??\\D:\\track.bin").Status, STATUS_SUCCESS);
}

TEST_F(VolumeState, DismountingFailsOpenFilesAndTheNextOpenMountsAgain) {
  VolumeListener listener(filterDriver_, kDeviceName);
  OpenResult file = Open(u"\\??\\D:\\kept.bin");
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  const std::vector<unsigned char> data = Pattern(2 * kCluster, 8);
  ASSERT_EQ(Write(file.File.get(), data, 0), STATUS_SUCCESS);
  OpenResult volume = OpenVolume();
  ASSERT_EQ(volume.Status, STATUS_SUCCESS);
  ASSERT_EQ(FsControl(volume.File.get(), FSCTL_DISMOUNT_VOLUME, nullptr, 0, nullptr, 0), STATUS_SUCCESS);
  EXPECT_TRUE(IsEqualGUID(listener.Events.back(), GUID_IO_VOLUME_DISMOUNT));
  EXPECT_FALSE(kvtestbed::IsVolumeMounted(disk_));

  NTSTATUS status;
  Read(file.File.get(), 100, 0, &status);
  EXPECT_EQ(status, STATUS_VOLUME_DISMOUNTED);
  EXPECT_EQ(FsControl(volume.File.get(), FSCTL_LOCK_VOLUME, nullptr, 0, nullptr, 0), STATUS_VOLUME_DISMOUNTED);

  OpenResult again = Open(u"\\Device\\HarddiskVolume7\\kept.bin", GENERIC_READ | SYNCHRONIZE,
                          FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN);
  ASSERT_EQ(again.Status, STATUS_SUCCESS) << "the old handle's share does not count on the new mount";
  kvhost::WaitForWorkQueuesIdle();
  EXPECT_TRUE(IsEqualGUID(listener.Events.back(), GUID_IO_VOLUME_MOUNT));
  EXPECT_TRUE(Read(again.File.get(), 2 * kCluster, 0) == data);
}

TEST_F(VolumeState, AQueryRemoveIsVetoedWhileFilesAreOpenAndOtherwiseDismountsUntilTheOutcome) {
  OpenResult file = Open(u"\\??\\D:\\busy.bin");
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  ASSERT_EQ(Write(file.File.get(), std::vector<uint8_t>(100, 0x5A), 0), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::IoRaiseTargetDeviceEvent(disk_, GUID_TARGET_DEVICE_QUERY_REMOVE), STATUS_ACCESS_DENIED);
  EXPECT_TRUE(kvtestbed::IsVolumeMounted(disk_));
  file.File.Close();

  EXPECT_EQ(kvhost::IoRaiseTargetDeviceEvent(disk_, GUID_TARGET_DEVICE_QUERY_REMOVE), STATUS_SUCCESS);
  EXPECT_FALSE(kvtestbed::IsVolumeMounted(disk_)) << "dismounted, so that nothing holds the stack";
  EXPECT_NE(kvtestbed::FileSystemOf(disk_), nullptr) << "still attached until the outcome";

  // Called off: the next open mounts again and finds what was written before.
  EXPECT_EQ(kvhost::IoRaiseTargetDeviceEvent(disk_, GUID_TARGET_DEVICE_REMOVE_CANCELLED), STATUS_SUCCESS);
  OpenResult again = Open(u"\\??\\D:\\busy.bin", GENERIC_READ | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN);
  ASSERT_EQ(again.Status, STATUS_SUCCESS);
  EXPECT_TRUE(Read(again.File.get(), 100, 0) == std::vector<uint8_t>(100, 0x5A));
  again.File.Close();

  // Carried out: the file system goes with the volume.
  EXPECT_EQ(kvhost::IoRaiseTargetDeviceEvent(disk_, GUID_TARGET_DEVICE_QUERY_REMOVE), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::IoRaiseTargetDeviceEvent(disk_, GUID_TARGET_DEVICE_REMOVE_COMPLETE), STATUS_SUCCESS);
  EXPECT_EQ(kvtestbed::FileSystemOf(disk_), nullptr) << "taken away, and with it its references to the volume";
  EXPECT_EQ(Open(u"\\??\\D:\\busy.bin").Status, STATUS_UNRECOGNIZED_VOLUME);
}

TEST_F(VolumeState, ASurpriseRemovalTakesTheFileSystemAwayUnderOpenFiles) {
  OpenResult file = Open(u"\\??\\D:\\busy.bin");
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  EXPECT_EQ(kvhost::IoRaiseTargetDeviceEvent(disk_, GUID_TARGET_DEVICE_REMOVE_COMPLETE), STATUS_SUCCESS);
  EXPECT_EQ(kvtestbed::FileSystemOf(disk_), nullptr);
  NTSTATUS status;
  Read(file.File.get(), 10, 0, &status);
  EXPECT_EQ(status, STATUS_VOLUME_DISMOUNTED);
}

TEST_F(VolumeState, MetadataIsOnTheDiskAndAFailedCatalogueWriteLeavesThePreviousOne) {
  OpenResult file = Open(u"\\??\\D:\\durable.bin");
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  const std::vector<unsigned char> data = Pattern(5 * kCluster, 6);
  ASSERT_EQ(Write(file.File.get(), data, 0), STATUS_SUCCESS);
  file.File.Close();

  // A metadata change whose catalogue write fails is answered with the failure ...
  OpenResult grown = Open(u"\\??\\D:\\durable.bin");
  ASSERT_EQ(grown.Status, STATUS_SUCCESS);
  static_cast<PRAMDISK_EXTENSION>(disk_->DeviceExtension)->FailCount = 1;
  static_cast<PRAMDISK_EXTENSION>(disk_->DeviceExtension)->FailStatus = STATUS_IO_DEVICE_ERROR;
  FILE_END_OF_FILE_INFORMATION endOfFile{};
  endOfFile.EndOfFile.QuadPart = 9 * kCluster;
  EXPECT_EQ(SetInformation(grown.File.get(), &endOfFile, sizeof endOfFile, FileEndOfFileInformation),
            STATUS_IO_DEVICE_ERROR);
  grown.File.Close();

  // ... and a new instance of the file system, reading only the disk, finds the file as the
  // last catalogue that reached it describes it.
  Remount();
  OpenResult again = Open(u"\\??\\D:\\durable.bin", GENERIC_READ | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN);
  ASSERT_EQ(again.Status, STATUS_SUCCESS);
  FILE_STANDARD_INFORMATION standard{};
  ASSERT_EQ(QueryInformation(again.File.get(), &standard, FileStandardInformation), STATUS_SUCCESS);
  EXPECT_EQ(standard.EndOfFile.QuadPart, 5 * kCluster);
  EXPECT_TRUE(Read(again.File.get(), 5 * kCluster, 0) == data);
}

TEST_F(VolumeState, AVolumeWithoutTheModelIsNotMountedButCanBeOpenedRaw) {
  kvtestbed::DetachFileSystem(disk_);
  auto* ram = static_cast<PRAMDISK_EXTENSION>(disk_->DeviceExtension);
  std::memset(ram->Data, 0, ram->Size);
  model_ = std::make_shared<kvtestbed::ModelFileSystem>();
  ASSERT_EQ(kvtestbed::AttachFileSystem(disk_, model_), STATUS_SUCCESS);

  EXPECT_EQ(Open(u"\\??\\D:\\file.bin").Status, STATUS_UNRECOGNIZED_VOLUME);
  OpenResult volume = OpenVolume();
  ASSERT_EQ(volume.Status, STATUS_SUCCESS) << "the raw volume, as Windows' RAW file system gives it";
  EXPECT_EQ(kvtestbed::MountVolume(disk_), STATUS_UNRECOGNIZED_VOLUME);
  EXPECT_FALSE(kvtestbed::IsVolumeMounted(disk_));
}

TEST_F(VolumeState, FileSystemWritesPassTheVolumesFilter) {
  // Nothing is mounted yet: the mount will go over the filter attached now.
  TestFilterDetach(filter_);
  ASSERT_EQ(TestFilterAttach(filterDriver_, disk_, FilterHoldWrites, &filter_), STATUS_SUCCESS);
  TestFilterHoldWrites(filter_);
  auto* filter = static_cast<PTEST_FILTER_EXTENSION>(filter_->DeviceExtension);
  auto holding = [&] {
    KIRQL irql;
    KeAcquireSpinLock(&filter->Lock, &irql);
    const bool held = !IsListEmpty(&filter->HeldWrites);
    KeReleaseSpinLock(&filter->Lock, irql);
    return held;
  };
  std::atomic<NTSTATUS> created{STATUS_PENDING};
  std::thread creator([&] { created = Open(u"\\??\\D:\\through.bin").Status; });
  for (int i = 0; i < 5000 && !holding(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(holding()) << "the catalogue write of the create reached the filter";
  EXPECT_EQ(created.load(), STATUS_PENDING) << "and the create waits for it";
  TestFilterReleaseWrites(filter_);
  creator.join();
  EXPECT_EQ(created.load(), STATUS_SUCCESS);
  EXPECT_TRUE(model_->Find(u"\\through.bin").has_value());
}

}  // namespace
