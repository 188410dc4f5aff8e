// The machine's file-system driver: attaching file systems to volumes, mounting them when
// the I/O manager asks (IRP_MN_MOUNT_VOLUME to the registered control device), dismounting,
// and the driver's own life. The driver ("\Driver\MachineFs") is loaded when the first
// volume gets a file system and unloaded when no volume and no mount is left.
#include <ioevent.h>

#include <wdmguid.h>

#include <cstring>

#include "file_system_internal.h"
#include "kvhost/file_systems.h"
#include "kvhost/io.h"
#include "kvhost/object.h"
#include "kvhost/strings.h"
#include "kvhost/verifier.h"

namespace kvtestbed::fs {
namespace {

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

// The work item keeps the mount's device object; the volume device is raised on only while
// that mount is still on it, so a volume taken away meanwhile is not held or told.
void AnnounceMountNow(PVOID volumeDevice, PVOID context, PIO_WORKITEM item) {
  auto* realDevice = static_cast<PDEVICE_OBJECT>(context);
  bool stillMounted = false;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    auto it = State().Volumes.find(realDevice);
    stillMounted = it != State().Volumes.end() && it->second.Mounted != nullptr &&
                   it->second.Mounted->VolumeDevice == volumeDevice;
    if (stillMounted) ObReferenceObject(realDevice);
  }
  IoFreeWorkItem(item);
  if (!stillMounted) return;
  NotifyVolumeEvent(realDevice, GUID_IO_VOLUME_MOUNT);
  ObDereferenceObject(realDevice);
}

// A mount is announced from a system worker thread, as Windows reports it asynchronously:
// the open that caused the mount may hold what the handlers of the announcement need.
void AnnounceMount(PDEVICE_OBJECT volumeDevice, PDEVICE_OBJECT realDevice) {
  PIO_WORKITEM item = IoAllocateWorkItem(volumeDevice);
  if (item == nullptr) {
    NotifyVolumeEvent(realDevice, GUID_IO_VOLUME_MOUNT);  // no room to defer it
    return;
  }
  IoQueueWorkItemEx(item, AnnounceMountNow, DelayedWorkQueue, realDevice);
}

// IRP_MN_MOUNT_VOLUME: the volume is mounted when the machine gave it a file system and that
// file system recognises what the volume holds.
NTSTATUS MountRequest(PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  PVPB vpb = sp->Parameters.MountVolume.Vpb;
  PDEVICE_OBJECT realDevice = vpb->RealDevice;
  PDEVICE_OBJECT storageTop = sp->Parameters.MountVolume.DeviceObject;
  std::shared_ptr<FileSystem> files;
  PDRIVER_OBJECT driver = nullptr;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    auto it = State().Volumes.find(realDevice);
    if (it == State().Volumes.end() || it->second.Mounted != nullptr) return Complete(irp, STATUS_UNRECOGNIZED_VOLUME);
    files = it->second.Files;
    driver = State().Driver;
  }
  PDEVICE_OBJECT volumeDevice = nullptr;
  NTSTATUS status =
      IoCreateDevice(driver, sizeof(Mount*), nullptr, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &volumeDevice);
  if (!NT_SUCCESS(status)) return Complete(irp, status);
  auto io = std::make_unique<StackVolumeIo>(storageTop);
  status = files->Mount(*io);
  if (!NT_SUCCESS(status)) {
    io.reset();
    IoDeleteDevice(volumeDevice);
    return Complete(irp, status);
  }
  auto* mount = new Mount;
  mount->VolumeDevice = volumeDevice;
  mount->RealDevice = realDevice;
  mount->Files = files;
  mount->Io = std::move(io);
  *static_cast<Mount**>(volumeDevice->DeviceExtension) = mount;
  // Requests on volume opens that are not the file system's (device control) go on down.
  volumeDevice->StackSize = static_cast<CCHAR>(storageTop->StackSize + 1);
  volumeDevice->SectorSize = storageTop->SectorSize;
  volumeDevice->AlignmentRequirement = storageTop->AlignmentRequirement;
  volumeDevice->Flags &= ~DO_DEVICE_INITIALIZING;

