// Run-time library: bitmaps, counted strings, GUID strings, memory compare, version,
// registry query tables.
#pragma once
#include "basetypes.h"

// ---------------------------------------------------------------------------------------
// Bitmaps. Bit n lives in Buffer[n / 32], bit n % 32. Bits of the last ULONG beyond
// SizeOfBitMap are never reported by the count and find routines.
typedef struct _RTL_BITMAP {
  ULONG SizeOfBitMap;
  PULONG Buffer;
} RTL_BITMAP, *PRTL_BITMAP;

typedef struct _RTL_BITMAP_RUN {
  ULONG StartingIndex;
  ULONG NumberOfBits;
} RTL_BITMAP_RUN, *PRTL_BITMAP_RUN;

EXTERN_C NTSYSAPI VOID NTAPI RtlInitializeBitMap(PRTL_BITMAP BitMapHeader, PULONG BitMapBuffer, ULONG SizeOfBitMap);
EXTERN_C NTSYSAPI VOID NTAPI RtlClearBit(PRTL_BITMAP BitMapHeader, ULONG BitNumber);
EXTERN_C NTSYSAPI VOID NTAPI RtlSetBit(PRTL_BITMAP BitMapHeader, ULONG BitNumber);
EXTERN_C NTSYSAPI BOOLEAN NTAPI RtlTestBit(PRTL_BITMAP BitMapHeader, ULONG BitNumber);
EXTERN_C NTSYSAPI VOID NTAPI RtlClearAllBits(PRTL_BITMAP BitMapHeader);
EXTERN_C NTSYSAPI VOID NTAPI RtlSetAllBits(PRTL_BITMAP BitMapHeader);
EXTERN_C NTSYSAPI VOID NTAPI RtlClearBits(PRTL_BITMAP BitMapHeader, ULONG StartingIndex, ULONG NumberToClear);
EXTERN_C NTSYSAPI VOID NTAPI RtlSetBits(PRTL_BITMAP BitMapHeader, ULONG StartingIndex, ULONG NumberToSet);
// FALSE for an empty range and for a range that does not lie wholly inside the bitmap.
EXTERN_C NTSYSAPI BOOLEAN NTAPI RtlAreBitsClear(PRTL_BITMAP BitMapHeader, ULONG StartingIndex, ULONG Length);
EXTERN_C NTSYSAPI BOOLEAN NTAPI RtlAreBitsSet(PRTL_BITMAP BitMapHeader, ULONG StartingIndex, ULONG Length);
EXTERN_C NTSYSAPI ULONG NTAPI RtlNumberOfClearBits(PRTL_BITMAP BitMapHeader);
EXTERN_C NTSYSAPI ULONG NTAPI RtlNumberOfSetBits(PRTL_BITMAP BitMapHeader);
// Index of the first run of NumberToFind bits at or after HintIndex, else the first one
// before it; 0xFFFFFFFF when there is none.
EXTERN_C NTSYSAPI ULONG NTAPI RtlFindClearBits(PRTL_BITMAP BitMapHeader, ULONG NumberToFind, ULONG HintIndex);
EXTERN_C NTSYSAPI ULONG NTAPI RtlFindSetBits(PRTL_BITMAP BitMapHeader, ULONG NumberToFind, ULONG HintIndex);
EXTERN_C NTSYSAPI ULONG NTAPI RtlFindClearBitsAndSet(PRTL_BITMAP BitMapHeader, ULONG NumberToFind, ULONG HintIndex);
EXTERN_C NTSYSAPI ULONG NTAPI RtlFindSetBitsAndClear(PRTL_BITMAP BitMapHeader, ULONG NumberToFind, ULONG HintIndex);
// Length of the next run at or after FromIndex (0 when none) and its start in
// *StartingRunIndex (the bitmap's size when none).
EXTERN_C NTSYSAPI ULONG NTAPI RtlFindNextForwardRunClear(PRTL_BITMAP BitMapHeader, ULONG FromIndex,
                                                          PULONG StartingRunIndex);
EXTERN_C NTSYSAPI ULONG NTAPI RtlFindNextForwardRunSet(PRTL_BITMAP BitMapHeader, ULONG FromIndex,
                                                        PULONG StartingRunIndex);
