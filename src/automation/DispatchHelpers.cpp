// Late-bound calls by member id or by name. Every helper holds the object's
// IDispatch only for the call and returns what the object answered.
#include <xkcombsd/Dispatch.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/ScopedValue.h>

namespace xk::automation {

namespace {

constexpr LCID kSystemDefaultLocale = 0x800;

// Distinguishes the calls that pass an argument-error output from those that
// pass none; the object sees the difference.
enum class ArgumentError { NotAsked, Asked };

HRESULT QueryDispatch(IUnknown* object, MLRelItf<IDispatch>* dispatch) {
  return object->QueryInterface(IID_IDispatch, dispatch->put_void());
}

// The object's IDispatch and the id of one member named by itself.
HRESULT QueryMemberByName(IUnknown* object, LPOLESTR name, MLRelItf<IDispatch>* dispatch,
                          DISPID* member) {
  HRESULT hr = QueryDispatch(object, dispatch);
  if (FAILED(hr)) return hr;
  *member = 0;
  return dispatch->get()->GetIDsOfNames(IID_NULL, &name, 1, kSystemDefaultLocale, member);
}

// Without a result of the caller's, the member's result lands in a local
// VARIANT and is freed here.
HRESULT InvokeMember(IDispatch* dispatch, DISPID member, WORD flags, DISPPARAMS* params,
                     VARIANT* result, ArgumentError argumentError) {
  ScopedVariant discarded;
  UINT badArgument = static_cast<UINT>(-1);
  return dispatch->Invoke(member, IID_NULL, kSystemDefaultLocale, flags, params,
                          result ? result : &discarded.get(), nullptr,
                          argumentError == ArgumentError::Asked ? &badArgument : nullptr);
}

HRESULT GetPropertyOf(IDispatch* dispatch, DISPID member, VARIANT* result) {
  DISPPARAMS none = {};
  return InvokeMember(dispatch, member, DISPATCH_PROPERTYGET, &none, result, ArgumentError::Asked);
}

}  // namespace

}  // namespace xk::automation

using namespace xk;
using namespace xk::automation;

// ---- Dispatch_GetMethodIDs ---------------------------------------------------
// Names are looked up one by one, so each is a member name, never a parameter
// name of the first.
extern "C" HRESULT WINAPI Dispatch_GetMethodIDs(IUnknown* object, REFIID reserved, LPOLESTR* names,
                                                UINT count, LCID locale, DISPID* ids) {
  if (!object || !names || !ids) return E_POINTER;
  if (count == 0) return E_INVALIDARG;
  MLRelItf<IDispatch> dispatch;
  HRESULT hr = QueryDispatch(object, &dispatch);
  if (FAILED(hr)) return hr;
  bool anyUnknown = false;
  for (UINT i = 0; i < count; ++i) {
    hr = dispatch->GetIDsOfNames(reserved, &names[i], 1, locale, &ids[i]);
    if (hr == DISP_E_UNKNOWNNAME) {
      ids[i] = DISPID_UNKNOWN;
      anyUnknown = true;
    } else if (FAILED(hr)) {
      break;
    }
  }
  return anyUnknown ? DISP_E_UNKNOWNNAME : hr;
}

// ---- Dispatch_Invoke ---------------------------------------------------------
extern "C" HRESULT WINAPI Dispatch_Invoke(IUnknown* object, DISPID member, WORD flags, UINT count,
                                          VARIANTARG* args, VARIANT* result) {
  if (!object) return E_POINTER;
  if (count > 0 && !args) return E_INVALIDARG;
  MLRelItf<IDispatch> dispatch;
  const HRESULT hr = QueryDispatch(object, &dispatch);
  if (FAILED(hr)) return hr;
  DISPPARAMS params = {args, nullptr, count, 0};
  return InvokeMember(dispatch.get(), member, flags, &params, result, ArgumentError::NotAsked);
}

// ---- Dispatch_NamedInvoke ----------------------------------------------------
extern "C" HRESULT WINAPI Dispatch_NamedInvoke(IUnknown* object, LPOLESTR name, WORD flags,
                                               UINT count, VARIANTARG* args, VARIANT* result) {
  if (!object) return E_POINTER;
  if (!name || (count > 0 && !args)) return E_INVALIDARG;
  MLRelItf<IDispatch> dispatch;
  DISPID member;
  const HRESULT hr = QueryMemberByName(object, name, &dispatch, &member);
  if (FAILED(hr)) return hr;
  // A property put must tell the object which argument is the new value. Only
  // the exact put flags mean a put: combined with other bits the call is the
  // object's to resolve.
  DISPID putValue = DISPID_PROPERTYPUT;
  DISPPARAMS params = {args, nullptr, count, 0};
  if (flags == DISPATCH_PROPERTYPUT || flags == DISPATCH_PROPERTYPUTREF) {
    params.rgdispidNamedArgs = &putValue;
    params.cNamedArgs = 1;
  }
  return InvokeMember(dispatch.get(), member, flags, &params, result, ArgumentError::Asked);
}

// ---- Dispatch_GetProperty ----------------------------------------------------
extern "C" HRESULT WINAPI Dispatch_GetProperty(IUnknown* object, DISPID member, VARIANT* result) {
  if (!object || !result) return E_POINTER;
  MLRelItf<IDispatch> dispatch;
  const HRESULT hr = QueryDispatch(object, &dispatch);
  if (FAILED(hr)) return hr;
  return GetPropertyOf(dispatch.get(), member, result);
}

// ---- Dispatch_GetNamedProperty -----------------------------------------------
extern "C" HRESULT WINAPI Dispatch_GetNamedProperty(IUnknown* object, LPOLESTR name,
                                                    VARIANT* result) {
  if (!object || !result) return E_POINTER;
  if (!name) return E_INVALIDARG;
  MLRelItf<IDispatch> dispatch;
  DISPID member;
  const HRESULT hr = QueryMemberByName(object, name, &dispatch, &member);
  if (FAILED(hr)) return hr;
  return GetPropertyOf(dispatch.get(), member, result);
}

// ---- _Dispatch_Invoke_old ----------------------------------------------------
extern "C" HRESULT WINAPI _Dispatch_Invoke_old(IUnknown* object, DISPID member, WORD flags,
                                               UINT count, VARIANTARG* args) {
  return Dispatch_Invoke(object, member, flags, count, args, nullptr);
}

// ---- _Dispatch_NamedInvoke_old -----------------------------------------------
extern "C" HRESULT WINAPI _Dispatch_NamedInvoke_old(IUnknown* object, LPOLESTR name, WORD flags,
                                                    UINT count, VARIANTARG* args) {
  return Dispatch_NamedInvoke(object, name, flags, count, args, nullptr);
}
