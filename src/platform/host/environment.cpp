// Expansion of %NAME% references in REG_EXPAND_SZ values, from an environment block or
// the machine's environment key.
#include <cstring>
#include <optional>

#include "kvhost/registry.h"
#include "kvhost/strings.h"
#include "registry_hive.h"

namespace kvhost {
namespace {

// A variable of a "NAME=value\0NAME=value\0\0" block. A name may itself begin with '='
// (the block's per-drive entries), so the separator is the first '=' after the start.
std::optional<std::u16string> FromBlock(const WCHAR* block, std::u16string_view name) {
  for (std::u16string_view entry = View(block); !entry.empty(); entry = View(block)) {
    size_t equals = entry.find(u'=', 1);
    if (equals != std::u16string_view::npos && EqualNoCase(entry.substr(0, equals), name))
      return std::u16string(entry.substr(equals + 1));
    block += entry.size() + 1;
  }
  return std::nullopt;
}

std::optional<std::u16string> FromMachine(std::u16string_view name) {
  auto lock = hive::HiveLock();
  hive::Key* key = hive::FindKey(kRegistryEnvironmentKey);
  hive::Value* value = key == nullptr ? nullptr : key->FindValue(name);
  if (value == nullptr || (value->Type != REG_SZ && value->Type != REG_EXPAND_SZ)) return std::nullopt;
  std::u16string text(value->Data.size() / sizeof(char16_t), u'\0');
  std::memcpy(text.data(), value->Data.data(), text.size() * sizeof(char16_t));
  return text.substr(0, text.find(u'\0'));
}

}  // namespace

// An unknown reference is copied up to its closing '%', which may open the next one.
std::u16string ExpandEnvironmentStrings(std::u16string_view text, const WCHAR* environment) {
  std::u16string out;
  size_t i = 0;
  while (i < text.size()) {
    size_t close = text[i] == u'%' ? text.find(u'%', i + 1) : std::u16string_view::npos;
    if (close == std::u16string_view::npos) {
      out.push_back(text[i++]);
      continue;
    }
    std::u16string_view name = text.substr(i + 1, close - i - 1);
    std::optional<std::u16string> value;
    if (!name.empty()) value = environment != nullptr ? FromBlock(environment, name) : FromMachine(name);
    if (value) {
      out += *value;
      i = close + 1;
    } else {
      out.append(text.substr(i, close - i));
      i = close;
    }
  }
  return out;
}

}  // namespace kvhost
