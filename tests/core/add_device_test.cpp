// Attaching to volumes: which devices get a filter, the filter's starting state, volume
// numbers from device names, and add-device under memory pressure.
#include <string>
#include <vector>

#include "cbt_driver_fixture.h"
#include "driver/cbt_add_device.h"
#include "driver/cbt_removal_protection.h"
#include "kvhost/clock.h"
#include "kvhost/io.h"
#include "kvhost/object.h"
#include "kvhost/pool.h"
#include "kvhost/registry.h"
#include "kvhost/workqueue.h"

namespace kvtest {
namespace {

std::u16string NameOf(const CBT_DEVICE_EXTENSION* extension) {
  const UNICODE_STRING& name = extension->DeviceName->Name;
  return std::u16string(reinterpret_cast<const char16_t*>(name.Buffer), name.Length / sizeof(WCHAR));
}

// 2023-11-14 22:13:20 UTC.
constexpr long long kNow = 1700000000;
constexpr ULONG kSessionIdNow = static_cast<ULONG>(kNow + 11644473600LL) - 0x01409D00u;

TEST_F(CbtDriverTest, AFixedVolumeGetsAnAttachedFilterInItsStartingState) {
  kvhost::SetSystemTime(kvhost::SystemTimeFromUnixSeconds(kNow));
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  DropRecords();
  VolumeSpec spec = FixedVolume(12);
  spec.Flags = DO_DIRECT_IO | DO_POWER_PAGABLE | DO_POWER_INRUSH;
  spec.Characteristics = FILE_DEVICE_SECURE_OPEN;
  spec.SectorSize = 4096;
  Volume& volume = AddVolume(spec);
  ASSERT_NE(volume.Filter, nullptr);

  PDEVICE_OBJECT filter = volume.Filter;
  EXPECT_EQ(filter->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_DISK));
  EXPECT_EQ(filter->Characteristics, ULONG{FILE_DEVICE_SECURE_OPEN});
  EXPECT_EQ(filter->SectorSize, 4096);
  EXPECT_EQ(filter->Flags & (DO_DIRECT_IO | DO_POWER_PAGABLE | DO_POWER_INRUSH | DO_DEVICE_INITIALIZING),
            ULONG{DO_DIRECT_IO | DO_POWER_PAGABLE | DO_POWER_INRUSH});
  EXPECT_TRUE(filter->Flags & DO_SHUTDOWN_REGISTERED);

  const CBT_DEVICE_EXTENSION* e = volume.Extension();
  EXPECT_EQ(e->DeviceObject, filter);
  EXPECT_EQ(e->PhysicalDeviceObject, volume.Pdo);
  EXPECT_EQ(e->LowerDeviceObject, volume.Pdo);
  EXPECT_EQ(e->DriverExtension->DriverObject, Driver());
  EXPECT_EQ(NameOf(e), u"\\Device\\HarddiskVolume12");
  EXPECT_EQ(e->VolumeNumber, 12u);
  EXPECT_EQ(e->DriveLetter, u'?');
  EXPECT_EQ(e->Flags, ULONG{CBT_FLAG_TRACKING_VALID});
  EXPECT_EQ(e->GptAttributes, 0u);
  EXPECT_EQ(e->SessionId, kSessionIdNow);
  EXPECT_EQ(e->RemovalState, CbtRemovalActive);
  EXPECT_NE(e->RundownProtection, nullptr);
  EXPECT_EQ(e->FileSystemType, ULONG{CBT_FILE_SYSTEM_NONE});
  EXPECT_EQ(e->TrackingBitmap.Buffer, nullptr);
  EXPECT_EQ(e->TrackingBitmap.SizeOfBitMap, 0u);
  EXPECT_TRUE(IsListEmpty(&e->HeldWriteList));
  EXPECT_EQ(e->VolumeGuidName.Length, 0);
  EXPECT_EQ(e->VolumeGuidName.Buffer, e->VolumeGuidNameBuffer);
  EXPECT_GE(e->VolumeGuidName.MaximumLength, 98) << "room for a volume GUID link and its separator";
  PCBT_DEVICE_EXTENSION mutableExtension = volume.Extension();
  EXPECT_EQ(KeReadStateEvent(&mutableExtension->FileSystemMutex), 1) << "the file-system mutex starts free";
  EXPECT_EQ(KeReadStateSemaphore(&mutableExtension->VolumeSemaphore), 1);
  EXPECT_EQ(KeReadStateSemaphore(&mutableExtension->TrackingFileSemaphore), 1);

