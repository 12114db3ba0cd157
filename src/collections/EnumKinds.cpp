// The creation functions of the five collection classes: the class object
// calls them with the module object count, which the new object keeps.
#include "EnumKinds.h"

#include "CollectionRows.h"

namespace xk::collections {

namespace {

// The creation reference is released after the query, so a refused interface
// destroys the object again.
template <class Object>
HRESULT CreateQueried(LONG* objectCount, REFIID riid, void** ppv) {
  Object* created = new Object(objectCount);
  if (!created) return E_OUTOFMEMORY;
  const HRESULT queried = created->QueryInterface(riid, ppv);
  created->Release();
  return queried;
}

}  // namespace

HRESULT CreateEnumString(REFCLSID, IUnknown*, LONG* objectCount, REFIID riid, void** ppv) {
  return CreateQueried<EnumString>(objectCount, riid, ppv);
}
HRESULT CreateEnumBSTR(REFCLSID, IUnknown*, LONG* objectCount, REFIID riid, void** ppv) {
  return CreateQueried<EnumBSTR>(objectCount, riid, ppv);
}
HRESULT CreateEnumUnknown(REFCLSID, IUnknown*, LONG* objectCount, REFIID riid, void** ppv) {
  return CreateQueried<EnumUnknown>(objectCount, riid, ppv);
}
HRESULT CreateEnumGUID(REFCLSID, IUnknown*, LONG* objectCount, REFIID riid, void** ppv) {
  return CreateQueried<EnumGUID>(objectCount, riid, ppv);
}
HRESULT CreateEnumVARIANT(REFCLSID, IUnknown*, LONG* objectCount, REFIID riid, void** ppv) {
  return CreateQueried<EnumVARIANT>(objectCount, riid, ppv);
}

}  // namespace xk::collections
