// Removal protection: keeps a volume's extension alive while a request, a work item or a
// notification uses it.
//
// Every request that a tracked volume's dispatch takes in is bracketed by exactly one
// acquire and one release; a held or deferred request carries its reference with it. An
// acquisition made after removal began fails on the rundown block and is counted in
// RundownBypassCount instead, so its release is paid back without touching the block.
// Lock-free: any IRQL up to DISPATCH_LEVEL, except the wait.
#pragma once
#include <ntddk.h>

// Takes a reference (or counts a bypass) and returns the removal state as read after it
// (CBT_REMOVAL_STATE). A caller that receives CbtRemovalPending and refuses the request
// releases once; one that receives CbtRemovalComplete must not release.
ULONG CbtAcquireRemovalProtection(_In_ PDEVICE_OBJECT DeviceObject);

VOID CbtReleaseRemovalProtection(_In_ PDEVICE_OBJECT DeviceObject);

// At removal, once: gives back the device's own reference (taken by CbtAddDevice), waits
// until every other reference is released, frees the rundown block and marks the removal
// complete. PASSIVE_LEVEL. Returns TRUE.
BOOLEAN CbtWaitForRemovalProtection(_In_ PDEVICE_OBJECT DeviceObject);
