// Module entry points, class objects and self-registration, version queries
// and the general interface probe.
#pragma once

#include <xkcombsd/XKApi.h>
#include <shlwapi.h>

// File version 1.27.1.401 as the two halves QvDllGetVersion hands out.
#define QV_DLLVERSION_HIGH 0x0001001Bu  // major 1, minor 27
#define QV_DLLVERSION_LOW  0x00010191u  // 1, build 401

XK_EXTERN_C BOOL    XKAPI DllMain(HINSTANCE hinst, DWORD reason, LPVOID reserved);
XK_EXTERN_C HRESULT XKAPI DllCanUnloadNow(void);
XK_EXTERN_C HRESULT XKAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv);

// Write or remove the registry entries of the library's classes and proxied
// interfaces. A step that fails stops a registration with SELFREG_E_CLASS
// (0x80040201); an unregistration goes through every step.
XK_EXTERN_C HRESULT XKAPI DllRegisterServer(void);
XK_EXTERN_C HRESULT XKAPI DllUnregisterServer(void);
XK_EXTERN_C HRESULT XKAPI DllGetVersion(DLLVERSIONINFO* pdvi);
XK_EXTERN_C DWORD   XKAPI QvDllGetVersion(DWORD* pdwLow);
XK_EXTERN_C HRESULT XKAPI InterfaceIsImplemented(IUnknown* punk, REFIID riid);
