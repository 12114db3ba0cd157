// Object records: the object's class id, then whatever the object's own Save
// writes. Saving goes through the platform's OleSaveToStream; loading into an
// existing object checks that the record names the object's own class.
#include <ocidl.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/Persist.h>

#include "persist/ObjectLoading.h"
#include "persist/StreamPositionGuard.h"

namespace xk::persist {
namespace {

// IPersistStreamInit starts with IPersistStream's methods in the same order, so
// either one serves wherever an IPersistStream is called for.
HRESULT QueryPersistStream(IUnknown* object, MLRelItf<IPersistStream>* persist) {
  void* found = nullptr;
  HRESULT hr = object->QueryInterface(IID_IPersistStream, &found);
  if (FAILED(hr)) hr = object->QueryInterface(IID_IPersistStreamInit, &found);
  // Only a success hands out a reference; a refusal that wrote a pointer anyway
  // hands out nothing we may release.
  if (SUCCEEDED(hr)) *persist->put() = static_cast<IPersistStream*>(found);
  return hr;
}

HRESULT LoadIfSameClass(IStream* stream, IPersistStream* persist) {
  CLSID stored;
  HRESULT hr = ReadClassStm(stream, &stored);
  if (FAILED(hr)) return hr;
  CLSID own;
  if (FAILED(persist->GetClassID(&own)) || !IsEqualCLSID(stored, own)) return TYPE_E_INVALIDID;
  return persist->Load(stream);
}

}  // namespace

HRESULT LoadObject(IStream* stream, REFIID riid, void** ppv) {
  *ppv = nullptr;
  CLSID clsid;
  HRESULT hr = ReadClassStm(stream, &clsid);
  if (FAILED(hr)) return hr;
  MLRelItf<IUnknown> object;
  hr = CoCreateInstance(clsid, nullptr, CLSCTX_SERVER, IID_IUnknown, object.put_void());
  if (FAILED(hr)) return hr;
  MLRelItf<IPersistStream> persist;
  hr = QueryPersistStream(object.get(), &persist);
  if (SUCCEEDED(hr)) hr = persist->Load(stream);
  if (SUCCEEDED(hr)) hr = object->QueryInterface(riid, ppv);
  if (FAILED(hr)) *ppv = nullptr;  // a refusal may have written one anyway
  return hr;
}

}  // namespace xk::persist

using namespace xk::persist;

// ---- OleSaveUnknownToStream --------------------------------------------------
extern "C" HRESULT WINAPI OleSaveUnknownToStream(IStream* pstm, IUnknown* punk) {
  // Checked here rather than left to whichever platform call would meet it first.
  if (!pstm) return E_POINTER;
  if (!punk) return WriteClassStm(pstm, CLSID_NULL);
  xk::MLRelItf<IPersistStream> persist;
  const HRESULT hr = QueryPersistStream(punk, &persist);
  if (FAILED(hr)) return hr;
  return OleSaveToStream(persist.get(), pstm);
}

// ---- OleInitFromStream -------------------------------------------------------
extern "C" HRESULT WINAPI OleInitFromStream(IStream* pstm, IUnknown* punk) {
  if (!pstm || !punk) return E_POINTER;
  xk::MLRelItf<IPersistStream> persist;
  if (FAILED(QueryPersistStream(punk, &persist))) return E_NOINTERFACE;
  StreamPositionGuard guard(pstm);
  const HRESULT hr = LoadIfSameClass(pstm, persist.get());
  if (SUCCEEDED(hr)) guard.Commit();
  return hr;
}
