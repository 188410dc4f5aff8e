// The one printf engine of the host kernel, with the conversions of Windows' kernel
// formatter: l is 32 bits (LONG), I64 / ll / I are 64, %S is the other width's string,
// %ws / %hs name the width, %Z and %wZ print counted strings, %p is the pointer in
// upper-case hex digits. The bounded-print routines (ntstrsafe) and the debug output
// (DbgPrintEx) format through it.
#pragma once

#include <wdm.h>

#include <string>

namespace kvhost {

// Formats into out[0, capacity) without a terminator and returns the length of the whole
// result in characters, which is larger than `capacity` when the output was cut.
size_t FormatText(char* out, size_t capacity, const char* format, va_list args);
size_t FormatText(WCHAR* out, size_t capacity, const WCHAR* format, va_list args);

}  // namespace kvhost
