// The Zw registry services: key handles from the object manager over the in-memory hive.
#include <algorithm>
#include <cstring>

#include <wdm.h>

#include "kvhost/object.h"
#include "kvhost/strings.h"
#include "passive_level.h"
#include "registry_hive.h"

namespace {

// The body of a key object: which hive key its handles reach.
struct KeyObject {
  unsigned long long KeyId;
};

// The hive key behind a handle. The Zw services run with a kernel-mode previous mode, so
// the handle's granted access is not checked (as ObReferenceObjectByHandle does not for
// KernelMode).
NTSTATUS KeyIdFromHandle(HANDLE handle, unsigned long long* id) {
  PVOID object = nullptr;
  NTSTATUS status = ObReferenceObjectByHandle(handle, 0, *CmKeyObjectType, KernelMode, &object, nullptr);
  if (!NT_SUCCESS(status)) return status;
  *id = static_cast<KeyObject*>(object)->KeyId;
  ObDereferenceObject(object);
  return STATUS_SUCCESS;
}

NTSTATUS OpenHandle(unsigned long long keyId, ACCESS_MASK desired, PHANDLE handle) {
  auto* object = static_cast<KeyObject*>(kvhost::ObCreateObject(*CmKeyObjectType, sizeof(KeyObject)));
  if (object == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  object->KeyId = keyId;
  *handle = kvhost::ObCreateHandle(object, desired);
  ObDereferenceObject(object);  // the handle keeps it
  return STATUS_SUCCESS;
}

// Where a name in object attributes leads: the key it starts from (by id) and the names
// below it.
struct KeyName {
  unsigned long long BaseId = 0;
  bool FromRoot = false;
  std::vector<std::u16string_view> Names;
};

NTSTATUS ParseKeyName(POBJECT_ATTRIBUTES attributes, KeyName* name) {
  if (attributes == nullptr || attributes->Length != sizeof(OBJECT_ATTRIBUTES)) return STATUS_INVALID_PARAMETER;
  std::u16string_view text = kvhost::View(attributes->ObjectName);
  if (attributes->ObjectName != nullptr && attributes->ObjectName->Length % sizeof(WCHAR) != 0)
    return STATUS_OBJECT_NAME_INVALID;
  if (attributes->RootDirectory != nullptr) {
    NTSTATUS status = KeyIdFromHandle(attributes->RootDirectory, &name->BaseId);
    if (!NT_SUCCESS(status)) return status;
    if (!text.empty() && text.front() == u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
  } else {
    if (text.empty() || text.front() != u'\\') return STATUS_OBJECT_PATH_SYNTAX_BAD;
    if (!kvhost::hive::BelowRoot(text, &text)) return STATUS_OBJECT_NAME_NOT_FOUND;
    name->FromRoot = true;
  }
  return kvhost::hive::SplitPath(text, &name->Names) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_INVALID;
}

// Walks `count` names from the start key; called with the hive locked.
NTSTATUS Walk(const KeyName& name, size_t count, kvhost::hive::Key** key) {
  kvhost::hive::Key* k = name.FromRoot ? kvhost::hive::Root() : kvhost::hive::FindKeyById(name.BaseId);
  if (k == nullptr) return STATUS_KEY_DELETED;
  for (size_t i = 0; i < count; ++i)
    if ((k = k->FindSubkey(name.Names[i])) == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
  *key = k;
  return STATUS_SUCCESS;
}

ULONG AlignUp(ULONG value, ULONG alignment) { return (value + alignment - 1) & ~(alignment - 1); }

// Fills one value information record: the fixed part or nothing, then name and data as far
// as they fit.
NTSTATUS FillValueInformation(const kvhost::hive::Value& value, KEY_VALUE_INFORMATION_CLASS infoClass, PVOID buffer,
                              ULONG length, PULONG resultLength) {
  ULONG nameBytes = static_cast<ULONG>(value.Name.size() * sizeof(WCHAR));
  ULONG dataBytes = static_cast<ULONG>(value.Data.size());
  ULONG fixed = 0;
  ULONG full = 0;
  ULONG nameAt = 0;
  ULONG dataAt = 0;
  switch (infoClass) {
    case KeyValueBasicInformation:
      fixed = nameAt = FIELD_OFFSET(KEY_VALUE_BASIC_INFORMATION, Name);
      full = fixed + nameBytes;
      break;
    case KeyValueFullInformation:
    case KeyValueFullInformationAlign64:
      fixed = nameAt = FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name);
      dataAt = AlignUp(fixed + nameBytes, infoClass == KeyValueFullInformation ? sizeof(ULONG) : sizeof(ULONGLONG));
      full = dataAt + dataBytes;
      break;
    case KeyValuePartialInformation:
      fixed = dataAt = FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data);
      full = fixed + dataBytes;
      break;
    default:
      return STATUS_INVALID_PARAMETER;
  }
  *resultLength = full;
  if (length < fixed) return STATUS_BUFFER_TOO_SMALL;
  auto* bytes = static_cast<unsigned char*>(buffer);
  auto copyAt = [&](ULONG at, const void* source, ULONG size) {
    if (at < length) std::memcpy(bytes + at, source, std::min(size, length - at));
  };
  switch (infoClass) {
    case KeyValueBasicInformation: {
      auto* info = static_cast<PKEY_VALUE_BASIC_INFORMATION>(buffer);
      info->TitleIndex = 0;
      info->Type = value.Type;
      info->NameLength = nameBytes;
      copyAt(nameAt, value.Name.data(), nameBytes);
      break;
    }
    case KeyValuePartialInformation: {
      auto* info = static_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer);
      info->TitleIndex = 0;
      info->Type = value.Type;
      info->DataLength = dataBytes;
      copyAt(dataAt, value.Data.data(), dataBytes);
      break;
    }
    default: {
      auto* info = static_cast<PKEY_VALUE_FULL_INFORMATION>(buffer);
      info->TitleIndex = 0;
      info->Type = value.Type;
      info->DataOffset = dataBytes != 0 ? dataAt : static_cast<ULONG>(-1);
      info->DataLength = dataBytes;
      info->NameLength = nameBytes;
      copyAt(nameAt, value.Name.data(), nameBytes);
      copyAt(dataAt, value.Data.data(), dataBytes);
      break;
    }
  }
  return length < full ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

// Runs `body` on the live key behind a handle.
template <typename Body>
NTSTATUS WithKey(HANDLE handle, Body body) {
  unsigned long long id = 0;
  NTSTATUS status = KeyIdFromHandle(handle, &id);
  if (!NT_SUCCESS(status)) return status;
  auto lock = kvhost::hive::HiveLock();
  kvhost::hive::Key* key = kvhost::hive::FindKeyById(id);
  return key == nullptr ? STATUS_KEY_DELETED : body(*key);
}

}  // namespace

extern "C" {

NTSTATUS ZwOpenKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwOpenKey");
  if (KeyHandle == nullptr) return STATUS_INVALID_PARAMETER;
  *KeyHandle = nullptr;
  KeyName name;
  NTSTATUS status = ParseKeyName(ObjectAttributes, &name);
  if (!NT_SUCCESS(status)) return status;
  unsigned long long id = 0;
  {
    auto lock = kvhost::hive::HiveLock();
    kvhost::hive::Key* key = nullptr;
    status = Walk(name, name.Names.size(), &key);
    if (!NT_SUCCESS(status)) return status;
    id = key->Id;
  }
  return OpenHandle(id, DesiredAccess, KeyHandle);
}

NTSTATUS ZwCreateKey(PHANDLE KeyHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                     ULONG TitleIndex, PUNICODE_STRING Class, ULONG CreateOptions, PULONG Disposition) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwCreateKey");
  if (KeyHandle == nullptr) return STATUS_INVALID_PARAMETER;
  *KeyHandle = nullptr;
  KeyName name;
  NTSTATUS status = ParseKeyName(ObjectAttributes, &name);
  if (!NT_SUCCESS(status)) return status;
  unsigned long long id = 0;
  ULONG disposition = REG_OPENED_EXISTING_KEY;
  {
    auto lock = kvhost::hive::HiveLock();
    kvhost::hive::Key* key = nullptr;
    size_t parents = name.Names.empty() ? 0 : name.Names.size() - 1;
    status = Walk(name, parents, &key);
    if (!NT_SUCCESS(status)) return status;
    if (!name.Names.empty()) {
      kvhost::hive::Key* existing = key->FindSubkey(name.Names.back());
      if (existing == nullptr) disposition = REG_CREATED_NEW_KEY;
      key = existing != nullptr ? existing : key->AddSubkey(name.Names.back());
    }
    id = key->Id;
  }
  if (Disposition != nullptr) *Disposition = disposition;
  return OpenHandle(id, DesiredAccess, KeyHandle);
}

