// Opening files: ZwCreateFile, ZwOpenFile and ZwDeleteFile, and the I/O manager's parse of
// a name that leads to a device (IopParseDevice): the rest of the name is a path on the
// volume, which the volume's file system serves once mounted; an open of the device itself
// that asks only for attributes or security goes to the device's own stack ("direct device
// open") without mounting anything.
#include <cstring>
#include <vector>

#include "kvhost/object.h"
#include "kvhost/security.h"
#include "kvhost/verifier.h"
#include "passive_level.h"
#include "zw_file_internal.h"

namespace kvhost::io {
namespace {

// A caller's self-relative descriptor is read no further than this (its parts bound it).
constexpr size_t kCapturedDescriptorBound = 1 << 16;

// Rights that an open of a device itself may ask for without mounting its volume.
constexpr ACCESS_MASK kDirectDeviceOpenRights =
    SYNCHRONIZE | FILE_READ_ATTRIBUTES | READ_CONTROL | ACCESS_SYSTEM_SECURITY | WRITE_OWNER | WRITE_DAC;

ACCESS_MASK MapGenericFileRights(ACCESS_MASK access) {
  if (access & GENERIC_READ) access |= FILE_GENERIC_READ;
  if (access & GENERIC_WRITE) access |= FILE_GENERIC_WRITE;
  if (access & GENERIC_EXECUTE) access |= FILE_GENERIC_EXECUTE;
  if (access & GENERIC_ALL) access |= FILE_ALL_ACCESS;
  return access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
}

// The parameter checks IoCreateFile makes before any name is looked at.
NTSTATUS CheckCreateParameters(ACCESS_MASK access, ULONG disposition, ULONG options) {
  const ULONG synchronous = options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT);
  if (disposition > FILE_MAXIMUM_DISPOSITION || (options & ~FILE_VALID_OPTION_FLAGS) != 0)
    return STATUS_INVALID_PARAMETER;
  if (synchronous == (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT) ||
      (synchronous != 0 && !(access & SYNCHRONIZE)))
    return STATUS_INVALID_PARAMETER;
  if ((options & FILE_DIRECTORY_FILE) && (options & FILE_NON_DIRECTORY_FILE)) return STATUS_INVALID_PARAMETER;
  if ((options & FILE_DIRECTORY_FILE) && disposition != FILE_CREATE && disposition != FILE_OPEN &&
      disposition != FILE_OPEN_IF)
    return STATUS_INVALID_PARAMETER;
  if ((options & FILE_DELETE_ON_CLOSE) && !(access & DELETE)) return STATUS_INVALID_PARAMETER;
  if ((options & FILE_NO_INTERMEDIATE_BUFFERING) && (access & FILE_APPEND_DATA)) return STATUS_INVALID_PARAMETER;
  return STATUS_SUCCESS;
}

ULONG FileObjectFlags(ULONG options, bool direct) {
  ULONG flags = 0;
  if (options & (FILE_SYNCHRONOUS_IO_ALERT | FILE_SYNCHRONOUS_IO_NONALERT)) flags |= FO_SYNCHRONOUS_IO;
  if (options & FILE_SYNCHRONOUS_IO_ALERT) flags |= FO_ALERTABLE_IO;
  if (options & FILE_NO_INTERMEDIATE_BUFFERING) flags |= FO_NO_INTERMEDIATE_BUFFERING;
  if (options & FILE_WRITE_THROUGH) flags |= FO_WRITE_THROUGH;
  if (options & FILE_SEQUENTIAL_ONLY) flags |= FO_SEQUENTIAL_ONLY;
  if (direct) flags |= FO_DIRECT_DEVICE_OPEN;
  return flags;
}

// A file object on `device` whose name (the path on the volume) lives in its own body.
PFILE_OBJECT NewFileObject(PDEVICE_OBJECT device, const WString& path) {
  const size_t nameBytes = path.size() * sizeof(WCHAR);
  auto* file =
      static_cast<PFILE_OBJECT>(kvhost::ObCreateObject(*IoFileObjectType, sizeof(FILE_OBJECT) + nameBytes));
  if (file == nullptr) return nullptr;
  file->Type = IO_TYPE_FILE;
  file->Size = sizeof(FILE_OBJECT);
  file->DeviceObject = device;
  if (nameBytes != 0) {
    auto* text = reinterpret_cast<PWCH>(file + 1);
    std::memcpy(text, path.data(), nameBytes);
    file->FileName.Buffer = text;
    file->FileName.Length = file->FileName.MaximumLength = static_cast<USHORT>(nameBytes);
  }
  KeInitializeEvent(&file->Lock, SynchronizationEvent, FALSE);
  KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
  InitializeListHead(&file->IrpList);
  return file;
}

}  // namespace

