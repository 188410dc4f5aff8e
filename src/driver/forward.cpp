// Passing a request on to the volume below: letting it go, or waiting for it.
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"
#include "driver/cbt_removal_protection.h"

NTSTATUS CbtReleaseAndPassDown(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PDEVICE_OBJECT lower = CbtExtensionOf(DeviceObject)->LowerDeviceObject;
  CbtReleaseRemovalProtection(DeviceObject);
  // From here on neither the filter device nor its extension may be touched.
  if (lower == NULL) {
    Irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    Irp->IoStatus.Information = 0;
    IoCompleteRequest(Irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
  }
  IoSkipCurrentIrpStackLocation(Irp);
  return IoCallDriver(lower, Irp);
}

NTSTATUS CbtForwardIrpSynchronously(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, CbtSynchronousCompletion, &done, TRUE, TRUE, TRUE);
  NTSTATUS status = IoCallDriver(CbtExtensionOf(DeviceObject)->LowerDeviceObject, Irp);
  if (status == STATUS_PENDING) {
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, NULL);
    status = Irp->IoStatus.Status;
  }
  return status;
}

NTSTATUS CbtSynchronousCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(DeviceObject);
  UNREFERENCED_PARAMETER(Irp);
  KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}
