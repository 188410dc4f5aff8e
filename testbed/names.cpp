// Names of statuses, control codes and events for reports. The tables are generated from the
// platform headers (see CMakeLists.txt); the first name given to a value wins.
#include "kvtestbed/names.h"

#include "kvhost/object.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

// The headers that define the names.
#include "kv_name_headers.inc"

namespace kvtestbed {
namespace {

struct StatusEntry {
  NTSTATUS Value;
  const char* Name;
};
struct CodeEntry {
  ULONG Value;
  const char* Name;
};
struct GuidEntry {
  const GUID* Value;
  const char* Name;
};

#define KV_NAME_STATUS(name) {name, #name},
#define KV_NAME_CONTROL_CODE(name)
#define KV_NAME_GUID(name)
const StatusEntry kStatuses[] = {
#include "kv_names.inc"
};
#undef KV_NAME_STATUS
#undef KV_NAME_CONTROL_CODE
#undef KV_NAME_GUID

#define KV_NAME_STATUS(name)
#define KV_NAME_CONTROL_CODE(name) {static_cast<ULONG>(name), #name},
#define KV_NAME_GUID(name)
const CodeEntry kControlCodes[] = {
#include "kv_names.inc"
};
#undef KV_NAME_STATUS
#undef KV_NAME_CONTROL_CODE
#undef KV_NAME_GUID

#define KV_NAME_STATUS(name)
#define KV_NAME_CONTROL_CODE(name)
#define KV_NAME_GUID(name) {&name, #name},
const GuidEntry kGuids[] = {
#include "kv_names.inc"
};
#undef KV_NAME_STATUS
#undef KV_NAME_CONTROL_CODE
#undef KV_NAME_GUID

std::string Hex(ULONG value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(value));
  return text;
}

// A hexadecimal ("0x...") or decimal number that fits 32 bits.
std::optional<ULONG> ParseNumber(std::string_view text) {
  if (text.empty() || text.size() > 12) return std::nullopt;
  std::string s(text);
  char* end = nullptr;
  const unsigned long long value = std::strtoull(s.c_str(), &end, 0);
  if (end != s.c_str() + s.size() || value > 0xFFFFFFFFull || s[0] == '-' || s[0] == '+') return std::nullopt;
  return static_cast<ULONG>(value);
}

}  // namespace

std::string StatusName(NTSTATUS status) {
  for (const StatusEntry& e : kStatuses)
    if (e.Value == status) return e.Name;
  return Hex(static_cast<ULONG>(status));
}

std::optional<NTSTATUS> ParseStatus(std::string_view text) {
  for (const StatusEntry& e : kStatuses)
    if (text == e.Name) return e.Value;
  if (text.substr(0, 2) != "0x" && text.substr(0, 2) != "0X") return std::nullopt;
  std::optional<ULONG> value = ParseNumber(text);
  if (!value) return std::nullopt;
  return static_cast<NTSTATUS>(*value);
}

std::string ControlCodeName(ULONG code) {
  for (const CodeEntry& e : kControlCodes)
    if (e.Value == code) return e.Name;
  return Hex(code);
}

std::optional<ULONG> ParseControlCode(std::string_view text) {
  for (const CodeEntry& e : kControlCodes)
    if (text == e.Name) return e.Value;
  return ParseNumber(text);
}

std::string PnpMinorName(UCHAR minor) {
  static const char* const kNames[] = {
      "IRP_MN_START_DEVICE",          "IRP_MN_QUERY_REMOVE_DEVICE",
      "IRP_MN_REMOVE_DEVICE",         "IRP_MN_CANCEL_REMOVE_DEVICE",
      "IRP_MN_STOP_DEVICE",           "IRP_MN_QUERY_STOP_DEVICE",
      "IRP_MN_CANCEL_STOP_DEVICE",    "IRP_MN_QUERY_DEVICE_RELATIONS",
      "IRP_MN_QUERY_INTERFACE",       "IRP_MN_QUERY_CAPABILITIES",
      "IRP_MN_QUERY_RESOURCES",       "IRP_MN_QUERY_RESOURCE_REQUIREMENTS",
      "IRP_MN_QUERY_DEVICE_TEXT",     "IRP_MN_FILTER_RESOURCE_REQUIREMENTS",
      "IRP_MN_0x0E",                  "IRP_MN_READ_CONFIG",
      "IRP_MN_WRITE_CONFIG",          "IRP_MN_EJECT",
      "IRP_MN_SET_LOCK",              "IRP_MN_QUERY_ID",
      "IRP_MN_QUERY_PNP_DEVICE_STATE", "IRP_MN_QUERY_BUS_INFORMATION",
      "IRP_MN_DEVICE_USAGE_NOTIFICATION", "IRP_MN_SURPRISE_REMOVAL",
  };
  if (minor < sizeof kNames / sizeof kNames[0]) return kNames[minor];
  if (minor == IRP_MN_DEVICE_ENUMERATED) return "IRP_MN_DEVICE_ENUMERATED";
  return "IRP_MN_" + Hex(minor).substr(8);
}

std::string PowerMinorName(UCHAR minor) {
  switch (minor) {
    case IRP_MN_WAIT_WAKE:
      return "IRP_MN_WAIT_WAKE";
    case IRP_MN_POWER_SEQUENCE:
      return "IRP_MN_POWER_SEQUENCE";
    case IRP_MN_SET_POWER:
      return "IRP_MN_SET_POWER";
    case IRP_MN_QUERY_POWER:
      return "IRP_MN_QUERY_POWER";
    default:
      return "IRP_MN_" + Hex(minor).substr(8);
  }
}

std::string SystemPowerStateName(SYSTEM_POWER_STATE state) {
  static const char* const kNames[] = {"PowerSystemUnspecified", "PowerSystemWorking",   "PowerSystemSleeping1",
                                       "PowerSystemSleeping2",   "PowerSystemSleeping3", "PowerSystemHibernate",
                                       "PowerSystemShutdown",    "PowerSystemMaximum"};
  const unsigned index = static_cast<unsigned>(state);
  return index < sizeof kNames / sizeof kNames[0] ? kNames[index] : "PowerSystem" + std::to_string(index);
}

std::string EventName(const GUID& event) {
  for (const GuidEntry& e : kGuids)
    if (*e.Value == event) return e.Name;
  return GuidText(event);
}

std::string GuidText(const GUID& g) {
  char text[40];
  std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.Data1, g.Data2, g.Data3,
                g.Data4[0], g.Data4[1], g.Data4[2], g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
  return text;
}

std::u16string GuidText16(const GUID& guid) {
  return kvhost::ToWString(GuidText(guid));
}

}  // namespace kvtestbed
