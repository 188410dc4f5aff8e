// What the I/O manager's file routines share among themselves (not a test control): names
// through the object namespace, opening a file object, mounting a volume, and sending a
// request about an open file.
#pragma once

#include <ntifs.h>

#include <string>
#include <string_view>

#include "io_internal.h"
#include "kvhost/object.h"

namespace kvhost::io {

// ---------------------------------------------------------------------------------------
// io_device_open.cpp

// Where a name leads: the first object on its path, symbolic links followed (their targets
// may carry a path of their own, as \SystemRoot's does), and the rest of the name.
struct ResolvedName {
  PVOID Object = nullptr;  // referenced; null when nothing on the path exists
  WString Remaining;       // "\dir\file" after the object, empty when the name is the object's
  NTSTATUS Status = STATUS_SUCCESS;  // STATUS_OBJECT_NAME_NOT_FOUND or _PATH_NOT_FOUND
};
ResolvedName ResolveObjectName(std::u16string_view name);

// A request about `file`, built by the I/O manager for `target` (the top of the stack that
// serves the file), with the first stack location set up for `major`; null when the pool
// has no room. CallFileRequest sends it, waits, and returns the final status, which with
// the information is also in `iosb`.
PIRP AllocateFileRequest(PFILE_OBJECT file, PDEVICE_OBJECT target, UCHAR major, void* site);
NTSTATUS CallFileRequest(PDEVICE_OBJECT target, PIRP irp, PIO_STATUS_BLOCK iosb);

// ---------------------------------------------------------------------------------------
// zw_file_open.cpp

struct OpenParameters {
  ACCESS_MASK DesiredAccess = 0;  // as asked (generic rights are mapped here)
  ULONG ObjectAttributes = 0;     // OBJ_*
  PSECURITY_DESCRIPTOR SecurityDescriptor = nullptr;
  PVOID SecurityQualityOfService = nullptr;
  LONGLONG AllocationSize = 0;
  ULONG FileAttributes = 0;
  ULONG ShareAccess = 0;
  ULONG Disposition = FILE_OPEN;
  ULONG Options = 0;
  PVOID EaBuffer = nullptr;
  ULONG EaLength = 0;
};

// Opens `name` (below `relatedTo`'s directory when given) as IopParseDevice does: resolves
// the name, mounts the volume when the open needs its file system, creates the file object
// and sends IRP_MJ_CREATE. On success `*file` holds one reference.
NTSTATUS OpenFileObject(std::u16string_view name, PFILE_OBJECT relatedTo, const OpenParameters& parameters,
                        PFILE_OBJECT* file, PIO_STATUS_BLOCK iosb, void* site);

// ---------------------------------------------------------------------------------------
// io_mount.cpp

// Mounts the volume whose VPB is `device`'s, unless it is mounted: each registered file
// system of the device's kind is offered it, the latest registration first.
// STATUS_UNRECOGNIZED_VOLUME when none takes it (or none is registered).
NTSTATUS MountIfNeeded(PDEVICE_OBJECT device);

}  // namespace kvhost::io
