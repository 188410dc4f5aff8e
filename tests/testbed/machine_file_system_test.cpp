// The machine's volumes with a file system: mounted at boot in the boot order, flushed at a
// clean shutdown, found again after a power loss, dismounted through the file system, and
// taken away with the volume.
#include <algorithm>

#include "kvtestbed/file_system.h"
#include "kvtestbed/fs_model.h"
#include "testbed_support.h"

namespace kvtestbed::testing {
namespace {

// A handle to a file on a volume, opened as the driver opens its files.
class File {
 public:
  explicit File(const std::u16string& path, ULONG disposition = FILE_OPEN_IF) {
    UNICODE_STRING name;
    name.Buffer = const_cast<PWCH>(reinterpret_cast<const WCHAR*>(path.data()));
    name.Length = name.MaximumLength = static_cast<USHORT>(path.size() * sizeof(char16_t));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    Status = ZwCreateFile(&handle_, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &iosb, nullptr,
                          FILE_ATTRIBUTE_NORMAL, 0, disposition, FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE,
                          nullptr, 0);
  }
  ~File() { Close(); }
  void Close() {
    if (handle_ != nullptr) ZwClose(handle_);
    handle_ = nullptr;
  }
  NTSTATUS Write(const std::vector<uint8_t>& data) {
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER at{};
    return ZwWriteFile(handle_, nullptr, nullptr, nullptr, &iosb, const_cast<uint8_t*>(data.data()),
                       static_cast<ULONG>(data.size()), &at, nullptr);
  }
  std::vector<uint8_t> Read(ULONG length) {
    std::vector<uint8_t> data(length);
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER at{};
    if (!NT_SUCCESS(ZwReadFile(handle_, nullptr, nullptr, nullptr, &iosb, data.data(), length, &at, nullptr)))
      return {};
    data.resize(iosb.Information);
    return data;
  }
  NTSTATUS Status;

 private:
  HANDLE handle_ = nullptr;
};

NTSTATUS CreateDirectory(const std::u16string& path) {
  UNICODE_STRING name;
  name.Buffer = const_cast<PWCH>(reinterpret_cast<const WCHAR*>(path.data()));
  name.Length = name.MaximumLength = static_cast<USHORT>(path.size() * sizeof(char16_t));
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE, nullptr, nullptr);
  IO_STATUS_BLOCK iosb{};
  HANDLE handle = nullptr;
  NTSTATUS status = ZwCreateFile(&handle, FILE_LIST_DIRECTORY | SYNCHRONIZE, &attributes, &iosb, nullptr,
                                 FILE_ATTRIBUTE_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_CREATE,
                                 FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE, nullptr, 0);
  if (NT_SUCCESS(status)) ZwClose(handle);
  return status;
}

class MachineFileSystem : public ::testing::Test {
 protected:
  void SetUp() override {
    c_ = machine_.AddVolume(LetteredVolume(u'C'));
    ModelFormat format;
    format.VolumeBytes = c_->SizeBytes();
    ASSERT_EQ(FormatModelVolume(*c_->DirectIo(), format), STATUS_SUCCESS);
    c_->AttachFileSystem(std::make_shared<ModelFileSystem>());
  }

  static size_t IndexOf(const std::vector<MachineEvent>& events, const std::string& text) {
    auto it = std::find_if(events.begin(), events.end(), [&](const MachineEvent& e) { return e.Text == text; });
    return static_cast<size_t>(it - events.begin());
  }

