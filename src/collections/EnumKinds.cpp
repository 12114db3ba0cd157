// The creation functions of the five collection classes: the class object
// calls them with the module object count, which the new object keeps.
#include "collections/EnumKinds.h"

#include "collections/CollectionRows.h"
#include "frame/HandOut.h"

namespace xk::collections {

HRESULT CreateEnumString(REFCLSID, IUnknown*, LONG* objectCount, REFIID riid, void** ppv) {
  return HandOut(new EnumString(objectCount), riid, ppv);
}
HRESULT CreateEnumBSTR(REFCLSID, IUnknown*, LONG* objectCount, REFIID riid, void** ppv) {
  return HandOut(new EnumBSTR(objectCount), riid, ppv);
}
HRESULT CreateEnumUnknown(REFCLSID, IUnknown*, LONG* objectCount, REFIID riid, void** ppv) {
  return HandOut(new EnumUnknown(objectCount), riid, ppv);
}
HRESULT CreateEnumGUID(REFCLSID, IUnknown*, LONG* objectCount, REFIID riid, void** ppv) {
  return HandOut(new EnumGUID(objectCount), riid, ppv);
}
HRESULT CreateEnumVARIANT(REFCLSID, IUnknown*, LONG* objectCount, REFIID riid, void** ppv) {
  return HandOut(new EnumVARIANT(objectCount), riid, ppv);
}

}  // namespace xk::collections
