// Request routing of the filter devices: exclusion, then reads, writes, device control,
// shutdown, power and Plug and Play each to their branch.
#include "control/cbt_control.h"
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"
#include "driver/cbt_pnp.h"
#include "driver/cbt_removal_protection.h"
#include "trackfile/cbt_trackfile.h"
#include "tracking/cbt_tracking.h"

namespace {

// The writer that is told to stop runs a little sooner, to finish before the power goes.
constexpr KPRIORITY kStopWriterBoost = 1;

NTSTATUS CompleteRequest(PIRP Irp, NTSTATUS Status) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = 0;
  IoCompleteRequest(Irp, IO_NO_INCREMENT);
  return Status;
}

// The read touches the tracking file's clusters (both ranges inclusive, signed).
BOOLEAN ReadOverlapsTrackingFile(const CBT_DEVICE_EXTENSION* Extension, LONGLONG Offset, ULONG Length) {
  const LONGLONG fileFirst = Extension->TrackingFileOffset;
  const LONGLONG fileLast = fileFirst + static_cast<LONGLONG>(Extension->TrackingFileLength) - 1;
  const LONGLONG readLast = Offset + static_cast<LONGLONG>(Length) - 1;
  return Offset <= fileLast && fileFirst <= readLast;
}

// A shadow-copy read of the tracking file above PASSIVE_LEVEL: the patched view needs
// waits and file access, so it continues on a critical work item that carries the read
// and its removal protection.
NTSTATUS DeferSnapshotRead(PDEVICE_OBJECT DeviceObject, PCBT_DEVICE_EXTENSION Extension, PIRP Irp) {
  return CbtDeferToCriticalWorkItem(DeviceObject, Extension, Irp, CbtWorkSnapshotRead, CbtSnapshotReadWorker);
}

NTSTATUS DispatchRead(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  const ULONG state = CbtAcquireRemovalProtection(DeviceObject);
  if (state != CbtRemovalActive) {
    CBT_LOG_VOLUME(extension, "CbtDispatchRead", STATUS_DEVICE_DOES_NOT_EXIST);
    if (state == CbtRemovalPending) CbtReleaseRemovalProtection(DeviceObject);
    return CompleteRequest(Irp, STATUS_DEVICE_DOES_NOT_EXIST);
  }
  // Removable media is never tracked, so nothing of it is filtered or watched.
  if ((extension->LowerDeviceObject->Characteristics & FILE_REMOVABLE_MEDIA) != 0)
    return CbtReleaseAndPassDown(DeviceObject, Irp);
  const ULONG flags = CbtReadFlags(extension);
  if ((flags & CBT_FLAG_FILE_SYSTEM_READABLE) == 0) {
    // The first read that succeeds on a volume whose file system could not be read (a
    // BitLocker-locked volume, for one) tells the completion path it may come online now.
    IoMarkIrpPending(Irp);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, CbtReadCompletion, NULL, TRUE, TRUE, TRUE);
    IoCallDriver(extension->LowerDeviceObject, Irp);
    return STATUS_PENDING;
  }
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  const ULONG length = stack->Parameters.Read.Length;
  if ((flags & (CBT_FLAG_SNAPSHOT_DEVICE | CBT_FLAG_FS_CONTEXT)) == (CBT_FLAG_SNAPSHOT_DEVICE | CBT_FLAG_FS_CONTEXT) &&
      extension->TrackingFileLength != 0 && length != 0 &&
      ReadOverlapsTrackingFile(extension, stack->Parameters.Read.ByteOffset.QuadPart, length)) {
    if (KeGetCurrentIrql() == PASSIVE_LEVEL) return CbtFilterSnapshotTrackingFileRead(DeviceObject, Irp);
    return DeferSnapshotRead(DeviceObject, extension, Irp);
  }
  return CbtReleaseAndPassDown(DeviceObject, Irp);
}

