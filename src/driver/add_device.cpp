// Attaching a filter device above each fixed-disk volume and each volume shadow copy.
#include <devguid.h>

#include "driver/cbt_add_device.h"
#include "driver/cbt_device_extension.h"
#include "driver/cbt_removal_protection.h"
#include "driver/cbt_session_id.h"

namespace {

constexpr ULONG kClassGuidBufferBytes = 128;

// Every record of CbtAddDevice concerns the device being added: flags as known so far
// (only whether it is a shadow copy), its volume number as known so far, no drive letter.
void LogAddDevice(ULONG Flags, ULONG VolumeNumber, ULONG Line, NTSTATUS Status) {
  CbtLogEvent(Flags, VolumeNumber, static_cast<WCHAR>(CBT_LOG_NO_DRIVE_LETTER), "CbtAddDevice", Line,
              static_cast<ULONG>(Status));
}

// The volume's filter device, created and attached; the name passes to the extension.
NTSTATUS CreateFilterDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject,
                            PCBT_DRIVER_EXTENSION DriverExtension, POBJECT_NAME_INFORMATION* Name, BOOLEAN Snapshot,
                            ULONG VolumeNumber) {
  const ULONG logFlags = Snapshot ? CBT_FLAG_SNAPSHOT_DEVICE : 0;
  LogAddDevice(logFlags, VolumeNumber, __LINE__, STATUS_SUCCESS);
  PDEVICE_OBJECT filter = NULL;
  NTSTATUS status =
      IoCreateDevice(DriverObject, sizeof(CBT_DEVICE_EXTENSION), NULL, FILE_DEVICE_UNKNOWN, 0, FALSE, &filter);
  if (!NT_SUCCESS(status)) {
    LogAddDevice(logFlags, VolumeNumber, __LINE__, status);
    return status;
  }
  filter->SectorSize = PhysicalDeviceObject->SectorSize;
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(filter);
  RtlZeroMemory(extension, sizeof(*extension));
  KeInitializeEvent(&extension->FileSystemMutex, SynchronizationEvent, TRUE);
  ExInitializeRundownProtection(&extension->FileSystemRundown);

  // The device holds one removal-protection reference of its own until its removal. Without
  // a rundown block the volume is still filtered; its removal then simply does not wait.
  const SIZE_T rundownBytes = ExSizeOfRundownProtectionCacheAware();
  extension->RundownProtection =
      static_cast<PEX_RUNDOWN_REF_CACHE_AWARE>(ExAllocatePoolWithTag(NonPagedPoolNx, rundownBytes, CBT_POOL_TAG));
  if (extension->RundownProtection != NULL) {
    ExInitializeRundownProtectionCacheAware(extension->RundownProtection, rundownBytes);
    CbtAcquireRemovalProtection(filter);
  }

  extension->DriverExtension = DriverExtension;
  extension->PhysicalDeviceObject = PhysicalDeviceObject;
  extension->DeviceObject = filter;
  KeInitializeSpinLock(&extension->Lock);
  KeInitializeSpinLock(&extension->HoldLock);
  InitializeListHead(&extension->HeldWriteList);
  extension->HoldCount = 0;
  KeInitializeSemaphore(&extension->VolumeSemaphore, 1, 1);
  KeInitializeSemaphore(&extension->TrackingFileSemaphore, 1, 1);
  extension->SessionId = CbtCurrentSessionId();
  extension->DeviceName = *Name;
  *Name = NULL;
  extension->DriveLetter = L'?';
  extension->VolumeNumber = VolumeNumber;
  extension->VolumeGuidName.Buffer = extension->VolumeGuidNameBuffer;
  extension->VolumeGuidName.Length = 0;
  extension->VolumeGuidName.MaximumLength = sizeof(extension->VolumeGuidNameBuffer);
  KeInitializeSpinLock(&extension->BitmapLock);
  if (Snapshot) {
    CbtSetFlags(extension, CBT_FLAG_SNAPSHOT_DEVICE);
    extension->GptAttributes = CBT_SNAPSHOT_GPT_ATTRIBUTES;
  }

  filter->DeviceType = PhysicalDeviceObject->DeviceType;
  filter->Characteristics = PhysicalDeviceObject->Characteristics;
  filter->Flags |= PhysicalDeviceObject->Flags & (DO_POWER_PAGABLE | DO_POWER_INRUSH);
  filter->Flags |= DO_DIRECT_IO;

  status = IoAttachDeviceToDeviceStackSafe(filter, PhysicalDeviceObject, &extension->LowerDeviceObject);
  if (!NT_SUCCESS(status)) {
    // Nothing else has seen the device: everything it holds goes with it. A volume whose
    // name query succeeded without a name has none to free.
    if (extension->RundownProtection != NULL) ExFreePoolWithTag(extension->RundownProtection, CBT_POOL_TAG);
    if (extension->DeviceName != NULL) ExFreePoolWithTag(extension->DeviceName, CBT_POOL_TAG);
    IoDeleteDevice(filter);
    return status;
  }
  IoRegisterLastChanceShutdownNotification(filter);
  CbtSetFlags(extension, CBT_FLAG_TRACKING_VALID);
  filter->Flags &= ~DO_DEVICE_INITIALIZING;
  return STATUS_SUCCESS;
}

}  // namespace

