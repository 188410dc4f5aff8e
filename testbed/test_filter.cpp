// The pass-through volume filter: a small, correct upper filter that reports what reaches it.
#include "kvtestbed/test_filter.h"

#include <ntddstor.h>
#include <mountdev.h>
#include <wdmguid.h>

#include <algorithm>
#include <mutex>

#include "kvhost/object.h"
#include "kvhost/verifier.h"
#include "kvtestbed/names.h"

namespace kvtestbed {
namespace {

struct FilterExtension {
  PDEVICE_OBJECT Lower;
  PVOID TargetNotification;  // the registration on the volume, or null
  WCHAR VolumeName[64];      // the volume device's name, NUL-terminated
};

// The driver's globals; DriverEntry sets them afresh at each boot.
PDRIVER_OBJECT g_driver;
PVOID g_interfaceNotification;

struct Record {
  std::mutex Lock;
  std::vector<TestFilterEvent> Events;
  NTSTATUS QueryRemoveAnswer = STATUS_SUCCESS;
};

Record& TheRecord() {
  static Record* record = new Record;
  return *record;
}

const bool kRegistered = [] {
  kvhost::RegisterTestHooks({
      .Name = "testbed: test filter record",
      .Order = 10,
      .Reset =
          [] {
            Record& r = TheRecord();
            std::lock_guard<std::mutex> guard(r.Lock);
            r.Events.clear();
            r.QueryRemoveAnswer = STATUS_SUCCESS;
          },
      .Quiesce = nullptr,
      .Check = nullptr,
      .SurvivesPowerLoss = true,  // the test's instrument, outside the machine
  });
  return true;
}();

// Records what the filter saw; prints it too, unless it is one of the many requests that pass
// through (control codes, interface changes), which only the record keeps.
void Note(std::string device, std::string what, std::string detail = {}, bool print = true) {
  if (print)
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_INFO_LEVEL, "passthrough: %s%s%s%s%s\n", device.c_str(),
               device.empty() ? "" : ": ", what.c_str(), detail.empty() ? "" : " ", detail.c_str());
  Record& r = TheRecord();
  std::lock_guard<std::mutex> guard(r.Lock);
  r.Events.push_back({std::move(device), std::move(what), std::move(detail)});
}

FilterExtension* ExtensionOf(PDEVICE_OBJECT device) { return static_cast<FilterExtension*>(device->DeviceExtension); }

std::string VolumeOf(PDEVICE_OBJECT device) {
  const WCHAR* name = ExtensionOf(device)->VolumeName;
  std::u16string text;
  for (size_t i = 0; name[i] != 0; ++i) text.push_back(static_cast<char16_t>(name[i]));
  return kvhost::ToUtf8(text);
}

NTSTATUS PassDown(PDEVICE_OBJECT device, PIRP irp) {
  IoSkipCurrentIrpStackLocation(irp);
  return IoCallDriver(ExtensionOf(device)->Lower, irp);
}

void DropTargetNotification(FilterExtension* ext) {
  PVOID entry = InterlockedExchangePointer(&ext->TargetNotification, nullptr);
  if (entry != nullptr) IoUnregisterPlugPlayNotification(entry);
}

NTSTATUS DispatchPnp(PDEVICE_OBJECT device, PIRP irp) {
  const UCHAR minor = IoGetCurrentIrpStackLocation(irp)->MinorFunction;
  Note(VolumeOf(device), PnpMinorName(minor));
  if (minor != IRP_MN_REMOVE_DEVICE) return PassDown(device, irp);
  // The registration's context is this device: it goes before the device does (a removal
  // completion arrives only after IRP_MN_REMOVE_DEVICE).
  FilterExtension* ext = ExtensionOf(device);
  DropTargetNotification(ext);
  PDEVICE_OBJECT lower = ext->Lower;
  const NTSTATUS status = PassDown(device, irp);
  IoDetachDevice(lower);
  IoDeleteDevice(device);
  return status;
}

NTSTATUS DispatchPower(PDEVICE_OBJECT device, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  std::string detail;
  if (sp->MinorFunction == IRP_MN_SET_POWER && sp->Parameters.Power.Type == SystemPowerState) {
    const auto effective = static_cast<SYSTEM_POWER_STATE>(sp->Parameters.Power.SystemPowerStateContext.EffectiveSystemState);
    detail = SystemPowerStateName(sp->Parameters.Power.State.SystemState) + ", effective " +
             SystemPowerStateName(effective);
  }
  Note(VolumeOf(device), PowerMinorName(sp->MinorFunction), detail);
  IoSkipCurrentIrpStackLocation(irp);
  return PoCallDriver(ExtensionOf(device)->Lower, irp);
}

NTSTATUS DispatchDeviceControl(PDEVICE_OBJECT device, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const ULONG code = sp->Parameters.DeviceIoControl.IoControlCode;
  std::string detail;
  if ((code == IOCTL_MOUNTDEV_LINK_CREATED || code == IOCTL_MOUNTDEV_LINK_DELETED) &&
      sp->Parameters.DeviceIoControl.InputBufferLength >= sizeof(USHORT)) {
    const auto* name = static_cast<const MOUNTDEV_NAME*>(irp->AssociatedIrp.SystemBuffer);
    const size_t chars = std::min<size_t>(name->NameLength, sp->Parameters.DeviceIoControl.InputBufferLength - 2) / 2;
    detail = kvhost::ToUtf8(std::u16string(reinterpret_cast<const char16_t*>(name->Name), chars));
  }
  Note(VolumeOf(device), ControlCodeName(code), detail, false);
  return PassDown(device, irp);
}

NTSTATUS Dispatch(PDEVICE_OBJECT device, PIRP irp) {
  switch (IoGetCurrentIrpStackLocation(irp)->MajorFunction) {
    case IRP_MJ_PNP:
      return DispatchPnp(device, irp);
    case IRP_MJ_POWER:
      return DispatchPower(device, irp);
    case IRP_MJ_DEVICE_CONTROL:
      return DispatchDeviceControl(device, irp);
    case IRP_MJ_SHUTDOWN:
      Note(VolumeOf(device), "IRP_MJ_SHUTDOWN");
      return PassDown(device, irp);
    default:
      return PassDown(device, irp);
  }
}

NTSTATUS TargetDeviceChange(PVOID notification, PVOID context) {
  auto* device = static_cast<PDEVICE_OBJECT>(context);
  const GUID event = static_cast<PPLUGPLAY_NOTIFICATION_HEADER>(notification)->Event;
  Note(VolumeOf(device), EventName(event));
  if (event == GUID_TARGET_DEVICE_REMOVE_COMPLETE) DropTargetNotification(ExtensionOf(device));
  if (event == GUID_TARGET_DEVICE_QUERY_REMOVE) {
    Record& r = TheRecord();
    std::lock_guard<std::mutex> guard(r.Lock);
    return r.QueryRemoveAnswer;
  }
  return STATUS_SUCCESS;
}

// A volume interface arrived: find this driver's filter in the volume's stack and watch the
// volume's target-device events.
NTSTATUS InterfaceChange(PVOID notification, PVOID context) {
  UNREFERENCED_PARAMETER(context);
  auto* n = static_cast<PDEVICE_INTERFACE_CHANGE_NOTIFICATION>(notification);
  const std::string link = kvhost::ToUtf8(n->SymbolicLinkName);
  if (n->Event != GUID_DEVICE_INTERFACE_ARRIVAL) {
    Note("", "interface removal", link, false);
    return STATUS_SUCCESS;
  }
  PFILE_OBJECT file = nullptr;
  PDEVICE_OBJECT top = nullptr;
  if (!NT_SUCCESS(IoGetDeviceObjectPointer(n->SymbolicLinkName, FILE_READ_ATTRIBUTES, &file, &top))) {
    Note("", "interface arrival (cannot open)", link, false);
    return STATUS_SUCCESS;
  }
  Note(kvhost::ToUtf8(kvhost::ObGetObjectName(file->DeviceObject)), "interface arrival", link, false);
  PDEVICE_OBJECT device = IoGetAttachedDeviceReference(file->DeviceObject);
  while (device != nullptr && device->DriverObject != g_driver) {
    PDEVICE_OBJECT lower = IoGetLowerDeviceObject(device);
    ObDereferenceObject(device);
    device = lower;
  }
  if (device != nullptr) {
    FilterExtension* ext = ExtensionOf(device);
    if (ext->TargetNotification == nullptr)
      IoRegisterPlugPlayNotification(EventCategoryTargetDeviceChange, 0, file, g_driver, TargetDeviceChange, device,
                                     &ext->TargetNotification);
    ObDereferenceObject(device);
  }
  ObDereferenceObject(file);
  return STATUS_SUCCESS;
}

NTSTATUS AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
  PDEVICE_OBJECT device = nullptr;
  NTSTATUS status = IoCreateDevice(driver, sizeof(FilterExtension), nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &device);
  if (!NT_SUCCESS(status)) return status;
  FilterExtension* ext = ExtensionOf(device);
  *ext = FilterExtension{};
  const std::u16string name = kvhost::ObGetObjectName(pdo);
  for (size_t i = 0; i < name.size() && i + 1 < sizeof ext->VolumeName / sizeof(WCHAR); ++i)
    ext->VolumeName[i] = static_cast<WCHAR>(name[i]);
  device->DeviceType = pdo->DeviceType;
  device->Characteristics = pdo->Characteristics;
  device->SectorSize = pdo->SectorSize;
  device->Flags |= pdo->Flags & (DO_DIRECT_IO | DO_BUFFERED_IO | DO_POWER_PAGABLE | DO_POWER_INRUSH);
  status = IoAttachDeviceToDeviceStackSafe(device, pdo, &ext->Lower);
  if (!NT_SUCCESS(status)) {
    IoDeleteDevice(device);
    return status;
  }
  IoRegisterShutdownNotification(device);
  device->Flags &= ~DO_DEVICE_INITIALIZING;
  Note(VolumeOf(device), "AddDevice");
  return STATUS_SUCCESS;
}

