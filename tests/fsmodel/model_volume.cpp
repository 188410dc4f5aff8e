// The model volume the file-system tests run on (see model_volume.h).
#include "model_volume.h"

#include "kvhost/workqueue.h"

namespace {

void Link(const std::u16string& link, const std::u16string& target, std::vector<std::u16string>* links) {
  Text name(link);
  Text to(target);
  ASSERT_EQ(IoCreateSymbolicLink(name.get(), to.get()), STATUS_SUCCESS);
  links->push_back(link);
}

}  // namespace

void ModelVolumeTest::SetUp() {
  ramDriver_ = kvhost::IoLoadDriver(u"RamDisk", RamDiskDriverEntry).DriverObject;
  filterDriver_ = kvhost::IoLoadDriver(u"TestFilter", TestFilterDriverEntry).DriverObject;
  ASSERT_NE(ramDriver_, nullptr);
  ASSERT_NE(filterDriver_, nullptr);
  Text name(kDeviceName);
  ASSERT_EQ(RamDiskCreate(ramDriver_, name.get(), kVolumeBytes, DO_DIRECT_IO, RamDiskCompleteInline, &disk_),
            STATUS_SUCCESS);
  ASSERT_EQ(TestFilterAttach(filterDriver_, disk_, FilterPassThrough, &filter_), STATUS_SUCCESS);
  Link(u"\\??\\D:", kDeviceName, &links_);
  Link(kGuidLink, kDeviceName, &links_);
  Link(u"\\SystemRoot", std::u16string(kDeviceName) + u"\\Windows", &links_);

  kvtestbed::ModelFormat format;
  format.VolumeBytes = kVolumeBytes;
  format.BytesPerCluster = kCluster;
  format.Label = u"Data";
  ASSERT_EQ(kvtestbed::FormatModelVolume(disk_, format), STATUS_SUCCESS);
  model_ = std::make_shared<kvtestbed::ModelFileSystem>();
  ASSERT_EQ(kvtestbed::AttachFileSystem(disk_, model_), STATUS_SUCCESS);
}

void ModelVolumeTest::TearDown() {
  // The mount is announced from a worker thread, which holds the volume while it does.
  kvhost::WaitForWorkQueuesIdle();
  if (disk_ != nullptr) kvtestbed::DetachFileSystem(disk_);
  for (const std::u16string& link : links_) {
    Text name(link);
    IoDeleteSymbolicLink(name.get());
  }
  if (filter_ != nullptr) TestFilterDetach(filter_);
  if (filterDriver_ != nullptr) kvhost::IoUnloadDriver(filterDriver_);
  if (ramDriver_ != nullptr) kvhost::IoUnloadDriver(ramDriver_);
}

OpenResult ModelVolumeTest::Open(std::u16string name, ACCESS_MASK access, ULONG share, ULONG disposition,
                                 ULONG options, ULONG attributes, LONGLONG allocation,
                                 PSECURITY_DESCRIPTOR descriptor) {
  Text text(std::move(name));
  OBJECT_ATTRIBUTES oa;
  InitializeObjectAttributes(&oa, text.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, descriptor);
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER size;
  size.QuadPart = allocation;
  OpenResult result;
  result.Status = ZwCreateFile(result.File.put(), access, &oa, &iosb, allocation != 0 ? &size : nullptr, attributes,
                               share, disposition, options, nullptr, 0);
  result.Information = iosb.Information;
  return result;
}

NTSTATUS ModelVolumeTest::Write(HANDLE file, const std::vector<unsigned char>& data, LONGLONG offset) {
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER at;
  at.QuadPart = offset;
  return ZwWriteFile(file, nullptr, nullptr, nullptr, &iosb, const_cast<unsigned char*>(data.data()),
                     static_cast<ULONG>(data.size()), &at, nullptr);
}

std::vector<unsigned char> ModelVolumeTest::Read(HANDLE file, ULONG length, LONGLONG offset, NTSTATUS* status) {
  std::vector<unsigned char> data(length);
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER at;
  at.QuadPart = offset;
  NTSTATUS result = ZwReadFile(file, nullptr, nullptr, nullptr, &iosb, data.data(), length, &at, nullptr);
  if (status != nullptr) *status = result;
  data.resize(NT_SUCCESS(result) ? iosb.Information : 0);
  return data;
}

NTSTATUS ModelVolumeTest::SetInformation(HANDLE file, const void* info, ULONG length, FILE_INFORMATION_CLASS infoClass) {
  IO_STATUS_BLOCK iosb{};
  return ZwSetInformationFile(file, &iosb, const_cast<void*>(info), length, infoClass);
}

NTSTATUS ModelVolumeTest::FsControl(HANDLE file, ULONG code, void* in, ULONG inLength, void* out, ULONG outLength,
                                    ULONG_PTR* information) {
  IO_STATUS_BLOCK iosb{};
  NTSTATUS status = ZwFsControlFile(file, nullptr, nullptr, nullptr, &iosb, code, in, inLength, out, outLength);
  if (information != nullptr) *information = iosb.Information;
  return status;
}

NTSTATUS ModelVolumeTest::RetrievalPointers(HANDLE file, LONGLONG vcn, std::vector<unsigned char>* answer,
                                            ULONG bytes, ULONG_PTR* information) {
  STARTING_VCN_INPUT_BUFFER in;
  in.StartingVcn.QuadPart = vcn;
  answer->assign(bytes, 0xCC);
  return FsControl(file, FSCTL_GET_RETRIEVAL_POINTERS, &in, sizeof in, answer->data(), bytes, information);
}

std::vector<unsigned char> ModelVolumeTest::RawRead(LONGLONG offset, ULONG length) {
  std::vector<unsigned char> data(length);
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IO_STATUS_BLOCK iosb{};
  LARGE_INTEGER at;
  at.QuadPart = offset;
  PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_READ, disk_, data.data(), length, &at, &done, &iosb);
  EXPECT_NE(irp, nullptr);
  if (irp == nullptr) return {};
  if (IoCallDriver(disk_, irp) == STATUS_PENDING) KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
  EXPECT_EQ(iosb.Status, STATUS_SUCCESS);
  return data;
}

std::vector<unsigned char> ModelVolumeTest::Pattern(size_t bytes, unsigned char seed) {
  std::vector<unsigned char> data(bytes);
  for (size_t i = 0; i < bytes; ++i) data[i] = static_cast<unsigned char>(seed + i * 7 + i / 4096);
  return data;
}

void ModelVolumeTest::Remount() {
  kvtestbed::DetachFileSystem(disk_);
  model_ = std::make_shared<kvtestbed::ModelFileSystem>();
  ASSERT_EQ(kvtestbed::AttachFileSystem(disk_, model_), STATUS_SUCCESS);
}
