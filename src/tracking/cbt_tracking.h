// Change tracking: the per-volume bitmap and the write path that marks it.
#pragma once
#include <ntddk.h>

struct _CBT_DEVICE_EXTENSION;

// Bitmap geometry for a volume of ClusterCount clusters of BytesPerCluster bytes: about
// 3.5 million bits per 64 TiB, whole clusters per bit and at least 64 KiB.
NTSTATUS CbtCalculateBitmapGeometry(_In_ ULONG ClusterCount, _In_ ULONG BytesPerCluster, _Out_ PULONG BitCount,
                                    _Out_ PULONG BytesPerBit);

// Sizes the volume's bitmap to BitCount bits, keeping the bits that still fit. The caller
// holds FileSystemMutex.
NTSTATUS CbtAllocateTrackingBitMap(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension, _In_ ULONG BitCount);

// Marks the blocks that [ByteOffset, ByteOffset + Length) touches. TRUE when at least one
// bit was newly set. IRQL up to DISPATCH_LEVEL.
BOOLEAN CbtSetBitsInTrackingBitmap(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension, _In_ LONGLONG ByteOffset,
                                   _In_ ULONG Length, _In_ BOOLEAN PagingIo);

// The write branch of CbtDispatch, for a volume that is not excluded: removal protection,
// hold, then stage two inline or on a work item.
NTSTATUS CbtDispatchWrite(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// Work-item routine of a deferred write; Context is its CBT_WORK_CONTEXT.
IO_WORKITEM_ROUTINE CbtWriteWorkItem;

// Marks the write and passes it down; releases the write's removal protection. Returns the
// lower driver's status.
NTSTATUS CbtWriteWorkerStageTwo(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// Holds the volume's writes: until the matching CbtResumeVolumeIo, writes (and copy-data
// requests) are queued instead of processed. Holds are counted; any IRQL up to
// DISPATCH_LEVEL.
VOID CbtHoldVolumeIo(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension);

// While the volume is held, queues the request behind those held before it: marks it
// pending and links it through its driver-context area; the request keeps its removal
// protection. Returns the hold count it was queued under (the caller then returns
// STATUS_PENDING and no longer touches the request), or 0 when the volume flows and the
// request was not queued. Any IRQL up to DISPATCH_LEVEL.
ULONG CbtQueueHeldRequest(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension, _Inout_ PIRP Irp);

// Ends one hold and, with the last one, sends the held requests through the driver's
// dispatch again in arrival order, each first giving back the removal protection it held.
// The caller holds removal protection of its own across the call. PASSIVE_LEVEL.
VOID CbtResumeVolumeIo(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension);
