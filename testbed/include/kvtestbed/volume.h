// A volume of the simulated machine: its configuration, its disk, and the knobs tests turn.
//
// A Volume outlives power cycles: its bytes (in memory or in a sparse image file), its
// configuration, the record of what reached its disk and its knobs stay when the machine
// crashes or shuts down. What lives in the machine's memory (the volume device object, its
// stack, whether it is online) goes with the power and comes back at the next boot.
//
// The volume device (\Device\HarddiskVolumeN, or \Device\HarddiskVolumeShadowCopyN for a
// shadow copy) is the physical device object at the bottom of the volume's stack. It serves
// reads and writes at byte offsets through the request's MDL, refuses what a volume refuses
// (a transfer not aligned to the sector size or reaching past the end: STATUS_INVALID_PARAMETER;
// any transfer while offline: STATUS_DEVICE_OFF_LINE), and answers the device controls a
// filter sends below itself: IOCTL_DISK_GET_DRIVE_GEOMETRY, _GET_LENGTH_INFO,
// _GET_PARTITION_INFO_EX, _IS_WRITABLE, IOCTL_STORAGE_QUERY_PROPERTY (device and adapter
// descriptors), IOCTL_MOUNTDEV_QUERY_DEVICE_NAME, _LINK_CREATED, _LINK_DELETED,
// IOCTL_VOLUME_ONLINE, _OFFLINE, _IS_OFFLINE, _GET_GPT_ATTRIBUTES; anything else gets
// STATUS_INVALID_DEVICE_REQUEST, as from a volume.
#pragma once

#include <ntdddisk.h>
#include <ntddstor.h>
#include <wdm.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kvtestbed {

class FileSystem;  // the file system mounted on a volume (kvtestbed/file_system.h)
class VolumeIo;    // a file system's sector I/O (kvtestbed/file_system.h)

namespace detail {
class Content;
class CompletionWorker;
class VolumeDriver;
}  // namespace detail

// The partition a volume lives in.
enum class PartitionKind { Data, Recovery, Reserved };

// Transfers the injected failures apply to.
enum class TransferKind { Reads, Writes, Both };

// Identities of the disk behind a volume, as its storage device descriptor gives them.
inline constexpr const char* kVirtualDiskVendor = "Msft";
inline constexpr const char* kVirtualDiskProduct = "Virtual Disk";
inline constexpr const char* kXvddProduct = "XVDD";

struct VolumeConfig {
  // How scenarios, messages and Machine::FindVolume call the volume ("C:", "data"); the
  // device name when empty.
  std::string Name;
  uint64_t SizeBytes = 64ull << 20;  // a multiple of the sector size
  uint32_t SectorSize = 512;         // 512 or 4096
  // Backed by this sparse image file (created when missing) instead of memory.
  std::string ImagePath;
  // Drive letter the mount manager gives the volume ('A' to 'Z'); 0 for none.
  char16_t DriveLetter = 0;
  // The volume GUID of \??\Volume{GUID}; derived from the volume number when absent.
  std::optional<GUID> VolumeGuid;

  // The physical device object's type and characteristics.
  DEVICE_TYPE DeviceType = FILE_DEVICE_DISK;
  bool RemovableMedia = false;

  // The disk's storage identity.
  STORAGE_BUS_TYPE Bus = BusTypeNvme;
  std::string Vendor = "KVSIM";
  std::string Product = "Simulated Disk";
  std::string Revision = "1.0";
  std::string SerialNumber;  // derived from the volume number when empty

  // The partition.
  PARTITION_STYLE PartitionStyle = PARTITION_STYLE_GPT;
  PartitionKind Partition = PartitionKind::Data;
  ULONG64 GptAttributes = 0;

  // States of the disk (also knobs, see Volume).
  bool WriteProtected = false;
  bool BitLockerLocked = false;  // every transfer fails with STATUS_FVE_LOCKED_VOLUME
  bool CompleteFromThread = false;  // transfers complete later on the machine's storage thread
};

// One write that reached the disk through the volume device.
struct DiskWrite {
  uint64_t Offset;
  uint32_t Length;
};

// One write request that reached the volume device, and how the volume answered it.
struct WriteRequest {
  uint64_t Offset;  // as the request gave it (a refused one may be misaligned)
  uint32_t Length;
  NTSTATUS Status;
};

struct DiskCounters {
  uint64_t Reads = 0;  // transfers that reached the disk
  uint64_t Writes = 0;
  uint64_t BytesRead = 0;
  uint64_t BytesWritten = 0;
  uint64_t Refused = 0;  // transfers refused or failed by the volume device
};

class Volume {
 public:
  Volume(const Volume&) = delete;
  Volume& operator=(const Volume&) = delete;
  ~Volume();

