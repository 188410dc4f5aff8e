// Volumes: identity, the disk behind them, the record of what reached it, knobs, and the
// transfers their device carries out.
#include "kvtestbed/volume.h"

#include <cstdio>
#include <cstring>

#include "completion_worker.h"
#include "kvhost/object.h"
#include "kvtestbed/file_system.h"
#include "kvtestbed/names.h"
#include "volume_content.h"

namespace kvtestbed {
namespace {

// A volume GUID of its own for each volume number, stable across boots:
// {4B564F4C-0000-4D53-8000-00000000000N} ("KVOL" ... "MS").
GUID DerivedVolumeGuid(ULONG number) {
  GUID g{0x4B564F4C, 0x0000, 0x4D53, {0x80, 0x00, 0, 0, 0, 0, 0, 0}};
  for (int i = 0; i < 4; ++i) g.Data4[7 - i] = static_cast<UCHAR>(number >> (8 * i));
  return g;
}

std::u16string Utf16(const std::string& ascii) { return kvhost::ToWString(ascii); }

}  // namespace

Volume::Volume(ULONG number, Volume* original, VolumeConfig config, std::shared_ptr<detail::Content> content)
    : number_(number), original_(original), content_(std::move(content)), config_(std::move(config)) {
  const std::u16string number16 = Utf16(std::to_string(number));
  deviceName_ = (original != nullptr ? u"\\Device\\HarddiskVolumeShadowCopy" : u"\\Device\\HarddiskVolume") + number16;
  guid_ = config_.VolumeGuid.value_or(DerivedVolumeGuid(original != nullptr ? 0x10000 + number : number));
  const std::u16string guid = GuidText16(guid_);
  if (original == nullptr) {
    guidName_ = u"\\??\\Volume" + guid;
    interfaceLink_ = u"\\??\\STORAGE#Volume#" + guid + u"#{53f5630d-b6bf-11d0-94f2-00a0c91efb8b}";
  } else {
    interfaceLink_ = u"\\??\\STORAGE#VolumeSnapshot#HarddiskVolumeSnapshot" + number16 +
                     u"#{53f5630d-b6bf-11d0-94f2-00a0c91efb8b}";
  }
  name_ = config_.Name.empty() ? kvhost::ToUtf8(deviceName_.substr(8)) : config_.Name;
  if (config_.SerialNumber.empty()) {
    char serial[24];
    std::snprintf(serial, sizeof serial, "KV%08lu", static_cast<unsigned long>(number));
    config_.SerialNumber = serial;
  }
}

Volume::~Volume() = default;

VolumeConfig Volume::Config() const {
  std::lock_guard<std::mutex> guard(lock_);
  return config_;
}

uint64_t Volume::SizeBytes() const {
  std::lock_guard<std::mutex> guard(lock_);
  return config_.SizeBytes;
}

PDEVICE_OBJECT Volume::TopOfStack() const {
  PDEVICE_OBJECT device = Device();
  return device == nullptr ? nullptr : IoGetAttachedDevice(device);
}

std::vector<uint8_t> Volume::ReadDirect(uint64_t offset, size_t length) const {
  std::vector<uint8_t> bytes(length);
  content_->Read(offset, bytes.data(), length);
  return bytes;
}

void Volume::WriteDirect(uint64_t offset, std::span<const uint8_t> data) {
  content_->Write(offset, data.data(), data.size());
}

namespace {

class DirectVolumeIo final : public VolumeIo {
 public:
  explicit DirectVolumeIo(Volume& volume) : volume_(volume) {}
  ULONG SectorSize() const override { return volume_.Config().SectorSize; }
  NTSTATUS Read(uint64_t offset, void* buffer, size_t length) override {
    if (!Fits(offset, length)) return STATUS_INVALID_PARAMETER;
    const std::vector<uint8_t> bytes = volume_.ReadDirect(offset, length);
    std::memcpy(buffer, bytes.data(), length);
    return STATUS_SUCCESS;
  }
  NTSTATUS Write(uint64_t offset, const void* buffer, size_t length) override {
    if (!Fits(offset, length)) return STATUS_INVALID_PARAMETER;
    volume_.WriteDirect(offset, std::span<const uint8_t>(static_cast<const uint8_t*>(buffer), length));
    return STATUS_SUCCESS;
  }

