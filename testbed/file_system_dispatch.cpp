// Requests on a mounted volume's device object: what Windows' file systems do around the
// file contents (share access, delete on close, the volume lock and dismount, the layout of
// the information records and of the retrieval pointers), with the contents from the
// volume's FileSystem.
#include <ioevent.h>

#include <algorithm>
#include <cstring>

#include "file_system_internal.h"
#include "kvhost/object.h"
#include "kvhost/security.h"
#include "kvhost/strings.h"

namespace kvtestbed::fs {
namespace {

// A self-relative descriptor the I/O manager captured is read no further than this.
constexpr size_t kDescriptorBound = 1 << 16;

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, NT_SUCCESS(status) ? IO_DISK_INCREMENT : IO_NO_INCREMENT);
  return status;
}

Mount* MountOf(PDEVICE_OBJECT volumeDevice) { return *static_cast<Mount**>(volumeDevice->DeviceExtension); }
Open* OpenOf(PFILE_OBJECT file) { return static_cast<Open*>(file->FsContext2); }

// ---------------------------------------------------------------------------------------
// Share access and the bookkeeping of open files. Called with the lock held.

ShareRequest ShareOf(ACCESS_MASK access, ULONG share) {
  ShareRequest r;
  r.Read = (access & (FILE_READ_DATA | FILE_EXECUTE)) != 0;
  r.Write = (access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0;
  r.Delete = (access & DELETE) != 0;
  r.SharedRead = (share & FILE_SHARE_READ) != 0;
  r.SharedWrite = (share & FILE_SHARE_WRITE) != 0;
  r.SharedDelete = (share & FILE_SHARE_DELETE) != 0;
  return r;
}

NTSTATUS CheckAndSetShareLocked(OpenNode& node, const ShareRequest& r) {
  if (!r.Counts()) return STATUS_SUCCESS;
  if ((r.Read && node.ShareOpens != node.SharedRead) || (r.Write && node.ShareOpens != node.SharedWrite) ||
      (r.Delete && node.ShareOpens != node.SharedDelete) || (node.Readers != 0 && !r.SharedRead) ||
      (node.Writers != 0 && !r.SharedWrite) || (node.Deleters != 0 && !r.SharedDelete))
    return STATUS_SHARING_VIOLATION;
  node.ShareOpens++;
  node.Readers += r.Read;
  node.Writers += r.Write;
  node.Deleters += r.Delete;
  node.SharedRead += r.SharedRead;
  node.SharedWrite += r.SharedWrite;
  node.SharedDelete += r.SharedDelete;
  return STATUS_SUCCESS;
}

void RemoveShareLocked(OpenNode& node, const ShareRequest& r) {
  if (!r.Counts()) return;
  node.ShareOpens--;
  node.Readers -= r.Read;
  node.Writers -= r.Write;
  node.Deleters -= r.Delete;
  node.SharedRead -= r.SharedRead;
  node.SharedWrite -= r.SharedWrite;
  node.SharedDelete -= r.SharedDelete;
}

OpenNode* NodeLocked(Mount* mount, FileId id) {
  OpenNode*& node = mount->Nodes[id];
  if (node == nullptr) {
    auto owned = std::make_unique<OpenNode>();
    owned->Id = id;
    node = owned.get();
    mount->OwnedNodes.emplace(node, std::move(owned));
  }
  return node;
}

void ReleaseNodeIfUnusedLocked(Mount* mount, OpenNode* node) {
  if (node->OpenCount != 0) return;
  auto it = mount->Nodes.find(node->Id);
  if (it != mount->Nodes.end() && it->second == node) mount->Nodes.erase(it);
  mount->OwnedNodes.erase(node);
}

// Admits an open of `node`: not while it is to be deleted, and only with compatible share
// access; counts the open.
NTSTATUS AdmitLocked(Mount* mount, OpenNode* node, const ShareRequest& share) {
  NTSTATUS status = node->DeletePending ? STATUS_DELETE_PENDING : CheckAndSetShareLocked(*node, share);
  if (!NT_SUCCESS(status)) {
    ReleaseNodeIfUnusedLocked(mount, node);
    return status;
  }
  node->OpenCount++;
  node->CleanupCount++;
  return STATUS_SUCCESS;
}

void UnadmitLocked(Mount* mount, OpenNode* node, const ShareRequest& share) {
  RemoveShareLocked(*node, share);
  node->OpenCount--;
  node->CleanupCount--;
  ReleaseNodeIfUnusedLocked(mount, node);
}

std::u16string PathOf(PFILE_OBJECT file) { return std::u16string(kvhost::View(&file->FileName)); }

PVOID TransferBuffer(PIRP irp) {
  if (irp->MdlAddress != nullptr)
    return MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority | MdlMappingNoExecute);
  return irp->UserBuffer;
}