NTSTATUS ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                         KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass, PVOID KeyValueInformation,
                         ULONG Length, PULONG ResultLength) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwQueryValueKey");
  if (ResultLength == nullptr || (KeyValueInformation == nullptr && Length != 0)) return STATUS_INVALID_PARAMETER;
  std::u16string_view valueName = kvhost::View(ValueName);
  return WithKey(KeyHandle, [&](kvhost::hive::Key& key) {
    kvhost::hive::Value* value = key.FindValue(valueName);
    if (value == nullptr) return STATUS_OBJECT_NAME_NOT_FOUND;
    return FillValueInformation(*value, KeyValueInformationClass, KeyValueInformation, Length, ResultLength);
  });
}

NTSTATUS ZwEnumerateValueKey(HANDLE KeyHandle, ULONG Index, KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                             PVOID KeyValueInformation, ULONG Length, PULONG ResultLength) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwEnumerateValueKey");
  if (ResultLength == nullptr || (KeyValueInformation == nullptr && Length != 0)) return STATUS_INVALID_PARAMETER;
  return WithKey(KeyHandle, [&](kvhost::hive::Key& key) {
    if (Index >= key.Values.size()) return STATUS_NO_MORE_ENTRIES;
    return FillValueInformation(key.Values[Index], KeyValueInformationClass, KeyValueInformation, Length,
                                ResultLength);
  });
}

NTSTATUS ZwSetValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName, ULONG TitleIndex, ULONG Type, PVOID Data,
                       ULONG DataSize) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwSetValueKey");
  if (Data == nullptr && DataSize != 0) return STATUS_INVALID_PARAMETER;
  std::u16string_view valueName = kvhost::View(ValueName);
  return WithKey(KeyHandle, [&](kvhost::hive::Key& key) {
    key.SetValue(valueName, Type, Data, DataSize);
    return STATUS_SUCCESS;
  });
}

NTSTATUS ZwDeleteValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwDeleteValueKey");
  std::u16string_view valueName = kvhost::View(ValueName);
  return WithKey(KeyHandle, [&](kvhost::hive::Key& key) {
    return key.DeleteValue(valueName) ? STATUS_SUCCESS : STATUS_OBJECT_NAME_NOT_FOUND;
  });
}

NTSTATUS ZwFlushKey(HANDLE KeyHandle) {
  KV_REQUIRE_PASSIVE_LEVEL("ZwFlushKey");
  return WithKey(KeyHandle, [](kvhost::hive::Key&) { return STATUS_SUCCESS; });
}

}  // extern "C"
