// Reads on their way back: the shadow-copy view of the tracking file, and reads that
// complete on a volume whose file system was not yet readable.
//
// Seam: until the tracking file exists there is nothing to patch into a shadow copy's
// reads, and bringing a volume online after its first readable read comes with the volume
// online handling. Reads pass through unchanged; each routine gives back the removal
// protection its read carries.
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"
#include "driver/cbt_removal_protection.h"
#include "trackfile/cbt_trackfile.h"

NTSTATUS CbtReadCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(Irp);
  UNREFERENCED_PARAMETER(Context);
  CbtReleaseRemovalProtection(DeviceObject);
  return STATUS_SUCCESS;  // completion goes on up the stack
}

NTSTATUS CbtFilterSnapshotTrackingFileRead(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return CbtReleaseAndPassDown(DeviceObject, Irp);
}

VOID CbtSnapshotReadWorker(PDEVICE_OBJECT DeviceObject, PVOID Context) {
  PCBT_WORK_CONTEXT context = static_cast<PCBT_WORK_CONTEXT>(Context);
  if (context == NULL) return;
  PIRP irp = context->Irp;
  IoUninitializeWorkItem(CbtWorkContextItem(context));
  ExFreeToNPagedLookasideList(&context->DeviceExtension->DriverExtension->WorkItemLookaside, context);
  CbtFilterSnapshotTrackingFileRead(DeviceObject, irp);
}
