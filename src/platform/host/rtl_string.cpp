// Counted-string routines: UNICODE_STRING and ANSI_STRING initialisation, copy, append,
// compare, case, ANSI conversion and integers.
#include <algorithm>
#include <cstring>

#include <wdm.h>

#include "kvhost/strings.h"
#include "passive_level.h"
#include "rtl_string_memory.h"

namespace {

constexpr USHORT kMaxUnicodeBytes = 0xFFFE;  // the largest even USHORT

WCHAR* At(const UNICODE_STRING* s, USHORT byteOffset) { return s->Buffer + byteOffset / sizeof(WCHAR); }

// Terminates a counted string when a whole character of room is left after its text.
void TerminateIfRoom(PUNICODE_STRING s) {
  if (static_cast<ULONG>(s->Length) + sizeof(WCHAR) <= s->MaximumLength) *At(s, s->Length) = UNICODE_NULL;
}

LONG CompareUnits(std::u16string_view a, std::u16string_view b, bool caseInsensitive, LONG lengthDifference) {
  size_t n = std::min(a.size(), b.size());
  for (size_t i = 0; i < n; ++i) {
    char16_t x = caseInsensitive ? kvhost::UpcaseChar(a[i]) : a[i];
    char16_t y = caseInsensitive ? kvhost::UpcaseChar(b[i]) : b[i];
    if (x != y) return static_cast<LONG>(x) - static_cast<LONG>(y);
  }
  return lengthDifference;
}

// Gives a counted string (of either width) a new pool buffer of `bytes`; on failure the
// string is left empty.
template <typename Counted>
bool AllocateBuffer(Counted* s, ULONG bytes) {
  s->Buffer = static_cast<decltype(s->Buffer)>(kvhost::AllocateStringBuffer(bytes));
  if (s->Buffer == nullptr) {
    s->Length = s->MaximumLength = 0;
    return false;
  }
  s->MaximumLength = static_cast<USHORT>(bytes);
  return true;
}

bool ValidBase(ULONG base) { return base == 2 || base == 8 || base == 10 || base == 16; }

}  // namespace

extern "C" {

VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
  DestinationString->Buffer = const_cast<PWCH>(SourceString);
  if (SourceString == nullptr) {
    DestinationString->Length = DestinationString->MaximumLength = 0;
    return;
  }
  size_t bytes = std::min<size_t>(kvhost::View(SourceString).size() * sizeof(WCHAR), kMaxUnicodeBytes - sizeof(WCHAR));
  DestinationString->Length = static_cast<USHORT>(bytes);
  DestinationString->MaximumLength = static_cast<USHORT>(bytes + sizeof(WCHAR));
}

NTSTATUS RtlInitUnicodeStringEx(PUNICODE_STRING DestinationString, PCWSTR SourceString) {
  if (kvhost::View(SourceString).size() * sizeof(WCHAR) > kMaxUnicodeBytes - sizeof(WCHAR)) {
    DestinationString->Length = DestinationString->MaximumLength = 0;
    DestinationString->Buffer = nullptr;
    return STATUS_NAME_TOO_LONG;
  }
  RtlInitUnicodeString(DestinationString, SourceString);
  return STATUS_SUCCESS;
}

VOID RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString) {
  DestinationString->Buffer = const_cast<PCHAR>(SourceString);
  if (SourceString == nullptr) {
    DestinationString->Length = DestinationString->MaximumLength = 0;
    return;
  }
  size_t bytes = std::min<size_t>(std::strlen(SourceString), MAXUSHORT - 1);
  DestinationString->Length = static_cast<USHORT>(bytes);
  DestinationString->MaximumLength = static_cast<USHORT>(bytes + 1);
}

VOID RtlInitString(PSTRING DestinationString, PCSZ SourceString) { RtlInitAnsiString(DestinationString, SourceString); }

// Copies as much as fits; the result is terminated when there is room for it.
VOID RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
  if (SourceString == nullptr || SourceString->Buffer == nullptr) {
    DestinationString->Length = 0;
    return;
  }
  USHORT bytes = std::min(SourceString->Length, DestinationString->MaximumLength);
  std::memmove(DestinationString->Buffer, SourceString->Buffer, bytes);
  DestinationString->Length = bytes;
  TerminateIfRoom(DestinationString);
}

NTSTATUS RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source) {
  if (Source == nullptr || Source->Length == 0) return STATUS_SUCCESS;
  if (static_cast<ULONG>(Destination->Length) + Source->Length > Destination->MaximumLength)
    return STATUS_BUFFER_TOO_SMALL;
  std::memmove(At(Destination, Destination->Length), Source->Buffer, Source->Length);
  Destination->Length = static_cast<USHORT>(Destination->Length + Source->Length);
  TerminateIfRoom(Destination);
  return STATUS_SUCCESS;
}

