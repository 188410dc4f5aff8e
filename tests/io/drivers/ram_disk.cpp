// RAM disk test driver: the bottom of the test stacks.
#include "test_drivers.h"

namespace {

PRAMDISK_EXTENSION ExtensionOf(PDEVICE_OBJECT DeviceObject) {
  return static_cast<PRAMDISK_EXTENSION>(DeviceObject->DeviceExtension);
}

NTSTATUS Complete(PIRP Irp, NTSTATUS Status, ULONG_PTR Information, CCHAR Boost) {
  Irp->IoStatus.Status = Status;
  Irp->IoStatus.Information = Information;
  IoCompleteRequest(Irp, Boost);
  return Status;
}

// The request's data as the device's I/O method describes it; NULL when it cannot be
// mapped.
PUCHAR TransferBuffer(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  if (DeviceObject->Flags & DO_DIRECT_IO)
    return Irp->MdlAddress != NULL
               ? static_cast<PUCHAR>(MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority | MdlMappingNoExecute))
               : NULL;
  if (DeviceObject->Flags & DO_BUFFERED_IO) return static_cast<PUCHAR>(Irp->AssociatedIrp.SystemBuffer);
  return static_cast<PUCHAR>(Irp->UserBuffer);
}

// Performs a read or write and completes it; returns the status it completed it with.
NTSTATUS Transfer(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PRAMDISK_EXTENSION disk = ExtensionOf(DeviceObject);
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(Irp);
  const BOOLEAN write = sp->MajorFunction == IRP_MJ_WRITE;
  InterlockedIncrement(write ? &disk->Writes : &disk->Reads);
  disk->LastPriorityHint = IoGetIoPriorityHint(Irp);
  disk->LastFlags = Irp->Flags;
  if (disk->FailCount != 0) {
    disk->FailCount--;
    return Complete(Irp, disk->FailStatus, 0, IO_NO_INCREMENT);
  }
  const LONGLONG offset = sp->Parameters.Read.ByteOffset.QuadPart;
  const ULONG length = sp->Parameters.Read.Length;
  if (offset < 0 || length > disk->Size || static_cast<ULONGLONG>(offset) > disk->Size - length)
    return Complete(Irp, STATUS_INVALID_PARAMETER, 0, IO_NO_INCREMENT);
  if (length == 0) return Complete(Irp, STATUS_SUCCESS, 0, IO_NO_INCREMENT);
  PUCHAR buffer = TransferBuffer(DeviceObject, Irp);
  if (buffer == NULL) return Complete(Irp, STATUS_INSUFFICIENT_RESOURCES, 0, IO_NO_INCREMENT);
  if (write)
    RtlCopyMemory(disk->Data + offset, buffer, length);
  else
    RtlCopyMemory(buffer, disk->Data + offset, length);
  return Complete(Irp, STATUS_SUCCESS, length, IO_DISK_INCREMENT);
}

NTSTATUS DeviceControl(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PRAMDISK_EXTENSION disk = ExtensionOf(DeviceObject);
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(Irp);
  InterlockedIncrement(&disk->DeviceControls);
  const ULONG in = sp->Parameters.DeviceIoControl.InputBufferLength;
  const ULONG out = sp->Parameters.DeviceIoControl.OutputBufferLength;
  switch (sp->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_RAMDISK_GET_SIZE:
      if (out < sizeof(ULONGLONG)) return Complete(Irp, STATUS_BUFFER_TOO_SMALL, 0, IO_NO_INCREMENT);
      *static_cast<PULONGLONG>(Irp->AssociatedIrp.SystemBuffer) = disk->Size;
      return Complete(Irp, STATUS_SUCCESS, sizeof(ULONGLONG), IO_NO_INCREMENT);
    case IOCTL_RAMDISK_READ_DIRECT: {
      if (in < sizeof(ULONG) || Irp->MdlAddress == NULL) return Complete(Irp, STATUS_INVALID_PARAMETER, 0, IO_NO_INCREMENT);
      const ULONG offset = *static_cast<PULONG>(Irp->AssociatedIrp.SystemBuffer);
      if (offset > disk->Size || out > disk->Size - offset)
        return Complete(Irp, STATUS_INVALID_PARAMETER, 0, IO_NO_INCREMENT);
      PVOID target = MmGetSystemAddressForMdlSafe(Irp->MdlAddress, NormalPagePriority | MdlMappingNoExecute);
      if (target == NULL) return Complete(Irp, STATUS_INSUFFICIENT_RESOURCES, 0, IO_NO_INCREMENT);
      RtlCopyMemory(target, disk->Data + offset, out);
      return Complete(Irp, STATUS_SUCCESS, out, IO_DISK_INCREMENT);
    }
    case IOCTL_RAMDISK_FILL:
      if (in < 1) return Complete(Irp, STATUS_INVALID_PARAMETER, 0, IO_NO_INCREMENT);
      RtlFillMemory(disk->Data, disk->Size, *static_cast<PUCHAR>(Irp->AssociatedIrp.SystemBuffer));
      return Complete(Irp, STATUS_SUCCESS, 0, IO_DISK_INCREMENT);
    default:
      return Complete(Irp, STATUS_INVALID_DEVICE_REQUEST, 0, IO_NO_INCREMENT);
  }
}