  std::vector<CBT_LOG_RECORD_BODY> records = Records();
  ASSERT_GE(records.size(), 1u);
  EXPECT_STREQ(records[0].Text, "CbtAddDevice");
  EXPECT_EQ(+records[0].VolumeNumber, 12u);
  EXPECT_EQ(+records[0].DeviceFlags, 0u);
}

TEST_F(CbtDriverTest, AShadowCopyIsMarkedAsOneWithItsGptAttributes) {
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  DropRecords();
  Volume& copy = AddVolume(ShadowCopy(7));
  ASSERT_NE(copy.Filter, nullptr);
  EXPECT_EQ(copy.Filter->DeviceType, static_cast<DEVICE_TYPE>(FILE_DEVICE_VIRTUAL_DISK));
  EXPECT_EQ(copy.Extension()->Flags, ULONG{CBT_FLAG_SNAPSHOT_DEVICE | CBT_FLAG_TRACKING_VALID});
  EXPECT_EQ(copy.Extension()->GptAttributes, 0x3000000000000000ull);
  EXPECT_EQ(copy.Extension()->VolumeNumber, 7u);
  EXPECT_EQ(+Records()[0].DeviceFlags, ULONG{CBT_FLAG_SNAPSHOT_DEVICE});
}

struct DeclinedCase {
  const char* Name;
  VolumeSpec Spec;
  ULONG Flags;  // of the records
  ULONG VolumeNumber;
  NTSTATUS Status;
  unsigned FailedNameQuery = 0;  // the call of the name query that fails with Status, 0 for none
};

class DeclinedTest : public CbtDriverTest, public testing::WithParamInterface<DeclinedCase> {};

// The device gets no filter and its stack starts regardless; the reason is recorded and
// nothing obtained on the way stays allocated.
TEST_P(DeclinedTest, GetsNoFilter) {
  const DeclinedCase& c = GetParam();
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  DropRecords();
  if (c.FailedNameQuery != 0) kvhost::ObFailNameQuery(c.FailedNameQuery, c.Status);
  Volume& volume = AddVolume(c.Spec);
  EXPECT_EQ(volume.Filter, nullptr);
  EXPECT_EQ(volume.Pdo->AttachedDevice, nullptr);
  EXPECT_EQ(volume.Lower->PnpMinors, std::vector<UCHAR>{IRP_MN_START_DEVICE});
  std::vector<CBT_LOG_RECORD_BODY> records = Records();
  ASSERT_FALSE(records.empty());
  EXPECT_STREQ(records.front().Text, "CbtAddDevice");
  EXPECT_EQ(+records.front().Status, static_cast<ULONG>(c.Status));
  EXPECT_EQ(+records.front().DeviceFlags, c.Flags);
  EXPECT_EQ(+records.front().VolumeNumber, c.VolumeNumber);
}

VolumeSpec WithClass(VolumeSpec spec, const GUID* cls, DEVICE_TYPE type) {
  spec.ClassGuid = cls;
  spec.DeviceType = type;
  return spec;
}

INSTANTIATE_TEST_SUITE_P(
    Devices, DeclinedTest,
    testing::Values(
        DeclinedCase{"RemovableVolume", RemovableVolume(4), 0, 0, STATUS_UNRECOGNIZED_VOLUME},
        DeclinedCase{"VolumeThatIsNotADisk", WithClass(FixedVolume(4), &VolumeClass(), FILE_DEVICE_CD_ROM), 0, 0,
                     STATUS_UNRECOGNIZED_VOLUME},
        DeclinedCase{"ShadowCopyThatIsNotAVirtualDisk", WithClass(ShadowCopy(2), &SnapshotClass(), FILE_DEVICE_DISK),
                     CBT_FLAG_SNAPSHOT_DEVICE, 0, STATUS_UNRECOGNIZED_VOLUME},
        DeclinedCase{"OtherClass", WithClass(FixedVolume(4), &OtherClass(), FILE_DEVICE_DISK), 0, 0, STATUS_SUCCESS},
        DeclinedCase{"NoClass", WithClass(FixedVolume(4), nullptr, FILE_DEVICE_DISK), 0, 0,
                     STATUS_OBJECT_NAME_NOT_FOUND},
        // The name query refused outright, and refused when the name grew between the query
        // of its size and its copy (the buffer obtained for it is freed again).
        DeclinedCase{"NameQueryRefused", FixedVolume(4), 0, 0, STATUS_ACCESS_DENIED, 1},
        DeclinedCase{"NameGrewBetweenQueries", FixedVolume(4), 0, 0, STATUS_INFO_LENGTH_MISMATCH, 2}),
    [](const testing::TestParamInfo<DeclinedCase>& info) { return std::string(info.param.Name); });

TEST_F(CbtDriverTest, FiltersCreatedInTheSameSecondShareTheirPeriodStamp) {
  kvhost::SetSystemTime(kvhost::SystemTimeFromUnixSeconds(kNow) + 9'000'000);  // 0.9 s into the second
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  Volume& first = AddVolume(FixedVolume(1));
  kvhost::AdvanceClock(500'000);  // 0.05 s: still the same second
  Volume& second = AddVolume(FixedVolume(2));
  kvhost::AdvanceClock(1'000'000);  // into the next second
  Volume& third = AddVolume(FixedVolume(3));
  EXPECT_EQ(first.Extension()->SessionId, kSessionIdNow);
  EXPECT_EQ(second.Extension()->SessionId, kSessionIdNow);
  EXPECT_EQ(third.Extension()->SessionId, kSessionIdNow + 1);
}

TEST(VolumeNameTest, TheNumberFollowsTheExactPrefix) {
  struct Case {
    std::u16string Name;
    ULONG Volume;
    ULONG ShadowCopy;
  };
  const Case cases[] = {
      {u"\\Device\\HarddiskVolume12", 12, 0},
      {u"\\Device\\HarddiskVolume", 0, 0},
      {u"\\Device\\HarddiskVolume1a", 0, 0},
      {u"\\device\\harddiskvolume3", 0, 0},
      {u"\\Device\\HarddiskVolum", 0, 0},
      {u"\\Device\\Harddisk0\\Partition1", 0, 0},
      {std::u16string(u"\\Device\\HarddiskVolume42\0junk", 29), 42, 0},
      {u"\\Device\\HarddiskVolumeShadowCopy5", 0, 5},
      {u"\\Device\\HarddiskVolumeShadowCopy", 0, 0},
      {u"\\Device\\HarddiskVolume4294967295", 4294967295u, 0},
  };
  for (const Case& c : cases) {
    UNICODE_STRING name = {static_cast<USHORT>(c.Name.size() * 2), static_cast<USHORT>(c.Name.size() * 2),
                           reinterpret_cast<PWCH>(const_cast<char16_t*>(c.Name.data()))};
    EXPECT_EQ(CbtParseVolumeNumber(&name), c.Volume) << kvhost::ToUtf8(c.Name);
    EXPECT_EQ(CbtParseShadowCopyNumber(&name), c.ShadowCopy) << kvhost::ToUtf8(c.Name);
  }
  EXPECT_EQ(CbtParseVolumeNumber(nullptr), 0u);
}

NTSTATUS KeepRequest(PDEVICE_OBJECT, PIRP, PVOID) { return STATUS_MORE_PROCESSING_REQUIRED; }

constexpr ULONG kCbtTag = CBT_POOL_TAG;
// The user-mode kernel's own allocations behind IoCreateDevice (the device object and its
// extension) and IoRegisterLastChanceShutdownNotification.
constexpr ULONG kDeviceTag = KV_POOL_TAG('D', 'e', 'v', 'o');
constexpr ULONG kShutdownTag = KV_POOL_TAG('I', 'o', 'S', 'd');

struct Expected {
  ULONG Status;
  ULONG Flags;
  ULONG VolumeNumber;
};

void ExpectAddDeviceRecords(const std::vector<CBT_LOG_RECORD_BODY>& records, const std::vector<Expected>& expected) {
  ASSERT_EQ(records.size(), expected.size());
  for (size_t i = 0; i < records.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "record " << i);
    EXPECT_STREQ(records[i].Text, "CbtAddDevice");
    EXPECT_EQ(+records[i].Status, expected[i].Status);
    EXPECT_EQ(+records[i].DeviceFlags, expected[i].Flags);
    EXPECT_EQ(+records[i].VolumeNumber, expected[i].VolumeNumber);
    EXPECT_EQ(+records[i].DriveLetter, u'?');
  }
}

// Each allocation of add-device, failed in turn, for a fixed volume and a shadow copy. What
// each failure leaves is what add-device promises: a failed name or class query is recorded
// where it happened and again at the exit, before the volume's kind is known, and creates
// nothing; a failed device creation is recorded after the announcement of the creation and
// creates nothing; without a rundown block or a shutdown registration the volume is still
// filtered in full (its removal then only does not wait, or it misses the last-chance
// shutdown). Add-device succeeds in every case, so the volume's stack always starts.
TEST_F(CbtDriverTest, EachAllocationOfAddDeviceCanFail) {
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  // Records come from the log's lookaside list; taking one counts as an allocation, so the
  // walk fails a record too: the record is dropped and nothing else changes.
  DropRecords();
  struct Case {
    VolumeSpec Spec;
    ULONG Flags;
    ULONG Number;
  };
  for (const Case& c : {Case{FixedVolume(3), 0, 3}, Case{ShadowCopy(2), CBT_FLAG_SNAPSHOT_DEVICE, 2}}) {
    SCOPED_TRACE(kvhost::ToUtf8(c.Spec.Name));
    TestVolume* lower = CreateTestVolume(volumeDriver_, c.Spec);
    ASSERT_NE(lower, nullptr);
    PDEVICE_OBJECT pdo = lower->Device;
    size_t filtered = 0;
    const unsigned long long walked = kvhost::ForEachAllocationFailure([&](unsigned long long k) {
      // The removal request is built first, so that only add-device meets the failure.
      PIRP remove = IoAllocateIrp(static_cast<CCHAR>(pdo->StackSize + 1), FALSE);
      if (remove == nullptr) return;
      kvhost::LogAllocations(true);
      EXPECT_EQ(Driver()->DriverExtension->AddDevice(Driver(), pdo), STATUS_SUCCESS) << k;
      kvhost::LogAllocations(false);

      // The failed attempt: add-device's own blocks come in the order name copy, class-GUID
      // text, rundown block.
      enum { kNone, kName, kClass, kDevice, kRundown, kShutdown, kRecord } failed = kNone;
      int own = 0;
      for (const kvhost::PoolBlockInfo& attempt : kvhost::TakeAllocationLog()) {
        if (attempt.Tag == kCbtTag) ++own;
        if (attempt.Address != nullptr) continue;
        if (attempt.Tag == kCbtTag)
          failed = own == 1 ? kName : own == 2 ? kClass : kRundown;
        else if (attempt.Tag == kDeviceTag)
          failed = kDevice;
        else if (attempt.Tag == kShutdownTag)
          failed = kShutdown;
        else if (attempt.Tag == CBT_LOG_POOL_TAG)
          failed = kRecord;
        else
          ADD_FAILURE() << "allocation " << k << " (" << kvhost::DescribeTag(attempt.Tag) << ") is not add-device's";
      }
      SCOPED_TRACE(testing::Message() << "allocation " << k << " failing (kind " << failed << ")");
      const std::vector<CBT_LOG_RECORD_BODY> records = Records();
      DropRecords();
      const ULONG nomem = static_cast<ULONG>(STATUS_INSUFFICIENT_RESOURCES);
      PDEVICE_OBJECT filter = pdo->AttachedDevice;
      if (failed == kName || failed == kClass || failed == kDevice) {
        EXPECT_EQ(filter, nullptr);
        if (failed == kDevice)
          ExpectAddDeviceRecords(records, {{0, c.Flags, c.Number}, {nomem, c.Flags, c.Number}, {nomem, c.Flags, c.Number}});
        else
          ExpectAddDeviceRecords(records, {{nomem, 0, 0}, {nomem, 0, 0}});
        IoFreeIrp(remove);
        return;
      }
      ASSERT_NE(filter, nullptr);
      ++filtered;
      if (failed == kRecord)
        ExpectAddDeviceRecords(records, {});
      else
        ExpectAddDeviceRecords(records, {{0, c.Flags, c.Number}});
      PCBT_DEVICE_EXTENSION e = CbtExtensionOf(filter);
      EXPECT_EQ(e->VolumeNumber, c.Number);
      EXPECT_NE(e->DeviceName, nullptr);
      EXPECT_EQ(e->Flags, ULONG{CBT_FLAG_TRACKING_VALID} | c.Flags);
      EXPECT_EQ(e->GptAttributes, c.Flags != 0 ? CBT_SNAPSHOT_GPT_ATTRIBUTES : 0u);
      EXPECT_EQ(e->RundownProtection == nullptr, failed == kRundown);
      EXPECT_EQ((filter->Flags & DO_SHUTDOWN_REGISTERED) != 0, failed != kShutdown);
      EXPECT_FALSE(filter->Flags & DO_DEVICE_INITIALIZING);

      PIO_STACK_LOCATION stack = IoGetNextIrpStackLocation(remove);
      stack->MajorFunction = IRP_MJ_PNP;
      stack->MinorFunction = IRP_MN_REMOVE_DEVICE;
      remove->IoStatus.Status = STATUS_NOT_SUPPORTED;
      IoSetCompletionRoutine(remove, KeepRequest, nullptr, TRUE, TRUE, TRUE);
      EXPECT_EQ(IoCallDriver(filter, remove), STATUS_SUCCESS);
      IoFreeIrp(remove);
      EXPECT_EQ(pdo->AttachedDevice, nullptr);
      DropRecords();
    });
    EXPECT_GE(walked, 6u) << "name, class, device, rundown block, shutdown registration, record";
    EXPECT_GT(filtered, 2u) << "the volume stays filtered without a rundown block or a shutdown registration";
    EXPECT_LT(filtered, walked + 1) << "some failures decline the volume";
    DeleteTestVolume(lower);
  }
}

// A volume whose name query succeeds without giving a name is filtered all the same, as
// volume number 0; its removal has no name to free.
TEST_F(CbtDriverTest, AVolumeWithoutANameIsFilteredAsNumberZero) {
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  kvhost::ObFailNameQuery(1, STATUS_SUCCESS);
  Volume& volume = AddVolume(FixedVolume(8));
  ASSERT_NE(volume.Filter, nullptr);
  EXPECT_EQ(volume.Extension()->DeviceName, nullptr);
  EXPECT_EQ(volume.Extension()->VolumeNumber, 0u);
  EXPECT_EQ(RemoveVolume(volume), STATUS_SUCCESS);
}

void FreeWorkItem(PDEVICE_OBJECT, PVOID context) { IoFreeWorkItem(static_cast<PIO_WORKITEM>(context)); }

// A volume whose removal is under way when add-device reaches it: its device object is
// deleted, but a queued work item of its driver still references it, so it lives on,
// delete-pending, and the attach above it is refused. The filter device goes again with
// the name (if the query gave one) and the rundown block it held; add-device still
// succeeds, so the volume's stack is not held up.
TEST_F(CbtDriverTest, AFailedAttachDeletesTheFilterWithWhatItHeld) {
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  kvhost::SetManualWorkQueues(true);
  for (const bool named : {true, false}) {
    SCOPED_TRACE(named ? "named volume" : "name query that gives no name");
    TestVolume* lower = CreateTestVolume(volumeDriver_, FixedVolume(5));
    ASSERT_NE(lower, nullptr);
    PDEVICE_OBJECT pdo = lower->Device;
    PIO_WORKITEM item = IoAllocateWorkItem(pdo);
    ASSERT_NE(item, nullptr);
    IoQueueWorkItem(item, FreeWorkItem, DelayedWorkQueue, item);
    DeleteTestVolume(lower);
    // The device node outlives its device object's deletion: its class and name stay.
    kvhost::IoSetDeviceClassGuid(pdo, VolumeClass());
    ASSERT_TRUE(kvhost::ObSetObjectName(pdo, u"\\Device\\HarddiskVolume5"));
    if (!named) kvhost::ObFailNameQuery(1, STATUS_SUCCESS);
    DropRecords();
    const size_t ownBlocks = kvhost::OutstandingBlocks(kCbtTag);

    kvhost::LogAllocations(true);
    EXPECT_EQ(Driver()->DriverExtension->AddDevice(Driver(), pdo), STATUS_SUCCESS);
    kvhost::LogAllocations(false);
    size_t rundownBlocks = 0;
    for (const kvhost::PoolBlockInfo& attempt : kvhost::TakeAllocationLog())
      if (attempt.Tag == kCbtTag && attempt.Address != nullptr && attempt.Bytes == ExSizeOfRundownProtectionCacheAware())
        ++rundownBlocks;
    EXPECT_EQ(rundownBlocks, 1u) << "the filter was created with its rundown block";
    EXPECT_EQ(pdo->AttachedDevice, nullptr);
    EXPECT_EQ(Driver()->DeviceObject, nullptr) << "the filter device is deleted";
    EXPECT_EQ(kvhost::OutstandingBlocks(kCbtTag), ownBlocks) << "its name and rundown block are freed";
    const ULONG number = named ? 5 : 0;
    ExpectAddDeviceRecords(Records(), {{0, 0, number}, {static_cast<ULONG>(STATUS_NO_SUCH_DEVICE), 0, number}});

    // The work item lets the device object go.
    EXPECT_EQ(kvhost::RunAllWorkItems(), 1u);
  }
}

}  // namespace
}  // namespace kvtest