  const VolumeInfo volume = files->QueryVolume();
  vpb->SerialNumber = volume.SerialNumber;
  const size_t labelChars = std::min<size_t>(volume.Label.size(), MAXIMUM_VOLUME_LABEL_LENGTH / sizeof(WCHAR));
  std::memcpy(vpb->VolumeLabel, volume.Label.data(), labelChars * sizeof(WCHAR));
  vpb->VolumeLabelLength = static_cast<USHORT>(labelChars * sizeof(WCHAR));
  vpb->DeviceObject = volumeDevice;
  vpb->Flags |= VPB_MOUNTED;
  bool announce = true;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    AttachedVolume& volume = State().Volumes[realDevice];
    volume.Mounted = mount;
    announce = !volume.MountAnnouncedByCaller;
    volume.MountAnnouncedByCaller = false;
    State().Mounts.insert(mount);
  }
  Complete(irp, STATUS_SUCCESS);
  if (announce) AnnounceMount(volumeDevice, realDevice);
  return STATUS_SUCCESS;
}

NTSTATUS DispatchControlDevice(PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  switch (sp->MajorFunction) {
    case IRP_MJ_FILE_SYSTEM_CONTROL:
      if (sp->MinorFunction == IRP_MN_MOUNT_VOLUME) return MountRequest(irp);
      return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
    case IRP_MJ_CREATE:
    case IRP_MJ_CLEANUP:
    case IRP_MJ_CLOSE:
      return Complete(irp, STATUS_SUCCESS);
    default:
      return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
  }
}

NTSTATUS DispatchAny(PDEVICE_OBJECT device, PIRP irp) {
  PDEVICE_OBJECT control = nullptr;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    control = State().Control;
  }
  return device == control ? DispatchControlDevice(irp) : DispatchVolumeRequest(device, irp);
}

void MachineFsUnload(PDRIVER_OBJECT driver) {
  UNREFERENCED_PARAMETER(driver);
  PDEVICE_OBJECT control = nullptr;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    control = State().Control;
    State().Control = nullptr;
  }
  if (control == nullptr) return;
  IoUnregisterFileSystem(control);
  IoDeleteDevice(control);
}

NTSTATUS MachineFsEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
  UNREFERENCED_PARAMETER(registryPath);
  for (UCHAR major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_READ, IRP_MJ_WRITE,
                      IRP_MJ_QUERY_INFORMATION, IRP_MJ_SET_INFORMATION, IRP_MJ_QUERY_VOLUME_INFORMATION,
                      IRP_MJ_FILE_SYSTEM_CONTROL, IRP_MJ_DEVICE_CONTROL, IRP_MJ_QUERY_SECURITY,
                      IRP_MJ_SET_SECURITY, IRP_MJ_FLUSH_BUFFERS})
    driver->MajorFunction[major] = DispatchAny;
  driver->DriverUnload = MachineFsUnload;
  PDEVICE_OBJECT control = nullptr;
  NTSTATUS status = IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &control);
  if (!NT_SUCCESS(status)) return status;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    State().Control = control;
  }
  IoRegisterFileSystem(control);
  return STATUS_SUCCESS;
}

// The handle a file system keeps on the volume it watches (a direct device open, which does
// not mount); null for a volume device without a name.
PFILE_OBJECT OpenWatch(PDEVICE_OBJECT device) {
  kvhost::WString name = kvhost::ObGetObjectName(device);
  if (name.empty()) return nullptr;
  UNICODE_STRING counted;
  counted.Buffer = reinterpret_cast<PWCH>(name.data());
  counted.Length = counted.MaximumLength = static_cast<USHORT>(name.size() * sizeof(WCHAR));
  PFILE_OBJECT watch = nullptr;
  PDEVICE_OBJECT top = nullptr;
  return NT_SUCCESS(IoGetDeviceObjectPointer(&counted, FILE_READ_ATTRIBUTES, &watch, &top)) ? watch : nullptr;
}

