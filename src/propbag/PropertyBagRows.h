// The creation function of the two property-bag classes, as the class table
// calls it.
#pragma once

#include <objbase.h>

namespace xk::propbag {

// A new bag of the class clsid names (free-threaded PropertyBag or
// single-threaded PropertyBag_ST), counted in objectCount, queried for riid.
// An outer unknown is ignored when riid is IID_IUnknown and refused otherwise.
HRESULT CreatePropertyBag(REFCLSID clsid, IUnknown* outer, LONG* objectCount, REFIID riid,
                          void** ppv);

}  // namespace xk::propbag
