// The volume device at the bottom of each stack, reached through the test filter: what it
// refuses, its knobs, and its answers to the control codes a filter sends below itself.
#include <devguid.h>
#include <diskguid.h>
#include <mountdev.h>
#include <ntdddisk.h>
#include <ntddstor.h>
#include <ntddvol.h>

#include <cstring>
#include <thread>

#include "kvhost/io.h"
#include "testbed_support.h"

namespace kvtestbed::testing {
namespace {

template <typename T>
T As(const IoResult& r) {
  T value{};
  EXPECT_GE(r.Data.size(), sizeof(T));
  std::memcpy(&value, r.Data.data(), std::min(r.Data.size(), sizeof(T)));
  return value;
}

std::vector<uint8_t> PropertyQuery(STORAGE_PROPERTY_ID id, STORAGE_QUERY_TYPE type = PropertyStandardQuery) {
  STORAGE_PROPERTY_QUERY query{};
  query.PropertyId = id;
  query.QueryType = type;
  std::vector<uint8_t> bytes(sizeof query);
  std::memcpy(bytes.data(), &query, sizeof query);
  return bytes;
}

class VolumeDevice : public ::testing::Test {
 protected:
  Volume* Boot(VolumeConfig config) {
    Volume* v = machine_.AddVolume(std::move(config));
    EXPECT_NE(v, nullptr);
    EXPECT_EQ(machine_.Boot(), STATUS_SUCCESS);
    return v;
  }
  NTSTATUS WriteAt(Volume& v, uint64_t offset, size_t bytes) { return machine_.Write(v, offset, Pattern(bytes, 9)).Status; }
  NTSTATUS ReadAt(Volume& v, uint64_t offset, uint32_t bytes) { return machine_.Read(v, offset, bytes).Status; }