void Unload(PDRIVER_OBJECT driver) {
  UNREFERENCED_PARAMETER(driver);
  if (g_interfaceNotification != nullptr) IoUnregisterPlugPlayNotification(g_interfaceNotification);
  g_interfaceNotification = nullptr;
  Note("", "Unload");
}

}  // namespace

EXTERN_C NTSTATUS PassThroughFilterDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
  g_driver = driver;
  g_interfaceNotification = nullptr;
  Note("", "DriverEntry", kvhost::ToUtf8(registryPath));
  for (PDRIVER_DISPATCH& slot : driver->MajorFunction) slot = Dispatch;
  driver->DriverExtension->AddDevice = AddDevice;
  driver->DriverUnload = Unload;
  return IoRegisterPlugPlayNotification(EventCategoryDeviceInterfaceChange,
                                        PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES,
                                        const_cast<GUID*>(&GUID_DEVINTERFACE_VOLUME), driver, InterfaceChange, nullptr,
                                        &g_interfaceNotification);
}

std::vector<TestFilterEvent> TakeTestFilterEvents() {
  Record& r = TheRecord();
  std::lock_guard<std::mutex> guard(r.Lock);
  std::vector<TestFilterEvent> out;
  out.swap(r.Events);
  return out;
}

void SetTestFilterQueryRemoveAnswer(NTSTATUS answer) {
  Record& r = TheRecord();
  std::lock_guard<std::mutex> guard(r.Lock);
  r.QueryRemoveAnswer = answer;
}

}  // namespace kvtestbed
