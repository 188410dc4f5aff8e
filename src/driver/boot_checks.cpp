// Checks of the boot environment: a scheduled boot-time defragmentation, and the filter
// lists of the volume classes, recorded for whoever reads the log after a support call.
#include "driver/cbt_boot_checks.h"
#include "driver/cbt_driver.h"

namespace {

constexpr ULONG kQueryBufferBytes = 4096;

// Filter lists are recorded as one line of at most 127 characters.
constexpr USHORT kFilterListBytes = 256;
constexpr USHORT kFilterListAnsiBytes = 128;

NTSTATUS OpenKey(PUNICODE_STRING Path, ACCESS_MASK Access, ULONG Attributes, PHANDLE Key) {
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, Path, Attributes, NULL, NULL);
  return ZwOpenKey(Key, Access, &attributes);
}

// Joins a REG_MULTI_SZ's strings in place: the NUL after each string becomes ';', and the
// NUL that ends the list ends the result (which keeps it). Returns the characters taken;
// a list without its final NUL is taken whole.
ULONG JoinMultiString(PWCH Characters, ULONG Count) {
  BOOLEAN previousReplaced = FALSE;
  for (ULONG i = 0; i < Count; ++i) {
    if (Characters[i] != UNICODE_NULL) {
      previousReplaced = FALSE;
      continue;
    }
    if (previousReplaced) return i + 1;
    previousReplaced = i > 0 && Characters[i - 1] != UNICODE_NULL;
    if (previousReplaced) Characters[i] = L';';
  }
  return Count;
}

}  // namespace

BOOLEAN CbtIsRaxcoBootTimeDefragEnabled(VOID) {
  PVOID buffer = ExAllocatePoolWithTag(NonPagedPoolNx, kQueryBufferBytes, CBT_POOL_TAG);
  if (buffer == NULL) return FALSE;
  BOOLEAN scheduled = FALSE;
  UNICODE_STRING keyPath = RTL_CONSTANT_STRING(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\DefragFs\\");
  HANDLE key = NULL;
  if (NT_SUCCESS(OpenKey(&keyPath, KEY_READ, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, &key))) {
    UNICODE_STRING valueName = RTL_CONSTANT_STRING(L"Start");
    ULONG resultLength = 0;
    if (NT_SUCCESS(ZwQueryValueKey(key, &valueName, KeyValueFullInformation, buffer, kQueryBufferBytes,
                                   &resultLength))) {
      PKEY_VALUE_FULL_INFORMATION value = static_cast<PKEY_VALUE_FULL_INFORMATION>(buffer);
      ULONG start = 0;
      const BOOLEAN isDword = value->Type == REG_DWORD && value->DataLength >= sizeof(ULONG);
      if (isDword) RtlCopyMemory(&start, static_cast<PUCHAR>(buffer) + value->DataOffset, sizeof(start));
      // Only a DWORD naming another start type clears the service; a boot start (0), or a
      // value nobody can read as a start type, is taken as a defragmentation at this boot.
      if (!isDword || start == 0) {
        CBT_LOG_DRIVER("CbtIsRaxcoBootTimeDefragEnabled", 0);
        scheduled = TRUE;
      }
    }
    ZwClose(key);
  }
  ExFreePoolWithTag(buffer, CBT_POOL_TAG);
  return scheduled;
}

NTSTATUS CbtLogClassFilters(const GUID* ClassGuid, PCWSTR ValueName, ULONG Line) {
  WCHAR listBuffer[kFilterListBytes / sizeof(WCHAR)];
  CHAR ansiBuffer[kFilterListAnsiBytes];
  RtlZeroMemory(listBuffer, sizeof(listBuffer));
  RtlZeroMemory(ansiBuffer, sizeof(ansiBuffer));
  UNICODE_STRING list = {0, kFilterListBytes - sizeof(WCHAR), listBuffer};
  ANSI_STRING ansi = {0, kFilterListAnsiBytes - 1, ansiBuffer};

  const NTSTATUS status = CbtQueryClassFilters(ClassGuid, ValueName, &list);
  if (NT_SUCCESS(status)) RtlUnicodeStringToAnsiString(&ansi, &list, FALSE);
  PCSTR text = ansi.Length != 0 && ansiBuffer[0] != ANSI_NULL ? ansiBuffer : "none";
  CbtLogEvent(0, 0, static_cast<WCHAR>(CBT_LOG_NO_DRIVE_LETTER), text, Line, static_cast<ULONG>(status));
  return status;
}

NTSTATUS CbtQueryClassFilters(const GUID* ClassGuid, PCWSTR ValueName, PUNICODE_STRING Output) {
  UNICODE_STRING guidText = {0, 0, NULL};
  NTSTATUS status = RtlStringFromGUID(*ClassGuid, &guidText);
  if (!NT_SUCCESS(status)) return status;
  PWCH buffer = static_cast<PWCH>(ExAllocatePoolWithTag(PagedPool, kQueryBufferBytes, CBT_POOL_TAG));
  if (buffer == NULL) {
    RtlFreeUnicodeString(&guidText);
    return STATUS_INSUFFICIENT_RESOURCES;
  }
  UNICODE_STRING keyPath = {0, static_cast<USHORT>(kQueryBufferBytes), buffer};
  RtlAppendUnicodeToString(&keyPath, L"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Class\\");
  RtlAppendUnicodeStringToString(&keyPath, &guidText);
  RtlFreeUnicodeString(&guidText);

  HANDLE key = NULL;
  status = OpenKey(&keyPath, KEY_READ | SYNCHRONIZE, OBJ_KERNEL_HANDLE, &key);
  if (NT_SUCCESS(status)) {
    // The key path is no longer needed: the same buffer takes the value.
    UNICODE_STRING valueName;
    RtlInitUnicodeString(&valueName, ValueName);
    ULONG resultLength = 0;
    status = ZwQueryValueKey(key, &valueName, KeyValuePartialInformation, buffer, kQueryBufferBytes, &resultLength);
    PKEY_VALUE_PARTIAL_INFORMATION value = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer);
    if (NT_SUCCESS(status) && value->Type == REG_MULTI_SZ) {
      PWCH characters = reinterpret_cast<PWCH>(value->Data);
      const ULONG taken = JoinMultiString(characters, value->DataLength / sizeof(WCHAR));
      UNICODE_STRING joined = {static_cast<USHORT>(taken * sizeof(WCHAR)), static_cast<USHORT>(taken * sizeof(WCHAR)),
                               characters};
      status = RtlAppendUnicodeStringToString(Output, &joined);
    }
    ZwClose(key);
  }
  ExFreePoolWithTag(buffer, CBT_POOL_TAG);
  return status;
}
