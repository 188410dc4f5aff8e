// Requests the machine sends to the top of a volume's stack: reads and writes and device
// controls built as the I/O manager builds them, Plug and Play and power requests built as
// the Plug and Play and power managers build them. Each is sent from the calling thread at
// PASSIVE_LEVEL and waited for.
#include <algorithm>

#include "kvtestbed/machine.h"

namespace kvtestbed {
namespace {

// Keeps a request the machine allocated once its stack completed it, so the machine can read
// its status and free it.
NTSTATUS SignalAndKeep(PDEVICE_OBJECT device, PIRP irp, PVOID context) {
  UNREFERENCED_PARAMETER(device);
  UNREFERENCED_PARAMETER(irp);
  KeSetEvent(static_cast<PKEVENT>(context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends a request the machine allocated, whose first location `fill` prepares, to `top` and
// waits for it; returns its final status.
template <typename Fill>
NTSTATUS SendOwnRequest(PDEVICE_OBJECT top, UCHAR major, Fill fill) {
  PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  // What no driver of the stack handles stays STATUS_NOT_SUPPORTED, as the Plug and Play
  // manager starts its requests.
  irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
  irp->IoStatus.Information = 0;
  irp->Tail.Overlay.Thread = PsGetCurrentThread();
  PIO_STACK_LOCATION sp = IoGetNextIrpStackLocation(irp);
  sp->MajorFunction = major;
  fill(sp);
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoSetCompletionRoutine(irp, SignalAndKeep, &done, TRUE, TRUE, TRUE);
  const NTSTATUS sent = major == IRP_MJ_POWER ? PoCallDriver(top, irp) : IoCallDriver(top, irp);
  if (sent == STATUS_PENDING) KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  const NTSTATUS status = irp->IoStatus.Status;
  IoFreeIrp(irp);
  return status;
}

// Sends a request built by the I/O manager's builders (signalling `done`, status in `iosb`)
// to `top`, waits for it, and drops the caller's reference to `top`.
IoResult CallAndWait(PDEVICE_OBJECT top, PIRP irp, KEVENT& done, const IO_STATUS_BLOCK& iosb) {
  IoResult result;
  result.Status = IoCallDriver(top, irp);
  if (result.Status == STATUS_PENDING) {
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    result.Status = iosb.Status;
  }
  ObDereferenceObject(top);
  result.Information = iosb.Information;
  return result;
}

}  // namespace

// Plug and Play and power requests go to the top of the stack without a reference of the
// machine's own: the machine is the only one to change the stack, and a removal must find the
// devices it deletes referenced by nobody else.
NTSTATUS Machine::SendPnp(Volume& volume, UCHAR minor) {
  return SendOwnRequest(IoGetAttachedDevice(volume.Device()), IRP_MJ_PNP,
                        [&](PIO_STACK_LOCATION sp) { sp->MinorFunction = minor; });
}

NTSTATUS Machine::SendShutdownPower(Volume& volume) {
  return SendOwnRequest(IoGetAttachedDevice(volume.Device()), IRP_MJ_POWER, [](PIO_STACK_LOCATION sp) {
    sp->MinorFunction = IRP_MN_SET_POWER;
    sp->Parameters.Power.Type = SystemPowerState;
    sp->Parameters.Power.State.SystemState = PowerSystemShutdown;
    sp->Parameters.Power.ShutdownType = PowerActionShutdownOff;
    sp->Parameters.Power.SystemPowerStateContext.ContextAsUlong = 0;
    sp->Parameters.Power.SystemPowerStateContext.TargetSystemState = PowerSystemShutdown;
    sp->Parameters.Power.SystemPowerStateContext.EffectiveSystemState = PowerSystemShutdown;
    sp->Parameters.Power.SystemPowerStateContext.CurrentSystemState = PowerSystemWorking;
  });
}

IoResult Machine::SendControl(Volume& volume, ULONG code, std::span<const uint8_t> input, ULONG outputLength) {
  std::vector<uint8_t> out(outputLength);
  std::vector<uint8_t> in(input.begin(), input.end());
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(volume.Device());
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb{};
  PIRP irp = IoBuildDeviceIoControlRequest(code, top, in.empty() ? nullptr : in.data(), static_cast<ULONG>(in.size()),
                                           outputLength == 0 ? nullptr : out.data(), outputLength, FALSE,
                                           &done, &iosb);
  if (irp == nullptr) {
    ObDereferenceObject(top);
    return {STATUS_INSUFFICIENT_RESOURCES, 0, {}};
  }
  IoResult result = CallAndWait(top, irp, done, iosb);
  out.resize(std::min<size_t>(outputLength, result.Information));
  result.Data = std::move(out);
  return result;
}

IoResult Machine::SendTransfer(Volume& volume, UCHAR major, uint64_t offset, void* buffer, uint32_t length) {
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(volume.Device());
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER at;
  at.QuadPart = static_cast<LONGLONG>(offset);
  PIRP irp = IoBuildSynchronousFsdRequest(major, top, buffer, length, &at, &done, &iosb);
  if (irp == nullptr) {
    ObDereferenceObject(top);
    return {STATUS_INSUFFICIENT_RESOURCES, 0, {}};
  }
  return CallAndWait(top, irp, done, iosb);
}

IoResult Machine::Read(Volume& volume, uint64_t offset, uint32_t length) {
  if (!Usable(volume)) return IoResult{STATUS_NO_SUCH_DEVICE, 0, {}};
  std::vector<uint8_t> buffer(length);
  IoResult result = SendTransfer(volume, IRP_MJ_READ, offset, buffer.data(), length);
  buffer.resize(std::min<size_t>(length, result.Information));
  result.Data = std::move(buffer);
  return result;
}

IoResult Machine::Write(Volume& volume, uint64_t offset, std::span<const uint8_t> data) {
  if (!Usable(volume)) return IoResult{STATUS_NO_SUCH_DEVICE, 0, {}};
  std::vector<uint8_t> buffer(data.begin(), data.end());
  return SendTransfer(volume, IRP_MJ_WRITE, offset, buffer.data(), static_cast<uint32_t>(buffer.size()));
}

IoResult Machine::Control(Volume& volume, ULONG code, std::span<const uint8_t> input, ULONG outputLength) {
  if (!Usable(volume)) return IoResult{STATUS_NO_SUCH_DEVICE, 0, {}};
  return SendControl(volume, code, input, outputLength);
}

}  // namespace kvtestbed
