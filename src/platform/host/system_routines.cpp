// MmGetSystemRoutineAddress over the host kernel's export table.
#include "kvhost/system_routines.h"

#include <map>
#include <mutex>
#include <set>
#include <string>

#include <ntstrsafe.h>
#include <wdm.h>

#include "kvhost/object.h"
#include "kvhost/verifier.h"
#include "passive_level.h"

namespace kvhost {
namespace {

#define KV_EXPORT(routine) {#routine, reinterpret_cast<void*>(&routine)}

struct ExportTable {
  std::mutex Lock;
  std::map<std::string, void*, std::less<>> Routines{
      KV_EXPORT(RtlQueryRegistryValues),
      KV_EXPORT(RtlQueryRegistryValuesEx),
      KV_EXPORT(RtlGetVersion),
      KV_EXPORT(RtlInitializeBitMap),
      KV_EXPORT(RtlSetBits),
      KV_EXPORT(RtlClearBits),
      KV_EXPORT(RtlAreBitsSet),
      KV_EXPORT(RtlAreBitsClear),
      KV_EXPORT(RtlFindNextForwardRunClear),
      KV_EXPORT(RtlFindNextForwardRunSet),
      KV_EXPORT(RtlInitUnicodeString),
      KV_EXPORT(RtlInitUnicodeStringEx),
      KV_EXPORT(RtlCompareUnicodeString),
      KV_EXPORT(RtlEqualUnicodeString),
      KV_EXPORT(RtlUnicodeStringToAnsiString),
      KV_EXPORT(RtlFreeUnicodeString),
      KV_EXPORT(RtlGUIDFromString),
      KV_EXPORT(RtlStringFromGUID),
      KV_EXPORT(RtlCompareMemory),
      KV_EXPORT(ZwOpenKey),
      KV_EXPORT(ZwCreateKey),
      KV_EXPORT(ZwQueryValueKey),
      KV_EXPORT(ZwSetValueKey),
      KV_EXPORT(ZwClose),
      KV_EXPORT(DbgPrint),
      KV_EXPORT(DbgPrintEx),
      KV_EXPORT(vDbgPrintEx),
      KV_EXPORT(MmGetSystemRoutineAddress),
      KV_EXPORT(ZwOpenEvent),
      KV_EXPORT(ZwCreateEvent),
      KV_EXPORT(ZwSetEvent),
      KV_EXPORT(ZwWaitForSingleObject),
      // Executive routines that drivers look up before relying on them.
      KV_EXPORT(ExAllocatePoolWithTag),
      KV_EXPORT(ExAllocatePool2),
      KV_EXPORT(ExAllocatePoolZero),
      KV_EXPORT(ExFreePoolWithTag),
      KV_EXPORT(KeQueryPerformanceCounter),
      KV_EXPORT(KeQuerySystemTimePrecise),
      KV_EXPORT(KeQueryInterruptTimePrecise),
      KV_EXPORT(KeQueryActiveProcessorCountEx),
      KV_EXPORT(KeDelayExecutionThread),
      KV_EXPORT(PsCreateSystemThread),
  };
  std::set<std::string, std::less<>> Hidden;
};

#undef KV_EXPORT

ExportTable& Table() {
  static ExportTable* table = new ExportTable;
  return *table;
}

const bool kRegistered = [] {
  RegisterTestHooks({
      .Name = "system routines",
      .Order = 10,
      .Reset =
          [] {
            std::lock_guard<std::mutex> guard(Table().Lock);
            Table().Hidden.clear();
          },
      .Quiesce = nullptr,
      .Check = nullptr,
      .SurvivesPowerLoss = true,
  });
  return true;
}();

}  // namespace

void ExportSystemRoutine(std::string_view name, void* address) {
  std::lock_guard<std::mutex> guard(Table().Lock);
  Table().Routines[std::string(name)] = address;
}

void HideSystemRoutine(std::string_view name) {
  std::lock_guard<std::mutex> guard(Table().Lock);
  Table().Hidden.emplace(name);
}

void ShowSystemRoutine(std::string_view name) {
  std::lock_guard<std::mutex> guard(Table().Lock);
  auto it = Table().Hidden.find(name);
  if (it != Table().Hidden.end()) Table().Hidden.erase(it);
}

}  // namespace kvhost

// Export names are matched exactly, case included.
extern "C" PVOID MmGetSystemRoutineAddress(PUNICODE_STRING SystemRoutineName) {
  KV_REQUIRE_PASSIVE_LEVEL("MmGetSystemRoutineAddress");
  if (SystemRoutineName == nullptr) return nullptr;
  std::string name = kvhost::ToUtf8(SystemRoutineName);
  kvhost::ExportTable& table = kvhost::Table();
  std::lock_guard<std::mutex> guard(table.Lock);
  if (table.Hidden.count(name) != 0) return nullptr;
  auto it = table.Routines.find(name);
  return it == table.Routines.end() ? nullptr : it->second;
}
