// The driver's settings: values of its service key, read once while the driver loads and
// only read afterwards.
#pragma once
#include <ntddk.h>

typedef struct _CBT_SETTINGS {
  ULONG EventLevel;               // kept; nothing depends on it
  ULONG PersistOverReboot;        // non-zero: tracking data survives a restart when the file system agrees
  ULONG TrackUnmap;               // kept; nothing depends on it
  ULONG ExcludeUSB;               // non-zero: USB volumes are not tracked
  ULONG WriteNotificationEvents;  // zero: a failed tracking-file open is not recorded
  ULONG WriteNtfsEvents;          // kept; nothing depends on it
  ULONG ExcludeVHD;               // non-zero: virtual-disk volumes are not tracked
  ULONG DebugLog;                 // non-zero: the debug log records
  UNICODE_STRING DebugLogPath;    // path of the debug log file; the buffer is the registry query's
} CBT_SETTINGS, *PCBT_SETTINGS;

extern CBT_SETTINGS CbtSettings;

// Reads the settings from the service key at RegistryPath. A missing value keeps its
// default; a value of the wrong type ends the query there (later values keep their
// defaults) and its status is returned.
NTSTATUS CbtReadSettings(_In_ PUNICODE_STRING RegistryPath);

// Frees what the settings hold (the DebugLogPath buffer). For unloading.
VOID CbtReleaseSettings(VOID);
