#include "control_request.h"

#include "kvhost/io.h"

namespace kvtest {

ControlResult SendControlRequest(PDEVICE_OBJECT top, const ControlRequest& request) {
  ControlResult result;
  result.Output.assign(request.OutputLength, kUntouched);
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb{};
  iosb.Status = STATUS_UNSUCCESSFUL;
  std::vector<uint8_t> input = request.Input;
  PIRP irp = IoBuildDeviceIoControlRequest(
      request.Code, top, input.empty() ? nullptr : input.data(), static_cast<ULONG>(input.size()),
      request.HasOutputBuffer && request.OutputLength != 0 ? result.Output.data() : nullptr, request.OutputLength,
      FALSE, &done, &iosb);
  if (irp == nullptr) {
    // The caller sees the failure in Returned and Status; nothing was sent.
    result.Returned = result.Status = STATUS_INSUFFICIENT_RESOURCES;
    return result;
  }
  irp->RequestorMode = UserMode;
  if (request.From32bitProcess) kvhost::IoSetIrpFrom32bitProcess(irp, true);
  if (request.Adjust) request.Adjust(irp);
  result.Returned = IoCallDriver(top, irp);
  if (result.Returned == STATUS_PENDING) KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  result.Status = iosb.Status;
  result.Information = iosb.Information;
  return result;
}

std::vector<uint8_t> Pattern(size_t count, uint8_t first) {
  std::vector<uint8_t> bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = static_cast<uint8_t>(first + i);
  return bytes;
}

}  // namespace kvtest
