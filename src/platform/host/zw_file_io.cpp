// Requests on open files: reads and writes, information queries and sets, volume
// information, file-system control, security and flushes. Each builds the IRP Windows'
// I/O manager builds, sends it to the top of the stack that serves the file (the file
// system's volume device, or the device's own stack for a direct device open) and waits.
//
// Requests are carried out synchronously for the caller whatever the file's mode; a caller's
// event is cleared first and signalled at completion. Operations on one synchronous file
// object are serialised (its Busy and Lock), and its position follows reads and writes. As
// for any caller in kernel mode, the handle's granted access is not checked.
#include <algorithm>
#include <cstring>
#include <vector>

#include "kvhost/object.h"
#include "kvhost/security.h"
#include "kvhost/verifier.h"
#include "passive_level.h"
#include "zw_file_internal.h"

namespace kvhost::io {
namespace {

// The file object behind a handle, referenced, with the access the handle was opened with.
class FileReference {
 public:
  explicit FileReference(HANDLE handle) {
    OBJECT_HANDLE_INFORMATION info{};
    status_ = ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, reinterpret_cast<PVOID*>(&file_),
                                        &info);
    granted_ = info.GrantedAccess;
  }
  ~FileReference() {
    if (file_ != nullptr) ObDereferenceObject(file_);
  }
  FileReference(const FileReference&) = delete;
  FileReference& operator=(const FileReference&) = delete;

  NTSTATUS Status() const { return status_; }
  PFILE_OBJECT get() const { return file_; }
  PFILE_OBJECT operator->() const { return file_; }
  ACCESS_MASK Granted() const { return granted_; }

 private:
  PFILE_OBJECT file_ = nullptr;
  NTSTATUS status_ = STATUS_INVALID_HANDLE;
  ACCESS_MASK granted_ = 0;
};

// Serialises the operations on a synchronous file object, as Windows' file object lock does.
class SynchronousFileLock {
 public:
  explicit SynchronousFileLock(PFILE_OBJECT file) : file_((file->Flags & FO_SYNCHRONOUS_IO) ? file : nullptr) {
    if (file_ == nullptr) return;
    InterlockedIncrement(reinterpret_cast<volatile LONG*>(&file_->Waiters));
    while (InterlockedExchange(reinterpret_cast<volatile LONG*>(&file_->Busy), 1) != 0)
      KeWaitForSingleObject(&file_->Lock, Executive, KernelMode, FALSE, nullptr);
    InterlockedDecrement(reinterpret_cast<volatile LONG*>(&file_->Waiters));
  }
  ~SynchronousFileLock() {
    if (file_ == nullptr) return;
    InterlockedExchange(reinterpret_cast<volatile LONG*>(&file_->Busy), 0);
    if (file_->Waiters != 0) KeSetEvent(&file_->Lock, IO_NO_INCREMENT, FALSE);
  }
  SynchronousFileLock(const SynchronousFileLock&) = delete;
  SynchronousFileLock& operator=(const SynchronousFileLock&) = delete;

 private:
  PFILE_OBJECT file_;
};

// The caller's optional event: cleared before the request, signalled when it is done.
class CallerEvent {
 public:
  explicit CallerEvent(HANDLE handle) {
    if (handle == nullptr) return;
    status_ = ObReferenceObjectByHandle(handle, EVENT_MODIFY_STATE, *ExEventObjectType, KernelMode,
                                        reinterpret_cast<PVOID*>(&event_), nullptr);
    if (event_ != nullptr) KeClearEvent(event_);
  }
  ~CallerEvent() {
    if (event_ == nullptr) return;
    KeSetEvent(event_, IO_NO_INCREMENT, FALSE);
    ObDereferenceObject(event_);
  }
  CallerEvent(const CallerEvent&) = delete;
  CallerEvent& operator=(const CallerEvent&) = delete;
  NTSTATUS Status() const { return status_; }

