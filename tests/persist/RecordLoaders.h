// A persistent number for object records, its class object, and each record
// loader as a client calls it: a success's output is freed; a failure that
// hands something out, leaves a VARIANT that is not empty, or changes the
// object it was to load into answers kBrokenOutput instead of its code.
#pragma once

#include <objidl.h>
#include <oleauto.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/PropertyBag.h>

#include <cstring>
#include <vector>

#include "HResult.h"
#include "Mutations.h"
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

// ---- Seeds: records the library writes, with the offsets of their 32-bit counts

template <class Save>
inline Bytes Saved(Save save) {
  ComRef<IStream> stream(xktest::NewMemoryStream());
  EXPECT_HR(S_OK, save(stream.get()));
  return xktest::ContentOf(stream.get());
}

inline Seed BstrSeed(const char* bytes, UINT length) {
  BSTR text = bytes ? SysAllocStringByteLen(bytes, length) : nullptr;
  Seed seed{Saved([&](IStream* s) { return BSTR_SaveToStream(s, text); }), {0}};
  SysFreeString(text);
  return seed;
}

// A value of each supported type, a BSTR, an object, and each of those by reference.
inline VARIANT Value(VARTYPE vt, BSTR* text, PersistentNumber** number, LONGLONG* bits) {
  VARIANT value = {};
  value.vt = vt;
  value.llVal = *bits;
  const VARTYPE type = vt & ~VT_BYREF;
  if (type == VT_BSTR) value.bstrVal = *text;
  if (type == VT_UNKNOWN || type == VT_DISPATCH) value.punkVal = *number;
  if (vt & VT_BYREF)
    value.byref = type == VT_BSTR                             ? static_cast<void*>(text)
                  : type == VT_UNKNOWN || type == VT_DISPATCH ? static_cast<void*>(number)
                                                              : static_cast<void*>(bits);
  return value;
}

inline Seed VariantSeed(VARTYPE vt, LONG number = 0x01020304, bool nullObject = false) {
  BSTR text = SysAllocString(L"abc");
  PersistentNumber* object = nullObject ? nullptr : new PersistentNumber(number, true);
  LONGLONG bits = 0x0102030405060708;
  const VARIANT value = Value(vt, &text, &object, &bits);
  Seed seed{Saved([&](IStream* s) { return VARIANT_SaveToStream(s, &value); }), {}};
  if ((vt & ~VT_BYREF) == VT_BSTR) seed.counts.push_back(16);
  SysFreeString(text);
  if (object) object->Release();
  return seed;
}

inline Seed PropertySeed(const wchar_t* name, VARTYPE vt) {
  VARIANT value;
  VariantInit(&value);
  if (vt == VT_BSTR) VARIANT_InitBSTRW(&value, L"abc");
  if (vt == VT_I4) VARIANT_InitI4(&value, 7);
  Seed seed{Saved([&](IStream* s) { return Property_SaveToStream(s, name, &value); }), {0}};
  VariantClear(&value);
  if (vt == VT_BSTR) seed.counts.push_back(4 + seed.bytes[0] + 16);
  return seed;
}

// The bag's own data: the header (version 1, the count), then its records.
inline Seed BagData() {
  Seed header{Concat(Concat({1, 0, 0, 0}, xktest::LittleEndian32(2)), Bytes(8, 0)), {4}};
  return Cat(Cat(header, PropertySeed(L"abc", VT_I4)), PropertySeed(L"n", VT_BSTR));
}

inline Seed ObjectSeed(const CLSID& clsid, const Seed& data) {
  const auto* id = reinterpret_cast<const unsigned char*>(&clsid);
  return Cat({Bytes(id, id + sizeof clsid), {}}, data);
}

// ---- The loaders, by name

struct Loader {
  const char* name;
  HRESULT (*load)(IStream*);
  bool guarded;  // a failure puts the stream back where it was
};
inline const Loader kBstr{"BSTR", xktest::LoadBstr, true},
    kOle{"OLE string", xktest::LoadOleString, true}, kVariant{"VARIANT", xktest::LoadVariant, true},
    kProperty{"property", xktest::LoadProperty, true}, kArray{"SAFEARRAY", xktest::LoadArray, true},
    kInitNumber{"init object", xktest::InitNumber, true},
    kInitBag{"init bag", xktest::InitBag, true}, kLoadBag{"load bag", xktest::LoadBag, false},
    kBagLoad{"bag's Load", xktest::LoadIntoBag, false};

// The number's class and both bag classes, registered while one lives, so that
// records naming them load.
class LoaderClasses {
 public:
  LoaderClasses() {
    static NumberFactory numberFactory;
    Register(kNumberClass, &numberFactory);
    for (const CLSID* clsid : {&CLSID_QvPropertyBag, &CLSID_QvPropertyBag_ST}) {
      ComRef<IUnknown> factory;
      DllGetClassObject(*clsid, IID_IUnknown, reinterpret_cast<void**>(factory.put()));
      Register(*clsid, factory.get());
    }
  }
  ~LoaderClasses() {
    for (DWORD cookie : m_cookies) CoRevokeClassObject(cookie);
  }
  LoaderClasses(const LoaderClasses&) = delete;
  LoaderClasses& operator=(const LoaderClasses&) = delete;

 private:
  void Register(REFCLSID clsid, IUnknown* factory) {
    EXPECT_HR(S_OK, CoRegisterClassObject(clsid, factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                                          &m_cookies.emplace_back()));
  }
  std::vector<DWORD> m_cookies;
};

}  // namespace xktest
