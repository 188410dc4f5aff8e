// A file's clusters found through the file system and then read and written raw below the
// driver's filter, on a machine volume carrying the model file system: the one-extent rule,
// retrieval-pointer answers that overflow, and running out of memory on the way.
#include <gtest/gtest.h>

#include <ntifs.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "../fsmodel/model_volume.h"
#include "control_request.h"
#include "driver/cbt_device_extension.h"
#include "driver/cbt_driver.h"
#include "kvhost/pool.h"
#include "kvhost/workqueue.h"
#include "kvtestbed/file_system.h"
#include "kvtestbed/fs_model.h"
#include "kvtestbed/machine.h"
#include "trackfile/cbt_raw_io.h"

namespace {

using kvtest::Pattern;

constexpr ULONG kCluster = 4096;

class FileExtentTest : public testing::Test {
 protected:
  void SetUp() override {
    kvtestbed::MachineConfig config;
    config.VolumeUpperFilters = {u"kvcbt"};
    config.Services = {{u"kvcbt", &DriverEntry, {}}};
    machine_ = std::make_unique<kvtestbed::Machine>(config);
    volume_ = machine_->AddVolume({.Name = "D:", .SizeBytes = 64ull << 20, .DriveLetter = u'D'});
    ASSERT_NE(volume_, nullptr);
    ASSERT_EQ(machine_->Boot(), STATUS_SUCCESS);
    kvtestbed::ModelFormat format;
    format.VolumeBytes = volume_->SizeBytes();
    format.BytesPerCluster = kCluster;
    ASSERT_EQ(kvtestbed::FormatModelVolume(volume_->Device(), format), STATUS_SUCCESS);
    model_ = std::make_shared<kvtestbed::ModelFileSystem>();
    ASSERT_EQ(kvtestbed::AttachFileSystem(volume_->Device(), model_), STATUS_SUCCESS);
  }

  void TearDown() override {
    file_.Close();
    // The first open mounted the volume, whose announcement comes from a worker thread that
    // holds the volume while the driver handles it.
    kvhost::WaitForWorkQueuesIdle();
    if (volume_ != nullptr && volume_->Device() != nullptr) kvtestbed::DetachFileSystem(volume_->Device());
    machine_.reset();
  }

