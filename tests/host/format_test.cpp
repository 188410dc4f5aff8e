// The kernel's printf conversions as the driver's messages and log texts rely on them,
// through the bounded-print routines and the debug output.
#include <gtest/gtest.h>
#include <ntstrsafe.h>
#include <wdm.h>

#include <cstring>
#include <string>

#include "kvhost/dbgprint.h"
#include "kvhost/irql.h"
#include "kvhost/object.h"
#include "kvhost/verifier.h"

namespace {

template <typename... Args>
std::string Narrow(const char* format, Args... args) {
  char buffer[256];
  EXPECT_EQ(RtlStringCbPrintfA(buffer, sizeof buffer, format, args...), STATUS_SUCCESS) << format;
  return buffer;
}

template <typename... Args>
std::string Wide(const WCHAR* format, Args... args) {
  WCHAR buffer[256];
  EXPECT_EQ(RtlStringCchPrintfW(buffer, RTL_NUMBER_OF(buffer), format, args...), STATUS_SUCCESS);
  return kvhost::ToUtf8(reinterpret_cast<const char16_t*>(buffer));
}

TEST(Format, IntegerSizesAreWindowsOnes) {
  // l is 32 bits: the top bit of a ULONG is a sign for %ld.
  EXPECT_EQ(Narrow("%ld %lu %lx %d", static_cast<ULONG>(0xFFFFFFFF), static_cast<ULONG>(0xFFFFFFFF),
                   static_cast<ULONG>(0xABCDEF01), 7),
            "-1 4294967295 abcdef01 7");
  EXPECT_EQ(Narrow("%I64x %I64X %I64d %I64u", 0x123456789ABCDEF0ULL, 0xFEDCBA9876543210ULL, -5LL, ~0ULL),
            "123456789abcdef0 FEDCBA9876543210 -5 18446744073709551615");
  EXPECT_EQ(Narrow("%lld %llu %llx %Ix", -9000000000LL, 9000000000ULL, 0x1FFFFFFFFULL, static_cast<size_t>(1) << 40),
            "-9000000000 9000000000 1ffffffff 10000000000");
  EXPECT_EQ(Narrow("%hd %hu %hx %I32d", 70000, 70000, 0x12345, -3), "4464 4464 2345 -3");
  EXPECT_EQ(Narrow("%p", reinterpret_cast<void*>(0xDEADBEEFULL)), "00000000DEADBEEF");
  EXPECT_EQ(Narrow("%d %i %u", MINLONG, MAXLONG, 0U), "-2147483648 2147483647 0");
}

TEST(Format, StringConversionsFollowTheFormatsWidth) {
  UNICODE_STRING counted;
  WCHAR text[] = L"VolumeXYZ";
  counted.Buffer = text;
  counted.Length = 6 * sizeof(WCHAR);  // "Volume": the counted length, not the terminator, ends it
  counted.MaximumLength = sizeof text;
  ANSI_STRING ansi{3, 4, const_cast<PCHAR>("C:\\x")};
  EXPECT_EQ(Narrow("%s|%ws|%S|%hs|%ls", "a", L"b", L"c", "d", L"e"), "a|b|c|d|e");
  EXPECT_EQ(Narrow("%wZ|%Z|%c|%C|%wc|%hc", &counted, &ansi, 'x', L'y', L'z', 'w'), "Volume|C:\\|x|y|z|w");
  EXPECT_EQ(Wide(L"%s|%S|%hs|%ws|%wZ|%c|%C", L"a", "b", "c", L"d", &counted, L'e', 'f'), "a|b|c|d|Volume|e|f");
  EXPECT_EQ(Narrow("%s|%ws|%wZ|%Z", static_cast<char*>(nullptr), static_cast<WCHAR*>(nullptr),
                   static_cast<UNICODE_STRING*>(nullptr), static_cast<ANSI_STRING*>(nullptr)),
            "(null)|(null)|(null)|(null)");
  // Wide text in an ANSI format goes through the ANSI code page.
  EXPECT_EQ(Narrow("%ws", L"\u00e9\u20ac\u03a9"), std::string("\xe9\x80?"));
  EXPECT_EQ(Wide(L"%S", "\xe9\x80"), "\u00e9\u20ac");
}

TEST(Format, FlagsWidthAndPrecision) {
  EXPECT_EQ(Narrow("[%5d][%-5d][%05d][%+d][% d][%.3d][%08.3d]", 42, 42, -42, 7, 7, 5, 5),
            "[   42][42   ][-0042][+7][ 7][005][     005]");
  EXPECT_EQ(Narrow("[%#x][%#X][%#o][%#x][%#010x]", 255, 255, 8, 0, 26), "[0xff][0XFF][010][0][0x0000001a]");
  EXPECT_EQ(Narrow("[%*d][%-*d][%.*s][%.0d]", 4, 1, 3, 2, 2, "abcdef", 0), "[   1][2  ][ab][]");
  EXPECT_EQ(Narrow("[%*d]", -3, 9), "[9  ]") << "a negative '*' width left-justifies";
  UNICODE_STRING s;
  RtlInitUnicodeString(&s, L"Harddisk");
  EXPECT_EQ(Narrow("[%.4wZ][%10.4wZ][%-6s]", &s, &s, "ab"), "[Hard][      Hard][ab    ]");
  EXPECT_EQ(Narrow("100%% %q"), "100% q") << "an unknown conversion prints as it stands";
  EXPECT_EQ(Narrow("%.2f|%e", 2.5, 1.0), "2.50|1.000000e+00");
}

TEST(Format, BoundedPrintCutsTerminatesAndReportsOverflow) {
  char buffer[12];
  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(RtlStringCbPrintfA(buffer, 8, "%s-%d", "volume", 12345), STATUS_BUFFER_OVERFLOW);
  EXPECT_STREQ(buffer, "volume-");
  EXPECT_EQ(buffer[8], '#') << "nothing is written past the given size";
  EXPECT_EQ(RtlStringCbPrintfA(buffer, 8, "%s", "1234567"), STATUS_SUCCESS) << "exactly fits with its terminator";
  EXPECT_EQ(RtlStringCbPrintfA(buffer, 8, "%s", "12345678"), STATUS_BUFFER_OVERFLOW);
  EXPECT_STREQ(buffer, "1234567");

  std::memset(buffer, '#', sizeof buffer);
  EXPECT_EQ(RtlStringCbPrintfA(buffer, 0, "x"), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(RtlStringCbPrintfA(buffer, static_cast<size_t>(NTSTRSAFE_MAX_CCH) + 1, "x"), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(buffer[0], '#') << "an invalid size leaves the buffer alone";

  WCHAR wide[6];
  EXPECT_EQ(RtlStringCbPrintfW(wide, 9, L"%ws", L"abcdef"), STATUS_BUFFER_OVERFLOW) << "9 bytes hold 4 characters";
  EXPECT_EQ(kvhost::ToUtf8(reinterpret_cast<const char16_t*>(wide)), "abc");
  EXPECT_EQ(RtlStringCbPrintfW(wide, 1, L"x"), STATUS_INVALID_PARAMETER);

  va_list none{};
  EXPECT_EQ(RtlStringCbVPrintfA(buffer, sizeof buffer, "plain text!!", none), STATUS_BUFFER_OVERFLOW);
  EXPECT_STREQ(buffer, "plain text!");
}

TEST(DebugOutput, CapturesComponentLevelAndTheFormattedText) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"\\Device\\HarddiskVolume3");
  DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_INFO_LEVEL, "\nDriver Version %d.%d.%d\n", 10, 0, 1000);
  DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, "[KVCBT] %s: %wZ %ld\n", "CbtResumeVolumeIo", &name,
             static_cast<ULONG>(0xFFFFFFFF));
  DbgPrint("plain %d", 1);
  std::vector<kvhost::DebugOutputLine> lines = kvhost::TakeDebugOutput();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].ComponentId, 77u);
  EXPECT_EQ(lines[0].Level, 3u);
  EXPECT_EQ(lines[0].Text, "\nDriver Version 10.0.1000\n");
  EXPECT_EQ(lines[1].Level, 2u);
  EXPECT_EQ(lines[1].Text, "[KVCBT] CbtResumeVolumeIo: \\Device\\HarddiskVolume3 -1\n");
  EXPECT_EQ(lines[2].ComponentId, static_cast<ULONG>(DPFLTR_DEFAULT_ID));
  EXPECT_TRUE(kvhost::TakeDebugOutput().empty()) << "taking the lines clears them";

  std::string longText(600, 'x');
  DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "%s", longText.c_str());
  EXPECT_EQ(kvhost::TakeDebugOutput()[0].Text.size(), 511u) << "the system's message buffer is 512 bytes";

  testing::internal::CaptureStderr();
  kvhost::SetDebugOutputEcho(true);
  DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_WARNING_LEVEL, "echoed %s\n", "line");
  kvhost::SetDebugOutputEcho(false);
  DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_WARNING_LEVEL, "quiet\n");
  std::string echoed = testing::internal::GetCapturedStderr();
  EXPECT_NE(echoed.find("echoed line"), std::string::npos);
  EXPECT_EQ(echoed.find("quiet"), std::string::npos);
  EXPECT_EQ(kvhost::TakeDebugOutput().size(), 2u) << "echoed or not, every line is captured";
}

TEST(DebugOutput, UnicodeConversionsAreForPassiveLevelOnly) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"C:");
  kvhost::ViolationCapture capture;
  kvhost::RunAtIrql(DISPATCH_LEVEL, [&] {
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, "[KVCBT] %s: Executing paused IRP %p on device %p\n",
               "CbtResumeVolumeIo", &name, &name);
  });
  EXPECT_EQ(capture.Count(), 0u) << "plain conversions are fine at any IRQL: " << capture.Describe();
  kvhost::RunAtIrql(DISPATCH_LEVEL, [&] { DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_TRACE_LEVEL, "%wZ\n", &name); });
  ASSERT_TRUE(capture.Saw("PassiveLevelRequired")) << capture.Describe();
  EXPECT_NE(capture.All()[0].Message.find("\"%wZ\n\""), std::string::npos) << capture.Describe();
  EXPECT_EQ(kvhost::TakeDebugOutput().size(), 2u);
}

}  // namespace
