// The tracking file: write-back, the shadow-copy view of it, and the boot-time wait for
// volumes that are safe to write.
#pragma once
#include <ntddk.h>

struct _CBT_DEVICE_EXTENSION;

// Writes the volume's tracking data into its tracking file when a flush was requested
// (CBT_FLAG_FLUSH_METADATA, CBT_FLAG_BITMAP_DIRTY) or the file's finalization changes.
// SemaphoreHeld: the caller already holds TrackingFileSemaphore. PASSIVE_LEVEL.
NTSTATUS CbtFlushTrackingFile(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension, _In_ BOOLEAN Finalize,
                              _In_ BOOLEAN SemaphoreHeld);

// Completion routine of reads on a volume whose file system is not yet readable. Releases
// the read's removal protection.
IO_COMPLETION_ROUTINE CbtReadCompletion;

// A shadow-copy read that overlaps the tracking file: returns the patched image. Takes the
// request over, completes it and releases its removal protection. PASSIVE_LEVEL.
NTSTATUS CbtFilterSnapshotTrackingFileRead(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// Work-item routine for such reads that arrived above PASSIVE_LEVEL; Context is the read's
// CBT_WORK_CONTEXT, which it returns to the lookaside list.
IO_WORKITEM_ROUTINE CbtSnapshotReadWorker;

// Boot-driver reinitialization: once, waits on a worker thread until volumes are safe for
// write access, then lets the log writer start.
DRIVER_REINITIALIZE CbtBootReinitialize;
