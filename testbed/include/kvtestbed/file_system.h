// The file systems of the simulated machine: what serves ZwCreateFile and the other Zw file
// routines on a volume.
//
// The machine gives each volume a FileSystem (AttachFileSystem). The machine's file-system
// driver is registered with the I/O manager like NTFS: the first open of a path on the
// volume (or MountVolume) sends it IRP_MN_MOUNT_VOLUME, and it mounts the volume's
// FileSystem over the top of the volume's device stack, so every sector the file system
// reads or writes passes the volume's filters. Requests on files then reach the driver as
// IRPs on the volume device object it created, and it calls the FileSystem.
//
// The driver does for every FileSystem what Windows' I/O manager and file systems do around
// the file contents: share access, delete-on-close and delete-pending, file positions of
// synchronous files, the volume lock (FSCTL_LOCK_VOLUME, _UNLOCK_VOLUME) and dismount
// (FSCTL_DISMOUNT_VOLUME), the volume notifications file systems raise (GUID_IO_VOLUME_MOUNT
// after each mount, from a worker thread; _LOCK, _LOCK_FAILED, _UNLOCK, _DISMOUNT,
// _DISMOUNT_FAILED around those requests, in the requester's thread), the answers to the
// volume's removal, the layout of the information records, the retrieval-pointers answer
// with its overflow, and refusals a test asks for (RefuseOpens). A FileSystem provides the
// files: names, attributes, sizes, data, clusters and security descriptors.
//
// Everything here runs at PASSIVE_LEVEL in host threads.
#pragma once

#include <ntifs.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kvtestbed {

// Sector I/O on the volume beneath a mounted file system: non-cached paging reads and
// writes (IRP_NOCACHE | IRP_PAGING_IO) sent to the top of the volume's device stack as it
// was at mount time. Offsets and lengths are whole sectors. Valid from Mount to Dismount.
class VolumeIo {
 public:
  virtual ~VolumeIo() = default;
  virtual ULONG SectorSize() const = 0;
  virtual NTSTATUS Read(uint64_t offset, void* buffer, size_t length) = 0;
  virtual NTSTATUS Write(uint64_t offset, const void* buffer, size_t length) = 0;
};

// A file or directory of a mounted volume, as its FileSystem numbers it. Stable while the
// volume stays mounted.
using FileId = uint64_t;

struct FileInfo {
  FileId Id = 0;
  bool Directory = false;
  ULONG Attributes = 0;  // FILE_ATTRIBUTE_*, FILE_ATTRIBUTE_DIRECTORY for a directory
  LONGLONG CreationTime = 0;  // system time, 100 ns units since 1601
  LONGLONG LastAccessTime = 0;
  LONGLONG LastWriteTime = 0;
  LONGLONG ChangeTime = 0;
  uint64_t EndOfFile = 0;
  uint64_t ValidDataLength = 0;
  uint64_t AllocationSize = 0;  // bytes, whole clusters
  ULONG NumberOfLinks = 1;
  USHORT CompressionFormat = COMPRESSION_FORMAT_NONE;
};

// A run of a file's clusters: Clusters clusters from virtual cluster Vcn lie at the volume's
// logical clusters from Lcn (-1 for a hole).
struct Extent {
  LONGLONG Vcn = 0;
  LONGLONG Lcn = 0;
  LONGLONG Clusters = 0;
};

struct VolumeInfo {
  ULONG BytesPerSector = 512;
  ULONG SectorsPerCluster = 8;
  uint64_t TotalClusters = 0;
  uint64_t FreeClusters = 0;
  ULONG SerialNumber = 0;
  LONGLONG CreationTime = 0;
  std::u16string Label;
  std::u16string FileSystemName;  // "NTFS", "KVMODEL" ...
  ULONG FileSystemAttributes = 0;  // FILE_CASE_PRESERVED_NAMES ...
  ULONG MaximumComponentNameLength = 255;
};

