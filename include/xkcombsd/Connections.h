// Event sinks connected to a connectable object in one call.
//
// A weak connection does not keep the sink alive: the source's reference is
// given back as soon as it is taken. Pass the same strong flag to both calls
// of one connection. On success the sink's count changes by: strong advise +1,
// weak advise 0, strong unadvise -1, weak unadvise +1.
#pragma once

#include <ocidl.h>
#include <xkcombsd/XKApi.h>

// A NULL source, sink or cookie pointer is a broken contract: it is reported
// and answered with E_POINTER. Otherwise the source's own results are returned.
XK_EXTERN_C HRESULT XKAPI AdviseConnection(IUnknown* source, REFIID iid, IUnknown* sink,
                                           DWORD* cookie, BOOL strong);  // 71
XK_EXTERN_C HRESULT XKAPI UnadviseConnection(IUnknown* source, REFIID iid, IUnknown* sink,
                                             DWORD cookie, BOOL strong);  // 72
