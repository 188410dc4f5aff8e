// Test filter driver: the ways a filter handles a request on its way down and back.
#include "test_drivers.h"

namespace {

PTEST_FILTER_EXTENSION ExtensionOf(PDEVICE_OBJECT DeviceObject) {
  return static_cast<PTEST_FILTER_EXTENSION>(DeviceObject->DeviceExtension);
}

NTSTATUS PassDown(PTEST_FILTER_EXTENSION filter, PIRP Irp) {
  IoSkipCurrentIrpStackLocation(Irp);
  return IoCallDriver(filter->Lower, Irp);
}

NTSTATUS SignalAndKeep(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(DeviceObject);
  UNREFERENCED_PARAMETER(Irp);
  KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

// Forwards the request, waits for the device below, then completes it itself.
NTSTATUS ForwardAndComplete(PTEST_FILTER_EXTENSION filter, PIRP Irp) {
  const UCHAR major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
  if (major == IRP_MJ_DEVICE_CONTROL) {
    IoForwardIrpSynchronously(filter->Lower, Irp);
    filter->LastLowerPended = FALSE;
  } else if (major == IRP_MJ_READ || major == IRP_MJ_WRITE) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IoCopyCurrentIrpStackLocationToNext(Irp);
    IoSetCompletionRoutine(Irp, SignalAndKeep, &done, TRUE, TRUE, TRUE);
    const NTSTATUS sent = IoCallDriver(filter->Lower, Irp);
    filter->LastLowerPended = sent == STATUS_PENDING;
    if (sent == STATUS_PENDING) KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, NULL);
  } else {
    return PassDown(filter, Irp);
  }
  const NTSTATUS status = Irp->IoStatus.Status;
  filter->LastLowerStatus = status;
  IoCompleteRequest(Irp, NT_SUCCESS(status) ? IO_DISK_INCREMENT : IO_NO_INCREMENT);
  return status;
}

NTSTATUS HoldWrite(PTEST_FILTER_EXTENSION filter, PIRP Irp) {
  KIRQL irql;
  KeAcquireSpinLock(&filter->Lock, &irql);
  if (!filter->Holding) {
    KeReleaseSpinLock(&filter->Lock, irql);
    return PassDown(filter, Irp);
  }
  IoMarkIrpPending(Irp);
  InsertTailList(&filter->HeldWrites, &Irp->Tail.Overlay.ListEntry);
  KeReleaseSpinLock(&filter->Lock, irql);
  return STATUS_PENDING;
}

NTSTATUS KeepCompletedRead(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
  UNREFERENCED_PARAMETER(DeviceObject);
  PTEST_FILTER_EXTENSION filter = static_cast<PTEST_FILTER_EXTENSION>(Context);
  filter->HeldRead = Irp;
  KeSetEvent(&filter->ReadHeld, IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

NTSTATUS SendReadAndKeepIt(PTEST_FILTER_EXTENSION filter, PIRP Irp) {
  IoMarkIrpPending(Irp);
  IoCopyCurrentIrpStackLocationToNext(Irp);
  IoSetCompletionRoutine(Irp, KeepCompletedRead, filter, TRUE, TRUE, TRUE);
  IoCallDriver(filter->Lower, Irp);
  return STATUS_PENDING;
}

NTSTATUS TestFilterDispatch(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PTEST_FILTER_EXTENSION filter = ExtensionOf(DeviceObject);
  const UCHAR major = IoGetCurrentIrpStackLocation(Irp)->MajorFunction;
  switch (filter->Mode) {
    case FilterForwardSynchronously:
      return ForwardAndComplete(filter, Irp);
    case FilterHoldWrites:
      return major == IRP_MJ_WRITE ? HoldWrite(filter, Irp) : PassDown(filter, Irp);
    case FilterHoldReadCompletions:
      return major == IRP_MJ_READ ? SendReadAndKeepIt(filter, Irp) : PassDown(filter, Irp);
    case FilterPassThrough:
    default:
      return PassDown(filter, Irp);
  }
}

void TestFilterUnload(PDRIVER_OBJECT DriverObject) {
  while (DriverObject->DeviceObject != NULL) TestFilterDetach(DriverObject->DeviceObject);
}

}  // namespace

EXTERN_C NTSTATUS TestFilterDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
  UNREFERENCED_PARAMETER(RegistryPath);
  for (ULONG i = 0; i <= IRP_MJ_MAXIMUM_FUNCTION; ++i) DriverObject->MajorFunction[i] = TestFilterDispatch;
  DriverObject->DriverUnload = TestFilterUnload;
  return STATUS_SUCCESS;
}

