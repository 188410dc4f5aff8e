// The simulated machine: the Windows around a volume filter driver.
//
// A Machine plays the volume manager (the volume devices at the bottom of each stack), the
// Plug and Play manager (AddDevice of the class filters, start, removal, target-device
// notifications), the mount manager (drive letters, volume GUID names, online), the power
// manager (shutdown) and the boot loader (boot drivers, reinitialization, the all-clear for
// writes), on top of the user-mode kernel. Tests and kvcbt-sim build one, boot it, send
// requests to the top of its volume stacks, and look at its disks.
//
//   kvtestbed::Machine machine;                        // filter: the test filter "passthrough"
//   kvtestbed::Volume& c = machine.AddVolume({.Name = "C:", .DriveLetter = u'C'});
//   machine.Boot();
//   machine.Write(c, 0, data);
//   machine.Crash();                                   // memory gone, disks kept
//   machine.Boot();                                    // a fresh driver instance
//
// Configuration lives in the registry, which outlives power cycles: the machine writes its
// services (with their settings) and the volume classes' filter lists when it is built; tests
// may change them between boots. Driver entry points come from ServiceConfig or from the
// registered driver images (kvtestbed/driver_images.h).
//
// A volume may carry a file system (Volume::AttachFileSystem, kvtestbed/file_system.h; for
// example the model file system, formatted through Volume::DirectIo): the machine gives it
// to the volume when the volume's stack has started, mounts it at boot and announces the
// mount itself, flushes it at a clean shutdown, and the file system watches the volume's
// removal. Its reads and writes pass the volume's filters.
//
// A shadow-copy provider is a driver of its own: list it in the volume class's upper filters
// below the tracking driver (VolumeUpperFilters = {u"provider", u"kvcbt"}) so that it sits
// below the filter and sees the requests sent down the stack (flush-and-hold and the like),
// and let it call AddShadowCopy when it commits a shadow copy.
//
// A Machine is used from one thread at a time, at PASSIVE_LEVEL; that thread is the Plug and
// Play manager's worker: AddDevice, Plug and Play requests and notifications run in it.
#pragma once

#include <devguid.h>
#include <wdm.h>

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kvhost/version.h"
#include "kvtestbed/volume.h"

namespace kvtestbed {

namespace detail {
class CompletionWorker;
}

// A value of a service key.
struct RegistrySetting {
  std::u16string Name;
  ULONG Type = REG_DWORD;
  std::vector<uint8_t> Data;

  static RegistrySetting Dword(std::u16string name, ULONG value);
  static RegistrySetting String(std::u16string name, std::u16string_view text);
};

struct ServiceConfig {
  std::u16string Name;                 // "\Driver\<Name>", service key Services\<Name>
  PDRIVER_INITIALIZE Entry = nullptr;  // null: the driver image registered under Name
  std::vector<RegistrySetting> Settings;
};

struct MachineConfig {
  kvhost::WindowsVersion Version;
  // The class keys' filter lists (bottom of the stack first). Each name is a service: one of
  // Services, or a registered driver image. Every listed driver must load, or the volumes of
  // that class do not start, as on Windows.
  std::vector<std::u16string> VolumeUpperFilters = {u"passthrough"};
  std::vector<std::u16string> SnapshotUpperFilters = {u"passthrough"};
  std::vector<ServiceConfig> Services;
  // Whether \Device\VolumesSafeForWriteAccess is signalled at the end of each boot (autochk
  // found nothing to do); otherwise SignalVolumesSafeForWrite does it.
  bool VolumesSafeForWriteAtBoot = true;
};

// One thing the machine did, with its outcome: "HarddiskVolume1: IRP_MN_START_DEVICE".
struct MachineEvent {
  std::string Text;
  NTSTATUS Status = STATUS_SUCCESS;
};

// How a request sent to the top of a stack went; Data holds what a read or a control code
// returned (Information bytes).
struct IoResult {
  NTSTATUS Status = STATUS_UNSUCCESSFUL;
  ULONG_PTR Information = 0;
  std::vector<uint8_t> Data;
};

class Machine;

class Machine {
 public:
  explicit Machine(MachineConfig config = {});
  // A running machine is taken down (TakeDown) first.
  ~Machine();
  Machine(const Machine&) = delete;
  Machine& operator=(const Machine&) = delete;

