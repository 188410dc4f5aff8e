// Opening a device or a file by name: symbolic links and the resolution of names through
// the object namespace, the life of a file object (IRP_MJ_CLEANUP when its last handle is
// closed, IRP_MJ_CLOSE when its last reference goes), and the requests the I/O manager
// builds about an open file.
//
// IoGetDeviceObjectPointer does what Windows does: ZwOpenFile of the name, a reference to
// the file object, ZwClose of the handle (the cleanup); the close follows when the caller
// drops the last reference.
#include <cstring>

#include "kvhost/object.h"
#include "kvhost/strings.h"
#include "kvhost/verifier.h"
#include "zw_file_internal.h"

namespace kvhost::io {
namespace {

constexpr int kMaxLinkDepth = 16;
// Windows allocates cleanup and close requests so that they cannot fail; an injected pool
// failure here is retried, as its must-succeed allocation would wait for memory.
constexpr int kLifecycleRequestAttempts = 64;

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

// Sends IRP_MJ_CLEANUP or IRP_MJ_CLOSE for `file` to the stack that serves it and waits.
void SendLifecycleRequest(PFILE_OBJECT file, UCHAR major) {
  PDEVICE_OBJECT target = IoGetRelatedDeviceObject(file);
  PIRP irp = nullptr;
  for (int attempt = 0; irp == nullptr && attempt < kLifecycleRequestAttempts; ++attempt)
    irp = AllocateFileRequest(file, target, major, __builtin_return_address(0));
  if (irp == nullptr) {
    ReportViolationF("FileRequestLost", "%s of file object %p could not be allocated; %s never sees it",
                     MajorFunctionName(major), static_cast<void*>(file), DescribeDevice(target).c_str());
    return;
  }
  if (major == IRP_MJ_CLOSE) irp->Flags |= IRP_CLOSE_OPERATION;
  IO_STATUS_BLOCK iosb{};
  CallFileRequest(target, irp, &iosb);
}

// The last handle to a file object is closed: the file system cleans the open up.
void CloseFileObjectHandle(PVOID body, ULONG handlesLeft) {
  auto* file = static_cast<PFILE_OBJECT>(body);
  if (handlesLeft != 0 || !(file->Flags & FO_FILE_OPEN) || (file->Flags & FO_CLEANUP_COMPLETE)) return;
  SendLifecycleRequest(file, IRP_MJ_CLEANUP);
  file->Flags |= FO_CLEANUP_COMPLETE;
}

// The last reference to a file object: an open file is closed on the stack that serves it.
void DeleteFileObject(PVOID body) {
  auto* file = static_cast<PFILE_OBJECT>(body);
  if (file->DeviceObject == nullptr) return;
  if ((file->Flags & FO_FILE_OPEN) && !(file->Flags & FO_CLEANUP_COMPLETE)) {
    SendLifecycleRequest(file, IRP_MJ_CLEANUP);  // opened, but no handle ever held it
    file->Flags |= FO_CLEANUP_COMPLETE;
  }
  if (file->Flags & FO_FILE_OPEN) SendLifecycleRequest(file, IRP_MJ_CLOSE);
  if (file->RelatedFileObject != nullptr) ObDereferenceObject(file->RelatedFileObject);
  ObDereferenceObject(file->DeviceObject);
}

const bool kTypeRegistered = [] {
  (*IoFileObjectType)->CloseProcedure = CloseFileObjectHandle;
  (*IoFileObjectType)->DeleteProcedure = DeleteFileObject;
  return true;
}();

size_t CountSeparators(const WString& name) {
  size_t count = 0;
  for (char16_t c : name) count += c == u'\\';
  return count;
}

// The object directories at the root of Windows' namespace. The host keeps names whole, so
// a missing name tells a directory on its way from a missing entry by this list: any other
// top-level name (\SystemRoot, \ArcName's links) is an entry of the root itself.
bool IsRootDirectory(std::u16string_view name) {
  static constexpr std::u16string_view kDirectories[] = {
      u"\\??",       u"\\ArcName",  u"\\BaseNamedObjects", u"\\Callback",      u"\\Device",
      u"\\Driver",   u"\\FileSystem", u"\\KernelObjects",  u"\\KnownDlls",     u"\\NLS",
      u"\\ObjectTypes", u"\\RPC Control", u"\\Security",   u"\\Sessions",      u"\\Windows",
  };
  const std::u16string_view top = name.substr(0, name.find(u'\\', 1));
  for (std::u16string_view directory : kDirectories)
    if (EqualNoCase(top, directory)) return true;
  return false;
}

}  // namespace

ResolvedName ResolveObjectName(std::u16string_view input) {
  ResolvedName out;
  WString name = NormalizeLinkName(WString(input));
  for (int depth = 0; depth < kMaxLinkDepth; ++depth) {
    if (name.empty() || name[0] != u'\\') {
      out.Status = STATUS_OBJECT_PATH_SYNTAX_BAD;
      return out;
    }
    // The object manager walks the path from the root: the first object found on it is a
    // link to follow or the object whose parse procedure takes the rest of the name.
    bool followedLink = false;
    for (size_t end = name.find(u'\\', 1);; end = name.find(u'\\', end + 1)) {
      const size_t prefixEnd = end == WString::npos ? name.size() : end;
      PVOID object = ObLookupObjectByName(std::u16string_view(name).substr(0, prefixEnd));
      if (object != nullptr && ObGetObjectType(object) == SymbolicLinkType()) {
        auto* link = static_cast<SymbolicLinkBody*>(object);
        WString target(link->Target, link->Length);
        ObDereferenceObject(object);
        name = NormalizeLinkName(target + name.substr(prefixEnd));
        followedLink = true;
        break;
      }
      if (object != nullptr) {
        out.Object = object;
        out.Remaining = name.substr(prefixEnd);
        return out;
      }
      if (end == WString::npos) break;
    }
    if (!followedLink) {
      // Nothing on the path exists. The first missing component is the entry below a root
      // directory ("\Device\X", "\??\D:") or, under no such directory, the top-level name
      // itself ("\SystemRoot"): when it is the last component the name is missing,
      // otherwise a directory on the way is.
      const size_t missingAt = IsRootDirectory(name) ? 2 : 1;
      out.Status = CountSeparators(name) <= missingAt ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_OBJECT_PATH_NOT_FOUND;
      return out;
    }
  }
  out.Status = STATUS_OBJECT_NAME_NOT_FOUND;  // links that lead to each other
  return out;
}

PIRP AllocateFileRequest(PFILE_OBJECT file, PDEVICE_OBJECT target, UCHAR major, void* site) {
  PIRP irp = AllocateIrp(target->StackSize, IrpOrigin::Built, site);
  if (irp == nullptr) return nullptr;
  irp->RequestorMode = KernelMode;
  irp->Flags = IRP_SYNCHRONOUS_API;
  irp->Tail.Overlay.Thread = PsGetCurrentThread();
  irp->Tail.Overlay.OriginalFileObject = file;
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = major;
  sp->FileObject = file;
  return irp;
}

NTSTATUS CallFileRequest(PDEVICE_OBJECT target, PIRP irp, PIO_STATUS_BLOCK iosb) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  iosb->Status = STATUS_PENDING;
  iosb->Information = 0;
  irp->UserEvent = &done;
  irp->UserIosb = iosb;
  if (IoCallDriver(target, irp) == STATUS_PENDING) KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  return iosb->Status;
}

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
  OpenParameters open;
  open.DesiredAccess = DesiredAccess;
  open.ObjectAttributes = OBJ_KERNEL_HANDLE;
  open.Disposition = FILE_OPEN;
  open.Options = FILE_NON_DIRECTORY_FILE;
  PFILE_OBJECT file = nullptr;
  IO_STATUS_BLOCK iosb{};
  NTSTATUS status =
      OpenFileObject(kvhost::ToWString(ObjectName), nullptr, open, &file, &iosb, __builtin_return_address(0));
  if (!NT_SUCCESS(status)) return status;
  // The handle Windows opens and closes again here: its close is the file's cleanup.
  kvhost::ObCloseHandle(kvhost::ObCreateHandle(file, DesiredAccess));
  *FileObject = file;
  *DeviceObject = IoGetRelatedDeviceObject(file);
  return STATUS_SUCCESS;
}

}  // extern "C"