// Copies a record with a trailing name: the fixed part and as much of the name as fits,
// STATUS_BUFFER_OVERFLOW when not all of it did.
NTSTATUS CopyNamedRecord(PIRP irp, const void* fixed, ULONG fixedBytes, const std::u16string& name, ULONG length) {
  auto* out = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
  std::memcpy(out, fixed, fixedBytes);
  const ULONG nameBytes = static_cast<ULONG>(name.size() * sizeof(WCHAR));
  const ULONG copied = std::min(nameBytes, length - fixedBytes);
  std::memcpy(out + fixedBytes, name.data(), copied);
  irp->IoStatus.Information = fixedBytes + copied;
  return copied < nameBytes ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------------------
// Create, cleanup, close.

NTSTATUS CreateVolumeOpen(Mount* mount, PIRP irp, std::unique_ptr<Open> open, ULONG disposition, ULONG options) {
  PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
  if (options & FILE_DIRECTORY_FILE) return Complete(irp, STATUS_NOT_A_DIRECTORY);
  if (disposition != FILE_OPEN && disposition != FILE_OPEN_IF) return Complete(irp, STATUS_INVALID_PARAMETER);
  file->FsContext = mount;
  file->FsContext2 = open.get();
  file->Flags |= FO_VOLUME_OPEN;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    mount->FileObjects.insert(file);
    mount->OwnedOpens.emplace(open.get(), std::move(open));
  }
  return Complete(irp, STATUS_SUCCESS, FILE_OPENED);
}

NTSTATUS Create(Mount* mount, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  PFILE_OBJECT file = sp->FileObject;
  const ULONG disposition = (sp->Parameters.Create.Options >> 24) & 0xFF;
  const ULONG options = sp->Parameters.Create.Options & FILE_VALID_OPTION_FLAGS;
  PIO_SECURITY_CONTEXT security = sp->Parameters.Create.SecurityContext;
  const ACCESS_MASK access = security != nullptr ? security->DesiredAccess : 0;
  auto open = std::make_unique<Open>();
  open->Owner = mount;
  open->Path = PathOf(file);
  open->Share = ShareOf(access, sp->Parameters.Create.ShareAccess);
  open->DeleteOnClose = (options & FILE_DELETE_ON_CLOSE) != 0;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (mount->Dismounted) return Complete(irp, STATUS_VOLUME_DISMOUNTED);
    // A locked volume admits nobody but the locking handle, which is open already.
    if (mount->LockedBy != nullptr) return Complete(irp, STATUS_ACCESS_DENIED);
    auto volume = State().Volumes.find(mount->RealDevice);
    if (!open->Path.empty() && volume != State().Volumes.end()) {
      NTSTATUS refused = TakeRefusalLocked(volume->second, open->Path);
      if (!NT_SUCCESS(refused)) return Complete(irp, refused);
    }
  }
  if (open->Path.empty()) return CreateVolumeOpen(mount, irp, std::move(open), disposition, options);

  CreateRequest request;
  request.Path = open->Path;
  request.Disposition = disposition;
  request.Options = options;
  request.Attributes = sp->Parameters.Create.FileAttributes;
  request.AllocationSize = static_cast<uint64_t>(std::max<LONGLONG>(irp->Overlay.AllocationSize.QuadPart, 0));
  request.CaseSensitive = (sp->Flags & SL_CASE_SENSITIVE) != 0;
  if (security != nullptr && security->AccessState != nullptr && security->AccessState->SecurityDescriptor != nullptr) {
    kvhost::SecurityParts parts;
    if (!kvhost::ParseSecurityDescriptor(security->AccessState->SecurityDescriptor, kDescriptorBound, &parts))
      return Complete(irp, STATUS_INVALID_SECURITY_DESCR);
    request.SecurityDescriptor = kvhost::BuildSelfRelativeDescriptor(parts);
  }
  OpenNode* admitted = nullptr;
  request.AdmitExisting = [&](FileId id) {
    std::lock_guard<std::mutex> guard(State().Lock);
    OpenNode* node = NodeLocked(mount, id);
    NTSTATUS status = AdmitLocked(mount, node, open->Share);
    if (NT_SUCCESS(status)) admitted = node;
    return status;
  };
  CreateResult result;
  NTSTATUS status = mount->Files->Create(request, &result);
  if (NT_SUCCESS(status) && admitted == nullptr) {  // a new file: nobody else has it open
    std::lock_guard<std::mutex> guard(State().Lock);
    OpenNode* node = NodeLocked(mount, result.Id);
    status = AdmitLocked(mount, node, open->Share);
    if (NT_SUCCESS(status)) admitted = node;
  }
  if (NT_SUCCESS(status) && open->DeleteOnClose) status = mount->Files->CanDelete(result.Id);
  if (!NT_SUCCESS(status)) {
    if (admitted != nullptr) {
      std::lock_guard<std::mutex> guard(State().Lock);
      UnadmitLocked(mount, admitted, open->Share);
    }
    return Complete(irp, status);
  }
  open->Node = admitted;
  file->ReadAccess = open->Share.Read;
  file->WriteAccess = open->Share.Write;
  file->DeleteAccess = open->Share.Delete;
  file->SharedRead = open->Share.SharedRead;
  file->SharedWrite = open->Share.SharedWrite;
  file->SharedDelete = open->Share.SharedDelete;
  file->FsContext = admitted;
  file->FsContext2 = open.get();
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    mount->FileObjects.insert(file);
    mount->OwnedOpens.emplace(open.get(), std::move(open));
  }
  return Complete(irp, STATUS_SUCCESS, result.Information);
}

