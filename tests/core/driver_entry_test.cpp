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

// Every allocation of a load, failed in turn, and what each failure leaves. Only the
// registry-path copy and the driver-object extension are fatal: the load fails with
// STATUS_INSUFFICIENT_RESOURCES and leaves nothing that could call into the unloaded image,
// neither the volume-interface notification nor the boot reinitialization. Any other
// failure switches off the part that needed the memory and leaves the rest as a load
// without faults has it; a loaded driver unloads without leftovers.
TEST_F(CbtDriverTest, EachAllocationOfALoadCanFail) {
  SetClassFilters(VolumeClass(), u"UpperFilters", {u"kvcbt"});
  kvhost::SetRegistryString(kServiceKey, u"DebugLogPath", u"\\??\\C:\\kvcbt.log", REG_EXPAND_SZ);
  const size_t pathBytes = kServiceKey.size() * sizeof(WCHAR) + sizeof(WCHAR);
  constexpr ULONG kStringTag = KV_POOL_TAG('S', 't', 'r', 'g');  // the kernel's string buffers
  constexpr ULONG kQueryBytes = 4096;
  const ULONG notFound = static_cast<ULONG>(STATUS_OBJECT_NAME_NOT_FOUND);
  struct LoadRecord {
    std::string Text;
    ULONG Status;
    bool operator==(const LoadRecord&) const = default;
  };
  // The records of a load without faults; the class-filter lists are entries 1 to 4.
  const std::vector<LoadRecord> unfaulted = {{"Driver Loaded 10.0.1000", 0}, {"kvcbt;", 0}, {"none", notFound},
                                             {"none", notFound},           {"none", notFound}, {"ExcludeUSB", 1},
                                             {"ExcludeVHD", 0}};
  const unsigned long long walked = kvhost::ForEachAllocationFailure([&](unsigned long long k) {
    kvhost::LogAllocations(true);
    kvhost::TakeDebugOutput();
    kvhost::LoadedDriver loaded = kvhost::IoLoadDriver(u"kvcbt", DriverEntry, kServiceKey);
    driver_ = loaded.DriverObject;
    kvhost::LogAllocations(false);
    const size_t reinitializations = kvhost::IoRunBootDriverReinitialization();
    EXPECT_EQ(kvhost::TakeDebugOutput().size(), 1u) << "the banner comes before anything can fail";

    // The failed attempt, and how many attempts of its kind came before it.
    kvhost::PoolBlockInfo failed;
    int records = 0, strings = 0, queries = 0, nth = 0;
    for (const kvhost::PoolBlockInfo& attempt : kvhost::TakeAllocationLog()) {
      const bool record = attempt.Tag == kLogTag && attempt.Bytes == CBT_LOG_RECORD_SIZE;
      const bool query = attempt.Tag == kCbtTag && attempt.Bytes == kQueryBytes && attempt.Type == PagedPool;
      records += record ? 1 : 0;
      strings += attempt.Tag == kStringTag ? 1 : 0;
      queries += query ? 1 : 0;
      if (attempt.Address != nullptr) continue;
      failed = attempt;
      nth = record ? records : attempt.Tag == kStringTag ? strings : queries;
    }
    SCOPED_TRACE(testing::Message() << "allocation " << k << " of " << kvhost::DescribeTag(failed.Tag) << ", "
                                    << failed.Bytes << " bytes");
    const bool fatal = k != 0 && ((failed.Tag == kCbtTag && failed.Bytes == pathBytes) ||
                                  failed.Tag == KV_POOL_TAG('D', 'r', 'v', 'i'));
    EXPECT_EQ(loaded.EntryStatus, fatal ? STATUS_INSUFFICIENT_RESOURCES : STATUS_SUCCESS);
    if (fatal) {
      EXPECT_EQ(driver_, nullptr);
      EXPECT_EQ(kvhost::IoCountPlugPlayNotifications(), 0u);
      EXPECT_EQ(reinitializations, 0u);
      return;
    }

    std::vector<LoadRecord> expected = unfaulted;
    size_t notifications = 1, expectedReinitializations = 1;
    if (k == 0) {
      // No fault.
    } else if (failed.Tag == kLogTag && failed.Bytes == CBT_LOG_BUFFER_SIZE) {
      expected.clear();  // without its image the log never records
    } else if (failed.Tag == kCbtTag && failed.Bytes == 10 * sizeof(RTL_QUERY_REGISTRY_TABLE)) {
      expected.clear();  // the settings keep their defaults, and DebugLog is off by default
    } else if (failed.Tag == kLogTag && failed.Bytes == CBT_LOG_RECORD_SIZE) {
      expected.erase(expected.begin() + (nth - 1));  // that record is lost, the others stay
    } else if (failed.Tag == kStringTag && nth == 1) {
      // The debug log's path: the settings before it are read all the same.
    } else if (failed.Tag == kStringTag || (failed.Tag == kCbtTag && failed.Bytes == kQueryBytes &&
                                            failed.Type == PagedPool)) {
      // A class-filter list (the GUID's text, or the query's buffer) reads "none".
      const int list = failed.Tag == kStringTag ? nth - 1 : nth;
      expected[list] = {"none", static_cast<ULONG>(failed.Tag == kStringTag ? STATUS_NO_MEMORY
                                                                           : STATUS_INSUFFICIENT_RESOURCES)};
    } else if (failed.Tag == kCbtTag && failed.Bytes == kQueryBytes) {
      // The boot-time defragmentation check answers no: nothing to record.
    } else if (failed.Tag == KV_POOL_TAG('P', 'n', 'p', 'N')) {
      notifications = 0;  // volumes are still filtered; only their notifications are missed
    } else if (failed.Tag == KV_POOL_TAG('I', 'o', 'R', 'i')) {
      expectedReinitializations = 0;
    } else {
      ADD_FAILURE() << "an allocation the walk does not know";
    }
    std::vector<LoadRecord> found;
    for (const CBT_LOG_RECORD_BODY& record : Records()) found.push_back({record.Text, record.Status});
    EXPECT_EQ(found, expected);
    EXPECT_EQ(kvhost::IoCountPlugPlayNotifications(), notifications);
    EXPECT_EQ(reinitializations, expectedReinitializations);
    UnloadDriver();
  });
  EXPECT_GT(walked, 5u);
}

}  // namespace
}  // namespace kvtest