  Machine machine_;
};

TEST_F(VolumeDevice, RefusesTransfersAVolumeRefuses) {
  VolumeConfig config = LetteredVolume(u'C', 1 << 20);
  config.SectorSize = 4096;
  Volume& v = *Boot(config);
  EXPECT_EQ(WriteAt(v, 4096, 8192), STATUS_SUCCESS);
  EXPECT_EQ(WriteAt(v, 512, 4096), STATUS_INVALID_PARAMETER) << "offset not on a 4096-byte sector";
  EXPECT_EQ(WriteAt(v, 0, 512), STATUS_INVALID_PARAMETER) << "length not whole sectors";
  EXPECT_EQ(WriteAt(v, (1 << 20) - 4096, 8192), STATUS_INVALID_PARAMETER) << "reaches past the end";
  EXPECT_EQ(ReadAt(v, 1 << 20, 4096), STATUS_INVALID_PARAMETER) << "starts at the end";
  EXPECT_EQ(ReadAt(v, (1 << 20) - 4096, 4096), STATUS_SUCCESS) << "the last sector";
  ASSERT_EQ(machine_.Offline(v), STATUS_SUCCESS);
  EXPECT_EQ(ReadAt(v, 0, 4096), STATUS_DEVICE_OFF_LINE);
  ASSERT_EQ(machine_.Online(v), STATUS_SUCCESS);

  // Only what reached the disk is recorded.
  ASSERT_EQ(v.Writes().size(), 1u);
  EXPECT_EQ(v.Writes()[0].Offset, 4096u);
  EXPECT_EQ(v.Writes()[0].Length, 8192u);
  EXPECT_EQ(v.Counters().Refused, 5u);
}

TEST_F(VolumeDevice, KnobsMakeTheDiskRefuseFailCancelAndLock) {
  Volume& v = *Boot(LetteredVolume(u'C'));
  v.SetWriteProtected(true);
  EXPECT_EQ(WriteAt(v, 0, 512), STATUS_MEDIA_WRITE_PROTECTED);
  EXPECT_EQ(ReadAt(v, 0, 512), STATUS_SUCCESS);
  EXPECT_EQ(machine_.Control(v, IOCTL_DISK_IS_WRITABLE).Status, STATUS_MEDIA_WRITE_PROTECTED);
  v.SetWriteProtected(false);
  EXPECT_EQ(machine_.Control(v, IOCTL_DISK_IS_WRITABLE).Status, STATUS_SUCCESS);

  v.FailTransfers(STATUS_IO_DEVICE_ERROR, 2, TransferKind::Writes);
  EXPECT_EQ(ReadAt(v, 0, 512), STATUS_SUCCESS) << "reads are not counted";
  EXPECT_EQ(WriteAt(v, 0, 512), STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(WriteAt(v, 0, 512), STATUS_IO_DEVICE_ERROR);
  EXPECT_EQ(WriteAt(v, 0, 512), STATUS_SUCCESS);

  v.CancelTransfers(1);
  EXPECT_EQ(ReadAt(v, 0, 512), STATUS_CANCELLED);
  EXPECT_EQ(ReadAt(v, 0, 512), STATUS_SUCCESS);

  v.SetBitLockerLocked(true);
  EXPECT_EQ(ReadAt(v, 0, 512), STATUS_FVE_LOCKED_VOLUME);
  v.SetBitLockerLocked(false);
  EXPECT_EQ(ReadAt(v, 0, 512), STATUS_SUCCESS);
}

TEST_F(VolumeDevice, CompletesFromTheStorageThreadAtDispatchLevel) {
  VolumeConfig config = LetteredVolume(u'C');
  config.CompleteFromThread = true;
  Volume& v = *Boot(config);
  std::thread::id completer;
  KIRQL irql = PASSIVE_LEVEL;
  kvhost::IoSetCompletionObserver([&](const kvhost::IrpCompletion& c) {
    if (c.MajorFunction != IRP_MJ_WRITE) return;
    completer = std::this_thread::get_id();
    irql = KeGetCurrentIrql();
  });
  EXPECT_EQ(WriteAt(v, 0, 4096), STATUS_SUCCESS);
  EXPECT_NE(completer, std::this_thread::get_id());
  EXPECT_EQ(irql, DISPATCH_LEVEL);
  EXPECT_EQ(v.ReadDirect(0, 4096), Pattern(4096, 9));
}

TEST_F(VolumeDevice, AnswersGeometryLengthAndPartitionAsAVolume) {
  VolumeConfig config = LetteredVolume(u'C', 1ull << 30);
  config.SectorSize = 4096;
  config.Partition = PartitionKind::Recovery;
  config.GptAttributes = GPT_ATTRIBUTE_PLATFORM_REQUIRED;
  Volume& v = *Boot(config);
  auto geometry = As<DISK_GEOMETRY>(machine_.Control(v, IOCTL_DISK_GET_DRIVE_GEOMETRY, {}, sizeof(DISK_GEOMETRY)));
  EXPECT_EQ(geometry.BytesPerSector, 4096u);
  EXPECT_EQ(geometry.MediaType, FixedMedia);
  EXPECT_EQ(machine_.Control(v, IOCTL_DISK_GET_DRIVE_GEOMETRY, {}, 8).Status, STATUS_BUFFER_TOO_SMALL);

  auto partition =
      As<PARTITION_INFORMATION_EX>(machine_.Control(v, IOCTL_DISK_GET_PARTITION_INFO_EX, {}, sizeof(PARTITION_INFORMATION_EX)));
  EXPECT_EQ(partition.PartitionStyle, PARTITION_STYLE_GPT);
  EXPECT_EQ(partition.PartitionLength.QuadPart, 1ll << 30);
  EXPECT_EQ(partition.Gpt.PartitionType, PARTITION_MSFT_RECOVERY_GUID);
  EXPECT_EQ(partition.Gpt.Attributes, GPT_ATTRIBUTE_PLATFORM_REQUIRED);
  auto attributes = As<VOLUME_GET_GPT_ATTRIBUTES_INFORMATION>(
      machine_.Control(v, IOCTL_VOLUME_GET_GPT_ATTRIBUTES, {}, sizeof(VOLUME_GET_GPT_ATTRIBUTES_INFORMATION)));
  EXPECT_EQ(attributes.GptAttributes, GPT_ATTRIBUTE_PLATFORM_REQUIRED);
  EXPECT_EQ(machine_.Control(v, 0x00070001).Status, STATUS_INVALID_DEVICE_REQUEST) << "not a volume's control code";
}

TEST_F(VolumeDevice, PartitionTypesOfMbrAndGptDisks) {
  VolumeConfig recovery = LetteredVolume(u'R');
  recovery.PartitionStyle = PARTITION_STYLE_MBR;
  recovery.Partition = PartitionKind::Recovery;
  VolumeConfig reserved = LetteredVolume(u'S');
  reserved.Partition = PartitionKind::Reserved;
  Volume* r = machine_.AddVolume(recovery);
  Volume* s = machine_.AddVolume(reserved);
  recovery.Partition = PartitionKind::Reserved;
  recovery.Name = "mbr-reserved";
  std::string error;
  EXPECT_EQ(machine_.AddVolume(recovery, &error), nullptr);
  EXPECT_NE(error.find("GPT"), std::string::npos) << error;
  ASSERT_EQ(machine_.Boot(), STATUS_SUCCESS);
  const ULONG size = sizeof(PARTITION_INFORMATION_EX);
  auto mbr = As<PARTITION_INFORMATION_EX>(machine_.Control(*r, IOCTL_DISK_GET_PARTITION_INFO_EX, {}, size));
  EXPECT_EQ(mbr.PartitionStyle, PARTITION_STYLE_MBR);
  EXPECT_EQ(mbr.Mbr.PartitionType, PARTITION_MSFT_RECOVERY);
  auto gpt = As<PARTITION_INFORMATION_EX>(machine_.Control(*s, IOCTL_DISK_GET_PARTITION_INFO_EX, {}, size));
  EXPECT_EQ(gpt.Gpt.PartitionType, PARTITION_MSFT_RESERVED_GUID);
}

TEST_F(VolumeDevice, StoragePropertiesGiveIdentityAndBus) {
  VolumeConfig xvddConfig = LetteredVolume(u'X');
  xvddConfig.Vendor = kVirtualDiskVendor;
  xvddConfig.Product = kXvddProduct;
  xvddConfig.DeviceType = FILE_DEVICE_VIRTUAL_DISK;
  Volume& xvdd = *machine_.AddVolume(xvddConfig);
  VolumeConfig config = LetteredVolume(u'V');
  config.Vendor = kVirtualDiskVendor;
  config.Product = kVirtualDiskProduct;
  config.Bus = BusTypeUsb;
  config.RemovableMedia = true;
  Volume& v = *Boot(config);
  EXPECT_TRUE(v.Device()->Characteristics & FILE_REMOVABLE_MEDIA);
  EXPECT_EQ(v.Device()->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_DISK));

  // A volume of a virtual disk says so by its device type, which a filter above it takes
  // on, and by its disk's identity.
  EXPECT_EQ(xvdd.Device()->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_VIRTUAL_DISK));
  PDEVICE_OBJECT top = IoGetAttachedDeviceReference(xvdd.Device());
  EXPECT_NE(top, xvdd.Device());
  EXPECT_EQ(top->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_VIRTUAL_DISK));
  ObDereferenceObject(top);
  IoResult identity = machine_.Control(xvdd, IOCTL_STORAGE_QUERY_PROPERTY, PropertyQuery(StorageDeviceProperty), 512);
  ASSERT_EQ(identity.Status, STATUS_SUCCESS);
  const auto x = As<STORAGE_DEVICE_DESCRIPTOR>(identity);
  EXPECT_STREQ(reinterpret_cast<const char*>(identity.Data.data() + x.VendorIdOffset), "Msft");
  EXPECT_STREQ(reinterpret_cast<const char*>(identity.Data.data() + x.ProductIdOffset), "XVDD");
  EXPECT_EQ(x.BusType, BusTypeNvme);

