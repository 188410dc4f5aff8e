// The stacks the I/O manager's tests build: the RAM disk and test filter drivers loaded as
// the machine would load them, disks and filters created on demand, and requests built
// and waited for the way a caller in Windows does.
#pragma once

#include <gtest/gtest.h>
#include <wdm.h>

#include <string>
#include <vector>

#include "drivers/test_drivers.h"
#include "kvhost/io.h"

// A counted string that owns its text.
class CountedString {
 public:
  explicit CountedString(std::u16string text) : text_(std::move(text)) {
    value_.Buffer = reinterpret_cast<PWCH>(text_.data());
    value_.Length = static_cast<USHORT>(text_.size() * sizeof(WCHAR));
    value_.MaximumLength = value_.Length;
  }
  PUNICODE_STRING get() { return &value_; }

 private:
  std::u16string text_;
  UNICODE_STRING value_{};
};

class IoStackTest : public testing::Test {
 protected:
  void SetUp() override {
    ramDriver_ = kvhost::IoLoadDriver(u"RamDisk", RamDiskDriverEntry).DriverObject;
    filterDriver_ = kvhost::IoLoadDriver(u"TestFilter", TestFilterDriverEntry).DriverObject;
    ASSERT_NE(ramDriver_, nullptr);
    ASSERT_NE(filterDriver_, nullptr);
  }

  void TearDown() override {
    kvhost::IoUnloadDriver(filterDriver_);
    kvhost::IoUnloadDriver(ramDriver_);
  }

  PDEVICE_OBJECT NewDisk(RAMDISK_COMPLETION completion = RamDiskCompleteInline, ULONG flags = DO_DIRECT_IO,
                         std::u16string name = u"\\Device\\RamDisk0", ULONG size = 64 * 1024) {
    CountedString counted(std::move(name));
    PDEVICE_OBJECT disk = nullptr;
    EXPECT_EQ(RamDiskCreate(ramDriver_, counted.get(), size, flags, completion, &disk), STATUS_SUCCESS);
    return disk;
  }

  PDEVICE_OBJECT Attach(PDEVICE_OBJECT target, TEST_FILTER_MODE mode) {
    PDEVICE_OBJECT filter = nullptr;
    EXPECT_EQ(TestFilterAttach(filterDriver_, target, mode, &filter), STATUS_SUCCESS);
    return filter;
  }

  static PRAMDISK_EXTENSION Disk(PDEVICE_OBJECT disk) { return static_cast<PRAMDISK_EXTENSION>(disk->DeviceExtension); }
  static PTEST_FILTER_EXTENSION Filter(PDEVICE_OBJECT filter) {
    return static_cast<PTEST_FILTER_EXTENSION>(filter->DeviceExtension);
  }

  // A read or write built by the I/O manager, sent to `top` and waited for. `sent` gets
  // what IoCallDriver returned.
  static IO_STATUS_BLOCK Transfer(PDEVICE_OBJECT top, UCHAR major, void* buffer, ULONG length, LONGLONG offset,
                                  NTSTATUS* sent = nullptr) {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    iosb.Status = STATUS_UNSUCCESSFUL;
    LARGE_INTEGER at;
    at.QuadPart = offset;
    PIRP irp = IoBuildSynchronousFsdRequest(major, top, buffer, length, &at, &done, &iosb);
    EXPECT_NE(irp, nullptr);
    if (irp == nullptr) return iosb;
    NTSTATUS status = IoCallDriver(top, irp);
    if (sent != nullptr) *sent = status;
    if (status == STATUS_PENDING) KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    return iosb;
  }

  static std::vector<unsigned char> Pattern(size_t bytes, unsigned char seed) {
    std::vector<unsigned char> data(bytes);
    for (size_t i = 0; i < bytes; ++i) data[i] = static_cast<unsigned char>(seed + i * 7);
    return data;
  }

  PDRIVER_OBJECT ramDriver_ = nullptr;
  PDRIVER_OBJECT filterDriver_ = nullptr;
};
