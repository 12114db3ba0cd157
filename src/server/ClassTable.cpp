// The classes the library serves and DllGetClassObject over them.
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>

#include "server/ClassTable.h"
#include "collections/CollectionRows.h"
#include "marshal/MarshalRows.h"
#include "propbag/PropertyBagRows.h"

namespace xk::server {

namespace {

// Searched in this order. The proxy/stub rows' identifiers are the proxied
// interfaces' own.
constexpr ClassRow kClassTable[] = {
    {&CLSID_QvEnumString, collections::CreateEnumString, kNoAggregation},
    {&CLSID_QvEnumBSTR, collections::CreateEnumBSTR, kNoAggregation},
    {&CLSID_QvEnumUnknown, collections::CreateEnumUnknown, kNoAggregation},
    {&CLSID_QvEnumGUID, collections::CreateEnumGUID, kNoAggregation},
    {&CLSID_QvEnumVARIANT, collections::CreateEnumVARIANT, kNoAggregation},
    {&CLSID_QvPropertyBag, propbag::CreatePropertyBag, kNoAggregation},
    {&CLSID_QvPropertyBag_ST, propbag::CreatePropertyBag, kNoAggregation},
    {&CLSID_QvFreeThreadedUnmarshaler, marshal::CreateFreeThreadedUnmarshaler, kNoAggregation},
    {&CLSID_QvFreeThreadedMarshaler, marshal::CreateFreeThreadedMarshaler, 0},
    {&IID_IQvEnumGUID, marshal::CreateGuidProxyStub, 0},
    {&IID_ICollGUID, marshal::CreateGuidProxyStub, 0},
    {&IID_ISeqGUID, marshal::CreateGuidProxyStub, 0},
    {nullptr, nullptr, 0},  // end of the table
};

}  // namespace

}  // namespace xk::server

// ---- DllGetClassObject -------------------------------------------------------
extern "C" HRESULT WINAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) {
  return xk::server::GetClassObject(xk::server::kClassTable, rclsid, riid, ppv);
}
