// Bounded copy, concatenation and length, and the counted-string forms, as the driver
// builds paths and names with them.
#include <gtest/gtest.h>
#include <ntstrsafe.h>
#include <wdm.h>

#include <cstring>

#include "kvhost/strings.h"

namespace {

std::u16string Text(const UNICODE_STRING& s) { return std::u16string(kvhost::View(&s)); }

TEST(StrSafe, CopyAndCatCutTerminateAndReportOverflow) {
  char buffer[8];
  EXPECT_EQ(RtlStringCbCopyA(buffer, sizeof buffer, "C:\\Windows"), STATUS_BUFFER_OVERFLOW);
  EXPECT_STREQ(buffer, "C:\\Wind");
  EXPECT_EQ(RtlStringCbCopyA(buffer, sizeof buffer, "C:\\"), STATUS_SUCCESS);
  EXPECT_EQ(RtlStringCbCatA(buffer, sizeof buffer, "Log"), STATUS_SUCCESS);
  EXPECT_STREQ(buffer, "C:\\Log");
  EXPECT_EQ(RtlStringCbCatA(buffer, sizeof buffer, "File"), STATUS_BUFFER_OVERFLOW);
  EXPECT_STREQ(buffer, "C:\\LogF");
  EXPECT_EQ(RtlStringCbCatA(buffer, sizeof buffer, ""), STATUS_SUCCESS) << "a full buffer takes an empty string";

  std::memset(buffer, 'x', sizeof buffer);
  EXPECT_EQ(RtlStringCbCatA(buffer, sizeof buffer, "a"), STATUS_INVALID_PARAMETER)
      << "a destination without its terminator";
  EXPECT_EQ(RtlStringCbCopyA(buffer, 0, "a"), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(buffer[0], 'x');

  WCHAR wide[5];
  EXPECT_EQ(RtlStringCchCopyW(wide, RTL_NUMBER_OF(wide), L"kvcbt.sys"), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(kvhost::View(wide), u"kvcb");
  EXPECT_EQ(RtlStringCbCopyW(wide, sizeof wide, L"ab"), STATUS_SUCCESS);
  EXPECT_EQ(RtlStringCchCatW(wide, RTL_NUMBER_OF(wide), L"cdef"), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(kvhost::View(wide), u"abcd");
}

TEST(StrSafe, LengthNeedsATerminatorWithinTheLimit) {
  size_t length = 99;
  EXPECT_EQ(RtlStringCbLengthA("abc", 4, &length), STATUS_SUCCESS);
  EXPECT_EQ(length, 3u);
  EXPECT_EQ(RtlStringCbLengthA("abc", 3, &length), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(RtlStringCbLengthW(L"abc", 8, &length), STATUS_SUCCESS);
  EXPECT_EQ(length, 6u) << "in bytes";
  EXPECT_EQ(RtlStringCbLengthW(L"abc", 7, &length), STATUS_INVALID_PARAMETER) << "7 bytes hold 3 characters";
  EXPECT_EQ(RtlStringCchLengthW(nullptr, 8, &length), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(RtlStringCbLengthA("abc", 0, nullptr), STATUS_INVALID_PARAMETER);
}

TEST(StrSafe, CountedStringsFillToMaximumLengthWithoutTerminator) {
  WCHAR buffer[8];
  std::memset(buffer, 0xEE, sizeof buffer);
  UNICODE_STRING dest{0, 6 * sizeof(WCHAR), buffer};
  EXPECT_EQ(RtlUnicodeStringPrintf(&dest, L"Vol%d", 12), STATUS_SUCCESS);
  EXPECT_EQ(Text(dest), u"Vol12");
  EXPECT_EQ(RtlUnicodeStringCatString(&dest, L"ab"), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(Text(dest), u"Vol12a");
  EXPECT_EQ(buffer[6], 0xEEEE) << "counted strings are not terminated and nothing is written past them";

  UNICODE_STRING source;
  RtlInitUnicodeString(&source, L"\\??\\C:");
  EXPECT_EQ(RtlUnicodeStringCopy(&dest, &source), STATUS_SUCCESS);
  EXPECT_EQ(Text(dest), u"\\??\\C:");
  EXPECT_EQ(RtlUnicodeStringCat(&dest, &source), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(dest.Length, dest.MaximumLength);
  EXPECT_EQ(RtlUnicodeStringPrintf(&dest, L"%ws", L"1234567"), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(Text(dest), u"123456");

  UNICODE_STRING odd{3, 8, buffer};
  EXPECT_EQ(RtlUnicodeStringCopy(&dest, &odd), STATUS_INVALID_PARAMETER);
  UNICODE_STRING longer{10, 8, buffer};
  EXPECT_EQ(RtlUnicodeStringCat(&longer, &source), STATUS_INVALID_PARAMETER);
  UNICODE_STRING noBuffer{0, 8, nullptr};
  EXPECT_EQ(RtlUnicodeStringCopyString(&noBuffer, L"x"), STATUS_INVALID_PARAMETER);

  UNICODE_STRING init;
  EXPECT_EQ(RtlUnicodeStringInit(&init, L"abc"), STATUS_SUCCESS);
  EXPECT_EQ(init.Length, 6);
  EXPECT_EQ(init.MaximumLength, 8);
}

}  // namespace