  // ----- Volumes.
  // Adds a volume (a disk is connected); it arrives at once when the machine runs. A bad
  // configuration (size, sector size, image) gives null with `error` set.
  Volume* AddVolume(VolumeConfig config, std::string* error = nullptr);
  // A shadow copy of `original` as it is now: \Device\HarddiskVolumeShadowCopyN, of the
  // volume-snapshot class and type FILE_DEVICE_VIRTUAL_DISK, write-protected, arriving at once
  // when the machine runs. Null when `original` is itself a shadow copy.
  Volume* AddShadowCopy(Volume& original, std::string name = {});
  Volume* FindVolume(std::string_view name) const;
  std::vector<Volume*> Volumes() const;

  // ----- Power and boot.
  // Powers on and boots (the order is described in machine.cpp); fails only when already
  // running. What each step gave is in the machine's events.
  NTSTATUS Boot();
  // Signals \Device\VolumesSafeForWriteAccess.
  void SignalVolumesSafeForWrite();
  // Shuts down cleanly, then powers off.
  void Shutdown();
  // Loses power: every memory state is gone, disks keep exactly what reached them.
  void Crash();
  // Takes a running machine down the way Windows takes devices away: every volume stack goes
  // through Plug and Play removal, then the drivers are unloaded, so that the end-of-test
  // checks see what a driver failed to release. The machine is then off; it can boot again.
  void TakeDown();
  bool Running() const { return running_; }
  unsigned BootCount() const { return boots_; }
  // The Windows release reported from the next boot on.
  void SetWindowsVersion(const kvhost::WindowsVersion& version) { config_.Version = version; }
  const MachineConfig& Config() const { return config_; }
  // The driver object of a service loaded at this boot; null while it is not loaded (before
  // the boot, after a power loss or the machine's teardown).
  PDRIVER_OBJECT LoadedDriver(std::u16string_view service) const;

  // ----- Requests to the top of a volume's stack, built as the I/O manager builds them and
  // waited for. A volume that is not running gives STATUS_NO_SUCH_DEVICE.
  IoResult Read(Volume& volume, uint64_t offset, uint32_t length);
  IoResult Write(Volume& volume, uint64_t offset, std::span<const uint8_t> data);
  IoResult Control(Volume& volume, ULONG code, std::span<const uint8_t> input = {}, ULONG outputLength = 0);

  // ----- The mount manager.
  // A drive letter ('A' to 'Z'): \??\X: is created and IOCTL_MOUNTDEV_LINK_CREATED sent with
  // "\DosDevices\X:". Returns the request's status.
  NTSTATUS AssignDriveLetter(Volume& volume, char16_t letter);
  NTSTATUS RemoveDriveLetter(Volume& volume);
  // Sends IOCTL_MOUNTDEV_LINK_CREATED / _DELETED with any name, without making a link.
  NTSTATUS SendLinkCreated(Volume& volume, std::u16string_view name);
  NTSTATUS SendLinkDeleted(Volume& volume, std::u16string_view name);
  NTSTATUS Online(Volume& volume);
  NTSTATUS Offline(Volume& volume);

  // ----- Plug and Play. Each returns the status of the request that decided the outcome.
  // Query-remove: GUID_TARGET_DEVICE_QUERY_REMOVE to the registrations (a veto cancels), then
  // IRP_MN_QUERY_REMOVE_DEVICE (a failure cancels with IRP_MN_CANCEL_REMOVE_DEVICE).
  NTSTATUS QueryRemove(Volume& volume);
  // IRP_MN_CANCEL_REMOVE_DEVICE, then GUID_TARGET_DEVICE_REMOVE_CANCELLED.
  NTSTATUS CancelRemove(Volume& volume);
  // An orderly removal (query-remove first unless pending): the interface goes,
  // IRP_MN_REMOVE_DEVICE, GUID_TARGET_DEVICE_REMOVE_COMPLETE. The volume is then absent.
  NTSTATUS Remove(Volume& volume);
  // IRP_MN_SURPRISE_REMOVAL, the interface goes, GUID_TARGET_DEVICE_REMOVE_COMPLETE, then
  // IRP_MN_REMOVE_DEVICE. The volume is then absent.
  NTSTATUS SurpriseRemove(Volume& volume);
  // IRP_MN_QUERY_STOP_DEVICE then IRP_MN_STOP_DEVICE (a failed query gets
  // IRP_MN_CANCEL_STOP_DEVICE); Start sends IRP_MN_START_DEVICE again.
  NTSTATUS Stop(Volume& volume);
  NTSTATUS Start(Volume& volume);
  // An absent volume is connected again and arrives.
  NTSTATUS Arrive(Volume& volume);
  // The volume grows or shrinks; GUID_IO_VOLUME_CHANGE_SIZE is raised when it runs.
  NTSTATUS Resize(Volume& volume, uint64_t bytes);

