// The in-memory hive behind the registry services: a tree of keys holding typed values.
// Every access holds the hive's lock (HiveLock); keys are found again from handles by
// their id, so a key deleted under an open handle is simply not found.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <wdm.h>

namespace kvhost::hive {

struct Value {
  std::u16string Name;  // as first set; looked up without regard to case
  ULONG Type;
  std::vector<unsigned char> Data;
};

struct Key {
  unsigned long long Id;
  std::u16string Name;
  Key* Parent;
  std::map<std::u16string, std::unique_ptr<Key>> Subkeys;  // by upper-cased name
  std::vector<Value> Values;                               // in the order they were created

  Value* FindValue(std::u16string_view name);
  Key* FindSubkey(std::u16string_view name);
  Key* AddSubkey(std::u16string_view name);
  void SetValue(std::u16string_view name, ULONG type, const void* data, size_t size);
  bool DeleteValue(std::u16string_view name);
};

std::unique_lock<std::mutex> HiveLock();

// The key "\Registry".
Key* Root();
// The live key with this id, or nullptr once it was deleted.
Key* FindKeyById(unsigned long long id);

// Splits a path below a key into its names. False for an empty name in the middle ("a\\b");
// one trailing separator is allowed.
bool SplitPath(std::u16string_view path, std::vector<std::u16string_view>* names);

// The part of a full path below "\Registry" (empty for the root itself); false when the
// path is not a registry path.
bool BelowRoot(std::u16string_view fullPath, std::u16string_view* rest);

// The key at a full path ("\Registry\..."); nullptr when it, or the path, is not there.
Key* FindKey(std::u16string_view fullPath);

// The key at a full path, created with every missing parent; nullptr for a path that is
// not a registry path.
Key* AddPath(std::u16string_view fullPath);

// Deletes a key and its subtree (not the root).
void DeleteKey(Key* key);

}  // namespace kvhost::hive