// What the I/O manager asked for in a create, as the file system sees it.
struct CreateRequest {
  std::u16string Path;  // inside the volume: "\dir\file"; "\" is the root directory
  ULONG Disposition = FILE_OPEN;  // FILE_SUPERSEDE ... FILE_OVERWRITE_IF
  ULONG Options = 0;              // FILE_DIRECTORY_FILE, FILE_NON_DIRECTORY_FILE, ...
  ULONG Attributes = 0;           // for a new file, or added when superseding or overwriting
  uint64_t AllocationSize = 0;    // for a new, superseded or overwritten file
  bool CaseSensitive = false;
  // Self-relative descriptor for a new file; empty gives the file system's default.
  std::vector<uint8_t> SecurityDescriptor;
  // Called with the file that is there, once found and before the disposition changes it
  // (share access, delete pending): a failure ends the create with that status.
  std::function<NTSTATUS(FileId)> AdmitExisting;
};

struct CreateResult {
  FileId Id = 0;
  ULONG_PTR Information = FILE_OPENED;  // FILE_CREATED, FILE_SUPERSEDED, FILE_OVERWRITTEN
};

// A file system the machine mounts on a volume. Calls come from whichever threads open and
// use files, several at a time: a FileSystem serialises them itself. It may hold its own
// lock across its sector I/O; the driver calls it without holding any lock of its own.
class FileSystem {
 public:
  virtual ~FileSystem() = default;

  // Mount: reads what it needs through `volume`. STATUS_UNRECOGNIZED_VOLUME when the volume
  // does not carry this file system; a failed read gives its status (for example
  // STATUS_FVE_LOCKED_VOLUME). Dismount writes back what it holds and forgets the volume;
  // the FileSystem may be mounted again later.
  virtual NTSTATUS Mount(VolumeIo& volume) = 0;
  virtual void Dismount() = 0;
  // Power loss: forget the volume and everything held for it in memory, without any I/O
  // (the VolumeIo is gone). The FileSystem may be mounted again after the next boot.
  virtual void Abandon() = 0;
  virtual VolumeInfo QueryVolume() = 0;

  // Opens or creates by path, honouring the disposition and FILE_DIRECTORY_FILE /
  // FILE_NON_DIRECTORY_FILE. STATUS_OBJECT_NAME_NOT_FOUND, STATUS_OBJECT_PATH_NOT_FOUND,
  // STATUS_OBJECT_NAME_COLLISION, STATUS_OBJECT_NAME_INVALID, STATUS_FILE_IS_A_DIRECTORY,
  // STATUS_NOT_A_DIRECTORY, STATUS_DISK_FULL, STATUS_ACCESS_DENIED (superseding a read-only
  // file) as Windows' file systems answer.
  virtual NTSTATUS Create(const CreateRequest& request, CreateResult* result) = 0;

  virtual NTSTATUS QueryInformation(FileId file, FileInfo* info) = 0;
  // Reads from the file's data: up to its end of file; past the valid data length it gives
  // zeros. STATUS_END_OF_FILE at or past the end of file.
  virtual NTSTATUS Read(FileId file, uint64_t offset, void* buffer, ULONG length, ULONG* transferred) = 0;
  // Writes, extending the file (end of file and valid data length) as needed.
  virtual NTSTATUS Write(FileId file, uint64_t offset, const void* buffer, ULONG length) = 0;
  // Times that are 0 stay; -1 is not given here. Attributes 0 leave them unchanged.
  virtual NTSTATUS SetBasicInformation(FileId file, const FILE_BASIC_INFORMATION& basic) = 0;
  virtual NTSTATUS SetEndOfFile(FileId file, uint64_t endOfFile) = 0;
  // From the current valid data length up to the end of file; the bytes in between become
  // whatever the clusters hold.
  virtual NTSTATUS SetValidDataLength(FileId file, uint64_t validDataLength) = 0;
  virtual NTSTATUS SetAllocationSize(FileId file, uint64_t allocationSize) = 0;
  virtual NTSTATUS SetCompression(FileId file, USHORT format) = 0;

