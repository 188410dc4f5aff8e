// Device control on a tracked volume: the backup application's own codes and the storage
// stack's requests that the driver must see in passing. Each code is matched exactly and
// goes to its handler; the small replies are produced here; anything else travels on down
// the volume's stack unchanged.
#include <wdm.h>

#include <mountdev.h>
#include <ntdddisk.h>
#include <ntddscsi.h>
#include <ntddsnap.h>
#include <ntddstor.h>
#include <ntddvol.h>

#include "control/cbt_control.h"
#include "control/cbt_control_handlers.h"
#include "control/cbt_scsi_pass_through.h"
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"
#include "driver/cbt_removal_protection.h"

namespace {

#define CBT_LOG_CONTROL(Extension, Status) CBT_LOG_VOLUME((Extension), "CbtDispatchDeviceControl", (Status))

// Completes a request answered here. Nothing here touched the disk, so no priority boost.
NTSTATUS Complete(PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = Information;
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

NTSTATUS ReleaseAndComplete(PDEVICE_OBJECT DeviceObject, PIRP Irp, NTSTATUS Status, ULONG_PTR Information) {
  CbtReleaseRemovalProtection(DeviceObject);
  return Complete(Irp, Status, Information);
}

NTSTATUS QueryDriverVersion(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG OutputLength) {
  auto* reply = static_cast<CBT_DRIVER_VERSION*>(Irp->AssociatedIrp.SystemBuffer);
  if (reply == NULL || OutputLength < sizeof(CBT_DRIVER_VERSION)) {
    CBT_LOG_CONTROL(CbtExtensionOf(DeviceObject), STATUS_INVALID_PARAMETER);
    return ReleaseAndComplete(DeviceObject, Irp, STATUS_INVALID_PARAMETER, 0);
  }
  reply->Major = CBT_VERSION_MAJOR;
  reply->Minor = CBT_VERSION_MINOR;
  reply->Build = CBT_VERSION_BUILD;
  return ReleaseAndComplete(DeviceObject, Irp, STATUS_SUCCESS, sizeof(CBT_DRIVER_VERSION));
}

// Answers whether tracking is switched on. The length must be exactly that of the answer,
// so that an application built against another layout is told rather than misread.
NTSTATUS QueryTrackingEnabled(PDEVICE_OBJECT DeviceObject, PIRP Irp, ULONG OutputLength) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  auto* reply = static_cast<CBT_TRACKING_ENABLED_REPLY*>(Irp->AssociatedIrp.SystemBuffer);
  CBT_LOG_CONTROL(extension, STATUS_SUCCESS);
  if (reply == NULL || OutputLength != sizeof(CBT_TRACKING_ENABLED_REPLY))
    return ReleaseAndComplete(DeviceObject, Irp, STATUS_INVALID_PARAMETER, 0);
  *reply = extension->TrackingEnabled != 0 ? 1 : 0;
  return ReleaseAndComplete(DeviceObject, Irp, STATUS_SUCCESS, sizeof(CBT_TRACKING_ENABLED_REPLY));
}

// A marker the backup application drops into the debug log between its own steps; the
// record is its whole effect, and the request's Information stays as it came.
NTSTATUS LogMarker(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  CBT_LOG_CONTROL(CbtExtensionOf(DeviceObject), STATUS_SUCCESS);
  CbtReleaseRemovalProtection(DeviceObject);
  Irp->IoStatus.Status = STATUS_SUCCESS;
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
  return STATUS_SUCCESS;
}

NTSTATUS EnableTracking(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  const NTSTATUS status = CbtEnableTracking(DeviceObject);
  return ReleaseAndComplete(DeviceObject, Irp, status, 0);
}

}  // namespace

