// Passing a request to the volume below and waiting for it.
#include "driver/cbt_device_extension.h"
#include "driver/cbt_dispatch.h"

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