// Query-remove, as Windows' file systems answer it: vetoed with STATUS_ACCESS_DENIED while a
// file is open on the volume; otherwise the volume is dismounted and the watching handle
// closed, so that nothing of the file system holds the stack. The attachment and the
// registration stay for the outcome.
NTSTATUS PrepareForRemoval(PDEVICE_OBJECT device) {
  Mount* mount = nullptr;
  std::shared_ptr<FileSystem> files;
  PFILE_OBJECT watch = nullptr;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    auto it = State().Volumes.find(device);
    if (it == State().Volumes.end()) return STATUS_SUCCESS;
    AttachedVolume& volume = it->second;
    if (volume.Mounted != nullptr) {
      for (PFILE_OBJECT file : volume.Mounted->FileObjects)
        if (!static_cast<Open*>(file->FsContext2)->CleanedUp) return STATUS_ACCESS_DENIED;
      mount = volume.Mounted;
      DetachMountLocked(mount);
    }
    files = volume.Files;
    watch = volume.Watch;
    volume.Watch = nullptr;
  }
  if (mount != nullptr) {
    files->Dismount();
    ReleaseMountIfDone(mount);
  }
  if (watch != nullptr) ObDereferenceObject(watch);
  return STATUS_SUCCESS;
}

// The removal was called off: the volume is watched again; the next open mounts it.
void ResumeAfterCancelledRemoval(PDEVICE_OBJECT device) {
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    auto it = State().Volumes.find(device);
    if (it == State().Volumes.end() || it->second.Watch != nullptr) return;
  }
  PFILE_OBJECT watch = OpenWatch(device);
  if (watch == nullptr) return;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    auto it = State().Volumes.find(device);
    if (it != State().Volumes.end() && it->second.Watch == nullptr) {
      it->second.Watch = watch;
      return;
    }
  }
  ObDereferenceObject(watch);
}

// The volume's removal as its file system sees it. A surprise removal comes as
// remove-complete alone: open files then fail from the dismount on, they are not waited for.
NTSTATUS VolumeRemovalCallback(PVOID notification, PVOID context) {
  auto* device = static_cast<PDEVICE_OBJECT>(context);
  const GUID& event = static_cast<PPLUGPLAY_NOTIFICATION_HEADER>(notification)->Event;
  if (IsEqualGUID(event, GUID_TARGET_DEVICE_QUERY_REMOVE)) return PrepareForRemoval(device);
  if (IsEqualGUID(event, GUID_TARGET_DEVICE_REMOVE_CANCELLED)) ResumeAfterCancelledRemoval(device);
  if (IsEqualGUID(event, GUID_TARGET_DEVICE_REMOVE_COMPLETE)) DetachFileSystem(device);
  return STATUS_SUCCESS;
}

// Watches the volume's removal as Windows' file systems do: a target-device registration on
// a file object of the volume device. A volume device without a name is not watched.
void WatchVolume(PDEVICE_OBJECT device, PDRIVER_OBJECT driver, PFILE_OBJECT* watch, PVOID* registration) {
  *watch = OpenWatch(device);
  if (*watch == nullptr) return;
  if (!NT_SUCCESS(IoRegisterPlugPlayNotification(EventCategoryTargetDeviceChange, 0, *watch, driver,
                                                 VolumeRemovalCallback, device, registration))) {
    ObDereferenceObject(*watch);
    *watch = nullptr;
  }
}

std::mutex& LoadLock() {
  static std::mutex* lock = new std::mutex;
  return *lock;
}

NTSTATUS EnsureDriverLoaded() {
  std::lock_guard<std::mutex> load(LoadLock());
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (State().Driver != nullptr) return STATUS_SUCCESS;
  }
  kvhost::LoadedDriver loaded = kvhost::IoLoadDriver(u"MachineFs", MachineFsEntry);
  if (loaded.DriverObject == nullptr) return loaded.EntryStatus;
  std::lock_guard<std::mutex> guard(State().Lock);
  State().Driver = loaded.DriverObject;
  return STATUS_SUCCESS;
}