 private:
  PKEVENT event_ = nullptr;
  NTSTATUS status_ = STATUS_SUCCESS;
};

// The smallest buffer each information class takes; 0 for classes not served here.
ULONG MinimumFileInformationLength(FILE_INFORMATION_CLASS infoClass) {
  switch (infoClass) {
    case FileBasicInformation:
      return sizeof(FILE_BASIC_INFORMATION);
    case FileStandardInformation:
      return sizeof(FILE_STANDARD_INFORMATION);
    case FileInternalInformation:
      return sizeof(FILE_INTERNAL_INFORMATION);
    case FilePositionInformation:
      return sizeof(FILE_POSITION_INFORMATION);
    case FileNameInformation:
      return sizeof(FILE_NAME_INFORMATION);
    case FileDispositionInformation:
      return sizeof(FILE_DISPOSITION_INFORMATION);
    case FileAllocationInformation:
      return sizeof(FILE_ALLOCATION_INFORMATION);
    case FileEndOfFileInformation:
      return sizeof(FILE_END_OF_FILE_INFORMATION);
    case FileValidDataLengthInformation:
      return sizeof(FILE_VALID_DATA_LENGTH_INFORMATION);
    case FileNetworkOpenInformation:
      return sizeof(FILE_NETWORK_OPEN_INFORMATION);
    case FileAttributeTagInformation:
      return sizeof(FILE_ATTRIBUTE_TAG_INFORMATION);
    case FileAlignmentInformation:
      return sizeof(FILE_ALIGNMENT_INFORMATION);
    default:
      return 0;
  }
}

ULONG MinimumVolumeInformationLength(FS_INFORMATION_CLASS infoClass) {
  switch (infoClass) {
    case FileFsVolumeInformation:
      return sizeof(FILE_FS_VOLUME_INFORMATION);
    case FileFsSizeInformation:
      return sizeof(FILE_FS_SIZE_INFORMATION);
    case FileFsDeviceInformation:
      return sizeof(FILE_FS_DEVICE_INFORMATION);
    case FileFsAttributeInformation:
      return sizeof(FILE_FS_ATTRIBUTE_INFORMATION);
    case FileFsFullSizeInformation:
      return sizeof(FILE_FS_FULL_SIZE_INFORMATION);
    default:
      return 0;
  }
}

// A request whose data travels in a system buffer (information queries and sets): the
// input copied in, the output copied back by the completion.
PIRP AllocateBufferedFileRequest(PFILE_OBJECT file, PDEVICE_OBJECT target, UCHAR major, PVOID buffer, ULONG length,
                                 bool output, void* site) {
  PIRP irp = AllocateFileRequest(file, target, major, site);
  if (irp == nullptr || length == 0) return irp;
  void* system = AllocateIoPool(length, kSystemBufferTag, site, MajorFunctionName(major));
  if (system == nullptr) {
    FreeIrp(irp, MajorFunctionName(major));
    return nullptr;
  }
  if (!output) std::memcpy(system, buffer, length);
  irp->AssociatedIrp.SystemBuffer = system;
  irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER;
  if (output) {
    irp->Flags |= IRP_INPUT_OPERATION;
    irp->UserBuffer = buffer;
  }
  return irp;
}

bool IsSectorAligned(PFILE_OBJECT file, LONGLONG value) {
  const ULONG sector = IoGetRelatedDeviceObject(file)->SectorSize;
  return sector == 0 || value % sector == 0;
}

NTSTATUS Transfer(UCHAR major, HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine,
                  PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset, PULONG Key,
                  void* site) {
  if (IoStatusBlock == nullptr || (Buffer == nullptr && Length != 0)) return STATUS_INVALID_PARAMETER;
  if (ApcRoutine != nullptr) return STATUS_NOT_SUPPORTED;  // completion APCs are not delivered here
  FileReference file(FileHandle);
  if (!NT_SUCCESS(file.Status())) return file.Status();
  CallerEvent event(Event);
  if (!NT_SUCCESS(event.Status())) return event.Status();
  SynchronousFileLock serialised(file.get());

  const bool synchronous = (file->Flags & FO_SYNCHRONOUS_IO) != 0;
  LARGE_INTEGER offset{};
  const bool usePosition = ByteOffset == nullptr || (ByteOffset->HighPart == -1 &&
                                                     ByteOffset->LowPart == FILE_USE_FILE_POINTER_POSITION);
  if (usePosition) {
    if (!synchronous) return STATUS_INVALID_PARAMETER;
    offset = file->CurrentByteOffset;
  } else {
    offset = *ByteOffset;
    const bool toEnd = major == IRP_MJ_WRITE && offset.HighPart == -1 && offset.LowPart == FILE_WRITE_TO_END_OF_FILE;
    if (offset.QuadPart < 0 && !toEnd) return STATUS_INVALID_PARAMETER;
  }
  if ((file->Flags & FO_NO_INTERMEDIATE_BUFFERING) && offset.QuadPart >= 0 &&
      (!IsSectorAligned(file.get(), offset.QuadPart) || !IsSectorAligned(file.get(), Length)))
    return STATUS_INVALID_PARAMETER;

  PDEVICE_OBJECT target = IoGetRelatedDeviceObject(file.get());
  PIRP irp = Length != 0 ? BuildFsdRequest(major, target, Buffer, Length, &offset, IoStatusBlock, IrpOrigin::Built, site)
                         : AllocateFileRequest(file.get(), target, major, site);
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  irp->Flags |= IRP_SYNCHRONOUS_API | (major == IRP_MJ_READ ? IRP_READ_OPERATION : IRP_WRITE_OPERATION);
  if (file->Flags & FO_NO_INTERMEDIATE_BUFFERING) irp->Flags |= IRP_NOCACHE;
  irp->Tail.Overlay.OriginalFileObject = file.get();
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = major;
  sp->FileObject = file.get();
  sp->Parameters.Read.Length = Length;
  sp->Parameters.Read.ByteOffset = offset;
  if (Key != nullptr) {
    sp->Parameters.Read.Key = *Key;
    sp->Flags |= SL_KEY_SPECIFIED;
  }
  if (file->Flags & FO_WRITE_THROUGH) sp->Flags |= SL_WRITE_THROUGH;
  return CallFileRequest(target, irp, IoStatusBlock);
}

}  // namespace
}  // namespace kvhost::io

