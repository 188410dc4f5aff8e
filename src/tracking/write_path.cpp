// The write path of a tracked volume.
//
// Seam: until the bitmap and the hold exist, a write only travels under removal protection
// and is counted as untracked, as a write to a volume without a file-system reader is.
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"
#include "driver/cbt_removal_protection.h"
#include "tracking/cbt_tracking.h"

NTSTATUS CbtDispatchWrite(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PCBT_DEVICE_EXTENSION extension = CbtExtensionOf(DeviceObject);
  Irp->IoStatus.Information = 0;
  const ULONG state = CbtAcquireRemovalProtection(DeviceObject);
  if (state != CbtRemovalActive) {
    CBT_LOG_VOLUME(extension, "CbtDispatchWrite", STATUS_DEVICE_NOT_CONNECTED);
    if (state == CbtRemovalPending) CbtReleaseRemovalProtection(DeviceObject);
    Irp->IoStatus.Status = STATUS_DEVICE_NOT_CONNECTED;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_DEVICE_NOT_CONNECTED;
  }
  return CbtWriteWorkerStageTwo(DeviceObject, Irp);
}

VOID CbtWriteWorkItem(PDEVICE_OBJECT DeviceObject, PVOID Context) {
  PCBT_WORK_CONTEXT context = static_cast<PCBT_WORK_CONTEXT>(Context);
  if (context == NULL) return;
  PCBT_DEVICE_EXTENSION extension = context->DeviceExtension;
  PIRP irp = context->Irp;
  InterlockedIncrement64(&extension->DeferredWriteCount);
  IoUninitializeWorkItem(CbtWorkContextItem(context));
  ExFreeToNPagedLookasideList(&extension->DriverExtension->WorkItemLookaside, context);
  CbtWriteWorkerStageTwo(DeviceObject, irp);
}

NTSTATUS CbtWriteWorkerStageTwo(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  InterlockedIncrement64(&CbtExtensionOf(DeviceObject)->UntrackedWriteCount);
  CbtReleaseRemovalProtection(DeviceObject);
  return CbtDispatchPassThrough(DeviceObject, Irp);
}
