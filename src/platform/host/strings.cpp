// The system's case mapping and ANSI code page.
#include "kvhost/strings.h"

namespace kvhost {
namespace {

// A block of lowercase letters and how each maps to its capital: by a fixed offset, or as
// alternating capital/small pairs (capital at c - 1) when Paired.
struct CaseRange {
  char16_t First;
  char16_t Last;
  int Offset;
  bool Paired;
};

// Downcasing takes the first range whose capitals hold the character, so sigma comes
// before final sigma (both map up to the same capital).
constexpr CaseRange kCaseRanges[] = {
    {u'a', u'z', -0x20, false},
    {0x00E0, 0x00F6, -0x20, false},  // Latin-1 small letters, but the division sign
    {0x00F8, 0x00FE, -0x20, false},
    {0x00FF, 0x00FF, 0x0178 - 0x00FF, false},
    {0x0101, 0x012F, -1, true},  // Latin Extended-A
    {0x0133, 0x0137, -1, true},
    {0x013A, 0x0148, -1, true},
    {0x014B, 0x0177, -1, true},
    {0x017A, 0x017E, -1, true},
    {0x03AC, 0x03AC, 0x0386 - 0x03AC, false},  // Greek with tonos
    {0x03AD, 0x03AF, 0x0388 - 0x03AD, false},
    {0x03CC, 0x03CC, 0x038C - 0x03CC, false},
    {0x03CD, 0x03CE, 0x038E - 0x03CD, false},
    {0x03C3, 0x03CB, -0x20, false},
    {0x03C2, 0x03C2, 0x03A3 - 0x03C2, false},  // final sigma
    {0x03B1, 0x03C1, -0x20, false},
    {0x0430, 0x044F, -0x20, false},  // Cyrillic
    {0x0450, 0x045F, -0x50, false},
    {0x0461, 0x0481, -1, true},
    {0x048B, 0x04BF, -1, true},
    {0x04D1, 0x052F, -1, true},
    {0x0561, 0x0586, -0x30, false},  // Armenian
    {0x1E01, 0x1E95, -1, true},      // Latin Extended Additional
    {0x1EA1, 0x1EFF, -1, true},
    {0x2170, 0x217F, -0x10, false},  // small Roman numerals
    {0x24D0, 0x24E9, -0x1A, false},  // circled small letters
    {0xFF41, 0xFF5A, -0x20, false},  // fullwidth
};

bool InPairedSmall(const CaseRange& r, char16_t c) { return c >= r.First && c <= r.Last && (c - r.First) % 2 == 0; }

// Code points of Windows-1252's bytes 0x80..0x9F (0 where the byte is undefined).
constexpr char16_t kAnsiHigh[32] = {
    0x20AC, 0,      0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0,      0x017D, 0,      0,      0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0,      0x017E, 0x0178,
};

}  // namespace

char16_t UpcaseChar(char16_t c) {
  if (c < 0x80) return c >= u'a' && c <= u'z' ? static_cast<char16_t>(c - 0x20) : c;
  for (const CaseRange& r : kCaseRanges) {
    if (r.Paired) {
      if (InPairedSmall(r, c)) return static_cast<char16_t>(c - 1);
    } else if (c >= r.First && c <= r.Last) {
      return static_cast<char16_t>(c + r.Offset);
    }
  }
  return c;
}

char16_t DowncaseChar(char16_t c) {
  if (c < 0x80) return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 0x20) : c;
  for (const CaseRange& r : kCaseRanges) {
    if (r.Paired) {
      if (InPairedSmall(r, static_cast<char16_t>(c + 1))) return static_cast<char16_t>(c + 1);
    } else if (c >= r.First + r.Offset && c <= r.Last + r.Offset) {
      return static_cast<char16_t>(c - r.Offset);
    }
  }
  return c;
}

std::u16string UpcaseText(std::u16string_view s) {
  std::u16string out(s);
  for (char16_t& c : out) c = UpcaseChar(c);
  return out;
}

bool EqualNoCase(std::u16string_view a, std::u16string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (a[i] != b[i] && UpcaseChar(a[i]) != UpcaseChar(b[i])) return false;
  return true;
}

char UnicodeToAnsi(char16_t c) {
  if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) return static_cast<char>(c);
  if (c < 0xA0 && kAnsiHigh[c - 0x80] == 0) return static_cast<char>(c);  // the five unassigned bytes
  for (int i = 0; i < 32; ++i)
    if (kAnsiHigh[i] == c) return static_cast<char>(0x80 + i);
  return '?';
}

char16_t AnsiToUnicode(char c) {
  auto byte = static_cast<unsigned char>(c);
  if (byte >= 0x80 && byte < 0xA0) return kAnsiHigh[byte - 0x80] != 0 ? kAnsiHigh[byte - 0x80] : byte;
  return byte;
}

std::u16string_view View(const UNICODE_STRING* s) {
  if (s == nullptr || s->Buffer == nullptr) return {};
  return {reinterpret_cast<const char16_t*>(s->Buffer), s->Length / sizeof(WCHAR)};
}

std::u16string_view View(const WCHAR* s) {
  if (s == nullptr) return {};
  return std::u16string_view(reinterpret_cast<const char16_t*>(s));
}

}  // namespace kvhost