  // The header alone tells the size of the whole descriptor.
  IoResult header = machine_.Control(v, IOCTL_STORAGE_QUERY_PROPERTY, PropertyQuery(StorageDeviceProperty), 8);
  ASSERT_EQ(header.Status, STATUS_SUCCESS);
  const auto h = As<STORAGE_DESCRIPTOR_HEADER>(header);
  EXPECT_EQ(h.Version, sizeof(STORAGE_DEVICE_DESCRIPTOR));
  ASSERT_GT(h.Size, sizeof(STORAGE_DEVICE_DESCRIPTOR));
  IoResult device = machine_.Control(v, IOCTL_STORAGE_QUERY_PROPERTY, PropertyQuery(StorageDeviceProperty), h.Size);
  ASSERT_EQ(device.Status, STATUS_SUCCESS);
  ASSERT_EQ(device.Data.size(), h.Size);
  const auto d = As<STORAGE_DEVICE_DESCRIPTOR>(device);
  EXPECT_STREQ(reinterpret_cast<const char*>(device.Data.data() + d.VendorIdOffset), "Msft");
  EXPECT_STREQ(reinterpret_cast<const char*>(device.Data.data() + d.ProductIdOffset), "Virtual Disk");
  EXPECT_TRUE(d.RemovableMedia);
  EXPECT_EQ(d.BusType, BusTypeUsb);

