// Query tables as the driver reads its settings with them: direct targets, type checks,
// defaults, expansion, lists, subkeys.
#include <gtest/gtest.h>
#include <wdm.h>

#include <cstring>
#include <string>
#include <vector>

#include "kvhost/irql.h"
#include "kvhost/pool.h"
#include "kvhost/registry.h"
#include "kvhost/verifier.h"

namespace {

constexpr std::u16string_view kService = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kvcbt";
const WCHAR kServicePath[] = L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kvcbt";
constexpr ULONG kDirectChecked = RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_TYPECHECK;
constexpr ULONG kExpectDword = REG_DWORD << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT | REG_NONE;

RTL_QUERY_REGISTRY_TABLE DirectDword(const WCHAR* name, ULONG* target) {
  return {nullptr, kDirectChecked, const_cast<PWSTR>(name), target, kExpectDword, nullptr, 0};
}

TEST(RegistryQuery, AWrongTypeStopsTheQueryThereAndLaterValuesKeepTheirDefaults) {
  kvhost::SetRegistryDword(kService, u"First", 11);
  kvhost::SetRegistryString(kService, u"Second", u"not a number");
  kvhost::SetRegistryDword(kService, u"Third", 33);
  ULONG first = 1, missing = 2, second = 3, third = 4;
  RTL_QUERY_REGISTRY_TABLE table[] = {DirectDword(L"First", &first), DirectDword(L"Missing", &missing),
                                      DirectDword(L"Second", &second), DirectDword(L"Third", &third), {}};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, table, nullptr, nullptr),
            STATUS_OBJECT_TYPE_MISMATCH);
  EXPECT_EQ(first, 11u) << "read before the mismatch";
  EXPECT_EQ(missing, 2u) << "a missing value keeps the target";
  EXPECT_EQ(second, 3u);
  EXPECT_EQ(third, 4u) << "not read after the mismatch";

  kvhost::SetRegistryDword(kService, u"Second", 22);
  EXPECT_EQ(RtlQueryRegistryValuesEx(RTL_REGISTRY_ABSOLUTE, kServicePath, table, nullptr, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(second, 22u);
  EXPECT_EQ(third, 33u);

  // Without TYPECHECK a string lands in a ULONG target as whatever bytes fit.
  kvhost::SetRegistryValue(kService, u"Short", REG_BINARY, "\x01\x02", 2);
  ULONG shortTarget = 0xFFFFFFFF;
  RTL_QUERY_REGISTRY_TABLE unchecked[] = {
      {nullptr, RTL_QUERY_REGISTRY_DIRECT, const_cast<PWSTR>(L"Short"), &shortTarget, REG_NONE, nullptr, 0}, {}};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_SERVICES, L"kvcbt", unchecked, nullptr, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(shortTarget, 0xFFFF0201u);

  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_SERVICES, L"NoSuchService", table, nullptr, nullptr),
            STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST(RegistryQuery, DefaultsAndRequiredEntries) {
  kvhost::CreateRegistryKey(kService);
  ULONG fallback = 77;
  ULONG target = 0;
  RTL_QUERY_REGISTRY_TABLE withDefault[] = {
      {nullptr, RTL_QUERY_REGISTRY_DIRECT, const_cast<PWSTR>(L"Absent"), &target, REG_DWORD, &fallback, sizeof fallback},
      {}};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, withDefault, nullptr, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(target, 77u);

  withDefault[0].Flags |= RTL_QUERY_REGISTRY_REQUIRED;
  target = 0;
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, withDefault, nullptr, nullptr),
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(target, 0u);

  RTL_QUERY_REGISTRY_TABLE nameless[] = {{nullptr, RTL_QUERY_REGISTRY_DIRECT, nullptr, &target, REG_NONE, nullptr, 0}, {}};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, nameless, nullptr, nullptr),
            STATUS_INVALID_PARAMETER);
}

