// Late-bound entry points to the user-interface and registry system functions.
// Each takes the arguments of the system function it stands for and returns its
// result; the library finds the function on first use. All are exported by
// ordinal only (the import library imports them so).
//
// When the system function cannot be found, an entry point returns a failure
// of the function's own kind instead of calling it: ERROR_PROC_NOT_FOUND for the
// registry functions, 0 for the counting and formatting ones, NULL for the
// character-case functions.
#pragma once

#include <xkcombsd/XKApi.h>

XK_EXTERN_C LONG XKAPI LB_RegCloseKey(HKEY key);                                   // 91
XK_EXTERN_C LONG XKAPI LB_RegDeleteKeyA(HKEY key, LPCSTR subKey);                  // 92
XK_EXTERN_C LONG XKAPI LB_RegDeleteKeyW(HKEY key, LPCWSTR subKey);                 // 93
XK_EXTERN_C LONG XKAPI LB_RegDeleteValueA(HKEY key, LPCSTR name);                  // 94
XK_EXTERN_C LONG XKAPI LB_RegDeleteValueW(HKEY key, LPCWSTR name);                 // 95
XK_EXTERN_C LONG XKAPI LB_RegEnumKeyExA(HKEY key, DWORD index, LPSTR name, LPDWORD cchName,
                                        LPDWORD reserved, LPSTR cls, LPDWORD cchClass,
                                        PFILETIME lastWrite);                      // 96
XK_EXTERN_C LONG XKAPI LB_RegEnumKeyExW(HKEY key, DWORD index, LPWSTR name, LPDWORD cchName,
                                        LPDWORD reserved, LPWSTR cls, LPDWORD cchClass,
                                        PFILETIME lastWrite);                      // 97
XK_EXTERN_C LONG XKAPI LB_RegOpenKeyExA(HKEY key, LPCSTR subKey, DWORD options,
                                        REGSAM access, PHKEY result);              // 98
XK_EXTERN_C LONG XKAPI LB_RegOpenKeyExW(HKEY key, LPCWSTR subKey, DWORD options,
                                        REGSAM access, PHKEY result);              // 99
XK_EXTERN_C LONG XKAPI LB_RegSetValueExA(HKEY key, LPCSTR name, DWORD reserved, DWORD type,
                                         const BYTE* data, DWORD cbData);          // 100
XK_EXTERN_C LONG XKAPI LB_RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type,
                                         const BYTE* data, DWORD cbData);          // 101
XK_EXTERN_C LONG XKAPI LB_RegCreateKeyExA(HKEY key, LPCSTR subKey, DWORD reserved, LPSTR cls,
                                          DWORD options, REGSAM access,
                                          LPSECURITY_ATTRIBUTES security, PHKEY result,
                                          LPDWORD disposition);                    // 102
XK_EXTERN_C LONG XKAPI LB_RegCreateKeyExW(HKEY key, LPCWSTR subKey, DWORD reserved, LPWSTR cls,
                                          DWORD options, REGSAM access,
                                          LPSECURITY_ATTRIBUTES security, PHKEY result,
                                          LPDWORD disposition);                    // 103
XK_EXTERN_C LONG XKAPI LB_RegQueryValueExA(HKEY key, LPCSTR name, LPDWORD reserved,
                                           LPDWORD type, LPBYTE data, LPDWORD cbData); // 104
XK_EXTERN_C LONG XKAPI LB_RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved,
                                           LPDWORD type, LPBYTE data, LPDWORD cbData); // 105
XK_EXTERN_C LONG XKAPI LB_RegQueryInfoKeyA(HKEY key, LPSTR cls, LPDWORD cchClass,
                                           LPDWORD reserved, LPDWORD subKeys,
                                           LPDWORD maxSubKeyLen, LPDWORD maxClassLen,
                                           LPDWORD values, LPDWORD maxValueNameLen,
                                           LPDWORD maxValueLen, LPDWORD securityDescriptor,
                                           PFILETIME lastWrite);                   // 106
XK_EXTERN_C LONG XKAPI LB_RegQueryInfoKeyW(HKEY key, LPWSTR cls, LPDWORD cchClass,
                                           LPDWORD reserved, LPDWORD subKeys,
                                           LPDWORD maxSubKeyLen, LPDWORD maxClassLen,
                                           LPDWORD values, LPDWORD maxValueNameLen,
                                           LPDWORD maxValueLen, LPDWORD securityDescriptor,
                                           PFILETIME lastWrite);                   // 107
XK_EXTERN_C LPSTR  XKAPI LB_CharLowerA(LPSTR text);                                // 111
XK_EXTERN_C LPWSTR XKAPI LB_CharLowerW(LPWSTR text);                               // 112
XK_EXTERN_C LPSTR  XKAPI LB_CharUpperA(LPSTR text);                                // 113
XK_EXTERN_C LPWSTR XKAPI LB_CharUpperW(LPWSTR text);                               // 114
XK_EXTERN_C int __cdecl LB_wsprintfA(LPSTR buffer, LPCSTR format, ...);            // 115
XK_EXTERN_C int __cdecl LB_wsprintfW(LPWSTR buffer, LPCWSTR format, ...);          // 116
XK_EXTERN_C int XKAPI LB_LoadStringA(HINSTANCE hinst, UINT id, LPSTR buffer, int cch);  // 117
XK_EXTERN_C int XKAPI LB_LoadStringW(HINSTANCE hinst, UINT id, LPWSTR buffer, int cch); // 118
XK_EXTERN_C int XKAPI LB_wvsprintfA(LPSTR buffer, LPCSTR format, va_list args);    // 119
XK_EXTERN_C int XKAPI LB_wvsprintfW(LPWSTR buffer, LPCWSTR format, va_list args);  // 120
