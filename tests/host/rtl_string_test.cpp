// Counted strings and GUID strings as the driver builds key paths, compares names and
// logs filter lists with them.
#include <gtest/gtest.h>
#include <wdm.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "kvhost/object.h"
#include "kvhost/pool.h"
#include "kvhost/strings.h"

namespace {

std::u16string Text(const UNICODE_STRING& s) { return std::u16string(kvhost::View(&s)); }

UNICODE_STRING Counted(const WCHAR* text) {
  UNICODE_STRING s;
  RtlInitUnicodeString(&s, text);
  return s;
}

TEST(RtlString, AppendAndCopyStayWithinMaximumLength) {
  UNICODE_STRING empty = Counted(nullptr);
  EXPECT_EQ(empty.Length, 0);
  EXPECT_EQ(empty.Buffer, nullptr);

  WCHAR buffer[12];
  std::fill(std::begin(buffer), std::end(buffer), 0xEEEE);
  UNICODE_STRING path{0, 10 * sizeof(WCHAR), buffer};
  EXPECT_EQ(RtlAppendUnicodeToString(&path, L"\\Device"), STATUS_SUCCESS);
  EXPECT_EQ(buffer[7], 0) << "terminated while there is room";
  EXPECT_EQ(RtlAppendUnicodeToString(&path, L"\\Hard"), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(Text(path), u"\\Device") << "a refused append changes nothing";
  UNICODE_STRING tail = Counted(L"\\Ha");
  EXPECT_EQ(RtlAppendUnicodeStringToString(&path, &tail), STATUS_SUCCESS);
  EXPECT_EQ(Text(path), u"\\Device\\Ha");
  EXPECT_EQ(buffer[10], 0xEEEE) << "a full string is not terminated past its maximum";

  WCHAR small[4];
  UNICODE_STRING copy{0, sizeof small, small};
  UNICODE_STRING source = Counted(L"HarddiskVolume1");
  RtlCopyUnicodeString(&copy, &source);
  EXPECT_EQ(Text(copy), u"Hard");
  RtlCopyUnicodeString(&copy, nullptr);
  EXPECT_EQ(copy.Length, 0);
}

TEST(RtlString, ComparisonsAndCaseFollowTheSystemTables) {
  UNICODE_STRING a = Counted(L"\\??\\Volume{ABC}\\");
  UNICODE_STRING b = Counted(L"\\??\\volume{abc}\\");
  EXPECT_NE(RtlCompareUnicodeString(&a, &b, FALSE), 0);
  EXPECT_EQ(RtlCompareUnicodeString(&a, &b, TRUE), 0);
  EXPECT_TRUE(RtlEqualUnicodeString(&a, &b, TRUE));
  EXPECT_FALSE(RtlEqualUnicodeString(&a, &b, FALSE));
  UNICODE_STRING shorter = Counted(L"\\??\\Volume");
  EXPECT_LT(RtlCompareUnicodeString(&shorter, &a, FALSE), 0) << "a prefix sorts first";
  EXPECT_GT(RtlCompareUnicodeString(&b, &a, FALSE), 0) << "'v' after 'V'";
  EXPECT_TRUE(RtlPrefixUnicodeString(&shorter, &b, TRUE));
  EXPECT_FALSE(RtlPrefixUnicodeString(&shorter, &b, FALSE));
  EXPECT_FALSE(RtlPrefixUnicodeString(&a, &shorter, TRUE));

  UNICODE_STRING accented = Counted(L"\u00e9t\u00e9 \u0434\u0438\u0441\u043a");
  UNICODE_STRING upper = Counted(L"\u00c9T\u00c9 \u0414\u0418\u0421\u041a");
  EXPECT_TRUE(RtlEqualUnicodeString(&accented, &upper, TRUE)) << "Latin-1 and Cyrillic fold too";
  EXPECT_EQ(RtlUpcaseUnicodeChar(0x00FF), 0x0178);
  EXPECT_EQ(RtlUpcaseUnicodeChar(0x03C2), 0x03A3) << "final sigma";
  EXPECT_EQ(RtlDowncaseUnicodeChar(0x03A3), 0x03C3);
  EXPECT_EQ(RtlUpcaseUnicodeChar(0x00DF), 0x00DF) << "sharp s has no single capital";
  EXPECT_EQ(RtlUpcaseUnicodeChar(0x00F7), 0x00F7) << "the division sign is not a letter";

  ANSI_STRING x{3, 4, const_cast<PCHAR>("abc")};
  ANSI_STRING y{3, 4, const_cast<PCHAR>("ABD")};
  EXPECT_LT(RtlCompareString(&x, &y, TRUE), 0);
  EXPECT_GT(RtlCompareString(&x, &y, FALSE), 0);
  EXPECT_EQ(RtlCompareMemory("NTFS    ", "NTFX    ", 8), 3u);
  EXPECT_EQ(RtlCompareMemory("same", "same", 4), 4u);
}

TEST(RtlString, AnsiConversionWithoutAllocationCutsAndReportsOverflow) {
  char text[8];
  ANSI_STRING ansi{0, sizeof text, text};
  UNICODE_STRING source = Counted(L"volsnap;fvevol;");
  EXPECT_EQ(RtlUnicodeStringToAnsiString(&ansi, &source, FALSE), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(ansi.Length, 7);
  EXPECT_STREQ(text, "volsnap") << "what fits, terminated";
  UNICODE_STRING foreign = Counted(L"\u00e9\u20ac\u0416");
  EXPECT_EQ(RtlUnicodeStringToAnsiString(&ansi, &foreign, FALSE), STATUS_SUCCESS);
  EXPECT_STREQ(text, "\xe9\x80?") << "the ANSI code page, '?' for what it lacks";

  WCHAR wide[4];
  UNICODE_STRING back{0, sizeof wide, wide};
  ANSI_STRING three{3, 4, const_cast<PCHAR>("a\x80z")};
  EXPECT_EQ(RtlAnsiStringToUnicodeString(&back, &three, FALSE), STATUS_SUCCESS);
  EXPECT_EQ(Text(back), u"a\u20acz");
  ANSI_STRING four{4, 5, const_cast<PCHAR>("abcd")};
  EXPECT_EQ(RtlAnsiStringToUnicodeString(&back, &four, FALSE), STATUS_BUFFER_OVERFLOW) << "no room for the terminator";
}

TEST(RtlString, IntegersInEveryBase) {
  WCHAR buffer[12];
  UNICODE_STRING s{0, sizeof buffer, buffer};
  EXPECT_EQ(RtlIntegerToUnicodeString(48879, 16, &s), STATUS_SUCCESS);
  EXPECT_EQ(Text(s), u"BEEF");
  EXPECT_EQ(RtlIntegerToUnicodeString(5, 2, &s), STATUS_SUCCESS);
  EXPECT_EQ(Text(s), u"101");
  EXPECT_EQ(RtlIntegerToUnicodeString(4294967295u, 0, &s), STATUS_SUCCESS);
  EXPECT_EQ(Text(s), u"4294967295");
  EXPECT_EQ(RtlIntegerToUnicodeString(1, 7, &s), STATUS_INVALID_PARAMETER);
  UNICODE_STRING tight{0, 4 * sizeof(WCHAR), buffer};
  EXPECT_EQ(RtlIntegerToUnicodeString(1234, 10, &tight), STATUS_BUFFER_OVERFLOW) << "the terminator must fit too";

  ULONG value = 0;
  auto parse = [&](const WCHAR* text, ULONG base) {
    UNICODE_STRING t = Counted(text);
    value = 0xDEAD;
    return RtlUnicodeStringToInteger(&t, base, &value);
  };
  EXPECT_EQ(parse(L"  -12", 0), STATUS_SUCCESS);
  EXPECT_EQ(value, static_cast<ULONG>(-12));
  EXPECT_EQ(parse(L"0x1F", 0), STATUS_SUCCESS);
  EXPECT_EQ(value, 31u);
  EXPECT_EQ(parse(L"0b101", 0), STATUS_SUCCESS);
  EXPECT_EQ(value, 5u);
  EXPECT_EQ(parse(L"777z", 8), STATUS_SUCCESS);
  EXPECT_EQ(value, 511u) << "digits stop at the first character that is not one";
  EXPECT_EQ(parse(L"12", 3), STATUS_INVALID_PARAMETER);
}

TEST(RtlGuid, ParsesOnlyTheExactBracedForm) {
  GUID g{};
  UNICODE_STRING good = Counted(L"{53f5630d-B6BF-11d0-94F2-00a0c91efb8b}");
  ASSERT_EQ(RtlGUIDFromString(&good, &g), STATUS_SUCCESS);
  EXPECT_EQ(g.Data1, 0x53F5630Du);
  EXPECT_EQ(g.Data2, 0xB6BF);
  EXPECT_EQ(g.Data3, 0x11D0);
  const UCHAR data4[8] = {0x94, 0xF2, 0x00, 0xA0, 0xC9, 0x1E, 0xFB, 0x8B};
  EXPECT_EQ(std::memcmp(g.Data4, data4, 8), 0);

  GUID untouched = g;
  for (const WCHAR* bad : {L"53f5630d-b6bf-11d0-94f2-00a0c91efb8b", L"{53f5630d-b6bf-11d0-94f2-00a0c91efb8b",
                           L"{53f5630d-b6bf-11d0-94f2-00a0c91efb8b}x", L"{53f5630db6bf-11d0-94f2-00a0c91efb8b-}",
                           L"{53f5630d-b6bf-11d0-94f2-00a0c91efb8g}", L"{53f5630d-b6bf-11d0-94f200a0-c91efb8b}",
                           L"{ 3f5630d-b6bf-11d0-94f2-00a0c91efb8b}", L""}) {
    UNICODE_STRING s = Counted(bad);
    EXPECT_EQ(RtlGUIDFromString(&s, &g), STATUS_INVALID_PARAMETER) << kvhost::ToUtf8(kvhost::View(bad));
  }
  UNICODE_STRING odd = good;
  odd.Length = 75;
  EXPECT_EQ(RtlGUIDFromString(&odd, &g), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(std::memcmp(&g, &untouched, sizeof g), 0) << "a refused string leaves the GUID alone";
}

TEST(RtlGuid, StringFormRoundTripsThroughAPoolBuffer) {
  const GUID volumeClass = {0x71A27CDD, 0x812A, 0x11D0, {0xBE, 0xC7, 0x08, 0x00, 0x2B, 0xE2, 0x09, 0x2F}};
  UNICODE_STRING text{};
  ASSERT_EQ(RtlStringFromGUID(volumeClass, &text), STATUS_SUCCESS);
  EXPECT_EQ(Text(text), u"{71A27CDD-812A-11D0-BEC7-08002BE2092F}");
  EXPECT_EQ(text.MaximumLength, text.Length + sizeof(WCHAR));
  EXPECT_EQ(text.Buffer[text.Length / 2], 0);
  GUID back{};
  ASSERT_EQ(RtlGUIDFromString(&text, &back), STATUS_SUCCESS);
  EXPECT_TRUE(IsEqualGUID(back, volumeClass));
  EXPECT_EQ(kvhost::OutstandingBlocks(), 1u);
  RtlFreeUnicodeString(&text);
  EXPECT_EQ(kvhost::OutstandingBlocks(), 0u);

  kvhost::FailNthAllocation(1);
  EXPECT_EQ(RtlStringFromGUID(volumeClass, &text), STATUS_NO_MEMORY);
  EXPECT_EQ(text.Buffer, nullptr);
}

TEST(RtlString, AllocatedConversionsAreFreedByTheirFreeRoutines) {
  UNICODE_STRING source = Counted(L"HarddiskVolume4");
  ANSI_STRING ansi{};
  ASSERT_EQ(RtlUnicodeStringToAnsiString(&ansi, &source, TRUE), STATUS_SUCCESS);
  EXPECT_STREQ(ansi.Buffer, "HarddiskVolume4");
  EXPECT_EQ(ansi.MaximumLength, ansi.Length + 1);
  UNICODE_STRING wide{};
  ASSERT_EQ(RtlAnsiStringToUnicodeString(&wide, &ansi, TRUE), STATUS_SUCCESS);
  UNICODE_STRING upper{};
  ASSERT_EQ(RtlUpcaseUnicodeString(&upper, &wide, TRUE), STATUS_SUCCESS);
  EXPECT_EQ(Text(upper), u"HARDDISKVOLUME4");
  EXPECT_EQ(kvhost::OutstandingBlocks(), 3u);
  RtlFreeAnsiString(&ansi);
  RtlFreeUnicodeString(&wide);
  RtlFreeUnicodeString(&upper);
  EXPECT_EQ(kvhost::OutstandingBlocks(), 0u);

  kvhost::FailNthAllocation(1);
  EXPECT_EQ(RtlUnicodeStringToAnsiString(&ansi, &source, TRUE), STATUS_NO_MEMORY);
}

}  // namespace
