// The free-threaded unmarshaler: the unmarshal class the free-threaded
// marshaler (MOFTM.cpp) names for a destination in its own process. It only
// reads packets back; marshalling is the marshaler's side.
//
// The object has no lock: its only state is the reference count (atomic).
//
// Where the behaviour was left open: a missing stream or out-pointer is
// refused with E_POINTER before the packet is touched, so the packet stays
// whole for a caller that retries.
#include <xkcombsd/Atomic.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/MORefCnt.h>
#include <xkcombsd/XKAssert.h>

#include "frame/HandOut.h"
#include "marshal/FreeThreadedPacket.h"
#include "marshal/MarshalRows.h"

namespace xk::marshal {
namespace {

constexpr char kSource[] = "MOFTP";

class FreeThreadedUnmarshaler final : public IMarshal, public MORefCnt<MultiThreaded> {
 public:
  explicit FreeThreadedUnmarshaler(LONG* objectCount) : m_objectCount(objectCount) {
    if (m_objectCount) AtomicIncrement(m_objectCount);
  }
  ~FreeThreadedUnmarshaler() override {
    if (m_objectCount) AtomicDecrement(m_objectCount);
  }

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    return xk::QueryFace(static_cast<IMarshal*>(this), iid, ppv, IID_IMarshal);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return InternalAddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return InternalRelease(); }

  // ---- IMarshal: the marshalling half belongs to the marshaler
  STDMETHODIMP GetUnmarshalClass(REFIID, void*, DWORD, void*, DWORD, CLSID*) override {
    return Unsupported(63);
  }
  STDMETHODIMP GetMarshalSizeMax(REFIID, void*, DWORD, void*, DWORD, DWORD*) override {
    return Unsupported(70);
  }
  STDMETHODIMP MarshalInterface(IStream*, REFIID, void*, DWORD, void*, DWORD) override {
    return Unsupported(77);
  }

  STDMETHODIMP UnmarshalInterface(IStream* pStm, REFIID riid, void** ppv) override {
    if (!pStm || !ppv) return E_POINTER;
    MLRelItf<IUnknown> packet;
    if (const HRESULT read = ReadPacket(pStm, packet); FAILED(read)) return read;
    return packet->QueryInterface(riid, ppv);  // the packet's reference goes with packet
  }

  STDMETHODIMP ReleaseMarshalData(IStream* pStm) override { return ReleasePacket(pStm); }
  STDMETHODIMP DisconnectObject(DWORD) override { return S_OK; }

 private:
  static HRESULT Unsupported(int line) {
    Verify(false, {kSource, line, "0"});
    return E_NOTIMPL;
  }

  LONG* const m_objectCount;  // read-only; the count is atomic
};

}  // namespace

HRESULT CreateFreeThreadedUnmarshaler(REFCLSID, IUnknown* outer, LONG* objectCount, REFIID riid,
                                      void** ppv) {
  if (outer) {
    if (const HRESULT refused = AggregationRefusal(riid); FAILED(refused)) return refused;
  }
  return HandOut(new FreeThreadedUnmarshaler(objectCount), riid, ppv);
}

}  // namespace xk::marshal
