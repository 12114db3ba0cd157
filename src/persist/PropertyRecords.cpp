// Property records: one named VARIANT. The name's length field is its byte
// count rounded up to a multiple of 4, so the VARIANT record after it starts
// 4-byte aligned within the record.
//
// How far a loaded length is believed: it must be even (whole characters) and
// not 0 (a saver never writes an empty name), or the record is invalid; a
// length above the size loaders take on trust is used only when the stream
// holds that many bytes, so no hostile length reads past the stream's end or
// allocates without bound. Padding that is not zero is kept as part of the
// block; the name ends at its first zero character.
#include <xkcombsd/Persist.h>
#include <xkcombsd/Strings.h>

#include "persist/RecordIO.h"
#include "persist/StreamPositionGuard.h"

namespace xk::persist {

namespace {

constexpr BYTE kZeroPadding[4] = {};

// The name's byte count without its terminator, rounded up to a multiple of 4.
ULONG NameFieldLength(LPCOLESTR name) {
  return (static_cast<ULONG>(StrLenO(name)) * sizeof(OLECHAR) + 3) & ~3u;
}

HRESULT CheckName(LPCOLESTR name) {
  if (!name) return E_POINTER;
  return *name ? S_OK : E_INVALIDARG;
}

bool IsPlausibleNameLength(ULONG length) {
  return length != 0 && length % sizeof(OLECHAR) == 0 && length <= MAXDWORD - sizeof(OLECHAR);
}

}  // namespace

}  // namespace xk::persist

using namespace xk::persist;

// ---- Property_GetSizeMax -----------------------------------------------------
extern "C" HRESULT WINAPI Property_GetSizeMax(LPCOLESTR name, const VARIANT* value, ULONG* pcb) {
  HRESULT hr = CheckName(name);
  if (FAILED(hr)) return hr;
  if (!pcb) return E_POINTER;
  ULONG valueSize = 0;
  hr = VARIANT_GetSizeMax(value, &valueSize);
  *pcb = SUCCEEDED(hr) ? NameFieldLength(name) + valueSize : 0;
  return hr;
}

// ---- Property_SaveToStream ---------------------------------------------------
extern "C" HRESULT WINAPI Property_SaveToStream(IStream* pstm, LPCOLESTR name, const VARIANT* value) {
  if (!pstm) return E_POINTER;
  HRESULT hr = CheckName(name);
  if (FAILED(hr)) return hr;
  StreamPositionGuard guard(pstm);
  const ULONG length = NameFieldLength(name);
  const ULONG nameBytes = static_cast<ULONG>(StrLenO(name)) * sizeof(OLECHAR);
  hr = WriteUInt32(pstm, length);
  if (SUCCEEDED(hr)) hr = WriteRecordBytes(pstm, name, nameBytes);
  if (SUCCEEDED(hr) && length > nameBytes)
    hr = WriteRecordBytes(pstm, kZeroPadding, length - nameBytes);
  if (SUCCEEDED(hr)) {
    VARIANT empty;
    VariantInit(&empty);
    hr = VARIANT_SaveToStream(pstm, value ? value : &empty);
  }
  if (SUCCEEDED(hr)) guard.Commit();
  return hr;
}

// ---- Property_LoadFromStream -------------------------------------------------
extern "C" HRESULT WINAPI Property_LoadFromStream(IStream* pstm, LPOLESTR* pname, VARIANT* value) {
  if (!pstm || !pname || !value) return E_POINTER;
  *pname = nullptr;
  StreamPositionGuard guard(pstm);
  ULONG length;
  HRESULT hr = ReadUInt32(pstm, &length);
  if (FAILED(hr)) return hr;
  if (!IsPlausibleNameLength(length)) return kInvalidRecord;
  hr = CheckStreamCanHold(pstm, length);
  if (FAILED(hr)) return hr;
  // Handed to the caller at once: from here on a failure leaves the block there.
  auto* name = static_cast<BYTE*>(CoTaskMemAlloc(length + sizeof(OLECHAR)));
  *pname = reinterpret_cast<LPOLESTR>(name);
  if (!name) return E_OUTOFMEMORY;
  ZeroMemory(name, length + sizeof(OLECHAR));  // what a short read does not supply
  hr = ReadRecordBytes(pstm, name, length);
  if (SUCCEEDED(hr)) hr = VARIANT_LoadFromStream(pstm, value);
  if (SUCCEEDED(hr)) guard.Commit();
  return hr;
}
