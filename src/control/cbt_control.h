// The control interface: device-control requests to a volume, and synchronous control
// requests the driver sends to other devices. The codes and reply records are public, in
// kvcbt/control.h.
#pragma once
#include <ntddk.h>

#include "kvcbt/control.h"

// IRP_MJ_DEVICE_CONTROL of a volume that is not excluded. Takes the request's removal
// protection; returns the status the request was completed with, the lower driver's, or
// STATUS_PENDING.
NTSTATUS CbtDispatchDeviceControl(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// Sends a METHOD_BUFFERED control request to Device and waits for it: one buffer of the
// larger of the two lengths carries the input down and the output back, and OutputLength
// bytes are copied to OutputBuffer whatever the status. STATUS_INVALID_DEVICE_REQUEST for
// another transfer method (nothing is sent), STATUS_INSUFFICIENT_RESOURCES when the request
// or its buffer cannot be had; otherwise the target's status. PASSIVE_LEVEL.
NTSTATUS CbtSendDeviceControl(_In_ PDEVICE_OBJECT Device, _In_ ULONG ControlCode, _In_opt_ PVOID InputBuffer,
                              _In_ ULONG InputLength, _Out_opt_ PVOID OutputBuffer, _In_ ULONG OutputLength,
                              _Out_ PIO_STATUS_BLOCK StatusBlock);
