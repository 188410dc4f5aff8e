// Plug and Play requests of the filter devices and the teardown of a volume's tracking
// state.
#pragma once
#include <ntddk.h>

struct _CBT_DEVICE_EXTENSION;

// IRP_MJ_PNP, excluded volumes included: logs start, stop and removal, tears the volume's
// tracking state down at surprise removal and removal, and at removal waits until no
// request uses the extension before the filter device is detached and deleted.
DRIVER_DISPATCH CbtDispatchPnp;

// Closes the tracking file, drops the file-system reader, frees the bitmap and the
// tracking-file image, and with FreeName the device name; clears the tracking-file flags.
// Does not flush. PASSIVE_LEVEL. Requests holding removal protection may still run: the
// reader goes under FileSystemMutex and the bitmap under BitmapLock, and users of the
// reader check CBT_FLAG_FS_CONTEXT under FileSystemMutex before they use it.
VOID CbtTeardownVolume(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension, _In_ BOOLEAN FreeName);
