// The Plug and Play manager and the mount manager of the machine: volume arrival and
// removal, stop and start, target-device notifications, mount-manager links, online and
// offline, file-system mounts.
#include <ioevent.h>
#include <mountdev.h>
#include <ntddstor.h>
#include <ntddvol.h>
#include <wdmguid.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "kvhost/io.h"
#include "kvhost/object.h"
#include "kvhost/verifier.h"
#include "kvtestbed/file_system.h"
#include "kvtestbed/machine.h"
#include "kvtestbed/names.h"
#include "volume_content.h"
#include "volume_driver.h"

namespace kvtestbed {
namespace {

// A counted string over `text`, which must outlive it.
UNICODE_STRING Counted(const std::u16string& text) {
  UNICODE_STRING s;
  s.Buffer = reinterpret_cast<PWCH>(const_cast<char16_t*>(text.data()));
  s.Length = static_cast<USHORT>(text.size() * sizeof(char16_t));
  s.MaximumLength = s.Length;
  return s;
}

std::string Narrow(std::u16string_view text) { return kvhost::ToUtf8(text); }

std::u16string DriveLetterLink(char16_t letter) { return u"\\??\\" + std::u16string(1, letter) + u":"; }
std::u16string DriveLetterName(char16_t letter) { return u"\\DosDevices\\" + std::u16string(1, letter) + u":"; }

// The input of IOCTL_MOUNTDEV_LINK_CREATED and _DELETED: a MOUNTDEV_NAME.
std::vector<uint8_t> MountDevName(std::u16string_view name) {
  const USHORT bytes = static_cast<USHORT>(name.size() * sizeof(char16_t));
  std::vector<uint8_t> input(FIELD_OFFSET(MOUNTDEV_NAME, Name) + bytes);
  std::memcpy(input.data(), &bytes, sizeof bytes);
  std::memcpy(input.data() + FIELD_OFFSET(MOUNTDEV_NAME, Name), name.data(), bytes);
  return input;
}

}  // namespace

// A volume arrives, in the order Windows brings it up:
//  a. The bus reports it: its volume device \Device\HarddiskVolumeN (or
//     \Device\HarddiskVolumeShadowCopyN) is created, a physical device object with the class
//     GUID of volumes (or of volume snapshots).
//  b. AddDevice of each upper filter of the class, in the order of the class key's list.
//  c. IRP_MN_START_DEVICE to the top of the stack.
//  d. The volume device interface (GUID_DEVINTERFACE_VOLUME) is enabled: its symbolic link
//     exists and the arrival callbacks run.
//  e. The mount manager asks the volume's name (IOCTL_MOUNTDEV_QUERY_DEVICE_NAME), creates
//     \??\Volume{GUID} and tells the volume (IOCTL_MOUNTDEV_LINK_CREATED), then the drive
//     letter \??\X: ("\DosDevices\X:") likewise. A shadow copy gets no links. The system
//     volume (C:) also gets \SystemRoot, to its Windows directory, which the kernel keeps
//     for the boot volume and announces to nobody.
//  f. IOCTL_VOLUME_ONLINE.
//  g. When the machine is already up (not during boot), the file system is mounted.
NTSTATUS Machine::ArriveNow(Volume& volume, bool mountNow) {
  NTSTATUS status = BuildStack(volume);
  if (!NT_SUCCESS(status)) return status;
  status = Note(Who(volume) + "IRP_MN_START_DEVICE", SendPnp(volume, IRP_MN_START_DEVICE));
  if (!NT_SUCCESS(status)) {
    // A device that does not start loses its stack; its volume device stays with the bus.
    Note(Who(volume) + "IRP_MN_REMOVE_DEVICE after the failed start", SendPnp(volume, IRP_MN_REMOVE_DEVICE));
    return status;
  }
  volume.started_ = true;
  UNICODE_STRING link = Counted(volume.InterfaceLink());
  UNICODE_STRING target = Counted(volume.DeviceName());
  IoCreateSymbolicLink(&link, &target);
  volume.interfaceEnabled_ = true;
  kvhost::IoSetDeviceInterfaceState(GUID_DEVINTERFACE_VOLUME, volume.InterfaceLink(), true);
  Note(Who(volume) + "volume interface arrival " + Narrow(volume.InterfaceLink()));
  if (!volume.IsShadowCopy()) CreateMountLinks(volume);
  Online(volume);
  AttachFileSystemOf(volume);
  if (mountNow) Mount(volume);
  return STATUS_SUCCESS;
}

NTSTATUS Machine::BuildStack(Volume& volume) {
  PDRIVER_OBJECT volumeManager = LoadedDriver(kVolumeManager);
  PDEVICE_OBJECT device = nullptr;
  NTSTATUS status = detail::VolumeDriver::CreateDevice(volumeManager, volume, &device);
  Note(Who(volume) + "volume device " + Narrow(volume.DeviceName()), status);
  if (!NT_SUCCESS(status)) return status;
  volume.device_ = device;
  for (const std::u16string& name : FiltersOf(volume)) {
    PDRIVER_OBJECT driver = LoadedDriver(name);
    const std::string what = Who(volume) + "AddDevice " + Narrow(name);
    if (driver == nullptr)
      status = Note(what + " (driver not loaded)", STATUS_DRIVER_UNABLE_TO_LOAD);
    else if (driver->DriverExtension->AddDevice == nullptr)
      status = Note(what + " (the driver has no AddDevice)", STATUS_INVALID_DEVICE_REQUEST);
    else
      status = Note(what, driver->DriverExtension->AddDevice(driver, device));
    // A device left initializing after AddDevice cannot be opened: Driver Verifier flags it.
    for (PDEVICE_OBJECT above = device->AttachedDevice; above != nullptr; above = above->AttachedDevice) {
      if (above->Flags & DO_DEVICE_INITIALIZING) {
        kvhost::ReportViolation("DeviceInitializingAfterAddDevice",
                                "AddDevice of " + Narrow(name) + " left DO_DEVICE_INITIALIZING set on its device above " +
                                    Narrow(volume.DeviceName()));
        above->Flags &= ~DO_DEVICE_INITIALIZING;
      }
    }
    if (!NT_SUCCESS(status)) {
      // The devices already attached are removed; the volume device stays with the bus.
      if (device->AttachedDevice != nullptr)
        Note(Who(volume) + "IRP_MN_REMOVE_DEVICE after the failed AddDevice", SendPnp(volume, IRP_MN_REMOVE_DEVICE));
      return status;
    }
  }
  return STATUS_SUCCESS;
}

NTSTATUS Machine::CreateMountLinks(Volume& volume) {
  IoResult name = SendControl(volume, IOCTL_MOUNTDEV_QUERY_DEVICE_NAME, {}, 256);
  std::u16string reported;
  if (NT_SUCCESS(name.Status) && name.Data.size() >= sizeof(USHORT)) {
    USHORT bytes = 0;
    std::memcpy(&bytes, name.Data.data(), sizeof bytes);
    bytes = std::min<USHORT>(bytes, static_cast<USHORT>(name.Data.size() - sizeof(USHORT)));
    reported.resize(bytes / sizeof(char16_t));
    std::memcpy(reported.data(), name.Data.data() + sizeof(USHORT), reported.size() * sizeof(char16_t));
  }
  Note(Who(volume) + "mount manager: IOCTL_MOUNTDEV_QUERY_DEVICE_NAME " + Narrow(reported), name.Status);
  NTSTATUS status = CreateLink(volume, volume.VolumeGuidName(), volume.VolumeGuidName());
  const char16_t letter = volume.Config().DriveLetter;
  if (letter != 0) status = CreateLink(volume, DriveLetterLink(letter), DriveLetterName(letter));
  if (letter == u'C') CreateSystemRoot(volume);
  return status;
}

// \SystemRoot leads to the Windows directory of the system volume; it goes with the volume's
// other links.
void Machine::CreateSystemRoot(Volume& volume) {
  const std::u16string link(kSystemRootLink);
  const std::u16string windows = volume.DeviceName() + u"\\Windows";
  UNICODE_STRING linkName = Counted(link);
  UNICODE_STRING target = Counted(windows);
  const NTSTATUS status = IoCreateSymbolicLink(&linkName, &target);
  if (NT_SUCCESS(status)) volume.links_.push_back(link);
  Note(Who(volume) + Narrow(link) + " -> " + Narrow(windows), status);
}

// Creates the symbolic link `link` to the volume and announces it to the volume's stack as
// `announced`.
NTSTATUS Machine::CreateLink(Volume& volume, const std::u16string& link, const std::u16string& announced) {
  UNICODE_STRING linkName = Counted(link);
  UNICODE_STRING target = Counted(volume.DeviceName());
  NTSTATUS status = IoCreateSymbolicLink(&linkName, &target);
  if (!NT_SUCCESS(status)) return Note(Who(volume) + "mount manager: link " + Narrow(link), status);
  volume.links_.push_back(link);
  return SendLinkCreated(volume, announced);
}

void Machine::DeleteLinks(Volume& volume) {
  for (const std::u16string& link : volume.links_) {
    UNICODE_STRING name = Counted(link);
    IoDeleteSymbolicLink(&name);
  }
  volume.links_.clear();
}

NTSTATUS Machine::SendLinkCreated(Volume& volume, std::u16string_view name) {
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  return Note(Who(volume) + "IOCTL_MOUNTDEV_LINK_CREATED " + Narrow(name),
              SendControl(volume, IOCTL_MOUNTDEV_LINK_CREATED, MountDevName(name), 0).Status);
}

NTSTATUS Machine::SendLinkDeleted(Volume& volume, std::u16string_view name) {
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  return Note(Who(volume) + "IOCTL_MOUNTDEV_LINK_DELETED " + Narrow(name),
              SendControl(volume, IOCTL_MOUNTDEV_LINK_DELETED, MountDevName(name), 0).Status);
}

NTSTATUS Machine::AssignDriveLetter(Volume& volume, char16_t letter) {
  if (letter < u'A' || letter > u'Z') return STATUS_INVALID_PARAMETER;
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  if (PVOID taken = kvhost::ObLookupObjectByName(DriveLetterLink(letter))) {
    ObDereferenceObject(taken);
    return Note(Who(volume) + "drive letter " + Narrow(DriveLetterName(letter)) + " is taken",
                STATUS_OBJECT_NAME_COLLISION);
  }
  if (volume.Config().DriveLetter != 0) RemoveDriveLetter(volume);
  const NTSTATUS status = CreateLink(volume, DriveLetterLink(letter), DriveLetterName(letter));
  if (NT_SUCCESS(status)) {
    std::lock_guard<std::mutex> guard(volume.lock_);
    volume.config_.DriveLetter = letter;
  }
  return status;
}

NTSTATUS Machine::RemoveDriveLetter(Volume& volume) {
  const char16_t letter = volume.Config().DriveLetter;
  if (letter == 0) return STATUS_NOT_FOUND;
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  const std::u16string link = DriveLetterLink(letter);
  UNICODE_STRING name = Counted(link);
  IoDeleteSymbolicLink(&name);
  std::erase(volume.links_, link);
  {
    std::lock_guard<std::mutex> guard(volume.lock_);
    volume.config_.DriveLetter = 0;
  }
  return SendLinkDeleted(volume, DriveLetterName(letter));
}

NTSTATUS Machine::Online(Volume& volume) {
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  return Note(Who(volume) + "IOCTL_VOLUME_ONLINE", SendControl(volume, IOCTL_VOLUME_ONLINE, {}, 0).Status);
}

NTSTATUS Machine::Offline(Volume& volume) {
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  return Note(Who(volume) + "IOCTL_VOLUME_OFFLINE", SendControl(volume, IOCTL_VOLUME_OFFLINE, {}, 0).Status);
}

NTSTATUS Machine::QueryRemove(Volume& volume) {
  if (!Usable(volume) || !volume.started_) return STATUS_NO_SUCH_DEVICE;
  if (volume.removePending_) return STATUS_SUCCESS;
  NTSTATUS status = Notify(volume, GUID_TARGET_DEVICE_QUERY_REMOVE);
  if (!NT_SUCCESS(status)) {
    Notify(volume, GUID_TARGET_DEVICE_REMOVE_CANCELLED);
    return status;
  }
  status = Note(Who(volume) + "IRP_MN_QUERY_REMOVE_DEVICE", SendPnp(volume, IRP_MN_QUERY_REMOVE_DEVICE));
  if (!NT_SUCCESS(status)) {
    Note(Who(volume) + "IRP_MN_CANCEL_REMOVE_DEVICE", SendPnp(volume, IRP_MN_CANCEL_REMOVE_DEVICE));
    Notify(volume, GUID_TARGET_DEVICE_REMOVE_CANCELLED);
    return status;
  }
  volume.removePending_ = true;
  return STATUS_SUCCESS;
}

NTSTATUS Machine::CancelRemove(Volume& volume) {
  if (!Usable(volume) || !volume.removePending_) return STATUS_INVALID_DEVICE_STATE;
  const NTSTATUS status =
      Note(Who(volume) + "IRP_MN_CANCEL_REMOVE_DEVICE", SendPnp(volume, IRP_MN_CANCEL_REMOVE_DEVICE));
  volume.removePending_ = false;
  Notify(volume, GUID_TARGET_DEVICE_REMOVE_CANCELLED);
  return status;
}

// The volume leaves the system's view: its interface and its mount-manager links go.
void Machine::Depart(Volume& volume) {
  if (volume.interfaceEnabled_) {
    volume.interfaceEnabled_ = false;
    kvhost::IoSetDeviceInterfaceState(GUID_DEVINTERFACE_VOLUME, volume.InterfaceLink(), false);
    UNICODE_STRING link = Counted(volume.InterfaceLink());
    IoDeleteSymbolicLink(&link);
    Note(Who(volume) + "volume interface removal");
  }
  DeleteLinks(volume);
}

NTSTATUS Machine::Remove(Volume& volume) {
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  if (volume.started_) {
    const NTSTATUS status = QueryRemove(volume);
    if (!NT_SUCCESS(status)) return status;
  }
  RemoveStack(volume, false);
  return STATUS_SUCCESS;
}

NTSTATUS Machine::SurpriseRemove(Volume& volume) {
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  RemoveStack(volume, true);
  return STATUS_SUCCESS;
}

// Takes the volume's stack away. An orderly removal: the interface goes, IRP_MN_REMOVE_DEVICE,
// then GUID_TARGET_DEVICE_REMOVE_COMPLETE. A surprise removal: IRP_MN_SURPRISE_REMOVAL, the
// interface goes, GUID_TARGET_DEVICE_REMOVE_COMPLETE (so that the watchers let go), then
// IRP_MN_REMOVE_DEVICE. Then the volume manager deletes the volume device, gone from its bus:
// the volume is absent.
void Machine::RemoveStack(Volume& volume, bool surprise) {
  PDEVICE_OBJECT device = volume.Device();
  auto removeComplete = [&] {
    Note(Who(volume) + "GUID_TARGET_DEVICE_REMOVE_COMPLETE",
         kvhost::IoRaiseTargetDeviceEvent(device, GUID_TARGET_DEVICE_REMOVE_COMPLETE));
  };
  if (surprise) {
    Note(Who(volume) + "IRP_MN_SURPRISE_REMOVAL", SendPnp(volume, IRP_MN_SURPRISE_REMOVAL));
    Depart(volume);
    removeComplete();
  } else {
    Depart(volume);
  }
  volume.online_ = false;
  Note(Who(volume) + "IRP_MN_REMOVE_DEVICE", SendPnp(volume, IRP_MN_REMOVE_DEVICE));
  if (!surprise) removeComplete();
  volume.device_ = nullptr;
  volume.started_ = false;
  volume.removePending_ = false;
  volume.present_ = false;
  IoDeleteDevice(device);
}

NTSTATUS Machine::Stop(Volume& volume) {
  if (!Usable(volume) || !volume.started_) return STATUS_INVALID_DEVICE_STATE;
  NTSTATUS status = Note(Who(volume) + "IRP_MN_QUERY_STOP_DEVICE", SendPnp(volume, IRP_MN_QUERY_STOP_DEVICE));
  if (!NT_SUCCESS(status)) {
    Note(Who(volume) + "IRP_MN_CANCEL_STOP_DEVICE", SendPnp(volume, IRP_MN_CANCEL_STOP_DEVICE));
    return status;
  }
  volume.started_ = false;
  return Note(Who(volume) + "IRP_MN_STOP_DEVICE", SendPnp(volume, IRP_MN_STOP_DEVICE));
}

NTSTATUS Machine::Start(Volume& volume) {
  if (!Usable(volume) || volume.started_) return STATUS_INVALID_DEVICE_STATE;
  const NTSTATUS status = Note(Who(volume) + "IRP_MN_START_DEVICE", SendPnp(volume, IRP_MN_START_DEVICE));
  volume.started_ = NT_SUCCESS(status);
  return status;
}

NTSTATUS Machine::Arrive(Volume& volume) {
  if (volume.present_) return STATUS_INVALID_DEVICE_STATE;
  volume.present_ = true;
  return running_ ? ArriveNow(volume, true) : STATUS_SUCCESS;
}

NTSTATUS Machine::Resize(Volume& volume, uint64_t bytes) {
  const uint32_t sector = volume.Config().SectorSize;
  if (volume.IsShadowCopy() || bytes == 0 || bytes % sector != 0) return STATUS_INVALID_PARAMETER;
  if (!volume.content_->Resize(bytes)) return STATUS_DISK_FULL;
  {
    std::lock_guard<std::mutex> guard(volume.lock_);
    volume.config_.SizeBytes = bytes;
  }
  Note(Who(volume) + "resized to " + std::to_string(bytes) + " bytes");
  return Usable(volume) && volume.started_ ? Notify(volume, GUID_IO_VOLUME_CHANGE_SIZE) : STATUS_SUCCESS;
}

NTSTATUS Machine::Notify(Volume& volume, const GUID& event, std::span<const uint8_t> customData) {
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  return Note(Who(volume) + EventName(event),
              kvhost::IoRaiseTargetDeviceEvent(volume.Device(), event, customData.data(), customData.size()));
}

// The volume's file system (Volume::AttachFileSystem) is given to the volume when its stack
// has started; it mounts at the first open of a path on the volume or here.
void Machine::AttachFileSystemOf(Volume& volume) {
  if (volume.fileSystem_ == nullptr || FileSystemOf(volume.Device()) != nullptr) return;
  Note(Who(volume) + "file system attached", AttachFileSystem(volume.Device(), volume.fileSystem_));
}

// The machine announces the mount itself (not the file system from its worker thread), so
// that GUID_IO_VOLUME_MOUNT keeps its place in the boot order. A volume no file system
// recognises is mounted by RAW on Windows, which announces it too.
NTSTATUS Machine::Mount(Volume& volume) {
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  if (FileSystemOf(volume.Device()) != nullptr)
    Note(Who(volume) + "file system mount", MountVolume(volume.Device(), MountAnnouncement::ByCaller));
  return Notify(volume, GUID_IO_VOLUME_MOUNT);
}

// A mounted file system is dismounted as a program does it: FSCTL_DISMOUNT_VOLUME on an open
// of the volume; the file system raises GUID_IO_VOLUME_DISMOUNT (or _DISMOUNT_FAILED) itself.
// Without one, only the notification is raised.
NTSTATUS Machine::Dismount(Volume& volume) {
  if (!Usable(volume)) return STATUS_NO_SUCH_DEVICE;
  if (!IsVolumeMounted(volume.Device())) return Notify(volume, GUID_IO_VOLUME_DISMOUNT);
  const std::u16string name = volume.DeviceName();
  UNICODE_STRING counted = Counted(name);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &counted, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, nullptr);
  IO_STATUS_BLOCK iosb{};
  HANDLE handle = nullptr;
  NTSTATUS status = ZwCreateFile(&handle, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &iosb, nullptr, 0,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
  if (NT_SUCCESS(status)) {
    status = ZwFsControlFile(handle, nullptr, nullptr, nullptr, &iosb, FSCTL_DISMOUNT_VOLUME, nullptr, 0, nullptr, 0);
    ZwClose(handle);
  }
  return Note(Who(volume) + "FSCTL_DISMOUNT_VOLUME", status);
}

}  // namespace kvtestbed
