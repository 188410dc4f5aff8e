// Volume notifications: the volume-interface arrival callback and, through it, the
// target-device notifications that close and reopen the tracking file around lock,
// dismount, removal and resizing.
#pragma once
#include <ntddk.h>

// Registered by DriverEntry for GUID_DEVINTERFACE_VOLUME, existing interfaces included;
// Context is NULL. Returns STATUS_SUCCESS.
DRIVER_NOTIFICATION_CALLBACK_ROUTINE CbtVolumeArrival;