NTSTATUS Cleanup(PIRP irp) {
  PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
  Open* open = OpenOf(file);
  Mount* mount = open->Owner;
  bool unlocked = false, unprotect = false, deleteNow = false, dismounted = false;
  FileId id = 0;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (open->CleanedUp) return Complete(irp, STATUS_SUCCESS);
    open->CleanedUp = true;
    dismounted = mount->Dismounted;
    if (mount->LockedBy == file) {
      mount->LockedBy = nullptr;
      if (!dismounted) mount->RealDevice->Vpb->Flags &= ~VPB_LOCKED;
      unlocked = !dismounted;
    }
    if (OpenNode* node = open->Node) {
      id = node->Id;
      RemoveShareLocked(*node, open->Share);
      node->CleanupCount--;
      if (open->Protects) unprotect = --node->ProtectCount == 0;
      if (open->DeleteOnClose) node->DeletePending = true;
      // The file goes with the last handle of a file marked for deletion.
      if (node->CleanupCount == 0 && node->DeletePending && !node->Deleted) {
        node->Deleted = deleteNow = true;
        auto it = mount->Nodes.find(id);
        if (it != mount->Nodes.end() && it->second == node) mount->Nodes.erase(it);
      }
    }
  }
  if (!dismounted) {
    if (unprotect) mount->Files->SetClustersProtected(id, false);
    if (deleteNow) mount->Files->Delete(id);
  }
  Complete(irp, STATUS_SUCCESS);
  if (unlocked) NotifyVolumeEvent(mount->RealDevice, GUID_IO_VOLUME_UNLOCK);
  return STATUS_SUCCESS;
}

NTSTATUS Close(PIRP irp) {
  PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
  Open* open = OpenOf(file);
  Mount* mount = open->Owner;
  file->FsContext = nullptr;
  file->FsContext2 = nullptr;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    mount->FileObjects.erase(file);
    if (OpenNode* node = open->Node) {
      node->OpenCount--;
      ReleaseNodeIfUnusedLocked(mount, node);
    }
    mount->OwnedOpens.erase(open);
  }
  Complete(irp, STATUS_SUCCESS);
  ReleaseMountIfDone(mount);
  return STATUS_SUCCESS;
}

// ---------------------------------------------------------------------------------------
// Data.

NTSTATUS ReadOrWrite(Mount* mount, Open* open, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const bool write = sp->MajorFunction == IRP_MJ_WRITE;
  const ULONG length = sp->Parameters.Read.Length;
  LONGLONG offset = sp->Parameters.Read.ByteOffset.QuadPart;
  void* buffer = length != 0 ? TransferBuffer(irp) : nullptr;
  if (length != 0 && buffer == nullptr) return Complete(irp, STATUS_INSUFFICIENT_RESOURCES);
  if (open->Node == nullptr) {
    // A volume open reads and writes the volume's sectors.
    NTSTATUS status = offset < 0 ? STATUS_INVALID_PARAMETER
                      : write    ? mount->Io->Write(offset, buffer, length)
                                 : mount->Io->Read(offset, buffer, length);
    return Complete(irp, status, NT_SUCCESS(status) ? length : 0);
  }
  const FileId id = open->Node->Id;
  if (write && sp->Parameters.Write.ByteOffset.HighPart == -1 &&
      sp->Parameters.Write.ByteOffset.LowPart == FILE_WRITE_TO_END_OF_FILE) {
    FileInfo info;
    NTSTATUS status = mount->Files->QueryInformation(id, &info);
    if (!NT_SUCCESS(status)) return Complete(irp, status);
    offset = static_cast<LONGLONG>(info.EndOfFile);
  }
  if (offset < 0) return Complete(irp, STATUS_INVALID_PARAMETER);
  ULONG transferred = 0;
  NTSTATUS status;
  if (write) {
    status = length == 0 ? STATUS_SUCCESS : mount->Files->Write(id, offset, buffer, length);
    transferred = NT_SUCCESS(status) ? length : 0;
  } else {
    status = mount->Files->Read(id, offset, buffer, length, &transferred);
  }
  PFILE_OBJECT file = sp->FileObject;
  if (NT_SUCCESS(status) && (file->Flags & FO_SYNCHRONOUS_IO)) file->CurrentByteOffset.QuadPart = offset + transferred;
  return Complete(irp, status, transferred);
}

