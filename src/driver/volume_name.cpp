// Volume numbers from device names.
#include "driver/cbt_add_device.h"

namespace {

// The decimal number after Prefix, which must match exactly, case included. The number
// runs to the end of the name or to a NUL; any other character makes the name not a
// volume name of this form.
ULONG ParseNumberAfter(PCUNICODE_STRING Name, PCWSTR Prefix, USHORT PrefixChars) {
  if (Name == NULL || Name->Buffer == NULL) return 0;
  const USHORT chars = Name->Length / sizeof(WCHAR);
  if (chars < PrefixChars) return 0;
  for (USHORT i = 0; i < PrefixChars; ++i)
    if (Name->Buffer[i] != Prefix[i]) return 0;
  ULONG number = 0;
  for (USHORT i = PrefixChars; i < chars && Name->Buffer[i] != UNICODE_NULL; ++i) {
    const WCHAR c = Name->Buffer[i];
    if (c < L'0' || c > L'9') return 0;
    number = number * 10 + static_cast<ULONG>(c - L'0');
  }
  return number;
}

constexpr WCHAR kVolumePrefix[] = L"\\Device\\HarddiskVolume";
constexpr WCHAR kShadowCopyPrefix[] = L"\\Device\\HarddiskVolumeShadowCopy";

}  // namespace

ULONG CbtParseVolumeNumber(PCUNICODE_STRING Name) {
  return ParseNumberAfter(Name, kVolumePrefix, ARRAYSIZE(kVolumePrefix) - 1);
}

ULONG CbtParseShadowCopyNumber(PCUNICODE_STRING Name) {
  return ParseNumberAfter(Name, kShadowCopyPrefix, ARRAYSIZE(kShadowCopyPrefix) - 1);
}
