// Loading and unloading the driver: the banner, the records of a load in their order, the
// driver-wide state, and what a load under memory pressure leaves behind.
#include <string>
#include <vector>

#include "cbt_driver_fixture.h"
#include "driver/cbt_driver.h"
#include "kvhost/clock.h"
#include "kvhost/dbgprint.h"
#include "kvhost/io.h"
#include "kvhost/pool.h"
#include "kvhost/registry.h"
#include "kvhost/version.h"

namespace kvtest {
namespace {

constexpr ULONG kLogTag = 0x0157544A;
constexpr ULONG kCbtTag = 0x30746243;

void SetClassFilters(const GUID& cls, std::u16string_view value, const std::vector<std::u16string>& names) {
  kvhost::SetRegistryMultiString(std::u16string(kClassKeyPrefix) + GuidText(cls), value, names);
}

TEST_F(CbtDriverTest, LoadPrintsTheBannerAndQueuesTheLoadRecordsInOrder) {
  kvhost::WindowsVersion windows;
  windows.Build = 22631;
  kvhost::SetWindowsVersion(windows);
  kvhost::SetSystemTime(kvhost::SystemTimeFromUnixSeconds(1700000000));
  SetClassFilters(VolumeClass(), u"UpperFilters", {u"volsnap", u"kvcbt"});
  SetClassFilters(SnapshotClass(), u"UpperFilters", {u"kvcbt"});
  SetClassFilters(VolumeClass(), u"LowerFilters", {u"fvevol", u"iorate"});
  kvhost::SetRegistryDword(kServiceKey, u"ExcludeVHD", 1);
  kvhost::TakeDebugOutput();

  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);

  std::vector<kvhost::DebugOutputLine> output = kvhost::TakeDebugOutput();
  ASSERT_EQ(output.size(), 1u);
  EXPECT_EQ(output[0].ComponentId, 77u);
  EXPECT_EQ(output[0].Level, 3u);
  EXPECT_EQ(output[0].Text,
            "\nKeldor Vantage Changed Block Tracker\nDriver Version 10.0.1000\nWindows Version 10.0.22631\n\n");