// ---------------------------------------------------------------------------------------
// Information.

NTSTATUS QueryInformation(Mount* mount, Open* open, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const ULONG length = sp->Parameters.QueryFile.Length;
  void* out = irp->AssociatedIrp.SystemBuffer;
  if (open->Node == nullptr) return Complete(irp, STATUS_INVALID_PARAMETER);
  FileInfo info;
  NTSTATUS status = mount->Files->QueryInformation(open->Node->Id, &info);
  if (!NT_SUCCESS(status)) return Complete(irp, status);
  switch (sp->Parameters.QueryFile.FileInformationClass) {
    case FileBasicInformation: {
      FILE_BASIC_INFORMATION basic{};
      basic.CreationTime.QuadPart = info.CreationTime;
      basic.LastAccessTime.QuadPart = info.LastAccessTime;
      basic.LastWriteTime.QuadPart = info.LastWriteTime;
      basic.ChangeTime.QuadPart = info.ChangeTime;
      basic.FileAttributes = info.Attributes;
      std::memcpy(out, &basic, sizeof basic);
      return Complete(irp, STATUS_SUCCESS, sizeof basic);
    }
    case FileStandardInformation: {
      FILE_STANDARD_INFORMATION standard{};
      standard.AllocationSize.QuadPart = static_cast<LONGLONG>(info.AllocationSize);
      standard.EndOfFile.QuadPart = static_cast<LONGLONG>(info.EndOfFile);
      standard.NumberOfLinks = info.NumberOfLinks;
      {
        std::lock_guard<std::mutex> guard(State().Lock);
        standard.DeletePending = open->Node->DeletePending;
      }
      standard.Directory = info.Directory;
      std::memcpy(out, &standard, sizeof standard);
      return Complete(irp, STATUS_SUCCESS, sizeof standard);
    }
    case FileInternalInformation: {
      FILE_INTERNAL_INFORMATION internal{};
      internal.IndexNumber.QuadPart = static_cast<LONGLONG>(info.Id);
      std::memcpy(out, &internal, sizeof internal);
      return Complete(irp, STATUS_SUCCESS, sizeof internal);
    }
    case FileNetworkOpenInformation: {
      FILE_NETWORK_OPEN_INFORMATION network{};
      network.CreationTime.QuadPart = info.CreationTime;
      network.LastAccessTime.QuadPart = info.LastAccessTime;
      network.LastWriteTime.QuadPart = info.LastWriteTime;
      network.ChangeTime.QuadPart = info.ChangeTime;
      network.AllocationSize.QuadPart = static_cast<LONGLONG>(info.AllocationSize);
      network.EndOfFile.QuadPart = static_cast<LONGLONG>(info.EndOfFile);
      network.FileAttributes = info.Attributes;
      std::memcpy(out, &network, sizeof network);
      return Complete(irp, STATUS_SUCCESS, sizeof network);
    }
    case FileAttributeTagInformation: {
      FILE_ATTRIBUTE_TAG_INFORMATION tag{info.Attributes, 0};
      std::memcpy(out, &tag, sizeof tag);
      return Complete(irp, STATUS_SUCCESS, sizeof tag);
    }
    case FileAlignmentInformation: {
      FILE_ALIGNMENT_INFORMATION alignment{mount->VolumeDevice->AlignmentRequirement};
      std::memcpy(out, &alignment, sizeof alignment);
      return Complete(irp, STATUS_SUCCESS, sizeof alignment);
    }
    case FileNameInformation: {
      FILE_NAME_INFORMATION name{};
      name.FileNameLength = static_cast<ULONG>(open->Path.size() * sizeof(WCHAR));
      status = CopyNamedRecord(irp, &name, FIELD_OFFSET(FILE_NAME_INFORMATION, FileName), open->Path, length);
      return Complete(irp, status, irp->IoStatus.Information);
    }
    default:
      return Complete(irp, STATUS_INVALID_PARAMETER);
  }
}

