// The machine: its installation in the registry, its volumes, and its power: boot, clean
// shutdown, power loss and the teardown of a machine that is destroyed while running.
#include "kvtestbed/machine.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "completion_worker.h"
#include "kvhost/io.h"
#include "kvhost/named_events.h"
#include "kvhost/object.h"
#include "kvhost/registry.h"
#include "kvhost/strings.h"
#include "kvhost/thread.h"
#include "kvhost/verifier.h"
#include "kvhost/workqueue.h"
#include "kvtestbed/driver_images.h"
#include "kvtestbed/file_system.h"
#include "kvtestbed/names.h"
#include "volume_content.h"
#include "volume_driver.h"

namespace kvtestbed {
namespace {

constexpr ULONG kServiceKernelDriver = 1;  // SERVICE_KERNEL_DRIVER
constexpr ULONG kServiceBootStart = 0;     // SERVICE_BOOT_START
constexpr ULONG kServiceErrorNormal = 1;   // SERVICE_ERROR_NORMAL

constexpr std::u16string_view kSessionManagerKey =
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Session Manager";

// Machines alive in this process: one left at the end of a test is a test that forgot to
// take its machine down (its volumes and drivers are still in the kernel).
std::atomic<int> g_machinesAlive{0};

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "testbed: machines",
      .Order = 5,
      .Reset = nullptr,
      .Quiesce = nullptr,
      .Check =
          [](std::vector<std::string>& problems) {
            if (g_machinesAlive.load() != 0)
              problems.push_back("a kvtestbed::Machine is still alive at the end of the test");
          },
      .SurvivesPowerLoss = true,
  });
  return true;
}();

std::string Narrow(std::u16string_view text) { return kvhost::ToUtf8(text); }

}  // namespace

RegistrySetting RegistrySetting::Dword(std::u16string name, ULONG value) {
  RegistrySetting s{std::move(name), REG_DWORD, std::vector<uint8_t>(sizeof value)};
  std::memcpy(s.Data.data(), &value, sizeof value);
  return s;
}

RegistrySetting RegistrySetting::String(std::u16string name, std::u16string_view text) {
  RegistrySetting s{std::move(name), REG_SZ, std::vector<uint8_t>((text.size() + 1) * sizeof(char16_t), 0)};
  std::memcpy(s.Data.data(), text.data(), text.size() * sizeof(char16_t));
  return s;
}

std::u16string Machine::ServiceKeyPath(std::u16string_view service) {
  return u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\" + std::u16string(service);
}

std::u16string Machine::ClassKeyPath(const GUID& classGuid) {
  return u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Class\\" + GuidText16(classGuid);
}

Machine::Machine(MachineConfig config) : config_(std::move(config)) {
  ++g_machinesAlive;
  InstallRegistry();
}

Machine::~Machine() {
  TakeDown();
  worker_.reset();
  --g_machinesAlive;
}

// What installing Windows and the drivers leaves in the registry: a service key for each
// driver (with its settings), the filter lists of the volume classes, and the session
// manager's boot-time check of every volume.
void Machine::InstallRegistry() {
  auto installService = [&](std::u16string_view name) {
    const std::u16string key = ServiceKeyPath(name);
    kvhost::SetRegistryDword(key, u"Type", kServiceKernelDriver);
    kvhost::SetRegistryDword(key, u"Start", kServiceBootStart);
    kvhost::SetRegistryDword(key, u"ErrorControl", kServiceErrorNormal);
    kvhost::SetRegistryString(key, u"ImagePath", u"\\SystemRoot\\System32\\drivers\\" + std::u16string(name) + u".sys",
                              REG_EXPAND_SZ);
  };
  installService(kVolumeManager);
  for (const auto* list : {&config_.VolumeUpperFilters, &config_.SnapshotUpperFilters})
    for (const std::u16string& name : *list) installService(name);
  for (const ServiceConfig& service : config_.Services) {
    installService(service.Name);
    for (const RegistrySetting& s : service.Settings)
      kvhost::SetRegistryValue(ServiceKeyPath(service.Name), s.Name, s.Type, s.Data.data(), s.Data.size());
  }
  const std::u16string volumeClass = ClassKeyPath(GUID_DEVCLASS_VOLUME);
  kvhost::SetRegistryString(volumeClass, u"Class", u"Volume");
  kvhost::SetRegistryMultiString(volumeClass, u"UpperFilters", config_.VolumeUpperFilters);
  const std::u16string snapshotClass = ClassKeyPath(GUID_DEVCLASS_VOLUMESNAPSHOT);
  kvhost::SetRegistryString(snapshotClass, u"Class", u"VolumeSnapshot");
  kvhost::SetRegistryMultiString(snapshotClass, u"UpperFilters", config_.SnapshotUpperFilters);
  kvhost::SetRegistryMultiString(kSessionManagerKey, u"BootExecute", {u"autocheck autochk *"});
}

