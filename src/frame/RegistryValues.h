// The library's registry helpers: create a key and set (or delete) a value,
// query a value, delete a key tree. All go through the late-bound registry
// entry points; one body per helper serves both character widths through a
// policy, and the narrow and wide names at the end are its two instances.
#pragma once

#include <xkcombsd/LateBound.h>
#include <xkcombsd/RegKey.h>

#include "frame/RuntimePrimitives.h"

namespace xk::registry {

// The registry entry points of one character width.
struct Narrow {
  using Char = char;
  static constexpr auto OpenKeyEx = &LB_RegOpenKeyExA;
  static constexpr auto CreateKeyEx = &LB_RegCreateKeyExA;
  static constexpr auto QueryValueEx = &LB_RegQueryValueExA;
  static constexpr auto SetValueEx = &LB_RegSetValueExA;
  static constexpr auto DeleteValue = &LB_RegDeleteValueA;
  static constexpr auto EnumKeyEx = &LB_RegEnumKeyExA;
  static constexpr auto DeleteKey = &LB_RegDeleteKeyA;
};

struct Wide {
  using Char = WCHAR;
  static constexpr auto OpenKeyEx = &LB_RegOpenKeyExW;
  static constexpr auto CreateKeyEx = &LB_RegCreateKeyExW;
  static constexpr auto QueryValueEx = &LB_RegQueryValueExW;
  static constexpr auto SetValueEx = &LB_RegSetValueExW;
  static constexpr auto DeleteValue = &LB_RegDeleteValueW;
  static constexpr auto EnumKeyEx = &LB_RegEnumKeyExW;
  static constexpr auto DeleteKey = &LB_RegDeleteKeyW;
};

constexpr DWORD kKeyNameChars = 260;

// Byte count of a REG_SZ value: the text and its terminator; 0 for no text.
template <class Char>
DWORD StringValueBytes(const Char* text) {
  return text ? static_cast<DWORD>((TextLength(text) + 1) * sizeof(Char)) : 0;
}

// A NULL sub-key names the root itself, which cannot be handed out as an
// opened key; a NULL root means HKEY_CURRENT_USER.
inline LONG ResolveRoot(HKEY* root, const void* subKey, const HKEY* outKey) {
  if (!subKey && (!*root || outKey)) return ERROR_INVALID_HANDLE;
  if (!*root) *root = HKEY_CURRENT_USER;
  return ERROR_SUCCESS;
}

// Reads a value of root\subKey (or of root itself). With outKey, the key opened
// here is handed out when the read succeeds; otherwise it is closed.
template <class Api>
LONG QueryValue(HKEY root, const typename Api::Char* subKey, const typename Api::Char* valueName,
                DWORD* type, BYTE* data, DWORD* cbData, REGSAM access, HKEY* outKey) {
  if (outKey) *outKey = nullptr;
  LONG rc = ResolveRoot(&root, subKey, outKey);
  if (rc != ERROR_SUCCESS) return rc;
  RegKey opened;
  if (subKey) {
    rc = Api::OpenKeyEx(root, subKey, 0, access, opened.put());
    if (rc != ERROR_SUCCESS) return rc;
  }
  rc = Api::QueryValueEx(subKey ? opened.get() : root, valueName, nullptr, type, data, cbData);
  if (rc == ERROR_SUCCESS && outKey) *outKey = opened.Detach();
  return rc;
}

// QueryValue with the size taken and reported in characters.
template <class Api>
LONG QueryStringValue(HKEY root, const typename Api::Char* subKey,
                      const typename Api::Char* valueName, typename Api::Char* text,
                      DWORD* cchText, REGSAM access, HKEY* outKey) {
  using Char = typename Api::Char;
  constexpr DWORD kMostChars = MAXDWORD / sizeof(Char);  // no wrap-around in the byte count
  DWORD cb = cchText ? (*cchText < kMostChars ? *cchText : kMostChars) * sizeof(Char) : 0;
  const LONG rc = QueryValue<Api>(root, subKey, valueName, nullptr, reinterpret_cast<BYTE*>(text),
                                  cchText ? &cb : nullptr, access, outKey);
  if (cchText) *cchText = cb / sizeof(Char);
  return rc;
}

// Creates or opens root\subKey (or works on root itself), then sets the value;
// with no data but a value name, deletes that value instead. A key created
// here is handed out through outKey when asked (even if the value failed).
template <class Api>
LONG SetValue(HKEY root, const typename Api::Char* subKey, const typename Api::Char* valueName,
              DWORD type, const BYTE* data, DWORD cbData, REGSAM access,
              LPSECURITY_ATTRIBUTES security, HKEY* outKey, DWORD* outDisposition) {
  if (outKey) *outKey = nullptr;
  LONG rc = ResolveRoot(&root, subKey, outKey);
  if (rc != ERROR_SUCCESS) return rc;
  RegKey created;
  if (subKey) {
    DWORD disposition = 0;
    rc = Api::CreateKeyEx(root, subKey, 0, nullptr, 0, access, security, created.put(),
                          outDisposition ? outDisposition : &disposition);
    if (rc != ERROR_SUCCESS) return rc;
  }
  const HKEY key = subKey ? created.get() : root;
  if (data)
    rc = Api::SetValueEx(key, valueName, 0, type, data, cbData);
  else if (valueName)
    rc = Api::DeleteValue(key, valueName);
  if (outKey) *outKey = created.Detach();
  return rc;
}

template <class Api>
LONG SetStringValue(HKEY root, const typename Api::Char* subKey,
                    const typename Api::Char* valueName, const typename Api::Char* text,
                    REGSAM access, LPSECURITY_ATTRIBUTES security, HKEY* outKey,
                    DWORD* outDisposition) {
  return SetValue<Api>(root, subKey, valueName, REG_SZ, reinterpret_cast<const BYTE*>(text),
                       StringValueBytes(text), access, security, outKey, outDisposition);
}

// Deletes root\subKey and everything below it, innermost keys first. An empty
// path would name the root itself, and a whole root is never emptied.
template <class Api>
LONG DeleteKeyTree(HKEY root, const typename Api::Char* subKey) {
  if (!subKey || !*subKey) return ERROR_INVALID_PARAMETER;
  LONG rc;
  {
    RegKey key;
    rc = Api::OpenKeyEx(root, subKey, 0, KEY_ALL_ACCESS, key.put());
    if (rc != ERROR_SUCCESS) return rc;
    typename Api::Char child[kKeyNameChars];
    do {
      DWORD cchChild = kKeyNameChars;
      rc = Api::EnumKeyEx(key.get(), 0, child, &cchChild, nullptr, nullptr, nullptr, nullptr);
      if (rc == ERROR_SUCCESS) rc = DeleteKeyTree<Api>(key.get(), child);
    } while (rc == ERROR_SUCCESS);
  }  // closed before the key itself goes
  if (rc != ERROR_NO_MORE_ITEMS) return rc;
  return Api::DeleteKey(root, subKey);
}

}  // namespace xk::registry

namespace xk {

inline constexpr auto Reg_SetStringValueA = &registry::SetStringValue<registry::Narrow>;
inline constexpr auto Reg_SetStringValueW = &registry::SetStringValue<registry::Wide>;
inline constexpr auto Reg_QueryValueA = &registry::QueryValue<registry::Narrow>;
inline constexpr auto Reg_QueryValueW = &registry::QueryValue<registry::Wide>;
inline constexpr auto Reg_QueryStringValueA = &registry::QueryStringValue<registry::Narrow>;
inline constexpr auto Reg_QueryStringValueW = &registry::QueryStringValue<registry::Wide>;
inline constexpr auto Reg_DeleteKeyTreeA = &registry::DeleteKeyTree<registry::Narrow>;
inline constexpr auto Reg_DeleteKeyTreeW = &registry::DeleteKeyTree<registry::Wide>;

}  // namespace xk
