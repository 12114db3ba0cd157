// The late-bound entry points to the user-interface and registry libraries.
// Most are exported by ordinal only, so that the family's other libraries can
// use them too; the library's own code calls them through the same entry points.
#include <stdarg.h>
#include <xkcombsd/LateBound.h>

#include "frame/LateBinding.h"

#ifdef _WIN64
// x86_64 has one calling convention; the attributes GCC drops from these
// function-pointer template arguments carry no meaning there.
#pragma GCC diagnostic ignored "-Wignored-attributes"
#endif

namespace xk::latebound {
namespace {

constexpr EntryName kRegCloseKey{&g_advapi32, "RegCloseKey"};
constexpr EntryName kRegDeleteKeyA{&g_advapi32, "RegDeleteKeyA"};
constexpr EntryName kRegDeleteKeyW{&g_advapi32, "RegDeleteKeyW"};
constexpr EntryName kRegDeleteValueA{&g_advapi32, "RegDeleteValueA"};
constexpr EntryName kRegDeleteValueW{&g_advapi32, "RegDeleteValueW"};
constexpr EntryName kRegEnumKeyExA{&g_advapi32, "RegEnumKeyExA"};
constexpr EntryName kRegEnumKeyExW{&g_advapi32, "RegEnumKeyExW"};
constexpr EntryName kRegOpenKeyExA{&g_advapi32, "RegOpenKeyExA"};
constexpr EntryName kRegOpenKeyExW{&g_advapi32, "RegOpenKeyExW"};
constexpr EntryName kRegSetValueExA{&g_advapi32, "RegSetValueExA"};
constexpr EntryName kRegSetValueExW{&g_advapi32, "RegSetValueExW"};
constexpr EntryName kRegCreateKeyExA{&g_advapi32, "RegCreateKeyExA"};
constexpr EntryName kRegCreateKeyExW{&g_advapi32, "RegCreateKeyExW"};
constexpr EntryName kRegQueryValueExA{&g_advapi32, "RegQueryValueExA"};
constexpr EntryName kRegQueryValueExW{&g_advapi32, "RegQueryValueExW"};
constexpr EntryName kRegQueryInfoKeyA{&g_advapi32, "RegQueryInfoKeyA"};
constexpr EntryName kRegQueryInfoKeyW{&g_advapi32, "RegQueryInfoKeyW"};
constexpr EntryName kCharLowerA{&g_user32, "CharLowerA"};
constexpr EntryName kCharLowerW{&g_user32, "CharLowerW"};
constexpr EntryName kCharUpperA{&g_user32, "CharUpperA"};
constexpr EntryName kCharUpperW{&g_user32, "CharUpperW"};
// The variadic formatters keep slots of their own, apart from ordinals 119 and 120.
constexpr EntryName kWsprintfA{&g_user32, "wvsprintfA"};
constexpr EntryName kWsprintfW{&g_user32, "wvsprintfW"};
constexpr EntryName kLoadStringA{&g_user32, "LoadStringA"};
constexpr EntryName kLoadStringW{&g_user32, "LoadStringW"};
constexpr EntryName kWvsprintfA{&g_user32, "wvsprintfA"};
constexpr EntryName kWvsprintfW{&g_user32, "wvsprintfW"};
constexpr EntryName kIsCharAlphaA{&g_user32, "IsCharAlphaA"};
constexpr EntryName kIsCharAlphaW{&g_user32, "IsCharAlphaW"};
constexpr EntryName kMessageBoxA{&g_user32, "MessageBoxA"};
constexpr EntryName kMessageBoxW{&g_user32, "MessageBoxW"};

}  // namespace
}  // namespace xk::latebound

using xk::latebound::Entry;
namespace lb = xk::latebound;

