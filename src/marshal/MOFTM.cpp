// The free-threaded marshaler: an IMarshal that an object aggregates so that a
// destination in its own process gets the raw interface pointer (the packet of
// FreeThreadedPacket.h) instead of a proxy; every other destination gets the
// platform's standard marshaler. Its unmarshal class is the
// FreeThreadedUnmarshaler (MOFTP.cpp). CreateFTM prefers the platform's own
// free-threaded marshaler and falls back to this one.
//
// The object has no lock: its state is the inner reference count (atomic) and
// the controlling unknown, fixed at creation.
//
// Where the behaviour was left open: the standard marshaler is asked for with
// the object being marshalled rather than none, since a runtime may refuse to
// make one without an object; a packet whose Write fails gives its reference
// back, as nobody could ever consume it; a missing object is refused like a
// missing stream.
#include <xkcombsd/Atomic.h>
#include <xkcombsd/GlobalObject.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/Marshal.h>
#include <xkcombsd/XKAssert.h>

#include "frame/HandOut.h"
#include "marshal/FreeThreadedPacket.h"
#include "marshal/MarshalRows.h"

namespace xk::marshal {
namespace {

// The inner (non-delegating) unknown of an aggregatable object. It owns the
// object's reference count and destroys the object on its last Release.
template <class Object>
class InnerUnknown final : public IUnknown {
 public:
  explicit InnerUnknown(Object* object) : m_object(object) {}
  // Destroyed untouched (count 1) or after its last release (count 0).
  ~InnerUnknown() { Verify(m_cRefs < 2, {"MORefCn2", 469, "m_cRefs < 2"}); }
  InnerUnknown(const InnerUnknown&) = delete;
  InnerUnknown& operator=(const InnerUnknown&) = delete;

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (!ppv) return E_POINTER;
    IUnknown* face = m_object->InnerFaceFor(iid);
    *ppv = face;
    if (!face) return E_NOINTERFACE;
    face->AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(AtomicIncrement(&m_cRefs)); }
  STDMETHODIMP_(ULONG) Release() override {
    const LONG remaining = AtomicDecrement(&m_cRefs);
    if (remaining == 0) delete m_object;  // this member goes with it; touch nothing after
    return static_cast<ULONG>(remaining);
  }

 private:
  Object* const m_object;  // read-only; the object this unknown is part of
  LONG m_cRefs = 1;        // (atomic)
};

// Runs call on a standard marshaler for the destination, which is let go again.
template <class Call>
HRESULT OnStandardMarshaler(REFIID riid, void* pv, DWORD destContext, void* pvDestContext,
                            DWORD mshlflags, Call call) {
  MLRelItf<IMarshal> standard;
  const HRESULT hr = CoGetStandardMarshal(riid, static_cast<IUnknown*>(pv), destContext,
                                          pvDestContext, mshlflags, standard.put());
  if (FAILED(hr)) return hr;
  return call(standard.get());
}

class FreeThreadedMarshaler final : public IMarshal, public GlobalObject {
 public:
  // The new object's inner unknown, holding the creation reference, or NULL
  // when out of memory.
  static InnerUnknown<FreeThreadedMarshaler>* Create(IUnknown* outer, LONG* objectCount) {
    auto* marshaler = new FreeThreadedMarshaler(outer, objectCount);
    return marshaler ? &marshaler->m_inner : nullptr;
  }

  IUnknown* InnerFaceFor(REFIID iid) {
    if (iid == IID_IUnknown) return &m_inner;
    if (iid == IID_IMarshal) return static_cast<IMarshal*>(this);
    return nullptr;
  }

  // ---- IUnknown of the IMarshal face: the controlling unknown's
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    return m_controlling->QueryInterface(iid, ppv);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return m_controlling->AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return m_controlling->Release(); }

  // ---- IMarshal
  STDMETHODIMP GetUnmarshalClass(REFIID riid, void* pv, DWORD destContext, void* pvDestContext,
                                 DWORD mshlflags, CLSID* pCid) override {
    if (!pCid) return E_POINTER;
    if (!IsInProcess(destContext))
      return OnStandardMarshaler(riid, pv, destContext, pvDestContext, mshlflags,
                                 [&](IMarshal* standard) {
                                   return standard->GetUnmarshalClass(
                                       riid, pv, destContext, pvDestContext, mshlflags, pCid);
                                 });
    *pCid = CLSID_QvFreeThreadedUnmarshaler;
    return S_OK;
  }

