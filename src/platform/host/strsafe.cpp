// Bounded string routines: character arrays that always end terminated, and counted
// strings filled up to their MaximumLength.
#include <ntstrsafe.h>
#include <wdm.h>

#include "format.h"

namespace {

// ---------------------------------------------------------------------------------------
// Character arrays of either width.

template <typename C>
NTSTATUS ValidateDest(C* dest, size_t cchDest) {
  return dest == nullptr || cchDest == 0 || cchDest > NTSTRSAFE_MAX_CCH ? STATUS_INVALID_PARAMETER : STATUS_SUCCESS;
}

// The number of characters before the terminator, when there is one within cchMax.
template <typename C>
bool LengthWithin(const C* s, size_t cchMax, size_t* length) {
  for (size_t i = 0; i < cchMax; ++i) {
    if (s[i] == 0) {
      *length = i;
      return true;
    }
  }
  return false;
}

template <typename C>
NTSTATUS CopyWorker(C* dest, size_t cchDest, const C* src) {
  if (src == nullptr) {
    *dest = 0;
    return STATUS_INVALID_PARAMETER;
  }
  size_t n = 0;
  while (n < cchDest - 1 && src[n] != 0) {
    dest[n] = src[n];
    ++n;
  }
  dest[n] = 0;
  return src[n] == 0 ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

template <typename C>
NTSTATUS Copy(C* dest, size_t cchDest, const C* src) {
  NTSTATUS status = ValidateDest(dest, cchDest);
  return NT_SUCCESS(status) ? CopyWorker(dest, cchDest, src) : status;
}

template <typename C>
NTSTATUS Cat(C* dest, size_t cchDest, const C* src) {
  NTSTATUS status = ValidateDest(dest, cchDest);
  if (!NT_SUCCESS(status)) return status;
  size_t used = 0;
  if (!LengthWithin(dest, cchDest, &used)) return STATUS_INVALID_PARAMETER;
  return CopyWorker(dest + used, cchDest - used, src);
}

template <typename C>
NTSTATUS VPrintf(C* dest, size_t cchDest, const C* format, va_list args) {
  NTSTATUS status = ValidateDest(dest, cchDest);
  if (!NT_SUCCESS(status)) return status;
  if (format == nullptr) {
    *dest = 0;
    return STATUS_INVALID_PARAMETER;
  }
  size_t room = cchDest - 1;
  size_t length = kvhost::FormatText(dest, room, format, args);
  if (length > room) {
    dest[room] = 0;
    return STATUS_BUFFER_OVERFLOW;
  }
  dest[length] = 0;
  return STATUS_SUCCESS;
}

template <typename C>
NTSTATUS Length(const C* s, size_t cchMax, size_t* cchLength) {
  size_t length = 0;
  bool found = s != nullptr && cchMax != 0 && cchMax <= NTSTRSAFE_MAX_CCH && LengthWithin(s, cchMax, &length);
  if (cchLength != nullptr) *cchLength = found ? length : 0;
  return found ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

// ---------------------------------------------------------------------------------------
// Counted strings.

constexpr size_t kMaxCountedChars = NTSTRSAFE_UNICODE_STRING_MAX_CCH;

bool ValidCounted(PCUNICODE_STRING s) {
  return s != nullptr && s->Length % sizeof(WCHAR) == 0 && s->MaximumLength % sizeof(WCHAR) == 0 &&
         s->Length <= s->MaximumLength && s->MaximumLength <= kMaxCountedChars * sizeof(WCHAR) &&
         (s->Buffer != nullptr || s->MaximumLength == 0);
}

// Writes `count` characters of `src` at character `at` of `dest`, as many as fit.
NTSTATUS PutCounted(PUNICODE_STRING dest, size_t at, const WCHAR* src, size_t count) {
  size_t room = dest->MaximumLength / sizeof(WCHAR) - at;
  size_t n = count <= room ? count : room;
  for (size_t i = 0; i < n; ++i) dest->Buffer[at + i] = src[i];
  dest->Length = static_cast<USHORT>((at + n) * sizeof(WCHAR));
  return n == count ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

bool TerminatedCountedSource(NTSTRSAFE_PCWSTR src, size_t* count) {
  return src != nullptr && LengthWithin(src, kMaxCountedChars + 1, count) && *count <= kMaxCountedChars;
}

}  // namespace

extern "C" {

NTSTATUS RtlStringCbVPrintfA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszFormat, va_list argList) {
  return VPrintf(pszDest, cbDest, pszFormat, argList);
}

NTSTATUS RtlStringCbVPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszFormat, va_list argList) {
  return VPrintf(pszDest, cbDest / sizeof(WCHAR), pszFormat, argList);
}

NTSTATUS RtlStringCchVPrintfA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszFormat, va_list argList) {
  return VPrintf(pszDest, cchDest, pszFormat, argList);
}

NTSTATUS RtlStringCchVPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszFormat,
                              va_list argList) {
  return VPrintf(pszDest, cchDest, pszFormat, argList);
}

NTSTATUS RtlStringCbPrintfA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  NTSTATUS status = VPrintf(pszDest, cbDest, pszFormat, args);
  va_end(args);
  return status;
}

NTSTATUS RtlStringCbPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  NTSTATUS status = VPrintf(pszDest, cbDest / sizeof(WCHAR), pszFormat, args);
  va_end(args);
  return status;
}