NTSTATUS OpenFileObject(std::u16string_view name, PFILE_OBJECT relatedTo, const OpenParameters& parameters,
                        PFILE_OBJECT* file, PIO_STATUS_BLOCK iosb, void* site) {
  *file = nullptr;
  PDEVICE_OBJECT device = nullptr;
  WString path;
  if (relatedTo != nullptr) {
    // A name below an open directory: the same volume, the directory's path in front.
    if (!name.empty() && name[0] == u'\\') return STATUS_OBJECT_NAME_INVALID;
    device = relatedTo->DeviceObject;
    ObReferenceObject(device);
    path = kvhost::ToWString(&relatedTo->FileName);
    if (path.empty() || path.back() != u'\\') path += u'\\';
    path += name;
  } else {
    if (name.empty()) return STATUS_OBJECT_NAME_INVALID;
    ResolvedName resolved = ResolveObjectName(name);
    if (resolved.Object == nullptr) return resolved.Status;
    if (kvhost::ObGetObjectType(resolved.Object) != *IoDeviceObjectType) {
      ObDereferenceObject(resolved.Object);
      return STATUS_OBJECT_TYPE_MISMATCH;
    }
    device = static_cast<PDEVICE_OBJECT>(resolved.Object);
    path = std::move(resolved.Remaining);
  }
  if (device->DeviceObjectExtension->DeletePending || (device->Flags & DO_DEVICE_INITIALIZING)) {
    ObDereferenceObject(device);
    return STATUS_NO_SUCH_DEVICE;
  }

  // The descriptor for a new file reaches the file system captured, in self-relative form.
  std::vector<uint8_t> descriptor;
  if (parameters.SecurityDescriptor != nullptr) {
    kvhost::SecurityParts parts;
    if (!kvhost::ParseSecurityDescriptor(parameters.SecurityDescriptor, kCapturedDescriptorBound, &parts)) {
      ObDereferenceObject(device);
      return STATUS_INVALID_SECURITY_DESCR;
    }
    descriptor = kvhost::BuildSelfRelativeDescriptor(parts);
  }

  const ACCESS_MASK access = MapGenericFileRights(parameters.DesiredAccess);
  const bool direct = path.empty() && (access & ~kDirectDeviceOpenRights) == 0;
  bool onFileSystem = false;
  if (device->Vpb != nullptr && !direct) {
    NTSTATUS mounted = MountIfNeeded(device);
    // A volume no file system recognises is opened as the raw device (Windows' RAW file
    // system); a path on it leads nowhere.
    if (!NT_SUCCESS(mounted) && !(mounted == STATUS_UNRECOGNIZED_VOLUME && path.empty())) {
      ObDereferenceObject(device);
      return mounted;
    }
    onFileSystem = NT_SUCCESS(mounted);
  }

  PFILE_OBJECT opened = NewFileObject(device, path);  // takes over the device reference
  if (opened == nullptr) {
    ObDereferenceObject(device);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  opened->Flags = FileObjectFlags(parameters.Options, direct);
  if (onFileSystem) opened->Vpb = device->Vpb;
  if (relatedTo != nullptr) {
    ObReferenceObject(relatedTo);
    opened->RelatedFileObject = relatedTo;
  }

  PDEVICE_OBJECT target = IoGetRelatedDeviceObject(opened);
  PIRP irp = AllocateFileRequest(opened, target, IRP_MJ_CREATE, site);
  if (irp == nullptr) {
    ObDereferenceObject(opened);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  ACCESS_STATE accessState{};
  accessState.OriginalDesiredAccess = parameters.DesiredAccess;
  accessState.RemainingDesiredAccess = access;
  accessState.SecurityDescriptor = descriptor.empty() ? nullptr : descriptor.data();
  IO_SECURITY_CONTEXT security{};
  security.SecurityQos = parameters.SecurityQualityOfService;
  security.AccessState = &accessState;
  security.DesiredAccess = access;
  security.FullCreateOptions = parameters.Options;
  irp->Flags |= IRP_CREATE_OPERATION | IRP_DEFER_IO_COMPLETION;
  irp->Overlay.AllocationSize.QuadPart = parameters.AllocationSize;
  irp->AssociatedIrp.SystemBuffer = parameters.EaBuffer;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->Flags = (parameters.ObjectAttributes & OBJ_CASE_INSENSITIVE) ? 0 : SL_CASE_SENSITIVE;
  sp->Parameters.Create.SecurityContext = &security;
  sp->Parameters.Create.Options = (parameters.Disposition << 24) | (parameters.Options & FILE_VALID_OPTION_FLAGS);
  sp->Parameters.Create.FileAttributes = static_cast<USHORT>(parameters.FileAttributes);
  sp->Parameters.Create.ShareAccess = static_cast<USHORT>(parameters.ShareAccess);
  sp->Parameters.Create.EaLength = parameters.EaLength;
  const NTSTATUS status = CallFileRequest(target, irp, iosb);
  if (!NT_SUCCESS(status) || status == STATUS_REPARSE) {
    ObDereferenceObject(opened);  // never opened: no cleanup or close goes down
    return status == STATUS_REPARSE ? STATUS_OBJECT_NAME_INVALID : status;
  }
  opened->Flags |= FO_FILE_OPEN;
  opened->ReadAccess |= (access & (FILE_READ_DATA | FILE_EXECUTE)) != 0;
  opened->WriteAccess |= (access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0;
  opened->DeleteAccess |= (access & DELETE) != 0;
  *file = opened;
  return status;
}

}  // namespace kvhost::io

using namespace kvhost::io;

extern "C" {

NTSTATUS ZwCreateFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                      PIO_STATUS_BLOCK IoStatusBlock, PLARGE_INTEGER AllocationSize, ULONG FileAttributes,
                      ULONG ShareAccess, ULONG CreateDisposition, ULONG CreateOptions, PVOID EaBuffer,
                      ULONG EaLength) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwCreateFile");
  if (FileHandle == nullptr || ObjectAttributes == nullptr || IoStatusBlock == nullptr) return STATUS_INVALID_PARAMETER;
  *FileHandle = nullptr;
  NTSTATUS status = CheckCreateParameters(DesiredAccess, CreateDisposition, CreateOptions);
  if (!NT_SUCCESS(status)) return status;

  PFILE_OBJECT relatedTo = nullptr;
  if (ObjectAttributes->RootDirectory != nullptr) {
    status = ObReferenceObjectByHandle(ObjectAttributes->RootDirectory, 0, *IoFileObjectType, KernelMode,
                                       reinterpret_cast<PVOID*>(&relatedTo), nullptr);
    if (!NT_SUCCESS(status)) return status;
  }
  OpenParameters open;
  open.DesiredAccess = DesiredAccess;
  open.ObjectAttributes = ObjectAttributes->Attributes;
  open.SecurityDescriptor = ObjectAttributes->SecurityDescriptor;
  open.SecurityQualityOfService = ObjectAttributes->SecurityQualityOfService;
  open.AllocationSize = AllocationSize != nullptr ? AllocationSize->QuadPart : 0;
  open.FileAttributes = FileAttributes;
  open.ShareAccess = ShareAccess;
  open.Disposition = CreateDisposition;
  open.Options = CreateOptions;
  open.EaBuffer = EaBuffer;
  open.EaLength = EaLength;
  PFILE_OBJECT file = nullptr;
  IO_STATUS_BLOCK iosb{};
  status = OpenFileObject(kvhost::ToWString(ObjectAttributes->ObjectName), relatedTo, open, &file, &iosb,
                          __builtin_return_address(0));
  if (relatedTo != nullptr) ObDereferenceObject(relatedTo);
  if (iosb.Status != STATUS_PENDING && (NT_SUCCESS(status) || iosb.Status == status)) *IoStatusBlock = iosb;
  if (!NT_SUCCESS(status)) return status;
  *FileHandle = kvhost::ObCreateHandle(file, MapGenericFileRights(DesiredAccess));
  ObDereferenceObject(file);  // the handle holds it now
  return status;
}

NTSTATUS ZwOpenFile(PHANDLE FileHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                    PIO_STATUS_BLOCK IoStatusBlock, ULONG ShareAccess, ULONG OpenOptions) {
  return ZwCreateFile(FileHandle, DesiredAccess, ObjectAttributes, IoStatusBlock, nullptr, 0, ShareAccess, FILE_OPEN,
                      OpenOptions, nullptr, 0);
}

NTSTATUS ZwDeleteFile(POBJECT_ATTRIBUTES ObjectAttributes) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwDeleteFile");
  HANDLE handle = nullptr;
  IO_STATUS_BLOCK iosb{};
  NTSTATUS status = ZwCreateFile(&handle, DELETE, ObjectAttributes, &iosb, nullptr, 0,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN,
                                 FILE_DELETE_ON_CLOSE | FILE_OPEN_REPARSE_POINT, nullptr, 0);
  if (NT_SUCCESS(status)) ZwClose(handle);
  return status;
}

}  // extern "C"