  STDMETHODIMP GetMarshalSizeMax(REFIID riid, void* pv, DWORD destContext, void* pvDestContext,
                                 DWORD mshlflags, DWORD* pSize) override {
    if (!pSize) return E_POINTER;
    if (!IsInProcess(destContext))
      return OnStandardMarshaler(riid, pv, destContext, pvDestContext, mshlflags,
                                 [&](IMarshal* standard) {
                                   return standard->GetMarshalSizeMax(
                                       riid, pv, destContext, pvDestContext, mshlflags, pSize);
                                 });
    *pSize = kPacketBytes;
    return S_OK;
  }

  STDMETHODIMP MarshalInterface(IStream* pStm, REFIID riid, void* pv, DWORD destContext,
                                void* pvDestContext, DWORD mshlflags) override {
    if (!pStm || !pv) return E_POINTER;
    if (!IsInProcess(destContext))
      return OnStandardMarshaler(riid, pv, destContext, pvDestContext, mshlflags,
                                 [&](IMarshal* standard) {
                                   return standard->MarshalInterface(pStm, riid, pv, destContext,
                                                                     pvDestContext, mshlflags);
                                 });
    MLRelItf<IUnknown> packet;
    HRESULT hr = static_cast<IUnknown*>(pv)->QueryInterface(riid, packet.put_void());
    if (FAILED(hr)) return hr;
    IUnknown* p = packet.raw();
    hr = pStm->Write(&p, kPacketBytes, nullptr);
    if (SUCCEEDED(hr)) packet.Detach();  // the reference travels in the packet
    return hr;
  }

  // Packets of this marshaler are read by the FreeThreadedUnmarshaler only.
  STDMETHODIMP UnmarshalInterface(IStream*, REFIID, void**) override {
    Verify(false, {"MOFTM", 181, "0"});
    return E_NOTIMPL;
  }

  STDMETHODIMP ReleaseMarshalData(IStream* pStm) override { return ReleasePacket(pStm); }
  STDMETHODIMP DisconnectObject(DWORD) override { return S_OK; }

 private:
  FreeThreadedMarshaler(IUnknown* outer, LONG* objectCount)
      : m_inner(this), m_controlling(outer ? outer : &m_inner), m_objectCount(objectCount) {
    if (m_objectCount) AtomicIncrement(m_objectCount);
  }
  ~FreeThreadedMarshaler() {
    if (m_objectCount) AtomicDecrement(m_objectCount);
  }
  friend class InnerUnknown<FreeThreadedMarshaler>;  // destroys the object

  InnerUnknown<FreeThreadedMarshaler> m_inner;
  IUnknown* const m_controlling;  // read-only; the outer object is not counted
  LONG* const m_objectCount;      // read-only; the count is atomic
};

}  // namespace

HRESULT CreateFreeThreadedMarshaler(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid,
                                    void** ppv) {
  if (!outer) return E_POINTER;
  if (const HRESULT refused = AggregationRefusal(riid); FAILED(refused)) return refused;
  return HandOut(FreeThreadedMarshaler::Create(outer, objectCount), riid, ppv);
}

}  // namespace xk::marshal

// ---- CreateFTM -------------------------------------------------------------
extern "C" HRESULT WINAPI CreateFTM(IUnknown* pUnkOuter, IUnknown** ppUnkMarshal) {
  if (!ppUnkMarshal) return E_POINTER;
  const HRESULT platform = CoCreateFreeThreadedMarshaler(pUnkOuter, ppUnkMarshal);
  if (SUCCEEDED(platform)) return platform;
  return CoCreateInstance(CLSID_QvFreeThreadedMarshaler, pUnkOuter,
                          CLSCTX_INPROC_SERVER | CLSCTX_INPROC_HANDLER, IID_IUnknown,
                          reinterpret_cast<void**>(ppUnkMarshal));
}
