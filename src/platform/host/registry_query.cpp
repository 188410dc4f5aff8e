// RtlQueryRegistryValues(Ex): a query table walked over the Zw registry services, with
// direct targets, defaults, type checks, expansion and per-string delivery of lists.
#include <cstring>
#include <string>
#include <vector>

#include <wdm.h>

#include "kvhost/registry.h"
#include "kvhost/strings.h"
#include "passive_level.h"
#include "rtl_string_memory.h"

namespace {

// The keys the RTL_REGISTRY_ values other than ABSOLUTE start from (system threads run
// as the default user).
constexpr std::u16string_view kRelativeRoots[RTL_REGISTRY_MAXIMUM] = {
    u"",
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Services",
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Control",
    u"\\Registry\\Machine\\Software\\Microsoft\\Windows NT\\CurrentVersion",
    u"\\Registry\\Machine\\Hardware\\DeviceMap",
    u"\\Registry\\User\\.Default",
};

bool IsStringType(ULONG type) { return type == REG_SZ || type == REG_EXPAND_SZ || type == REG_MULTI_SZ; }

// A key handle that closes itself, unless it is the caller's own (RTL_REGISTRY_HANDLE).
class KeyHandle {
 public:
  KeyHandle() = default;
  KeyHandle(const KeyHandle&) = delete;
  KeyHandle& operator=(const KeyHandle&) = delete;
  ~KeyHandle() { Reset(nullptr, false); }
  void Reset(HANDLE handle, bool owned) {
    if (owned_ && handle_ != nullptr) ZwClose(handle_);
    handle_ = handle;
    owned_ = owned;
  }
  HANDLE Get() const { return handle_; }

 private:
  HANDLE handle_ = nullptr;
  bool owned_ = false;
};

NTSTATUS OpenKey(HANDLE root, std::u16string_view name, HANDLE* key) {
  if (name.size() * sizeof(WCHAR) > UNICODE_STRING_MAX_BYTES) return STATUS_NAME_TOO_LONG;
  UNICODE_STRING text{static_cast<USHORT>(name.size() * sizeof(WCHAR)), static_cast<USHORT>(name.size() * sizeof(WCHAR)),
                      reinterpret_cast<PWCH>(const_cast<char16_t*>(name.data()))};
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
  return ZwOpenKey(key, MAXIMUM_ALLOWED, &attributes);
}

// The key the query starts from. RTL_REGISTRY_OPTIONAL does not change the outcome: a
// missing key is still an error.
NTSTATUS OpenQueryKey(ULONG relativeTo, PCWSTR path, KeyHandle* key) {
  if (relativeTo & RTL_REGISTRY_HANDLE) {
    key->Reset(reinterpret_cast<HANDLE>(const_cast<PWSTR>(path)), false);
    return STATUS_SUCCESS;
  }
  relativeTo &= ~RTL_REGISTRY_OPTIONAL;
  if (relativeTo >= RTL_REGISTRY_MAXIMUM) return STATUS_INVALID_PARAMETER;
  if (relativeTo == RTL_REGISTRY_ABSOLUTE && path == nullptr) return STATUS_INVALID_PARAMETER;
  std::u16string full(kRelativeRoots[relativeTo]);
  std::u16string_view below = kvhost::View(path);
  if (relativeTo != RTL_REGISTRY_ABSOLUTE && !below.empty() && below.front() != u'\\') full.push_back(u'\\');
  full += below;
  HANDLE handle = nullptr;
  NTSTATUS status = OpenKey(nullptr, full, &handle);
  if (NT_SUCCESS(status)) key->Reset(handle, true);
  return status;
}

struct ValueRecord {
  std::u16string Name;  // terminated, for the query routine
  ULONG Type = REG_NONE;
  std::vector<unsigned char> Data;
};

// Reads a value (by name, or by index when `name` is null) through the full-information
// record, growing the buffer as the service asks.
NTSTATUS ReadValue(HANDLE key, const std::u16string* name, ULONG index, ValueRecord* record) {
  std::vector<unsigned char> buffer(256);
  NTSTATUS status;
  ULONG needed = 0;
  while (true) {
    if (name != nullptr) {
      UNICODE_STRING text{static_cast<USHORT>(name->size() * sizeof(WCHAR)),
                          static_cast<USHORT>(name->size() * sizeof(WCHAR)),
                          reinterpret_cast<PWCH>(const_cast<char16_t*>(name->data()))};
      status = ZwQueryValueKey(key, &text, KeyValueFullInformation, buffer.data(), static_cast<ULONG>(buffer.size()),
                               &needed);
    } else {
      status = ZwEnumerateValueKey(key, index, KeyValueFullInformation, buffer.data(),
                                   static_cast<ULONG>(buffer.size()), &needed);
    }
    if (status != STATUS_BUFFER_OVERFLOW && status != STATUS_BUFFER_TOO_SMALL) break;
    buffer.resize(needed);
  }
  if (!NT_SUCCESS(status)) return status;
  auto* info = reinterpret_cast<PKEY_VALUE_FULL_INFORMATION>(buffer.data());
  record->Name.assign(reinterpret_cast<const char16_t*>(info->Name), info->NameLength / sizeof(WCHAR));
  record->Type = info->Type;
  if (info->DataLength == 0)
    record->Data.clear();
  else
    record->Data.assign(buffer.data() + info->DataOffset, buffer.data() + info->DataOffset + info->DataLength);
  return STATUS_SUCCESS;
}

// Strings read from the registry reach the caller terminated, even when stored without.
void TerminateStringData(ValueRecord* record) {
  if (!IsStringType(record->Type)) return;
  record->Data.resize(record->Data.size() / sizeof(WCHAR) * sizeof(WCHAR));
  size_t n = record->Data.size();
  if (n < sizeof(WCHAR) || record->Data[n - 1] != 0 || record->Data[n - 2] != 0) record->Data.resize(n + 2, 0);
}

// The bytes of a default of a string type given with DefaultLength 0: up to and with the
// terminator (both terminators of a list).
ULONG DefaultStringLength(ULONG type, const void* data) {
  auto* text = static_cast<const char16_t*>(data);
  size_t n = 0;
  if (type == REG_MULTI_SZ) {
    while (text[n] != 0 || text[n + 1] != 0) ++n;
    n += 2;
  } else {
    while (text[n] != 0) ++n;
    ++n;
  }
  return static_cast<ULONG>(n * sizeof(WCHAR));
}

class Query {
 public:
  Query(PVOID context, PVOID environment) : context_(context), environment_(static_cast<const WCHAR*>(environment)) {}

