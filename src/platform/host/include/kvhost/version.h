// The Windows release the machine reports through RtlGetVersion. Each test starts with
// the default, a current Windows 11 on ARM64 (10.0.26100, workstation).
#pragma once

#include <string>

#include <wdm.h>

namespace kvhost {

struct WindowsVersion {
  ULONG Major = 10;
  ULONG Minor = 0;
  ULONG Build = 26100;
  std::u16string CsdVersion;  // service-pack text, empty on current releases
  USHORT ServicePackMajor = 0;
  USHORT ServicePackMinor = 0;
  USHORT SuiteMask = VER_SUITE_SINGLEUSERTS;
  UCHAR ProductType = VER_NT_WORKSTATION;
};

void SetWindowsVersion(const WindowsVersion& version);
WindowsVersion GetWindowsVersion();

}  // namespace kvhost
