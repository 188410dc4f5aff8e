#include "probe_device.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>

#include "kvhost/io.h"

namespace kvtest {
namespace {

NTSTATUS ProbeDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  for (auto& routine : driver->MajorFunction) routine = nullptr;
  return STATUS_SUCCESS;
}

ProbeDevice* Owner(PDEVICE_OBJECT device) { return *static_cast<ProbeDevice**>(device->DeviceExtension); }

struct LaterCompletion {
  PIO_WORKITEM Item;
  PIRP Irp;
  NTSTATUS Status;
  ULONG_PTR Information;
};

void CompleteFromWorkItem(PDEVICE_OBJECT, PVOID context) {
  auto* later = static_cast<LaterCompletion*>(context);
  later->Irp->IoStatus.Status = later->Status;
  later->Irp->IoStatus.Information = later->Information;
  IoCompleteRequest(later->Irp, IO_NO_INCREMENT);
  IoFreeWorkItem(later->Item);
  delete later;
}

}  // namespace

ProbeRequest CaptureRequest(PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  ProbeRequest seen;
  seen.MajorFunction = sp->MajorFunction;
  seen.StackFlags = sp->Flags;
  seen.IrpFlags = irp->Flags;
  seen.RequestorMode = irp->RequestorMode;
  seen.From32bitProcess = IoIs32bitProcess(irp);
  seen.PriorityHint = IoGetIoPriorityHint(irp);
  seen.Cancel = irp->Cancel;
  seen.Thread = irp->Tail.Overlay.Thread;
  seen.StackCount = irp->StackCount;
  seen.OriginalFileObject = irp->Tail.Overlay.OriginalFileObject;
  seen.HadMdl = irp->MdlAddress != nullptr;
  if (seen.HadMdl) seen.MdlBytes = MmGetMdlByteCount(irp->MdlAddress);
  if (sp->MajorFunction == IRP_MJ_DEVICE_CONTROL || sp->MajorFunction == IRP_MJ_INTERNAL_DEVICE_CONTROL) {
    seen.ControlCode = sp->Parameters.DeviceIoControl.IoControlCode;
    seen.InputLength = sp->Parameters.DeviceIoControl.InputBufferLength;
    seen.OutputLength = sp->Parameters.DeviceIoControl.OutputBufferLength;
    seen.UserBuffer = irp->UserBuffer;
    seen.HadSystemBuffer = irp->AssociatedIrp.SystemBuffer != nullptr;
    if (seen.HadSystemBuffer && METHOD_FROM_CTL_CODE(seen.ControlCode) == METHOD_BUFFERED) {
      const auto* bytes = static_cast<const uint8_t*>(irp->AssociatedIrp.SystemBuffer);
      seen.SystemBufferBytes.assign(bytes, bytes + std::max(seen.InputLength, seen.OutputLength));
    } else if (seen.HadSystemBuffer) {
      const auto* bytes = static_cast<const uint8_t*>(irp->AssociatedIrp.SystemBuffer);
      seen.SystemBufferBytes.assign(bytes, bytes + seen.InputLength);
    }
  } else if (sp->MajorFunction == IRP_MJ_READ || sp->MajorFunction == IRP_MJ_WRITE) {
    seen.Length = sp->Parameters.Read.Length;
    seen.Key = sp->Parameters.Read.Key;
    seen.ByteOffset = sp->Parameters.Read.ByteOffset.QuadPart;
  }

  return seen;
}

void WriteReplyBytes(PIRP irp, const std::vector<uint8_t>& bytes) {
  if (bytes.empty()) return;
  void* target = irp->AssociatedIrp.SystemBuffer;
  const ULONG code = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode;
  if (irp->MdlAddress != nullptr && METHOD_FROM_CTL_CODE(code) != METHOD_BUFFERED)
    target = MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority | MdlMappingNoExecute);
  // A device writes no more than the request's output holds.
  const size_t room = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
  if (target != nullptr) std::memcpy(target, bytes.data(), std::min(bytes.size(), room));
}

ProbeDevice::ProbeDevice(ULONG sectorSize, size_t diskBytes, CCHAR stackSize, DEVICE_TYPE deviceType)
    : disk_(diskBytes) {
  static std::atomic<int> serial{0};
  const std::string name = "Probe" + std::to_string(serial++);
  driver_ = kvhost::IoLoadDriver(std::u16string(name.begin(), name.end()), ProbeDriverEntry).DriverObject;
  for (auto& routine : driver_->MajorFunction) routine = &ProbeDevice::Dispatch;
  NTSTATUS status = IoCreateDevice(driver_, sizeof(ProbeDevice*), nullptr, deviceType, 0, FALSE, &device_);
  if (!NT_SUCCESS(status)) return;
  *static_cast<ProbeDevice**>(device_->DeviceExtension) = this;
  device_->SectorSize = static_cast<USHORT>(sectorSize);
  device_->StackSize = stackSize;
  device_->Flags |= DO_DIRECT_IO;
  device_->Flags &= ~DO_DEVICE_INITIALIZING;
}