EXTERN_C NTSYSAPI ULONG NTAPI RtlFindFirstRunClear(PRTL_BITMAP BitMapHeader, PULONG StartingIndex);
EXTERN_C NTSYSAPI ULONG NTAPI RtlFindLongestRunClear(PRTL_BITMAP BitMapHeader, PULONG StartingIndex);
// The first SizeOfRunArray clear runs in bitmap order, or with LocateLongestRuns the
// longest ones, longest first. Returns the number of runs stored.
EXTERN_C NTSYSAPI ULONG NTAPI RtlFindClearRuns(PRTL_BITMAP BitMapHeader, PRTL_BITMAP_RUN RunArray,
                                                ULONG SizeOfRunArray, BOOLEAN LocateLongestRuns);

#define RtlCheckBit(BMH, BP) ((((BMH)->Buffer[(BP) / 32]) >> ((BP) % 32)) & 0x1)

// ---------------------------------------------------------------------------------------
// Counted strings. Strings allocated by these routines come from paged pool and are
// released with RtlFreeUnicodeString / RtlFreeAnsiString.
EXTERN_C NTSYSAPI VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlInitUnicodeStringEx(PUNICODE_STRING DestinationString, PCWSTR SourceString);
EXTERN_C NTSYSAPI VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
EXTERN_C NTSYSAPI VOID NTAPI RtlInitString(PSTRING DestinationString, PCSZ SourceString);
EXTERN_C NTSYSAPI VOID NTAPI RtlCopyUnicodeString(PUNICODE_STRING DestinationString, PCUNICODE_STRING SourceString);
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING Destination, PCUNICODE_STRING Source);
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlAppendUnicodeToString(PUNICODE_STRING Destination, PCWSTR Source);
EXTERN_C NTSYSAPI LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                                     BOOLEAN CaseInSensitive);
EXTERN_C NTSYSAPI BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                                      BOOLEAN CaseInSensitive);
EXTERN_C NTSYSAPI BOOLEAN NTAPI RtlPrefixUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                                                       BOOLEAN CaseInSensitive);
EXTERN_C NTSYSAPI LONG NTAPI RtlCompareString(const STRING* String1, const STRING* String2, BOOLEAN CaseInSensitive);
EXTERN_C NTSYSAPI BOOLEAN NTAPI RtlEqualString(const STRING* String1, const STRING* String2, BOOLEAN CaseInSensitive);
EXTERN_C NTSYSAPI WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR SourceCharacter);
EXTERN_C NTSYSAPI WCHAR NTAPI RtlDowncaseUnicodeChar(WCHAR SourceCharacter);
EXTERN_C NTSYSAPI CHAR NTAPI RtlUpperChar(CHAR Character);
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlUpcaseUnicodeString(PUNICODE_STRING DestinationString,
                                                        PCUNICODE_STRING SourceString,
                                                        BOOLEAN AllocateDestinationString);
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToAnsiString(PANSI_STRING DestinationString,
                                                              PCUNICODE_STRING SourceString,
                                                              BOOLEAN AllocateDestinationString);
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlAnsiStringToUnicodeString(PUNICODE_STRING DestinationString,
                                                              PCANSI_STRING SourceString,
                                                              BOOLEAN AllocateDestinationString);
EXTERN_C NTSYSAPI VOID NTAPI RtlFreeUnicodeString(PUNICODE_STRING UnicodeString);
EXTERN_C NTSYSAPI VOID NTAPI RtlFreeAnsiString(PANSI_STRING AnsiString);
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlIntegerToUnicodeString(ULONG Value, ULONG Base, PUNICODE_STRING String);
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlUnicodeStringToInteger(PCUNICODE_STRING String, ULONG Base, PULONG Value);
EXTERN_C NTSYSAPI SIZE_T NTAPI RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length);

// ---------------------------------------------------------------------------------------
// GUIDs in registry form: "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}".
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlGUIDFromString(PCUNICODE_STRING GuidString, GUID* Guid);
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlStringFromGUID(REFGUID Guid, PUNICODE_STRING GuidString);

// ---------------------------------------------------------------------------------------
// Version.
typedef struct _OSVERSIONINFOW {
  ULONG dwOSVersionInfoSize;
  ULONG dwMajorVersion;
  ULONG dwMinorVersion;
  ULONG dwBuildNumber;
  ULONG dwPlatformId;
  WCHAR szCSDVersion[128];
} OSVERSIONINFOW, *POSVERSIONINFOW, *LPOSVERSIONINFOW, RTL_OSVERSIONINFOW, *PRTL_OSVERSIONINFOW;