  NTSTATUS Run(HANDLE top, PRTL_QUERY_REGISTRY_TABLE table) {
    KeyHandle subkey;
    HANDLE current = top;
    for (PRTL_QUERY_REGISTRY_TABLE e = table;
         e->QueryRoutine != nullptr || (e->Flags & (RTL_QUERY_REGISTRY_SUBKEY | RTL_QUERY_REGISTRY_DIRECT)); ++e) {
      NTSTATUS status = RunEntry(*e, top, &subkey, &current);
      if (!NT_SUCCESS(status)) return status;
    }
    return STATUS_SUCCESS;
  }

 private:
  NTSTATUS RunEntry(const RTL_QUERY_REGISTRY_TABLE& e, HANDLE top, KeyHandle* subkey, HANDLE* current) {
    if ((e.Flags & RTL_QUERY_REGISTRY_DIRECT) &&
        (e.Name == nullptr || (e.Flags & RTL_QUERY_REGISTRY_SUBKEY) || e.QueryRoutine != nullptr))
      return STATUS_INVALID_PARAMETER;
    if (e.Flags & (RTL_QUERY_REGISTRY_TOPKEY | RTL_QUERY_REGISTRY_SUBKEY)) {
      subkey->Reset(nullptr, false);
      *current = top;
    }
    if (e.Flags & RTL_QUERY_REGISTRY_SUBKEY) {
      if (e.Name == nullptr) return STATUS_INVALID_PARAMETER;
      HANDLE handle = nullptr;
      NTSTATUS status = OpenKey(top, kvhost::View(e.Name), &handle);
      if (!NT_SUCCESS(status)) return status;
      subkey->Reset(handle, true);
      *current = handle;
      return e.QueryRoutine != nullptr ? EnumerateValues(e, *current) : STATUS_SUCCESS;
    }
    if (e.Name != nullptr) return NamedValue(e, *current);
    if (e.Flags & RTL_QUERY_REGISTRY_NOVALUE) return e.QueryRoutine(nullptr, REG_NONE, nullptr, 0, context_, e.EntryContext);
    return EnumerateValues(e, *current);
  }

