// The in-memory hive and the machine's view of it.
#include "kvhost/registry.h"

#include <cstring>
#include <unordered_map>

#include "kvhost/object.h"
#include "kvhost/strings.h"
#include "kvhost/verifier.h"
#include "registry_hive.h"

namespace kvhost::hive {
namespace {

constexpr std::u16string_view kRootName = u"\\Registry";

struct HiveState {
  std::mutex Lock;
  std::unique_ptr<Key> RootKey;
  std::unordered_map<unsigned long long, Key*> ById;
  unsigned long long NextId = 1;
};

HiveState& State() {
  static HiveState* state = new HiveState;  // worker threads may read the registry late
  return *state;
}

std::unique_ptr<Key> NewKey(std::u16string_view name, Key* parent) {
  HiveState& s = State();
  auto key = std::make_unique<Key>();
  key->Id = s.NextId++;
  key->Name = std::u16string(name);
  key->Parent = parent;
  s.ById[key->Id] = key.get();
  return key;
}

void Forget(Key* key) {
  for (auto& [name, sub] : key->Subkeys) Forget(sub.get());
  State().ById.erase(key->Id);
}

std::vector<unsigned char> StringBytes(std::u16string_view text) {
  std::vector<unsigned char> bytes((text.size() + 1) * sizeof(char16_t), 0);
  std::memcpy(bytes.data(), text.data(), text.size() * sizeof(char16_t));
  return bytes;
}

// A fresh hive: the standard keys and the machine's environment. The lock is held.
void Populate() {
  State().RootKey = NewKey(u"Registry", nullptr);
  for (std::u16string_view path : {
           u"\\Registry\\Machine\\System\\CurrentControlSet\\Services",
           u"\\Registry\\Machine\\System\\CurrentControlSet\\Control\\Class",
           u"\\Registry\\Machine\\Software\\Microsoft\\Windows NT\\CurrentVersion",
           u"\\Registry\\Machine\\Hardware\\DeviceMap",
           u"\\Registry\\User\\.Default",
       })
    AddPath(path);
  Key* environment = AddPath(kRegistryEnvironmentKey);
  for (auto [name, value] : {std::pair{u"SystemRoot", u"C:\\Windows"}, std::pair{u"SystemDrive", u"C:"}}) {
    std::vector<unsigned char> bytes = StringBytes(value);
    environment->SetValue(name, REG_SZ, bytes.data(), bytes.size());
  }
}

}  // namespace

Value* Key::FindValue(std::u16string_view name) {
  for (Value& v : Values)
    if (EqualNoCase(v.Name, name)) return &v;
  return nullptr;
}

Key* Key::FindSubkey(std::u16string_view name) {
  auto it = Subkeys.find(UpcaseText(name));
  return it == Subkeys.end() ? nullptr : it->second.get();
}

Key* Key::AddSubkey(std::u16string_view name) {
  std::unique_ptr<Key>& slot = Subkeys[UpcaseText(name)];
  if (!slot) slot = NewKey(name, this);
  return slot.get();
}

void Key::SetValue(std::u16string_view name, ULONG type, const void* data, size_t size) {
  Value* v = FindValue(name);
  if (v == nullptr) {
    Values.push_back({std::u16string(name), type, {}});
    v = &Values.back();
  }
  v->Type = type;
  v->Data.assign(static_cast<const unsigned char*>(data), static_cast<const unsigned char*>(data) + size);
}

bool Key::DeleteValue(std::u16string_view name) {
  for (auto it = Values.begin(); it != Values.end(); ++it) {
    if (EqualNoCase(it->Name, name)) {
      Values.erase(it);
      return true;
    }
  }
  return false;
}

std::unique_lock<std::mutex> HiveLock() {
  std::unique_lock<std::mutex> lock(State().Lock);
  if (!State().RootKey) Populate();  // a program that runs no tests
  return lock;
}

Key* Root() { return State().RootKey.get(); }

Key* FindKeyById(unsigned long long id) {
  auto& byId = State().ById;
  auto it = byId.find(id);
  return it == byId.end() ? nullptr : it->second;
}

bool SplitPath(std::u16string_view path, std::vector<std::u16string_view>* names) {
  names->clear();
  if (!path.empty() && path.back() == u'\\') path.remove_suffix(1);
  if (path.empty()) return true;
  size_t start = 0;
  while (true) {
    size_t end = path.find(u'\\', start);
    std::u16string_view name = path.substr(start, end == std::u16string_view::npos ? end : end - start);
    if (name.empty()) return false;
    names->push_back(name);
    if (end == std::u16string_view::npos) return true;
    start = end + 1;
  }
}

// The part of a full path below "\Registry", or false when it is not a registry path.
bool BelowRoot(std::u16string_view fullPath, std::u16string_view* rest) {
  if (fullPath.size() < kRootName.size() || !EqualNoCase(fullPath.substr(0, kRootName.size()), kRootName))
    return false;
  *rest = fullPath.substr(kRootName.size());
  if (rest->empty()) return true;
  if (rest->front() != u'\\') return false;
  rest->remove_prefix(1);
  return true;
}

// The key at a full path; with `create`, the missing keys on the way are added.
Key* KeyAtPath(std::u16string_view fullPath, bool create) {
  std::u16string_view rest;
  std::vector<std::u16string_view> names;
  if (!BelowRoot(fullPath, &rest) || !SplitPath(rest, &names)) return nullptr;
  Key* key = Root();
  for (std::u16string_view name : names)
    if ((key = create ? key->AddSubkey(name) : key->FindSubkey(name)) == nullptr) return nullptr;
  return key;
}

Key* FindKey(std::u16string_view fullPath) { return KeyAtPath(fullPath, false); }

Key* AddPath(std::u16string_view fullPath) { return KeyAtPath(fullPath, true); }

void DeleteKey(Key* key) {
  Forget(key);
  key->Parent->Subkeys.erase(UpcaseText(key->Name));
}

void Reset() {
  HiveState& s = State();
  std::lock_guard<std::mutex> guard(s.Lock);
  s.ById.clear();
  Populate();
}

}  // namespace kvhost::hive

