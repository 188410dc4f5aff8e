// A buffered device-control request to any device, sent and waited for: how the driver asks
// the devices below it (and its own filter device) about a volume's bus, identity,
// writability, length, partition, online state or original volume.
#include <wdm.h>

#include "control/cbt_control.h"
#include "driver/cbt_driver.h"

namespace {

// The request is addressed to the target's stack with room to spare: a filter attached
// below the target after the size was read still finds a location.
constexpr CCHAR kSpareStackLocations = 8;

}  // namespace

NTSTATUS CbtSendDeviceControl(_In_ PDEVICE_OBJECT Device, _In_ ULONG ControlCode, _In_opt_ PVOID InputBuffer,
                              _In_ ULONG InputLength, _Out_opt_ PVOID OutputBuffer, _In_ ULONG OutputLength,
                              _Out_ PIO_STATUS_BLOCK StatusBlock) {
  // One buffer carries the question down and the answer back; a code that moves its data
  // any other way would need the caller's buffers described or probed, which no question the
  // driver asks requires.
  if (METHOD_FROM_CTL_CODE(ControlCode) != METHOD_BUFFERED) return STATUS_INVALID_DEVICE_REQUEST;

  PIRP irp = IoAllocateIrp((CCHAR)(Device->StackSize + kSpareStackLocations), FALSE);
  if (irp == NULL) return STATUS_INSUFFICIENT_RESOURCES;

  PIO_STACK_LOCATION target = IoGetNextIrpStackLocation(irp);
  target->MajorFunction = IRP_MJ_DEVICE_CONTROL;
  target->Parameters.DeviceIoControl.OutputBufferLength = OutputLength;
  target->Parameters.DeviceIoControl.InputBufferLength = InputLength;
  target->Parameters.DeviceIoControl.IoControlCode = ControlCode;

  PVOID systemBuffer = NULL;
  if (InputLength != 0 || OutputLength != 0) {
    const ULONG bufferBytes = InputLength > OutputLength ? InputLength : OutputLength;
    systemBuffer = ExAllocatePoolWithTag(NonPagedPoolNx, bufferBytes, CBT_POOL_TAG);
    if (systemBuffer == NULL) {
      IoFreeIrp(irp);
      return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (InputBuffer != NULL) RtlCopyMemory(systemBuffer, InputBuffer, InputLength);
    irp->AssociatedIrp.SystemBuffer = systemBuffer;
    irp->Flags = OutputBuffer != NULL ? IRP_BUFFERED_IO | IRP_INPUT_OPERATION : IRP_BUFFERED_IO;
    irp->UserBuffer = OutputBuffer;
  }

  // The I/O manager's own completion fills the status block, signals the event and frees the
  // request; the system buffer stays ours (no IRP_DEALLOCATE_BUFFER) so that the answer can
  // be copied back whatever the status.
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  irp->UserIosb = StatusBlock;
  irp->UserEvent = &done;
  irp->Tail.Overlay.Thread = PsGetCurrentThread();

  NTSTATUS status = IoCallDriver(Device, irp);
  if (status == STATUS_PENDING) {
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, NULL);
    status = StatusBlock->Status;
  }

  // Copied whatever the status: the callers look at the status before the answer, and a
  // target that fails may still have said why in the buffer.
  if (OutputBuffer != NULL && systemBuffer != NULL) RtlCopyMemory(OutputBuffer, systemBuffer, OutputLength);
  if (systemBuffer != NULL) ExFreePoolWithTag(systemBuffer, CBT_POOL_TAG);
  return status;
}
