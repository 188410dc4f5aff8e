// Registry keys and values through the Zw services, as the driver's boot checks read them.
#include <gtest/gtest.h>
#include <wdm.h>

#include <cstring>
#include <vector>

#include "kvhost/object.h"
#include "kvhost/registry.h"

namespace {

constexpr std::u16string_view kService = u"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kvcbt";

NTSTATUS Open(const WCHAR* path, HANDLE* key, ACCESS_MASK access = KEY_READ, HANDLE root = nullptr) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, path);
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, root, nullptr);
  return ZwOpenKey(key, access, &attributes);
}

NTSTATUS Query(HANDLE key, const WCHAR* value, KEY_VALUE_INFORMATION_CLASS infoClass, void* buffer, ULONG length,
               ULONG* result) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, value);
  return ZwQueryValueKey(key, &name, infoClass, buffer, length, result);
}

TEST(Registry, QueryValueReportsTooSmallOverflowAndTheFullLength) {
  kvhost::SetRegistryDword(kService, u"Start", 0x12345678);
  HANDLE key = nullptr;
  ASSERT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kvcbt", &key), STATUS_SUCCESS);

  alignas(8) unsigned char buffer[64];
  std::memset(buffer, 0xCC, sizeof buffer);
  ULONG result = 0;
  auto* partial = reinterpret_cast<PKEY_VALUE_PARTIAL_INFORMATION>(buffer);
  EXPECT_EQ(Query(key, L"Start", KeyValuePartialInformation, buffer, 11, &result), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(result, 16u);
  EXPECT_EQ(buffer[0], 0xCC) << "nothing is written when the fixed part does not fit";
  EXPECT_EQ(Query(key, L"Start", KeyValuePartialInformation, buffer, 14, &result), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(result, 16u);
  EXPECT_EQ(partial->Type, static_cast<ULONG>(REG_DWORD));
  EXPECT_EQ(partial->DataLength, 4u);
  EXPECT_EQ(Query(key, L"start", KeyValuePartialInformation, buffer, 16, &result), STATUS_SUCCESS)
      << "value names do not depend on case";
  EXPECT_EQ(*reinterpret_cast<ULONG*>(partial->Data), 0x12345678u);

  // Full: a 20-byte fixed part, the 10-byte name, data aligned to 4 at 32.
  auto* full = reinterpret_cast<PKEY_VALUE_FULL_INFORMATION>(buffer);
  EXPECT_EQ(Query(key, L"Start", KeyValueFullInformation, buffer, 19, &result), STATUS_BUFFER_TOO_SMALL);
  EXPECT_EQ(result, 36u);
  EXPECT_EQ(Query(key, L"Start", KeyValueFullInformation, buffer, 20, &result), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(full->NameLength, 10u);
  EXPECT_EQ(full->DataLength, 4u);
  ASSERT_EQ(Query(key, L"Start", KeyValueFullInformation, buffer, sizeof buffer, &result), STATUS_SUCCESS);
  EXPECT_EQ(full->DataOffset, 32u);
  EXPECT_EQ(*reinterpret_cast<ULONG*>(buffer + full->DataOffset), 0x12345678u);
  EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(full->Name), 5), u"Start");
  EXPECT_EQ(Query(key, L"Start", KeyValueBasicInformation, buffer, 12, &result), STATUS_BUFFER_OVERFLOW);
  EXPECT_EQ(result, 22u);

  EXPECT_EQ(Query(key, L"Missing", KeyValuePartialInformation, buffer, sizeof buffer, &result),
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(Query(key, L"Start", KeyValueLayerInformation, buffer, sizeof buffer, &result), STATUS_INVALID_PARAMETER);
  EXPECT_EQ(ZwClose(key), STATUS_SUCCESS);
}

TEST(Registry, KeysOpenByFullOrRelativePathWithoutRegardToCase) {
  kvhost::SetRegistryString(kService, u"ImagePath", u"\\SystemRoot\\System32\\drivers\\kvcbt.sys", REG_EXPAND_SZ);
  HANDLE key = nullptr;
  EXPECT_EQ(Open(L"\\REGISTRY\\machine\\SYSTEM\\CurrentControlSet\\services\\KVCBT\\", &key), STATUS_SUCCESS)
      << "a trailing separator is accepted";
  EXPECT_EQ(kvhost::ObGetObjectType(kvhost::ObObjectFromHandle(key)), *CmKeyObjectType);
  HANDLE services = nullptr;
  ASSERT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services", &services), STATUS_SUCCESS);
  HANDLE relative = nullptr;
  EXPECT_EQ(Open(L"kvcbt", &relative, KEY_READ, services), STATUS_SUCCESS);
  HANDLE missing = nullptr;
  EXPECT_EQ(Open(L"\\kvcbt", &missing, KEY_READ, services), STATUS_OBJECT_PATH_SYNTAX_BAD);
  EXPECT_EQ(Open(L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\DefragFs\\", &missing),
            STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(Open(L"\\Registry\\Machine\\Nowhere\\At\\All", &missing), STATUS_OBJECT_NAME_NOT_FOUND);
  EXPECT_EQ(Open(L"Registry\\Machine", &missing), STATUS_OBJECT_PATH_SYNTAX_BAD);
  EXPECT_EQ(Open(L"\\Registry\\Machine\\\\System", &missing), STATUS_OBJECT_NAME_INVALID);
  EXPECT_EQ(missing, nullptr);

  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"Written");
  ULONG one = 1;
  HANDLE writable = nullptr;
  ASSERT_EQ(Open(L"kvcbt", &writable, KEY_READ | KEY_WRITE, services), STATUS_SUCCESS);
  EXPECT_EQ(ZwSetValueKey(writable, &name, 0, REG_DWORD, &one, sizeof one), STATUS_SUCCESS);
  EXPECT_EQ(kvhost::GetRegistryDword(kService, u"written"), 1u);
  EXPECT_EQ(ZwDeleteValueKey(writable, &name), STATUS_SUCCESS);
  EXPECT_EQ(ZwDeleteValueKey(writable, &name), STATUS_OBJECT_NAME_NOT_FOUND);

  // A key deleted by the machine under an open handle.
  kvhost::DeleteRegistryKey(kService);
  ULONG result = 0;
  unsigned char buffer[64];
  EXPECT_EQ(Query(relative, L"ImagePath", KeyValuePartialInformation, buffer, sizeof buffer, &result),
            STATUS_KEY_DELETED);
  for (HANDLE h : {key, services, relative, writable}) EXPECT_EQ(ZwClose(h), STATUS_SUCCESS);
}

TEST(Registry, CreateKeyMakesOneLevelAndEnumeratesValuesInOrder) {
  UNICODE_STRING name;
  RtlInitUnicodeString(&name, L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\kvcbt");
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE, nullptr, nullptr);
  HANDLE key = nullptr;
  ULONG disposition = 0;
  ASSERT_EQ(ZwCreateKey(&key, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, &disposition), STATUS_SUCCESS);
  EXPECT_EQ(disposition, static_cast<ULONG>(REG_CREATED_NEW_KEY));
  HANDLE again = nullptr;
  ASSERT_EQ(ZwCreateKey(&again, KEY_READ, &attributes, 0, nullptr, 0, &disposition), STATUS_SUCCESS);
  EXPECT_EQ(disposition, static_cast<ULONG>(REG_OPENED_EXISTING_KEY));
  RtlInitUnicodeString(&name, L"\\Registry\\Machine\\System\\CurrentControlSet\\Services\\NoSuch\\Child");
  HANDLE deep = nullptr;
  EXPECT_EQ(ZwCreateKey(&deep, KEY_READ, &attributes, 0, nullptr, 0, &disposition), STATUS_OBJECT_NAME_NOT_FOUND);

  for (const WCHAR* value : {L"B", L"A", L"C"}) {
    RtlInitUnicodeString(&name, value);
    ASSERT_EQ(ZwSetValueKey(key, &name, 0, REG_BINARY, nullptr, 0), STATUS_SUCCESS);
  }
  std::u16string order;
  alignas(8) unsigned char buffer[64];
  ULONG result = 0;
  ULONG index = 0;
  while (ZwEnumerateValueKey(again, index++, KeyValueBasicInformation, buffer, sizeof buffer, &result) ==
         STATUS_SUCCESS)
    order += reinterpret_cast<PKEY_VALUE_BASIC_INFORMATION>(buffer)->Name[0];
  EXPECT_EQ(order, u"BAC");
  EXPECT_EQ(ZwEnumerateValueKey(again, 3, KeyValueBasicInformation, buffer, sizeof buffer, &result),
            STATUS_NO_MORE_ENTRIES);
  ZwClose(key);
  ZwClose(again);
}

}  // namespace
