// The creation functions of the marshalling classes, as the class table calls
// them: the GUID collections' own proxy/stub pair (its rows' identifiers are
// the proxied interfaces' own) and the free-threaded marshaler pair.
#pragma once

#include <objbase.h>

namespace xk::marshal {

HRESULT CreateGuidProxyStub(REFCLSID clsid, IUnknown* outer, LONG* objectCount, REFIID riid,
                            void** ppv);
HRESULT CreateFreeThreadedMarshaler(REFCLSID clsid, IUnknown* outer, LONG* objectCount, REFIID riid,
                                    void** ppv);
HRESULT CreateFreeThreadedUnmarshaler(REFCLSID clsid, IUnknown* outer, LONG* objectCount,
                                      REFIID riid, void** ppv);

}  // namespace xk::marshal
