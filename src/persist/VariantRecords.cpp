// VARIANT records: 16 bytes imaging the start of a by-value VARIANT (vt, the
// three reserved words, the first 8 bytes of the value), then a BSTR, object or
// array record where vt calls for one. A VARIANT is 24 bytes on x86_64; the
// record is 16 bytes on every target. One table of types governs save and load.
#include <stddef.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/ScopedValue.h>

#include "persist/ObjectLoading.h"
#include "persist/RecordIO.h"
#include "persist/StreamPositionGuard.h"

namespace xk::persist {
namespace {

constexpr ULONG kVariantRecordBytes = 16;
static_assert(offsetof(VARIANT, vt) == 0 && offsetof(VARIANT, llVal) == 8,
              "the record images vt, the reserved words and the first 8 value bytes");

constexpr char kUnrecognisedType[] = "Unrecognised variant type\n";
constexpr char kByRefArray[] =
    "Cannot load a variant with VT_BYREF|VT_ARRAY, so save operation is prohibited\n";

enum class Payload { None, Bstr, Object, Array, Refused };

Payload PayloadOf(VARTYPE vt) {
  switch (vt) {
    // clang-format off
    case VT_EMPTY: case VT_NULL: case VT_I2: case VT_I4: case VT_R4: case VT_R8:
    case VT_CY: case VT_DATE: case VT_ERROR: case VT_BOOL: case VT_I1: case VT_UI1:
    case VT_UI2: case VT_UI4: case VT_INT: case VT_UINT:
      // clang-format on
      return Payload::None;
    case VT_BSTR:
      return Payload::Bstr;
    case VT_DISPATCH:
    case VT_UNKNOWN:
      return Payload::Object;
    case VT_ARRAY:  // only the bare flag: an array with an element type is refused
      return Payload::Array;
    default:  // VT_DECIMAL fits in 16 bytes but is refused all the same
      return Payload::Refused;
  }
}

HRESULT RefuseType() {
  OutputDebugStringA(kUnrecognisedType);
  return DISP_E_BADVARTYPE;
}

HRESULT SavePayload(IStream* stream, const VARIANT& value) {
  switch (PayloadOf(value.vt)) {
    case Payload::None:
      return S_OK;
    case Payload::Bstr:
      return SaveBstrRecord(stream, value.bstrVal);
    case Payload::Object:  // pdispVal and punkVal are the same pointer
      return OleSaveUnknownToStream(stream, value.punkVal);
    case Payload::Array:
      return SAFEARRAY_SaveToStream(stream, value.parray);
    default:
      return RefuseType();
  }
}

HRESULT SaveByValue(IStream* stream, const VARIANT& value) {
  StreamPositionGuard guard(stream);
  HRESULT hr = WriteRecordBytes(stream, &value, kVariantRecordBytes);
  if (SUCCEEDED(hr)) hr = SavePayload(stream, value);
  if (SUCCEEDED(hr)) guard.Commit();
  return hr;
}

// The object is made by the library's own loader rather than the platform's,
// which on some systems returns a failed Load with the object still in its
// output (or one it has already released). A saved null pointer names
// CLSID_NULL, which no server registers: that refusal is the null object.
HRESULT LoadVariantObject(IStream* stream, VARTYPE vt, IUnknown** object) {
  const HRESULT hr = LoadObject(stream, vt == VT_DISPATCH ? IID_IDispatch : IID_IUnknown,
                                reinterpret_cast<void**>(object));
  return hr == REGDB_E_CLASSNOTREG ? S_OK : hr;
}

// Each payload loader leaves its pointer null unless it succeeds.
HRESULT LoadPayload(IStream* stream, VARIANT* value) {
  switch (PayloadOf(value->vt)) {
    case Payload::None:
      return S_OK;
    case Payload::Bstr:
      return LoadBstrRecord(stream, &value->bstrVal);
    case Payload::Object:
      return LoadVariantObject(stream, value->vt, &value->punkVal);
    case Payload::Array:
      return SAFEARRAY_LoadFromStream(stream, &value->parray);
    default:
      return RefuseType();
  }
}

}  // namespace
}  // namespace xk::persist

using namespace xk::persist;

// ---- VARIANT_GetSizeMax ------------------------------------------------------
extern "C" HRESULT WINAPI VARIANT_GetSizeMax(const VARIANT*, ULONG*) { return E_NOTIMPL; }

// ---- VARIANT_SaveToStream ----------------------------------------------------
extern "C" HRESULT WINAPI VARIANT_SaveToStream(IStream* pstm, const VARIANT* pvar) {
  if (!pstm || !pvar) return E_POINTER;
  if (!(pvar->vt & VT_BYREF)) return SaveByValue(pstm, *pvar);
  // An array by reference could never be loaded back, so it is not saved either.
  if (pvar->vt & VT_ARRAY) {
    OutputDebugStringA(kByRefArray);
    return E_INVALIDARG;
  }
  // A reference to nothing is a missing value; the platform's copy would read through it.
  if (!V_BYREF(pvar)) return E_POINTER;
  // The record always holds a value: one level of reference is removed first.
  xk::ScopedVariant byValue;
  // VariantCopyInd only reads its source; its declaration lacks the const.
  const HRESULT hr = VariantCopyInd(byValue.put(), const_cast<VARIANT*>(pvar));
  if (FAILED(hr)) return hr;
  return SaveByValue(pstm, byValue.get());
}

// ---- VARIANT_LoadFromStream --------------------------------------------------
extern "C" HRESULT WINAPI VARIANT_LoadFromStream(IStream* pstm, VARIANT* pvar) {
  if (!pstm || !pvar) return E_POINTER;
  StreamPositionGuard guard(pstm);
  // The caller's previous content is not released (it passes an empty or an
  // uninitialised VARIANT); nothing of it may survive a short read either.
  ZeroMemory(pvar, sizeof *pvar);
  HRESULT hr = ReadRecordBytes(pstm, pvar, kVariantRecordBytes);
  if (SUCCEEDED(hr)) hr = LoadPayload(pstm, pvar);
  if (FAILED(hr)) {
    // The raw vt and value bits would make VariantClear free pointers no load
    // filled; a failed load owns nothing, so the output becomes VT_EMPTY.
    ZeroMemory(pvar, sizeof *pvar);
    return hr;
  }
  guard.Commit();
  return hr;
}
