// Records that name an object load it through its registered class: the
// object a failed load made is released, whatever the platform's own loader
// would have left behind.
#include <gtest/gtest.h>
#include <xkcombsd/Module.h>
#include <xkcombsd/Persist.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "ComTest.h"
#include "HResult.h"
#include "TestStreams.h"

namespace {

using xktest::Bytes;
using xktest::ComRef;
using xktest::Concat;

// ---- A persistent number, registered in-process under a class id of its own

constexpr CLSID kNumberClass = {
    0x6B1D0C52, 0x3E0A, 0x4F5B, {0x9C, 0x11, 0x2D, 0x7A, 0x5E, 0x40, 0xB0, 0x03}};
constexpr LONG kRefusedNumber = 0x0BADBAD0;  // a number whose Load fails
const HRESULT kRefusedLoad = STG_E_DOCFILECORRUPT;
std::atomic<long> g_liveNumbers{0};

class Number : public IPersistStream {
 public:
  explicit Number(LONG value = 0) : value(value) { ++g_liveNumbers; }
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    const bool known = iid == IID_IUnknown || iid == IID_IPersist || iid == IID_IPersistStream;
    *ppv = known ? this : nullptr;
    if (known) AddRef();
    return known ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_refs); }
  STDMETHODIMP_(ULONG) Release() override {
    const long left = --m_refs;
    if (left == 0) delete this;
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

 private:
  ~Number() { --g_liveNumbers; }
  std::atomic<long> m_refs{1};
};

class NumberFactory : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    const bool known = iid == IID_IUnknown || iid == IID_IClassFactory;
    *ppv = known ? this : nullptr;
    return known ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }  // lives as long as the program
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** ppv) override {
    *ppv = nullptr;
    if (outer) return CLASS_E_NOAGGREGATION;
    ComRef<Number> number(new Number);
    return number->QueryInterface(iid, ppv);
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }
} g_numberFactory;

// ---- Seeds: records the library writes, with the offsets of their 32-bit counts

struct Seed {
  Bytes bytes;
  std::vector<size_t> counts;
};

template <class Save>
Bytes Saved(Save save) {
  ComRef<IStream> stream(xktest::NewMemoryStream());
  EXPECT_HR(S_OK, save(stream.get()));
  return xktest::ContentOf(stream.get());
}

// A value of each supported type, a BSTR, an object, and each of those by reference.
VARIANT Value(VARTYPE vt, BSTR* text, Number** number, LONGLONG* bits) {
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

Seed VariantSeed(VARTYPE vt, LONG number = 0x01020304, bool nullObject = false) {
  BSTR text = SysAllocString(L"abc");
  Number* object = nullObject ? nullptr : new Number(number);
  LONGLONG bits = 0x0102030405060708;
  const VARIANT value = Value(vt, &text, &object, &bits);
  Seed seed{Saved([&](IStream* s) { return VARIANT_SaveToStream(s, &value); }), {}};
  if ((vt & ~VT_BYREF) == VT_BSTR) seed.counts.push_back(16);
  SysFreeString(text);
  if (object) object->Release();
  return seed;
}

class ObjectRecords : public xktest::ComTest<COINIT_MULTITHREADED> {
 protected:
  void SetUp() override {
    ComTest::SetUp();
    Register(kNumberClass, &g_numberFactory);
  }
  void TearDown() override {
    for (DWORD cookie : m_cookies) CoRevokeClassObject(cookie);
    EXPECT_EQ(0, g_liveNumbers.load());
    ComTest::TearDown();
  }
  void Register(REFCLSID clsid, IUnknown* factory) {
    ASSERT_HR(S_OK, CoRegisterClassObject(clsid, factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                                          &m_cookies.emplace_back()));
  }

 private:
  std::vector<DWORD> m_cookies;
};

TEST_F(ObjectRecords, AVariantObjectRoundTripsThroughItsRegisteredClass) {
  const Seed seed = VariantSeed(VT_UNKNOWN, 0x01020304);
  ComRef<IStream> stream(xktest::NewMemoryStream(seed.bytes));
  VARIANT loaded;
  ASSERT_HR(S_OK, VARIANT_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(VT_UNKNOWN, loaded.vt);
  EXPECT_EQ(seed.bytes.size(), xktest::PositionOf(stream.get()));
  ComRef<IPersistStream> persist;
  ASSERT_HR(S_OK, loaded.punkVal->QueryInterface(IID_IPersistStream,
                                                 reinterpret_cast<void**>(persist.put())));
  EXPECT_EQ(0x01020304, static_cast<Number*>(persist.get())->value);
  persist.Reset();
  EXPECT_EQ(1, g_liveNumbers.load());
  VariantClear(&loaded);
}

// The platform's own loader returned this failure with the object still in its
// output, where nobody released it.
TEST_F(ObjectRecords, AVariantObjectWhoseLoadFailsIsReleased) {
  const Seed seed = VariantSeed(VT_UNKNOWN, kRefusedNumber);
  ComRef<IStream> stream(xktest::NewMemoryStream(seed.bytes));
  VARIANT loaded;
  EXPECT_HR(kRefusedLoad, VARIANT_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(VT_EMPTY, loaded.vt);
  EXPECT_EQ(0u, xktest::PositionOf(stream.get()));
  EXPECT_EQ(0, g_liveNumbers.load());
}

}  // namespace