typedef struct _OSVERSIONINFOEXW {
  ULONG dwOSVersionInfoSize;
  ULONG dwMajorVersion;
  ULONG dwMinorVersion;
  ULONG dwBuildNumber;
  ULONG dwPlatformId;
  WCHAR szCSDVersion[128];
  USHORT wServicePackMajor;
  USHORT wServicePackMinor;
  USHORT wSuiteMask;
  UCHAR wProductType;
  UCHAR wReserved;
} OSVERSIONINFOEXW, *POSVERSIONINFOEXW, *LPOSVERSIONINFOEXW, RTL_OSVERSIONINFOEXW, *PRTL_OSVERSIONINFOEXW;

C_ASSERT(sizeof(RTL_OSVERSIONINFOW) == 276);
C_ASSERT(sizeof(RTL_OSVERSIONINFOEXW) == 284);

#define VER_PLATFORM_WIN32_NT 2
#define VER_NT_WORKSTATION 0x0000001
#define VER_NT_DOMAIN_CONTROLLER 0x0000002
#define VER_NT_SERVER 0x0000003
#define VER_SUITE_SINGLEUSERTS 0x00000100

// dwOSVersionInfoSize must be the size of one of the two structures
// (STATUS_INVALID_PARAMETER otherwise); the EX fields are filled for the larger one.
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlGetVersion(PRTL_OSVERSIONINFOW lpVersionInformation);

// ---------------------------------------------------------------------------------------
// Registry query tables.
typedef NTSTATUS NTAPI RTL_QUERY_REGISTRY_ROUTINE(PWSTR ValueName, ULONG ValueType, PVOID ValueData,
                                                  ULONG ValueLength, PVOID Context, PVOID EntryContext);
typedef RTL_QUERY_REGISTRY_ROUTINE* PRTL_QUERY_REGISTRY_ROUTINE;

typedef struct _RTL_QUERY_REGISTRY_TABLE {
  PRTL_QUERY_REGISTRY_ROUTINE QueryRoutine;
  ULONG Flags;
  PWSTR Name;
  PVOID EntryContext;
  ULONG DefaultType;
  PVOID DefaultData;
  ULONG DefaultLength;
} RTL_QUERY_REGISTRY_TABLE, *PRTL_QUERY_REGISTRY_TABLE;

#define RTL_QUERY_REGISTRY_SUBKEY 0x00000001
#define RTL_QUERY_REGISTRY_TOPKEY 0x00000002
#define RTL_QUERY_REGISTRY_REQUIRED 0x00000004
#define RTL_QUERY_REGISTRY_NOVALUE 0x00000008
#define RTL_QUERY_REGISTRY_NOEXPAND 0x00000010
#define RTL_QUERY_REGISTRY_DIRECT 0x00000020
#define RTL_QUERY_REGISTRY_DELETE 0x00000040
#define RTL_QUERY_REGISTRY_TYPECHECK 0x00000100
#define RTL_QUERY_REGISTRY_TYPECHECK_SHIFT 24
#define RTL_QUERY_REGISTRY_TYPECHECK_MASK (0xff << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT)

#define RTL_REGISTRY_ABSOLUTE 0
#define RTL_REGISTRY_SERVICES 1
#define RTL_REGISTRY_CONTROL 2
#define RTL_REGISTRY_WINDOWS_NT 3
#define RTL_REGISTRY_DEVICEMAP 4
#define RTL_REGISTRY_USER 5
#define RTL_REGISTRY_MAXIMUM 6
#define RTL_REGISTRY_HANDLE 0x40000000
#define RTL_REGISTRY_OPTIONAL 0x80000000

EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path,
                                                        PRTL_QUERY_REGISTRY_TABLE QueryTable, PVOID Context,
                                                        PVOID Environment);
EXTERN_C NTSYSAPI NTSTATUS NTAPI RtlQueryRegistryValuesEx(ULONG RelativeTo, PCWSTR Path,
                                                          PRTL_QUERY_REGISTRY_TABLE QueryTable, PVOID Context,
                                                          PVOID Environment);
