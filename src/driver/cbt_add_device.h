// Attaching a filter device above each fixed-disk volume and each volume shadow copy.
#pragma once
#include <ntddk.h>

// The add-device routine. Returns STATUS_SUCCESS in every case, also when it declined the
// device or failed: the volume then simply has no filter, and its own stack still starts.
DRIVER_ADD_DEVICE CbtAddDevice;

// The object name of DeviceObject in a pool copy ("Cbt0") the caller frees. A successful
// query of an unnamed object leaves *Name NULL.
NTSTATUS CbtQueryDeviceName(_In_ PDEVICE_OBJECT DeviceObject, _Outptr_result_maybenull_ POBJECT_NAME_INFORMATION* Name);

// The device class of a physical device object (DevicePropertyClassGuid).
NTSTATUS CbtGetDeviceClassGuid(_In_ PDEVICE_OBJECT DeviceObject, _Out_ GUID* ClassGuid);

// The decimal number after "\Device\HarddiskVolume" (after "\Device\HarddiskVolumeShadowCopy"
// for the second), case included; 0 for NULL, a shorter name, another prefix, or anything
// but digits up to the end or a NUL.
ULONG CbtParseVolumeNumber(_In_opt_ PCUNICODE_STRING Name);
ULONG CbtParseShadowCopyNumber(_In_opt_ PCUNICODE_STRING Name);
