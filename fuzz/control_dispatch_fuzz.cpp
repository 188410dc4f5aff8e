// The device-control dispatch against arbitrary requests, sent through the top of a tracked
// volume's stack as an application's DeviceIoControl arrives. The driver is loaded once and
// filters one test volume; each input is one request:
//
//   byte 0       the code: one of the table's rows, or (high bit set) any function of the
//                driver's own device type with the method and access of bytes 0 and 1
//   byte 1       bit 0: from a 32-bit process; bit 1: output length stated without a buffer
//   bytes 2-3    the output length (little-endian, at most 4095)
//   the rest     the input
//
// Whatever the bytes, the request must be completed exactly once, nothing of it may stay
// alive, and the user-mode kernel's verifier must have nothing to say.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include <mountdev.h>
#include <ntdddisk.h>
#include <ntddscsi.h>
#include <ntddsnap.h>
#include <ntddstor.h>
#include <ntddvol.h>

#include "control_request.h"
#include "driver/cbt_driver.h"
#include "kvcbt/control.h"
#include "kvhost/io.h"
#include "kvhost/verifier.h"
#include "test_volume.h"

namespace {

constexpr ULONG kTableCodes[] = {
    IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION,
    IOCTL_KVCBT_GET_VOLUME_BITMAP,
    IOCTL_KVCBT_CHECK_VOLUME_BITMAP,
    IOCTL_KVCBT_SET_RESET_TIME,
    IOCTL_KVCBT_RESERVED_34,
    IOCTL_KVCBT_RESERVED_35,
    IOCTL_KVCBT_QUERY_VOLUME_TRACKING_INFORMATION_EX,
    IOCTL_KVCBT_DISABLE_TRACKING,
    IOCTL_KVCBT_ENABLE_TRACKING,
    IOCTL_KVCBT_QUERY_DRIVER_VERSION,
    IOCTL_KVCBT_VERIFY_SNAPSHOT,
    IOCTL_KVCBT_LOG_MARKER,
    IOCTL_KVCBT_CHECK_EXCLUDED,
    IOCTL_KVCBT_QUERY_TRACKING_ENABLED,
    IOCTL_SCSI_PASS_THROUGH,
    IOCTL_SCSI_PASS_THROUGH_DIRECT,
    IOCTL_SCSI_PASS_THROUGH_EX,
    IOCTL_SCSI_PASS_THROUGH_DIRECT_EX,
    IOCTL_VOLSNAP_PREPARE_FOR_SNAPSHOT,
    IOCTL_VOLSNAP_COMMIT_SNAPSHOT,
    IOCTL_VOLSNAP_RELEASE_WRITES,
    IOCTL_DISK_GET_LENGTH_INFO,
    IOCTL_MOUNTDEV_LINK_CREATED,
    IOCTL_MOUNTDEV_LINK_DELETED,
    IOCTL_VOLUME_ONLINE,
    IOCTL_VOLUME_OFFLINE,
};

[[noreturn]] void Fail(const char* what, const std::vector<kvhost::Violation>& violations = kvhost::TakeViolations()) {
  std::fprintf(stderr, "control dispatch: %s\n", what);
  for (const kvhost::Violation& v : violations)
    std::fprintf(stderr, "  %s: %s\n", v.Check.c_str(), v.Message.c_str());
  std::abort();
}

NTSTATUS KeepRequest(PDEVICE_OBJECT, PIRP, PVOID Context) {
  KeSetEvent(static_cast<PKEVENT>(Context), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;
}

// IRP_MN_START_DEVICE through the top of the stack, as the Plug and Play manager sends it.
NTSTATUS Start(PDEVICE_OBJECT top) {
  PIRP irp = IoAllocateIrp(top->StackSize, FALSE);
  if (irp == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  irp->IoStatus.Status = STATUS_NOT_SUPPORTED;
  PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(irp);
  stack->MajorFunction = IRP_MJ_PNP;
  stack->MinorFunction = IRP_MN_START_DEVICE;
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoSetCompletionRoutine(irp, KeepRequest, &done, TRUE, TRUE, TRUE);
  IoCallDriver(top, irp);
  KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  const NTSTATUS status = irp->IoStatus.Status;
  IoFreeIrp(irp);
  return status;
}

// The tracked volume's filter device, set up on first use and kept for the whole run.
PDEVICE_OBJECT TrackedVolume() {
  static PDEVICE_OBJECT top = [] {
    const kvhost::LoadedDriver loaded = kvhost::IoLoadDriver(
        u"kvcbt", DriverEntry, u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kvcbt");
    if (loaded.DriverObject == nullptr || !NT_SUCCESS(loaded.EntryStatus)) Fail("the driver did not load");
    kvhost::IoRunBootDriverReinitialization();
    kvtest::TestVolume* volume = kvtest::CreateTestVolume(kvtest::LoadTestVolumeDriver(), kvtest::FixedVolume(1));
    if (volume == nullptr) Fail("no test volume");
    PDRIVER_OBJECT driver = loaded.DriverObject;
    if (driver->DriverExtension->AddDevice(driver, volume->Device) != STATUS_SUCCESS) Fail("add-device failed");
    PDEVICE_OBJECT filter = volume->Device->AttachedDevice;
    if (filter == nullptr || filter->DriverObject != driver) Fail("the volume is not filtered");
    if (!NT_SUCCESS(Start(filter))) Fail("the volume did not start");
    kvhost::TakeViolations();
    return filter;
  }();
  return top;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 4) return 0;
  PDEVICE_OBJECT top = TrackedVolume();

  kvtest::ControlRequest request;
  if (data[0] & 0x80) {
    // Function, access and method from the input: codes of the driver's type the table lacks.
    request.Code = CTL_CODE(FILE_DEVICE_KVCBT, ((data[0] & 0x7F) << 4) | (data[1] >> 4), (data[1] >> 2) & 3, data[0] & 3);
  } else {
    request.Code = kTableCodes[data[0] % (sizeof kTableCodes / sizeof kTableCodes[0])];
  }
  request.From32bitProcess = (data[1] & 1) != 0;
  request.HasOutputBuffer = (data[1] & 2) == 0;
  request.OutputLength = (data[2] | (data[3] << 8)) & 0xFFF;
  request.Input.assign(data + 4, data + size);

  const uint64_t liveBefore = kvhost::IoGetCounters().IrpsLive;
  const kvtest::ControlResult result = kvtest::SendControlRequest(top, request);
  if (result.Returned == STATUS_PENDING && result.Status == STATUS_PENDING) Fail("a pending request never completed");
  if (kvhost::IoGetCounters().IrpsLive != liveBefore) Fail("a request outlived its completion");
  const std::vector<kvhost::Violation> violations = kvhost::TakeViolations();
  if (!violations.empty()) Fail("the verifier objected", violations);
  return 0;
}