NTSTATUS CbtDispatchDeviceControl(_In_ PDEVICE_OBJECT DeviceObject, _Inout_ PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  const ULONG removalState = CbtAcquireRemovalProtection(DeviceObject);
  if (removalState != CbtRemovalActive) {
    CBT_LOG_CONTROL(extension, STATUS_DEVICE_DOES_NOT_EXIST);
    // A removed device has no rundown block left to give the reference back to.
    if (removalState == CbtRemovalPending) CbtReleaseRemovalProtection(DeviceObject);
    return Complete(Irp, STATUS_DEVICE_DOES_NOT_EXIST, 0);
  }

  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  const ULONG code = stack->Parameters.DeviceIoControl.IoControlCode;
  const ULONG inputLength = stack->Parameters.DeviceIoControl.InputBufferLength;
  const ULONG outputLength = stack->Parameters.DeviceIoControl.OutputBufferLength;

  switch (code) {
    // ----- The driver's own codes.
    case IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION:
      return CbtQueryVolumeTrackingInformation(DeviceObject, Irp);
    case IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX:
      return CbtQueryVolumeTrackingInformationEx(DeviceObject, Irp);
    case IOCTL_KVCBT_GET_VOLUME_BITMAP:
      return CbtGetVolumeBitmap(DeviceObject, Irp);
    case IOCTL_KVCBT_CHECK_VOLUME_BITMAP:
      return CbtCheckVolumeBitmap(DeviceObject, Irp);
    case IOCTL_KVCBT_SET_RESET_TIME:
      return CbtSetResetTime(DeviceObject, Irp);
    case IOCTL_KVCBT_DISABLE_TRACKING:
      return CbtDisableTracking(DeviceObject, Irp);
    case IOCTL_KVCBT_ENABLE_TRACKING:
      return EnableTracking(DeviceObject, Irp);
    case IOCTL_KVCBT_VERIFY_SNAPSHOT:
      return CbtVerifySnapshot(DeviceObject, Irp);
    case IOCTL_KVCBT_RESERVED_34:
    case IOCTL_KVCBT_RESERVED_35:
      return ReleaseAndComplete(DeviceObject, Irp, STATUS_SUCCESS, 0);
    case IOCTL_KVCBT_QUERY_DRIVER_VERSION:
      return QueryDriverVersion(DeviceObject, Irp, outputLength);
    case IOCTL_KVCBT_LOG_MARKER:
      return LogMarker(DeviceObject, Irp);
    case IOCTL_KVCBT_CHECK_EXCLUDED:
      // Only a tracked volume gets here: an excluded one answers this probe with success
      // before the control dispatch runs.
      return ReleaseAndComplete(DeviceObject, Irp, STATUS_NOT_IMPLEMENTED, 0);
    case IOCTL_KVCBT_QUERY_TRACKING_ENABLED:
      return QueryTrackingEnabled(DeviceObject, Irp, outputLength);

    // ----- SCSI pass-through: not interpreted, only kept from reaching the volume's stack
    // malformed. A refusal leaves Information as it came.
    case IOCTL_SCSI_PASS_THROUGH:
    case IOCTL_SCSI_PASS_THROUGH_DIRECT:
    case IOCTL_SCSI_PASS_THROUGH_EX:
    case IOCTL_SCSI_PASS_THROUGH_DIRECT_EX:
      if (!CbtIsScsiPassThroughWellFormed(code, Irp->AssociatedIrp.SystemBuffer, inputLength)) {
        CbtReleaseRemovalProtection(DeviceObject);
        Irp->IoStatus.Status = STATUS_INVALID_PARAMETER;
        IoCompleteRequest(Irp, IO_NO_INCREMENT);
        return STATUS_INVALID_PARAMETER;
      }
      return CbtReleaseAndPassDown(DeviceObject, Irp);

    // ----- The storage stack's requests the driver acts on.
    case IOCTL_DISK_COPY_DATA:
      return CbtCopyData(DeviceObject, Irp);
    case IOCTL_STORAGE_MANAGE_DATA_SET_ATTRIBUTES:
      return CbtManageDataSetAttributes(DeviceObject, Irp);
    case IOCTL_MOUNTDEV_LINK_CREATED:
      return CbtMountDevLinkCreated(DeviceObject, Irp);
    case IOCTL_MOUNTDEV_LINK_DELETED:
      return CbtMountDevLinkDeleted(DeviceObject, Irp);
    case IOCTL_VOLSNAP_FLUSH_AND_HOLD_WRITES:
      return CbtFlushAndHoldWrites(DeviceObject, Irp);
    case IOCTL_VOLSNAP_END_COMMIT_SNAPSHOT:
      return CbtEndCommitSnapshot(DeviceObject, Irp);
    case IOCTL_VOLUME_SET_GPT_ATTRIBUTES:
      return CbtSetGptAttributes(DeviceObject, Irp);
    case IOCTL_VOLUME_ONLINE:
      return CbtVolumeOnline(extension, Irp);
    case IOCTL_VOLUME_OFFLINE:
      return CbtVolumeOffline(extension, Irp);

    // The tracking period closes at flush-and-hold and the new shadow copy is recorded at
    // end of commit; the steps in between are the provider's alone. Release of writes ends
    // the provider's hold, not the driver's (which ends inside flush-and-hold), so it takes
    // the default path too.
    case IOCTL_VOLSNAP_PREPARE_FOR_SNAPSHOT:
    case IOCTL_VOLSNAP_COMMIT_SNAPSHOT:
    default:
      return CbtReleaseAndPassDown(DeviceObject, Irp);
  }
}