// Shutdown writes the tracking data once more (not yet final: the set-power request for
// the shutdown state makes the final flush) and hurries the log writer on the C: volume.
NTSTATUS DispatchShutdown(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  CbtSetFlags(extension, CBT_FLAG_SHUTDOWN);
  CBT_LOG_VOLUME(extension, "CbtDispatchShutdown", STATUS_SUCCESS);
  if (CbtFlagsSet(extension, CBT_FLAG_TRACKING_FILE_READY | CBT_FLAG_TRACKING_VALID)) {
    CbtSetFlags(extension, CBT_FLAG_FLUSH_METADATA);
    const NTSTATUS status = CbtFlushTrackingFile(extension, FALSE, FALSE);
    if (!NT_SUCCESS(status)) CBT_LOG_VOLUME(extension, "CbtDispatchShutdown", status);
  }
  if (CbtEventLog.Enabled != 0 && extension->DriveLetter == L'C') {
    KeSetEvent(&CbtEventLog.FlushEvent, IO_NO_INCREMENT, FALSE);
    CbtSystemShutdown = TRUE;
  }
  return CbtDispatchPassThrough(DeviceObject, Irp);
}

// Only the move into the shutdown state finalizes the tracking file; sleep and hibernate
// keep it open for the next resume.
NTSTATUS DispatchPower(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  if (stack->MinorFunction == IRP_MN_SET_POWER && stack->Parameters.Power.Type == SystemPowerState) {
    const ULONG effectiveState = (stack->Parameters.Power.SystemContext >> 12) & 0xF;
    if (effectiveState == PowerSystemShutdown && CbtFlagsSet(extension, CBT_FLAG_TRACKING_FILE_READY)) {
      CBT_LOG_VOLUME(extension, "CbtSetPower", STATUS_SUCCESS);
      CbtFlushTrackingFile(extension, TRUE, FALSE);
      if (CbtEventLog.Enabled != 0 && extension->DriveLetter == L'C')
        KeSetEvent(&CbtEventLog.StopEvent, kStopWriterBoost, FALSE);
    }
  }
  return CbtDispatchPassThrough(DeviceObject, Irp);
}

}  // namespace

BOOLEAN CbtIsVolumeExcluded(const CBT_DEVICE_EXTENSION* Extension) {
  const ULONG flags = CbtReadFlags(Extension);
  if (CbtSettings.ExcludeUSB != 0 && (flags & CBT_FLAG_USB) != 0) return TRUE;
  if (CbtSettings.ExcludeVHD != 0 && (flags & CBT_FLAG_VHD) != 0) return TRUE;
  return (flags & (CBT_FLAG_XVDD | CBT_FLAG_SANDBOX_BASE_LAYER | CBT_FLAG_RECOVERY_PARTITION |
                   CBT_FLAG_RESERVED_PARTITION)) != 0;
}

NTSTATUS CbtDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(Irp);
  if (CbtIsVolumeExcluded(CbtExtensionOf(DeviceObject))) {
    // An excluded volume is left alone, apart from its own removal and the probe by which
    // a backup application learns that it is excluded.
    if (stack->MajorFunction == IRP_MJ_PNP) return CbtDispatchPnp(DeviceObject, Irp);
    if (stack->MajorFunction == IRP_MJ_DEVICE_CONTROL &&
        stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_KVCBT_CHECK_EXCLUDED)
      return CompleteRequest(Irp, STATUS_SUCCESS);
    return CbtDispatchPassThrough(DeviceObject, Irp);
  }
  switch (stack->MajorFunction) {
    case IRP_MJ_READ:
      return DispatchRead(DeviceObject, Irp);
    case IRP_MJ_WRITE:
      return CbtDispatchWrite(DeviceObject, Irp);
    case IRP_MJ_DEVICE_CONTROL:
      return CbtDispatchDeviceControl(DeviceObject, Irp);
    case IRP_MJ_SHUTDOWN:
      return DispatchShutdown(DeviceObject, Irp);
    case IRP_MJ_POWER:
      return DispatchPower(DeviceObject, Irp);
    case IRP_MJ_PNP:
      return CbtDispatchPnp(DeviceObject, Irp);
    default:  // create, close
      return CbtDispatchPassThrough(DeviceObject, Irp);
  }
}

NTSTATUS CbtDispatchPassThrough(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  if (extension == NULL || extension->LowerDeviceObject == NULL) return CompleteRequest(Irp, STATUS_INVALID_DEVICE_REQUEST);
  IoSkipCurrentIrpStackLocation(Irp);
  return IoCallDriver(extension->LowerDeviceObject, Irp);
}
