// PLACEHOLDER: replaced by the GUID proxy/stub pair.
#include "marshal/MarshalRows.h"

namespace xk::marshal {
HRESULT CreateGuidProxyStub(REFCLSID, IUnknown*, LONG*, REFIID, void**) { return E_NOTIMPL; }
}  // namespace xk::marshal
