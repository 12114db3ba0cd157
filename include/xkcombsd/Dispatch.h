// Late-bound calls on any automation object in one line. Each function takes
// any interface of the object, asks it for IDispatch and lets it go again
// before returning. Calls use IID_NULL and the system default locale (0x800),
// except Dispatch_GetMethodIDs, whose caller gives both. The argument array
// goes to IDispatch::Invoke unchanged: its first element is the call's last
// argument. No exception information is asked for; the object's results are
// returned unchanged.
#pragma once

#include <oaidl.h>
#include <xkcombsd/XKApi.h>

// Looks each name up by itself (one GetIDsOfNames call per name). An unknown
// name leaves DISPID_UNKNOWN (-1) in its place, the others are still looked
// up, and the result is then DISP_E_UNKNOWNNAME; any other failure stops there.
XK_EXTERN_C HRESULT XKAPI Dispatch_GetMethodIDs(IUnknown* object, REFIID reserved, LPOLESTR* names,
                                                UINT count, LCID locale, DISPID* ids);  // 64

// A NULL result discards whatever the member returns. No named argument is
// passed, whatever the flags.
XK_EXTERN_C HRESULT XKAPI Dispatch_Invoke(IUnknown* object, DISPID member, WORD flags, UINT count,
                                          VARIANTARG* args, VARIANT* result);  // 154
// As Dispatch_Invoke by name. Flags exactly DISPATCH_PROPERTYPUT or
// DISPATCH_PROPERTYPUTREF (not among other bits) name the one argument
// DISPID_PROPERTYPUT, as a property put requires.
XK_EXTERN_C HRESULT XKAPI Dispatch_NamedInvoke(IUnknown* object, LPOLESTR name, WORD flags,
                                               UINT count, VARIANTARG* args,
                                               VARIANT* result);  // 155
XK_EXTERN_C HRESULT XKAPI Dispatch_GetProperty(IUnknown* object, DISPID member,
                                               VARIANT* result);  // 60
XK_EXTERN_C HRESULT XKAPI Dispatch_GetNamedProperty(IUnknown* object, LPOLESTR name,
                                                    VARIANT* result);  // 63

// The earlier forms, without a result.
XK_EXTERN_C HRESULT XKAPI _Dispatch_Invoke_old(IUnknown* object, DISPID member, WORD flags,
                                               UINT count, VARIANTARG* args);  // 59
XK_EXTERN_C HRESULT XKAPI _Dispatch_NamedInvoke_old(IUnknown* object, LPOLESTR name, WORD flags,
                                                    UINT count, VARIANTARG* args);  // 65
