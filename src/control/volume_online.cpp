// A volume coming online and going offline.
//
// Online is where a volume enters tracking: once the volume below has come online, the
// driver learns what disk it lives on, decides whether it is tracked at all, and builds the
// file-system reader (and with it the bitmap) that tracking depends on. All of it happens
// while the volume's writes are held, so that no write is tracked, and no write changes the
// file system under the reader's set-up, before the reader exists; the held writes then go
// on and are tracked. Offline writes the tracking file a last time and drops the reader
// before the volume goes away.
#include <ntdddisk.h>
#include <ntddstor.h>

#include "control/cbt_control.h"
#include "control/cbt_control_handlers.h"
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"
#include "driver/cbt_removal_protection.h"
#include "driver/cbt_settings.h"
#include "fs/cbt_fs.h"
#include "trackfile/cbt_trackfile.h"
#include "tracking/cbt_tracking.h"

namespace {

// BitLocker's statuses for a volume whose file system cannot be read while it is locked.
constexpr NTSTATUS kBitLockerLockedMetadata = static_cast<NTSTATUS>(0xC0210024L);

// The adapter of the disk below: a disk on a USB bus is marked.
VOID QueryAdapterBus(PCBT_DEVICE_EXTENSION Extension) {
  STORAGE_PROPERTY_QUERY query = {};
  query.PropertyId = StorageAdapterProperty;
  query.QueryType = PropertyStandardQuery;
  STORAGE_ADAPTER_DESCRIPTOR adapter = {};
  adapter.Size = sizeof(adapter);
  IO_STATUS_BLOCK iosb = {};
  const NTSTATUS status = CbtSendDeviceControl(Extension->LowerDeviceObject, IOCTL_STORAGE_QUERY_PROPERTY, &query,
                                               sizeof(query), &adapter, sizeof(adapter), &iosb);
  if (NT_SUCCESS(status) && adapter.BusType == BusTypeUsb) CbtSetFlags(Extension, CBT_FLAG_USB);
}

// Xvdd disks are never tracked; virtual and USB disks when the settings say so.
BOOLEAN IsExcludedDisk(ULONG Flags) {
  if ((Flags & CBT_FLAG_XVDD) != 0) return TRUE;
  if ((Flags & CBT_FLAG_VHD) != 0 && CbtSettings.ExcludeVHD != 0) return TRUE;
  return (Flags & CBT_FLAG_USB) != 0 && CbtSettings.ExcludeUSB != 0;
}

// A tracked volume: whether it can be written, then its file-system reader.
VOID PrepareTracking(PCBT_DEVICE_EXTENSION Extension) {
  IO_STATUS_BLOCK iosb = {};
  const NTSTATUS writable = CbtSendDeviceControl(Extension->LowerDeviceObject, IOCTL_DISK_IS_WRITABLE, NULL, 0, NULL,
                                                 0, &iosb);
  if (writable == STATUS_MEDIA_WRITE_PROTECTED)
    CbtSetFlags(Extension, CBT_FLAG_READ_ONLY);
  else
    CbtClearFlags(Extension, CBT_FLAG_READ_ONLY);

  const NTSTATUS status = CbtInitializeFileSystem(Extension);
  if (NT_SUCCESS(status)) {
    Extension->LastRestartCount = Extension->BaselineRestartCount;
    return;
  }
  CBT_LOG_VOLUME(Extension, "CbtVolumeOnline", status);
  if (status == STATUS_FVE_LOCKED_VOLUME || status == kBitLockerLockedMetadata)
    CbtClearFlags(Extension, CBT_FLAG_FILE_SYSTEM_READABLE);
}

// An excluded volume leaves the driver's sight: no shutdown request, no volume notification.
VOID ForgetExcludedVolume(PCBT_DEVICE_EXTENSION Extension) {
  IoUnregisterShutdownNotification(Extension->DeviceObject);
  PVOID entry = InterlockedExchangePointer(&Extension->TargetNotificationEntry, NULL);
  if (entry != NULL) IoUnregisterPlugPlayNotification(entry);
}

NTSTATUS ReleaseAndComplete(PCBT_DEVICE_EXTENSION Extension, PIRP Irp, CCHAR Boost) {
  const NTSTATUS status = Irp->IoStatus.Status;
  CbtReleaseRemovalProtection(Extension->DeviceObject);
  IoCompleteRequest(Irp, Boost);
  return status;
}

}  // namespace

NTSTATUS CbtVolumeOnline(PCBT_DEVICE_EXTENSION Extension, PIRP Irp) {
  CBT_LOG_VOLUME(Extension, "CbtVolumeOnline", STATUS_SUCCESS);
  CbtHoldVolumeIo(Extension);

  const NTSTATUS status = CbtForwardIrpSynchronously(Extension->DeviceObject, Irp);
  if (!NT_SUCCESS(status)) {
    CbtClearFlags(Extension, CBT_FLAG_ONLINE);
    CBT_LOG_VOLUME(Extension, "CbtVolumeOnline", status);
    CbtResumeVolumeIo(Extension);
    ReleaseAndComplete(Extension, Irp, IO_NO_INCREMENT);
    return status;
  }

  CbtSetFlags(Extension, CBT_FLAG_ONLINE | CBT_FLAG_FILE_SYSTEM_READABLE);
  CbtQueryDiskIdentity(Extension);
  if ((CbtReadFlags(Extension) & (CBT_FLAG_VHD | CBT_FLAG_XVDD)) == 0) QueryAdapterBus(Extension);

  if (!IsExcludedDisk(CbtReadFlags(Extension)))
    PrepareTracking(Extension);
  else
    ForgetExcludedVolume(Extension);

  CbtResumeVolumeIo(Extension);
  ReleaseAndComplete(Extension, Irp, IO_DISK_INCREMENT);
  return STATUS_SUCCESS;
}

NTSTATUS CbtVolumeOffline(PCBT_DEVICE_EXTENSION Extension, PIRP Irp) {
  CBT_LOG_VOLUME(Extension, "CbtVolumeOffline", STATUS_SUCCESS);
  const ULONG flags = CbtReadFlags(Extension);
  if ((flags & CBT_FLAG_ONLINE) == 0) {
    // Already offline below: nothing to write and nothing to tell the volume.
    Irp->IoStatus.Status = STATUS_SUCCESS;
    return ReleaseAndComplete(Extension, Irp, IO_DISK_INCREMENT);
  }

  // The last tracking data the volume will take, marked final, so that the next start can
  // trust it. A shadow copy's tracking file is its original's and is never written.
  if ((flags & CBT_FLAG_SNAPSHOT_DEVICE) == 0 && (flags & CBT_FLAG_TRACKING_FILE_READY) != 0) {
    const NTSTATUS flushed = CbtFlushTrackingFile(Extension, TRUE, FALSE);
    if (!NT_SUCCESS(flushed)) CBT_LOG_VOLUME(Extension, "CbtVolumeOffline", flushed);
  }
  // The reader goes before the volume does: the write path takes it under the same mutex.
  CbtUninitializeFileSystem(Extension);

  const NTSTATUS status = CbtForwardIrpSynchronously(Extension->DeviceObject, Irp);
  if (NT_SUCCESS(status))
    CbtClearFlags(Extension, CBT_FLAG_ONLINE);
  else
    CBT_LOG_VOLUME(Extension, "CbtVolumeOffline", status);
  return ReleaseAndComplete(Extension, Irp, IO_DISK_INCREMENT);
}
