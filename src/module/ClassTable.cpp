// The classes the library serves and DllGetClassObject over them.
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>

#include "ClassTable.h"

namespace xk::module {

namespace {

// Searched in this order; a class that is not built yet has no row. Each class
// adds its row in its place:
//   EnumString, EnumBSTR, EnumUnknown, EnumGUID, EnumVARIANT, PropertyBag,
//   PropertyBag_ST, CLSID_QvFreeThreadedUnmarshaler    flags kNoAggregation
//   CLSID_QvFreeThreadedMarshaler                       flags 0
//   proxy/stubs of IID_IQvEnumGUID, IID_ICollGUID, IID_ISeqGUID (their own
//   interface identifiers)                              flags 0
// for example {&CLSID_QvEnumString, EnumString::Create, kNoAggregation}.
constexpr ClassRow kClassTable[] = {
    {nullptr, nullptr, 0},  // end of the table
};

}  // namespace

}  // namespace xk::module

// ---- DllGetClassObject -------------------------------------------------------
extern "C" HRESULT WINAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) {
  return xk::module::GetClassObject(xk::module::kClassTable, rclsid, riid, ppv);
}