  IoResult adapter = machine_.Control(v, IOCTL_STORAGE_QUERY_PROPERTY, PropertyQuery(StorageAdapterProperty), 32);
  ASSERT_EQ(adapter.Status, STATUS_SUCCESS);
  EXPECT_EQ(As<STORAGE_ADAPTER_DESCRIPTOR>(adapter).BusType, BusTypeUsb);
  EXPECT_EQ(machine_.Control(v, IOCTL_STORAGE_QUERY_PROPERTY, PropertyQuery(StorageDeviceSeekPenaltyProperty), 32).Status,
            STATUS_NOT_SUPPORTED);
  EXPECT_EQ(machine_.Control(v, IOCTL_STORAGE_QUERY_PROPERTY, {}, 32).Status, STATUS_INVALID_PARAMETER) << "no query";
}

TEST_F(VolumeDevice, DeviceNameFollowsTheMountManagersProtocol) {
  Volume& v = *Boot(LetteredVolume(u'C'));
  IoResult small = machine_.Control(v, IOCTL_MOUNTDEV_QUERY_DEVICE_NAME, {}, sizeof(MOUNTDEV_NAME));
  EXPECT_EQ(small.Status, STATUS_BUFFER_OVERFLOW);
  const USHORT length = As<MOUNTDEV_NAME>(small).NameLength;
  EXPECT_EQ(length, v.DeviceName().size() * 2);
  IoResult full = machine_.Control(v, IOCTL_MOUNTDEV_QUERY_DEVICE_NAME, {}, sizeof(USHORT) + length);
  ASSERT_EQ(full.Status, STATUS_SUCCESS);
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(full.Data.data() + 2), length / 2), v.DeviceName());
  EXPECT_EQ(machine_.Control(v, IOCTL_MOUNTDEV_QUERY_DEVICE_NAME, {}, 1).Status, STATUS_INVALID_PARAMETER);
}

TEST_F(VolumeDevice, ATwoTerabyteVolumeCostsOnlyWhatIsWritten) {
  VolumeConfig config = LetteredVolume(u'T', 2ull << 40);
  config.SectorSize = 4096;
  Volume& v = *Boot(config);
  ASSERT_EQ(WriteAt(v, (2ull << 40) - 4096, 4096), STATUS_SUCCESS);
  ASSERT_EQ(WriteAt(v, 0, 4096), STATUS_SUCCESS);
  EXPECT_LE(v.BytesAllocated(), 2u * 64 * 1024);
  IoResult read = machine_.Read(v, 1ull << 40, 8192);
  ASSERT_EQ(read.Status, STATUS_SUCCESS);
  EXPECT_EQ(read.Data, std::vector<uint8_t>(8192, 0)) << "never written: zeros";
}

TEST_F(VolumeDevice, AShadowCopyKeepsTheVolumeAsItWasWhenTaken) {
  Volume& c = *Boot(LetteredVolume(u'C'));
  ASSERT_EQ(machine_.Write(c, 0, Pattern(131072, 1)).Status, STATUS_SUCCESS);
  Volume& snapshot = *machine_.AddShadowCopy(c);
  EXPECT_EQ(machine_.AddShadowCopy(snapshot), nullptr) << "no shadow copy of a shadow copy";
  ASSERT_EQ(machine_.Write(c, 65536, Pattern(512, 2)).Status, STATUS_SUCCESS);
  IoResult old = machine_.Read(snapshot, 0, 131072);
  EXPECT_EQ(old.Status, STATUS_SUCCESS);
  EXPECT_EQ(old.Data, Pattern(131072, 1));
  EXPECT_EQ(machine_.Read(c, 65536, 512).Data, Pattern(512, 2));
  EXPECT_LE(snapshot.BytesAllocated(), 64u * 1024) << "only the chunk that changed is kept";
}

}  // namespace
}  // namespace kvtestbed::testing
