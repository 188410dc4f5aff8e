// RtlGetVersion and the release the machine reports.
#include "kvhost/version.h"

#include <algorithm>
#include <cstring>
#include <mutex>

#include "kvhost/verifier.h"

namespace kvhost {
namespace {

struct VersionState {
  std::mutex Lock;
  WindowsVersion Current;
};

VersionState& State() {
  static VersionState* state = new VersionState;
  return *state;
}

const bool kRegistered = [] {
  RegisterTestHooks({
      .Name = "version",
      .Order = 10,
      .Reset = [] { SetWindowsVersion(WindowsVersion{}); },
      .Quiesce = nullptr,
      .Check = nullptr,
      .SurvivesPowerLoss = true,
  });
  return true;
}();

}  // namespace

void SetWindowsVersion(const WindowsVersion& version) {
  std::lock_guard<std::mutex> guard(State().Lock);
  State().Current = version;
}

WindowsVersion GetWindowsVersion() {
  std::lock_guard<std::mutex> guard(State().Lock);
  return State().Current;
}

}  // namespace kvhost

// The caller sets dwOSVersionInfoSize to the size of the structure it passes: the EX
// fields are filled only for the larger one, and any other size is refused.
extern "C" NTSTATUS RtlGetVersion(PRTL_OSVERSIONINFOW lpVersionInformation) {
  if (lpVersionInformation == nullptr) return STATUS_INVALID_PARAMETER;
  ULONG size = lpVersionInformation->dwOSVersionInfoSize;
  if (size != sizeof(RTL_OSVERSIONINFOW) && size != sizeof(RTL_OSVERSIONINFOEXW)) return STATUS_INVALID_PARAMETER;
  kvhost::WindowsVersion v = kvhost::GetWindowsVersion();
  lpVersionInformation->dwMajorVersion = v.Major;
  lpVersionInformation->dwMinorVersion = v.Minor;
  lpVersionInformation->dwBuildNumber = v.Build;
  lpVersionInformation->dwPlatformId = VER_PLATFORM_WIN32_NT;
  size_t chars = std::min<size_t>(v.CsdVersion.size(), RTL_NUMBER_OF(lpVersionInformation->szCSDVersion) - 1);
  std::memset(lpVersionInformation->szCSDVersion, 0, sizeof lpVersionInformation->szCSDVersion);
  std::memcpy(lpVersionInformation->szCSDVersion, v.CsdVersion.data(), chars * sizeof(WCHAR));
  if (size == sizeof(RTL_OSVERSIONINFOEXW)) {
    auto* ex = reinterpret_cast<PRTL_OSVERSIONINFOEXW>(lpVersionInformation);
    ex->wServicePackMajor = v.ServicePackMajor;
    ex->wServicePackMinor = v.ServicePackMinor;
    ex->wSuiteMask = v.SuiteMask;
    ex->wProductType = v.ProductType;
    ex->wReserved = 0;
  }
  return STATUS_SUCCESS;
}
