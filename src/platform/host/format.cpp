// The Windows-format printf engine. The host C library's printf is not used for this: its
// l is 64 bits here, its %S and %ls mean wchar_t of another width, and it knows neither
// %Z nor %wZ.
#include "format.h"

#include <algorithm>
#include <cstdio>
#include <type_traits>

#include "kvhost/strings.h"
#include "kvhost/verifier.h"

namespace kvhost {
namespace {

// Collects output up to a capacity and counts all of it.
template <typename Out>
struct Sink {
  Out* Buffer;
  size_t Capacity;
  size_t Count = 0;

  void Put(Out c) {
    if (Count < Capacity) Buffer[Count] = c;
    ++Count;
  }
  void Repeat(Out c, size_t times) {
    for (size_t i = Count; i < Capacity && i < Count + times; ++i) Buffer[i] = c;
    Count += times;
  }
};

// A character of either width, in the output's width: wide to narrow goes through the
// ANSI code page as the kernel's formatter does.
template <typename Out>
Out Convert(char c) {
  if constexpr (std::is_same_v<Out, char>)
    return c;
  else
    return static_cast<Out>(AnsiToUnicode(c));
}
template <typename Out>
Out Convert(WCHAR c) {
  if constexpr (std::is_same_v<Out, char>)
    return UnicodeToAnsi(static_cast<char16_t>(c));
  else
    return c;
}

enum class Size { Default, Char, Short, Long, LongLong, Wide };

struct Spec {
  bool Left = false;
  bool Plus = false;
  bool Space = false;
  bool Alternate = false;
  bool Zero = false;
  long long Width = 0;
  long long Precision = -1;  // none
  Size Length = Size::Default;
};

struct Arguments {
  va_list List;
};

template <typename Out>
class Formatter {
 public:
  Formatter(Sink<Out>& sink, Arguments& args) : sink_(sink), args_(args) {}

  // Whether an argument of the other width was converted through the code page.
  bool ConvertedWidth() const { return convertedWidth_; }

  void Run(const Out* f) {
    while (*f != 0) {
      if (*f != static_cast<Out>('%')) {
        sink_.Put(*f++);
        continue;
      }
      ++f;
      Spec spec;
      f = ParseSpec(f, spec);
      if (*f == 0) break;
      Out conversion = *f++;
      if (static_cast<std::make_unsigned_t<Out>>(conversion) > 0x7F) {
        sink_.Put(conversion);  // not a conversion letter: printed as it stands
        continue;
      }
      Conversion(static_cast<char>(conversion), spec);
    }
  }

 private:
  static constexpr bool kWideOutput = !std::is_same_v<Out, char>;

  static bool IsDigit(Out c) { return c >= static_cast<Out>('0') && c <= static_cast<Out>('9'); }

  const Out* ParseNumber(const Out* f, long long* value) {
    *value = 0;
    while (IsDigit(*f)) {
      if (*value < 100000000) *value = *value * 10 + (*f - static_cast<Out>('0'));
      ++f;
    }
    return f;
  }

  const Out* ParseSpec(const Out* f, Spec& spec) {
    for (;; ++f) {
      if (*f == '-') spec.Left = true;
      else if (*f == '+') spec.Plus = true;
      else if (*f == ' ') spec.Space = true;
      else if (*f == '#') spec.Alternate = true;
      else if (*f == '0') spec.Zero = true;
      else break;
    }
    if (*f == '*') {
      ++f;
      int w = va_arg(args_.List, int);
      if (w < 0) {
        spec.Left = true;
        spec.Width = -static_cast<long long>(w);
      } else {
        spec.Width = w;
      }
    } else {
      f = ParseNumber(f, &spec.Width);
    }
    if (*f == '.') {
      ++f;
      if (*f == '*') {
        ++f;
        int p = va_arg(args_.List, int);
        spec.Precision = p < 0 ? -1 : p;
      } else {
        f = ParseNumber(f, &spec.Precision);
      }
    }
    switch (*f) {
      case 'h':
        ++f;
        spec.Length = Size::Short;
        if (*f == 'h') ++f, spec.Length = Size::Char;
        break;
      case 'l':
        ++f;
        spec.Length = Size::Long;
        if (*f == 'l') ++f, spec.Length = Size::LongLong;
        break;
      case 'w':
        ++f;
        spec.Length = Size::Wide;
        break;
      case 'I':
        if (f[1] == '6' && f[2] == '4') {
          f += 3;
          spec.Length = Size::LongLong;
        } else if (f[1] == '3' && f[2] == '2') {
          f += 3;
          spec.Length = Size::Long;
        } else {
          ++f;
          spec.Length = Size::LongLong;  // pointer-sized
        }
        break;
      case 'j':
      case 'z':
      case 't':
        ++f;
        spec.Length = Size::LongLong;
        break;
      case 'L':
        ++f;
        break;
      default:
        break;
    }
    return f;
  }