namespace kvhost {
namespace {

// The key at a full path, created with its missing parents; reports a path that is not a
// registry path.
hive::Key* CreatePath(std::u16string_view path) {
  hive::Key* key = hive::AddPath(path);
  if (key == nullptr)
    ReportViolation("RegistryTestPath", "\"" + ToUtf8(path) + "\" is not a registry path (\\Registry\\...)");
  return key;
}


const bool kRegistered = [] {
  RegisterTestHooks({
      .Name = "registry",
      .Order = 20,
      .Reset = [] { hive::Reset(); },
      .Quiesce = nullptr,
      .Check = nullptr,
      .SurvivesPowerLoss = true,
  });
  return true;
}();

}  // namespace

bool CreateRegistryKey(std::u16string_view path) {
  auto lock = hive::HiveLock();
  return CreatePath(path) != nullptr;
}

bool RegistryKeyExists(std::u16string_view path) {
  auto lock = hive::HiveLock();
  return hive::FindKey(path) != nullptr;
}

bool DeleteRegistryKey(std::u16string_view path) {
  auto lock = hive::HiveLock();
  hive::Key* key = hive::FindKey(path);
  if (key == nullptr || key == hive::Root()) return false;
  hive::DeleteKey(key);
  return true;
}

bool SetRegistryValue(std::u16string_view path, std::u16string_view name, ULONG type, const void* data,
                      size_t size) {
  auto lock = hive::HiveLock();
  hive::Key* key = CreatePath(path);
  if (key != nullptr) key->SetValue(name, type, data, size);
  return key != nullptr;
}

bool SetRegistryDword(std::u16string_view path, std::u16string_view name, ULONG value) {
  return SetRegistryValue(path, name, REG_DWORD, &value, sizeof value);
}

bool SetRegistryQword(std::u16string_view path, std::u16string_view name, ULONGLONG value) {
  return SetRegistryValue(path, name, REG_QWORD, &value, sizeof value);
}

bool SetRegistryString(std::u16string_view path, std::u16string_view name, std::u16string_view text, ULONG type) {
  std::vector<unsigned char> bytes = hive::StringBytes(text);
  return SetRegistryValue(path, name, type, bytes.data(), bytes.size());
}

bool SetRegistryMultiString(std::u16string_view path, std::u16string_view name,
                            const std::vector<std::u16string>& strings) {
  std::u16string joined;
  for (const std::u16string& s : strings) joined.append(s).push_back(u'\0');
  std::vector<unsigned char> bytes = hive::StringBytes(joined);
  return SetRegistryValue(path, name, REG_MULTI_SZ, bytes.data(), bytes.size());
}

bool DeleteRegistryValue(std::u16string_view path, std::u16string_view name) {
  auto lock = hive::HiveLock();
  hive::Key* key = hive::FindKey(path);
  return key != nullptr && key->DeleteValue(name);
}

std::optional<RegistryValue> GetRegistryValue(std::u16string_view path, std::u16string_view name) {
  auto lock = hive::HiveLock();
  hive::Key* key = hive::FindKey(path);
  hive::Value* value = key == nullptr ? nullptr : key->FindValue(name);
  if (value == nullptr) return std::nullopt;
  return RegistryValue{value->Type, value->Data};
}

std::optional<ULONG> GetRegistryDword(std::u16string_view path, std::u16string_view name) {
  std::optional<RegistryValue> v = GetRegistryValue(path, name);
  if (!v || v->Type != REG_DWORD || v->Data.size() != sizeof(ULONG)) return std::nullopt;
  ULONG result;
  std::memcpy(&result, v->Data.data(), sizeof result);
  return result;
}

std::optional<std::u16string> GetRegistryString(std::u16string_view path, std::u16string_view name) {
  std::optional<RegistryValue> v = GetRegistryValue(path, name);
  if (!v || (v->Type != REG_SZ && v->Type != REG_EXPAND_SZ)) return std::nullopt;
  std::u16string text(v->Data.size() / sizeof(char16_t), u'\0');
  std::memcpy(text.data(), v->Data.data(), text.size() * sizeof(char16_t));
  return text.substr(0, text.find(u'\0'));
}

}  // namespace kvhost
