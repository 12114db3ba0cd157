// GUID text in both widths, the class-name lookup in the registry, and the
// reserved command-line parsers. A broken contract (NULL or unreadable text) is
// reported; the call then goes on, but never reads or writes memory the check
// found unusable.
#include <xkcombsd/Guids.h>
#include <xkcombsd/XKAssert.h>

#include "frame/RegistryValues.h"
#include "frame/Win32Error.h"
#include "strings/GuidKeyPath.h"

namespace {

constexpr char kSource[] = "MOConv";
constexpr WCHAR kNoText[] = L"";

// Two contract checks of one argument, both reported when both fail (NULL is
// also unreadable); true when the argument is usable.
bool CheckedUsable(bool present, bool readable, int line, const char* presentText,
                   const char* readableText) {
  const bool isPresent = xk::Verify(present, {kSource, line, presentText});
  const bool isReadable = xk::Verify(readable, {kSource, line + 1, readableText});
  return isPresent && isReadable;
}

template <class Api>
HRESULT GetClassNameOf(REFCLSID clsid, typename Api::Char* name, DWORD* pcch) {
  if (!pcch) return E_POINTER;  // nowhere to take the room from or report a size to
  typename Api::Char path[xk::kClassKeyChars];
  const HRESULT hr = xk::KeyPathOf(path, xk::kClassKeyPrefix, clsid);
  if (FAILED(hr)) return hr;
  DWORD cch = *pcch;
  *pcch = 0;
  const LONG rc = xk::registry::QueryStringValue<Api>(HKEY_CLASSES_ROOT, path, nullptr, name, &cch,
                                                      KEY_QUERY_VALUE, nullptr);
  if (rc == ERROR_SUCCESS || rc == ERROR_MORE_DATA) *pcch = cch;
  return xk::HResultFromWin32(rc);
}

}  // namespace

// ---- QvGUIDFromStringW -------------------------------------------------------
extern "C" HRESULT WINAPI QvGUIDFromStringW(GUID* pguid, LPCOLESTR lpszStr) {
  const bool usable = CheckedUsable(lpszStr != nullptr, !IsBadStringPtrW(lpszStr, (UINT)-1), 31,
                                    "lpszStr", "!::IsBadStringPtrW(lpszStr, (UINT)-1)");
  // NULL goes to the platform as it is (it answers for it); unreadable text is
  // parsed as empty text, which the platform refuses.
  return CLSIDFromString((usable || !lpszStr) ? lpszStr : kNoText, pguid);
}

// ---- QvGUIDFromStringA -------------------------------------------------------
extern "C" HRESULT WINAPI QvGUIDFromStringA(GUID* pguid, LPCSTR lpszStr) {
  const bool usable = CheckedUsable(lpszStr != nullptr, !IsBadStringPtrA(lpszStr, (UINT)-1), 39,
                                    "lpszStr", "!::IsBadStringPtrA(lpszStr, (UINT)-1)");
  // Text beyond the length of a braced GUID is cut before parsing; NULL or
  // unreadable text counts as no bytes at all.
  int cb = 0;
  if (usable)
    while (cb < CCH_GUID && lpszStr[cb]) ++cb;
  WCHAR wide[CCH_GUID + 1];
  const int converted = cb ? MultiByteToWideChar(CP_ACP, 0, lpszStr, cb, wide, CCH_GUID) : 0;
  wide[converted] = L'\0';
  return QvGUIDFromStringW(pguid, wide);
}

// ---- QvStringFromGUIDW -------------------------------------------------------
extern "C" HRESULT WINAPI QvStringFromGUIDW(LPOLESTR szStr, REFGUID guid) {
  // A buffer that fails the checks is not written: E_POINTER.
  if (!CheckedUsable(szStr != nullptr, !IsBadStringPtrW(szStr, CCH_GUID), 56, "szStr",
                     "!::IsBadStringPtrW(szStr, CCH_GUID)"))
    return E_POINTER;
  return StringFromGUID2(guid, szStr, CCH_GUID) ? S_OK : E_OUTOFMEMORY;
}

// ---- QvStringFromGUIDA -------------------------------------------------------
extern "C" HRESULT WINAPI QvStringFromGUIDA(LPSTR szStr, REFGUID guid) {
  if (!CheckedUsable(szStr != nullptr, !IsBadStringPtrA(szStr, CCH_GUID), 64, "szStr",
                     "!::IsBadStringPtrA(szStr, CCH_GUID)"))
    return E_POINTER;
  WCHAR wide[CCH_GUID];
  const HRESULT hr = QvStringFromGUIDW(wide, guid);
  if (SUCCEEDED(hr))
    WideCharToMultiByte(CP_ACP, 0, wide, CCH_GUID, szStr, CCH_GUID, nullptr, nullptr);
  return hr;
}

// ---- CoReg_GetClassNameA -----------------------------------------------------
extern "C" HRESULT WINAPI CoReg_GetClassNameA(REFCLSID clsid, LPSTR name, DWORD* pcch) {
  return GetClassNameOf<xk::registry::Narrow>(clsid, name, pcch);
}

// ---- CoReg_GetClassNameW -----------------------------------------------------
extern "C" HRESULT WINAPI CoReg_GetClassNameW(REFCLSID clsid, LPOLESTR name, DWORD* pcch) {
  return GetClassNameOf<xk::registry::Wide>(clsid, name, pcch);
}

// ---- ParseCommandLineAsEnumStringA -------------------------------------------
extern "C" HRESULT WINAPI ParseCommandLineAsEnumStringA(LPCSTR, IEnumString**) {
  return E_NOTIMPL;
}

// ---- ParseCommandLineAsEnumStringW -------------------------------------------
extern "C" HRESULT WINAPI ParseCommandLineAsEnumStringW(LPCOLESTR, IEnumString**) {
  return E_NOTIMPL;
}