  // Whether a %c / %s / %Z argument is wide: w and l say wide, h says narrow; otherwise
  // the lower-case letter is the output's own width and the capital the other one.
  static bool WideArgument(const Spec& spec, bool capital) {
    if (spec.Length == Size::Wide || spec.Length == Size::Long) return true;
    if (spec.Length == Size::Short || spec.Length == Size::Char) return false;
    return capital ? !kWideOutput : kWideOutput;
  }

  void Pad(const Spec& spec, long long used, bool before) {
    if (spec.Width <= used || spec.Left == before) return;
    sink_.Repeat(static_cast<Out>(before && spec.Zero ? '0' : ' '), static_cast<size_t>(spec.Width - used));
  }

  template <typename Src>
  void Text(const Src* text, size_t length, const Spec& spec) {
    Pad(spec, static_cast<long long>(length), true);
    for (size_t i = 0; i < length; ++i) sink_.Put(kvhost::Convert<Out>(text[i]));
    Pad(spec, static_cast<long long>(length), false);
  }

  template <typename Src>
  void TerminatedText(const Src* text, const Spec& spec) {
    if (text == nullptr) return Text("(null)", 6, spec);
    size_t length = 0;
    while ((spec.Precision < 0 || static_cast<long long>(length) < spec.Precision) && text[length] != 0) ++length;
    Text(text, length, spec);
  }

  void CountedText(bool wide, const Spec& spec) {
    if (wide) {
      auto* s = va_arg(args_.List, const UNICODE_STRING*);
      if (s == nullptr || s->Buffer == nullptr) return Text("(null)", 6, spec);
      return Text(s->Buffer, Limit(s->Length / sizeof(WCHAR), spec), spec);
    }
    auto* s = va_arg(args_.List, const STRING*);
    if (s == nullptr || s->Buffer == nullptr) return Text("(null)", 6, spec);
    Text(s->Buffer, Limit(s->Length, spec), spec);
  }

  static size_t Limit(size_t length, const Spec& spec) {
    return spec.Precision >= 0 && static_cast<size_t>(spec.Precision) < length ? static_cast<size_t>(spec.Precision)
                                                                                : length;
  }

  long long SignedArgument(Size size) {
    switch (size) {
      case Size::LongLong: return va_arg(args_.List, long long);
      case Size::Short: return static_cast<short>(va_arg(args_.List, int));
      case Size::Char: return static_cast<signed char>(va_arg(args_.List, int));
      default: return va_arg(args_.List, int);
    }
  }

  unsigned long long UnsignedArgument(Size size) {
    switch (size) {
      case Size::LongLong: return va_arg(args_.List, unsigned long long);
      case Size::Short: return static_cast<unsigned short>(va_arg(args_.List, unsigned));
      case Size::Char: return static_cast<unsigned char>(va_arg(args_.List, unsigned));
      default: return va_arg(args_.List, unsigned);
    }
  }

  void Integer(unsigned long long magnitude, bool negative, unsigned base, bool upper, const char* prefix,
               Spec spec) {
    char digits[24];
    int n = 0;
    const char* set = upper ? "0123456789ABCDEF" : "0123456789abcdef";
    for (unsigned long long v = magnitude; v != 0; v /= base) digits[n++] = set[v % base];
    if (magnitude == 0 && spec.Precision != 0) digits[n++] = '0';
    // The alternate form of octal begins with a 0 (which may already be there).
    bool octalZero = base == 8 && spec.Alternate && (n == 0 || digits[n - 1] != '0');
    char sign = negative ? '-' : spec.Plus ? '+' : spec.Space ? ' ' : 0;
    long long zeros = spec.Precision > n ? spec.Precision - n : 0;
    if (octalZero && zeros == 0) zeros = 1;
    long long prefixLength = static_cast<long long>(__builtin_strlen(prefix));
    long long used = (sign ? 1 : 0) + prefixLength + zeros + n;
    if (spec.Zero && !spec.Left && spec.Precision < 0 && spec.Width > used) {
      zeros += spec.Width - used;
      used = spec.Width;
    }
    spec.Zero = false;
    Pad(spec, used, true);
    if (sign) sink_.Put(static_cast<Out>(sign));
    for (const char* p = prefix; *p; ++p) sink_.Put(static_cast<Out>(*p));
    sink_.Repeat(static_cast<Out>('0'), static_cast<size_t>(zeros));
    while (n > 0) sink_.Put(static_cast<Out>(digits[--n]));
    Pad(spec, used, false);
  }

