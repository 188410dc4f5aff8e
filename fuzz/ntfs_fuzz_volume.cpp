#include "ntfs_fuzz_volume.h"

#include <ntdddisk.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "kvhost/dbgprint.h"
#include "kvhost/io.h"
#include "kvhost/pool.h"

namespace kvfuzz {
namespace {

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

NTSTATUS DispatchRead(PDEVICE_OBJECT, PIRP irp) {
  const FuzzDisk& disk = FuzzDisk::Instance();
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  const LONGLONG offset = stack->Parameters.Read.ByteOffset.QuadPart;
  const ULONG length = stack->Parameters.Read.Length;
  // As a volume refuses: unaligned or beyond its end.
  if (offset < 0 || offset % disk.SectorSize() != 0 || length % disk.SectorSize() != 0 ||
      static_cast<uint64_t>(offset) + length > disk.Size())
    return Complete(irp, STATUS_INVALID_PARAMETER, 0);
  auto* buffer = static_cast<uint8_t*>(MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority));
  if (buffer == nullptr) return Complete(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
  disk.Read(static_cast<uint64_t>(offset), buffer, length);
  return Complete(irp, STATUS_SUCCESS, length);
}

NTSTATUS DispatchControl(PDEVICE_OBJECT, PIRP irp) {
  const FuzzDisk& disk = FuzzDisk::Instance();
  PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
  const ULONG outLength = stack->Parameters.DeviceIoControl.OutputBufferLength;
  void* out = irp->AssociatedIrp.SystemBuffer;
  switch (stack->Parameters.DeviceIoControl.IoControlCode) {
    case IOCTL_DISK_GET_DRIVE_GEOMETRY: {
      if (outLength < sizeof(DISK_GEOMETRY)) return Complete(irp, STATUS_BUFFER_TOO_SMALL, 0);
      DISK_GEOMETRY geometry = {};
      geometry.MediaType = FixedMedia;
      geometry.BytesPerSector = disk.SectorSize();
      geometry.SectorsPerTrack = 1;
      geometry.TracksPerCylinder = 1;
      geometry.Cylinders.QuadPart = static_cast<LONGLONG>(disk.Size() / disk.SectorSize());
      std::memcpy(out, &geometry, sizeof(geometry));
      return Complete(irp, STATUS_SUCCESS, sizeof(geometry));
    }
    case IOCTL_DISK_GET_LENGTH_INFO: {
      if (outLength < sizeof(GET_LENGTH_INFORMATION)) return Complete(irp, STATUS_BUFFER_TOO_SMALL, 0);
      GET_LENGTH_INFORMATION info = {};
      info.Length.QuadPart = static_cast<LONGLONG>(disk.Size());
      std::memcpy(out, &info, sizeof(info));
      return Complete(irp, STATUS_SUCCESS, sizeof(info));
    }
    default:
      return Complete(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
  }
}

NTSTATUS FuzzDiskEntry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
  driver->MajorFunction[IRP_MJ_READ] = DispatchRead;
  driver->MajorFunction[IRP_MJ_DEVICE_CONTROL] = DispatchControl;
  return STATUS_SUCCESS;
}

void PutLe(std::vector<uint8_t>& bytes, size_t at, uint64_t value, int width) {
  for (int i = 0; i < width; ++i) bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
}

}  // namespace

FuzzDisk& FuzzDisk::Instance() {
  static FuzzDisk* disk = new FuzzDisk;
  return *disk;
}

FuzzDisk::FuzzDisk() {
  PDRIVER_OBJECT driver = kvhost::IoLoadDriver(u"FuzzDisk", FuzzDiskEntry).DriverObject;
  if (driver == nullptr || !NT_SUCCESS(IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK, 0, FALSE, &device_))) {
    std::fprintf(stderr, "cannot create the fuzz disk\n");
    std::abort();
  }
  device_->Flags = (device_->Flags | DO_DIRECT_IO) & ~DO_DEVICE_INITIALIZING;
  Reset(8 << 20, 512);
}

void FuzzDisk::Reset(uint64_t sizeBytes, ULONG sectorSize) {
  pieces_.clear();
  size_ = sizeBytes;
  sectorSize_ = sectorSize;
  device_->SectorSize = static_cast<USHORT>(sectorSize);
}

void FuzzDisk::Write(uint64_t offset, const uint8_t* data, size_t length) {
  if (offset >= size_ || length == 0) return;  // nothing written leaves no piece
  length = static_cast<size_t>(std::min<uint64_t>(length, size_ - offset));
  // Later writes win: pieces they overlap are cut away first.
  std::vector<uint8_t> merged(data, data + length);
  for (auto it = pieces_.begin(); it != pieces_.end();) {
    const uint64_t start = it->first, end = it->first + it->second.size();
    if (end <= offset || start >= offset + length) {
      ++it;
      continue;
    }
    std::vector<uint8_t> old = std::move(it->second);
    it = pieces_.erase(it);
    if (start < offset) pieces_[start] = std::vector<uint8_t>(old.begin(), old.begin() + (offset - start));
    if (end > offset + length)
      pieces_[offset + length] = std::vector<uint8_t>(old.begin() + (offset + length - start), old.end());
  }
  pieces_[offset] = std::move(merged);
}

void FuzzDisk::Read(uint64_t offset, uint8_t* data, size_t length) const {
  std::memset(data, 0, length);
  for (const auto& [start, bytes] : pieces_) {
    const uint64_t end = start + bytes.size();
    if (end <= offset || start >= offset + length) continue;
    const uint64_t from = std::max(start, offset), to = std::min(end, offset + length);
    std::memcpy(data + (from - offset), bytes.data() + (from - start), static_cast<size_t>(to - from));
  }
}

