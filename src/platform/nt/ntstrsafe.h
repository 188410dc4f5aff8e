// Bounded string routines for kernel-mode code.
//
// Character-array routines (RtlStringCb* take the destination's size in bytes,
// RtlStringCch* in characters) always leave the destination NUL-terminated when its size
// is valid. A result that does not fit is cut, terminated, and reported as
// STATUS_BUFFER_OVERFLOW; a destination of size zero or beyond NTSTRSAFE_MAX_CCH
// characters is STATUS_INVALID_PARAMETER and is not touched.
//
// Counted-string routines (RtlUnicodeString*) fill a UNICODE_STRING up to its
// MaximumLength without a terminator and set its Length; a cut result is
// STATUS_BUFFER_OVERFLOW too. A malformed counted string (odd lengths, Length beyond
// MaximumLength, no buffer) is STATUS_INVALID_PARAMETER.
//
// The printf routines use the kernel's conversions: %ld is a 32-bit LONG, %I64d / %lld
// 64 bits, %ws / %S a wide string in an ANSI format, %wZ a PUNICODE_STRING, %Z a
// PANSI_STRING.
#pragma once
#include "km/basetypes.h"
#include "ntstatus.h"

#define NTSTRSAFE_MAX_CCH 2147483647
#define NTSTRSAFE_MAX_LENGTH (NTSTRSAFE_MAX_CCH - 1)
#define NTSTRSAFE_UNICODE_STRING_MAX_CCH (0xffff / sizeof(wchar_t))

typedef char* NTSTRSAFE_PSTR;
typedef const char* NTSTRSAFE_PCSTR;
typedef wchar_t* NTSTRSAFE_PWSTR;
typedef const wchar_t* NTSTRSAFE_PCWSTR;
typedef const char* STRSAFE_PCNZCH;
typedef const wchar_t* STRSAFE_PCNZWCH;

#define NTSTRSAFEDDI EXTERN_C NTSTATUS NTAPI

NTSTRSAFEDDI RtlStringCbPrintfA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszFormat, ...);
NTSTRSAFEDDI RtlStringCbPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszFormat, ...);
NTSTRSAFEDDI RtlStringCchPrintfA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszFormat, ...);
NTSTRSAFEDDI RtlStringCchPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszFormat, ...);
NTSTRSAFEDDI RtlStringCbVPrintfA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszFormat, va_list argList);
NTSTRSAFEDDI RtlStringCbVPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszFormat,
                                 va_list argList);
NTSTRSAFEDDI RtlStringCchVPrintfA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszFormat,
                                  va_list argList);
NTSTRSAFEDDI RtlStringCchVPrintfW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszFormat,
                                  va_list argList);

NTSTRSAFEDDI RtlStringCbCopyA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc);
NTSTRSAFEDDI RtlStringCbCopyW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc);
NTSTRSAFEDDI RtlStringCchCopyA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc);
NTSTRSAFEDDI RtlStringCchCopyW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc);

// The destination must already hold a terminated string within its size.
NTSTRSAFEDDI RtlStringCbCatA(NTSTRSAFE_PSTR pszDest, size_t cbDest, NTSTRSAFE_PCSTR pszSrc);
NTSTRSAFEDDI RtlStringCbCatW(NTSTRSAFE_PWSTR pszDest, size_t cbDest, NTSTRSAFE_PCWSTR pszSrc);
NTSTRSAFEDDI RtlStringCchCatA(NTSTRSAFE_PSTR pszDest, size_t cchDest, NTSTRSAFE_PCSTR pszSrc);
NTSTRSAFEDDI RtlStringCchCatW(NTSTRSAFE_PWSTR pszDest, size_t cchDest, NTSTRSAFE_PCWSTR pszSrc);

// STATUS_INVALID_PARAMETER (and a length of 0) when no terminator lies within the limit.
NTSTRSAFEDDI RtlStringCbLengthA(STRSAFE_PCNZCH psz, size_t cbMax, size_t* pcbLength);
NTSTRSAFEDDI RtlStringCbLengthW(STRSAFE_PCNZWCH psz, size_t cbMax, size_t* pcbLength);
NTSTRSAFEDDI RtlStringCchLengthA(STRSAFE_PCNZCH psz, size_t cchMax, size_t* pcchLength);
NTSTRSAFEDDI RtlStringCchLengthW(STRSAFE_PCNZWCH psz, size_t cchMax, size_t* pcchLength);

NTSTRSAFEDDI RtlUnicodeStringInit(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc);
NTSTRSAFEDDI RtlUnicodeStringPrintf(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszFormat, ...);
NTSTRSAFEDDI RtlUnicodeStringVPrintf(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszFormat,
                                     va_list argList);
NTSTRSAFEDDI RtlUnicodeStringCopy(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSTRSAFEDDI RtlUnicodeStringCopyString(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc);
NTSTRSAFEDDI RtlUnicodeStringCat(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
NTSTRSAFEDDI RtlUnicodeStringCatString(PUNICODE_STRING DestinationString, NTSTRSAFE_PCWSTR pszSrc);
