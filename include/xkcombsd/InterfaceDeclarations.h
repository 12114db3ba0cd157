// How the library declares its own interfaces once for C++ (abstract structs)
// and for C (a vtable struct reached through lpVtbl), so that no type library
// is needed to call them from either language.
#pragma once

#include <objbase.h>

// C++ methods have an implicit object; the C vtable names it as This, and lists
// the methods a C++ interface inherits.
#if defined(__cplusplus) && !defined(CINTERFACE)
#define QV_THIS_(iface)
#define QV_THIS(iface) void
#define QV_INHERITED(methods)
#else
#define QV_THIS_(iface) iface* This,
#define QV_THIS(iface) iface* This
#define QV_INHERITED(methods) methods
#endif

#define QV_IUNKNOWN_METHODS(iface)                                                                \
  STDMETHOD(QueryInterface)(QV_THIS_(iface) REFIID riid, void** ppv) PURE;                        \
  STDMETHOD_(ULONG, AddRef)(QV_THIS(iface)) PURE;                                                 \
  STDMETHOD_(ULONG, Release)(QV_THIS(iface)) PURE;