using namespace kvhost::io;

extern "C" {

NTSTATUS ZwReadFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                    PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                    PULONG Key) {
  UNREFERENCED_PARAMETER(ApcContext);
  KV_REQUIRE_PASSIVE_LEVEL("ZwReadFile");
  return Transfer(IRP_MJ_READ, FileHandle, Event, ApcRoutine, IoStatusBlock, Buffer, Length, ByteOffset, Key,
                  __builtin_return_address(0));
}

NTSTATUS ZwWriteFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                     PIO_STATUS_BLOCK IoStatusBlock, PVOID Buffer, ULONG Length, PLARGE_INTEGER ByteOffset,
                     PULONG Key) {
  UNREFERENCED_PARAMETER(ApcContext);
  KV_REQUIRE_PASSIVE_LEVEL("ZwWriteFile");
  return Transfer(IRP_MJ_WRITE, FileHandle, Event, ApcRoutine, IoStatusBlock, Buffer, Length, ByteOffset, Key,
                  __builtin_return_address(0));
}

NTSTATUS ZwFlushBuffersFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwFlushBuffersFile");
  if (IoStatusBlock == nullptr) return STATUS_INVALID_PARAMETER;
  FileReference file(FileHandle);
  if (!NT_SUCCESS(file.Status())) return file.Status();
  SynchronousFileLock serialised(file.get());
  PDEVICE_OBJECT target = IoGetRelatedDeviceObject(file.get());
  PIRP irp = AllocateFileRequest(file.get(), target, IRP_MJ_FLUSH_BUFFERS, __builtin_return_address(0));
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  return CallFileRequest(target, irp, IoStatusBlock);
}

NTSTATUS ZwQueryInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                                FILE_INFORMATION_CLASS FileInformationClass) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwQueryInformationFile");
  if (IoStatusBlock == nullptr || FileInformation == nullptr) return STATUS_INVALID_PARAMETER;
  const ULONG minimum = MinimumFileInformationLength(FileInformationClass);
  if (minimum == 0) return STATUS_INVALID_INFO_CLASS;
  if (Length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
  FileReference file(FileHandle);
  if (!NT_SUCCESS(file.Status())) return file.Status();
  SynchronousFileLock serialised(file.get());
  // The position is the file object's own: the I/O manager answers it.
  if (FileInformationClass == FilePositionInformation) {
    static_cast<PFILE_POSITION_INFORMATION>(FileInformation)->CurrentByteOffset = file->CurrentByteOffset;
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = sizeof(FILE_POSITION_INFORMATION);
    return STATUS_SUCCESS;
  }
  PDEVICE_OBJECT target = IoGetRelatedDeviceObject(file.get());
  PIRP irp = AllocateBufferedFileRequest(file.get(), target, IRP_MJ_QUERY_INFORMATION, FileInformation, Length, true,
                                         __builtin_return_address(0));
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->Parameters.QueryFile.Length = Length;
  sp->Parameters.QueryFile.FileInformationClass = FileInformationClass;
  return CallFileRequest(target, irp, IoStatusBlock);
}

