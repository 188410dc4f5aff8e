// The service key's settings as the driver reads them at load: defaults, values as stored,
// and the query's rule that a value of the wrong type ends it.
#include <string>
#include <vector>

#include "cbt_driver_fixture.h"
#include "driver/cbt_settings.h"
#include "kvhost/io.h"
#include "kvhost/object.h"
#include "kvhost/pool.h"
#include "kvhost/registry.h"
#include "kvhost/system_routines.h"

namespace kvtest {
namespace {

// The settings in the order the driver queries them, with their defaults.
struct Setting {
  const char16_t* Name;
  ULONG CBT_SETTINGS::*Field;
  ULONG Default;
};
const Setting kDwordSettings[] = {
    {u"EventLevel", &CBT_SETTINGS::EventLevel, 0},
    {u"PersistOverReboot", &CBT_SETTINGS::PersistOverReboot, 0},
    {u"TrackUnmap", &CBT_SETTINGS::TrackUnmap, 0},
    {u"ExcludeUSB", &CBT_SETTINGS::ExcludeUSB, 1},
    {u"WriteNotificationEvents", &CBT_SETTINGS::WriteNotificationEvents, 1},
    {u"WriteNtfsEvents", &CBT_SETTINGS::WriteNtfsEvents, 1},
    {u"ExcludeVHD", &CBT_SETTINGS::ExcludeVHD, 0},
    {u"DebugLog", &CBT_SETTINGS::DebugLog, 0},
};
constexpr size_t kDebugLogPathPosition = 8;

std::u16string LogPath() {
  return std::u16string(reinterpret_cast<const char16_t*>(CbtSettings.DebugLogPath.Buffer),
                        CbtSettings.DebugLogPath.Length / sizeof(WCHAR));
}

// A value the default cannot be mistaken for.
ULONG Stored(size_t position) { return 0x100 + static_cast<ULONG>(position); }

void StoreEverySetting() {
  for (size_t i = 0; i < std::size(kDwordSettings); ++i)
    kvhost::SetRegistryDword(kServiceKey, kDwordSettings[i].Name, Stored(i));
  kvhost::SetRegistryString(kServiceKey, u"DebugLogPath", u"%SystemRoot%\\kvcbt.log", REG_EXPAND_SZ);
}

void ExpectDefaults() {
  for (const Setting& s : kDwordSettings) EXPECT_EQ(CbtSettings.*s.Field, s.Default) << kvhost::ToUtf8(s.Name);
  EXPECT_EQ(CbtSettings.DebugLogPath.Buffer, nullptr);
  EXPECT_EQ(CbtSettings.DebugLogPath.Length, 0);
}

TEST_F(CbtDriverTest, WithoutValuesEverySettingHasItsDefault) {
  kvhost::DeleteRegistryValue(kServiceKey, u"DebugLog");
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  ExpectDefaults();
  EXPECT_TRUE(Records().empty()) << "the log is off by default";
}

TEST_F(CbtDriverTest, ValuesAreKeptAsStoredAndThePathIsExpanded) {
  StoreEverySetting();
  kvhost::SetRegistryDword(kServiceKey, u"ExcludeVHD", 0xFFFFFFFF);  // no range check
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  for (size_t i = 0; i < std::size(kDwordSettings); ++i) {
    const ULONG expected = kDwordSettings[i].Field == &CBT_SETTINGS::ExcludeVHD ? 0xFFFFFFFF : Stored(i);
    EXPECT_EQ(CbtSettings.*kDwordSettings[i].Field, expected) << kvhost::ToUtf8(kDwordSettings[i].Name);
  }
  EXPECT_EQ(LogPath(), u"C:\\Windows\\kvcbt.log");
}

// A value whose type is wrong ends the query at its entry: the values before it were read,
// it and the ones after it keep their defaults. The load goes on.
class WrongTypeTest : public CbtDriverTest, public testing::WithParamInterface<size_t> {};

TEST_P(WrongTypeTest, StopsTheQueryAtItsEntry) {
  const size_t wrong = GetParam();
  StoreEverySetting();
  if (wrong == kDebugLogPathPosition)
    kvhost::SetRegistryString(kServiceKey, u"DebugLogPath", u"C:\\kvcbt.log", REG_SZ);
  else
    kvhost::SetRegistryString(kServiceKey, kDwordSettings[wrong].Name, u"1");
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  for (size_t i = 0; i < std::size(kDwordSettings); ++i)
    EXPECT_EQ(CbtSettings.*kDwordSettings[i].Field, i < wrong ? Stored(i) : kDwordSettings[i].Default)
        << kvhost::ToUtf8(kDwordSettings[i].Name);
  EXPECT_EQ(CbtSettings.DebugLogPath.Buffer, nullptr);
}

INSTANTIATE_TEST_SUITE_P(EachSetting, WrongTypeTest, testing::Range<size_t>(0, kDebugLogPathPosition + 1));

TEST_F(CbtDriverTest, AMissingValueKeepsItsDefaultAndTheQueryGoesOn) {
  kvhost::SetRegistryDword(kServiceKey, u"WriteNtfsEvents", 0);
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  EXPECT_EQ(CbtSettings.WriteNotificationEvents, 1u);
  EXPECT_EQ(CbtSettings.WriteNtfsEvents, 0u);
  EXPECT_EQ(CbtSettings.DebugLog, 1u);
}

TEST_F(CbtDriverTest, SettingsAreReadOnSystemsWithoutTheExtendedQuery) {
  kvhost::HideSystemRoutine("RtlQueryRegistryValuesEx");
  StoreEverySetting();
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  EXPECT_EQ(CbtSettings.ExcludeVHD, Stored(6));
  EXPECT_EQ(LogPath(), u"C:\\Windows\\kvcbt.log");
}

TEST_F(CbtDriverTest, AnEmptyServiceKeyPathLeavesEveryDefault) {
  StoreEverySetting();
  kvhost::LoadedDriver loaded = kvhost::IoLoadDriver(u"kvcbt", DriverEntry, {});
  ASSERT_EQ(loaded.EntryStatus, STATUS_SUCCESS);
  driver_ = loaded.DriverObject;
  kvhost::IoRunBootDriverReinitialization();
  EXPECT_EQ(CbtRegistryPath.Buffer, nullptr);
  ExpectDefaults();
}

// Without memory for the query table nothing is read, but the defaults still hold (USB
// volumes stay excluded).
TEST_F(CbtDriverTest, WithoutAQueryTableTheDefaultsHold) {
  StoreEverySetting();
  kvhost::FailNthAllocation(2, 0x30746243);  // after the registry-path copy
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  kvhost::ClearPoolFaults();
  ExpectDefaults();
}

}  // namespace
}  // namespace kvtest