  // Creates "\<name>" on the volume holding `data`, and keeps it open.
  void CreateFile(const std::u16string& name, const std::vector<uint8_t>& data) {
    Text path(u"\\??\\D:" + name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, path.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    ASSERT_EQ(ZwCreateFile(file_.put(), GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &iosb, nullptr,
                           FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ, FILE_OVERWRITE_IF,
                           FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0),
              STATUS_SUCCESS);
    if (data.empty()) return;
    LARGE_INTEGER at{};
    ASSERT_EQ(ZwWriteFile(file_.get(), nullptr, nullptr, nullptr, &iosb, const_cast<uint8_t*>(data.data()),
                          static_cast<ULONG>(data.size()), &at, nullptr),
              STATUS_SUCCESS);
  }

  std::vector<uint8_t> ReadFile(ULONG length) {
    std::vector<uint8_t> data(length);
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER at{};
    EXPECT_EQ(ZwReadFile(file_.get(), nullptr, nullptr, nullptr, &iosb, data.data(), length, &at, nullptr),
              STATUS_SUCCESS);
    return data;
  }

  // The device below the driver's filter: where raw transfers go.
  PDEVICE_OBJECT BelowFilter() const { return CbtExtensionOf(volume_->TopOfStack())->LowerDeviceObject; }

  std::unique_ptr<kvtestbed::Machine> machine_;
  kvtestbed::Volume* volume_ = nullptr;
  std::shared_ptr<kvtestbed::ModelFileSystem> model_;
  Handle file_;
};

TEST_F(FileExtentTest, AOneExtentFileIsReadAndWrittenRawAtItsClusters) {
  const std::vector<uint8_t> original = Pattern(3 * kCluster, 0x31);
  CreateFile(u"\\history.bin", original);
  LONGLONG firstLcn = 0;
  LONGLONG endLcn = 0;
  ASSERT_EQ(CbtGetFileExtent(file_.get(), &firstLcn, &endLcn), STATUS_SUCCESS);
  const std::vector<kvtestbed::Extent> extents = model_->ExtentsOf(u"\\history.bin");
  ASSERT_EQ(extents.size(), 1u);
  EXPECT_EQ(firstLcn, extents[0].Lcn);
  EXPECT_EQ(endLcn, extents[0].Lcn + extents[0].Clusters);
  EXPECT_EQ(endLcn - firstLcn, 3);

  // Read raw below the filter: the file's bytes, although no file-system request was made.
  uint8_t* image = static_cast<uint8_t*>(ExAllocatePoolWithTag(NonPagedPoolNx, 3 * kCluster, CBT_POOL_TAG));
  ASSERT_NE(image, nullptr);
  PIRP irp = CbtAllocateRawIrp(static_cast<CCHAR>(BelowFilter()->StackSize + 8), image, 3 * kCluster, IoPriorityHigh);
  ASSERT_NE(irp, nullptr);
  LONGLONG offset = firstLcn * kCluster;
  const kvtestbed::DiskCounters before = volume_->Counters();
  ASSERT_EQ(CbtSendRawIrp(BelowFilter(), irp, IRP_MJ_READ, &offset, 3 * kCluster), STATUS_SUCCESS);
  EXPECT_EQ(std::memcmp(image, original.data(), original.size()), 0);

  // Write raw; the file system then reads the new bytes.
  const std::vector<uint8_t> changed = Pattern(3 * kCluster, 0x90);
  std::memcpy(image, changed.data(), changed.size());
  ASSERT_EQ(CbtSendRawIrp(BelowFilter(), irp, IRP_MJ_WRITE, &offset, 3 * kCluster), STATUS_SUCCESS);
  const kvtestbed::DiskCounters after = volume_->Counters();
  EXPECT_EQ(after.Reads - before.Reads, 1u);
  EXPECT_EQ(after.Writes - before.Writes, 1u);
  EXPECT_EQ(ReadFile(3 * kCluster), changed);
  CbtFreeRawIrp(irp, TRUE);
}

TEST_F(FileExtentTest, TheExtentEndsJustPastTheFilesLastCluster) {
  CreateFile(u"\\ten.bin", Pattern(10 * kCluster, 3));
  ASSERT_EQ(model_->MoveFile(u"\\ten.bin", 5000), STATUS_SUCCESS);
  LONGLONG firstLcn = 0;
  LONGLONG endLcn = 0;
  EXPECT_EQ(CbtGetFileExtent(file_.get(), &firstLcn, &endLcn), STATUS_SUCCESS);
  EXPECT_EQ(firstLcn, 5000);
  EXPECT_EQ(endLcn, 5010);
}

TEST_F(FileExtentTest, AFragmentedFileHasNoLocation) {
  CreateFile(u"\\history.bin", Pattern(4 * kCluster, 1));
  ASSERT_EQ(model_->FragmentFile(u"\\history.bin", 2), STATUS_SUCCESS);
  const std::vector<kvtestbed::Extent> extents = model_->ExtentsOf(u"\\history.bin");
  ASSERT_EQ(extents.size(), 2u);
  LONGLONG firstLcn = 0;
  LONGLONG endLcn = 0;
  EXPECT_EQ(CbtGetFileExtent(file_.get(), &firstLcn, &endLcn), STATUS_NOT_TINY_STREAM);
  EXPECT_EQ(firstLcn, extents[0].Lcn) << "the first extent is still reported";
  EXPECT_EQ(endLcn, -1);
}

TEST_F(FileExtentTest, AnAnswerThatOverflowsIsAskedForAgainInDoubledBuffers) {
  // 1,100 fragments need 16 + 1,100 * 16 bytes: the 4,096-byte answer overflows three times.
  CreateFile(u"\\scattered.bin", Pattern(1100 * kCluster, 7));
  ASSERT_EQ(model_->FragmentFile(u"\\scattered.bin", 1100), STATUS_SUCCESS);
  const LONGLONG firstFragment = model_->ExtentsOf(u"\\scattered.bin").at(0).Lcn;

  kvhost::LogAllocations(true);
  LONGLONG firstLcn = 0;
  LONGLONG endLcn = 0;
  EXPECT_EQ(CbtGetFileExtent(file_.get(), &firstLcn, &endLcn), STATUS_NOT_TINY_STREAM);
  EXPECT_EQ(firstLcn, firstFragment);
  EXPECT_EQ(endLcn, -1);
  std::vector<SIZE_T> answers;
  for (const kvhost::PoolBlockInfo& attempt : kvhost::TakeAllocationLog())
    if (attempt.Tag == CBT_POOL_TAG) answers.push_back(attempt.Bytes);
  kvhost::LogAllocations(false);
  EXPECT_EQ(answers, (std::vector<SIZE_T>{4096, 8192, 16384, 32768}));
}

TEST_F(FileExtentTest, RunningOutOfMemoryForTheAnswerLeavesTheOutputsAlone) {
  CreateFile(u"\\scattered.bin", Pattern(600 * kCluster, 7));
  ASSERT_EQ(model_->FragmentFile(u"\\scattered.bin", 600), STATUS_SUCCESS);
  const unsigned long long attempts = kvhost::ForEachAllocationFailure(
      [&](unsigned long long k) {
        LONGLONG firstLcn = 12345;
        LONGLONG endLcn = 67890;
        const NTSTATUS status = CbtGetFileExtent(file_.get(), &firstLcn, &endLcn);
        if (k == 0) {
          EXPECT_EQ(status, STATUS_NOT_TINY_STREAM);
          return;
        }
        EXPECT_EQ(status, STATUS_INSUFFICIENT_RESOURCES) << "attempt " << k;
        EXPECT_EQ(firstLcn, 12345);
        EXPECT_EQ(endLcn, 67890);
      },
      CBT_POOL_TAG);
  EXPECT_EQ(attempts, 3u) << "answers of 4,096, 8,192 and 16,384 bytes";
}

TEST_F(FileExtentTest, AFileWithoutClustersReportsTheFileSystemsAnswer) {
  CreateFile(u"\\empty.bin", {});
  LONGLONG firstLcn = 12345;
  LONGLONG endLcn = 67890;
  EXPECT_EQ(CbtGetFileExtent(file_.get(), &firstLcn, &endLcn), STATUS_END_OF_FILE);
  EXPECT_EQ(firstLcn, 12345);
  EXPECT_EQ(endLcn, 67890);
}

}  // namespace
