// The handlers CbtDispatchDeviceControl hands requests to. Each is given the request with
// the removal protection taken on entry and is responsible for releasing it exactly once
// and for completing the request, passing it down or queueing it; each returns the status
// the request was completed with, the lower driver's, or STATUS_PENDING. The exception is
// CbtEnableTracking, which only returns a status: the dispatch completes the request.
// All run at PASSIVE_LEVEL.
#pragma once
#include <ntddk.h>

struct _CBT_DEVICE_EXTENSION;

// ----- Tracking switch and queries (tracking_requests.cpp).
NTSTATUS CbtEnableTracking(_In_ PDEVICE_OBJECT DeviceObject);
NTSTATUS CbtDisableTracking(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS CbtQueryVolumeTrackingInformation(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS CbtQueryVolumeTrackingInformationEx(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS CbtSetResetTime(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// ----- Bitmap copy-out (bitmap_copy.cpp).
NTSTATUS CbtGetVolumeBitmap(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS CbtCheckVolumeBitmap(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// ----- Trim and copy offload (trim_copy_offload.cpp).
NTSTATUS CbtManageDataSetAttributes(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS CbtCopyData(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// ----- Flush-and-hold (flush_and_hold.cpp).
NTSTATUS CbtFlushAndHoldWrites(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);

// ----- Mount links, online and offline (mount_links.cpp, volume_online.cpp, disk_identity.cpp).
NTSTATUS CbtMountDevLinkCreated(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS CbtMountDevLinkDeleted(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS CbtVolumeOnline(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension, _Inout_ PIRP Irp);
NTSTATUS CbtVolumeOffline(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension, _Inout_ PIRP Irp);

// Classifies the disk below from its storage device descriptor: sets CBT_FLAG_XVDD for an
// Xvdd disk and CBT_FLAG_VHD for a Microsoft virtual disk, nothing for any other. Returns
// the last query's status, or STATUS_FILE_CORRUPT_ERROR for a descriptor that contradicts
// itself; online does not act on it (disk_identity.cpp). PASSIVE_LEVEL.
NTSTATUS CbtQueryDiskIdentity(_Inout_ struct _CBT_DEVICE_EXTENSION* Extension);

// ----- GPT attributes and the shadow-copy commit (snapshot_commit.cpp).
NTSTATUS CbtSetGptAttributes(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS CbtVerifySnapshot(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
NTSTATUS CbtEndCommitSnapshot(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp);
