// Reading the real registry from a test, straight through the system functions
// (never through the library under test), and removing what a test wrote.
#pragma once

#include <gtest/gtest.h>
#include <objbase.h>
#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace xktest {

// The braced upper-case text of a GUID, as the registry keys carry it.
inline std::string GuidText(const GUID& guid) {
  wchar_t wide[39];
  StringFromGUID2(guid, wide, 39);
  return std::string(wide, wide + 38);
}

inline bool KeyExists(HKEY root, const std::string& path) {
  HKEY key;
  if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
  RegCloseKey(key);
  return true;
}

// A REG_SZ value (the default value for a NULL name); nothing when the key or
// the value is missing or is of another type.
inline std::optional<std::string> StringValue(HKEY root, const std::string& path,
                                              const char* name = nullptr) {
  char data[2048];
  DWORD cb = sizeof data;
  if (RegGetValueA(root, path.c_str(), name, RRF_RT_REG_SZ | RRF_NOEXPAND, nullptr, data, &cb) !=
      ERROR_SUCCESS)
    return std::nullopt;
  return std::string(data, cb ? cb - 1 : 0);
}

// The names a key lists through one of the two enumerations.
template <class Enumerate>
std::vector<std::string> NamesOf(HKEY root, const std::string& path, Enumerate enumerate) {
  std::vector<std::string> names;
  HKEY key;
  if (RegOpenKeyExA(root, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return names;
  char name[256];
  for (DWORD i = 0;; ++i) {
    DWORD cch = sizeof name;
    if (enumerate(key, i, name, &cch, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
    names.emplace_back(name, cch);
  }
  RegCloseKey(key);
  return names;
}

inline std::vector<std::string> SubKeys(HKEY root, const std::string& path) {
  return NamesOf(root, path, RegEnumKeyExA);
}

// The names of a key's values, the default value as "".
inline std::vector<std::string> ValueNames(HKEY root, const std::string& path) {
  return NamesOf(root, path, RegEnumValueA);
}

inline void WriteString(HKEY root, const std::string& path, const char* name,
                        const std::string& text) {
  RegSetKeyValueA(root, path.c_str(), name, REG_SZ, text.c_str(),
                  static_cast<DWORD>(text.size() + 1));
}

// One thing a test expects below a root: a REG_SZ value with exactly this text
// (name nullptr: the default value); kNoValues: the key is there with no value
// at all; no text ({}): the key (name nullptr) or the named value is not there.
struct RegistryEntry {
  std::string key;
  const char* name;
  std::optional<std::string> text;
};
inline const std::string kNoValues = "(a key without values)";

inline void ExpectRegistry(HKEY root, const std::vector<RegistryEntry>& entries) {
  for (const RegistryEntry& e : entries) {
    SCOPED_TRACE(e.key + (e.name ? std::string(" : ") + e.name : std::string()));
    if (!e.text)
      EXPECT_FALSE(e.name ? StringValue(root, e.key, e.name).has_value() : KeyExists(root, e.key));
    else if (*e.text == kNoValues)
      EXPECT_TRUE(KeyExists(root, e.key) && ValueNames(root, e.key).empty());
    else
      EXPECT_EQ(e.text, StringValue(root, e.key, e.name));
  }
}

// Removes the listed key trees when it goes (and when it is made, so that a
// run cut short earlier leaves nothing in the way).
class KeyTreeCleanup {
 public:
  KeyTreeCleanup(HKEY root, std::vector<std::string> paths)
      : m_root(root), m_paths(std::move(paths)) {
    Remove();
  }
  ~KeyTreeCleanup() { Remove(); }
  KeyTreeCleanup(const KeyTreeCleanup&) = delete;
  KeyTreeCleanup& operator=(const KeyTreeCleanup&) = delete;

 private:
  void Remove() {
    for (auto& path : m_paths) RegDeleteTreeA(m_root, path.c_str());
  }
  HKEY m_root;
  std::vector<std::string> m_paths;
};

}  // namespace xktest