// ---------------------------------------------------------------------------------------
// Volumes.

Volume* Machine::AddVolume(VolumeConfig config, std::string* error) {
  std::string problem;
  if (config.SectorSize != 512 && config.SectorSize != 4096)
    problem = "sector size " + std::to_string(config.SectorSize) + " (a volume has 512- or 4096-byte sectors)";
  else if (config.SizeBytes == 0 || config.SizeBytes % config.SectorSize != 0)
    problem = "size " + std::to_string(config.SizeBytes) + " (a positive multiple of the sector size)";
  else if (config.DriveLetter != 0 && (config.DriveLetter < u'A' || config.DriveLetter > u'Z'))
    problem = "drive letter (A to Z)";
  else if (config.PartitionStyle == PARTITION_STYLE_MBR && config.Partition == PartitionKind::Reserved)
    problem = "reserved partition on an MBR disk (it exists only on GPT disks)";
  else if (!config.Name.empty() && FindVolume(config.Name) != nullptr)
    problem = "name " + config.Name + " (already taken)";
  std::unique_ptr<detail::BlockStore> store;
  if (problem.empty()) {
    store = config.ImagePath.empty() ? detail::MakeMemoryStore()
                                     : detail::OpenImageStore(config.ImagePath, config.SizeBytes, &problem);
  }
  if (store == nullptr) {
    if (error != nullptr) *error = "bad volume: " + problem;
    return nullptr;
  }
  auto content = std::make_shared<detail::VolumeContent>(std::move(store));
  std::unique_ptr<Volume> volume(new Volume(nextVolumeNumber_++, nullptr, std::move(config), std::move(content)));
  return &Connect(std::move(volume));
}

Volume* Machine::AddShadowCopy(Volume& original, std::string name) {
  auto base = std::dynamic_pointer_cast<detail::VolumeContent>(original.content_);
  if (base == nullptr) return nullptr;  // a shadow copy of a shadow copy does not exist
  VolumeConfig config = original.Config();
  config.Name = std::move(name);
  config.DriveLetter = 0;
  config.VolumeGuid.reset();
  config.ImagePath.clear();
  config.SerialNumber.clear();
  config.DeviceType = FILE_DEVICE_VIRTUAL_DISK;
  config.WriteProtected = true;
  config.GptAttributes = GPT_BASIC_DATA_ATTRIBUTE_READ_ONLY | GPT_BASIC_DATA_ATTRIBUTE_SHADOW_COPY |
                         GPT_BASIC_DATA_ATTRIBUTE_HIDDEN | GPT_BASIC_DATA_ATTRIBUTE_NO_DRIVE_LETTER;
  std::unique_ptr<Volume> volume(
      new Volume(nextShadowCopyNumber_++, &original, std::move(config), base->TakeSnapshot()));
  Note(Who(*volume) + "shadow copy of " + original.Name() + " taken");
  return &Connect(std::move(volume));
}