void UnloadDriverIfIdle() {
  std::lock_guard<std::mutex> load(LoadLock());
  PDRIVER_OBJECT driver = nullptr;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (!State().Volumes.empty() || !State().Mounts.empty()) return;
    driver = State().Driver;
    State().Driver = nullptr;
  }
  if (driver != nullptr) kvhost::IoUnloadDriver(driver);
}

// Forgets everything without calling anyone: the kernel objects are freed by whoever ends
// the machine (or the test).
void ForgetEverything() {
  std::vector<Mount*> mounts;
  std::vector<std::shared_ptr<FileSystem>> files;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    mounts.assign(State().Mounts.begin(), State().Mounts.end());
    for (auto& [device, volume] : State().Volumes) files.push_back(volume.Files);
    State().Mounts.clear();
    State().Volumes.clear();
    State().Driver = nullptr;
    State().Control = nullptr;
  }
  for (Mount* mount : mounts) {
    if (mount->Io != nullptr) mount->Io->Abandon();
    files.push_back(mount->Files);
    delete mount;
  }
  for (auto& fileSystem : files) fileSystem->Abandon();
}

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "testbed: file systems",
      .Order = 80,
      .Reset = [] { ForgetEverything(); },
      .Quiesce = nullptr,
      .Check =
          [](std::vector<std::string>& problems) {
            {
              std::lock_guard<std::mutex> guard(State().Lock);
              for (const auto& [device, volume] : State().Volumes)
                problems.push_back("[FileSystemLeftAttached] volume " + kvhost::ToUtf8(kvhost::ObGetObjectName(device)) +
                                   " still has a file system (DetachFileSystem missing)");
              for (Mount* mount : State().Mounts)
                if (State().Volumes.count(mount->RealDevice) == 0)
                  problems.push_back("[FileSystemMountLeft] a dismounted volume still has " +
                                     std::to_string(mount->FileObjects.size()) + " file object(s) open");
            }
            ForgetEverything();
          },
  });
  return true;
}();

}  // namespace

DriverState& State() {
  static DriverState* state = new DriverState;
  return *state;
}

void NotifyVolumeEvent(PDEVICE_OBJECT realDevice, const GUID& event) {
  kvhost::IoRaiseTargetDeviceEvent(realDevice, event);
}

NTSTATUS TakeRefusalLocked(AttachedVolume& volume, const std::u16string& path) {
  const std::u16string folded = kvhost::UpcaseText(path);
  for (auto it = volume.Refusals.begin(); it != volume.Refusals.end(); ++it) {
    if (!it->Path.empty() && it->Path != folded) continue;
    const NTSTATUS status = it->Status;
    if (it->Remaining > 0 && --it->Remaining == 0) volume.Refusals.erase(it);
    return status;
  }
  return STATUS_SUCCESS;
}

void DetachMountLocked(Mount* mount) {
  if (mount->Dismounted) return;
  mount->Dismounted = true;
  PVPB vpb = mount->RealDevice->Vpb;
  mount->DismountedVpb = *vpb;
  mount->DismountedVpb.DeviceObject = mount->VolumeDevice;
  for (PFILE_OBJECT file : mount->FileObjects) file->Vpb = &mount->DismountedVpb;
  vpb->DeviceObject = nullptr;
  vpb->Flags &= ~(VPB_MOUNTED | VPB_LOCKED);
  vpb->VolumeLabelLength = 0;
  auto it = State().Volumes.find(mount->RealDevice);
  if (it != State().Volumes.end() && it->second.Mounted == mount) it->second.Mounted = nullptr;
}

void ReleaseMountIfDone(Mount* mount) {
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (!mount->Dismounted || !mount->FileObjects.empty() || State().Mounts.erase(mount) == 0) return;
  }
  mount->Io.reset();
  IoDeleteDevice(mount->VolumeDevice);
  delete mount;
  UnloadDriverIfIdle();
}

}  // namespace kvtestbed::fs

