// The boot environment: a scheduled boot-time defragmentation keeps the driver off every
// volume; the volume classes' filter lists are recorded as one line each.
#include <devguid.h>
#include <string>
#include <vector>

#include "cbt_driver_fixture.h"
#include "driver/cbt_boot_checks.h"
#include "kvhost/registry.h"

namespace kvtest {
namespace {

constexpr std::u16string_view kDefragKey = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\DefragFs";

struct DefragCase {
  const char* Name;
  ULONG Type;  // REG_NONE: no Start value
  std::vector<unsigned char> Data;
  bool Scheduled;
};

class DefragTest : public CbtDriverTest, public testing::WithParamInterface<DefragCase> {};

TEST_P(DefragTest, OnlyAStartTypeOtherThanBootClearsTheSchedule) {
  const DefragCase& c = GetParam();
  kvhost::CreateRegistryKey(kDefragKey);
  if (c.Type != REG_NONE) kvhost::SetRegistryValue(kDefragKey, u"Start", c.Type, c.Data.data(), c.Data.size());
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  EXPECT_EQ(CbtRaxcoBootDefragScheduled, c.Scheduled ? TRUE : FALSE);
  EXPECT_EQ(RecordTexts().front(), c.Scheduled ? "CbtIsRaxcoBootTimeDefragEnabled" : "Driver Loaded 10.0.1000");
}

INSTANTIATE_TEST_SUITE_P(
    StartValues, DefragTest,
    testing::Values(DefragCase{"NoStartValue", REG_NONE, {}, false},
                    DefragCase{"BootStart", REG_DWORD, {0, 0, 0, 0}, true},
                    DefragCase{"DemandStart", REG_DWORD, {3, 0, 0, 0}, false},
                    DefragCase{"StartAsText", REG_SZ, {'3', 0, 0, 0}, true},
                    DefragCase{"ShortDword", REG_DWORD, {3, 0}, true}),
    [](const testing::TestParamInfo<DefragCase>& info) { return std::string(info.param.Name); });

TEST_F(CbtDriverTest, AScheduledDefragmentationLeavesEveryVolumeUnfiltered) {
  kvhost::SetRegistryDword(kDefragKey, u"Start", 0);
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  DropRecords();
  EXPECT_EQ(AddVolume(FixedVolume(1)).Filter, nullptr);
  EXPECT_EQ(AddVolume(ShadowCopy(1)).Filter, nullptr);
  EXPECT_EQ(RecordTexts(), (std::vector<std::string>{"CbtAddDevice", "CbtAddDevice"}));
}

// One line per class and list: the names each followed by ';', or "none" with the reason.
struct FilterListCase {
  const char* Name;
  ULONG Type;  // REG_NONE: no value
  std::u16string Data;  // raw characters, NULs included
  std::string Text;
  NTSTATUS Status;
};

class FilterListTest : public CbtDriverTest, public testing::WithParamInterface<FilterListCase> {};

TEST_P(FilterListTest, IsRecordedAsOneLine) {
  const FilterListCase& c = GetParam();
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  const std::u16string key = std::u16string(kClassKeyPrefix) + GuidText(GUID_DEVCLASS_VOLUME);
  kvhost::CreateRegistryKey(key);
  if (c.Type != REG_NONE)
    kvhost::SetRegistryValue(key, u"LowerFilters", c.Type, c.Data.data(), c.Data.size() * sizeof(char16_t));
  DropRecords();
  EXPECT_EQ(CbtLogClassFilters(&GUID_DEVCLASS_VOLUME, L"LowerFilters", 77), c.Status);
  std::vector<CBT_LOG_RECORD_BODY> records = Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(std::string(records[0].Text), c.Text);
  EXPECT_EQ(+records[0].Status, static_cast<ULONG>(c.Status));
  EXPECT_EQ(+records[0].Line, 77u);
}

const std::u16string kTwoNames(u"volsnap\0fvevol\0\0", 16);
const std::u16string kUnterminated(u"ab\0cd", 5);
const std::u16string kEmptyList(u"\0\0", 2);
// Names of 13 characters: nine of them with their ';' and the final NUL fill the 127
// characters of a line exactly; ten do not fit.
std::u16string ListOf(int names) {
  std::u16string list;
  for (int i = 0; i < names; ++i) list += std::u16string(u"filterdriver") + char16_t(u'a' + i) + char16_t(0);
  return list + char16_t(0);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, FilterListTest,
    testing::Values(FilterListCase{"TwoNames", REG_MULTI_SZ, kTwoNames, "volsnap;fvevol;", STATUS_SUCCESS},
                    FilterListCase{"NoFinalTerminator", REG_MULTI_SZ, kUnterminated, "ab;cd", STATUS_SUCCESS},
                    FilterListCase{"Empty", REG_MULTI_SZ, kEmptyList, "none", STATUS_SUCCESS},
                    FilterListCase{"Missing", REG_NONE, u"", "none", STATUS_OBJECT_NAME_NOT_FOUND},
                    FilterListCase{"NotAList", REG_SZ, std::u16string(u"volsnap\0", 8), "none", STATUS_SUCCESS},
                    FilterListCase{"LongestLine", REG_MULTI_SZ, ListOf(9),
                                   "filterdrivera;filterdriverb;filterdriverc;filterdriverd;filter", STATUS_SUCCESS},
                    FilterListCase{"TooLong", REG_MULTI_SZ, ListOf(10), "none", STATUS_BUFFER_TOO_SMALL}),
    [](const testing::TestParamInfo<FilterListCase>& info) { return std::string(info.param.Name); });

TEST_F(CbtDriverTest, AClassWithoutAKeyIsRecordedAsNone) {
  ASSERT_EQ(LoadDriver(), STATUS_SUCCESS);
  const GUID unknown = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
  WCHAR buffer[16] = {};
  UNICODE_STRING output = {0, sizeof(buffer), buffer};
  EXPECT_EQ(CbtQueryClassFilters(&unknown, L"UpperFilters", &output), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(output.Length, 0);
}

}  // namespace
}  // namespace kvtest