  // Whether the file may be deleted (STATUS_DIRECTORY_NOT_EMPTY, STATUS_CANNOT_DELETE for a
  // read-only file), asked when a handle marks it; Delete removes it at its last close.
  virtual NTSTATUS CanDelete(FileId file) = 0;
  virtual NTSTATUS Delete(FileId file) = 0;

  // The file's runs from virtual cluster 0, in order (empty for a file without clusters).
  virtual NTSTATUS GetExtents(FileId file, std::vector<Extent>* extents) = 0;
  // FSCTL_MARK_HANDLE with MARK_HANDLE_PROTECT_CLUSTERS: the clusters stay where they are
  // while any handle holds the mark.
  virtual NTSTATUS SetClustersProtected(FileId file, bool protect) = 0;

  // Whole self-relative descriptors.
  virtual NTSTATUS QuerySecurity(FileId file, std::vector<uint8_t>* descriptor) = 0;
  virtual NTSTATUS SetSecurity(FileId file, const std::vector<uint8_t>& descriptor) = 0;
};

// ---------------------------------------------------------------------------------------
// The machine's side.

// Gives the volume a file system; it is mounted at the first open of a path on the volume,
// or by MountVolume. `volume` is the volume device object, the one its name and links lead
// to (\Device\HarddiskVolumeN). STATUS_OBJECT_NAME_COLLISION if it already has one. The
// volume device stays referenced until the file system is taken away: by DetachFileSystem,
// or when the volume is removed. The driver watches the volume's removal as Windows' file
// systems do (a target-device registration on a direct open of the volume device, so the
// filters see that open): GUID_TARGET_DEVICE_QUERY_REMOVE is vetoed with
// STATUS_ACCESS_DENIED while files are open on the volume, and otherwise dismounts it and
// closes the watching handle; _REMOVE_CANCELLED opens that handle again (the next open
// mounts); _REMOVE_COMPLETE takes the file system away, also after a surprise removal, when
// files still open fail from then on.
NTSTATUS AttachFileSystem(PDEVICE_OBJECT volume, std::shared_ptr<FileSystem> fileSystem);

// Mounts the volume now, as its first open would. STATUS_SUCCESS also when it already is.
// The driver announces each mount it makes with GUID_IO_VOLUME_MOUNT, from a system worker
// thread as Windows does (kvhost::WaitForWorkQueuesIdle waits for it), unless the caller
// says it announces this one itself.
enum class MountAnnouncement { ByFileSystem, ByCaller };
NTSTATUS MountVolume(PDEVICE_OBJECT volume, MountAnnouncement announcement = MountAnnouncement::ByFileSystem);

// Takes the file system away: a mounted volume is dismounted as after
// FSCTL_DISMOUNT_VOLUME, without notifications; files still open fail with
// STATUS_VOLUME_DISMOUNTED until they are closed.
void DetachFileSystem(PDEVICE_OBJECT volume);

// Power loss: forgets every attachment, mount and open file without any I/O and without
// calling anything (the disks keep what reached them; the machine frees the kernel objects).
void ForgetFileSystems();

// The FileSystem mounted or attached on a volume, or null.
std::shared_ptr<FileSystem> FileSystemOf(PDEVICE_OBJECT volume);
bool IsVolumeMounted(PDEVICE_OBJECT volume);

// ---------------------------------------------------------------------------------------
// Refusals a test asks for: the next `count` opens (-1: every open until cleared) of `path`
// on the volume ("\dir\file", compared without regard to case; empty: any path) fail with
// `status` (STATUS_SHARING_VIOLATION, STATUS_ACCESS_DENIED, STATUS_OBJECT_PATH_NOT_FOUND,
// ...) before the file system sees them.
void RefuseOpens(PDEVICE_OBJECT volume, std::u16string path, NTSTATUS status, int count = 1);
void ClearRefusals(PDEVICE_OBJECT volume);

}  // namespace kvtestbed