  NTSTATUS NamedValue(const RTL_QUERY_REGISTRY_TABLE& e, HANDLE key) {
    std::u16string name(kvhost::View(e.Name));
    ValueRecord record;
    NTSTATUS status = ReadValue(key, &name, 0, &record);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
      if (e.Flags & RTL_QUERY_REGISTRY_REQUIRED) return status;
      return ApplyDefault(e, name);
    }
    if (!NT_SUCCESS(status)) return status;
    if ((e.Flags & RTL_QUERY_REGISTRY_DIRECT) && (e.Flags & RTL_QUERY_REGISTRY_TYPECHECK) &&
        record.Type != e.DefaultType >> RTL_QUERY_REGISTRY_TYPECHECK_SHIFT)
      return STATUS_OBJECT_TYPE_MISMATCH;
    record.Name = name;
    status = Deliver(e, record);
    if (NT_SUCCESS(status) && (e.Flags & RTL_QUERY_REGISTRY_DELETE)) DeleteValue(key, name);
    return status;
  }

  NTSTATUS EnumerateValues(const RTL_QUERY_REGISTRY_TABLE& e, HANDLE key) {
    for (ULONG index = 0;; ++index) {
      ValueRecord record;
      NTSTATUS status = ReadValue(key, nullptr, index, &record);
      if (status == STATUS_NO_MORE_ENTRIES)
        return index == 0 && (e.Flags & RTL_QUERY_REGISTRY_REQUIRED) ? STATUS_OBJECT_NAME_NOT_FOUND : STATUS_SUCCESS;
      if (!NT_SUCCESS(status)) return status;
      status = Deliver(e, record);
      if (!NT_SUCCESS(status)) return status;
      if (e.Flags & RTL_QUERY_REGISTRY_DELETE) {
        DeleteValue(key, record.Name);
        --index;
      }
    }
  }

  // A missing value: the entry's default when it has one, otherwise nothing happens.
  NTSTATUS ApplyDefault(const RTL_QUERY_REGISTRY_TABLE& e, const std::u16string& name) {
    ULONG type = e.DefaultType;
    if (e.Flags & RTL_QUERY_REGISTRY_TYPECHECK) type &= ~static_cast<ULONG>(RTL_QUERY_REGISTRY_TYPECHECK_MASK);
    if (type == REG_NONE) return STATUS_SUCCESS;
    ULONG length = e.DefaultLength;
    if (length == 0 && IsStringType(type) && e.DefaultData != nullptr) length = DefaultStringLength(type, e.DefaultData);
    ValueRecord record;
    record.Name = name;
    record.Type = type;
    auto* bytes = static_cast<const unsigned char*>(e.DefaultData);
    if (bytes != nullptr) record.Data.assign(bytes, bytes + length);
    return Deliver(e, record);
  }

  // Expands REG_EXPAND_SZ and splits REG_MULTI_SZ into REG_SZ strings unless NOEXPAND;
  // a direct target takes only the first string of a list.
  NTSTATUS Deliver(const RTL_QUERY_REGISTRY_TABLE& e, ValueRecord& record) {
    TerminateStringData(&record);
    bool expand = !(e.Flags & RTL_QUERY_REGISTRY_NOEXPAND);
    if (expand && record.Type == REG_EXPAND_SZ) {
      std::u16string_view raw = Text(record.Data);
      std::u16string text = kvhost::ExpandEnvironmentStrings(raw.substr(0, raw.find(u'\0')), environment_);
      return DeliverOne(e, record.Name, REG_SZ, text.c_str(), static_cast<ULONG>((text.size() + 1) * sizeof(WCHAR)));
    }
    if (expand && record.Type == REG_MULTI_SZ) {
      std::u16string_view all = Text(record.Data);
      for (size_t at = 0; at < all.size();) {
        std::u16string_view one = kvhost::View(reinterpret_cast<const WCHAR*>(all.data() + at));
        if (one.empty()) break;
        NTSTATUS status =
            DeliverOne(e, record.Name, REG_SZ, one.data(), static_cast<ULONG>((one.size() + 1) * sizeof(WCHAR)));
        if (!NT_SUCCESS(status) || (e.Flags & RTL_QUERY_REGISTRY_DIRECT)) return status;
        at += one.size() + 1;
      }
      return STATUS_SUCCESS;
    }
    return DeliverOne(e, record.Name, record.Type, record.Data.data(), static_cast<ULONG>(record.Data.size()));
  }