  struct Expected {
    const char* Text;
    ULONG Status;
  };
  const Expected expected[] = {{"Driver Loaded 10.0.1000", 0},
                               {"volsnap;kvcbt;", 0},
                               {"kvcbt;", 0},
                               {"fvevol;iorate;", 0},
                               {"none", static_cast<ULONG>(STATUS_OBJECT_NAME_NOT_FOUND)},
                               {"ExcludeUSB", 1},
                               {"ExcludeVHD", 1}};
  std::vector<CBT_LOG_RECORD_BODY> records = Records();
  ASSERT_EQ(records.size(), std::size(expected));
  for (size_t i = 0; i < records.size(); ++i) {
    SCOPED_TRACE(expected[i].Text);
    EXPECT_STREQ(records[i].Text, expected[i].Text);
    EXPECT_EQ(+records[i].Status, expected[i].Status);
    EXPECT_EQ(+records[i].DeviceFlags, 0u);
    EXPECT_EQ(+records[i].VolumeNumber, 0u);
    EXPECT_EQ(+records[i].DriveLetter, u'?');
    EXPECT_EQ(+records[i].SystemTime, static_cast<CBT_U64>(kvhost::SystemTimeFromUnixSeconds(1700000000)));
    EXPECT_EQ(+records[i].ThreadId, static_cast<CBT_U32>(reinterpret_cast<ULONG_PTR>(PsGetCurrentThreadId())));
  }
  EXPECT_EQ(+records[0].Line, 1u);
  EXPECT_EQ(+records[5].Line, 5u);
  EXPECT_EQ(+records[6].Line, 6u);
  // Each class-filter record carries its own call site.
  EXPECT_NE(+records[1].Line, +records[2].Line);
  EXPECT_NE(+records[2].Line, +records[3].Line);
  EXPECT_NE(+records[3].Line, +records[4].Line);
}

TEST_F(CbtDriverTest, LoadKeepsAPrivateTerminatedCopyOfTheServiceKeyPath) {
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  ASSERT_NE(CbtRegistryPath.Buffer, nullptr);
  EXPECT_EQ(std::u16string_view(reinterpret_cast<const char16_t*>(CbtRegistryPath.Buffer),
                                CbtRegistryPath.Length / sizeof(WCHAR)),
            kServiceKey);
  EXPECT_EQ(CbtRegistryPath.MaximumLength, CbtRegistryPath.Length);
  EXPECT_EQ(CbtRegistryPath.Buffer[CbtRegistryPath.Length / sizeof(WCHAR)], 0) << "the settings query reads up to a NUL";
  EXPECT_EQ(kvhost::IoCountPlugPlayNotifications(), 1u) << "volume interfaces are watched";
}

// A driver that reports failure is unloaded without its unload routine: nothing it
// registered may call into it and none of its pool may stay.
TEST_F(CbtDriverTest, ALoadThatFailsLeavesNoCallbackAndNoPool) {
  const size_t blocksBefore = kvhost::OutstandingBlocks();
  kvhost::FailAllocationsWithTag(KV_POOL_TAG('D', 'r', 'v', 'i'));  // the driver-object extension
  kvhost::TakeDebugOutput();
  EXPECT_EQ(LoadDriver(), STATUS_INSUFFICIENT_RESOURCES);
  kvhost::ClearPoolFaults();
  EXPECT_EQ(kvhost::TakeDebugOutput().size(), 1u) << "the banner comes before anything can fail";
  EXPECT_EQ(kvhost::IoCountPlugPlayNotifications(), 0u);
  EXPECT_EQ(kvhost::IoRunBootDriverReinitialization(), 0u);
  EXPECT_EQ(kvhost::OutstandingBlocks(), blocksBefore);
}

TEST_F(CbtDriverTest, UnloadFreesEveryDriverWideBufferAndQueuedRecord) {
  kvhost::SetRegistryString(kServiceKey, u"DebugLogPath", u"\\??\\C:\\Windows\\kvcbt.log", REG_EXPAND_SZ);
  const size_t blocksBefore = kvhost::OutstandingBlocks();
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  EXPECT_GT(kvhost::OutstandingBlocks(kLogTag), 1u) << "the log image and the queued records";
  EXPECT_GT(kvhost::OutstandingBlocks(kCbtTag), 0u);
  UnloadDriver();
  EXPECT_EQ(kvhost::OutstandingBlocks(), blocksBefore);
  EXPECT_EQ(kvhost::IoCountPlugPlayNotifications(), 0u);
}

// Every allocation of a load, failed in turn: the load either fails with the stated status
// (only the registry-path copy and the driver-object extension are fatal) or goes on with
// the part that needed the memory switched off; a loaded driver unloads without leftovers.
TEST_F(CbtDriverTest, EachAllocationOfALoadCanFail) {
  SetClassFilters(VolumeClass(), u"UpperFilters", {u"kvcbt"});
  kvhost::SetRegistryString(kServiceKey, u"DebugLogPath", u"\\??\\C:\\kvcbt.log", REG_EXPAND_SZ);
  const size_t pathBytes = kServiceKey.size() * sizeof(WCHAR) + sizeof(WCHAR);
  const unsigned long long walked = kvhost::ForEachAllocationFailure([&](unsigned long long k) {
    kvhost::LogAllocations(true);
    kvhost::TakeDebugOutput();
    const NTSTATUS status = LoadDriver();
    kvhost::LogAllocations(false);
    kvhost::PoolBlockInfo failed;
    for (const kvhost::PoolBlockInfo& attempt : kvhost::TakeAllocationLog())
      if (attempt.Address == nullptr) failed = attempt;
    EXPECT_EQ(kvhost::TakeDebugOutput().size(), 1u);
    const bool fatal = k != 0 && ((failed.Tag == kCbtTag && failed.Bytes == pathBytes) ||
                                  failed.Tag == KV_POOL_TAG('D', 'r', 'v', 'i'));
    SCOPED_TRACE(testing::Message() << "allocation " << k << " of " << kvhost::DescribeTag(failed.Tag) << ", "
                                    << failed.Bytes << " bytes");
    EXPECT_EQ(status, fatal ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS);
    if (fatal) {
      EXPECT_EQ(kvhost::IoCountPlugPlayNotifications(), 0u);
      return;
    }
    if (failed.Tag == kLogTag && failed.Bytes == CBT_LOG_BUFFER_SIZE) {
      EXPECT_TRUE(Records().empty()) << "without its image the log never records";
    }
    UnloadDriver();
  });
  EXPECT_GT(walked, 5u);
}

}  // namespace
}  // namespace kvtest
