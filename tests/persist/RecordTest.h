// What every record test shares: COM on the test thread, a fresh memory stream,
// a task-allocator watch that must end at zero, the records used throughout,
// checking loaders, and a persistent number the COM runtime can create.
#pragma once

#include <gmock/gmock.h>
#include <ocidl.h>
#include <xkcombsd/Persist.h>

#include <atomic>
#include <cstring>

#include "DebugOutput.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "TestStreams.h"

namespace persisttest {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::Bytes;
using xktest::Concat;
using xktest::FaultyStream;
using xktest::LittleEndian32;
using xktest::Slice;

// A record that no saver of the library writes.
constexpr HRESULT kInvalidRecord = static_cast<HRESULT>(0x8007000D);
const OLECHAR kAbc[] = L"abc";
const Bytes kAbcRecord = {0x08, 0x00, 0x00, 0x00, 0x61, 0x00, 0x62, 0x00, 0x63, 0x00, 0x00, 0x00};
// Records stand after these bytes, so "where it was" is not the start.
const Bytes kPrefix = {0xEE, 0xEE, 0xEE};

// The number's class; the one ending in 2 is registered by nobody.
constexpr CLSID kNumberClass = {0x6B1D0C52, 0x3E0A, 0x4F5B, {0x9C, 0x11, 0x2D, 0x7A, 0x5E, 0x40, 0xB0, 0x01}};
constexpr CLSID kUnregisteredClass = {0x6B1D0C52, 0x3E0A, 0x4F5B, {0x9C, 0x11, 0x2D, 0x7A, 0x5E, 0x40, 0xB0, 0x02}};

inline Bytes BytesOf(const CLSID& clsid) {
  const auto* raw = reinterpret_cast<const unsigned char*>(&clsid);
  return Bytes(raw, raw + sizeof clsid);
}
// The object record of a number holding 0x01020304.
const Bytes kNumberRecord = Concat(BytesOf(kNumberClass), {0x04, 0x03, 0x02, 0x01});

// Every byte 0xCD but vt, so the bytes a record takes as memory holds them are
// visibly not the test's business.
inline VARIANT Filled(VARTYPE vt) {
  VARIANT value;
  std::memset(&value, 0xCD, sizeof value);
  value.vt = vt;
  return value;
}
// A VARIANT record's 16 bytes: vt, then garbage where the value would be.
inline Bytes Header(VARTYPE vt) { return Concat({BYTE(vt), BYTE(vt >> 8)}, Bytes(14, 0xCC)); }

inline std::atomic<long> g_liveNumbers{0};

// Saves one 32-bit number through IPersistStream or IPersistStreamInit, as
// offered; IDispatch only lets it be a VT_DISPATCH value. The class object's
// numbers die on their last Release, those on a test's stack do not.
class PersistentNumber : public IPersistStreamInit, public IPersistStream, public IDispatch {
 public:
  enum Offers { kStream = 1, kStreamInit = 2 };
  explicit PersistentNumber(LONG value = 0, int offers = kStream | kStreamInit, bool owned = false)
      : value(value), m_offers(offers), m_owned(owned) { ++g_liveNumbers; }
  virtual ~PersistentNumber() { --g_liveNumbers; }
  IUnknown* Unknown() { return static_cast<IDispatch*>(this); }

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = nullptr;
    if (iid == IID_IUnknown || iid == IID_IDispatch) *ppv = static_cast<IDispatch*>(this);
    else if (iid == IID_IPersistStream && (m_offers & kStream)) *ppv = static_cast<IPersistStream*>(this);
    else if (iid == IID_IPersistStreamInit && (m_offers & kStreamInit)) *ppv = static_cast<IPersistStreamInit*>(this);
    else if (iid == IID_IPersist) *ppv = static_cast<IPersistStream*>(this);
    else return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
  STDMETHODIMP_(ULONG) Release() override {
    const long left = --refs;
    if (left == 0 && m_owned) delete this;
    return static_cast<ULONG>(left);
  }
  STDMETHODIMP GetClassID(CLSID* clsid) override { *clsid = kNumberClass; return classIdResult; }
  STDMETHODIMP IsDirty() override { return S_FALSE; }
  STDMETHODIMP Load(IStream* stream) override {
    LONG read = 0;
    ULONG got = 0;
    const HRESULT hr = FAILED(loadResult) ? loadResult : stream->Read(&read, sizeof read, &got);
    if (FAILED(hr)) return hr;
    if (got != sizeof read) return STG_E_READFAULT;
    value = read;
    return S_OK;
  }
  STDMETHODIMP Save(IStream* stream, BOOL) override { return stream->Write(&value, sizeof value, nullptr); }
  STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override { size->QuadPart = sizeof value; return S_OK; }
  STDMETHODIMP InitNew() override { return S_OK; }
  STDMETHODIMP GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
  STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override {
    return E_NOTIMPL;
  }

