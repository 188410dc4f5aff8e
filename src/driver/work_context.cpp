// Deferring a request to a critical work item, with a work context from the driver's
// lookaside list, so that deferring never allocates from pool on the I/O path.
#include "driver/cbt_device_extension.h"
#include "driver/cbt_driver.h"
#include "driver/cbt_removal_protection.h"

NTSTATUS CbtDeferToCriticalWorkItem(PDEVICE_OBJECT DeviceObject, PCBT_DEVICE_EXTENSION Extension, PIRP Irp,
                                    CBT_WORK_TYPE Type, PIO_WORKITEM_ROUTINE Routine) {
  PCBT_WORK_CONTEXT context =
      static_cast<PCBT_WORK_CONTEXT>(ExAllocateFromNPagedLookasideList(&Extension->DriverExtension->WorkItemLookaside));
  if (context == NULL) {
    CbtReleaseRemovalProtection(DeviceObject);
    Irp->IoStatus.Status = STATUS_INSUFFICIENT_RESOURCES;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  RtlZeroMemory(context, CBT_WORK_CONTEXT_HEADER_SIZE);
  context->Type = Type;
  context->DeviceExtension = Extension;
  context->Irp = Irp;
  IoMarkIrpPending(Irp);
  IoInitializeWorkItem(DeviceObject, CbtWorkContextItem(context));
  IoQueueWorkItem(CbtWorkContextItem(context), Routine, CriticalWorkQueue, context);
  return STATUS_PENDING;
}