  NTSTATUS DeliverOne(const RTL_QUERY_REGISTRY_TABLE& e, const std::u16string& name, ULONG type, const void* data,
                      ULONG length) {
    if (e.Flags & RTL_QUERY_REGISTRY_DIRECT) return StoreDirect(e.EntryContext, type, data, length);
    return e.QueryRoutine(reinterpret_cast<PWSTR>(const_cast<char16_t*>(name.c_str())), type, const_cast<void*>(data),
                          length, context_, e.EntryContext);
  }

  // Direct targets: strings into a UNICODE_STRING (a buffer allocated when it has none),
  // up to four bytes into the target itself, anything longer by the size in the target's
  // first LONG (negative: data only; positive: length, type, then data).
  static NTSTATUS StoreDirect(PVOID target, ULONG type, const void* data, ULONG length) {
    if (IsStringType(type)) {
      auto* s = static_cast<PUNICODE_STRING>(target);
      if (length > MAXUSHORT) return STATUS_BUFFER_TOO_SMALL;
      if (s->Buffer == nullptr) {
        s->Buffer = static_cast<PWCH>(kvhost::AllocateStringBuffer(length));
        if (s->Buffer == nullptr) return STATUS_NO_MEMORY;
        s->MaximumLength = static_cast<USHORT>(length);
      } else if (length > s->MaximumLength) {
        return STATUS_BUFFER_TOO_SMALL;
      }
      std::memcpy(s->Buffer, data, length);
      s->Length = static_cast<USHORT>(length - sizeof(WCHAR));
      return STATUS_SUCCESS;
    }
    if (length <= sizeof(ULONG)) {
      if (length != 0) std::memcpy(target, data, length);
      return STATUS_SUCCESS;
    }
    LONG size;
    std::memcpy(&size, target, sizeof size);
    if (size < 0) {
      if (length > static_cast<ULONG>(-static_cast<long long>(size))) return STATUS_BUFFER_TOO_SMALL;
      std::memcpy(target, data, length);
      return STATUS_SUCCESS;
    }
    if (static_cast<unsigned long long>(length) + 2 * sizeof(ULONG) > static_cast<ULONG>(size))
      return STATUS_BUFFER_TOO_SMALL;
    auto* words = static_cast<PULONG>(target);
    words[0] = length;
    words[1] = type;
    std::memcpy(words + 2, data, length);
    return STATUS_SUCCESS;
  }

  static std::u16string_view Text(const std::vector<unsigned char>& data) {
    return {reinterpret_cast<const char16_t*>(data.data()), data.size() / sizeof(char16_t)};
  }

  static void DeleteValue(HANDLE key, const std::u16string& name) {
    UNICODE_STRING text{static_cast<USHORT>(name.size() * sizeof(WCHAR)), static_cast<USHORT>(name.size() * sizeof(WCHAR)),
                        reinterpret_cast<PWCH>(const_cast<char16_t*>(name.data()))};
    ZwDeleteValueKey(key, &text);
  }

  PVOID context_;
  const WCHAR* environment_;
};

NTSTATUS QueryRegistryValues(ULONG relativeTo, PCWSTR path, PRTL_QUERY_REGISTRY_TABLE table, PVOID context,
                             PVOID environment) {
  if (table == nullptr) return STATUS_INVALID_PARAMETER;
  KeyHandle top;
  NTSTATUS status = OpenQueryKey(relativeTo, path, &top);
  if (!NT_SUCCESS(status)) return status;
  return Query(context, environment).Run(top.Get(), table);
}

}  // namespace

extern "C" {

NTSTATUS RtlQueryRegistryValues(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE QueryTable, PVOID Context,
                                PVOID Environment) {
  KV_REQUIRE_PASSIVE_LEVEL("RtlQueryRegistryValues");
  return QueryRegistryValues(RelativeTo, Path, QueryTable, Context, Environment);
}

NTSTATUS RtlQueryRegistryValuesEx(ULONG RelativeTo, PCWSTR Path, PRTL_QUERY_REGISTRY_TABLE QueryTable, PVOID Context,
                                  PVOID Environment) {
  KV_REQUIRE_PASSIVE_LEVEL("RtlQueryRegistryValuesEx");
  return QueryRegistryValues(RelativeTo, Path, QueryTable, Context, Environment);
}

}  // extern "C"
