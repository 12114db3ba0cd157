// The classes the library serves and DllGetClassObject over them.
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>

#include "server/ClassTable.h"
#include "collections/CollectionRows.h"
#include "propbag/PropertyBagRows.h"

namespace xk::server {

namespace {

// Searched in this order; a class that is not built yet has no row. The rows
// still to come, each in its place after the property bags:
//   CLSID_QvFreeThreadedUnmarshaler                               kNoAggregation
//   CLSID_QvFreeThreadedMarshaler                                 flags 0
//   proxy/stubs of IID_IQvEnumGUID, IID_ICollGUID, IID_ISeqGUID (their own
//   interface identifiers)                                        flags 0
constexpr ClassRow kClassTable[] = {
    {&CLSID_QvEnumString, collections::CreateEnumString, kNoAggregation},
    {&CLSID_QvEnumBSTR, collections::CreateEnumBSTR, kNoAggregation},
    {&CLSID_QvEnumUnknown, collections::CreateEnumUnknown, kNoAggregation},
    {&CLSID_QvEnumGUID, collections::CreateEnumGUID, kNoAggregation},
    {&CLSID_QvEnumVARIANT, collections::CreateEnumVARIANT, kNoAggregation},
    {&CLSID_QvPropertyBag, propbag::CreatePropertyBag, kNoAggregation},
    {&CLSID_QvPropertyBag_ST, propbag::CreatePropertyBag, kNoAggregation},
    {nullptr, nullptr, 0},  // end of the table
};

}  // namespace

}  // namespace xk::server

// ---- DllGetClassObject -------------------------------------------------------
extern "C" HRESULT WINAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) {
  return xk::server::GetClassObject(xk::server::kClassTable, rclsid, riid, ppv);
}