  // ----- Notifications and file systems.
  // Raises a target-device event (GUID_IO_VOLUME_LOCK, GUID_TARGET_DEVICE_QUERY_REMOVE ...) on
  // the volume; returns the first failure a callback gave.
  NTSTATUS Notify(Volume& volume, const GUID& event, std::span<const uint8_t> customData = {});
  // Mounts the volume's file system (Volume::AttachFileSystem), if it has one, and raises
  // GUID_IO_VOLUME_MOUNT.
  NTSTATUS Mount(Volume& volume);
  // Dismounts a mounted file system with FSCTL_DISMOUNT_VOLUME (the file system raises
  // GUID_IO_VOLUME_DISMOUNT); without one, raises GUID_IO_VOLUME_DISMOUNT.
  NTSTATUS Dismount(Volume& volume);

  // ----- What the machine did, oldest first; the list is emptied.
  std::vector<MachineEvent> TakeEvents();

  static std::u16string ServiceKeyPath(std::u16string_view service);
  static std::u16string ClassKeyPath(const GUID& classGuid);
  static constexpr std::u16string_view kVolumesSafeForWriteEvent = u"\\Device\\VolumesSafeForWriteAccess";
  static constexpr std::u16string_view kVolumeManager = u"volmgr";
  // The link the system volume (drive letter C:) gets to its Windows directory.
  static constexpr std::u16string_view kSystemRootLink = u"\\SystemRoot";

 private:
  void InstallRegistry();
  Volume& Connect(std::unique_ptr<Volume> volume);
  void PowerOn();
  void PowerOff();
  void LoadBootDrivers();
  NTSTATUS ArriveNow(Volume& volume, bool mountNow);
  NTSTATUS BuildStack(Volume& volume);
  void AttachFileSystemOf(Volume& volume);
  void RemoveStack(Volume& volume, bool surprise);
  void Depart(Volume& volume);
  NTSTATUS CreateMountLinks(Volume& volume);
  NTSTATUS CreateLink(Volume& volume, const std::u16string& link, const std::u16string& announced);
  void CreateSystemRoot(Volume& volume);
  void DeleteLinks(Volume& volume);
  NTSTATUS SendPnp(Volume& volume, UCHAR minor);
  NTSTATUS SendShutdownPower(Volume& volume);
  IoResult SendControl(Volume& volume, ULONG code, std::span<const uint8_t> input, ULONG outputLength);
  IoResult SendTransfer(Volume& volume, UCHAR major, uint64_t offset, void* buffer, uint32_t length);
  const std::vector<std::u16string>& FiltersOf(const Volume& volume) const;
  bool Usable(const Volume& volume) const;
  NTSTATUS Note(std::string text, NTSTATUS status = STATUS_SUCCESS);
  std::string Who(const Volume& volume) const;

  MachineConfig config_;
  std::vector<std::unique_ptr<Volume>> volumes_;  // in arrival order
  ULONG nextVolumeNumber_ = 1;
  ULONG nextShadowCopyNumber_ = 1;
  std::unique_ptr<detail::CompletionWorker> worker_;
  bool running_ = false;
  unsigned boots_ = 0;
  PKEVENT volumesSafeForWrite_ = nullptr;
  // Drivers loaded at this boot, in load order.
  std::vector<std::pair<std::u16string, PDRIVER_OBJECT>> drivers_;
  std::vector<MachineEvent> events_;
};

}  // namespace kvtestbed
