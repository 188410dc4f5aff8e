// The machine's file-system driver, as its parts see each other: the volumes the machine
// gave a file system, the mounts (one volume device object each), the files open on them.
//
// One lock guards all of it. It is never held across a call into a FileSystem, a volume
// notification, a request sent to a device or the deletion of a device, because each of
// those can come back into the driver (a notification handler closes its handles).
#pragma once

#include <ntifs.h>

#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "kvtestbed/file_system.h"

namespace kvtestbed::fs {

struct Mount;

// Sector I/O sent as non-cached paging requests to the top of a volume's stack, which stays
// referenced until the VolumeIo goes (or is abandoned at a power loss).
class StackVolumeIo final : public VolumeIo {
 public:
  explicit StackVolumeIo(PDEVICE_OBJECT target);
  ~StackVolumeIo() override;
  StackVolumeIo(const StackVolumeIo&) = delete;
  StackVolumeIo& operator=(const StackVolumeIo&) = delete;

  ULONG SectorSize() const override;
  NTSTATUS Read(uint64_t offset, void* buffer, size_t length) override;
  NTSTATUS Write(uint64_t offset, const void* buffer, size_t length) override;
  // The machine lost power: the device is gone with everything else; nothing is released.
  void Abandon() { target_ = nullptr; }
  PDEVICE_OBJECT Target() const { return target_; }

 private:
  NTSTATUS Transfer(UCHAR major, uint64_t offset, void* buffer, size_t length);
  PDEVICE_OBJECT target_;
};

// The share access an open asks for and grants, as IoCheckShareAccess sees it.
struct ShareRequest {
  bool Read = false, Write = false, Delete = false;
  bool SharedRead = false, SharedWrite = false, SharedDelete = false;
  bool Counts() const { return Read || Write || Delete; }
};

// What the opens of one file share (Windows keeps it in the file's control block).
struct OpenNode {
  FileId Id = 0;
  ULONG OpenCount = 0;     // file objects on it not yet closed
  ULONG CleanupCount = 0;  // file objects on it whose handles are still open
  // Share access (SHARE_ACCESS): the counted opens and what they ask for and share.
  ULONG ShareOpens = 0, Readers = 0, Writers = 0, Deleters = 0;
  ULONG SharedRead = 0, SharedWrite = 0, SharedDelete = 0;
  bool DeletePending = false;
  bool Deleted = false;    // removed at its last cleanup; its opens wait for their close
  ULONG ProtectCount = 0;  // opens holding MARK_HANDLE_PROTECT_CLUSTERS
};

// One open: the file object's FsContext2. Node is null for an open of the volume itself.
struct Open {
  Mount* Owner = nullptr;
  OpenNode* Node = nullptr;
  std::u16string Path;
  ShareRequest Share;
  bool DeleteOnClose = false;
  bool Protects = false;
  bool CleanedUp = false;
};

// A mounted volume: the extension of the volume device object that the driver created.
struct Mount {
  PDEVICE_OBJECT VolumeDevice = nullptr;  // the driver's device, Vpb->DeviceObject
  PDEVICE_OBJECT RealDevice = nullptr;    // the volume's device object
  std::shared_ptr<FileSystem> Files;
  std::unique_ptr<StackVolumeIo> Io;  // over the top of the volume's stack at mount time
  bool Dismounted = false;
  // Files opened before a dismount keep reaching this mount through a VPB of their own
  // while the volume's VPB is free for the next mount.
  VPB DismountedVpb{};
  // The files that are open, by id (a deleted file's node leaves this map at its deletion);
  // a node lives until its last file object closes, an open until its file object closes.
  // The mount owns both, so that a power loss frees them with it.
  std::map<FileId, OpenNode*> Nodes;
  std::map<OpenNode*, std::unique_ptr<OpenNode>> OwnedNodes;
  std::map<Open*, std::unique_ptr<Open>> OwnedOpens;
  std::set<PFILE_OBJECT> FileObjects;  // opened here, not yet closed
  PFILE_OBJECT LockedBy = nullptr;
};

struct Refusal {
  std::u16string Path;  // upcased; empty matches every path
  NTSTATUS Status = STATUS_SUCCESS;
  int Remaining = 1;  // -1: until cleared
};

// A volume the machine gave a file system.
struct AttachedVolume {
  std::shared_ptr<FileSystem> Files;
  std::vector<Refusal> Refusals;
  Mount* Mounted = nullptr;
  // The driver watches the volume's removal as Windows' file systems do: a target-device
  // registration on a file object of the volume device. The file object is closed while a
  // removal is pending.
  PFILE_OBJECT Watch = nullptr;
  PVOID Registration = nullptr;
  // The next mount is announced by whoever asked for it (the machine), not by the driver.
  bool MountAnnouncedByCaller = false;
};

struct DriverState {
  std::mutex Lock;
  PDRIVER_OBJECT Driver = nullptr;
  PDEVICE_OBJECT Control = nullptr;  // the registered control device
  std::map<PDEVICE_OBJECT, AttachedVolume> Volumes;
  std::set<Mount*> Mounts;  // every mount whose volume device still exists
};

DriverState& State();

// file_system.cpp
// Takes the mount off its volume: the volume's VPB is free for the next mount, files still
// open reach this mount through DismountedVpb and fail. Called with the lock held.
void DetachMountLocked(Mount* mount);
// Deletes the mount's volume device once it is dismounted and its last file object closed,
// and unloads the driver when nothing is left. Called without the lock.
void ReleaseMountIfDone(Mount* mount);
// Raises a volume notification on the volume's device (no lock held).
void NotifyVolumeEvent(PDEVICE_OBJECT realDevice, const GUID& event);
// The refusal that matches an open of `path`, consumed; STATUS_SUCCESS when none.
NTSTATUS TakeRefusalLocked(AttachedVolume& volume, const std::u16string& path);

// file_system_dispatch.cpp
NTSTATUS DispatchVolumeRequest(PDEVICE_OBJECT device, PIRP irp);

}  // namespace kvtestbed::fs
