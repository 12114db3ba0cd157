// PLACEHOLDER: replaced by the free-threaded marshaler and CreateFTM.
#include <xkcombsd/Marshal.h>

#include "marshal/MarshalRows.h"

namespace xk::marshal {
HRESULT CreateFreeThreadedMarshaler(REFCLSID, IUnknown*, LONG*, REFIID, void**) { return E_NOTIMPL; }
}  // namespace xk::marshal

extern "C" HRESULT WINAPI CreateFTM(IUnknown*, IUnknown**) { return E_NOTIMPL; }