extern "C" {

LONG WINAPI LB_RegCloseKey(HKEY key) {
  return Entry<lb::kRegCloseKey, decltype(&RegCloseKey)>::Call(key);
}
LONG WINAPI LB_RegDeleteKeyA(HKEY key, LPCSTR subKey) {
  return Entry<lb::kRegDeleteKeyA, decltype(&RegDeleteKeyA)>::Call(key, subKey);
}
LONG WINAPI LB_RegDeleteKeyW(HKEY key, LPCWSTR subKey) {
  return Entry<lb::kRegDeleteKeyW, decltype(&RegDeleteKeyW)>::Call(key, subKey);
}
LONG WINAPI LB_RegDeleteValueA(HKEY key, LPCSTR name) {
  return Entry<lb::kRegDeleteValueA, decltype(&RegDeleteValueA)>::Call(key, name);
}
LONG WINAPI LB_RegDeleteValueW(HKEY key, LPCWSTR name) {
  return Entry<lb::kRegDeleteValueW, decltype(&RegDeleteValueW)>::Call(key, name);
}
LONG WINAPI LB_RegEnumKeyExA(HKEY key, DWORD index, LPSTR name, LPDWORD cchName, LPDWORD reserved,
                             LPSTR cls, LPDWORD cchClass, PFILETIME lastWrite) {
  return Entry<lb::kRegEnumKeyExA, decltype(&RegEnumKeyExA)>::Call(
      key, index, name, cchName, reserved, cls, cchClass, lastWrite);
}
LONG WINAPI LB_RegEnumKeyExW(HKEY key, DWORD index, LPWSTR name, LPDWORD cchName, LPDWORD reserved,
                             LPWSTR cls, LPDWORD cchClass, PFILETIME lastWrite) {
  return Entry<lb::kRegEnumKeyExW, decltype(&RegEnumKeyExW)>::Call(
      key, index, name, cchName, reserved, cls, cchClass, lastWrite);
}
LONG WINAPI LB_RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD options, REGSAM access, PHKEY result) {
  return Entry<lb::kRegOpenKeyExA, decltype(&RegOpenKeyExA)>::Call(key, subKey, options, access,
                                                                    result);
}
LONG WINAPI LB_RegOpenKeyExW(HKEY key, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY result) {
  return Entry<lb::kRegOpenKeyExW, decltype(&RegOpenKeyExW)>::Call(key, subKey, options, access,
                                                                    result);
}
LONG WINAPI LB_RegSetValueExA(HKEY key, LPCSTR name, DWORD reserved, DWORD type, const BYTE* data,
                              DWORD cbData) {
  return Entry<lb::kRegSetValueExA, decltype(&RegSetValueExA)>::Call(key, name, reserved, type,
                                                                      data, cbData);
}
LONG WINAPI LB_RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data,
                              DWORD cbData) {
  return Entry<lb::kRegSetValueExW, decltype(&RegSetValueExW)>::Call(key, name, reserved, type,
                                                                      data, cbData);
}
LONG WINAPI LB_RegCreateKeyExA(HKEY key, LPCSTR subKey, DWORD reserved, LPSTR cls, DWORD options,
                               REGSAM access, LPSECURITY_ATTRIBUTES security, PHKEY result,
                               LPDWORD disposition) {
  return Entry<lb::kRegCreateKeyExA, decltype(&RegCreateKeyExA)>::Call(
      key, subKey, reserved, cls, options, access, security, result, disposition);
}
LONG WINAPI LB_RegCreateKeyExW(HKEY key, LPCWSTR subKey, DWORD reserved, LPWSTR cls, DWORD options,
                               REGSAM access, LPSECURITY_ATTRIBUTES security, PHKEY result,
                               LPDWORD disposition) {
  return Entry<lb::kRegCreateKeyExW, decltype(&RegCreateKeyExW)>::Call(
      key, subKey, reserved, cls, options, access, security, result, disposition);
}
LONG WINAPI LB_RegQueryValueExA(HKEY key, LPCSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                LPDWORD cbData) {
  return Entry<lb::kRegQueryValueExA, decltype(&RegQueryValueExA)>::Call(key, name, reserved, type,
                                                                          data, cbData);
}
LONG WINAPI LB_RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data,
                                LPDWORD cbData) {
  return Entry<lb::kRegQueryValueExW, decltype(&RegQueryValueExW)>::Call(key, name, reserved, type,
                                                                          data, cbData);
}
LONG WINAPI LB_RegQueryInfoKeyA(HKEY key, LPSTR cls, LPDWORD cchClass, LPDWORD reserved,
                                LPDWORD subKeys, LPDWORD maxSubKeyLen, LPDWORD maxClassLen,
                                LPDWORD values, LPDWORD maxValueNameLen, LPDWORD maxValueLen,
                                LPDWORD securityDescriptor, PFILETIME lastWrite) {
  return Entry<lb::kRegQueryInfoKeyA, decltype(&RegQueryInfoKeyA)>::Call(
      key, cls, cchClass, reserved, subKeys, maxSubKeyLen, maxClassLen, values, maxValueNameLen,
      maxValueLen, securityDescriptor, lastWrite);
}
LONG WINAPI LB_RegQueryInfoKeyW(HKEY key, LPWSTR cls, LPDWORD cchClass, LPDWORD reserved,
                                LPDWORD subKeys, LPDWORD maxSubKeyLen, LPDWORD maxClassLen,
                                LPDWORD values, LPDWORD maxValueNameLen, LPDWORD maxValueLen,
                                LPDWORD securityDescriptor, PFILETIME lastWrite) {
  return Entry<lb::kRegQueryInfoKeyW, decltype(&RegQueryInfoKeyW)>::Call(
      key, cls, cchClass, reserved, subKeys, maxSubKeyLen, maxClassLen, values, maxValueNameLen,
      maxValueLen, securityDescriptor, lastWrite);
}
LPSTR WINAPI LB_CharLowerA(LPSTR text) {
  return Entry<lb::kCharLowerA, decltype(&CharLowerA)>::Call(text);
}
LPWSTR WINAPI LB_CharLowerW(LPWSTR text) {
  return Entry<lb::kCharLowerW, decltype(&CharLowerW)>::Call(text);
}
LPSTR WINAPI LB_CharUpperA(LPSTR text) {
  return Entry<lb::kCharUpperA, decltype(&CharUpperA)>::Call(text);
}
LPWSTR WINAPI LB_CharUpperW(LPWSTR text) {
  return Entry<lb::kCharUpperW, decltype(&CharUpperW)>::Call(text);
}
int __cdecl LB_wsprintfA(LPSTR buffer, LPCSTR format, ...) {
  va_list args;
  va_start(args, format);
  const int written = Entry<lb::kWsprintfA, decltype(&wvsprintfA)>::Call(buffer, format, args);
  va_end(args);
  return written;
}
int __cdecl LB_wsprintfW(LPWSTR buffer, LPCWSTR format, ...) {
  va_list args;
  va_start(args, format);
  const int written = Entry<lb::kWsprintfW, decltype(&wvsprintfW)>::Call(buffer, format, args);
  va_end(args);
  return written;
}
int WINAPI LB_LoadStringA(HINSTANCE hinst, UINT id, LPSTR buffer, int cch) {
  return Entry<lb::kLoadStringA, decltype(&LoadStringA)>::Call(hinst, id, buffer, cch);
}
int WINAPI LB_LoadStringW(HINSTANCE hinst, UINT id, LPWSTR buffer, int cch) {
  return Entry<lb::kLoadStringW, decltype(&LoadStringW)>::Call(hinst, id, buffer, cch);
}
int WINAPI LB_wvsprintfA(LPSTR buffer, LPCSTR format, va_list args) {
  return Entry<lb::kWvsprintfA, decltype(&wvsprintfA)>::Call(buffer, format, args);
}
int WINAPI LB_wvsprintfW(LPWSTR buffer, LPCWSTR format, va_list args) {
  return Entry<lb::kWvsprintfW, decltype(&wvsprintfW)>::Call(buffer, format, args);
}

}  // extern "C"

namespace xk {

BOOL LB_IsCharAlphaA(CHAR ch) {
  return latebound::Entry<lb::kIsCharAlphaA, decltype(&IsCharAlphaA)>::Call(ch);
}
BOOL LB_IsCharAlphaW(WCHAR ch) {
  return latebound::Entry<lb::kIsCharAlphaW, decltype(&IsCharAlphaW)>::Call(ch);
}
int LB_MessageBoxA(HWND owner, LPCSTR text, LPCSTR caption, UINT type) {
  return latebound::Entry<lb::kMessageBoxA, decltype(&MessageBoxA)>::Call(owner, text, caption,
                                                                          type);
}
int LB_MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type) {
  return latebound::Entry<lb::kMessageBoxW, decltype(&MessageBoxW)>::Call(owner, text, caption,
                                                                          type);
}

}  // namespace xk