  LONG value;
  std::atomic<long> refs{1};
  HRESULT classIdResult = S_OK, loadResult = S_OK;

 private:
  int m_offers;
  bool m_owned;
};

// The number's class object, known to the COM runtime between Register and Revoke.
class NumberClass : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = iid == IID_IUnknown || iid == IID_IClassFactory ? this : nullptr;
    return *ppv ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** ppv) override {
    *ppv = nullptr;
    if (outer) return CLASS_E_NOAGGREGATION;
    auto* number = new PersistentNumber(0, offers, true);
    const HRESULT hr = number->QueryInterface(iid, ppv);
    number->Release();
    return hr;
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }
  HRESULT Register() {
    return CoRegisterClassObject(kNumberClass, this, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &m_cookie);
  }
  void Revoke() { CoRevokeClassObject(m_cookie); }

  int offers = PersistentNumber::kStream | PersistentNumber::kStreamInit;

 private:
  DWORD m_cookie = 0;
};

// Each loads one record, checks that a failure hands out nothing (a VARIANT is
// left VT_EMPTY, safe to clear), frees what a success handed out and, if asked,
// says whether that was a value.
using Loader = HRESULT (*)(IStream*, bool* handedOut);

template <class Text, class Load, class Free>
HRESULT LoadAndFree(IStream* stream, bool* handedOut, Load load, Free free) {
  Text loaded = reinterpret_cast<Text>(0xDEADBEEF);
  const HRESULT hr = load(stream, &loaded);
  if (handedOut) *handedOut = loaded != nullptr;
  if (FAILED(hr)) EXPECT_EQ(nullptr, loaded);
  if (SUCCEEDED(hr)) free(loaded);
  return hr;
}
inline HRESULT LoadBstr(IStream* s, bool* out) { return LoadAndFree<BSTR>(s, out, BSTR_LoadFromStream, SysFreeString); }
inline HRESULT LoadOleString(IStream* s, bool* out) {
  return LoadAndFree<LPOLESTR>(s, out, OleString_LoadFromStream, CoTaskMemFree);
}
inline HRESULT LoadVariant(IStream* stream, bool* handedOut) {
  VARIANT loaded = Filled(0xBEEF);
  const HRESULT hr = VARIANT_LoadFromStream(stream, &loaded);
  if (handedOut) *handedOut = loaded.vt != VT_EMPTY;
  if (FAILED(hr)) EXPECT_EQ(VT_EMPTY, loaded.vt);
  EXPECT_HR(S_OK, VariantClear(&loaded));
  return hr;
}
// Loads into a number of the test's own, which must keep only its first reference.
inline HRESULT InitNumber(IStream* stream, bool* handedOut) {
  PersistentNumber number(7);
  const HRESULT hr = OleInitFromStream(stream, number.Unknown());
  if (handedOut) *handedOut = number.value != 7;
  EXPECT_EQ(1, number.refs);
  return hr;
}

// The number class is registered for the records that create numbers.
class RecordTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_com = CoInitialize(nullptr);
    *stream.put() = xktest::NewMemoryStream();
    ASSERT_HR(S_OK, numberClass.Register());
  }
  void TearDown() override {
    numberClass.Revoke();
    stream.Reset();
    EXPECT_EQ(0, spy.Outstanding()) << "task-allocator blocks (BSTRs included) left behind";
    EXPECT_EQ(0, g_liveNumbers.load()) << "numbers left alive";
    if (SUCCEEDED(m_com)) CoUninitialize();
  }

  // Replaces the stream with one holding content, standing at its start or after the prefix.
  void Fill(const Bytes& content) { *stream.put() = xktest::NewMemoryStream(content); }
  void FillAfterPrefix(const Bytes& content) {
    Fill(Concat(kPrefix, content));
    xktest::SeekTo(stream.get(), kPrefix.size());
  }
  Bytes Written() const { return xktest::ContentOf(stream.get()); }
  ULONGLONG Position() const { return xktest::PositionOf(stream.get()); }
  void Rewind() { xktest::SeekTo(stream.get(), 0); }

  xktest::MallocSpy spy;
  xktest::ComRef<IStream> stream;
  xktest::DebugOutputCapture capture;
  NumberClass numberClass;

 private:
  HRESULT m_com = E_FAIL;
};

}  // namespace persisttest
