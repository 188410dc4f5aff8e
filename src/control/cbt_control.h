// The control interface: device-control requests to a volume, and synchronous control
// requests the driver sends to other devices.
#pragma once
#include <ntddk.h>

// The excluded-volume probe: an excluded volume answers it with success before the control
// dispatch runs; a tracked volume refuses it.
#define IOCTL_KVCBT_CHECK_EXCLUDED 0x8CB70108u

// IRP_MJ_DEVICE_CONTROL of a volume that is not excluded. Takes the request's removal
// protection; returns the status the request was completed with, the lower driver's, or
// STATUS_PENDING.
NTSTATUS CbtDispatchDeviceControl(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// Sends a METHOD_BUFFERED control request to Device and waits for it. PASSIVE_LEVEL.
NTSTATUS CbtSendDeviceControl(_In_ PDEVICE_OBJECT Device, _In_ ULONG ControlCode, _In_opt_ PVOID InputBuffer,
                              _In_ ULONG InputLength, _Out_opt_ PVOID OutputBuffer, _In_ ULONG OutputLength,
                              _Out_ PIO_STATUS_BLOCK StatusBlock);
