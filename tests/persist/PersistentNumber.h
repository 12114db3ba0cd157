// A persistent object for the object-record tests: it saves one 32-bit number
// through IPersistStream or IPersistStreamInit (as chosen), answers IDispatch
// with empty methods, counts its references and its live instances, and can be
// created through the COM runtime from a class object registered in-process.
#pragma once

#include <ocidl.h>
#include <oaidl.h>

#include <atomic>

namespace persisttest {

// {6B1D0C52-3E0A-4F5B-9C11-2D7A5E40B001}
constexpr CLSID kNumberClass = {
    0x6B1D0C52, 0x3E0A, 0x4F5B, {0x9C, 0x11, 0x2D, 0x7A, 0x5E, 0x40, 0xB0, 0x01}};
// {6B1D0C52-3E0A-4F5B-9C11-2D7A5E40B002}, registered by nobody.
constexpr CLSID kUnregisteredClass = {
    0x6B1D0C52, 0x3E0A, 0x4F5B, {0x9C, 0x11, 0x2D, 0x7A, 0x5E, 0x40, 0xB0, 0x02}};

inline std::atomic<long> g_liveNumbers{0};

class PersistentNumber : public IPersistStreamInit, public IPersistStream, public IDispatch {
 public:
  enum Offers { kStream = 1, kStreamInit = 2 };

  explicit PersistentNumber(LONG value = 0, int offers = kStream | kStreamInit)
      : m_offers(offers), value(value) {
    ++g_liveNumbers;
  }
  virtual ~PersistentNumber() { --g_liveNumbers; }

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (iid == IID_IUnknown || iid == IID_IDispatch)
      *ppv = static_cast<IDispatch*>(this);
    else if (iid == IID_IPersistStream && (m_offers & kStream))
      *ppv = static_cast<IPersistStream*>(this);
    else if (iid == IID_IPersistStreamInit && (m_offers & kStreamInit))
      *ppv = static_cast<IPersistStreamInit*>(this);
    else if (iid == IID_IPersist && m_offers)
      *ppv = static_cast<IPersistStream*>(this);
    else {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
  STDMETHODIMP_(ULONG) Release() override {
    const long left = --refs;
    if (left == 0 && m_ownedByCount) delete this;
    return static_cast<ULONG>(left);
  }

  // IPersist, IPersistStream and IPersistStreamInit share these.
  STDMETHODIMP GetClassID(CLSID* clsid) override {
    *clsid = classId;
    return classIdResult;
  }
  STDMETHODIMP IsDirty() override { return S_FALSE; }
  STDMETHODIMP Load(IStream* stream) override {
    ++loads;
    if (FAILED(loadResult)) return loadResult;
    ULONG got = 0;
    LONG read = 0;
    const HRESULT hr = stream->Read(&read, sizeof read, &got);
    if (FAILED(hr)) return hr;
    if (got != sizeof read) return STG_E_READFAULT;
    value = read;
    return S_OK;
  }
  STDMETHODIMP Save(IStream* stream, BOOL) override {
    ++saves;
    return stream->Write(&value, sizeof value, nullptr);
  }
  STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override {
    size->QuadPart = sizeof value;
    return S_OK;
  }
  STDMETHODIMP InitNew() override { return S_OK; }

  // IDispatch: present so the object can be a VT_DISPATCH value; never called.
  STDMETHODIMP GetTypeInfoCount(UINT* count) override {
    *count = 0;
    return S_OK;
  }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
    return E_NOTIMPL;
  }

  // Objects made by the class object delete themselves on their last Release;
  // those a test keeps on its stack do not.
  void DeleteOnLastRelease() { m_ownedByCount = true; }

  std::atomic<long> refs{1};
  int loads = 0;
  int saves = 0;
  CLSID classId = kNumberClass;
  HRESULT classIdResult = S_OK;
  HRESULT loadResult = S_OK;

 private:
  int m_offers;
  bool m_ownedByCount = false;

 public:
  LONG value;
};

// Creates PersistentNumbers offering the persistence interfaces chosen.
class NumberFactory : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (iid == IID_IUnknown || iid == IID_IClassFactory) {
      *ppv = static_cast<IClassFactory*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** ppv) override {
    *ppv = nullptr;
    if (outer) return CLASS_E_NOAGGREGATION;
    auto* number = new PersistentNumber(0, offers);
    number->DeleteOnLastRelease();
    const HRESULT hr = number->QueryInterface(iid, ppv);
    number->Release();
    return hr;
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }

  int offers = PersistentNumber::kStream | PersistentNumber::kStreamInit;
};

// The number class, registered with the COM runtime for as long as it lives.
class NumberClassRegistration {
 public:
  NumberClassRegistration() {
    registered = SUCCEEDED(CoRegisterClassObject(kNumberClass, &factory, CLSCTX_INPROC_SERVER,
                                                 REGCLS_MULTIPLEUSE, &m_cookie));
  }
  ~NumberClassRegistration() {
    if (registered) CoRevokeClassObject(m_cookie);
  }
  bool registered = false;
  NumberFactory factory;

 private:
  DWORD m_cookie = 0;
};

}  // namespace persisttest