NTSTATUS CbtQueryDeviceName(PDEVICE_OBJECT DeviceObject, POBJECT_NAME_INFORMATION* Name) {
  *Name = NULL;
  ULONG needed = 0;
  NTSTATUS status = ObQueryNameString(DeviceObject, NULL, 0, &needed);
  if (status != STATUS_INFO_LENGTH_MISMATCH) return status;
  const ULONG bytes = needed + sizeof(WCHAR);
  POBJECT_NAME_INFORMATION name =
      static_cast<POBJECT_NAME_INFORMATION>(ExAllocatePoolWithTag(NonPagedPoolNx, bytes, CBT_POOL_TAG));
  if (name == NULL) return STATUS_INSUFFICIENT_RESOURCES;
  RtlZeroMemory(name, bytes);
  status = ObQueryNameString(DeviceObject, name, bytes, &needed);
  if (!NT_SUCCESS(status)) {
    ExFreePoolWithTag(name, CBT_POOL_TAG);
    return status;
  }
  *Name = name;
  return STATUS_SUCCESS;
}

NTSTATUS CbtGetDeviceClassGuid(PDEVICE_OBJECT DeviceObject, GUID* ClassGuid) {
  PWCH text = static_cast<PWCH>(ExAllocatePoolWithTag(NonPagedPoolNx, kClassGuidBufferBytes, CBT_POOL_TAG));
  if (text == NULL) return STATUS_INSUFFICIENT_RESOURCES;
  ULONG bytes = 0;
  NTSTATUS status = IoGetDeviceProperty(DeviceObject, DevicePropertyClassGuid, kClassGuidBufferBytes, text, &bytes);
  if (NT_SUCCESS(status)) {
    // The property is a string with its terminator; the GUID is the text before it.
    USHORT chars = 0;
    while (chars < bytes / sizeof(WCHAR) && text[chars] != UNICODE_NULL) ++chars;
    UNICODE_STRING guidText = {static_cast<USHORT>(chars * sizeof(WCHAR)), static_cast<USHORT>(chars * sizeof(WCHAR)),
                               text};
    status = RtlGUIDFromString(&guidText, ClassGuid);
  }
  ExFreePoolWithTag(text, CBT_POOL_TAG);
  return status;
}

NTSTATUS CbtAddDevice(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT PhysicalDeviceObject) {
  if (CbtRaxcoBootDefragScheduled) {
    LogAddDevice(0, 0, __LINE__, STATUS_SUCCESS);
    return STATUS_SUCCESS;
  }
  PCBT_DRIVER_EXTENSION driverExtension =
      static_cast<PCBT_DRIVER_EXTENSION>(IoGetDriverObjectExtension(DriverObject, reinterpret_cast<PVOID>(CbtAddDevice)));
  ULONG logFlags = 0;
  ULONG volumeNumber = 0;
  POBJECT_NAME_INFORMATION name = NULL;
  GUID classGuid;
  PCUNICODE_STRING nameText = NULL;

  NTSTATUS status = CbtQueryDeviceName(PhysicalDeviceObject, &name);
  if (!NT_SUCCESS(status)) {
    LogAddDevice(logFlags, volumeNumber, __LINE__, status);
    goto Exit;
  }
  nameText = name != NULL ? &name->Name : NULL;
  status = CbtGetDeviceClassGuid(PhysicalDeviceObject, &classGuid);
  if (!NT_SUCCESS(status)) {
    LogAddDevice(logFlags, volumeNumber, __LINE__, status);
    goto Exit;
  }

  if (classGuid == GUID_DEVCLASS_VOLUME) {
    // Only fixed disks: a removable volume changes media under the tracker's feet.
    if (PhysicalDeviceObject->DeviceType != FILE_DEVICE_DISK ||
        (PhysicalDeviceObject->Characteristics & FILE_REMOVABLE_MEDIA) != 0) {
      LogAddDevice(logFlags, volumeNumber, __LINE__, STATUS_UNRECOGNIZED_VOLUME);
      goto Exit;
    }
    volumeNumber = CbtParseVolumeNumber(nameText);
  } else if (classGuid == GUID_DEVCLASS_VOLUMESNAPSHOT) {
    logFlags = CBT_FLAG_SNAPSHOT_DEVICE;
    if (PhysicalDeviceObject->DeviceType != FILE_DEVICE_VIRTUAL_DISK) {
      LogAddDevice(logFlags, volumeNumber, __LINE__, STATUS_UNRECOGNIZED_VOLUME);
      goto Exit;
    }
    volumeNumber = CbtParseShadowCopyNumber(nameText);
  } else {
    LogAddDevice(logFlags, volumeNumber, __LINE__, STATUS_SUCCESS);
    goto Exit;
  }

  // The driver-object extension exists whenever the driver loaded (its entry fails
  // without it), but a volume is declined rather than filtered without one.
  if (driverExtension == NULL) {
    status = STATUS_INSUFFICIENT_RESOURCES;
    LogAddDevice(logFlags, volumeNumber, __LINE__, status);
    goto Exit;
  }
  status = CreateFilterDevice(DriverObject, PhysicalDeviceObject, driverExtension, &name,
                              logFlags == CBT_FLAG_SNAPSHOT_DEVICE, volumeNumber);

Exit:
  // Whatever happened, the volume's own stack goes on starting: a failure only means the
  // volume is not filtered. What was obtained on the way is freed here.
  if (!NT_SUCCESS(status)) LogAddDevice(logFlags, volumeNumber, __LINE__, status);
  if (name != NULL) ExFreePoolWithTag(name, CBT_POOL_TAG);
  return STATUS_SUCCESS;
}