NTSTATUS RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source) {
  if (Source == nullptr) return STATUS_SUCCESS;
  size_t bytes = kvhost::View(Source).size() * sizeof(WCHAR);
  if (Destination->Length + bytes > Destination->MaximumLength) return STATUS_BUFFER_TOO_SMALL;
  std::memmove(At(Destination, Destination->Length), Source, bytes);
  Destination->Length = static_cast<USHORT>(Destination->Length + bytes);
  TerminateIfRoom(Destination);
  return STATUS_SUCCESS;
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
  return CompareUnits(kvhost::View(String1), kvhost::View(String2), CaseInSensitive,
                      static_cast<LONG>(String1->Length) - static_cast<LONG>(String2->Length));
}

BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
  if (String1->Length != String2->Length) return FALSE;
  return RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

// TRUE when String1 is a prefix of String2.
BOOLEAN RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2, BOOLEAN CaseInSensitive) {
  if (String1->Length > String2->Length) return FALSE;
  std::u16string_view prefix = kvhost::View(String1);
  return CompareUnits(prefix, kvhost::View(String2).substr(0, prefix.size()), CaseInSensitive, 0) == 0;
}

CHAR RtlUpperChar(CHAR Character) {
  char16_t upper = kvhost::UpcaseChar(kvhost::AnsiToUnicode(Character));
  char back = kvhost::UnicodeToAnsi(upper);
  return back == '?' && upper != u'?' ? Character : back;
}

LONG RtlCompareString(const STRING* String1, const STRING* String2, BOOLEAN CaseInSensitive) {
  USHORT n = std::min(String1->Length, String2->Length);
  for (USHORT i = 0; i < n; ++i) {
    CHAR a = CaseInSensitive ? RtlUpperChar(String1->Buffer[i]) : String1->Buffer[i];
    CHAR b = CaseInSensitive ? RtlUpperChar(String2->Buffer[i]) : String2->Buffer[i];
    if (a != b) return static_cast<LONG>(static_cast<UCHAR>(a)) - static_cast<LONG>(static_cast<UCHAR>(b));
  }
  return static_cast<LONG>(String1->Length) - static_cast<LONG>(String2->Length);
}

BOOLEAN RtlEqualString(const STRING* String1, const STRING* String2, BOOLEAN CaseInSensitive) {
  return String1->Length == String2->Length && RtlCompareString(String1, String2, CaseInSensitive) == 0;
}

WCHAR RtlUpcaseUnicodeChar(WCHAR SourceCharacter) { return kvhost::UpcaseChar(SourceCharacter); }

WCHAR RtlDowncaseUnicodeChar(WCHAR SourceCharacter) { return kvhost::DowncaseChar(SourceCharacter); }

NTSTATUS RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString,
                                BOOLEAN AllocateDestinationString) {
  KV_REQUIRE_PASSIVE_LEVEL("RtlUpcaseUnicodeString");
  std::u16string upper = kvhost::UpcaseText(kvhost::View(SourceString));
  USHORT bytes = SourceString->Length;
  if (AllocateDestinationString) {
    if (!AllocateBuffer(DestinationString, bytes)) return STATUS_NO_MEMORY;
  } else if (bytes > DestinationString->MaximumLength) {
    return STATUS_BUFFER_OVERFLOW;
  }
  std::memcpy(DestinationString->Buffer, upper.data(), bytes);
  DestinationString->Length = bytes;
  return STATUS_SUCCESS;
}

// Without allocation a destination too small gets what fits, terminated, and
// STATUS_BUFFER_OVERFLOW.
NTSTATUS RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString, PCUNICODE_STRING SourceString,
                                      BOOLEAN AllocateDestinationString) {
  KV_REQUIRE_PASSIVE_LEVEL("RtlUnicodeStringToAnsiString");
  std::u16string_view text = kvhost::View(SourceString);
  ULONG ansiSize = static_cast<ULONG>(text.size()) + 1;
  if (ansiSize > MAXUSHORT) return STATUS_INVALID_PARAMETER_2;
  NTSTATUS status = STATUS_SUCCESS;
  DestinationString->Length = static_cast<USHORT>(ansiSize - 1);
  if (AllocateDestinationString) {
    if (!AllocateBuffer(DestinationString, ansiSize)) return STATUS_NO_MEMORY;
  } else if (DestinationString->Length >= DestinationString->MaximumLength) {
    status = STATUS_BUFFER_OVERFLOW;
    if (DestinationString->MaximumLength == 0) {
      DestinationString->Length = 0;
      return status;
    }
    DestinationString->Length = static_cast<USHORT>(DestinationString->MaximumLength - 1);
  }
  for (USHORT i = 0; i < DestinationString->Length; ++i) DestinationString->Buffer[i] = kvhost::UnicodeToAnsi(text[i]);
  DestinationString->Buffer[DestinationString->Length] = ANSI_NULL;
  return status;
}