TEST(RegistryQuery, ExpandSzIntoAnEmptyStringAllocatesAPoolBufferForTheCaller) {
  kvhost::SetRegistryString(kService, u"DebugLogPath", u"%SystemRoot%\\kvcbt.log", REG_EXPAND_SZ);
  UNICODE_STRING path{};
  RTL_QUERY_REGISTRY_TABLE table[] = {{nullptr, kDirectChecked, const_cast<PWSTR>(L"DebugLogPath"), &path,
                                       REG_EXPAND_SZ << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT | REG_NONE, nullptr, 0},
                                      {}};
  size_t blocks = kvhost::OutstandingBlocks();
  ASSERT_EQ(RtlQueryRegistryValuesEx(RTL_REGISTRY_ABSOLUTE, kServicePath, table, nullptr, nullptr), STATUS_SUCCESS);
  ASSERT_NE(path.Buffer, nullptr);
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(path.Buffer), path.Length / 2), u"C:\\Windows\\kvcbt.log");
  EXPECT_EQ(path.MaximumLength, path.Length + sizeof(WCHAR));
  EXPECT_EQ(path.Buffer[path.Length / 2], 0);
  EXPECT_EQ(kvhost::OutstandingBlocks(), blocks + 1) << "the caller owns a pool block until it frees it";
  RtlFreeUnicodeString(&path);
  EXPECT_EQ(kvhost::OutstandingBlocks(), blocks);
  EXPECT_EQ(path.Buffer, nullptr);

  kvhost::FailNthAllocation(1);
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, table, nullptr, nullptr), STATUS_NO_MEMORY);
  EXPECT_EQ(path.Buffer, nullptr);
  EXPECT_EQ(path.Length, 0);

  kvhost::SetRegistryString(kService, u"DebugLogPath", u"C:\\kvcbt.log");
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, table, nullptr, nullptr),
            STATUS_OBJECT_TYPE_MISMATCH)
      << "REG_SZ where REG_EXPAND_SZ is expected";

  kvhost::ViolationCapture capture;
  kvhost::RunAtIrql(DISPATCH_LEVEL,
                    [&] { RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, table, nullptr, nullptr); });
  EXPECT_TRUE(capture.Saw("PassiveLevelRequired")) << capture.Describe();
}

struct Seen {
  std::vector<std::u16string> Names;
  std::vector<ULONG> Types;
  std::vector<std::u16string> Texts;
};

NTSTATUS NTAPI Record(PWSTR ValueName, ULONG ValueType, PVOID ValueData, ULONG ValueLength, PVOID Context,
                      PVOID EntryContext) {
  auto* seen = static_cast<Seen*>(Context);
  seen->Names.emplace_back(ValueName == nullptr ? u"(none)" : reinterpret_cast<const char16_t*>(ValueName));
  seen->Types.push_back(ValueType);
  if (ValueType == REG_SZ || ValueType == REG_MULTI_SZ)
    seen->Texts.emplace_back(static_cast<const char16_t*>(ValueData), ValueLength / sizeof(WCHAR));
  else
    seen->Texts.emplace_back();
  return EntryContext != nullptr ? *static_cast<NTSTATUS*>(EntryContext) : STATUS_SUCCESS;
}

TEST(RegistryQuery, RoutinesSeeExpandedTextAndOneCallPerListString) {
  kvhost::SetRegistryString(kService, u"LogPath", u"%SystemRoot%\\kvcbt.%Unknown%.log", REG_EXPAND_SZ);
  kvhost::SetRegistryMultiString(kService, u"Filters", {u"volsnap", u"fvevol"});
  Seen seen;
  RTL_QUERY_REGISTRY_TABLE table[] = {
      {Record, 0, const_cast<PWSTR>(L"LogPath"), nullptr, REG_NONE, nullptr, 0},
      {Record, 0, const_cast<PWSTR>(L"Filters"), nullptr, REG_NONE, nullptr, 0},
      {Record, RTL_QUERY_REGISTRY_NOEXPAND, const_cast<PWSTR>(L"Filters"), nullptr, REG_NONE, nullptr, 0},
      {Record, RTL_QUERY_REGISTRY_NOVALUE, nullptr, nullptr, REG_NONE, nullptr, 0},
      {}};
  ASSERT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, table, &seen, nullptr), STATUS_SUCCESS);
  ASSERT_EQ(seen.Names.size(), 5u);
  EXPECT_EQ(seen.Types[0], static_cast<ULONG>(REG_SZ)) << "expanded text is presented as REG_SZ";
  EXPECT_EQ(seen.Texts[0], std::u16string(u"C:\\Windows\\kvcbt.%Unknown%.log") + u'\0');
  EXPECT_EQ(seen.Texts[1], std::u16string(u"volsnap") + u'\0');
  EXPECT_EQ(seen.Texts[2], std::u16string(u"fvevol") + u'\0');
  EXPECT_EQ(seen.Types[3], static_cast<ULONG>(REG_MULTI_SZ));
  EXPECT_EQ(seen.Texts[3], std::u16string(u"volsnap\0fvevol\0\0", 16));
  EXPECT_EQ(seen.Names[4], u"(none)");

  // A caller's environment block replaces the machine's; NOEXPAND keeps the raw text.
  const WCHAR environment[] = L"SystemRoot=D:\\Win\0=C:=C:\\\0";
  seen = {};
  table[1] = {Record, RTL_QUERY_REGISTRY_NOEXPAND, const_cast<PWSTR>(L"LogPath"), nullptr, REG_NONE, nullptr, 0};
  table[2] = {};
  ASSERT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, table, &seen, const_cast<WCHAR*>(environment)),
            STATUS_SUCCESS);
  EXPECT_EQ(seen.Texts[0], std::u16string(u"D:\\Win\\kvcbt.%Unknown%.log") + u'\0');
  EXPECT_EQ(seen.Types[1], static_cast<ULONG>(REG_EXPAND_SZ));

  // A routine's failure ends the query with its status.
  NTSTATUS refuse = STATUS_INSUFFICIENT_RESOURCES;
  seen = {};
  RTL_QUERY_REGISTRY_TABLE failing[] = {{Record, 0, const_cast<PWSTR>(L"Filters"), &refuse, REG_NONE, nullptr, 0},
                                        {Record, 0, const_cast<PWSTR>(L"LogPath"), nullptr, REG_NONE, nullptr, 0},
                                        {}};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, failing, &seen, nullptr),
            STATUS_INSUFFICIENT_RESOURCES);
  EXPECT_EQ(seen.Names.size(), 1u);
}

