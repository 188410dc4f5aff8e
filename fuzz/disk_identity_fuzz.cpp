// The disk classification against arbitrary storage device descriptors: a device below the
// volume answers IOCTL_STORAGE_QUERY_PROPERTY with the input (as far as the request's output
// holds it), the way a disk with broken or hostile firmware might, and CbtQueryDiskIdentity
// reads it:
//
//   byte 0     0: the queries succeed; otherwise they fail with STATUS_IO_DEVICE_ERROR
//   the rest   the descriptor's bytes
//
// Whatever the bytes, nothing may be read outside what was allocated, the only flags set are
// the virtual-disk ones, the status is one the classification names, and no pool stays.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <ntddstor.h>

#include "control/cbt_control_handlers.h"
#include "driver/cbt_device_extension.h"
#include "kvhost/io.h"
#include "kvhost/pool.h"
#include "kvhost/verifier.h"

namespace {

struct Answer {
  bool Fail = false;
  std::vector<uint8_t> Descriptor;
};
Answer g_answer;

NTSTATUS DiskControl(PDEVICE_OBJECT, PIRP irp) {
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
  ULONG_PTR information = 0;
  if (stack->Parameters.DeviceIoControl.IoControlCode == IOCTL_STORAGE_QUERY_PROPERTY) {
    if (g_answer.Fail) {
      status = STATUS_IO_DEVICE_ERROR;
    } else {
      const size_t room = stack->Parameters.DeviceIoControl.OutputBufferLength;
      information = std::min(room, g_answer.Descriptor.size());
      if (information != 0) std::memcpy(irp->AssociatedIrp.SystemBuffer, g_answer.Descriptor.data(), information);
      status = STATUS_SUCCESS;
    }
  }
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

NTSTATUS DiskDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DiskControl;
  return STATUS_SUCCESS;
}

PDEVICE_OBJECT Disk() {
  static PDEVICE_OBJECT disk = [] {
    PDRIVER_OBJECT driver = kvhost::IoLoadDriver(u"fuzzdisk", DiskDriverEntry).DriverObject;
    PDEVICE_OBJECT device = nullptr;
    if (driver == nullptr || !NT_SUCCESS(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK, 0, FALSE, &device)))
      std::abort();
    device->Flags &= ~DO_DEVICE_INITIALIZING;
    return device;
  }();
  return disk;
}

[[noreturn]] void Fail(const char* what) {
  std::fprintf(stderr, "disk identity: %s\n", what);
  for (const kvhost::Violation& v : kvhost::TakeViolations())
    std::fprintf(stderr, "  %s: %s\n", v.Check.c_str(), v.Message.c_str());
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  g_answer.Fail = data[0] != 0;
  g_answer.Descriptor.assign(data + 1, data + size);

  static CBT_DEVICE_EXTENSION extension;
  std::memset(&extension, 0, sizeof extension);
  extension.LowerDeviceObject = Disk();
  const NTSTATUS status = CbtQueryDiskIdentity(&extension);

  if (status != STATUS_SUCCESS && status != STATUS_FILE_CORRUPT_ERROR && status != STATUS_IO_DEVICE_ERROR)
    Fail("a status the classification does not name");
  if ((extension.Flags & ~(CBT_FLAG_VHD | CBT_FLAG_XVDD)) != 0) Fail("a flag other than the virtual-disk ones");
  if ((extension.Flags & CBT_FLAG_VHD) != 0 && (extension.Flags & CBT_FLAG_XVDD) != 0) Fail("both kinds at once");
  if (kvhost::OutstandingBlocks(CBT_POOL_TAG) != 0) Fail("the descriptor's pool stayed");
  if (!kvhost::TakeViolations().empty()) Fail("the verifier objected");
  return 0;
}