EXTERN_C NTSTATUS TestFilterAttach(PDRIVER_OBJECT DriverObject, PDEVICE_OBJECT Target, TEST_FILTER_MODE Mode,
                                   PDEVICE_OBJECT* Filter) {
  *Filter = NULL;
  PDEVICE_OBJECT device = NULL;
  NTSTATUS status =
      IoCreateDevice(DriverObject, sizeof(TEST_FILTER_EXTENSION), NULL, Target->DeviceType, 0, FALSE, &device);
  if (!NT_SUCCESS(status)) return status;
  PTEST_FILTER_EXTENSION filter = ExtensionOf(device);
  RtlZeroMemory(filter, sizeof(*filter));
  filter->Self = device;
  filter->Mode = Mode;
  KeInitializeSpinLock(&filter->Lock);
  InitializeListHead(&filter->HeldWrites);
  KeInitializeEvent(&filter->ReadHeld, NotificationEvent, FALSE);
  device->Flags |= Target->Flags & (DO_DIRECT_IO | DO_BUFFERED_IO | DO_POWER_PAGABLE);
  device->Characteristics = Target->Characteristics;
  status = IoAttachDeviceToDeviceStackSafe(device, Target, &filter->Lower);
  if (!NT_SUCCESS(status)) {
    IoDeleteDevice(device);
    return status;
  }
  device->Flags &= ~DO_DEVICE_INITIALIZING;
  *Filter = device;
  return STATUS_SUCCESS;
}

EXTERN_C VOID TestFilterDetach(PDEVICE_OBJECT Filter) {
  IoDetachDevice(ExtensionOf(Filter)->Lower);
  IoDeleteDevice(Filter);
}

EXTERN_C VOID TestFilterHoldWrites(PDEVICE_OBJECT Filter) {
  PTEST_FILTER_EXTENSION filter = ExtensionOf(Filter);
  KIRQL irql;
  KeAcquireSpinLock(&filter->Lock, &irql);
  filter->Holding = TRUE;
  KeReleaseSpinLock(&filter->Lock, irql);
}

EXTERN_C VOID TestFilterReleaseWrites(PDEVICE_OBJECT Filter) {
  PTEST_FILTER_EXTENSION filter = ExtensionOf(Filter);
  LIST_ENTRY held;
  InitializeListHead(&held);
  KIRQL irql;
  KeAcquireSpinLock(&filter->Lock, &irql);
  filter->Holding = FALSE;
  while (!IsListEmpty(&filter->HeldWrites)) InsertTailList(&held, RemoveHeadList(&filter->HeldWrites));
  KeReleaseSpinLock(&filter->Lock, irql);
  while (!IsListEmpty(&held)) {
    PIRP irp = CONTAINING_RECORD(RemoveHeadList(&held), IRP, Tail.Overlay.ListEntry);
    filter->Replays++;
    // Replayed through the driver's own dispatch table, as if it had just arrived.
    Filter->DriverObject->MajorFunction[IRP_MJ_WRITE](Filter, irp);
  }
}

EXTERN_C VOID TestFilterCompleteHeldRead(PDEVICE_OBJECT Filter) {
  PTEST_FILTER_EXTENSION filter = ExtensionOf(Filter);
  PIRP irp = filter->HeldRead;
  filter->HeldRead = NULL;
  KeClearEvent(&filter->ReadHeld);
  IoCompleteRequest(irp, IO_DISK_INCREMENT);
}
