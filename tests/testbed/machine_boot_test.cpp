// Booting a machine: what the class filters see of each volume's arrival, and in which order;
// the boot drivers, their registry, reinitialization, the all-clear for writes.
#include <devguid.h>
#include <ioevent.h>

#include <algorithm>

#include "kvhost/named_events.h"
#include "kvhost/object.h"
#include "kvhost/registry.h"
#include "testbed_support.h"

namespace kvtestbed::testing {
namespace {

TEST(MachineBoot, EachVolumeArrivesInWindowsOrderBeforeTheMount) {
  Machine machine;
  Volume* c = machine.AddVolume(LetteredVolume(u'C'));
  VolumeConfig dataConfig;
  dataConfig.Name = "data";
  Volume* data = machine.AddVolume(dataConfig);
  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);

  const std::vector<TestFilterEvent> seen = TakeTestFilterEvents();
  ASSERT_FALSE(seen.empty());
  EXPECT_EQ(seen.front().What, "DriverEntry");
  EXPECT_EQ(seen.front().Detail, "\\Registry\\Machine\\System\\CurrentControlSet\\Services\\passthrough");
  const std::string guidLink = kvhost::ToUtf8(c->VolumeGuidName());
  EXPECT_EQ(SeenOn(seen, "\\Device\\HarddiskVolume1", true),
            (std::vector<std::string>{"AddDevice", "IRP_MN_START_DEVICE",
                                      "interface arrival " + kvhost::ToUtf8(c->InterfaceLink()),
                                      "IOCTL_MOUNTDEV_QUERY_DEVICE_NAME", "IOCTL_MOUNTDEV_LINK_CREATED " + guidLink,
                                      "IOCTL_MOUNTDEV_LINK_CREATED \\DosDevices\\C:", "IOCTL_VOLUME_ONLINE",
                                      "GUID_IO_VOLUME_MOUNT"}));
  // A volume without a drive letter gets its volume GUID name only.
  EXPECT_EQ(SeenOn(seen, "\\Device\\HarddiskVolume2"),
            (std::vector<std::string>{"AddDevice", "IRP_MN_START_DEVICE", "interface arrival",
                                      "IOCTL_MOUNTDEV_QUERY_DEVICE_NAME", "IOCTL_MOUNTDEV_LINK_CREATED",
                                      "IOCTL_VOLUME_ONLINE", "GUID_IO_VOLUME_MOUNT"}));
  // Both volumes are up before either is mounted: mounts follow the boot drivers' arrival.
  size_t lastOnline = 0, firstMount = seen.size();
  for (size_t i = 0; i < seen.size(); ++i) {
    if (seen[i].What == "IOCTL_VOLUME_ONLINE") lastOnline = i;
    if (seen[i].What == "GUID_IO_VOLUME_MOUNT") firstMount = std::min(firstMount, i);
  }
  EXPECT_LT(lastOnline, firstMount);

  // The names the mount manager gave lead to the volume.
  EXPECT_TRUE(c->Online() && data->Online());
  for (const std::u16string& name : {std::u16string(u"\\??\\C:"), c->VolumeGuidName(), c->InterfaceLink()}) {
    PVOID link = kvhost::ObLookupObjectByName(name);
    ASSERT_NE(link, nullptr) << kvhost::ToUtf8(name);
    ObDereferenceObject(link);
  }
}

TEST(MachineBoot, ClassListsDecideWhichFilterAVolumeOrAShadowCopyGets) {
  MachineConfig config;
  config.VolumeUpperFilters = {};  // only shadow copies are filtered
  Machine machine(config);
  Volume* c = machine.AddVolume(LetteredVolume(u'C'));
  c->WriteDirect(0, Pattern(4096, 1));
  Volume& snapshot = *machine.AddShadowCopy(*c, "snap");
  c->WriteDirect(0, Pattern(4096, 2));
  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);

  const std::vector<TestFilterEvent> seen = TakeTestFilterEvents();
  EXPECT_EQ(SeenOn(seen, "\\Device\\HarddiskVolume1"), std::vector<std::string>{"interface arrival"})
      << "the filter hears of the volume's interface, but has no device in its stack";
  const std::vector<std::string> onSnapshot = SeenOn(seen, "\\Device\\HarddiskVolumeShadowCopy1");
  ASSERT_FALSE(onSnapshot.empty());
  EXPECT_EQ(onSnapshot.front(), "AddDevice");
  EXPECT_EQ(CountSeen(seen, "IOCTL_MOUNTDEV_LINK_CREATED"), 0u) << "the mount manager does not name shadow copies";

