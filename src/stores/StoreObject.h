// What the stores and the streams over them share as COM objects: one
// reference count and one lock, both chosen by the thread-model policy. The
// memory stores and the streams add the creation flags and the same
// QueryInterface set: IUnknown and the object's own interface, IThreadingInfo
// and ISaveToFile, nothing else.
#pragma once

#include <xkcombsd/Identifiers.h>
#include <xkcombsd/MLLock.h>
#include <xkcombsd/MORefCnt.h>
#include <xkcombsd/Stores.h>
#include <xkcombsd/ThreadModel.h>

namespace xk::stores {

// The stores and streams address 32 bits; any transfer or size that reaches
// 4 GiB is refused with STG_E_MEDIUMFULL.
constexpr ULONGLONG kAddressLimit = 0x100000000ull;

inline ULONG Smaller(ULONG a, ULONG b) { return a < b ? a : b; }

// No store locks regions of its bytes; each says so the same way.
class LockBytesWithoutRegions : public ILockBytes {
 public:
  STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
};

template <class ThreadModel>
class StoreCore : public MORefCnt<ThreadModel> {
 protected:
  // Holds the object's lock for the caller's scope; re-entrant in the locked
  // form, so a method may call another that takes it again.
  MLLock<typename ThreadModel::Lock> Locked() {
    return MLLock<typename ThreadModel::Lock>(&m_lock);
  }

 private:
  typename ThreadModel::Lock m_lock;
};

template <class Primary, class ThreadModel, const IID* PrimaryIid>
class StoreObject : public Primary,
                    public IThreadingInfo,
                    public ISaveToFile,
                    public StoreCore<ThreadModel> {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (iid == IID_IUnknown || iid == *PrimaryIid)
      *ppv = static_cast<Primary*>(this);
    else if (iid == IID_IThreadingInfo)
      *ppv = static_cast<IThreadingInfo*>(this);
    else if (iid == IID_ISaveToFile)
      *ppv = static_cast<ISaveToFile*>(this);
    else {
      *ppv = NULL;
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return this->InternalAddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return this->InternalRelease(); }

  // Answers from the creation flags, not from the form: a clone of an unlocked
  // stream is locked but keeps the flags it was cloned with.
  STDMETHODIMP GetThreadingModel(DWORD* pModel) override {
    if (!pModel) return E_POINTER;
    auto guard = this->Locked();
    *pModel = (m_flags & QVCLBOMF_NOLOCK) ? SingleThreaded::kThreadingModel
                                          : MultiThreaded::kThreadingModel;
    return S_OK;
  }

 protected:
  explicit StoreObject(DWORD flags) : m_flags(flags) {}

  const DWORD m_flags;  // read-only after construction
};

// Calls make with the thread-model policy the flags ask for.
template <class Make>
HRESULT WithThreadModel(DWORD flags, Make make) {
  return (flags & QVCLBOMF_NOLOCK) ? make(SingleThreaded{}) : make(MultiThreaded{});
}

}  // namespace xk::stores
