// PLACEHOLDER: replaced by the free-threaded unmarshaler.
#include "marshal/MarshalRows.h"

namespace xk::marshal {
HRESULT CreateFreeThreadedUnmarshaler(REFCLSID, IUnknown*, LONG*, REFIID, void**) {
  return E_NOTIMPL;
}
}  // namespace xk::marshal
