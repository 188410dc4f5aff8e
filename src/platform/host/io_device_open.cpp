// Opening a device by name: symbolic links, file objects on devices, and the create,
// cleanup and close requests that opening and releasing them send down the device's stack.
//
// IoGetDeviceObjectPointer does what Windows does through ZwOpenFile: IRP_MJ_CREATE to the
// top of the named device's stack, then (the handle being closed at once) IRP_MJ_CLEANUP;
// IRP_MJ_CLOSE follows when the last reference to the file object goes.
#include <cstring>

#include "io_internal.h"
#include "kvhost/object.h"
#include "kvhost/verifier.h"

namespace kvhost::io {
namespace {

constexpr ULONG kFileOpenDisposition = 0x00000001;  // FILE_OPEN
constexpr ULONG kFileNonDirectoryFile = 0x00000040;
constexpr int kMaxLinkDepth = 16;

// A symbolic link object: its body holds the target's full name.
struct SymbolicLinkBody {
  USHORT Length;  // characters
  char16_t Target[1];
};

_OBJECT_TYPE g_symbolicLinkTypeRecord{"SymbolicLink", nullptr, nullptr};
POBJECT_TYPE SymbolicLinkType() { return &g_symbolicLinkTypeRecord; }

// "\GLOBAL??\X" and "\??\X" name the same link, as they do for kernel-mode callers.
WString NormalizeLinkName(WString name) {
  static const std::u16string_view kGlobal = u"\\GLOBAL??\\";
  if (name.size() >= kGlobal.size() && name.compare(0, kGlobal.size(), kGlobal) == 0)
    name = u"\\??\\" + name.substr(kGlobal.size());
  return name;
}

// The object a name leads to after following symbolic links, referenced; null when none.
PVOID LookupFollowingLinks(WString name) {
  for (int depth = 0; depth < kMaxLinkDepth; ++depth) {
    PVOID object = kvhost::ObLookupObjectByName(NormalizeLinkName(name));
    if (object == nullptr || kvhost::ObGetObjectType(object) != SymbolicLinkType()) return object;
    auto* link = static_cast<SymbolicLinkBody*>(object);
    name.assign(link->Target, link->Length);
    ObDereferenceObject(object);
  }
  return nullptr;
}

// Sends a create, cleanup or close request for `file` to `target` and waits for it.
NTSTATUS SendFileRequest(PFILE_OBJECT file, PDEVICE_OBJECT target, UCHAR major, ACCESS_MASK access) {
  PIRP irp = AllocateIrp(target->StackSize, IrpOrigin::Built, __builtin_return_address(0));
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  KEVENT event;
  KeInitializeEvent(&event, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb{};
  IO_SECURITY_CONTEXT security{};
  security.DesiredAccess = access;
  irp->UserEvent = &event;
  irp->UserIosb = &iosb;
  irp->RequestorMode = KernelMode;
  irp->Flags = IRP_SYNCHRONOUS_API | (major == IRP_MJ_CREATE ? IRP_CREATE_OPERATION : 0) |
               (major == IRP_MJ_CLOSE ? IRP_CLOSE_OPERATION : 0);
  irp->Tail.Overlay.Thread = PsGetCurrentThread();
  irp->Tail.Overlay.OriginalFileObject = file;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = major;
  sp->FileObject = file;
  if (major == IRP_MJ_CREATE) {
    sp->Parameters.Create.SecurityContext = &security;
    sp->Parameters.Create.Options = (kFileOpenDisposition << 24) | kFileNonDirectoryFile;
  }
  NTSTATUS status = IoCallDriver(target, irp);
  if (status == STATUS_PENDING) {
    KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
    status = iosb.Status;
  }
  return status;
}

// The last reference to a file object: an open file is closed on the stack that serves it.
void DeleteFileObject(PVOID body) {
  auto* file = static_cast<PFILE_OBJECT>(body);
  if (file->DeviceObject == nullptr) return;
  if (file->Flags & FO_FILE_OPEN) SendFileRequest(file, IoGetRelatedDeviceObject(file), IRP_MJ_CLOSE, 0);
  ObDereferenceObject(file->DeviceObject);
}

const bool kTypeRegistered = [] {
  (*IoFileObjectType)->DeleteProcedure = DeleteFileObject;
  return true;
}();

}  // namespace
}  // namespace kvhost::io

using namespace kvhost::io;

extern "C" {

NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName) {
  kvhost::WString link = NormalizeLinkName(kvhost::ToWString(SymbolicLinkName));
  kvhost::WString target = kvhost::ToWString(DeviceName);
  if (link.empty() || link[0] != u'\\' || target.empty()) return STATUS_OBJECT_NAME_INVALID;
  auto* body = static_cast<SymbolicLinkBody*>(kvhost::ObCreateObject(
      SymbolicLinkType(), sizeof(SymbolicLinkBody) + target.size() * sizeof(char16_t), link));
  if (body == nullptr) return STATUS_OBJECT_NAME_COLLISION;
  body->Length = static_cast<USHORT>(target.size());
  std::memcpy(body->Target, target.data(), target.size() * sizeof(char16_t));
  return STATUS_SUCCESS;  // the creation reference keeps the link until IoDeleteSymbolicLink
}

NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName) {
  PVOID link =
      kvhost::ObLookupObjectByName(NormalizeLinkName(kvhost::ToWString(SymbolicLinkName)), SymbolicLinkType());
  if (link == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
  kvhost::ObSetObjectName(link, u"");
  ObDereferenceObject(link);  // the lookup
  ObDereferenceObject(link);  // the creation
  return STATUS_SUCCESS;
}

PDEVICE_OBJECT IoGetRelatedDeviceObject(PFILE_OBJECT FileObject) {
  PDEVICE_OBJECT device = FileObject->DeviceObject;
  if (FileObject->Vpb != nullptr && FileObject->Vpb->DeviceObject != nullptr)
    device = FileObject->Vpb->DeviceObject;
  else if (!(FileObject->Flags & FO_DIRECT_DEVICE_OPEN) && device->Vpb != nullptr &&
           device->Vpb->DeviceObject != nullptr)
    device = device->Vpb->DeviceObject;
  return IoGetAttachedDevice(device);
}

NTSTATUS IoGetDeviceObjectPointer(PUNICODE_STRING ObjectName, ACCESS_MASK DesiredAccess, PFILE_OBJECT* FileObject,
                                  PDEVICE_OBJECT* DeviceObject) {
  if (ObjectName == nullptr || FileObject == nullptr || DeviceObject == nullptr) return STATUS_INVALID_PARAMETER;
  if (KeGetCurrentIrql() != PASSIVE_LEVEL)
    kvhost::ReportViolationF("IoGetDeviceObjectPointerIrql", "IoGetDeviceObjectPointer of \"%s\" at IRQL %d",
                             kvhost::ToUtf8(ObjectName).c_str(), KeGetCurrentIrql());
  PVOID object = LookupFollowingLinks(kvhost::ToWString(ObjectName));
  if (object == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
  if (kvhost::ObGetObjectType(object) != *IoDeviceObjectType) {
    ObDereferenceObject(object);
    return STATUS_OBJECT_TYPE_MISMATCH;
  }
  auto* device = static_cast<PDEVICE_OBJECT>(object);
  if (device->DeviceObjectExtension->DeletePending || (device->Flags & DO_DEVICE_INITIALIZING)) {
    ObDereferenceObject(device);
    return STATUS_NO_SUCH_DEVICE;
  }
  auto* file = static_cast<PFILE_OBJECT>(kvhost::ObCreateObject(*IoFileObjectType, sizeof(FILE_OBJECT)));
  if (file == nullptr) {
    ObDereferenceObject(device);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  file->Type = IO_TYPE_FILE;
  file->Size = sizeof(FILE_OBJECT);
  file->DeviceObject = device;  // takes over the lookup's reference
  file->ReadAccess = (DesiredAccess & (FILE_READ_DATA | GENERIC_READ)) != 0;
  file->WriteAccess = (DesiredAccess & (FILE_WRITE_DATA | FILE_APPEND_DATA | GENERIC_WRITE)) != 0;
  KeInitializeEvent(&file->Lock, SynchronizationEvent, FALSE);
  KeInitializeEvent(&file->Event, NotificationEvent, FALSE);
  InitializeListHead(&file->IrpList);

  PDEVICE_OBJECT top = IoGetRelatedDeviceObject(file);
  NTSTATUS status = SendFileRequest(file, top, IRP_MJ_CREATE, DesiredAccess);
  if (!NT_SUCCESS(status)) {
    ObDereferenceObject(file);  // never opened: no close goes down
    return status;
  }
  file->Flags |= FO_FILE_OPEN;
  SendFileRequest(file, top, IRP_MJ_CLEANUP, 0);
  file->Flags |= FO_CLEANUP_COMPLETE;
  *FileObject = file;
  *DeviceObject = top;
  return STATUS_SUCCESS;
}

}  // extern "C"