NTSTATUS SetInformation(Mount* mount, Open* open, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const void* in = irp->AssociatedIrp.SystemBuffer;
  if (open->Node == nullptr) return Complete(irp, STATUS_INVALID_PARAMETER);
  const FileId id = open->Node->Id;
  FileSystem& files = *mount->Files;
  switch (sp->Parameters.SetFile.FileInformationClass) {
    case FileBasicInformation: {
      FILE_BASIC_INFORMATION basic;
      std::memcpy(&basic, in, sizeof basic);
      // -1 asks that a time stop being updated; the machine's file systems keep it as it is.
      for (LARGE_INTEGER* time : {&basic.CreationTime, &basic.LastAccessTime, &basic.LastWriteTime, &basic.ChangeTime})
        if (time->QuadPart == -1) time->QuadPart = 0;
      return Complete(irp, files.SetBasicInformation(id, basic));
    }
    case FileDispositionInformation: {
      FILE_DISPOSITION_INFORMATION disposition;
      std::memcpy(&disposition, in, sizeof disposition);
      NTSTATUS status = disposition.DeleteFile ? files.CanDelete(id) : STATUS_SUCCESS;
      if (NT_SUCCESS(status)) {
        std::lock_guard<std::mutex> guard(State().Lock);
        open->Node->DeletePending = disposition.DeleteFile != FALSE;
      }
      return Complete(irp, status);
    }
    case FileEndOfFileInformation: {
      FILE_END_OF_FILE_INFORMATION endOfFile;
      std::memcpy(&endOfFile, in, sizeof endOfFile);
      if (endOfFile.EndOfFile.QuadPart < 0) return Complete(irp, STATUS_INVALID_PARAMETER);
      return Complete(irp, files.SetEndOfFile(id, endOfFile.EndOfFile.QuadPart));
    }
    case FileValidDataLengthInformation: {
      FILE_VALID_DATA_LENGTH_INFORMATION valid;
      std::memcpy(&valid, in, sizeof valid);
      if (valid.ValidDataLength.QuadPart < 0) return Complete(irp, STATUS_INVALID_PARAMETER);
      return Complete(irp, files.SetValidDataLength(id, valid.ValidDataLength.QuadPart));
    }
    case FileAllocationInformation: {
      FILE_ALLOCATION_INFORMATION allocation;
      std::memcpy(&allocation, in, sizeof allocation);
      if (allocation.AllocationSize.QuadPart < 0) return Complete(irp, STATUS_INVALID_PARAMETER);
      return Complete(irp, files.SetAllocationSize(id, allocation.AllocationSize.QuadPart));
    }
    default:
      return Complete(irp, STATUS_INVALID_PARAMETER);
  }
}

NTSTATUS QueryVolumeInformation(Mount* mount, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const ULONG length = sp->Parameters.QueryVolume.Length;
  void* out = irp->AssociatedIrp.SystemBuffer;
  const VolumeInfo volume = mount->Files->QueryVolume();
  switch (sp->Parameters.QueryVolume.FsInformationClass) {
    case FileFsVolumeInformation: {
      FILE_FS_VOLUME_INFORMATION info{};
      info.VolumeCreationTime.QuadPart = volume.CreationTime;
      info.VolumeSerialNumber = volume.SerialNumber;
      info.VolumeLabelLength = static_cast<ULONG>(volume.Label.size() * sizeof(WCHAR));
      info.SupportsObjects = FALSE;
      NTSTATUS status =
          CopyNamedRecord(irp, &info, FIELD_OFFSET(FILE_FS_VOLUME_INFORMATION, VolumeLabel), volume.Label, length);
      return Complete(irp, status, irp->IoStatus.Information);
    }
    case FileFsSizeInformation: {
      FILE_FS_SIZE_INFORMATION info{};
      info.TotalAllocationUnits.QuadPart = static_cast<LONGLONG>(volume.TotalClusters);
      info.AvailableAllocationUnits.QuadPart = static_cast<LONGLONG>(volume.FreeClusters);
      info.SectorsPerAllocationUnit = volume.SectorsPerCluster;
      info.BytesPerSector = volume.BytesPerSector;
      std::memcpy(out, &info, sizeof info);
      return Complete(irp, STATUS_SUCCESS, sizeof info);
    }
    case FileFsFullSizeInformation: {
      FILE_FS_FULL_SIZE_INFORMATION info{};
      info.TotalAllocationUnits.QuadPart = static_cast<LONGLONG>(volume.TotalClusters);
      info.CallerAvailableAllocationUnits.QuadPart = static_cast<LONGLONG>(volume.FreeClusters);
      info.ActualAvailableAllocationUnits.QuadPart = static_cast<LONGLONG>(volume.FreeClusters);
      info.SectorsPerAllocationUnit = volume.SectorsPerCluster;
      info.BytesPerSector = volume.BytesPerSector;
      std::memcpy(out, &info, sizeof info);
      return Complete(irp, STATUS_SUCCESS, sizeof info);
    }
    case FileFsAttributeInformation: {
      FILE_FS_ATTRIBUTE_INFORMATION info{};
      info.FileSystemAttributes = volume.FileSystemAttributes;
      info.MaximumComponentNameLength = static_cast<LONG>(volume.MaximumComponentNameLength);
      info.FileSystemNameLength = static_cast<ULONG>(volume.FileSystemName.size() * sizeof(WCHAR));
      NTSTATUS status = CopyNamedRecord(irp, &info, FIELD_OFFSET(FILE_FS_ATTRIBUTE_INFORMATION, FileSystemName),
                                        volume.FileSystemName, length);
      return Complete(irp, status, irp->IoStatus.Information);
    }
    default:
      return Complete(irp, STATUS_INVALID_PARAMETER);
  }
}