NTSTATUS RtlStringCchPrintfA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  NTSTATUS status = VPrintf(pszDest, cchDest, pszFormat, args);
  va_end(args);
  return status;
}

NTSTATUS RtlStringCchPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  NTSTATUS status = VPrintf(pszDest, cchDest, pszFormat, args);
  va_end(args);
  return status;
}

NTSTATUS RtlStringCbCopyA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc) {
  return Copy(pszDest, cbDest, pszSrc);
}

NTSTATUS RtlStringCbCopyW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc) {
  return Copy(pszDest, cbDest / sizeof(WCHAR), pszSrc);
}

NTSTATUS RtlStringCchCopyA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc) {
  return Copy(pszDest, cchDest, pszSrc);
}

NTSTATUS RtlStringCchCopyW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc) {
  return Copy(pszDest, cchDest, pszSrc);
}

NTSTATUS RtlStringCbCatA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc) {
  return Cat(pszDest, cbDest, pszSrc);
}

NTSTATUS RtlStringCbCatW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc) {
  return Cat(pszDest, cbDest / sizeof(WCHAR), pszSrc);
}

NTSTATUS RtlStringCchCatA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc) {
  return Cat(pszDest, cchDest, pszSrc);
}

NTSTATUS RtlStringCchCatW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc) {
  return Cat(pszDest, cchDest, pszSrc);
}

NTSTATUS RtlStringCbLengthA(STRSAFE_PCNZCH psz, size_t cbMax, size_t* pcbLength) {
  return Length(psz, cbMax, pcbLength);
}

NTSTATUS RtlStringCbLengthW(STRSAFE_PCNZWCH psz, size_t cbMax, size_t* pcbLength) {
  NTSTATUS status = Length(psz, cbMax / sizeof(WCHAR), pcbLength);
  if (pcbLength != nullptr) *pcbLength *= sizeof(WCHAR);
  return status;
}

NTSTATUS RtlStringCchLengthA(STRSAFE_PCNZCH psz, size_t cchMax, size_t* pcchLength) {
  return Length(psz, cchMax, pcchLength);
}

NTSTATUS RtlStringCchLengthW(STRSAFE_PCNZWCH psz, size_t cchMax, size_t* pcchLength) {
  return Length(psz, cchMax, pcchLength);
}

NTSTATUS RtlUnicodeStringInit(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc) {
  if (DestinationString == nullptr) return STATUS_INVALID_PARAMETER;
  DestinationString->Length = DestinationString->MaximumLength = 0;
  DestinationString->Buffer = const_cast<PWCH>(pszSrc);
  if (pszSrc == nullptr) return STATUS_SUCCESS;
  size_t count = 0;
  if (!TerminatedCountedSource(pszSrc, &count) || count == kMaxCountedChars) {
    DestinationString->Buffer = nullptr;
    return STATUS_INVALID_PARAMETER;
  }
  DestinationString->Length = static_cast<USHORT>(count * sizeof(WCHAR));
  DestinationString->MaximumLength = static_cast<USHORT>(DestinationString->Length + sizeof(WCHAR));
  return STATUS_SUCCESS;
}

NTSTATUS RtlUnicodeStringVPrintf(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszFormat, va_list argList) {
  if (!ValidCounted(DestinationString) || pszFormat == nullptr) return STATUS_INVALID_PARAMETER;
  size_t room = DestinationString->MaximumLength / sizeof(WCHAR);
  size_t length = kvhost::FormatText(DestinationString->Buffer, room, pszFormat, argList);
  DestinationString->Length = static_cast<USHORT>((length < room ? length : room) * sizeof(WCHAR));
  return length <= room ? STATUS_SUCCESS : STATUS_BUFFER_OVERFLOW;
}

NTSTATUS RtlUnicodeStringPrintf(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  NTSTATUS status = RtlUnicodeStringVPrintf(DestinationString, pszFormat, args);
  va_end(args);
  return status;
}

NTSTATUS RtlUnicodeStringCopy(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
  if (!ValidCounted(DestinationString) || !ValidCounted(SourceString)) return STATUS_INVALID_PARAMETER;
  return PutCounted(DestinationString, 0, SourceString->Buffer, SourceString->Length / sizeof(WCHAR));
}

NTSTATUS RtlUnicodeStringCopyString(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc) {
  size_t count = 0;
  if (!ValidCounted(DestinationString) || !TerminatedCountedSource(pszSrc, &count)) return STATUS_INVALID_PARAMETER;
  return PutCounted(DestinationString, 0, pszSrc, count);
}

NTSTATUS RtlUnicodeStringCat(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString) {
  if (!ValidCounted(DestinationString) || !ValidCounted(SourceString)) return STATUS_INVALID_PARAMETER;
  return PutCounted(DestinationString, DestinationString->Length / sizeof(WCHAR), SourceString->Buffer,
                    SourceString->Length / sizeof(WCHAR));
}

NTSTATUS RtlUnicodeStringCatString(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc) {
  size_t count = 0;
  if (!ValidCounted(DestinationString) || !TerminatedCountedSource(pszSrc, &count)) return STATUS_INVALID_PARAMETER;
  return PutCounted(DestinationString, DestinationString->Length / sizeof(WCHAR), pszSrc, count);
}

}  // extern "C"
