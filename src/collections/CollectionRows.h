// The creation functions of the five collection classes, as the class table
// (src/module/ClassTable.cpp) calls them.
#pragma once

#include <xkcombsd/Identifiers.h>
#include <xkcombsd/XKApi.h>

namespace xk::collections {

// A new object counted in objectCount, queried for riid. The rows refuse an
// outer unknown before these are called, so they do not look at it.
HRESULT CreateEnumString(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv);
HRESULT CreateEnumBSTR(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv);
HRESULT CreateEnumUnknown(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv);
HRESULT CreateEnumGUID(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv);
HRESULT CreateEnumVARIANT(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv);

}  // namespace xk::collections
