// A persistent number for object records, its class object, and each record
// loader as a client calls it: a success's output is freed; a failure that
// hands something out, leaves a VARIANT that is not empty, or changes the
// object it was to load into answers kBrokenOutput instead of its code.
#pragma once

#include <objidl.h>
#include <oleauto.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/PropertyBag.h>

#include <cstring>

#include "TestStreams.h"

namespace xktest {

constexpr CLSID kNumberClass = {
    0x6B1D0C52, 0x3E0A, 0x4F5B, {0x9C, 0x11, 0x2D, 0x7A, 0x5E, 0x40, 0xB0, 0x01}};
constexpr LONG kRefusedNumber = 0x0BADBAD0;  // one whose Load fails
const HRESULT kRefusedLoad = STG_E_DOCFILECORRUPT;
const HRESULT kBrokenOutput = static_cast<HRESULT>(0xAFFFFFFF);

// On a test's stack it only counts its references; made with new it deletes
// itself at its last Release. Live() counts those alive either way.
class PersistentNumber : public IPersistStream {
 public:
  explicit PersistentNumber(LONG value, bool onHeap = false) : value(value), m_onHeap(onHeap) {
    ++Live();
  }
  virtual ~PersistentNumber() { --Live(); }
  static long& Live() {
    static long live = 0;
    return live;
  }

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    const bool known = iid == IID_IUnknown || iid == IID_IPersist || iid == IID_IPersistStream;
    *ppv = known ? this : nullptr;
    if (known) AddRef();
    return known ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
  STDMETHODIMP_(ULONG) Release() override {
    const long left = --refs;
    if (left == 0 && m_onHeap) delete this;
    return static_cast<ULONG>(left);
  }
  STDMETHODIMP GetClassID(CLSID* clsid) override {
    *clsid = kNumberClass;
    return S_OK;
  }
  STDMETHODIMP IsDirty() override { return S_FALSE; }
  STDMETHODIMP Load(IStream* stream) override {
    LONG read = 0;
    ULONG got = 0;
    const HRESULT hr = stream->Read(&read, sizeof read, &got);
    if (FAILED(hr)) return hr;
    if (got < sizeof read) return STG_E_READFAULT;
    if (read == kRefusedNumber) return kRefusedLoad;
    value = read;
    return S_OK;
  }
  STDMETHODIMP Save(IStream* stream, BOOL) override {
    return stream->Write(&value, sizeof value, nullptr);
  }
  STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override {
    size->QuadPart = sizeof value;
    return S_OK;
  }

  LONG value;
  long refs = 1;

 private:
  bool m_onHeap;
};

// Lives as long as the program; register it with CoRegisterClassObject.
class NumberFactory : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    const bool known = iid == IID_IUnknown || iid == IID_IClassFactory;
    *ppv = known ? this : nullptr;
    return known ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** ppv) override {
    *ppv = nullptr;
    if (outer) return CLASS_E_NOAGGREGATION;
    ComRef<PersistentNumber> number(new PersistentNumber(0, true));
    return number->QueryInterface(iid, ppv);
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }
};

template <class Out, class Load, class Free>
HRESULT LoadAndFree(IStream* stream, Load load, Free free) {
  Out out = reinterpret_cast<Out>(0xDEADBEEF);
  const HRESULT hr = load(stream, &out);
  if (SUCCEEDED(hr) && out) free(out);
  return FAILED(hr) && out ? kBrokenOutput : hr;
}
inline HRESULT LoadBstr(IStream* s) {
  return LoadAndFree<BSTR>(s, BSTR_LoadFromStream, SysFreeString);
}
inline HRESULT LoadOleString(IStream* s) {
  return LoadAndFree<LPOLESTR>(s, OleString_LoadFromStream, CoTaskMemFree);
}
inline HRESULT LoadBag(IStream* s) {
  return LoadAndFree<IPropertyBag*>(s, PropertyBag_LoadFromStream,
                                    [](IPropertyBag* bag) { bag->Release(); });
}
inline HRESULT LoadArray(IStream* s) {  // a placeholder: the output is not even written
  SAFEARRAY* kept = nullptr;
  const HRESULT hr = SAFEARRAY_LoadFromStream(s, &kept);
  return kept ? kBrokenOutput : hr;
}
inline HRESULT Cleared(HRESULT hr, VARIANT* value) {
  if (FAILED(hr) && value->vt != VT_EMPTY) return kBrokenOutput;
  return FAILED(VariantClear(value)) ? kBrokenOutput : hr;
}
inline HRESULT LoadVariant(IStream* s) {
  VARIANT value;
  std::memset(&value, 0xCD, sizeof value);
  return Cleared(VARIANT_LoadFromStream(s, &value), &value);
}
inline HRESULT LoadProperty(IStream* s) {
  LPOLESTR name = nullptr;  // a failure may leave the name's block for the caller
  VARIANT value;
  VariantInit(&value);
  const HRESULT hr = Property_LoadFromStream(s, &name, &value);
  CoTaskMemFree(name);
  return Cleared(hr, &value);
}
// Into a number of the test's own, which keeps only its first reference.
inline HRESULT InitNumber(IStream* s) {
  PersistentNumber number(7);
  const HRESULT hr = OleInitFromStream(s, &number);
  return number.refs != 1 || (FAILED(hr) && number.value != 7) ? kBrokenOutput : hr;
}
inline ComRef<IPersistStream>* NewBag(ComRef<IPersistStream>* bag) {
  CoCreateInstance(CLSID_QvPropertyBag, nullptr, CLSCTX_INPROC_SERVER, IID_IPersistStream,
                   reinterpret_cast<void**>(bag->put()));
  return bag;
}
inline HRESULT InitBag(IStream* s) {
  ComRef<IPersistStream> bag;
  return PropertyBag_InitFromStream(s, NewBag(&bag)->get());
}
inline HRESULT LoadIntoBag(IStream* s) {
  ComRef<IPersistStream> bag;
  return (*NewBag(&bag))->Load(s);
}

}  // namespace xktest
