// Driver entry and unload: the driver-wide state every volume filter shares.
#include <devguid.h>
#include <ntddstor.h>
#include <ntstrsafe.h>

#include "driver/cbt_add_device.h"
#include "driver/cbt_boot_checks.h"
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"
#include "notify/cbt_notify.h"
#include "trackfile/cbt_trackfile.h"

PDRIVER_OBJECT CbtDriverObject;
UNICODE_STRING CbtRegistryPath;
KEVENT CbtLogStartEvent;
volatile BOOLEAN CbtSystemShutdown;
PVOID CbtVolumeInterfaceNotificationEntry;
BOOLEAN CbtRaxcoBootDefragScheduled;
ULONG CbtWindowsMajorVersion;
ULONG CbtWindowsMinorVersion;
ULONG CbtWindowsBuildNumber;
ULONG CbtWorkItemSize;

namespace {

// The driver-entry records carry fixed line numbers, whatever the source looks like.
constexpr ULONG kDriverLoadedLine = 1;
constexpr ULONG kExcludeUsbLine = 5;
constexpr ULONG kExcludeVhdLine = 6;

void ZeroDriverGlobals() {
  CbtDriverObject = NULL;
  RtlZeroMemory(&CbtRegistryPath, sizeof(CbtRegistryPath));
  RtlZeroMemory(&CbtSettings, sizeof(CbtSettings));
  RtlZeroMemory(&CbtLogStartEvent, sizeof(CbtLogStartEvent));
  CbtSystemShutdown = FALSE;
  CbtVolumeInterfaceNotificationEntry = NULL;
  CbtRaxcoBootDefragScheduled = FALSE;
  RtlZeroMemory(&CbtEventLog, sizeof(CbtEventLog));
  CbtWindowsMajorVersion = 0;
  CbtWindowsMinorVersion = 0;
  CbtWindowsBuildNumber = 0;
  CbtWorkItemSize = 0;
}

// Frees the driver-wide buffers: the registry-path copy, the settings' path, the log.
void ReleaseDriverGlobals() {
  CbtReleaseEventLog();
  CbtReleaseSettings();
  if (CbtRegistryPath.Buffer != NULL) {
    ExFreePoolWithTag(CbtRegistryPath.Buffer, CBT_POOL_TAG);
    RtlZeroMemory(&CbtRegistryPath, sizeof(CbtRegistryPath));
  }
}

void InstallDispatchTable(PDRIVER_OBJECT DriverObject) {
  for (ULONG major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major)
    DriverObject->MajorFunction[major] = CbtDispatchPassThrough;
  static const UCHAR kRoutedMajors[] = {IRP_MJ_CREATE,         IRP_MJ_CLOSE,    IRP_MJ_READ,  IRP_MJ_WRITE,
                                        IRP_MJ_DEVICE_CONTROL, IRP_MJ_SHUTDOWN, IRP_MJ_POWER, IRP_MJ_PNP};
  for (UCHAR major : kRoutedMajors) DriverObject->MajorFunction[major] = CbtDispatch;
  DriverObject->DriverExtension->AddDevice = CbtAddDevice;
  DriverObject->DriverUnload = CbtUnload;
}

void LogClassFilterLists() {
  CbtLogClassFilters(&GUID_DEVCLASS_VOLUME, L"UpperFilters", __LINE__);
  CbtLogClassFilters(&GUID_DEVCLASS_VOLUMESNAPSHOT, L"UpperFilters", __LINE__);
  CbtLogClassFilters(&GUID_DEVCLASS_VOLUME, L"LowerFilters", __LINE__);
  CbtLogClassFilters(&GUID_DEVCLASS_VOLUMESNAPSHOT, L"LowerFilters", __LINE__);
}

}  // namespace

NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
  ZeroDriverGlobals();
  CbtDriverObject = DriverObject;
  KeInitializeEvent(&CbtLogStartEvent, NotificationEvent, FALSE);

  RTL_OSVERSIONINFOW version;
  RtlZeroMemory(&version, sizeof(version));
  version.dwOSVersionInfoSize = sizeof(version);
  RtlGetVersion(&version);
  CbtWindowsMajorVersion = version.dwMajorVersion;
  CbtWindowsMinorVersion = version.dwMinorVersion;
  CbtWindowsBuildNumber = version.dwBuildNumber;

  // Printed before anything can fail, so that every load shows in the debugger.
  DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_INFO_LEVEL,
             "\nKeldor Vantage Changed Block Tracker\nDriver Version %d.%d.%d\nWindows Version %d.%d.%d\n\n",
             CBT_VERSION_MAJOR, CBT_VERSION_MINOR, CBT_VERSION_BUILD, CbtWindowsMajorVersion, CbtWindowsMinorVersion,
             CbtWindowsBuildNumber);

  CbtWorkItemSize = IoSizeofWorkItem();

  // The I/O manager's path buffer lives only while DriverEntry runs.
  if (RegistryPath->Length != 0) {
    PWCH copy = static_cast<PWCH>(
        ExAllocatePoolWithTag(NonPagedPoolNx, RegistryPath->Length + sizeof(WCHAR), CBT_POOL_TAG));
    if (copy == NULL) return STATUS_INSUFFICIENT_RESOURCES;
    RtlCopyMemory(copy, RegistryPath->Buffer, RegistryPath->Length);
    copy[RegistryPath->Length / sizeof(WCHAR)] = UNICODE_NULL;
    CbtRegistryPath.Buffer = copy;
    CbtRegistryPath.Length = RegistryPath->Length;
    CbtRegistryPath.MaximumLength = RegistryPath->Length;
  }

  CbtReadSettings(&CbtRegistryPath);  // a failed query leaves the defaults in force
  CbtInitializeEventLog();
  InstallDispatchTable(DriverObject);
  CbtRaxcoBootDefragScheduled = CbtIsRaxcoBootTimeDefragEnabled();

  PCBT_DRIVER_EXTENSION driverExtension = NULL;
  NTSTATUS status = IoAllocateDriverObjectExtension(DriverObject, reinterpret_cast<PVOID>(CbtAddDevice),
                                                    sizeof(CBT_DRIVER_EXTENSION),
                                                    reinterpret_cast<PVOID*>(&driverExtension));
  if (!NT_SUCCESS(status)) {
    // A driver whose entry fails is unloaded without its unload routine: it must leave no
    // pool behind and no callback that could run into the unloaded image. That is why the
    // volume-interface notification and the boot reinitialization are registered only
    // below, once nothing can fail any more.
    ReleaseDriverGlobals();
    return status;
  }
  RtlZeroMemory(driverExtension, sizeof(*driverExtension));
  driverExtension->DriverObject = DriverObject;
  ExInitializeNPagedLookasideList(&driverExtension->WorkItemLookaside, NULL, NULL, POOL_NX_ALLOCATION,
                                  CBT_WORK_CONTEXT_HEADER_SIZE + CbtWorkItemSize, CBT_WORK_ITEM_POOL_TAG, 0);

  // Volumes that are already there are reported from within this call. Without the
  // registration (no pool for it) volumes are still filtered; only their notifications
  // are missed.
  IoRegisterPlugPlayNotification(EventCategoryDeviceInterfaceChange, PNPNOTIFY_DEVICE_INTERFACE_INCLUDE_EXISTING_INTERFACES,
                                 const_cast<GUID*>(&GUID_DEVINTERFACE_VOLUME), DriverObject, CbtVolumeArrival, NULL,
                                 &CbtVolumeInterfaceNotificationEntry);

  CHAR loaded[64];
  RtlStringCbPrintfA(loaded, sizeof(loaded), "Driver Loaded %d.%d.%d", CBT_VERSION_MAJOR, CBT_VERSION_MINOR,
                     CBT_VERSION_BUILD);
  CbtLogEvent(0, 0, static_cast<WCHAR>(CBT_LOG_NO_DRIVE_LETTER), loaded, kDriverLoadedLine, 0);
  LogClassFilterLists();
  CbtLogEvent(0, 0, static_cast<WCHAR>(CBT_LOG_NO_DRIVE_LETTER), "ExcludeUSB", kExcludeUsbLine, CbtSettings.ExcludeUSB);
  CbtLogEvent(0, 0, static_cast<WCHAR>(CBT_LOG_NO_DRIVE_LETTER), "ExcludeVHD", kExcludeVhdLine, CbtSettings.ExcludeVHD);

  IoRegisterBootDriverReinitialization(DriverObject, CbtBootReinitialize, NULL);
  return STATUS_SUCCESS;
}

VOID CbtUnload(PDRIVER_OBJECT DriverObject) {
  if (CbtVolumeInterfaceNotificationEntry != NULL) {
    // Returns once no callback of the registration is running.
    IoUnregisterPlugPlayNotificationEx(CbtVolumeInterfaceNotificationEntry);
    CbtVolumeInterfaceNotificationEntry = NULL;
  }
  PCBT_DRIVER_EXTENSION driverExtension = static_cast<PCBT_DRIVER_EXTENSION>(
      IoGetDriverObjectExtension(DriverObject, reinterpret_cast<PVOID>(CbtAddDevice)));
  if (driverExtension != NULL) ExDeleteNPagedLookasideList(&driverExtension->WorkItemLookaside);
  ReleaseDriverGlobals();
}