ProbeDevice::~ProbeDevice() {
  if (device_ != nullptr) IoDeleteDevice(device_);
  if (driver_ != nullptr) kvhost::IoUnloadDriver(driver_);
}

void ProbeDevice::QueueReply(ProbeReply reply) {
  std::lock_guard<std::mutex> guard(lock_);
  replies_.push_back(std::move(reply));
}

void ProbeDevice::SetDefaultReply(ProbeReply reply) {
  std::lock_guard<std::mutex> guard(lock_);
  defaultReply_ = std::move(reply);
}

void ProbeDevice::CancelTransfers(int count) {
  std::lock_guard<std::mutex> guard(lock_);
  cancelTransfers_ = count;
}

void ProbeDevice::PendTransfers(bool pend) {
  std::lock_guard<std::mutex> guard(lock_);
  pendTransfers_ = pend;
}

std::vector<ProbeRequest> ProbeDevice::Requests() const {
  std::lock_guard<std::mutex> guard(lock_);
  return requests_;
}

size_t ProbeDevice::RequestCount() const {
  std::lock_guard<std::mutex> guard(lock_);
  return requests_.size();
}

NTSTATUS ProbeDevice::Dispatch(PDEVICE_OBJECT device, PIRP irp) { return Owner(device)->Handle(irp); }

NTSTATUS ProbeDevice::Handle(PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const ProbeRequest seen = CaptureRequest(irp);

  ProbeReply reply;
  bool cancel = false;
  bool pend = false;
  {
    std::lock_guard<std::mutex> guard(lock_);
    requests_.push_back(seen);
    if (sp->MajorFunction == IRP_MJ_READ || sp->MajorFunction == IRP_MJ_WRITE) {
      if (cancelTransfers_ != 0) {
        cancel = true;
        if (cancelTransfers_ > 0) --cancelTransfers_;
      }
      pend = pendTransfers_;
    } else if (!replies_.empty()) {
      reply = std::move(replies_.front());
      replies_.pop_front();
    } else {
      reply = defaultReply_;
    }
  }
  if (sp->MajorFunction == IRP_MJ_READ || sp->MajorFunction == IRP_MJ_WRITE) {
    if (cancel) return Reply(irp, ProbeReply{STATUS_CANCELLED, 0, {}, pend});
    return Transfer(irp, pend);
  }
  return Reply(irp, std::move(reply));
}

NTSTATUS ProbeDevice::Transfer(PIRP irp, bool pend) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const LONGLONG offset = sp->Parameters.Read.ByteOffset.QuadPart;
  const ULONG length = sp->Parameters.Read.Length;
  NTSTATUS status = STATUS_SUCCESS;
  ULONG_PTR information = length;
  if (offset < 0 || static_cast<ULONGLONG>(offset) + length > disk_.size() || irp->MdlAddress == nullptr ||
      length > MmGetMdlByteCount(irp->MdlAddress)) {
    status = STATUS_INVALID_PARAMETER;
    information = 0;
  } else {
    auto* memory =
        static_cast<uint8_t*>(MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority | MdlMappingNoExecute));
    if (sp->MajorFunction == IRP_MJ_WRITE)
      std::memcpy(disk_.data() + offset, memory, length);
    else
      std::memcpy(memory, disk_.data() + offset, length);
  }
  return Reply(irp, ProbeReply{status, information, {}, pend});
}

NTSTATUS ProbeDevice::Reply(PIRP irp, ProbeReply reply) {
  WriteReplyBytes(irp, reply.Bytes);
  if (reply.Pend) {
    IoMarkIrpPending(irp);
    CompleteLater(irp, reply.Status, reply.Information, device_);
    return STATUS_PENDING;
  }
  irp->IoStatus.Status = reply.Status;
  irp->IoStatus.Information = reply.Information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return reply.Status;
}

void ProbeDevice::CompleteLater(PIRP irp, NTSTATUS status, ULONG_PTR information, PDEVICE_OBJECT device) {
  auto* later = new LaterCompletion{IoAllocateWorkItem(device), irp, status, information};
  IoQueueWorkItem(later->Item, CompleteFromWorkItem, DelayedWorkQueue, later);
}

}  // namespace kvtest
