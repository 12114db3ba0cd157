// Free-threaded marshalling. CreateFTM gives an object a marshaler to
// aggregate that, for a destination in the same process, passes the raw
// interface pointer instead of building a proxy: the platform's own when it
// can be made, else the library's FreeThreadedMarshaler
// (CLSID_QvFreeThreadedMarshaler), whose packets CLSID_QvFreeThreadedUnmarshaler
// reads back. Every other destination gets the platform's standard marshaler.
#pragma once

#include <xkcombsd/Identifiers.h>
#include <xkcombsd/XKApi.h>

XK_EXTERN_C HRESULT XKAPI CreateFTM(IUnknown* pUnkOuter, IUnknown** ppUnkMarshal);  // 12
