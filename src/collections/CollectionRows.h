// The class-table rows of the five collection classes, in the table's order,
// and their creation functions.
//
// TEMPORARY until merge: CreateFunction and ClassRow stand in for the class
// table's own declarations (src/module/ClassTable.h, written on another
// branch); the rows and the creation functions stay.
#pragma once

#include <xkcombsd/Identifiers.h>
#include <xkcombsd/XKApi.h>

namespace xk::collections {

// (row identifier, outer unknown or NULL, module object count or NULL,
// requested interface, out pointer)
using CreateFunction = HRESULT (*)(REFCLSID, IUnknown*, LONG*, REFIID, void**);

struct ClassRow {
  const GUID* id;
  CreateFunction create;
  DWORD flags;  // bit 0: aggregation is not supported
};

// A new object counted in objectCount, queried for riid. The rows refuse an
// outer unknown before these are called, so they do not look at it.
HRESULT CreateEnumString(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv);
HRESULT CreateEnumBSTR(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv);
HRESULT CreateEnumUnknown(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv);
HRESULT CreateEnumGUID(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv);
HRESULT CreateEnumVARIANT(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv);

constexpr DWORD kNoAggregation = 1;

inline constexpr ClassRow kCollectionRows[] = {
    {&CLSID_QvEnumString, CreateEnumString, kNoAggregation},
    {&CLSID_QvEnumBSTR, CreateEnumBSTR, kNoAggregation},
    {&CLSID_QvEnumUnknown, CreateEnumUnknown, kNoAggregation},
    {&CLSID_QvEnumGUID, CreateEnumGUID, kNoAggregation},
    {&CLSID_QvEnumVARIANT, CreateEnumVARIANT, kNoAggregation},
};

}  // namespace xk::collections
