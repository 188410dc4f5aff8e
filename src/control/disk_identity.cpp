// What kind of disk a volume lives on: a Microsoft virtual disk (a VHD) or an Xvdd disk,
// told apart by the storage device descriptor the disk below reports. The answer only sets
// CBT_FLAG_VHD or CBT_FLAG_XVDD; a disk that cannot be classified is an ordinary disk.
#include <ntddstor.h>

#include "control/cbt_control.h"
#include "control/cbt_control_handlers.h"
#include "driver/cbt_device_extension.h"

namespace {

// The descriptor's own Version: its fixed part, as the storage stack has always sent it.
constexpr ULONG kDeviceDescriptorVersion = sizeof(STORAGE_DEVICE_DESCRIPTOR);
// Identifiers are compared over their first four characters when they lie far enough inside
// the descriptor.
constexpr ULONG kPrefixChars = 4;
constexpr CHAR kVirtualDiskProduct[] = "VIRTUAL DISK";
constexpr ULONG kVirtualDiskProductChars = sizeof(kVirtualDiskProduct) - 1;
// A descriptor is a few hundred bytes. A disk that claims more than this is not believed: its
// claim alone would have the driver take that much non-paged pool.
constexpr ULONG kMaxDescriptorBytes = 64 * 1024;

CHAR Upper(CHAR C) { return (C >= 'a' && C <= 'z') ? static_cast<CHAR>(C - 'a' + 'A') : C; }

// Whether Chars characters at Text equal Expected (upper case), letters in either case.
bool SameLetters(const CHAR* Text, const CHAR* Expected, ULONG Chars) {
  for (ULONG i = 0; i < Chars; ++i)
    if (Upper(Text[i]) != Expected[i]) return false;
  return true;
}

NTSTATUS QueryDeviceDescriptor(PDEVICE_OBJECT Device, PVOID Output, ULONG OutputLength) {
  STORAGE_PROPERTY_QUERY query = {};
  query.PropertyId = StorageDeviceProperty;
  query.QueryType = PropertyStandardQuery;
  // A disk that fills in less than it was asked for leaves the preset size to be read.
  static_cast<PSTORAGE_DESCRIPTOR_HEADER>(Output)->Size = OutputLength;
  IO_STATUS_BLOCK iosb = {};
  return CbtSendDeviceControl(Device, IOCTL_STORAGE_QUERY_PROPERTY, &query, sizeof(query), Output, OutputLength,
                              &iosb);
}

// Classifies the descriptor of Size bytes; the status of a descriptor that contradicts
// itself, or the query's.
NTSTATUS Classify(PCBT_DEVICE_EXTENSION Extension, const UCHAR* Descriptor, ULONG Size, NTSTATUS QueryStatus) {
  // The fixed part as far as the descriptor holds it; what it does not hold reads as 0.
  STORAGE_DEVICE_DESCRIPTOR device = {};
  RtlCopyMemory(&device, Descriptor, Size < sizeof(device) ? Size : sizeof(device));
  if (device.Version != kDeviceDescriptorVersion || device.VendorIdOffset < sizeof(STORAGE_DEVICE_DESCRIPTOR))
    return STATUS_FILE_CORRUPT_ERROR;
  // Only Microsoft's virtual disks are told apart. A vendor identifier too near the end to
  // hold its first characters is not looked at.
  const ULONG vendorAt = device.VendorIdOffset;
  if (vendorAt <= Size - kPrefixChars) {
    const auto* vendor = reinterpret_cast<const CHAR*>(Descriptor + vendorAt);
    if (!SameLetters(vendor, "MSFT", kPrefixChars)) return QueryStatus;
  }
  const ULONG productAt = device.ProductIdOffset;
  if (productAt < sizeof(STORAGE_DEVICE_DESCRIPTOR)) return STATUS_FILE_CORRUPT_ERROR;
  if (productAt > Size - kPrefixChars) return QueryStatus;
  const auto* product = reinterpret_cast<const CHAR*>(Descriptor + productAt);
  if (SameLetters(product, "XVDD", kPrefixChars)) {
    CbtSetFlags(Extension, CBT_FLAG_XVDD);
    return QueryStatus;
  }
  if (productAt <= Size - kVirtualDiskProductChars &&
      SameLetters(product, kVirtualDiskProduct, kVirtualDiskProductChars))
    CbtSetFlags(Extension, CBT_FLAG_VHD);
  return QueryStatus;
}

}  // namespace

NTSTATUS CbtQueryDiskIdentity(PCBT_DEVICE_EXTENSION Extension) {
  // The header first: it tells how large the whole descriptor is.
  STORAGE_DESCRIPTOR_HEADER header = {};
  NTSTATUS status = QueryDeviceDescriptor(Extension->LowerDeviceObject, &header, sizeof(header));
  if (!NT_SUCCESS(status)) return status;
  const ULONG size = header.Size;
  if (size <= sizeof(header) || size > kMaxDescriptorBytes) return STATUS_FILE_CORRUPT_ERROR;

  auto* descriptor = static_cast<PUCHAR>(ExAllocatePoolWithTag(NonPagedPoolNx, size, CBT_POOL_TAG));
  if (descriptor == NULL) return STATUS_INSUFFICIENT_RESOURCES;
  RtlZeroMemory(descriptor, size);
  // Whatever the disk answers the second time, the descriptor is read only within the size
  // allocated for it: an offset it gives is checked against that size, never its own.
  status = QueryDeviceDescriptor(Extension->LowerDeviceObject, descriptor, size);
  if (NT_SUCCESS(status)) status = Classify(Extension, descriptor, size, status);
  ExFreePoolWithTag(descriptor, CBT_POOL_TAG);
  return status;
}
