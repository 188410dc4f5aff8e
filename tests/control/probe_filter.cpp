#include "probe_filter.h"

#include <chrono>

namespace kvtest {
namespace {

ProbeFilter* g_current = nullptr;

PDEVICE_OBJECT& LowerOf(PDEVICE_OBJECT device) { return *static_cast<PDEVICE_OBJECT*>(device->DeviceExtension); }

NTSTATUS PassDown(PDEVICE_OBJECT device, PIRP irp) {
  IoSkipCurrentIrpStackLocation(irp);
  return IoCallDriver(LowerOf(device), irp);
}

}  // namespace

ProbeFilter::ProbeFilter() { g_current = this; }
ProbeFilter::~ProbeFilter() { g_current = nullptr; }

void ProbeFilter::Answer(ULONG code, ProbeReply reply) {
  std::lock_guard<std::mutex> guard(lock_);
  answers_[code] = std::move(reply);
}

void ProbeFilter::Hold(ULONG code) {
  std::lock_guard<std::mutex> guard(lock_);
  holdCode_ = code;
}

bool ProbeFilter::WaitForHeld() {
  std::unique_lock<std::mutex> guard(lock_);
  return heldArrived_.wait_for(guard, std::chrono::seconds(10), [&] { return held_ != nullptr; });
}

void ProbeFilter::Release() {
  PIRP irp = nullptr;
  PDEVICE_OBJECT device = nullptr;
  {
    std::lock_guard<std::mutex> guard(lock_);
    irp = held_;
    device = heldDevice_;
    held_ = nullptr;
  }
  if (irp != nullptr) Forward(this, device, irp);
}

NTSTATUS ProbeFilter::Forward(ProbeFilter* self, PDEVICE_OBJECT device, PIRP irp) {
  ProbeReply reply;
  bool answer = false;
  {
    std::lock_guard<std::mutex> guard(self->lock_);
    auto found = self->answers_.find(IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode);
    if (found != self->answers_.end()) {
      reply = found->second;
      answer = true;
    }
  }
  if (!answer) return PassDown(device, irp);
  WriteReplyBytes(irp, reply.Bytes);
  irp->IoStatus.Status = reply.Status;
  irp->IoStatus.Information = reply.Information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return reply.Status;
}

std::vector<ProbeRequest> ProbeFilter::ControlRequests() const {
  std::lock_guard<std::mutex> guard(lock_);
  return requests_;
}

void ProbeFilter::Clear() {
  std::lock_guard<std::mutex> guard(lock_);
  requests_.clear();
}

NTSTATUS ProbeFilter::DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  for (auto& routine : driver->MajorFunction) routine = &ProbeFilter::Dispatch;
  driver->DriverExtension->AddDevice = &ProbeFilter::AddDevice;
  return STATUS_SUCCESS;
}

NTSTATUS ProbeFilter::AddDevice(PDRIVER_OBJECT driver, PDEVICE_OBJECT pdo) {
  PDEVICE_OBJECT device = nullptr;
  NTSTATUS status = IoCreateDevice(driver, sizeof(PDEVICE_OBJECT), nullptr, pdo->DeviceType, 0, FALSE, &device);
  if (!NT_SUCCESS(status)) return status;
  device->Characteristics = pdo->Characteristics;
  device->SectorSize = pdo->SectorSize;
  device->Flags |= pdo->Flags & (DO_DIRECT_IO | DO_BUFFERED_IO | DO_POWER_PAGABLE);
  status = IoAttachDeviceToDeviceStackSafe(device, pdo, &LowerOf(device));
  if (!NT_SUCCESS(status)) {
    IoDeleteDevice(device);
    return status;
  }
  device->Flags &= ~DO_DEVICE_INITIALIZING;
  return STATUS_SUCCESS;
}

NTSTATUS ProbeFilter::Dispatch(PDEVICE_OBJECT device, PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  switch (sp->MajorFunction) {
    case IRP_MJ_PNP:
      if (sp->MinorFunction == IRP_MN_REMOVE_DEVICE) {
        PDEVICE_OBJECT lower = LowerOf(device);
        const NTSTATUS status = PassDown(device, irp);
        IoDetachDevice(lower);
        IoDeleteDevice(device);
        return status;
      }
      return PassDown(device, irp);
    case IRP_MJ_POWER:
      IoSkipCurrentIrpStackLocation(irp);
      return PoCallDriver(LowerOf(device), irp);
    case IRP_MJ_DEVICE_CONTROL: {
      ProbeFilter* self = g_current;
      if (self == nullptr) return PassDown(device, irp);
      {
        std::lock_guard<std::mutex> guard(self->lock_);
        self->requests_.push_back(CaptureRequest(irp));
        if (self->holdCode_ == sp->Parameters.DeviceIoControl.IoControlCode && self->held_ == nullptr) {
          self->holdCode_.reset();
          IoMarkIrpPending(irp);
          self->held_ = irp;
          self->heldDevice_ = device;
          self->heldArrived_.notify_all();
          return STATUS_PENDING;
        }
      }
      return Forward(self, device, irp);
    }
    default:
      return PassDown(device, irp);
  }
}

}  // namespace kvtest