  PDEVICE_OBJECT device = snapshot.Device();
  ASSERT_NE(device, nullptr);
  EXPECT_EQ(device->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_VIRTUAL_DISK));
  EXPECT_TRUE(device->Flags & DO_BUS_ENUMERATED_DEVICE);
  WCHAR classGuid[64] = {};
  ULONG length = 0;
  ASSERT_EQ(IoGetDeviceProperty(device, DevicePropertyClassGuid, sizeof classGuid, classGuid, &length), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::ToUtf8(reinterpret_cast<const char16_t*>(classGuid)), "{533C5B84-EC70-11D2-9505-00C04F79DEAF}");

  // The shadow copy shows the volume as it was when taken, through its stack.
  IoResult read = machine.Read(snapshot, 0, 4096);
  ASSERT_EQ(read.Status, STATUS_SUCCESS);
  EXPECT_EQ(read.Data, Pattern(4096, 1));
  EXPECT_EQ(machine.Write(snapshot, 0, Pattern(512, 3)).Status, STATUS_MEDIA_WRITE_PROTECTED);
}

TEST(MachineBoot, ServicesSettingsVersionAndTheAllClearForWrites) {
  MachineConfig config;
  config.Version.Build = 19045;
  config.Services = {{u"passthrough", nullptr, {RegistrySetting::Dword(u"DebugLog", 1)}}};
  config.VolumesSafeForWriteAtBoot = false;
  Machine machine(config);
  machine.AddVolume(LetteredVolume(u'C'));

  const std::u16string service = Machine::ServiceKeyPath(u"passthrough");
  EXPECT_EQ(kvhost::GetRegistryDword(service, u"Start"), 0u) << "a boot driver";
  EXPECT_EQ(kvhost::GetRegistryDword(service, u"DebugLog"), 1u);
  auto filters = kvhost::GetRegistryValue(Machine::ClassKeyPath(GUID_DEVCLASS_VOLUME), u"UpperFilters");
  ASSERT_TRUE(filters.has_value());
  EXPECT_EQ(filters->Type, static_cast<ULONG>(REG_MULTI_SZ));

  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);
  RTL_OSVERSIONINFOW version{};
  version.dwOSVersionInfoSize = sizeof version;
  ASSERT_EQ(RtlGetVersion(&version), STATUS_SUCCESS);
  EXPECT_EQ(version.dwBuildNumber, 19045u);

  auto* safe = static_cast<PKEVENT>(kvhost::ObLookupObjectByName(Machine::kVolumesSafeForWriteEvent));
  ASSERT_NE(safe, nullptr);
  EXPECT_EQ(KeReadStateEvent(safe), 0) << "not before the machine says so";
  machine.SignalVolumesSafeForWrite();
  EXPECT_NE(KeReadStateEvent(safe), 0);
  ObDereferenceObject(safe);
}

// A filter that also registers for boot-driver reinitialization, and notes what the machine
// had done when its routine ran.
Machine* g_booting = nullptr;
std::vector<MachineEvent> g_beforeReinitialization;
ULONG g_reinitializationRuns = 0;

void NoteBootReinitialization(PDRIVER_OBJECT, PVOID, ULONG count) {
  ++g_reinitializationRuns;
  EXPECT_EQ(count, 1u);
  g_beforeReinitialization = g_booting->TakeEvents();
}

NTSTATUS ReinitializingFilterEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
  const NTSTATUS status = PassThroughFilterDriverEntry(driver, registryPath);
  if (NT_SUCCESS(status)) IoRegisterBootDriverReinitialization(driver, NoteBootReinitialization, nullptr);
  return status;
}

bool Contains(const std::vector<MachineEvent>& events, const std::string& text) {
  return std::any_of(events.begin(), events.end(), [&](const MachineEvent& e) { return e.Text == text; });
}

TEST(MachineBoot, BootDriverReinitializationRunsAfterEveryArrivalAndBeforeTheMounts) {
  MachineConfig config;
  config.Services = {{u"passthrough", ReinitializingFilterEntry, {}}};
  Machine machine(config);
  machine.AddVolume(LetteredVolume(u'C'));
  VolumeConfig dataConfig;
  dataConfig.Name = "data";
  machine.AddVolume(dataConfig);
  g_booting = &machine;
  g_reinitializationRuns = 0;
  ASSERT_EQ(machine.Boot(), STATUS_SUCCESS);
  g_booting = nullptr;
  const std::vector<MachineEvent> before = std::move(g_beforeReinitialization);
  const std::vector<MachineEvent> after = machine.TakeEvents();

  EXPECT_EQ(g_reinitializationRuns, 1u);
  EXPECT_TRUE(Contains(before, "C: IOCTL_VOLUME_ONLINE"));
  EXPECT_TRUE(Contains(before, "data: IOCTL_VOLUME_ONLINE")) << "the last volume has arrived";
  for (const MachineEvent& e : before) EXPECT_EQ(e.Text.find("GUID_IO_VOLUME_MOUNT"), std::string::npos) << e.Text;
  ASSERT_FALSE(after.empty());
  EXPECT_EQ(after.front().Text, "boot-driver reinitialization: 1 routine(s)");
  EXPECT_TRUE(Contains(after, "C: GUID_IO_VOLUME_MOUNT"));
  EXPECT_TRUE(Contains(after, "data: GUID_IO_VOLUME_MOUNT"));
}

}  // namespace
}  // namespace kvtestbed::testing