 private:
  bool Fits(uint64_t offset, size_t length) const {
    const uint64_t sector = SectorSize();
    const uint64_t size = volume_.SizeBytes();
    return offset % sector == 0 && length % sector == 0 && offset <= size && length <= size - offset;
  }
  Volume& volume_;
};

}  // namespace

std::unique_ptr<VolumeIo> Volume::DirectIo() { return std::make_unique<DirectVolumeIo>(*this); }

uint64_t Volume::BytesAllocated() const { return content_->BytesAllocated(); }

DiskCounters Volume::Counters() const {
  std::lock_guard<std::mutex> guard(lock_);
  return counters_;
}

std::vector<DiskWrite> Volume::Writes() const {
  std::lock_guard<std::mutex> guard(lock_);
  return writes_;
}

std::vector<WriteRequest> Volume::WriteRequestsSinceOnline() const {
  std::lock_guard<std::mutex> guard(lock_);
  return writeRequests_;
}

void Volume::SetOnline(bool online) {
  std::lock_guard<std::mutex> guard(lock_);
  if (online && !online_.load()) writeRequests_.clear();
  online_ = online;
}

std::vector<std::string> Volume::TakeRequestLog() {
  std::lock_guard<std::mutex> guard(lock_);
  std::vector<std::string> out;
  out.swap(requests_);
  return out;
}

void Volume::SetWriteProtected(bool on) {
  std::lock_guard<std::mutex> guard(lock_);
  config_.WriteProtected = on;
}

void Volume::SetBitLockerLocked(bool on) {
  std::lock_guard<std::mutex> guard(lock_);
  config_.BitLockerLocked = on;
}

void Volume::SetCompleteFromThread(bool on) {
  std::lock_guard<std::mutex> guard(lock_);
  config_.CompleteFromThread = on;
}

void Volume::FailTransfers(NTSTATUS status, uint32_t count, TransferKind kind) {
  std::lock_guard<std::mutex> guard(lock_);
  failStatus_ = status;
  failCount_ = count;
  failKind_ = kind;
}

void Volume::CancelTransfers(uint32_t count) {
  std::lock_guard<std::mutex> guard(lock_);
  cancelCount_ = count;
}

void Volume::HoldCompletions(bool hold) {
  {
    std::lock_guard<std::mutex> guard(lock_);
    holdCompletions_ = hold;
  }
  if (!hold && worker_ != nullptr) worker_->Wake();
}

bool Volume::CompletesFromThread() const {
  std::lock_guard<std::mutex> guard(lock_);
  return config_.CompleteFromThread;
}

bool Volume::CompletionsHeld() const {
  std::lock_guard<std::mutex> guard(lock_);
  return holdCompletions_;
}

void Volume::AttachFileSystem(std::shared_ptr<FileSystem> fileSystem) { fileSystem_ = std::move(fileSystem); }

void Volume::Record(std::string request) {
  std::lock_guard<std::mutex> guard(lock_);
  requests_.push_back(std::move(request));
}

// Why the volume refuses a transfer, in the order a volume finds out: no power, offline,
// parameters, then the disk's own state and the injected faults. With the lock held.
NTSTATUS Volume::CheckTransfer(bool write, LONGLONG offset, ULONG length) {
  if (poweredOff_) return STATUS_DEVICE_POWER_FAILURE;
  if (!online_) return STATUS_DEVICE_OFF_LINE;
  const uint64_t sector = config_.SectorSize;
  if (offset < 0 || static_cast<uint64_t>(offset) % sector != 0 || length % sector != 0 ||
      static_cast<uint64_t>(offset) > config_.SizeBytes || length > config_.SizeBytes - static_cast<uint64_t>(offset))
    return STATUS_INVALID_PARAMETER;
  if (cancelCount_ != 0) {
    --cancelCount_;
    return STATUS_CANCELLED;
  }
  const bool failThis = failKind_ == TransferKind::Both || (failKind_ == TransferKind::Writes) == write;
  if (failCount_ != 0 && failThis) {
    --failCount_;
    return failStatus_;
  }
  if (config_.BitLockerLocked) return STATUS_FVE_LOCKED_VOLUME;
  if (write && config_.WriteProtected) return STATUS_MEDIA_WRITE_PROTECTED;
  return STATUS_SUCCESS;
}

NTSTATUS Volume::Transfer(PIRP irp) {
  PIO_STACK_LOCATION sp = IoGetCurrentIrpStackLocation(irp);
  const bool write = sp->MajorFunction == IRP_MJ_WRITE;
  const LONGLONG offset = sp->Parameters.Read.ByteOffset.QuadPart;
  const ULONG length = sp->Parameters.Read.Length;
  NTSTATUS status;
  {
    std::lock_guard<std::mutex> guard(lock_);
    status = CheckTransfer(write, offset, length);
  }
  void* buffer = nullptr;
  if (NT_SUCCESS(status) && length != 0) {
    // A volume does direct I/O: the data is where the request's MDL describes it.
    buffer = irp->MdlAddress == nullptr
                 ? nullptr
                 : MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority | MdlMappingNoExecute);
    if (irp->MdlAddress == nullptr) status = STATUS_INVALID_PARAMETER;
    else if (buffer == nullptr) status = STATUS_INSUFFICIENT_RESOURCES;
  }
  if (NT_SUCCESS(status) && length != 0) {
    if (write)
      content_->Write(static_cast<uint64_t>(offset), buffer, length);
    else
      content_->Read(static_cast<uint64_t>(offset), buffer, length);
  }
  {
    std::lock_guard<std::mutex> guard(lock_);
    if (write && online_) writeRequests_.push_back({static_cast<uint64_t>(offset), length, status});
    if (!NT_SUCCESS(status)) {
      ++counters_.Refused;
    } else if (write) {
      ++counters_.Writes;
      counters_.BytesWritten += length;
      if (length != 0) writes_.push_back({static_cast<uint64_t>(offset), length});
    } else {
      ++counters_.Reads;
      counters_.BytesRead += length;
    }
  }
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = NT_SUCCESS(status) ? length : 0;
  IoCompleteRequest(irp, NT_SUCCESS(status) ? IO_DISK_INCREMENT : IO_NO_INCREMENT);
  return status;
}

}  // namespace kvtestbed