// A new volume joins the machine, powered as the machine is, and arrives when it runs.
Volume& Machine::Connect(std::unique_ptr<Volume> volume) {
  Volume& added = *volume;
  volumes_.push_back(std::move(volume));
  added.worker_ = worker_.get();
  added.poweredOff_ = !running_;
  if (running_) ArriveNow(added, true);
  return added;
}

Volume* Machine::FindVolume(std::string_view name) const {
  for (const auto& v : volumes_)
    if (v->Name() == name || Narrow(v->DeviceName()) == name) return v.get();
  return nullptr;
}

std::vector<Volume*> Machine::Volumes() const {
  std::vector<Volume*> out;
  for (const auto& v : volumes_) out.push_back(v.get());
  return out;
}

// ---------------------------------------------------------------------------------------
// Power.

// A boot, in the order Windows runs it:
//  1. Power on: the kernel's memory is fresh; the Windows release is the machine's; the
//     named event \Device\VolumesSafeForWriteAccess exists, not signalled.
//  2. The boot drivers are loaded and their DriverEntry runs: the volume manager first,
//     then the class filters in the order of the classes' lists.
//  3. The volumes arrive, one after the other, originals before shadow copies (ArriveNow
//     gives the order within one volume: device, AddDevice, start, interface, mount-manager
//     links, online).
//  4. Boot-driver reinitialization routines run, once all boot drivers are in and the boot
//     volumes enumerated; then the drivers' reinitialization routines.
//  5. The file systems are mounted, the system volume (C:) first: each mount raises
//     GUID_IO_VOLUME_MOUNT.
//  6. autochk found nothing to do: \Device\VolumesSafeForWriteAccess is signalled (unless the
//     configuration leaves that to SignalVolumesSafeForWrite).
NTSTATUS Machine::Boot() {
  if (running_) return STATUS_INVALID_DEVICE_STATE;
  PowerOn();
  LoadBootDrivers();
  for (const auto& v : volumes_)
    if (v->present_) ArriveNow(*v, false);
  Note("boot-driver reinitialization: " + std::to_string(kvhost::IoRunBootDriverReinitialization()) + " routine(s)");
  Note("driver reinitialization: " + std::to_string(kvhost::IoRunDriverReinitialization()) + " routine(s)");
  std::vector<Volume*> mountOrder = Volumes();
  std::stable_partition(mountOrder.begin(), mountOrder.end(),
                        [](const Volume* v) { return v->Config().DriveLetter == u'C'; });
  for (Volume* v : mountOrder)
    if (v->started_) Mount(*v);
  if (config_.VolumesSafeForWriteAtBoot) SignalVolumesSafeForWrite();
  return STATUS_SUCCESS;
}

void Machine::PowerOn() {
  running_ = true;
  ++boots_;
  kvhost::SetWindowsVersion(config_.Version);
  if (worker_ == nullptr) worker_ = std::make_unique<detail::CompletionWorker>();
  // After a power loss the event is created anew; after TakeDown it is still there.
  volumesSafeForWrite_ = kvhost::CreateNamedEvent(kVolumesSafeForWriteEvent, NotificationEvent, FALSE);
  if (volumesSafeForWrite_ == nullptr) {
    volumesSafeForWrite_ = static_cast<PKEVENT>(kvhost::ObLookupObjectByName(kVolumesSafeForWriteEvent, *ExEventObjectType));
    if (volumesSafeForWrite_ != nullptr) {
      ObDereferenceObject(volumesSafeForWrite_);  // a permanent object: it stays
      KeClearEvent(volumesSafeForWrite_);
    }
  }
  for (const auto& v : volumes_) {
    v->worker_ = worker_.get();
    v->poweredOff_ = false;
  }
  const kvhost::WindowsVersion& w = config_.Version;
  Note("power on: boot " + std::to_string(boots_) + ", Windows " + std::to_string(w.Major) + "." +
       std::to_string(w.Minor) + "." + std::to_string(w.Build));
}

