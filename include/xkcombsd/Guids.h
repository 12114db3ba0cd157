// GUID text, class names and command lines. The text form is the braced
// registry form: 38 characters, upper-case digits, in a buffer of CCH_GUID.
// The output argument comes first in the four conversions.
#pragma once

#include <xkcombsd/XKApi.h>

#define CCH_GUID 39  // "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" and its terminator

XK_EXTERN_C HRESULT XKAPI QvGUIDFromStringW(GUID* pguid, LPCOLESTR lpszStr);
XK_EXTERN_C HRESULT XKAPI QvGUIDFromStringA(GUID* pguid, LPCSTR lpszStr);
XK_EXTERN_C HRESULT XKAPI QvStringFromGUIDW(LPOLESTR szStr, REFGUID guid);
XK_EXTERN_C HRESULT XKAPI QvStringFromGUIDA(LPSTR szStr, REFGUID guid);

// The default value of HKEY_CLASSES_ROOT\CLSID\{clsid}. *pcch gives the room
// in characters; it receives the characters copied (terminator included) or,
// with 0x800700EA, the size needed; 0 for any other failure.
XK_EXTERN_C HRESULT XKAPI CoReg_GetClassNameA(REFCLSID clsid, LPSTR name, DWORD* pcch);
XK_EXTERN_C HRESULT XKAPI CoReg_GetClassNameW(REFCLSID clsid, LPOLESTR name, DWORD* pcch);

// Reserved: always E_NOTIMPL; neither argument is touched.
XK_EXTERN_C HRESULT XKAPI ParseCommandLineAsEnumStringA(LPCSTR commandLine, IEnumString** ppenum);
XK_EXTERN_C HRESULT XKAPI ParseCommandLineAsEnumStringW(LPCOLESTR commandLine,
                                                        IEnumString** ppenum);
