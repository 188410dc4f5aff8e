// GUIDs in their registry form, "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}", as device class
// keys and interface names carry them.
#include <cstdio>

#include <wdm.h>

#include "kvhost/strings.h"
#include "passive_level.h"
#include "rtl_string_memory.h"

namespace {

constexpr size_t kGuidChars = 38;  // braces included, no terminator

int HexValue(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

// Reads `digits` hex digits at `at`; false when one is not a hex digit.
bool ReadHex(std::u16string_view s, size_t at, int digits, unsigned long long* value) {
  *value = 0;
  for (int i = 0; i < digits; ++i) {
    int v = HexValue(s[at + i]);
    if (v < 0) return false;
    *value = *value << 4 | static_cast<unsigned>(v);
  }
  return true;
}

}  // namespace

extern "C" {

// The exact form only: braces, dashes in place, 32 hex digits of either case, nothing else.
NTSTATUS RtlGUIDFromString(PCUNICODE_STRING GuidString, GUID* Guid) {
  KV_REQUIRE_PASSIVE_LEVEL("RtlGUIDFromString");
  if (GuidString == nullptr || Guid == nullptr) return STATUS_INVALID_PARAMETER;
  std::u16string_view s = kvhost::View(GuidString);
  if (GuidString->Length % sizeof(WCHAR) != 0 || s.size() != kGuidChars || s[0] != u'{' || s[37] != u'}' ||
      s[9] != u'-' || s[14] != u'-' || s[19] != u'-' || s[24] != u'-')
    return STATUS_INVALID_PARAMETER;
  unsigned long long d1, d2, d3, b;
  GUID g;
  if (!ReadHex(s, 1, 8, &d1) || !ReadHex(s, 10, 4, &d2) || !ReadHex(s, 15, 4, &d3)) return STATUS_INVALID_PARAMETER;
  g.Data1 = static_cast<ULONG>(d1);
  g.Data2 = static_cast<USHORT>(d2);
  g.Data3 = static_cast<USHORT>(d3);
  static constexpr size_t kByteAt[8] = {20, 22, 25, 27, 29, 31, 33, 35};
  for (int i = 0; i < 8; ++i) {
    if (!ReadHex(s, kByteAt[i], 2, &b)) return STATUS_INVALID_PARAMETER;
    g.Data4[i] = static_cast<UCHAR>(b);
  }
  *Guid = g;
  return STATUS_SUCCESS;
}

// Upper-case hex in a terminated buffer from paged pool, freed with RtlFreeUnicodeString.
NTSTATUS RtlStringFromGUID(REFGUID Guid, PUNICODE_STRING GuidString) {
  KV_REQUIRE_PASSIVE_LEVEL("RtlStringFromGUID");
  char text[kGuidChars + 1];
  std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", Guid.Data1, Guid.Data2,
                     Guid.Data3, Guid.Data4[0], Guid.Data4[1], Guid.Data4[2], Guid.Data4[3], Guid.Data4[4],
                     Guid.Data4[5], Guid.Data4[6], Guid.Data4[7]);
  auto* buffer = static_cast<PWCH>(kvhost::AllocateStringBuffer((kGuidChars + 1) * sizeof(WCHAR)));
  if (buffer == nullptr) return STATUS_NO_MEMORY;
  for (size_t i = 0; i <= kGuidChars; ++i) buffer[i] = static_cast<WCHAR>(text[i]);
  GuidString->Buffer = buffer;
  GuidString->Length = kGuidChars * sizeof(WCHAR);
  GuidString->MaximumLength = (kGuidChars + 1) * sizeof(WCHAR);
  return STATUS_SUCCESS;
}

}  // extern "C"