NTSTATUS ZwSetInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FileInformation, ULONG Length,
                              FILE_INFORMATION_CLASS FileInformationClass) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwSetInformationFile");
  if (IoStatusBlock == nullptr || FileInformation == nullptr) return STATUS_INVALID_PARAMETER;
  const ULONG minimum = MinimumFileInformationLength(FileInformationClass);
  if (minimum == 0) return STATUS_INVALID_INFO_CLASS;
  if (Length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
  FileReference file(FileHandle);
  if (!NT_SUCCESS(file.Status())) return file.Status();
  SynchronousFileLock serialised(file.get());
  if (FileInformationClass == FilePositionInformation) {
    const LONGLONG position = static_cast<PFILE_POSITION_INFORMATION>(FileInformation)->CurrentByteOffset.QuadPart;
    if (position < 0 || ((file->Flags & FO_NO_INTERMEDIATE_BUFFERING) && !IsSectorAligned(file.get(), position)))
      return STATUS_INVALID_PARAMETER;
    file->CurrentByteOffset.QuadPart = position;
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = 0;
    return STATUS_SUCCESS;
  }
  PDEVICE_OBJECT target = IoGetRelatedDeviceObject(file.get());
  PIRP irp = AllocateBufferedFileRequest(file.get(), target, IRP_MJ_SET_INFORMATION, FileInformation, Length, false,
                                         __builtin_return_address(0));
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->Parameters.SetFile.Length = Length;
  sp->Parameters.SetFile.FileInformationClass = FileInformationClass;
  return CallFileRequest(target, irp, IoStatusBlock);
}

NTSTATUS ZwQueryVolumeInformationFile(HANDLE FileHandle, PIO_STATUS_BLOCK IoStatusBlock, PVOID FsInformation,
                                      ULONG Length, FS_INFORMATION_CLASS FsInformationClass) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwQueryVolumeInformationFile");
  if (IoStatusBlock == nullptr || FsInformation == nullptr) return STATUS_INVALID_PARAMETER;
  const ULONG minimum = MinimumVolumeInformationLength(FsInformationClass);
  if (minimum == 0) return STATUS_INVALID_INFO_CLASS;
  if (Length < minimum) return STATUS_INFO_LENGTH_MISMATCH;
  FileReference file(FileHandle);
  if (!NT_SUCCESS(file.Status())) return file.Status();
  SynchronousFileLock serialised(file.get());
  // The device's type and characteristics are the I/O manager's to answer.
  if (FsInformationClass == FileFsDeviceInformation) {
    auto* info = static_cast<PFILE_FS_DEVICE_INFORMATION>(FsInformation);
    info->DeviceType = file->DeviceObject->DeviceType;
    info->Characteristics = file->DeviceObject->Characteristics;
    if (file->DeviceObject->Vpb != nullptr && (file->DeviceObject->Vpb->Flags & VPB_MOUNTED))
      info->Characteristics |= FILE_DEVICE_IS_MOUNTED;
    IoStatusBlock->Status = STATUS_SUCCESS;
    IoStatusBlock->Information = sizeof(FILE_FS_DEVICE_INFORMATION);
    return STATUS_SUCCESS;
  }
  PDEVICE_OBJECT target = IoGetRelatedDeviceObject(file.get());
  PIRP irp = AllocateBufferedFileRequest(file.get(), target, IRP_MJ_QUERY_VOLUME_INFORMATION, FsInformation, Length,
                                         true, __builtin_return_address(0));
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->Parameters.QueryVolume.Length = Length;
  sp->Parameters.QueryVolume.FsInformationClass = FsInformationClass;
  return CallFileRequest(target, irp, IoStatusBlock);
}