bool IsReaderStatus(NTSTATUS status) {
  switch (status) {
    case STATUS_SUCCESS:
    case STATUS_UNRECOGNIZED_VOLUME:
    case STATUS_FILE_CORRUPT_ERROR:
    case STATUS_NOT_FOUND:
    case STATUS_INSUFFICIENT_RESOURCES:
    case NTFS_STATUS_COMPRESSED_ATTRIBUTE:
    case NTFS_STATUS_LOG_FILE_ALREADY_READ:
    case STATUS_INVALID_PARAMETER:  // the disk refuses a read past its end
      return true;
    default:
      return false;
  }
}

void ExpectReaderStatus(NTSTATUS status, const char* routine) {
  if (IsReaderStatus(status)) return;
  std::fprintf(stderr, "%s reported 0x%08X, which is none of the reader's statuses\n", routine,
               static_cast<unsigned>(status));
  std::abort();
}

size_t PoolMark() {
  // The disk is made on first use and kept for the process: made before the mark, it is not
  // taken for something an input left behind.
  FuzzDisk::Instance();
  return kvhost::OutstandingBlocks();
}

void AbortOnLeak(size_t mark, const char* what) {
  // The reader's records of refused input reach the debugger's capture, which would
  // otherwise grow with every input for the whole campaign.
  kvhost::TakeDebugOutput();
  if (kvhost::OutstandingBlocks() <= mark) return;
  for (const std::string& leak : kvhost::DescribePoolLeaks()) std::fprintf(stderr, "%s\n", leak.c_str());
  std::fprintf(stderr, "%s left pool behind\n", what);
  std::abort();
}

std::vector<uint8_t> SyntheticVolume::ResidentAttribute(ULONG type, const std::vector<uint8_t>& value) {
  const size_t length = (0x18 + value.size() + 7) & ~size_t{7};
  std::vector<uint8_t> a(length, 0);
  PutLe(a, 0, type, 4);
  PutLe(a, 4, length, 4);
  PutLe(a, 0x10, value.size(), 4);
  PutLe(a, 0x14, 0x18, 2);
  std::copy(value.begin(), value.end(), a.begin() + 0x18);
  return a;
}

std::vector<uint8_t> SyntheticVolume::NonresidentAttribute(ULONG type, LONGLONG lcn, ULONG clusters) {
  std::vector<uint8_t> a(0x50, 0);
  PutLe(a, 0, type, 4);
  PutLe(a, 4, a.size(), 4);
  a[8] = 1;
  PutLe(a, 0x18, clusters - 1, 8);
  PutLe(a, 0x20, 0x40, 2);
  const uint64_t bytes = static_cast<uint64_t>(clusters) * kClusterSize;
  PutLe(a, 0x28, bytes, 8);
  PutLe(a, 0x30, bytes, 8);
  PutLe(a, 0x38, bytes, 8);
  // One run: length in 4 bytes, offset in 4 bytes.
  a[0x40] = 0x44;
  PutLe(a, 0x41, clusters, 4);
  PutLe(a, 0x45, static_cast<uint64_t>(lcn), 4);
  return a;
}

std::vector<uint8_t> SyntheticVolume::Record(const std::vector<std::vector<uint8_t>>& attributes) {
  std::vector<uint8_t> r(kRecordSize, 0);
  std::memcpy(r.data(), "FILE", 4);
  PutLe(r, 4, 0x30, 2);
  PutLe(r, 6, kRecordSize / 512 + 1, 2);
  PutLe(r, 0x14, 0x38, 2);
  PutLe(r, 0x16, 1, 2);
  PutLe(r, 0x1C, kRecordSize, 4);
  size_t at = 0x38;
  for (const std::vector<uint8_t>& a : attributes) {
    std::copy(a.begin(), a.end(), r.begin() + static_cast<long>(at));
    at += a.size();
  }
  PutLe(r, at, 0xFFFFFFFFu, 4);
  PutLe(r, 0x18, at + 8, 4);
  // The update sequence: number 1, the strides' last bytes kept in the array.
  PutLe(r, 0x30, 1, 2);
  for (size_t i = 1; i <= kRecordSize / 512; ++i) {
    r[0x30 + 2 * i] = r[i * 512 - 2];
    r[0x31 + 2 * i] = r[i * 512 - 1];
    PutLe(r, i * 512 - 2, 1, 2);
  }
  return r;
}

void SyntheticVolume::Build(FuzzDisk& disk, ULONG logClusters) {
  const uint64_t size = 8 << 20;
  disk.Reset(size, 512);
  std::vector<uint8_t> boot(512, 0);
  std::memcpy(&boot[3], "NTFS    ", 8);
  PutLe(boot, 0x0B, 512, 2);
  boot[0x0D] = kClusterSize / 512;
  PutLe(boot, 0x28, size / 512 - 1, 8);
  PutLe(boot, 0x30, kMftLcn, 8);
  PutLe(boot, 0x38, 2, 8);
  boot[0x40] = 0xF6;  // 1 KiB records
  disk.Write(0, boot.data(), boot.size());

  const std::vector<uint8_t> label = {'F', 0, 'u', 0, 'z', 0, 'z', 0};
  const std::vector<std::vector<uint8_t>> records = {
      Record({NonresidentAttribute(0x80, kMftLcn, 4)}),
      Record({}),
      Record({NonresidentAttribute(0x80, kLogFileLcn, logClusters)}),
      Record({ResidentAttribute(0x60, label)}),
  };
  for (size_t i = 0; i < records.size(); ++i)
    disk.Write(kMftLcn * kClusterSize + i * kRecordSize, records[i].data(), records[i].size());
}

}  // namespace kvfuzz