void Machine::LoadBootDrivers() {
  std::vector<std::u16string> order{std::u16string(kVolumeManager)};
  auto add = [&](const std::u16string& name) {
    const bool known = std::any_of(order.begin(), order.end(), [&](const std::u16string& n) {
      return kvhost::EqualNoCase(n, name);
    });
    if (!known) order.push_back(name);
  };
  for (const std::u16string& name : config_.VolumeUpperFilters) add(name);
  for (const std::u16string& name : config_.SnapshotUpperFilters) add(name);
  for (const ServiceConfig& service : config_.Services) add(service.Name);
  for (const std::u16string& name : order) {
    PDRIVER_INITIALIZE entry = name == kVolumeManager ? detail::VolumeDriver::DriverEntry : FindDriverImage(name);
    for (const ServiceConfig& service : config_.Services)
      if (kvhost::EqualNoCase(service.Name, name) && service.Entry != nullptr) entry = service.Entry;
    if (entry == nullptr) {
      Note("load " + Narrow(name) + ": no driver image of that name", STATUS_DRIVER_UNABLE_TO_LOAD);
      continue;
    }
    kvhost::LoadedDriver loaded = kvhost::IoLoadDriver(name, entry, ServiceKeyPath(name));
    Note("load " + Narrow(name) + ": DriverEntry", loaded.EntryStatus);
    if (loaded.DriverObject != nullptr) drivers_.emplace_back(name, loaded.DriverObject);
  }
}

void Machine::SignalVolumesSafeForWrite() {
  if (!running_ || volumesSafeForWrite_ == nullptr) return;
  KeSetEvent(volumesSafeForWrite_, IO_NO_INCREMENT, FALSE);
  Note("\\Device\\VolumesSafeForWriteAccess signalled");
}

// A clean shutdown, in the order Windows runs it:
//  1. IRP_MJ_SHUTDOWN to every device registered for shutdown notification, the latest
//     registration first.
//  2. The file systems flush what they hold and dismount (on Windows at their own
//     IRP_MJ_SHUTDOWN); their writes pass the volume stacks.
//  3. IRP_MJ_SHUTDOWN to the devices registered for last-chance shutdown notification.
//  4. IRP_MN_SET_POWER for PowerSystemShutdown to the top of every volume stack, shadow
//     copies and then volumes, the latest arrival first (the power manager goes from the
//     leaves of the device tree): the system power-state context carries the effective state
//     (bits 12-15), the action is PowerActionShutdownOff.
//  5. Power off, as in a crash: the disks keep what reached them.
void Machine::Shutdown() {
  if (!running_) return;
  Note("shutdown");
  const size_t registered = kvhost::IoSendShutdownNotifications(false);
  Note("IRP_MJ_SHUTDOWN to " + std::to_string(registered) + " registered device(s)");
  for (const auto& v : volumes_) {
    if (v->Device() == nullptr || FileSystemOf(v->Device()) == nullptr) continue;
    DetachFileSystem(v->Device());
    Note(Who(*v) + "file system flushed and dismounted");
  }
  const size_t lastChance = kvhost::IoSendShutdownNotifications(true);
  Note("IRP_MJ_SHUTDOWN to " + std::to_string(lastChance) + " last-chance device(s)");
  std::vector<Volume*> order = Volumes();
  std::stable_partition(order.begin(), order.end(), [](const Volume* v) { return !v->IsShadowCopy(); });
  for (auto it = order.rbegin(); it != order.rend(); ++it)
    if (Usable(**it) && (*it)->started_) Note(Who(**it) + "IRP_MN_SET_POWER PowerSystemShutdown", SendShutdownPower(**it));
  PowerOff();
}

// A power loss. The disks stop at once: from this instant nothing reaches them. Driver code
// still running (a request completing on the storage thread, a work item) runs to its end
// against powered-off disks, which fail every request; then every memory state of the
// machine is dropped without calling any driver: objects, pool, requests, registrations,
// queued work. The registry, the disks and the volumes' knobs stay.
void Machine::Crash() {
  if (!running_) return;
  Note("power lost");
  PowerOff();
}

