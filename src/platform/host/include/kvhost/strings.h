// Text helpers of the host kernel: the system's case mapping and ANSI code page, and views
// of counted and NUL-terminated UTF-16 strings.
//
// WCHAR is 16 bits project-wide, so host code never hands a WCHAR string to the C
// library's wide-character functions; it works on char16_t through these helpers.
#pragma once

#include <wdm.h>

#include <string>
#include <string_view>

namespace kvhost {

// The upcase and downcase tables of the system (the mapping RtlUpcaseUnicodeChar uses).
char16_t UpcaseChar(char16_t c);
char16_t DowncaseChar(char16_t c);
std::u16string UpcaseText(std::u16string_view s);
bool EqualNoCase(std::u16string_view a, std::u16string_view b);

// The system's ANSI code page (Windows-1252). A character it cannot represent becomes '?'.
char UnicodeToAnsi(char16_t c);
char16_t AnsiToUnicode(char c);

// The text of a counted string (empty for a null string or buffer).
std::u16string_view View(const UNICODE_STRING* s);
// The text of a NUL-terminated UTF-16 string (empty for null).
std::u16string_view View(const WCHAR* s);

}  // namespace kvhost