// Carries out a read, write or device-control request and completes it; returns the status
// it completed it with.
NTSTATUS Process(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  return IoGetCurrentIrpStackLocation(Irp)->MajorFunction == IRP_MJ_DEVICE_CONTROL ? DeviceControl(DeviceObject, Irp)
                                                                                 : Transfer(DeviceObject, Irp);
}

void ProcessFromWorker(PDEVICE_OBJECT DeviceObject, PVOID Context) {
  PIRP Irp = static_cast<PIRP>(Context);
  IoFreeWorkItem(static_cast<PIO_WORKITEM>(Irp->Tail.Overlay.DriverContext[0]));
  Process(DeviceObject, Irp);
}

NTSTATUS DispatchDeviceRequest(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  if (ExtensionOf(DeviceObject)->Completion == RamDiskCompleteInline) return Process(DeviceObject, Irp);
  PIO_WORKITEM item = IoAllocateWorkItem(DeviceObject);
  if (item == NULL) return Complete(Irp, STATUS_INSUFFICIENT_RESOURCES, 0, IO_NO_INCREMENT);
  Irp->Tail.Overlay.DriverContext[0] = item;
  IoMarkIrpPending(Irp);
  IoQueueWorkItem(item, ProcessFromWorker, DelayedWorkQueue, Irp);
  return STATUS_PENDING;
}

NTSTATUS DispatchOther(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
  PRAMDISK_EXTENSION disk = ExtensionOf(DeviceObject);
  switch (IoGetCurrentIrpStackLocation(Irp)->MajorFunction) {
    case IRP_MJ_CREATE:
      InterlockedIncrement(&disk->Creates);
      break;
    case IRP_MJ_CLEANUP:
      InterlockedIncrement(&disk->Cleanups);
      break;
    case IRP_MJ_CLOSE:
      InterlockedIncrement(&disk->Closes);
      break;
    case IRP_MJ_SHUTDOWN:
      InterlockedIncrement(&disk->Shutdowns);
      break;
    default:
      break;
  }
  return Complete(Irp, STATUS_SUCCESS, 0, IO_NO_INCREMENT);
}

void RamDiskUnload(PDRIVER_OBJECT DriverObject) {
  while (DriverObject->DeviceObject != NULL) RamDiskDelete(DriverObject->DeviceObject);
}

}  // namespace

EXTERN_C NTSTATUS RamDiskDriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath) {
  UNREFERENCED_PARAMETER(RegistryPath);
  DriverObject->MajorFunction[IRP_MJ_CREATE] = DispatchOther;
  DriverObject->MajorFunction[IRP_MJ_CLEANUP] = DispatchOther;
  DriverObject->MajorFunction[IRP_MJ_CLOSE] = DispatchOther;
  DriverObject->MajorFunction[IRP_MJ_SHUTDOWN] = DispatchOther;
  DriverObject->MajorFunction[IRP_MJ_FLUSH_BUFFERS] = DispatchOther;
  DriverObject->MajorFunction[IRP_MJ_READ] = DispatchDeviceRequest;
  DriverObject->MajorFunction[IRP_MJ_WRITE] = DispatchDeviceRequest;
  DriverObject->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchDeviceRequest;
  DriverObject->DriverUnload = RamDiskUnload;
  return STATUS_SUCCESS;
}

EXTERN_C NTSTATUS RamDiskCreate(PDRIVER_OBJECT DriverObject, PUNICODE_STRING Name, ULONG Size, ULONG DeviceFlags,
                                RAMDISK_COMPLETION Completion, PDEVICE_OBJECT* DeviceObject) {
  *DeviceObject = NULL;
  PUCHAR data = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPoolNx, Size, RAMDISK_TAG));
  if (data == NULL) return STATUS_INSUFFICIENT_RESOURCES;
  RtlZeroMemory(data, Size);
  PDEVICE_OBJECT device = NULL;
  NTSTATUS status =
      IoCreateDevice(DriverObject, sizeof(RAMDISK_EXTENSION), Name, FILE_DEVICE_DISK, 0, FALSE, &device);
  if (!NT_SUCCESS(status)) {
    ExFreePoolWithTag(data, RAMDISK_TAG);
    return status;
  }
  PRAMDISK_EXTENSION disk = ExtensionOf(device);
  RtlZeroMemory(disk, sizeof(*disk));
  disk->Data = data;
  disk->Size = Size;
  disk->Completion = Completion;
  device->Flags |= DeviceFlags;
  device->Flags &= ~DO_DEVICE_INITIALIZING;
  *DeviceObject = device;
  return STATUS_SUCCESS;
}

EXTERN_C VOID RamDiskDelete(PDEVICE_OBJECT DeviceObject) {
  ExFreePoolWithTag(ExtensionOf(DeviceObject)->Data, RAMDISK_TAG);
  IoDeleteDevice(DeviceObject);
}
