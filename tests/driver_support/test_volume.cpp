// The test volume driver (test_volume.h).
#include <devguid.h>

#include "test_volume.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "kvhost/io.h"

namespace kvtest {
namespace {

// Disk drives: a class the filter is never meant for.
constexpr GUID kOtherClass = {0x4D36E967, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, NT_SUCCESS(status) && information != 0 ? IO_DISK_INCREMENT : IO_NO_INCREMENT);
  return status;
}

NTSTATUS Transfer(TestVolume* volume, PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  const LONGLONG offset = stack->Parameters.Read.ByteOffset.QuadPart;
  const ULONG length = stack->Parameters.Read.Length;
  if (offset < 0 || length > volume->Data.size() || static_cast<uint64_t>(offset) > volume->Data.size() - length)
    return Complete(irp, STATUS_INVALID_PARAMETER);
  if (length == 0) return Complete(irp, STATUS_SUCCESS);
  auto* buffer = irp->MdlAddress != nullptr
                     ? static_cast<uint8_t*>(MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority))
                     : static_cast<uint8_t*>(irp->UserBuffer);
  if (buffer == nullptr) return Complete(irp, STATUS_INSUFFICIENT_RESOURCES);
  if (stack->MajorFunction == IRP_MJ_WRITE)
    std::memcpy(volume->Data.data() + offset, buffer, length);
  else
    std::memcpy(buffer, volume->Data.data() + offset, length);
  return Complete(irp, STATUS_SUCCESS, length);
}

void TransferFromWorker(PDEVICE_OBJECT device, PVOID context) {
  auto* irp = static_cast<PIRP>(context);
  IoFreeWorkItem(static_cast<PIO_WORKITEM>(irp->Tail.Overlay.DriverContext[0]));
  Transfer(TestVolumeOf(device), irp);
}

// Pends the request and finishes it with `routine` in a system worker thread; the work item
// travels in the request, and the routine frees it before anything else.
NTSTATUS FinishFromWorker(PDEVICE_OBJECT device, PIRP irp, PIO_WORKITEM_ROUTINE routine) {
  PIO_WORKITEM item = IoAllocateWorkItem(device);
  if (item == nullptr) return Complete(irp, STATUS_INSUFFICIENT_RESOURCES);
  irp->Tail.Overlay.DriverContext[0] = item;
  IoMarkIrpPending(irp);
  IoQueueWorkItem(item, routine, DelayedWorkQueue, irp);
  return STATUS_PENDING;
}

NTSTATUS DispatchTransfer(PDEVICE_OBJECT device, PIRP irp) {
  TestVolume* volume = TestVolumeOf(device);
  if (volume->HoldTransfers) {
    std::lock_guard<std::mutex> guard(volume->Lock);
    IoMarkIrpPending(irp);
    volume->Held.push_back(irp);
    return STATUS_PENDING;
  }
  if (!volume->CompleteFromWorker) return Transfer(volume, irp);
  return FinishFromWorker(device, irp, TransferFromWorker);
}

void CompleteFromWorker(PDEVICE_OBJECT device, PVOID context) {
  auto* irp = static_cast<PIRP>(context);
  IoFreeWorkItem(static_cast<PIO_WORKITEM>(irp->Tail.Overlay.DriverContext[0]));
  Complete(irp, TestVolumeOf(device)->PnpStatus);
}

NTSTATUS DispatchPnp(PDEVICE_OBJECT device, PIRP irp) {
  TestVolume* volume = TestVolumeOf(device);
  {
    std::lock_guard<std::mutex> guard(volume->Lock);
    volume->PnpMinors.push_back(IoGetCurrentIrpStackLocation(irp)->MinorFunction);
  }
  if (!volume->CompleteFromWorker) return Complete(irp, volume->PnpStatus);
  return FinishFromWorker(device, irp, CompleteFromWorker);
}

NTSTATUS DispatchPower(PDEVICE_OBJECT device, PIRP irp) {
  TestVolume* volume = TestVolumeOf(device);
  {
    std::lock_guard<std::mutex> guard(volume->Lock);
    volume->PowerMinors.push_back(IoGetCurrentIrpStackLocation(irp)->MinorFunction);
  }
  PoStartNextPowerIrp(irp);
  return Complete(irp, STATUS_SUCCESS);
}

NTSTATUS DispatchControl(PDEVICE_OBJECT device, PIRP irp) {
  TestVolume* volume = TestVolumeOf(device);
  {
    std::lock_guard<std::mutex> guard(volume->Lock);
    volume->ControlCodes.push_back(IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode);
  }
  return Complete(irp, volume->ControlStatus);
}

NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp) {
  TestVolume* volume = TestVolumeOf(device);
  const UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
  volume->Requests[major]++;
  switch (major) {
    case IRP_MJ_READ:
    case IRP_MJ_WRITE:
      return DispatchTransfer(device, irp);
    case IRP_MJ_PNP:
      return DispatchPnp(device, irp);
    case IRP_MJ_POWER:
      return DispatchPower(device, irp);
    case IRP_MJ_DEVICE_CONTROL:
      return DispatchControl(device, irp);
    default:
      return Complete(irp, STATUS_SUCCESS);
  }
}

NTSTATUS TestVolumeDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  for (PDRIVER_DISPATCH& slot : driver->MajorFunction) slot = Dispatch;
  driver->DriverUnload = [](PDRIVER_OBJECT d) {
    while (d->DeviceObject != nullptr) DeleteTestVolume(TestVolumeOf(d->DeviceObject));
  };
  return STATUS_SUCCESS;
}

}  // namespace

const GUID& VolumeClass() { return GUID_DEVCLASS_VOLUME; }
const GUID& SnapshotClass() { return GUID_DEVCLASS_VOLUMESNAPSHOT; }
const GUID& OtherClass() { return kOtherClass; }

VolumeSpec FixedVolume(unsigned number) {
  VolumeSpec spec;
  spec.Name = u"\\Device\\HarddiskVolume";
  for (char c : std::to_string(number)) spec.Name.push_back(static_cast<char16_t>(c));
  spec.ClassGuid = &GUID_DEVCLASS_VOLUME;
  return spec;
}

VolumeSpec RemovableVolume(unsigned number) {
  VolumeSpec spec = FixedVolume(number);
  spec.Characteristics = FILE_REMOVABLE_MEDIA;
  return spec;
}

VolumeSpec ShadowCopy(unsigned number) {
  VolumeSpec spec;
  spec.Name = u"\\Device\\HarddiskVolumeShadowCopy";
  for (char c : std::to_string(number)) spec.Name.push_back(static_cast<char16_t>(c));
  spec.ClassGuid = &GUID_DEVCLASS_VOLUMESNAPSHOT;
  spec.DeviceType = FILE_DEVICE_VIRTUAL_DISK;
  return spec;
}

size_t TestVolume::ReleaseHeld() {
  std::vector<PIRP> held;
  {
    std::lock_guard<std::mutex> guard(Lock);
    held.swap(Held);
  }
  HoldTransfers = false;
  for (PIRP irp : held) Transfer(this, irp);
  return held.size();
}

size_t TestVolume::HeldCount() {
  std::lock_guard<std::mutex> guard(Lock);
  return Held.size();
}

PDRIVER_OBJECT LoadTestVolumeDriver() { return kvhost::IoLoadDriver(u"TestVolume", TestVolumeDriverEntry).DriverObject; }

void UnloadTestVolumeDriver(PDRIVER_OBJECT driver) {
  if (driver != nullptr) kvhost::IoUnloadDriver(driver);
}

TestVolume* CreateTestVolume(PDRIVER_OBJECT driver, const VolumeSpec& spec) {
  UNICODE_STRING name;
  name.Buffer = reinterpret_cast<PWCH>(const_cast<char16_t*>(spec.Name.data()));
  name.Length = static_cast<USHORT>(spec.Name.size() * sizeof(WCHAR));
  name.MaximumLength = name.Length;
  PDEVICE_OBJECT device = nullptr;
  if (!NT_SUCCESS(IoCreateDevice(driver, sizeof(TestVolume), &name, spec.DeviceType, spec.Characteristics, FALSE,
                                 &device)))
    return nullptr;
  auto* volume = new (device->DeviceExtension) TestVolume;
  volume->Device = device;
  volume->Data.assign(spec.Size, 0);
  device->Flags |= spec.Flags;
  device->SectorSize = spec.SectorSize;
  device->Flags &= ~DO_DEVICE_INITIALIZING;
  kvhost::IoSetPhysicalDeviceObject(device);
  if (spec.ClassGuid != nullptr) kvhost::IoSetDeviceClassGuid(device, *spec.ClassGuid);
  return volume;
}

void DeleteTestVolume(TestVolume* volume) {
  PDEVICE_OBJECT device = volume->Device;
  volume->~TestVolume();
  IoDeleteDevice(device);
}

TestVolume* TestVolumeOf(PDEVICE_OBJECT device) { return static_cast<TestVolume*>(device->DeviceExtension); }

}  // namespace kvtest