NTSTATUS ZwFsControlFile(HANDLE FileHandle, HANDLE Event, PIO_APC_ROUTINE ApcRoutine, PVOID ApcContext,
                         PIO_STATUS_BLOCK IoStatusBlock, ULONG FsControlCode, PVOID InputBuffer,
                         ULONG InputBufferLength, PVOID OutputBuffer, ULONG OutputBufferLength) {
  UNREFERENCED_PARAMETER(ApcContext);
  KV_REQUIRE_PASSIVE_LEVEL("ZwFsControlFile");
  if (IoStatusBlock == nullptr) return STATUS_INVALID_PARAMETER;
  if (ApcRoutine != nullptr) return STATUS_NOT_SUPPORTED;
  if ((InputBuffer == nullptr && InputBufferLength != 0) || (OutputBuffer == nullptr && OutputBufferLength != 0))
    return STATUS_INVALID_PARAMETER;
  FileReference file(FileHandle);
  if (!NT_SUCCESS(file.Status())) return file.Status();
  CallerEvent event(Event);
  if (!NT_SUCCESS(event.Status())) return event.Status();
  SynchronousFileLock serialised(file.get());
  // Device and file-system control share their buffering by method: the request is built as
  // the one, then made the other.
  PDEVICE_OBJECT target = IoGetRelatedDeviceObject(file.get());
  PIRP irp = IoBuildDeviceIoControlRequest(FsControlCode, target, InputBuffer, InputBufferLength, OutputBuffer,
                                           OutputBufferLength, FALSE, nullptr, IoStatusBlock);
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  irp->Flags |= IRP_SYNCHRONOUS_API;
  irp->Tail.Overlay.OriginalFileObject = file.get();
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = IRP_MJ_FILE_SYSTEM_CONTROL;
  sp->MinorFunction = IRP_MN_USER_FS_REQUEST;
  sp->FileObject = file.get();
  return CallFileRequest(target, irp, IoStatusBlock);
}

// Only file objects carry descriptors that a driver sets through this kernel.
NTSTATUS ZwSetSecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                             PSECURITY_DESCRIPTOR SecurityDescriptor) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwSetSecurityObject");
  if (SecurityDescriptor == nullptr) return STATUS_ACCESS_VIOLATION;
  FileReference file(Handle);
  if (!NT_SUCCESS(file.Status()))
    return file.Status() == STATUS_OBJECT_TYPE_MISMATCH ? STATUS_NOT_SUPPORTED : file.Status();
  kvhost::SecurityParts parts;
  constexpr size_t kBound = 1 << 16;
  if (!kvhost::ParseSecurityDescriptor(SecurityDescriptor, kBound, &parts)) return STATUS_INVALID_SECURITY_DESCR;
  std::vector<uint8_t> captured = kvhost::BuildSelfRelativeDescriptor(parts);
  PDEVICE_OBJECT target = IoGetRelatedDeviceObject(file.get());
  PIRP irp = AllocateFileRequest(file.get(), target, IRP_MJ_SET_SECURITY, __builtin_return_address(0));
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->Parameters.SetSecurity.SecurityInformation = SecurityInformation;
  sp->Parameters.SetSecurity.SecurityDescriptor = captured.data();
  IO_STATUS_BLOCK iosb{};
  return CallFileRequest(target, irp, &iosb);
}

NTSTATUS ZwQuerySecurityObject(HANDLE Handle, SECURITY_INFORMATION SecurityInformation,
                               PSECURITY_DESCRIPTOR SecurityDescriptor, ULONG Length, PULONG LengthNeeded) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwQuerySecurityObject");
  if (LengthNeeded == nullptr || (SecurityDescriptor == nullptr && Length != 0)) return STATUS_INVALID_PARAMETER;
  FileReference file(Handle);
  if (!NT_SUCCESS(file.Status()))
    return file.Status() == STATUS_OBJECT_TYPE_MISMATCH ? STATUS_NOT_SUPPORTED : file.Status();
  PDEVICE_OBJECT target = IoGetRelatedDeviceObject(file.get());
  PIRP irp = AllocateFileRequest(file.get(), target, IRP_MJ_QUERY_SECURITY, __builtin_return_address(0));
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  irp->UserBuffer = SecurityDescriptor;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->Parameters.QuerySecurity.SecurityInformation = SecurityInformation;
  sp->Parameters.QuerySecurity.Length = Length;
  IO_STATUS_BLOCK iosb{};
  NTSTATUS status = CallFileRequest(target, irp, &iosb);
  // A file system answers a short buffer with the size it needs and STATUS_BUFFER_OVERFLOW;
  // the caller is told STATUS_BUFFER_TOO_SMALL.
  *LengthNeeded = static_cast<ULONG>(iosb.Information);
  if (status == STATUS_BUFFER_OVERFLOW) status = STATUS_BUFFER_TOO_SMALL;
  return status;
}

}  // extern "C"