// Without allocation a destination too small gets nothing and STATUS_BUFFER_OVERFLOW; its
// Length is already set to the full converted length then, as the system's routine leaves
// it.
NTSTATUS RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString, PCANSI_STRING SourceString,
                                      BOOLEAN AllocateDestinationString) {
  KV_REQUIRE_PASSIVE_LEVEL("RtlAnsiStringToUnicodeString");
  ULONG unicodeSize = (static_cast<ULONG>(SourceString->Length) + 1) * sizeof(WCHAR);
  if (unicodeSize > kMaxUnicodeBytes) return STATUS_INVALID_PARAMETER_2;
  DestinationString->Length = static_cast<USHORT>(unicodeSize - sizeof(WCHAR));
  if (AllocateDestinationString) {
    if (!AllocateBuffer(DestinationString, unicodeSize)) return STATUS_NO_MEMORY;
  } else if (DestinationString->Length >= DestinationString->MaximumLength) {
    return STATUS_BUFFER_OVERFLOW;
  }
  for (USHORT i = 0; i < SourceString->Length; ++i)
    DestinationString->Buffer[i] = kvhost::AnsiToUnicode(SourceString->Buffer[i]);
  DestinationString->Buffer[SourceString->Length] = UNICODE_NULL;
  return STATUS_SUCCESS;
}

VOID RtlFreeUnicodeString(PUNICODE_STRING UnicodeString) {
  if (UnicodeString->Buffer != nullptr) kvhost::FreeStringBuffer(UnicodeString->Buffer);
  UnicodeString->Buffer = nullptr;
  UnicodeString->Length = UnicodeString->MaximumLength = 0;
}

VOID RtlFreeAnsiString(PANSI_STRING AnsiString) {
  if (AnsiString->Buffer != nullptr) kvhost::FreeStringBuffer(AnsiString->Buffer);
  AnsiString->Buffer = nullptr;
  AnsiString->Length = AnsiString->MaximumLength = 0;
}

// The digits go through RtlAnsiStringToUnicodeString, so a buffer without room for the
// terminator gives STATUS_BUFFER_OVERFLOW as it does there.
NTSTATUS RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String) {
  if (Base == 0) Base = 10;
  if (!ValidBase(Base)) return STATUS_INVALID_PARAMETER;
  char digits[33];
  int n = 0;
  do {
    digits[n++] = "0123456789ABCDEF"[Value % Base];
    Value /= Base;
  } while (Value != 0);
  std::reverse(digits, digits + n);
  digits[n] = '\0';
  ANSI_STRING ansi;
  RtlInitAnsiString(&ansi, digits);
  return RtlAnsiStringToUnicodeString(String, &ansi, FALSE);
}

// Leading blanks, a sign, and with base 0 a 0x / 0o / 0b prefix; digits are read up to
// the first character that is not one. The value wraps as a ULONG.
NTSTATUS RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value) {
  if (Value == nullptr) return STATUS_INVALID_PARAMETER;
  if (Base != 0 && !ValidBase(Base)) return STATUS_INVALID_PARAMETER;
  std::u16string_view s = kvhost::View(String);
  size_t i = 0;
  while (i < s.size() && s[i] <= u' ') ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == u'-' || s[i] == u'+')) negative = s[i++] == u'-';
  if (Base == 0) {
    Base = 10;
    if (i + 1 < s.size() && s[i] == u'0') {
      char16_t p = s[i + 1];
      Base = p == u'x' ? 16 : p == u'o' ? 8 : p == u'b' ? 2 : 10;
      if (Base != 10) i += 2;
    }
  }
  ULONG result = 0;
  for (; i < s.size(); ++i) {
    char16_t c = s[i];
    ULONG digit = c >= u'0' && c <= u'9'   ? c - u'0'
                  : c >= u'a' && c <= u'f' ? c - u'a' + 10
                  : c >= u'A' && c <= u'F' ? c - u'A' + 10
                                           : 99;
    if (digit >= Base) break;
    result = result * Base + digit;
  }
  *Value = negative ? 0U - result : result;
  return STATUS_SUCCESS;
}

SIZE_T RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length) {
  auto* a = static_cast<const unsigned char*>(Source1);
  auto* b = static_cast<const unsigned char*>(Source2);
  SIZE_T i = 0;
  while (i < Length && a[i] == b[i]) ++i;
  return i;
}

}  // extern "C"
