// Registry key paths made of a fixed prefix and the braced text of a GUID
// ("CLSID\{...}", "Interface\{...}"), in either character width.
#pragma once

#include <xkcombsd/Guids.h>

namespace xk {

// "CLSID\{...}": a class's own key under HKEY_CLASSES_ROOT.
constexpr char kClassKeyPrefix[] = "CLSID\\";
constexpr size_t kClassKeyChars = sizeof kClassKeyPrefix - 1 + CCH_GUID;

inline HRESULT GuidToText(char* text, REFGUID guid) { return QvStringFromGUIDA(text, guid); }
inline HRESULT GuidToText(WCHAR* text, REFGUID guid) { return QvStringFromGUIDW(text, guid); }

// The prefix is plain ASCII, so it widens character by character.
template <class Char, size_t N, size_t P>
HRESULT KeyPathOf(Char (&path)[N], const char (&prefix)[P], REFGUID guid) {
  static_assert(N >= P - 1 + CCH_GUID, "room for the prefix and the braced text");
  for (size_t i = 0; i + 1 < P; ++i) path[i] = static_cast<Char>(prefix[i]);
  return GuidToText(path + P - 1, guid);
}

}  // namespace xk