// ---------------------------------------------------------------------------------------
// File-system control.

bool OtherHandlesOpenLocked(Mount* mount, PFILE_OBJECT except) {
  for (PFILE_OBJECT file : mount->FileObjects)
    if (file != except && !OpenOf(file)->CleanedUp) return true;
  return false;
}

NTSTATUS LockVolume(Mount* mount, Open* open, PIRP irp) {
  PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
  if (open->Node != nullptr) return Complete(irp, STATUS_INVALID_PARAMETER);
  // Holders of handles hear of the lock first, so that they can close them.
  NotifyVolumeEvent(mount->RealDevice, GUID_IO_VOLUME_LOCK);
  NTSTATUS status = STATUS_SUCCESS;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (mount->Dismounted)
      status = STATUS_VOLUME_DISMOUNTED;
    else if (mount->LockedBy != nullptr || OtherHandlesOpenLocked(mount, file))
      status = STATUS_ACCESS_DENIED;
    else {
      mount->LockedBy = file;
      mount->RealDevice->Vpb->Flags |= VPB_LOCKED;
    }
  }
  Complete(irp, status);
  if (!NT_SUCCESS(status)) NotifyVolumeEvent(mount->RealDevice, GUID_IO_VOLUME_LOCK_FAILED);
  return status;
}

NTSTATUS UnlockVolume(Mount* mount, PIRP irp) {
  PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (mount->LockedBy != file) return Complete(irp, STATUS_NOT_LOCKED);
    mount->LockedBy = nullptr;
    mount->RealDevice->Vpb->Flags &= ~VPB_LOCKED;
  }
  Complete(irp, STATUS_SUCCESS);
  NotifyVolumeEvent(mount->RealDevice, GUID_IO_VOLUME_UNLOCK);
  return STATUS_SUCCESS;
}

// Dismounting does not wait for handles: files still open fail from then on.
NTSTATUS DismountVolume(Mount* mount, Open* open, PIRP irp) {
  PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
  if (open->Node != nullptr) return Complete(irp, STATUS_INVALID_PARAMETER);
  NotifyVolumeEvent(mount->RealDevice, GUID_IO_VOLUME_DISMOUNT);
  NTSTATUS status = STATUS_SUCCESS;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (mount->LockedBy != nullptr && mount->LockedBy != file)
      status = STATUS_ACCESS_DENIED;
    else
      DetachMountLocked(mount);
  }
  if (!NT_SUCCESS(status)) {
    Complete(irp, status);
    NotifyVolumeEvent(mount->RealDevice, GUID_IO_VOLUME_DISMOUNT_FAILED);
    return status;
  }
  mount->Files->Dismount();
  return Complete(irp, STATUS_SUCCESS);
}

