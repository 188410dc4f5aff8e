// Registrations a driver makes with the I/O manager, and the machine raising what they
// wait for: shutdown, reinitialization, device-interface and target-device events.
#include <cstring>
#include <ioevent.h>
#include <utility>
#include <wdmguid.h>

#include "io_test_stack.h"
#include "kvhost/object.h"
#include "kvhost/verifier.h"

namespace {

constexpr GUID kVolumeClass = {0x53F5630D, 0xB6BF, 0x11D0, {0x94, 0xF2, 0x00, 0xA0, 0xC9, 0x1E, 0xFB, 0x8B}};
constexpr GUID kOtherClass = {0x53F56307, 0xB6BF, 0x11D0, {0x94, 0xF2, 0x00, 0xA0, 0xC9, 0x1E, 0xFB, 0x8B}};

TEST_F(IoStackTest, ShutdownReachesTheTopOfEachRegisteredStackLatestFirst) {
  PDEVICE_OBJECT filtered = NewDisk();
  Attach(filtered, FilterPassThrough);
  PDEVICE_OBJECT bare = NewDisk(RamDiskCompleteFromWorker, DO_DIRECT_IO, u"\\Device\\RamDisk1");
  ASSERT_EQ(IoRegisterShutdownNotification(filtered), STATUS_SUCCESS);
  ASSERT_EQ(IoRegisterShutdownNotification(bare), STATUS_SUCCESS);
  ASSERT_EQ(IoRegisterLastChanceShutdownNotification(bare), STATUS_SUCCESS);
  EXPECT_TRUE(filtered->Flags & DO_SHUTDOWN_REGISTERED);

  std::vector<std::pair<PDEVICE_OBJECT, CHAR>> shutdowns;  // device, locations of the request
  kvhost::IoSetCompletionObserver([&](const kvhost::IrpCompletion& c) {
    EXPECT_EQ(c.MajorFunction, IRP_MJ_SHUTDOWN);
    shutdowns.emplace_back(c.CompletedBy, c.Irp->StackCount);
  });
  EXPECT_EQ(kvhost::IoSendShutdownNotifications(false), 2u);
  ASSERT_EQ(shutdowns.size(), 2u);
  EXPECT_EQ(shutdowns[0], std::make_pair(bare, CHAR{1})) << "the latest registration first";
  EXPECT_EQ(shutdowns[1], std::make_pair(filtered, CHAR{2})) << "sent to the filter on top of the disk";
  EXPECT_EQ(kvhost::IoSendShutdownNotifications(true), 1u);
  EXPECT_EQ(Disk(bare)->Shutdowns, 2);

  // Unregistering drops both kinds; unregistering again is a mistake.
  IoUnregisterShutdownNotification(bare);
  EXPECT_FALSE(bare->Flags & DO_SHUTDOWN_REGISTERED);
  EXPECT_EQ(kvhost::IoSendShutdownNotifications(false), 1u);
  EXPECT_EQ(kvhost::IoSendShutdownNotifications(true), 0u);
  kvhost::ViolationCapture capture;
  IoUnregisterShutdownNotification(bare);
  EXPECT_TRUE(capture.Saw("ShutdownNotRegistered"));
  // The filtered disk is still registered: deleting it drops the registration with it.
}

std::vector<ULONG> g_reinitCounts;
int g_registerAgain;

void Reinitialize(PDRIVER_OBJECT DriverObject, PVOID Context, ULONG Count) {
  g_reinitCounts.push_back(Count);
  EXPECT_EQ(Context, &g_reinitCounts);
  if (g_registerAgain-- > 0) IoRegisterBootDriverReinitialization(DriverObject, Reinitialize, Context);
}

TEST_F(IoStackTest, ReinitializationCallbacksRunOncePerPassAndCountTheirCalls) {
  g_reinitCounts.clear();
  g_registerAgain = 1;
  IoRegisterBootDriverReinitialization(ramDriver_, Reinitialize, &g_reinitCounts);
  EXPECT_EQ(kvhost::IoRunDriverReinitialization(), 0u) << "boot-driver callbacks have their own pass";
  EXPECT_EQ(kvhost::IoRunBootDriverReinitialization(), 1u);
  EXPECT_EQ(kvhost::IoRunBootDriverReinitialization(), 1u) << "it registered itself again";
  EXPECT_EQ(kvhost::IoRunBootDriverReinitialization(), 0u);
  IoRegisterDriverReinitialization(ramDriver_, Reinitialize, &g_reinitCounts);
  EXPECT_EQ(kvhost::IoRunDriverReinitialization(), 1u);
  EXPECT_EQ(g_reinitCounts, (std::vector<ULONG>{1, 2, 3}));
}

struct InterfaceEvents {
  std::vector<std::pair<bool, std::u16string>> Seen;  // arrival?, symbolic link
};

NTSTATUS RecordInterface(PVOID NotificationStructure, PVOID Context) {
  auto* n = static_cast<PDEVICE_INTERFACE_CHANGE_NOTIFICATION>(NotificationStructure);
  EXPECT_EQ(n->Version, 1);
  EXPECT_EQ(n->Size, sizeof(DEVICE_INTERFACE_CHANGE_NOTIFICATION));
  EXPECT_EQ(n->InterfaceClassGuid, kVolumeClass);
  static_cast<InterfaceEvents*>(Context)->Seen.emplace_back(n->Event == GUID_DEVICE_INTERFACE_ARRIVAL,
                                                            kvhost::ToWString(n->SymbolicLinkName));
  return STATUS_SUCCESS;
}

TEST_F(IoStackTest, InterfaceEventsReachTheirClassIncludingInterfacesAlreadyThere) {
  using Events = std::vector<std::pair<bool, std::u16string>>;
  kvhost::IoSetDeviceInterfaceState(kVolumeClass, u"\\??\\Volume#1", true);
  InterfaceEvents existing, later;
  PVOID existingEntry = nullptr, laterEntry = nullptr;
  ASSERT_EQ(IoRegisterPlugPlayNotification(EventCategoryDeviceInterfaceChange,
                                           PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES,
                                           const_cast<GUID*>(&kVolumeClass), ramDriver_, RecordInterface, &existing,
                                           &existingEntry),
            STATUS_SUCCESS);
  EXPECT_EQ(existing.Seen, (Events{{true, u"\\??\\Volume#1"}})) << "reported from within the registration";
  ASSERT_EQ(IoRegisterPlugPlayNotification(EventCategoryDeviceInterfaceChange, 0, const_cast<GUID*>(&kVolumeClass),
                                           ramDriver_, RecordInterface, &later, &laterEntry),
            STATUS_SUCCESS);
  EXPECT_TRUE(later.Seen.empty());

  kvhost::IoSetDeviceInterfaceState(kOtherClass, u"\\??\\Other#1", true);
  kvhost::IoSetDeviceInterfaceState(kVolumeClass, u"\\??\\Volume#2", true);
  kvhost::IoSetDeviceInterfaceState(kVolumeClass, u"\\??\\Volume#1", false);
  EXPECT_EQ(later.Seen, (Events{{true, u"\\??\\Volume#2"}, {false, u"\\??\\Volume#1"}}));
  EXPECT_EQ(existing.Seen.size(), 3u);

  EXPECT_EQ(IoUnregisterPlugPlayNotification(laterEntry), STATUS_SUCCESS);
  kvhost::IoSetDeviceInterfaceState(kVolumeClass, u"\\??\\Volume#3", true);
  EXPECT_EQ(later.Seen.size(), 2u);
  EXPECT_EQ(existing.Seen.size(), 4u);
  kvhost::ViolationCapture capture;
  EXPECT_EQ(IoUnregisterPlugPlayNotification(laterEntry), STATUS_INVALID_PARAMETER);
  EXPECT_TRUE(capture.Saw("PnpNotificationNotRegistered"));
  EXPECT_EQ(IoUnregisterPlugPlayNotificationEx(existingEntry), STATUS_SUCCESS);
}

struct TargetEvents {
  PFILE_OBJECT File = nullptr;
  PVOID Entry = nullptr;
  NTSTATUS QueryRemoveAnswer = STATUS_SUCCESS;
  std::vector<GUID> Seen;
  std::vector<unsigned char> Data;
};

NTSTATUS RecordTargetEvent(PVOID NotificationStructure, PVOID Context) {
  auto* t = static_cast<TargetEvents*>(Context);
  auto* header = static_cast<PPLUGPLAY_NOTIFICATION_HEADER>(NotificationStructure);
  t->Seen.push_back(header->Event);
  if (header->Event == GUID_TARGET_DEVICE_QUERY_REMOVE || header->Event == GUID_TARGET_DEVICE_REMOVE_COMPLETE) {
    auto* n = static_cast<PTARGET_DEVICE_REMOVAL_NOTIFICATION>(NotificationStructure);
    EXPECT_EQ(n->Size, sizeof(TARGET_DEVICE_REMOVAL_NOTIFICATION));
    EXPECT_EQ(n->FileObject, t->File);
  } else {
    auto* n = static_cast<PTARGET_DEVICE_CUSTOM_NOTIFICATION>(NotificationStructure);
    EXPECT_EQ(n->FileObject, t->File);
    EXPECT_EQ(n->NameBufferOffset, -1);
    const size_t bytes = n->Size - FIELD_OFFSET(TARGET_DEVICE_CUSTOM_NOTIFICATION, CustomDataBuffer);
    t->Data.assign(n->CustomDataBuffer, n->CustomDataBuffer + bytes);
  }
  // As a volume watcher does: the removal is complete, the registration goes.
  if (header->Event == GUID_TARGET_DEVICE_REMOVE_COMPLETE) IoUnregisterPlugPlayNotification(t->Entry);
  return header->Event == GUID_TARGET_DEVICE_QUERY_REMOVE ? t->QueryRemoveAnswer : STATUS_SUCCESS;
}

TEST_F(IoStackTest, TargetDeviceEventsReachTheRegistrationsOnThatDevice) {
  PDEVICE_OBJECT disk = NewDisk();
  PDEVICE_OBJECT filter = Attach(disk, FilterPassThrough);
  CountedString name(u"\\Device\\RamDisk0");
  TargetEvents t;
  PDEVICE_OBJECT top = nullptr;
  ASSERT_EQ(IoGetDeviceObjectPointer(name.get(), FILE_READ_ATTRIBUTES, &t.File, &top), STATUS_SUCCESS);
  ASSERT_EQ(IoRegisterPlugPlayNotification(EventCategoryTargetDeviceChange, 0, t.File, filterDriver_,
                                           RecordTargetEvent, &t, &t.Entry),
            STATUS_SUCCESS);
  ObDereferenceObject(t.File);  // the registration does not need the file object kept
  EXPECT_EQ(Disk(disk)->Closes, 1);

  const unsigned char payload[] = {'l', 'o', 'c', 'k'};
  EXPECT_EQ(kvhost::IoRaiseTargetDeviceEvent(disk, GUID_IO_VOLUME_LOCK, payload, sizeof payload), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::IoRaiseTargetDeviceEvent(filter, GUID_IO_VOLUME_UNLOCK), STATUS_SUCCESS);
  ASSERT_EQ(t.Seen.size(), 1u) << "only events of the device the file object was opened on";
  EXPECT_EQ(t.Seen[0], GUID_IO_VOLUME_LOCK);
  EXPECT_EQ(t.Data, std::vector<unsigned char>(payload, payload + sizeof payload));

  t.QueryRemoveAnswer = STATUS_UNSUCCESSFUL;
  EXPECT_EQ(kvhost::IoRaiseTargetDeviceEvent(disk, GUID_TARGET_DEVICE_QUERY_REMOVE), STATUS_UNSUCCESSFUL)
      << "a callback vetoes the removal";
  EXPECT_EQ(kvhost::IoRaiseTargetDeviceEvent(disk, GUID_TARGET_DEVICE_REMOVE_COMPLETE), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::IoCountPlugPlayNotifications(), 0u) << "the callback unregistered itself";
  kvhost::IoRaiseTargetDeviceEvent(disk, GUID_IO_VOLUME_MOUNT);
  EXPECT_EQ(t.Seen.size(), 3u);
}

}  // namespace
