// What the machine tells the driver about itself: the Windows release and which kernel
// routines it exports.
#include <gtest/gtest.h>
#include <wdm.h>

#include <cstring>

#include "kvhost/system_routines.h"
#include "kvhost/version.h"

namespace {

PVOID Lookup(const WCHAR* name) {
  UNICODE_STRING text;
  RtlInitUnicodeString(&text, name);
  return MmGetSystemRoutineAddress(&text);
}

TEST(SystemRoutines, HiddenRoutinesReturnNullSoCallersFallBack) {
  EXPECT_EQ(Lookup(L"RtlQueryRegistryValuesEx"), reinterpret_cast<PVOID>(&RtlQueryRegistryValuesEx));
  EXPECT_EQ(Lookup(L"rtlqueryregistryvaluesex"), nullptr) << "export names are matched exactly";
  EXPECT_EQ(Lookup(L"NoSuchRoutine"), nullptr);

  kvhost::HideSystemRoutine("RtlQueryRegistryValuesEx");
  EXPECT_EQ(Lookup(L"RtlQueryRegistryValuesEx"), nullptr);
  EXPECT_EQ(Lookup(L"RtlQueryRegistryValues"), reinterpret_cast<PVOID>(&RtlQueryRegistryValues));
  kvhost::ShowSystemRoutine("RtlQueryRegistryValuesEx");
  EXPECT_NE(Lookup(L"RtlQueryRegistryValuesEx"), nullptr);
}

TEST(Version, ReportsTheMachinesReleaseAndChecksTheSizeField) {
  struct {
    RTL_OSVERSIONINFOEXW Info;
    unsigned char Guard[8];
  } buffer;
  std::memset(&buffer, 0xAB, sizeof buffer);
  buffer.Info.dwOSVersionInfoSize = sizeof(RTL_OSVERSIONINFOW);
  ASSERT_EQ(RtlGetVersion(reinterpret_cast<PRTL_OSVERSIONINFOW>(&buffer.Info)), STATUS_SUCCESS);
  EXPECT_EQ(buffer.Info.dwMajorVersion, 10u);
  EXPECT_EQ(buffer.Info.dwMinorVersion, 0u);
  EXPECT_EQ(buffer.Info.dwBuildNumber, 26100u);
  EXPECT_EQ(buffer.Info.dwPlatformId, static_cast<ULONG>(VER_PLATFORM_WIN32_NT));
  EXPECT_EQ(buffer.Info.wServicePackMajor, 0xABAB) << "the EX fields are left alone for the small structure";

  kvhost::SetWindowsVersion({.Major = 6, .Minor = 1, .Build = 7601, .CsdVersion = u"Service Pack 1",
                             .ServicePackMajor = 1, .ProductType = VER_NT_SERVER});
  buffer.Info.dwOSVersionInfoSize = sizeof(RTL_OSVERSIONINFOEXW);
  ASSERT_EQ(RtlGetVersion(reinterpret_cast<PRTL_OSVERSIONINFOW>(&buffer.Info)), STATUS_SUCCESS);
  EXPECT_EQ(buffer.Info.dwBuildNumber, 7601u);
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(buffer.Info.szCSDVersion)), u"Service Pack 1");
  EXPECT_EQ(buffer.Info.wServicePackMajor, 1);
  EXPECT_EQ(buffer.Info.wProductType, VER_NT_SERVER);
  EXPECT_EQ(buffer.Guard[0], 0xAB);

  buffer.Info.dwOSVersionInfoSize = sizeof(RTL_OSVERSIONINFOW) - 4;
  EXPECT_EQ(RtlGetVersion(reinterpret_cast<PRTL_OSVERSIONINFOW>(&buffer.Info)), STATUS_INVALID_PARAMETER);
  buffer.Info.dwOSVersionInfoSize = 0;
  EXPECT_EQ(RtlGetVersion(reinterpret_cast<PRTL_OSVERSIONINFOW>(&buffer.Info)), STATUS_INVALID_PARAMETER);
}

}  // namespace