// A driver system thread still running at the power loss cannot be stopped from outside
// (it is a host thread running driver code). The way to end it: the kernel gets a powered-off
// state; once set, every wait such a thread is blocked in ends at once, and every kernel
// service it enters (a wait, a delay, an allocation, a request) does not return into the
// driver but leaves through the thread's termination point, the one PsTerminateSystemThread
// already uses, so that no more driver code of the thread runs and its frames are dropped as
// a halted processor drops them. A work item blocked for good is ended the same way, with the
// worker loop as its landing point. Until the kernel has that state, a power loss with driver
// code that does not end is a bug check: freeing memory under running code cannot be sound.
void Machine::PowerOff() {
  for (const auto& v : volumes_) v->poweredOff_ = true;
  worker_->Drain();
  if (!kvhost::WaitForWorkQueuesIdle(std::chrono::seconds(30)))
    kvhost::BugCheck(0xE2, "power lost while a work item still runs driver code 30 s later");
  if (!kvhost::WaitForSystemThreads(std::chrono::seconds(5)))
    kvhost::BugCheck(0xE2, "power lost while a driver system thread still runs: " +
                               kvhost::DescribeRunningSystemThreads().front());
  kvhost::ResetAfterPowerLoss();
  drivers_.clear();
  volumesSafeForWrite_ = nullptr;
  running_ = false;
  for (const auto& v : volumes_) {
    v->device_ = nullptr;
    v->online_ = false;
    v->started_ = false;
    v->interfaceEnabled_ = false;
    v->removePending_ = false;
    v->links_.clear();
  }
}

// Every volume stack goes through an orderly removal (shadow copies first, the latest first;
// a vetoed removal becomes a surprise removal), then the drivers are unloaded in the reverse
// order of loading. What a driver did not release is reported by the I/O manager and the
// end-of-test checks. The volumes stay connected for the next boot.
void Machine::TakeDown() {
  if (!running_) return;
  Note("machine taken down");
  std::vector<Volume*> order = Volumes();
  std::stable_partition(order.begin(), order.end(), [](const Volume* v) { return !v->IsShadowCopy(); });
  for (auto it = order.rbegin(); it != order.rend(); ++it) {
    Volume& v = **it;
    if (v.Device() == nullptr) continue;
    if (!v.started_ || !NT_SUCCESS(Remove(v))) SurpriseRemove(v);
    v.present_ = true;
  }
  worker_->Drain();
  kvhost::WaitForWorkQueuesIdle(std::chrono::seconds(30));
  for (auto it = drivers_.rbegin(); it != drivers_.rend(); ++it) {
    kvhost::IoUnloadDriver(it->second);
    Note("unload " + Narrow(it->first));
  }
  drivers_.clear();
  volumesSafeForWrite_ = nullptr;
  running_ = false;
  for (const auto& v : volumes_) {
    v->poweredOff_ = true;
    v->online_ = false;
  }
}

PDRIVER_OBJECT Machine::LoadedDriver(std::u16string_view service) const {
  for (const auto& [name, driver] : drivers_)
    if (kvhost::EqualNoCase(name, service)) return driver;
  return nullptr;
}

const std::vector<std::u16string>& Machine::FiltersOf(const Volume& volume) const {
  return volume.IsShadowCopy() ? config_.SnapshotUpperFilters : config_.VolumeUpperFilters;
}

bool Machine::Usable(const Volume& volume) const { return running_ && volume.Device() != nullptr; }

NTSTATUS Machine::Note(std::string text, NTSTATUS status) {
  events_.push_back({std::move(text), status});
  return status;
}

// How events name a volume: "C: " or "data: ".
std::string Machine::Who(const Volume& volume) const {
  const std::string& name = volume.Name();
  return name + (!name.empty() && name.back() == ':' ? " " : ": ");
}

std::vector<MachineEvent> Machine::TakeEvents() {
  std::vector<MachineEvent> out;
  out.swap(events_);
  return out;
}

}  // namespace kvtestbed
