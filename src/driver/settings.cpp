// The service key's values, read once while the driver loads.
#include "driver/cbt_driver.h"
#include "driver/cbt_settings.h"

CBT_SETTINGS CbtSettings;

namespace {

// The table has one entry per value and a zero entry that ends it.
constexpr ULONG kSettingCount = 9;

// Each entry stores straight into its setting and accepts only its own registry type: a
// value of another type stops the whole query there, so the values after it keep their
// defaults. A value that is missing keeps its default (no default data is given).
void DescribeSetting(PRTL_QUERY_REGISTRY_TABLE Entry, PCWSTR Name, PVOID Target, ULONG RegistryType) {
  Entry->QueryRoutine = NULL;
  Entry->Flags = RTL_QUERY_REGISTRY_DIRECT | RTL_QUERY_REGISTRY_TYPECHECK;
  Entry->Name = const_cast<PWSTR>(Name);
  Entry->EntryContext = Target;
  Entry->DefaultType = (RegistryType << RTL_QUERY_REGISTRY_TYPECHECK_SHIFT) | REG_NONE;
  Entry->DefaultData = NULL;
  Entry->DefaultLength = 0;
}

void DescribeDword(PRTL_QUERY_REGISTRY_TABLE Entry, PCWSTR Name, PULONG Setting, ULONG Default) {
  *Setting = Default;
  DescribeSetting(Entry, Name, Setting, REG_DWORD);
}

typedef NTSTATUS NTAPI QUERY_REGISTRY_VALUES(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE QueryTable,
                                             PVOID Context, PVOID Environment);

// RtlQueryRegistryValuesEx where the system exports it (it is the form that checks types
// on every release), else the older routine.
QUERY_REGISTRY_VALUES* QueryRegistryValuesRoutine() {
  UNICODE_STRING name = RTL_CONSTANT_STRING(L"RtlQueryRegistryValuesEx");
  QUERY_REGISTRY_VALUES* routine = reinterpret_cast<QUERY_REGISTRY_VALUES*>(MmGetSystemRoutineAddress(&name));
  return routine != NULL ? routine : RtlQueryRegistryValues;
}

}  // namespace

NTSTATUS CbtReadSettings(PUNICODE_STRING RegistryPath) {
  CbtSettings.EventLevel = 0;
  const SIZE_T tableBytes = (kSettingCount + 1) * sizeof(RTL_QUERY_REGISTRY_TABLE);
  PRTL_QUERY_REGISTRY_TABLE table =
      static_cast<PRTL_QUERY_REGISTRY_TABLE>(ExAllocatePoolWithTag(NonPagedPoolNx, tableBytes, CBT_POOL_TAG));
  if (table == NULL) {
    // Without a table nothing can be read, but the defaults still hold: a driver that
    // loads under memory pressure must not start with USB volumes tracked and the
    // tracking-file failures unrecorded because every setting was left at zero.
    CbtSettings.PersistOverReboot = 0;
    CbtSettings.TrackUnmap = 0;
    CbtSettings.ExcludeUSB = 1;
    CbtSettings.WriteNotificationEvents = 1;
    CbtSettings.WriteNtfsEvents = 1;
    CbtSettings.ExcludeVHD = 0;
    CbtSettings.DebugLog = 0;
    return STATUS_SUCCESS;
  }
  RtlZeroMemory(table, tableBytes);
  DescribeDword(&table[0], L"EventLevel", &CbtSettings.EventLevel, 0);
  DescribeDword(&table[1], L"PersistOverReboot", &CbtSettings.PersistOverReboot, 0);
  DescribeDword(&table[2], L"TrackUnmap", &CbtSettings.TrackUnmap, 0);
  DescribeDword(&table[3], L"ExcludeUSB", &CbtSettings.ExcludeUSB, 1);
  DescribeDword(&table[4], L"WriteNotificationEvents", &CbtSettings.WriteNotificationEvents, 1);
  DescribeDword(&table[5], L"WriteNtfsEvents", &CbtSettings.WriteNtfsEvents, 1);
  DescribeDword(&table[6], L"ExcludeVHD", &CbtSettings.ExcludeVHD, 0);
  DescribeDword(&table[7], L"DebugLog", &CbtSettings.DebugLog, 0);
  // An empty string without a buffer: the query allocates one for the path it finds.
  RtlZeroMemory(&CbtSettings.DebugLogPath, sizeof(CbtSettings.DebugLogPath));
  DescribeSetting(&table[8], L"DebugLogPath", &CbtSettings.DebugLogPath, REG_EXPAND_SZ);

  const NTSTATUS status =
      QueryRegistryValuesRoutine()(RTL_REGISTRY_ABSOLUTE, RegistryPath->Buffer, table, NULL, NULL);
  ExFreePoolWithTag(table, CBT_POOL_TAG);
  return status;
}

VOID CbtReleaseSettings(VOID) { RtlFreeUnicodeString(&CbtSettings.DebugLogPath); }
