// BSTR and OLE-string records: a 4-byte count, then that many bytes of the
// string including its terminator. The two kinds share the record and differ
// in how they count, where a loaded string's memory comes from, and what a
// loader accepts; one template over a kind policy writes and reads both.
#include <xkcombsd/Persist.h>
#include <xkcombsd/ScopedValue.h>

#include "persist/RecordIO.h"
#include "persist/StreamPositionGuard.h"

namespace xk::persist {

namespace {

// count = byte length + 2: a BSTR may hold an odd number of bytes, so any
// count loads, into a string of exactly count bytes (the saved terminator
// becomes its last character).
struct BstrRecord : BstrTraits {
  static ULONG Count(BSTR text) { return text ? SysStringByteLen(text) + sizeof(OLECHAR) : 0; }
  static ULONG SizeMax(ULONG count) { return count; }  // the count field itself is not counted
  static bool CountIsPlausible(ULONG) { return true; }
  static BSTR Allocate(ULONG count) { return SysAllocStringByteLen(nullptr, count); }
  static bool IsComplete(BSTR, ULONG) { return true; }
};

// count = (characters + 1) * 2: anything odd or shorter than a terminator was
// not written by a saver, and a string that does not end in its terminator would
// send a reader past the block, so both are refused as invalid records.
struct OleStringRecord : TaskMemoryTraits<OLECHAR> {
  static ULONG Count(LPCOLESTR text) {
    return text ? (static_cast<ULONG>(lstrlenW(text)) + 1) * sizeof(OLECHAR) : 0;
  }
  static ULONG SizeMax(ULONG count) { return count + sizeof(ULONG); }  // the whole record
  static bool CountIsPlausible(ULONG count) {
    return count >= sizeof(OLECHAR) && count % sizeof(OLECHAR) == 0;
  }
  static LPOLESTR Allocate(ULONG count) { return static_cast<LPOLESTR>(CoTaskMemAlloc(count)); }
  static bool IsComplete(LPCOLESTR text, ULONG count) {
    return text[count / sizeof(OLECHAR) - 1] == L'\0';
  }
};

template <class Record, class Text>
HRESULT GetSizeMax(Text text, ULONG* pcb) {
  if (!pcb) return E_POINTER;
  *pcb = Record::SizeMax(Record::Count(text));
  return S_OK;
}

// The record alone; the callers below arm the position guard.
template <class Record, class Text>
HRESULT SaveRecord(IStream* stream, Text text) {
  const ULONG count = Record::Count(text);
  HRESULT hr = WriteUInt32(stream, count);
  if (SUCCEEDED(hr) && count) hr = WriteRecordBytes(stream, text, count);
  return hr;
}

template <class Record>
HRESULT LoadRecord(IStream* stream, typename Record::Type* loaded) {
  *loaded = nullptr;
  ULONG count;
  HRESULT hr = ReadUInt32(stream, &count);
  if (FAILED(hr)) return hr;
  if (count == 0) return S_OK;  // a saved null string loads as null, for both kinds
  if (!Record::CountIsPlausible(count)) return kInvalidRecord;
  hr = CheckStreamCanHold(stream, count);
  if (FAILED(hr)) return hr;

  ScopedValue<Record> text(Record::Allocate(count));
  if (!text.get()) return E_OUTOFMEMORY;
  ZeroMemory(text.get(), count);  // what a short read does not supply
  hr = ReadRecordBytes(stream, text.get(), count);
  if (FAILED(hr)) return hr;
  if (!Record::IsComplete(text.get(), count)) return kInvalidRecord;
  *loaded = text.Detach();
  return hr;
}

template <class Record, class Text>
HRESULT Save(IStream* stream, Text text) {
  if (!stream) return E_POINTER;
  StreamPositionGuard guard(stream);
  const HRESULT hr = SaveRecord<Record>(stream, text);
  if (SUCCEEDED(hr)) guard.Commit();
  return hr;
}

template <class Record>
HRESULT Load(IStream* stream, typename Record::Type* loaded) {
  if (!stream || !loaded) return E_POINTER;
  StreamPositionGuard guard(stream);
  const HRESULT hr = LoadRecord<Record>(stream, loaded);
  if (SUCCEEDED(hr)) guard.Commit();
  return hr;
}

}  // namespace

HRESULT SaveBstrRecord(IStream* stream, BSTR text) { return SaveRecord<BstrRecord>(stream, text); }
HRESULT LoadBstrRecord(IStream* stream, BSTR* loaded) {
  return LoadRecord<BstrRecord>(stream, loaded);
}

}  // namespace xk::persist

using namespace xk::persist;

// ---- BSTR_GetSizeMax ---------------------------------------------------------
extern "C" HRESULT WINAPI BSTR_GetSizeMax(BSTR bstr, ULONG* pcb) {
  return GetSizeMax<BstrRecord>(bstr, pcb);
}

// ---- BSTR_SaveToStream -------------------------------------------------------
extern "C" HRESULT WINAPI BSTR_SaveToStream(IStream* pstm, BSTR bstr) {
  return Save<BstrRecord>(pstm, bstr);
}

// ---- BSTR_LoadFromStream -----------------------------------------------------
extern "C" HRESULT WINAPI BSTR_LoadFromStream(IStream* pstm, BSTR* pbstr) {
  return Load<BstrRecord>(pstm, pbstr);
}

// ---- OleString_GetSizeMax ----------------------------------------------------
extern "C" HRESULT WINAPI OleString_GetSizeMax(LPCOLESTR psz, ULONG* pcb) {
  return GetSizeMax<OleStringRecord>(psz, pcb);
}

// ---- OleString_SaveToStream --------------------------------------------------
extern "C" HRESULT WINAPI OleString_SaveToStream(IStream* pstm, LPCOLESTR psz) {
  return Save<OleStringRecord>(pstm, psz);
}

// ---- OleString_LoadFromStream ------------------------------------------------
extern "C" HRESULT WINAPI OleString_LoadFromStream(IStream* pstm, LPOLESTR* ppsz) {
  return Load<OleStringRecord>(pstm, ppsz);
}
