// File sizes and information as the tracking file and the log file use them, positions of
// synchronous files, transfers without intermediate buffering, deletion, volume information
// and security descriptors.
#include <cstring>

#include "kvhost/security.h"
#include "model_volume.h"

namespace {

using FileInformation = ModelVolumeTest;

template <typename T>
NTSTATUS Set(HANDLE file, T info, FILE_INFORMATION_CLASS infoClass) {
  return ModelVolumeTest::SetInformation(file, &info, sizeof info, infoClass);
}

FILE_STANDARD_INFORMATION Standard(HANDLE file) {
  FILE_STANDARD_INFORMATION standard{};
  EXPECT_EQ(ModelVolumeTest::QueryInformation(file, &standard, FileStandardInformation), STATUS_SUCCESS);
  return standard;
}

TEST_F(FileInformation, EndOfFileAndValidDataLengthSizeAFileWhoseClustersAreWrittenRaw) {
  // The tracking file's creation: superseded with its length as allocation, then sized.
  const ULONG length = 5 * kCluster + 100;
  OpenResult file = Open(u"\\??\\D:\\track.bin", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_SHARE_READ,
                         FILE_SUPERSEDE, 0x8068, FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM, length);
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  const LONGLONG firstLcn = model_->ExtentsOf(u"\\track.bin").at(0).Lcn;
  // What the clusters held before is what the file holds once its valid data length says so.
  const std::vector<unsigned char> raw = Pattern(6 * kCluster, 9);
  {
    KEVENT done;
    KeInitializeEvent(&done, NotificationEvent, FALSE);
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER at;
    at.QuadPart = firstLcn * kCluster;
    PIRP irp = IoBuildSynchronousFsdRequest(IRP_MJ_WRITE, disk_, const_cast<unsigned char*>(raw.data()),
                                            static_cast<ULONG>(raw.size()), &at, &done, &iosb);
    ASSERT_NE(irp, nullptr);
    IoCallDriver(disk_, irp);
    ASSERT_EQ(iosb.Status, STATUS_SUCCESS);
  }
  FILE_END_OF_FILE_INFORMATION endOfFile{};
  endOfFile.EndOfFile.QuadPart = length;
  ASSERT_EQ(Set(file.File.get(), endOfFile, FileEndOfFileInformation), STATUS_SUCCESS);
  EXPECT_EQ(Standard(file.File.get()).EndOfFile.QuadPart, length);
  EXPECT_EQ(Standard(file.File.get()).AllocationSize.QuadPart, 6 * kCluster);
  EXPECT_EQ(model_->ExtentsOf(u"\\track.bin").size(), 1u) << "sizing within the allocation adds no run";
  EXPECT_TRUE(Read(file.File.get(), kCluster, 0) == std::vector<unsigned char>(kCluster, 0))
      << "before the valid data length moves, the file reads as zeros";

  FILE_VALID_DATA_LENGTH_INFORMATION valid{};
  valid.ValidDataLength.QuadPart = length;
  ASSERT_EQ(Set(file.File.get(), valid, FileValidDataLengthInformation), STATUS_SUCCESS);
  EXPECT_TRUE(Read(file.File.get(), 5 * kCluster, 0) ==
              std::vector<unsigned char>(raw.begin(), raw.begin() + 5 * kCluster));
  valid.ValidDataLength.QuadPart = length - 1;
  EXPECT_EQ(Set(file.File.get(), valid, FileValidDataLengthInformation), STATUS_INVALID_PARAMETER)
      << "the valid data length does not go back";
  valid.ValidDataLength.QuadPart = length + 1;
  EXPECT_EQ(Set(file.File.get(), valid, FileValidDataLengthInformation), STATUS_INVALID_PARAMETER)
      << "nor past the end of file";

  // Shrinking the end of file frees the clusters beyond it; the allocation can be given back.
  endOfFile.EndOfFile.QuadPart = kCluster;
  ASSERT_EQ(Set(file.File.get(), endOfFile, FileEndOfFileInformation), STATUS_SUCCESS);
  EXPECT_EQ(Standard(file.File.get()).AllocationSize.QuadPart, kCluster);
  FILE_ALLOCATION_INFORMATION allocation{};
  allocation.AllocationSize.QuadPart = 0;
  ASSERT_EQ(Set(file.File.get(), allocation, FileAllocationInformation), STATUS_SUCCESS);
  EXPECT_EQ(Standard(file.File.get()).EndOfFile.QuadPart, 0);

  NTSTATUS status;
  Read(file.File.get(), 512, 0, &status);
  EXPECT_EQ(status, STATUS_END_OF_FILE);
}

TEST_F(FileInformation, SynchronousFilesKeepTheirPositionAndUnbufferedFilesTakeWholeSectors) {
  OpenResult file = Open(u"\\??\\D:\\log.bin", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_SHARE_READ,
                         FILE_OPEN_IF, FILE_NON_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT);
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  IO_STATUS_BLOCK iosb{};
  std::vector<unsigned char> first = Pattern(300, 1), second = Pattern(200, 2);
  ASSERT_EQ(ZwWriteFile(file.File.get(), nullptr, nullptr, nullptr, &iosb, first.data(), 300, nullptr, nullptr),
            STATUS_SUCCESS);
  ASSERT_EQ(ZwWriteFile(file.File.get(), nullptr, nullptr, nullptr, &iosb, second.data(), 200, nullptr, nullptr),
            STATUS_SUCCESS);
  FILE_POSITION_INFORMATION position{};
  ASSERT_EQ(QueryInformation(file.File.get(), &position, FilePositionInformation), STATUS_SUCCESS);
  EXPECT_EQ(position.CurrentByteOffset.QuadPart, 500);
  const std::vector<unsigned char> back = Read(file.File.get(), 500, 0);
  ASSERT_EQ(back.size(), 500u);
  EXPECT_TRUE(std::equal(second.begin(), second.end(), back.begin() + 300)) << "the second write followed the first";

  // Part of a sector through a file opened without intermediate buffering is refused.
  OpenResult unbuffered = Open(u"\\??\\D:\\raw.bin", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, FILE_SHARE_READ,
                               FILE_OPEN_IF, 0x68);
  ASSERT_EQ(unbuffered.Status, STATUS_SUCCESS);
  EXPECT_EQ(Write(unbuffered.File.get(), Pattern(100, 3), 0), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(Write(unbuffered.File.get(), Pattern(512, 3), 100), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(Write(unbuffered.File.get(), Pattern(1024, 3), 512), STATUS_SUCCESS);
  EXPECT_TRUE(Read(unbuffered.File.get(), 512, 0) == std::vector<unsigned char>(512, 0))
      << "the bytes before a write past the valid data length are zeros";
}

TEST_F(FileInformation, DeletionWaitsForTheLastHandleAndKeepsNewOpensOut) {
  OpenResult file = Open(u"\\??\\D:\\gone.bin", GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE);
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  ASSERT_EQ(Write(file.File.get(), Pattern(3 * kCluster, 4), 0), STATUS_SUCCESS);
  const uint64_t freeBefore = model_->FreeClusters();
  OpenResult other = Open(u"\\??\\D:\\gone.bin", GENERIC_READ | SYNCHRONIZE,
                          FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN);
  ASSERT_EQ(other.Status, STATUS_SUCCESS);

  FILE_DISPOSITION_INFORMATION disposition{TRUE};
  ASSERT_EQ(Set(file.File.get(), disposition, FileDispositionInformation), STATUS_SUCCESS)
      << "a kernel caller's handle is not checked for DELETE";
  EXPECT_TRUE(Standard(other.File.get()).DeletePending);
  EXPECT_EQ(Open(u"\\??\\D:\\gone.bin", FILE_READ_ATTRIBUTES, FILE_SHARE_READ, FILE_OPEN, 0).Status,
            STATUS_DELETE_PENDING);
  file.File.Close();
  EXPECT_TRUE(model_->Find(u"\\gone.bin").has_value()) << "another handle is still open";
  other.File.Close();
  EXPECT_FALSE(model_->Find(u"\\gone.bin").has_value());
  EXPECT_EQ(model_->FreeClusters(), freeBefore + 3);

  // Delete on close, and a directory that is not empty.
  ASSERT_EQ(Open(u"\\??\\D:\\dir", FILE_LIST_DIRECTORY | SYNCHRONIZE, 0, FILE_CREATE, FILE_DIRECTORY_FILE).Status,
            STATUS_SUCCESS);
  ASSERT_EQ(Open(u"\\??\\D:\\dir\\child.bin").Status, STATUS_SUCCESS);
  EXPECT_EQ(Open(u"\\??\\D:\\dir", DELETE | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN, FILE_DELETE_ON_CLOSE).Status,
            STATUS_DIRECTORY_NOT_EMPTY);
  Text child(u"\\??\\D:\\dir\\child.bin");
  OBJECT_ATTRIBUTES oa;
  InitializeObjectAttributes(&oa, child.get(), OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
  ASSERT_EQ(ZwDeleteFile(&oa), STATUS_SUCCESS);
  EXPECT_EQ(Open(u"\\??\\D:\\dir", DELETE | SYNCHRONIZE, FILE_SHARE_READ, FILE_OPEN, FILE_DELETE_ON_CLOSE).Status,
            STATUS_SUCCESS);
  EXPECT_FALSE(model_->Find(u"\\dir").has_value());
}

TEST_F(FileInformation, VolumeInformationDescribesTheModelVolume) {
  OpenResult file = Open(u"\\??\\D:\\x.bin");
  ASSERT_EQ(file.Status, STATUS_SUCCESS);
  IO_STATUS_BLOCK iosb{};
  FILE_FS_SIZE_INFORMATION size{};
  ASSERT_EQ(ZwQueryVolumeInformationFile(file.File.get(), &iosb, &size, sizeof size, FileFsSizeInformation),
            STATUS_SUCCESS);
  EXPECT_EQ(size.SectorsPerAllocationUnit * size.BytesPerSector, kCluster);
  EXPECT_EQ(size.TotalAllocationUnits.QuadPart, kVolumeBytes / kCluster);
  EXPECT_LT(size.AvailableAllocationUnits.QuadPart, size.TotalAllocationUnits.QuadPart);

  // A name that does not fit: what fits, and the overflow.
  unsigned char buffer[sizeof(FILE_FS_ATTRIBUTE_INFORMATION) + 4] = {};
  EXPECT_EQ(ZwQueryVolumeInformationFile(file.File.get(), &iosb, buffer, sizeof buffer, FileFsAttributeInformation),
            STATUS_BUFFER_OVERFLOW);
  auto* attribute = reinterpret_cast<PFILE_FS_ATTRIBUTE_INFORMATION>(buffer);
  EXPECT_EQ(attribute->FileSystemNameLength, 14u) << "KVMODEL";
  EXPECT_EQ(iosb.Information, sizeof buffer);
  EXPECT_EQ(ZwQueryVolumeInformationFile(file.File.get(), &iosb, buffer, 8, FileFsAttributeInformation),
            STATUS_INFO_LENGTH_MISMATCH);

  unsigned char volume[64] = {};
  ASSERT_EQ(ZwQueryVolumeInformationFile(file.File.get(), &iosb, volume, sizeof volume, FileFsVolumeInformation),
            STATUS_SUCCESS);
  auto* info = reinterpret_cast<PFILE_FS_VOLUME_INFORMATION>(volume);
  EXPECT_EQ(std::u16string(reinterpret_cast<char16_t*>(info->VolumeLabel), info->VolumeLabelLength / 2), u"Data");
  FILE_FS_DEVICE_INFORMATION device{};
  ASSERT_EQ(ZwQueryVolumeInformationFile(file.File.get(), &iosb, &device, sizeof device, FileFsDeviceInformation),
            STATUS_SUCCESS);
  EXPECT_EQ(device.DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_DISK));
  EXPECT_TRUE(device.Characteristics & FILE_DEVICE_IS_MOUNTED);
}

// A descriptor with an owner and a one-ACE DACL, built by hand in absolute form.
struct Descriptor {
  explicit Descriptor(ULONG rid, ACCESS_MASK mask) {
    owner = {SID_REVISION, 1, {{0, 0, 0, 0, 0, 5}}, {32}};
    ace = {0, 0, static_cast<USHORT>(sizeof ace), mask, {SID_REVISION, 1, {{0, 0, 0, 0, 0, 5}}, {rid}}};
    acl = {ACL_REVISION, 0, static_cast<USHORT>(sizeof acl + sizeof ace), 1, 0};
    std::memcpy(aclBytes, &acl, sizeof acl);
    std::memcpy(aclBytes + sizeof acl, &ace, sizeof ace);
    sd = {SECURITY_DESCRIPTOR_REVISION, 0, SE_DACL_PRESENT, &owner, nullptr, nullptr,
          reinterpret_cast<PACL>(aclBytes)};
  }
  struct Ace {
    UCHAR Type, Flags;
    USHORT Size;
    ACCESS_MASK Mask;
    SID Sid;
  };
  SID owner;
  Ace ace;
  ACL acl;
  alignas(4) unsigned char aclBytes[sizeof(ACL) + sizeof(Ace)];
  SECURITY_DESCRIPTOR sd;
};

TEST_F(FileInformation, SecurityDescriptorsAreKeptAndTheirPartsReplacedOneByOne) {
  Descriptor created(18, FILE_ALL_ACCESS);
  OpenResult directory = Open(u"\\??\\D:\\System Volume Information", WRITE_DAC | WRITE_OWNER | READ_CONTROL | SYNCHRONIZE,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_OPEN_IF, 0x21,
                              FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM, 0, &created.sd);
  ASSERT_EQ(directory.Status, STATUS_SUCCESS);

  Descriptor applied(32, DELETE);
  ASSERT_EQ(ZwSetSecurityObject(directory.File.get(), DACL_SECURITY_INFORMATION, &applied.sd), STATUS_SUCCESS);

  ULONG needed = 0;
  EXPECT_EQ(ZwQuerySecurityObject(directory.File.get(), OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                  nullptr, 0, &needed),
            STATUS_BUFFER_TOO_SMALL);
  std::vector<unsigned char> answer(needed);
  ASSERT_EQ(ZwQuerySecurityObject(directory.File.get(), OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                  answer.data(), needed, &needed),
            STATUS_SUCCESS);
  kvhost::SecurityParts parts;
  ASSERT_TRUE(kvhost::ParseSecurityDescriptor(answer.data(), answer.size(), &parts));
  EXPECT_EQ(parts.Owner.size(), 12u) << "the owner given at creation stays";
  ASSERT_EQ(parts.Dacl.size(), sizeof(ACL) + sizeof(Descriptor::Ace));
  ACCESS_MASK mask;
  std::memcpy(&mask, parts.Dacl.data() + sizeof(ACL) + 4, sizeof mask);
  EXPECT_EQ(mask, static_cast<ACCESS_MASK>(DELETE)) << "the DACL is the one applied";
  EXPECT_TRUE(parts.Control & SE_DACL_PRESENT);

  SECURITY_DESCRIPTOR broken = applied.sd;
  broken.Revision = 2;
  EXPECT_EQ(ZwSetSecurityObject(directory.File.get(), DACL_SECURITY_INFORMATION, &broken), STATUS_INVALID_SECURITY_DESCR);
}

}  // namespace
