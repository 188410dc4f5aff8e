// Synchronous control requests to other devices.
//
// Seam: no request is built until the control interface is; the caller learns that
// nothing was sent.
#include "control/cbt_control.h"

NTSTATUS CbtSendDeviceControl(PDEVICE_OBJECT Device, ULONG ControlCode, PVOID InputBuffer, ULONG InputLength,
                              PVOID OutputBuffer, ULONG OutputLength, PIO_STATUS_BLOCK StatusBlock) {
  UNREFERENCED_PARAMETER(Device);
  UNREFERENCED_PARAMETER(ControlCode);
  UNREFERENCED_PARAMETER(InputBuffer);
  UNREFERENCED_PARAMETER(InputLength);
  UNREFERENCED_PARAMETER(OutputBuffer);
  UNREFERENCED_PARAMETER(OutputLength);
  StatusBlock->Status = STATUS_NOT_IMPLEMENTED;
  StatusBlock->Information = 0;
  return STATUS_NOT_IMPLEMENTED;
}