  void Floating(char conversion, const Spec& spec) {
    double value = va_arg(args_.List, double);
    char format[48];
    std::snprintf(format, sizeof format, "%%%s%s%s%s%s%lld.%lld%c", spec.Left ? "-" : "", spec.Plus ? "+" : "",
                  spec.Space ? " " : "", spec.Alternate ? "#" : "", spec.Zero ? "0" : "", spec.Width,
                  spec.Precision < 0 ? 6LL : spec.Precision, conversion);
    if (spec.Precision < 0 && (conversion == 'a' || conversion == 'A'))
      std::snprintf(format, sizeof format, "%%%s%s%lld%c", spec.Left ? "-" : "", spec.Zero ? "0" : "", spec.Width,
                    conversion);
    char text[512];
    int length = std::snprintf(text, sizeof text, format, value);
    Spec plain;
    Text(text, length < 0 ? 0 : std::min<size_t>(static_cast<size_t>(length), sizeof text - 1), plain);
  }

  void Conversion(char conversion, const Spec& spec) {
    switch (conversion) {
      case 'd':
      case 'i': {
        long long v = SignedArgument(spec.Length);
        unsigned long long magnitude = v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
        return Integer(magnitude, v < 0, 10, false, "", spec);
      }
      case 'u': {
        Spec unsignedSpec = spec;
        unsignedSpec.Plus = unsignedSpec.Space = false;
        return Integer(UnsignedArgument(spec.Length), false, 10, false, "", unsignedSpec);
      }
      case 'o':
      case 'x':
      case 'X': {
        unsigned long long v = UnsignedArgument(spec.Length);
        Spec unsignedSpec = spec;
        unsignedSpec.Plus = unsignedSpec.Space = false;
        const char* prefix = conversion == 'o' || !spec.Alternate || v == 0 ? "" : conversion == 'x' ? "0x" : "0X";
        return Integer(v, false, conversion == 'o' ? 8 : 16, conversion == 'X', prefix, unsignedSpec);
      }
      case 'p': {
        Spec pointerSpec = spec;
        pointerSpec.Precision = 2 * sizeof(void*);
        pointerSpec.Plus = pointerSpec.Space = pointerSpec.Zero = false;
        auto v = reinterpret_cast<ULONG_PTR>(va_arg(args_.List, void*));
        return Integer(v, false, 16, true, spec.Alternate ? "0X" : "", pointerSpec);
      }
      case 'c':
      case 'C': {
        int v = va_arg(args_.List, int);
        bool wide = WideArgument(spec, conversion == 'C');
        convertedWidth_ |= wide != kWideOutput;
        if (wide) {
          WCHAR c = static_cast<WCHAR>(v);
          return Text(&c, 1, spec);
        }
        char c = static_cast<char>(v);
        return Text(&c, 1, spec);
      }
      case 's':
      case 'S': {
        bool wide = WideArgument(spec, conversion == 'S');
        convertedWidth_ |= wide != kWideOutput;
        if (wide) return TerminatedText(va_arg(args_.List, const WCHAR*), spec);
        return TerminatedText(va_arg(args_.List, const char*), spec);
      }
      case 'Z': {
        bool wide = spec.Length == Size::Wide || spec.Length == Size::Long;
        convertedWidth_ |= wide != kWideOutput;
        return CountedText(wide, spec);
      }
      case 'n':
        // Writing through an argument is not supported by the kernel's formatter.
        (void)va_arg(args_.List, void*);
        return;
      case 'e':
      case 'E':
      case 'f':
      case 'F':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        return Floating(conversion, spec);
      default:
        // '%' itself, and an unknown conversion, are printed as they stand.
        sink_.Put(static_cast<Out>(conversion));
        return;
    }
  }

  Sink<Out>& sink_;
  Arguments& args_;
  bool convertedWidth_ = false;
};

// The code-page tables are pageable: converting text between widths needs PASSIVE_LEVEL.
template <typename Out>
void CheckConversionLevel(const Out* format) {
  KIRQL irql = KeGetCurrentIrql();
  if (irql == PASSIVE_LEVEL) return;
  std::string text;
  for (const Out* p = format; *p != 0 && text.size() < 200; ++p) text.push_back(static_cast<char>(*p));
  ReportViolationF("PassiveLevelRequired",
                   "the format \"%s\" converts text between ANSI and Unicode at IRQL %u (PASSIVE_LEVEL required)",
                   text.c_str(), irql);
}

template <typename Out>
size_t Format(Out* out, size_t capacity, const Out* format, va_list args) {
  Sink<Out> sink{out, capacity};
  Arguments arguments;
  va_copy(arguments.List, args);
  Formatter<Out> formatter(sink, arguments);
  formatter.Run(format);
  va_end(arguments.List);
  if (formatter.ConvertedWidth()) CheckConversionLevel(format);
  return sink.Count;
}

}  // namespace

size_t FormatText(char* out, size_t capacity, const char* format, va_list args) {
  return Format(out, capacity, format, args);
}

size_t FormatText(WCHAR* out, size_t capacity, const WCHAR* format, va_list args) {
  return Format(out, capacity, format, args);
}

}  // namespace kvhost