// FSCTL_GET_RETRIEVAL_POINTERS: the runs from the one holding the starting VCN, as many as
// the caller's buffer holds.
NTSTATUS GetRetrievalPointers(Mount* mount, Open* open, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const ULONG inLength = sp->Parameters.FileSystemControl.InputBufferLength;
  const ULONG outLength = sp->Parameters.FileSystemControl.OutputBufferLength;
  const auto* in = static_cast<const STARTING_VCN_INPUT_BUFFER*>(sp->Parameters.FileSystemControl.Type3InputBuffer);
  auto* out = static_cast<PRETRIEVAL_POINTERS_BUFFER>(irp->UserBuffer);
  if (open->Node == nullptr || in == nullptr || inLength < sizeof(STARTING_VCN_INPUT_BUFFER))
    return Complete(irp, STATUS_INVALID_PARAMETER);
  if (out == nullptr || outLength < sizeof(RETRIEVAL_POINTERS_BUFFER)) return Complete(irp, STATUS_BUFFER_TOO_SMALL);
  const LONGLONG startingVcn = in->StartingVcn.QuadPart;
  if (startingVcn < 0) return Complete(irp, STATUS_INVALID_PARAMETER);
  std::vector<Extent> extents;
  NTSTATUS status = mount->Files->GetExtents(open->Node->Id, &extents);
  if (!NT_SUCCESS(status)) return Complete(irp, status);
  auto first = std::find_if(extents.begin(), extents.end(),
                            [&](const Extent& e) { return e.Vcn + e.Clusters > startingVcn; });
  if (first == extents.end()) return Complete(irp, STATUS_END_OF_FILE);
  const size_t remaining = static_cast<size_t>(extents.end() - first);
  const size_t fits = (outLength - FIELD_OFFSET(RETRIEVAL_POINTERS_BUFFER, Extents)) / sizeof(out->Extents[0]);
  const size_t count = std::min(remaining, fits);
  out->ExtentCount = static_cast<ULONG>(count);
  out->StartingVcn.QuadPart = first->Vcn;
  for (size_t i = 0; i < count; ++i) {
    out->Extents[i].NextVcn.QuadPart = first[i].Vcn + first[i].Clusters;
    out->Extents[i].Lcn.QuadPart = first[i].Lcn;
  }
  return Complete(irp, count < remaining ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS,
                  FIELD_OFFSET(RETRIEVAL_POINTERS_BUFFER, Extents) + count * sizeof(out->Extents[0]));
}

NTSTATUS MarkHandle(Mount* mount, Open* open, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  if (open->Node == nullptr) return Complete(irp, STATUS_INVALID_PARAMETER);
  if (sp->Parameters.FileSystemControl.InputBufferLength < sizeof(MARK_HANDLE_INFO))
    return Complete(irp, STATUS_BUFFER_TOO_SMALL);
  MARK_HANDLE_INFO info;
  std::memcpy(&info, irp->AssociatedIrp.SystemBuffer, sizeof info);
  if (!(info.HandleInfo & MARK_HANDLE_PROTECT_CLUSTERS)) return Complete(irp, STATUS_SUCCESS);
  bool first = false;
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (!open->Protects) {
      open->Protects = true;
      first = open->Node->ProtectCount++ == 0;
    }
  }
  NTSTATUS status = first ? mount->Files->SetClustersProtected(open->Node->Id, true) : STATUS_SUCCESS;
  if (!NT_SUCCESS(status)) {
    std::lock_guard<std::mutex> guard(State().Lock);
    open->Protects = false;
    open->Node->ProtectCount--;
  }
  return Complete(irp, status);
}

NTSTATUS FileSystemControl(Mount* mount, Open* open, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  if (sp->MinorFunction != IRP_MN_USER_FS_REQUEST) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
  const ULONG inLength = sp->Parameters.FileSystemControl.InputBufferLength;
  const ULONG outLength = sp->Parameters.FileSystemControl.OutputBufferLength;
  switch (sp->Parameters.FileSystemControl.FsControlCode) {
    case FSCTL_LOCK_VOLUME:
      return LockVolume(mount, open, irp);
    case FSCTL_UNLOCK_VOLUME:
      return UnlockVolume(mount, irp);
    case FSCTL_DISMOUNT_VOLUME:
      return DismountVolume(mount, open, irp);
    case FSCTL_IS_VOLUME_MOUNTED:
      return Complete(irp, STATUS_SUCCESS);
    case FSCTL_GET_RETRIEVAL_POINTERS:
      return GetRetrievalPointers(mount, open, irp);
    case FSCTL_MARK_HANDLE:
      return MarkHandle(mount, open, irp);
    case FSCTL_SET_COMPRESSION: {
      if (open->Node == nullptr || inLength < sizeof(USHORT)) return Complete(irp, STATUS_INVALID_PARAMETER);
      USHORT format;
      std::memcpy(&format, irp->AssociatedIrp.SystemBuffer, sizeof format);
      return Complete(irp, mount->Files->SetCompression(open->Node->Id, format));
    }
    case FSCTL_GET_COMPRESSION: {
      if (open->Node == nullptr) return Complete(irp, STATUS_INVALID_PARAMETER);
      if (outLength < sizeof(USHORT)) return Complete(irp, STATUS_BUFFER_TOO_SMALL);
      FileInfo info;
      NTSTATUS status = mount->Files->QueryInformation(open->Node->Id, &info);
      if (!NT_SUCCESS(status)) return Complete(irp, status);
      std::memcpy(irp->AssociatedIrp.SystemBuffer, &info.CompressionFormat, sizeof(USHORT));
      return Complete(irp, STATUS_SUCCESS, sizeof(USHORT));
    }
    default:
      return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
  }
}

