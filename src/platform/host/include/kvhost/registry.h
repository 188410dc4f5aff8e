// The machine's registry: one in-memory hive of keys and typed values, addressed by full
// path ("\Registry\Machine\System\CurrentControlSet\Services\kvcbt") without regard to
// case. The machine and the tests fill and read it here; the driver reaches it through
// ZwOpenKey, ZwQueryValueKey and RtlQueryRegistryValues.
//
// At the start of each test the hive holds only the standard keys (Services, Control,
// Windows NT\CurrentVersion, Hardware\DeviceMap, the default user) and the machine's
// environment: the values of
// "\Registry\Machine\System\CurrentControlSet\Control\Session Manager\Environment",
// seeded with SystemRoot "C:\Windows" and SystemDrive "C:", are what REG_EXPAND_SZ
// values expand with. A path that is not under \Registry is a test error (reported as a
// violation).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <wdm.h>

namespace kvhost {

inline constexpr std::u16string_view kRegistryEnvironmentKey =
    u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Session Manager\\Environment";

struct RegistryValue {
  ULONG Type;
  std::vector<unsigned char> Data;
};

// Creates the key and every missing parent; true when the path is valid.
bool CreateRegistryKey(std::u16string_view path);
bool RegistryKeyExists(std::u16string_view path);
// Deletes the key with everything below it; open handles to it then fail with
// STATUS_KEY_DELETED. False when it does not exist.
bool DeleteRegistryKey(std::u16string_view path);

// Values are created with their key and replaced whole. Any bytes may claim any type.
bool SetRegistryValue(std::u16string_view path, std::u16string_view name, ULONG type, const void* data,
                      size_t size);
bool SetRegistryDword(std::u16string_view path, std::u16string_view name, ULONG value);
bool SetRegistryQword(std::u16string_view path, std::u16string_view name, ULONGLONG value);
// Stored with its terminator, as Windows stores strings.
bool SetRegistryString(std::u16string_view path, std::u16string_view name, std::u16string_view text,
                       ULONG type = REG_SZ);
// Each string terminated, and the list ended by an empty string.
bool SetRegistryMultiString(std::u16string_view path, std::u16string_view name,
                            const std::vector<std::u16string>& strings);
bool DeleteRegistryValue(std::u16string_view path, std::u16string_view name);

std::optional<RegistryValue> GetRegistryValue(std::u16string_view path, std::u16string_view name);
// A REG_DWORD of four bytes, else nothing.
std::optional<ULONG> GetRegistryDword(std::u16string_view path, std::u16string_view name);
// A REG_SZ or REG_EXPAND_SZ up to its terminator, else nothing.
std::optional<std::u16string> GetRegistryString(std::u16string_view path, std::u16string_view name);

// %NAME% references replaced from `environment` ("NAME=value" strings, a double-NUL-ended
// block as RtlQueryRegistryValues takes it) or, when that is null, from the machine's
// environment. Names never depend on case; unknown references stay as they are.
std::u16string ExpandEnvironmentStrings(std::u16string_view text, const WCHAR* environment = nullptr);

}  // namespace kvhost