TEST(RegistryQuery, SubkeysEnumerationAndDelete) {
  std::u16string parameters = std::u16string(kService) + u"\\Parameters";
  kvhost::SetRegistryDword(parameters, u"One", 1);
  kvhost::SetRegistryDword(parameters, u"Two", 2);
  kvhost::SetRegistryDword(kService, u"Top", 3);
  Seen seen;
  ULONG top = 0;
  RTL_QUERY_REGISTRY_TABLE table[] = {
      {Record, RTL_QUERY_REGISTRY_SUBKEY | RTL_QUERY_REGISTRY_DELETE, const_cast<PWSTR>(L"Parameters"), nullptr,
       REG_NONE, nullptr, 0},
      {nullptr, RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_TOPKEY, const_cast<PWSTR>(L"Top"), &top, REG_NONE,
       nullptr, 0},
      {}};
  ASSERT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_SERVICES, L"kvcbt", table, &seen, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(seen.Names, (std::vector<std::u16string>{u"One", u"Two"}));
  EXPECT_EQ(top, 3u) << "TOPKEY returns to the query's key";
  EXPECT_FALSE(kvhost::GetRegistryValue(parameters, u"One")) << "DELETE removes each value after its call";
  EXPECT_FALSE(kvhost::GetRegistryValue(parameters, u"Two"));

  table[0].Flags |= RTL_QUERY_REGISTRY_REQUIRED;
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_SERVICES, L"kvcbt", table, &seen, nullptr),
            STATUS_OBJECT_NAME_NOT_FOUND)
      << "a required enumeration of an empty key";
}

TEST(RegistryQuery, LongerDataUsesTheSizeInTheTargetsFirstLong) {
  const unsigned char bytes[6] = {1, 2, 3, 4, 5, 6};
  kvhost::SetRegistryValue(kService, u"Blob", REG_BINARY, bytes, sizeof bytes);
  LONG buffer[4] = {sizeof buffer, 0, 0, 0};
  RTL_QUERY_REGISTRY_TABLE table[] = {
      {nullptr, RTL_QUERY_REGISTRY_DIRECT, const_cast<PWSTR>(L"Blob"), buffer, REG_NONE, nullptr, 0}, {}};
  ASSERT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, table, nullptr, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(buffer[0], 6) << "length";
  EXPECT_EQ(buffer[1], REG_BINARY) << "type";
  EXPECT_EQ(std::memcmp(&buffer[2], bytes, 6), 0);

  LONG dataOnly[2] = {-8, 0};
  table[0].EntryContext = dataOnly;
  ASSERT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, table, nullptr, nullptr), STATUS_SUCCESS);
  EXPECT_EQ(std::memcmp(dataOnly, bytes, 6), 0) << "a negative size takes the data alone";

  LONG tooSmall[3] = {12, 0, 0};
  table[0].EntryContext = tooSmall;
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, table, nullptr, nullptr),
            STATUS_BUFFER_TOO_SMALL);

  WCHAR small[4];
  UNICODE_STRING preallocated{0, sizeof small, small};
  kvhost::SetRegistryString(kService, u"Name", u"kvcbt");
  table[0] = {nullptr, RTL_QUERY_REGISTRY_DIRECT, const_cast<PWSTR>(L"Name"), &preallocated, REG_NONE, nullptr, 0};
  EXPECT_EQ(RtlQueryRegistryValues(RTL_REGISTRY_ABSOLUTE, kServicePath, table, nullptr, nullptr),
            STATUS_BUFFER_TOO_SMALL)
      << "a string target with a buffer must hold the text and its terminator";
}

}  // namespace