namespace kvtestbed {

using fs::State;

NTSTATUS AttachFileSystem(PDEVICE_OBJECT volume, std::shared_ptr<FileSystem> fileSystem) {
  if (volume == nullptr || fileSystem == nullptr) return STATUS_INVALID_PARAMETER;
  if (volume->Vpb == nullptr) return STATUS_INVALID_DEVICE_REQUEST;  // not a device that carries a volume
  NTSTATUS status = fs::EnsureDriverLoaded();
  if (!NT_SUCCESS(status)) return status;
  PDRIVER_OBJECT driver = nullptr;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (State().Volumes.count(volume) != 0) return STATUS_OBJECT_NAME_COLLISION;
    State().Volumes[volume].Files = std::move(fileSystem);
    driver = State().Driver;
  }
  // Held until DetachFileSystem: the volume device must not go while a file system uses it.
  ObReferenceObject(volume);
  PFILE_OBJECT watch = nullptr;
  PVOID registration = nullptr;
  fs::WatchVolume(volume, driver, &watch, &registration);
  std::lock_guard<std::mutex> guard(State().Lock);
  State().Volumes[volume].Watch = watch;
  State().Volumes[volume].Registration = registration;
  return STATUS_SUCCESS;
}

NTSTATUS MountVolume(PDEVICE_OBJECT volume, MountAnnouncement announcement) {
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    auto it = State().Volumes.find(volume);
    if (it != State().Volumes.end()) it->second.MountAnnouncedByCaller = announcement == MountAnnouncement::ByCaller;
  }
  NTSTATUS status = kvhost::IoMountVolume(volume);
  std::lock_guard<std::mutex> guard(State().Lock);
  auto it = State().Volumes.find(volume);
  if (it != State().Volumes.end()) it->second.MountAnnouncedByCaller = false;
  return status;
}

void DetachFileSystem(PDEVICE_OBJECT volume) {
  fs::Mount* mount = nullptr;
  std::shared_ptr<FileSystem> files;
  PFILE_OBJECT watch = nullptr;
  PVOID registration = nullptr;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    auto it = State().Volumes.find(volume);
    if (it == State().Volumes.end()) return;
    mount = it->second.Mounted;
    if (mount != nullptr) fs::DetachMountLocked(mount);
    files = it->second.Files;
    watch = it->second.Watch;
    registration = it->second.Registration;
    State().Volumes.erase(it);
  }
  if (mount != nullptr) files->Dismount();
  if (registration != nullptr) IoUnregisterPlugPlayNotification(registration);
  if (watch != nullptr) ObDereferenceObject(watch);
  ObDereferenceObject(volume);
  if (mount != nullptr) fs::ReleaseMountIfDone(mount);
  fs::UnloadDriverIfIdle();
}

void ForgetFileSystems() {
  fs::ForgetEverything();
  kvhost::IoForgetFileSystems();
}

std::shared_ptr<FileSystem> FileSystemOf(PDEVICE_OBJECT volume) {
  std::lock_guard<std::mutex> guard(State().Lock);
  auto it = State().Volumes.find(volume);
  return it == State().Volumes.end() ? nullptr : it->second.Files;
}

bool IsVolumeMounted(PDEVICE_OBJECT volume) {
  std::lock_guard<std::mutex> guard(State().Lock);
  auto it = State().Volumes.find(volume);
  return it != State().Volumes.end() && it->second.Mounted != nullptr;
}

void RefuseOpens(PDEVICE_OBJECT volume, std::u16string path, NTSTATUS status, int count) {
  std::lock_guard<std::mutex> guard(State().Lock);
  auto it = State().Volumes.find(volume);
  if (it == State().Volumes.end() || count == 0) return;
  it->second.Refusals.push_back({kvhost::UpcaseText(path), status, count});
}

void ClearRefusals(PDEVICE_OBJECT volume) {
  std::lock_guard<std::mutex> guard(State().Lock);
  auto it = State().Volumes.find(volume);
  if (it != State().Volumes.end()) it->second.Refusals.clear();
}

}  // namespace kvtestbed