  Machine machine_;
  Volume* c_ = nullptr;
};

TEST_F(MachineFileSystem, TheFileSystemIsMountedAtBootAndItsFilesOutliveShutdownsAndPowerLosses) {
  ASSERT_EQ(machine_.Boot(), STATUS_SUCCESS);
  EXPECT_TRUE(IsVolumeMounted(c_->Device()));
  const std::vector<MachineEvent> boot = machine_.TakeEvents();
  const size_t online = IndexOf(boot, "C: IOCTL_VOLUME_ONLINE");
  const size_t mounted = IndexOf(boot, "C: file system mount");
  const size_t announced = IndexOf(boot, "C: GUID_IO_VOLUME_MOUNT");
  ASSERT_LT(announced, boot.size());
  EXPECT_LT(online, mounted);
  EXPECT_EQ(mounted + 1, announced) << "the machine announces the mount in its place, once";
  EXPECT_EQ(std::count_if(boot.begin(), boot.end(), [](const MachineEvent& e) { return e.Text == "C: GUID_IO_VOLUME_MOUNT"; }),
            1);

  const std::vector<uint8_t> data = Pattern(3 * 4096, 9);
  const uint64_t writesBefore = c_->Counters().Writes;
  {
    File file(u"\\??\\C:\\kept.bin");
    ASSERT_EQ(file.Status, STATUS_SUCCESS);
    ASSERT_EQ(file.Write(data), STATUS_SUCCESS);
  }
  EXPECT_GT(c_->Counters().Writes, writesBefore) << "the file system's writes went down the volume's stack";

  machine_.Shutdown();
  ASSERT_EQ(machine_.Boot(), STATUS_SUCCESS);
  {
    File file(u"\\??\\C:\\kept.bin", FILE_OPEN);
    ASSERT_EQ(file.Status, STATUS_SUCCESS);
    EXPECT_EQ(file.Read(static_cast<ULONG>(data.size())), data);
  }

  machine_.Crash();
  ASSERT_EQ(machine_.Boot(), STATUS_SUCCESS);
  File file(u"\\??\\C:\\kept.bin", FILE_OPEN);
  ASSERT_EQ(file.Status, STATUS_SUCCESS) << "the file system's metadata is on the disk";
  EXPECT_EQ(file.Read(static_cast<ULONG>(data.size())), data);
}

TEST_F(MachineFileSystem, DismountGoesThroughTheFileSystemAndRemovalWaitsForOpenFiles) {
  ASSERT_EQ(machine_.Boot(), STATUS_SUCCESS);
  machine_.TakeEvents();
  ASSERT_EQ(machine_.Dismount(*c_), STATUS_SUCCESS);
  EXPECT_FALSE(IsVolumeMounted(c_->Device()));
  const std::vector<MachineEvent> dismount = machine_.TakeEvents();
  ASSERT_EQ(dismount.size(), 1u);
  EXPECT_EQ(dismount[0].Text, "C: FSCTL_DISMOUNT_VOLUME");
  EXPECT_EQ(CountSeen(TakeTestFilterEvents(), "GUID_IO_VOLUME_DISMOUNT"), 1u) << "raised by the file system";

  File busy(u"\\??\\C:\\busy.bin");
  ASSERT_EQ(busy.Status, STATUS_SUCCESS) << "the next open mounts again";
  EXPECT_TRUE(IsVolumeMounted(c_->Device()));
  EXPECT_EQ(machine_.Remove(*c_), STATUS_ACCESS_DENIED) << "the file system vetoes while a file is open";
  EXPECT_NE(c_->Device(), nullptr);
  busy.Close();
  EXPECT_EQ(machine_.Remove(*c_), STATUS_SUCCESS);
  EXPECT_EQ(c_->Device(), nullptr);
  EXPECT_EQ(machine_.Arrive(*c_), STATUS_SUCCESS);
  File again(u"\\??\\C:\\busy.bin", FILE_OPEN);
  EXPECT_EQ(again.Status, STATUS_SUCCESS) << "the volume arrives with its file system again";
}

// The system volume's files are reached as the driver reaches them: through \SystemRoot and
// through the volume GUID name, both made by the machine.
TEST_F(MachineFileSystem, SystemRootAndTheVolumeGuidNameLeadToTheSystemVolume) {
  ASSERT_EQ(machine_.Boot(), STATUS_SUCCESS);
  ASSERT_EQ(CreateDirectory(u"\\??\\C:\\Windows"), STATUS_SUCCESS);
  const std::vector<uint8_t> data = Pattern(4096, 21);
  {
    File file(u"\\SystemRoot\\kvcbt.log");
    ASSERT_EQ(file.Status, STATUS_SUCCESS);
    ASSERT_EQ(file.Write(data), STATUS_SUCCESS);
  }
  {
    File file(c_->VolumeGuidName() + u"\\Windows\\kvcbt.log", FILE_OPEN);
    ASSERT_EQ(file.Status, STATUS_SUCCESS);
    EXPECT_EQ(file.Read(static_cast<ULONG>(data.size())), data);
  }

  // The link goes with the volume's other links, and comes back with them.
  ASSERT_EQ(machine_.Remove(*c_), STATUS_SUCCESS);
  EXPECT_EQ(File(u"\\SystemRoot\\kvcbt.log", FILE_OPEN).Status, STATUS_OBJECT_PATH_NOT_FOUND);
  ASSERT_EQ(machine_.Arrive(*c_), STATUS_SUCCESS);
  EXPECT_EQ(File(u"\\SystemRoot\\kvcbt.log", FILE_OPEN).Status, STATUS_SUCCESS);
  machine_.Crash();
  ASSERT_EQ(machine_.Boot(), STATUS_SUCCESS);
  EXPECT_EQ(File(u"\\SystemRoot\\kvcbt.log", FILE_OPEN).Status, STATUS_SUCCESS) << "made again at each boot";
}

TEST_F(MachineFileSystem, ALockedVolumeMountsNothingAndItsFilesCannotBeOpened) {
  c_->SetBitLockerLocked(true);
  ASSERT_EQ(machine_.Boot(), STATUS_SUCCESS);
  EXPECT_FALSE(IsVolumeMounted(c_->Device()));
  EXPECT_EQ(File(u"\\??\\C:\\kept.bin").Status, STATUS_FVE_LOCKED_VOLUME);
  c_->SetBitLockerLocked(false);
  EXPECT_EQ(File(u"\\??\\C:\\kept.bin").Status, STATUS_SUCCESS) << "unlocked, the next open mounts it";
}

}  // namespace
}  // namespace kvtestbed::testing
