// Request routing of the filter devices, and forwarding a request to the volume below.
#pragma once
#include <ntddk.h>

struct _CBT_DEVICE_EXTENSION;

// Create, close, read, write, device control, shutdown, power and Plug and Play.
DRIVER_DISPATCH CbtDispatch;
// Every other major function: straight to the device below. A device without an extension
// or a lower device completes the request with STATUS_INVALID_DEVICE_REQUEST.
DRIVER_DISPATCH CbtDispatchPassThrough;

// A volume is excluded from tracking when it is on a USB bus or a virtual disk and the
// matching setting says so, or when it is an Xvdd disk, the sandbox base layer, or a
// recovery or reserved partition. Its requests pass through the driver untouched.
BOOLEAN CbtIsVolumeExcluded(_In_ const struct _CBT_DEVICE_EXTENSION* Extension);

// Gives back the request's removal protection, then passes the request unchanged to the
// device below and returns the lower driver's status. The lower device is read from the
// extension while the reference still holds: once it is given back, a removal may delete
// the filter device, and its extension with it, at any moment. Without a lower device the
// request completes with STATUS_INVALID_DEVICE_REQUEST. Every branch that is done with a
// request it protected and lets it go on down ends here.
NTSTATUS CbtReleaseAndPassDown(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// Passes the request to the device below and waits for it; the request comes back to the
// caller, which must complete it. Returns the lower driver's final status. PASSIVE_LEVEL.
NTSTATUS CbtForwardIrpSynchronously(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// Completion routine of a request sent down and waited for: signals the event given as
// context and keeps the request for its sender (STATUS_MORE_PROCESSING_REQUIRED).
IO_COMPLETION_ROUTINE CbtSynchronousCompletion;