  // ----- Identity.
  const std::string& Name() const { return name_; }
  ULONG Number() const { return number_; }  // the N of the device name
  bool IsShadowCopy() const { return original_ != nullptr; }
  Volume* Original() const { return original_; }
  // \Device\HarddiskVolumeN or \Device\HarddiskVolumeShadowCopyN.
  const std::u16string& DeviceName() const { return deviceName_; }
  // \??\Volume{GUID} (empty for a shadow copy, which the mount manager does not name).
  const std::u16string& VolumeGuidName() const { return guidName_; }
  // The device-interface symbolic link of GUID_DEVINTERFACE_VOLUME ("\??\STORAGE#Volume#...").
  const std::u16string& InterfaceLink() const { return interfaceLink_; }
  VolumeConfig Config() const;
  uint64_t SizeBytes() const;

  // ----- The running machine's devices (null while the machine is off or the volume absent).
  PDEVICE_OBJECT Device() const { return device_.load(); }
  // The device at the top of the volume's stack.
  PDEVICE_OBJECT TopOfStack() const;
  bool Online() const { return online_.load(); }

  // ----- The disk, bypassing every driver.
  std::vector<uint8_t> ReadDirect(uint64_t offset, size_t length) const;
  void WriteDirect(uint64_t offset, std::span<const uint8_t> data);
  // The disk as a file system's sector I/O, bypassing every driver: to put a file system on
  // the volume before the machine runs (FormatModelVolume), as a disk comes formatted.
  // Valid while the volume exists; the volume's size and sector size bound it.
  std::unique_ptr<VolumeIo> DirectIo();
  // Bytes of memory (or image-file blocks) the disk holds.
  uint64_t BytesAllocated() const;

  // What reached the disk through the volume device, since the volume was added.
  DiskCounters Counters() const;
  std::vector<DiskWrite> Writes() const;
  // The write requests that reached the volume device since it last came online
  // (IOCTL_VOLUME_ONLINE), those the disk refused included: what the filters above passed
  // down once the volume was usable.
  std::vector<WriteRequest> WriteRequestsSinceOnline() const;
  // Requests that reached the volume device other than reads and writes, in order
  // ("IRP_MN_START_DEVICE", "IOCTL_VOLUME_ONLINE", "IRP_MN_SET_POWER PowerSystemShutdown" ...);
  // the list is emptied.
  std::vector<std::string> TakeRequestLog();

  // ----- Knobs: each takes effect at once and outlives power cycles.
  void SetWriteProtected(bool on);
  void SetBitLockerLocked(bool on);
  void SetCompleteFromThread(bool on);
  // The next `count` transfers (of `kind`) fail with `status`; count 0 stops.
  void FailTransfers(NTSTATUS status, uint32_t count, TransferKind kind = TransferKind::Both);
  // The next `count` transfers complete with STATUS_CANCELLED.
  void CancelTransfers(uint32_t count);
  // While held, transfers completing from the storage thread wait (a request in flight);
  // releasing lets them complete in order.
  void HoldCompletions(bool hold);
  // The file system of this volume (kvtestbed/file_system.h), which belongs to its disk: the
  // machine gives it to the volume each time the volume's stack has started (from the next
  // arrival or boot on), and mounts it at boot (Machine::Mount).
  void AttachFileSystem(std::shared_ptr<FileSystem> fileSystem);
  const std::shared_ptr<FileSystem>& AttachedFileSystem() const { return fileSystem_; }

 private:
  friend class Machine;
  friend class detail::CompletionWorker;
  friend class detail::VolumeDriver;

  Volume(ULONG number, Volume* original, VolumeConfig config, std::shared_ptr<detail::Content> content);

  // Carries out a read or write that reached the volume device and completes it.
  NTSTATUS Transfer(PIRP irp);
  NTSTATUS CheckTransfer(bool write, LONGLONG offset, ULONG length);
  void Record(std::string request);
  // IOCTL_VOLUME_ONLINE / _OFFLINE reached the volume device.
  void SetOnline(bool online);
  bool CompletionsHeld() const;
  bool CompletesFromThread() const;

  const ULONG number_;
  Volume* const original_;
  std::string name_;
  std::u16string deviceName_;
  GUID guid_;
  std::u16string guidName_;
  std::u16string interfaceLink_;
  std::shared_ptr<detail::Content> content_;
  std::shared_ptr<FileSystem> fileSystem_;
  detail::CompletionWorker* worker_ = nullptr;

  mutable std::mutex lock_;  // guards what follows
  VolumeConfig config_;
  DiskCounters counters_;
  std::vector<DiskWrite> writes_;
  std::vector<WriteRequest> writeRequests_;  // since the volume last came online
  std::vector<std::string> requests_;
  NTSTATUS failStatus_ = STATUS_SUCCESS;
  uint32_t failCount_ = 0;
  TransferKind failKind_ = TransferKind::Both;
  uint32_t cancelCount_ = 0;
  bool holdCompletions_ = false;

  // Memory state of the running machine.
  std::atomic<PDEVICE_OBJECT> device_{nullptr};
  std::atomic<bool> online_{false};
  std::atomic<bool> poweredOff_{true};
  bool present_ = true;     // connected (a removed volume is not, until it arrives again)
  bool started_ = false;    // its stack was started
  bool interfaceEnabled_ = false;  // its volume interface is enabled
  bool removePending_ = false;
  std::vector<std::u16string> links_;  // mount manager links made for it
};

}  // namespace kvtestbed
