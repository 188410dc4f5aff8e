// File-system registration and mounting.
//
// A file system registers its control device (IoRegisterFileSystem). When a file on a
// volume is opened and the volume's VPB is not mounted, the I/O manager offers the volume to
// each registered file system of the volume's kind, the latest first, with
// IRP_MJ_FILE_SYSTEM_CONTROL / IRP_MN_MOUNT_VOLUME carrying the VPB and the top of the
// volume's device stack; the file system that recognises it sets Vpb->DeviceObject to its
// volume device, and the VPB is marked mounted. The device's DeviceLock serialises mounts.
#include <algorithm>
#include <mutex>
#include <vector>

#include "kvhost/file_systems.h"
#include "kvhost/verifier.h"
#include "zw_file_internal.h"

namespace kvhost::io {
namespace {

struct Registrations {
  std::mutex Lock;
  std::vector<PDEVICE_OBJECT> FileSystems;  // control devices, the latest first
};

Registrations& Registered() {
  static Registrations* registrations = new Registrations;
  return *registrations;
}

// The kind of file system that can mount a device of this type.
DEVICE_TYPE FileSystemTypeFor(DEVICE_TYPE type) {
  switch (type) {
    case FILE_DEVICE_CD_ROM:
      return FILE_DEVICE_CD_ROM_FILE_SYSTEM;
    case FILE_DEVICE_TAPE:
      return FILE_DEVICE_TAPE_FILE_SYSTEM;
    default:
      return FILE_DEVICE_DISK_FILE_SYSTEM;
  }
}

std::vector<PDEVICE_OBJECT> CandidatesFor(PDEVICE_OBJECT device) {
  std::vector<PDEVICE_OBJECT> candidates;
  std::lock_guard<std::mutex> guard(Registered().Lock);
  for (PDEVICE_OBJECT fileSystem : Registered().FileSystems) {
    if (fileSystem->DeviceType != FileSystemTypeFor(device->DeviceType)) continue;
    ObReferenceObject(fileSystem);
    candidates.push_back(fileSystem);
  }
  return candidates;
}

NTSTATUS SendMountRequest(PDEVICE_OBJECT fileSystem, PVPB vpb, PDEVICE_OBJECT storageTop, void* site) {
  PDEVICE_OBJECT target = IoGetAttachedDeviceReference(fileSystem);
  PIRP irp = AllocateIrp(target->StackSize, IrpOrigin::Built, site);
  if (irp == nullptr) {
    ObDereferenceObject(target);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  irp->RequestorMode = KernelMode;
  irp->Flags = IRP_MOUNT_COMPLETION | IRP_SYNCHRONOUS_PAGING_IO;
  irp->Tail.Overlay.Thread = PsGetCurrentThread();
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = IRP_MJ_FILE_SYSTEM_CONTROL;
  sp->MinorFunction = IRP_MN_MOUNT_VOLUME;
  sp->Parameters.MountVolume.Vpb = vpb;
  sp->Parameters.MountVolume.DeviceObject = storageTop;
  IO_STATUS_BLOCK iosb{};
  const NTSTATUS status = CallFileRequest(target, irp, &iosb);
  ObDereferenceObject(target);
  return status;
}

}  // namespace

NTSTATUS MountIfNeeded(PDEVICE_OBJECT device) {
  PVPB vpb = device->Vpb;
  if (vpb == nullptr) return STATUS_UNRECOGNIZED_VOLUME;
  // A mounted volume is taken as it is: its file system may raise notifications whose
  // handlers open files on it while the mount is still finishing.
  if (vpb->Flags & VPB_MOUNTED) return STATUS_SUCCESS;
  std::vector<PDEVICE_OBJECT> candidates = CandidatesFor(device);
  if (candidates.empty()) return STATUS_UNRECOGNIZED_VOLUME;
  KeWaitForSingleObject(&device->DeviceLock, Executive, KernelMode, FALSE, nullptr);
  NTSTATUS status = STATUS_SUCCESS;
  if (!(vpb->Flags & VPB_MOUNTED)) {
    status = STATUS_UNRECOGNIZED_VOLUME;
    PDEVICE_OBJECT storageTop = IoGetAttachedDeviceReference(device);
    for (PDEVICE_OBJECT fileSystem : candidates) {
      status = SendMountRequest(fileSystem, vpb, storageTop, __builtin_return_address(0));
      if (NT_SUCCESS(status)) {
        if (vpb->DeviceObject == nullptr) {
          ReportViolation("MountWithoutVolumeDevice", "the file system of " + DescribeDevice(fileSystem) +
                                                          " mounted " + DescribeDevice(device) +
                                                          " without setting Vpb->DeviceObject");
          status = STATUS_UNRECOGNIZED_VOLUME;
          continue;
        }
        vpb->Flags |= VPB_MOUNTED;
        break;
      }
      if (status != STATUS_UNRECOGNIZED_VOLUME) break;
    }
    ObDereferenceObject(storageTop);
  }
  KeSetEvent(&device->DeviceLock, IO_NO_INCREMENT, FALSE);
  for (PDEVICE_OBJECT fileSystem : candidates) ObDereferenceObject(fileSystem);
  return status;
}

}  // namespace kvhost::io

namespace kvhost {

NTSTATUS IoMountVolume(PDEVICE_OBJECT device) { return io::MountIfNeeded(device); }

size_t IoCountRegisteredFileSystems() {
  std::lock_guard<std::mutex> guard(io::Registered().Lock);
  return io::Registered().FileSystems.size();
}

void IoForgetFileSystems() {
  std::lock_guard<std::mutex> guard(io::Registered().Lock);
  io::Registered().FileSystems.clear();
}

}  // namespace kvhost

namespace {

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "I/O manager: file systems",
      .Order = 60,
      .Reset = [] { kvhost::IoForgetFileSystems(); },
      .Quiesce = nullptr,
      .Check =
          [](std::vector<std::string>& problems) {
            std::lock_guard<std::mutex> guard(kvhost::io::Registered().Lock);
            for (PDEVICE_OBJECT fileSystem : kvhost::io::Registered().FileSystems)
              problems.push_back("[FileSystemLeftRegistered] " + kvhost::io::DescribeDevice(fileSystem) +
                                 " is still registered as a file system (IoUnregisterFileSystem missing)");
            kvhost::io::Registered().FileSystems.clear();
          },
  });
  return true;
}();

}  // namespace

extern "C" {

VOID IoRegisterFileSystem(PDEVICE_OBJECT DeviceObject) {
  std::lock_guard<std::mutex> guard(kvhost::io::Registered().Lock);
  auto& list = kvhost::io::Registered().FileSystems;
  if (std::find(list.begin(), list.end(), DeviceObject) != list.end()) {
    kvhost::ReportViolation("FileSystemRegisteredTwice", "IoRegisterFileSystem of " +
                                                             kvhost::io::DescribeDevice(DeviceObject) +
                                                             ", which is registered already");
    return;
  }
  list.insert(list.begin(), DeviceObject);
}

VOID IoUnregisterFileSystem(PDEVICE_OBJECT DeviceObject) {
  std::lock_guard<std::mutex> guard(kvhost::io::Registered().Lock);
  auto& list = kvhost::io::Registered().FileSystems;
  auto it = std::find(list.begin(), list.end(), DeviceObject);
  if (it != list.end()) list.erase(it);
}

}  // extern "C"