// ---------------------------------------------------------------------------------------
// Security.

kvhost::SecurityParts StoredSecurity(Mount* mount, FileId id, NTSTATUS* status) {
  std::vector<uint8_t> stored;
  kvhost::SecurityParts parts;
  *status = mount->Files->QuerySecurity(id, &stored);
  if (NT_SUCCESS(*status) && !stored.empty() &&
      !kvhost::ParseSecurityDescriptor(stored.data(), stored.size(), &parts))
    *status = STATUS_INVALID_SECURITY_DESCR;
  return parts;
}

NTSTATUS QuerySecurity(Mount* mount, Open* open, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  if (open->Node == nullptr) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
  NTSTATUS status;
  kvhost::SecurityParts parts = StoredSecurity(mount, open->Node->Id, &status);
  if (!NT_SUCCESS(status)) return Complete(irp, status);
  const std::vector<uint8_t> answer = kvhost::BuildSelfRelativeDescriptor(
      kvhost::SelectSecurityParts(parts, sp->Parameters.QuerySecurity.SecurityInformation));
  if (sp->Parameters.QuerySecurity.Length < answer.size())
    return Complete(irp, STATUS_BUFFER_OVERFLOW, answer.size());
  std::memcpy(irp->UserBuffer, answer.data(), answer.size());
  return Complete(irp, STATUS_SUCCESS, answer.size());
}

NTSTATUS SetSecurity(Mount* mount, Open* open, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  if (open->Node == nullptr) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
  kvhost::SecurityParts update;
  if (!kvhost::ParseSecurityDescriptor(sp->Parameters.SetSecurity.SecurityDescriptor, kDescriptorBound, &update))
    return Complete(irp, STATUS_INVALID_SECURITY_DESCR);
  NTSTATUS status;
  kvhost::SecurityParts stored = StoredSecurity(mount, open->Node->Id, &status);
  if (!NT_SUCCESS(status)) return Complete(irp, status);
  const kvhost::SecurityParts merged =
      kvhost::MergeSecurityParts(stored, update, sp->Parameters.SetSecurity.SecurityInformation);
  return Complete(irp, mount->Files->SetSecurity(open->Node->Id, kvhost::BuildSelfRelativeDescriptor(merged)));
}

}  // namespace

NTSTATUS DispatchVolumeRequest(PDEVICE_OBJECT device, PIRP irp) {
  Mount* mount = MountOf(device);
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  switch (sp->MajorFunction) {
    case IRP_MJ_CREATE:
      return Create(mount, irp);
    case IRP_MJ_CLEANUP:
      return Cleanup(irp);
    case IRP_MJ_CLOSE:
      return Close(irp);
    default:
      break;
  }
  Open* open = OpenOf(sp->FileObject);
  if (open == nullptr || open->Owner != mount) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
  {
    std::lock_guard<std::mutex> guard(State().Lock);
    if (mount->Dismounted) return Complete(irp, STATUS_VOLUME_DISMOUNTED);
  }
  switch (sp->MajorFunction) {
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
      return ReadOrWrite(mount, open, irp);
    case IRP_MJ_QUERY_INFORMATION:
      return QueryInformation(mount, open, irp);
    case IRP_MJ_SET_INFORMATION:
      return SetInformation(mount, open, irp);
    case IRP_MJ_QUERY_VOLUME_INFORMATION:
      return QueryVolumeInformation(mount, irp);
    case IRP_MJ_FILE_SYSTEM_CONTROL:
      return FileSystemControl(mount, open, irp);
    case IRP_MJ_QUERY_SECURITY:
      return QuerySecurity(mount, open, irp);
    case IRP_MJ_SET_SECURITY:
      return SetSecurity(mount, open, irp);
    case IRP_MJ_FLUSH_BUFFERS:
      return Complete(irp, STATUS_SUCCESS);  // the machine's file systems write through
    case IRP_MJ_DEVICE_CONTROL:
      // On a volume open, device control belongs to the volume below.
      if (open->Node != nullptr) return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
      IoSkipCurrentIrpStackLocation(irp);
      return IoCallDriver(mount->Io->Target(), irp);
    default:
      return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
  }
}

}  // namespace kvtestbed::fs
