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

#include <type_traits>

#include "frame/RuntimePrimitives.h"

namespace xk::stores {

// The stores and streams address 32 bits; any transfer or size that reaches
// 4 GiB is refused with STG_E_MEDIUMFULL.
constexpr ULONGLONG kAddressLimit = 0x100000000ull;

inline ULONG Smaller(ULONG a, ULONG b) { return a < b ? a : b; }

constexpr HRESULT kNothingToDo = S_FALSE;

// What ReadAt and WriteAt check before touching the store, in this order: the
// buffer, then (with the count cleared) an empty transfer, which succeeds at
// once, then the 32-bit range. S_OK means go on.
inline HRESULT CheckTransfer(ULONGLONG offset, const void* pv, ULONG cb, ULONG* pcb) {
  if (!pv) return E_POINTER;
  if (pcb) *pcb = 0;
  if (cb == 0) return kNothingToDo;
  // The first test keeps the sum from wrapping for offsets near 2^64.
  const bool inRange = offset < kAddressLimit && offset + cb < kAddressLimit;
  return inRange ? S_OK : STG_E_MEDIUMFULL;
}

// A lock chosen at run time, for MLLock: a critical section owned elsewhere, or
// none (NULL).
class ChosenLock {
 public:
  explicit ChosenLock(CriticalSectionLock* lock = NULL) : m_lock(lock) {}
  void Lock() {
    if (m_lock) m_lock->Lock();
  }
  void Unlock() {
    if (m_lock) m_lock->Unlock();
  }

 private:
  CriticalSectionLock* m_lock;
};

// A store whose bytes are one buffer in this process (a growable store or a
// caller's fixed buffer). A stream over one reads and writes the buffer in
// place under the store's lock, so a small transfer costs no further call;
// whatever changes the buffer itself still goes through ILockBytes.
class ContiguousBytes {
 public:
  // NULL for a store that does no locking.
  CriticalSectionLock* StoreLock() const { return m_storeLock; }
  ULONG m_si = 0;  // (lock) current size

  // ReadAt and WriteAt for a range CheckTransfer accepted, under StoreLock().
  ULONG ReadInPlace(ULONG offset, void* to, ULONG cb) const {
    ULONG n;
    const BYTE* from = ReadableAt(offset, cb, &n);
    if (n) MemCopy(to, from, n);
    return n;
  }
  // Where ReadInPlace would copy from, and in *n how many bytes.
  const BYTE* ReadableAt(ULONG offset, ULONG cb, ULONG* n) const {
    *n = offset >= m_si ? 0 : Smaller(cb, m_si - offset);
    return m_buffer + offset;
  }
  // False, with nothing written, when the buffer must change first.
  bool WriteInPlace(ULONG offset, const void* from, ULONG cb) {
    const ULONG end = offset + cb;
    if (end > m_capacity) return false;
    if (end > m_si) m_si = end;  // the spare bytes are already the store's
    MemCopy(m_buffer + offset, from, cb);
    return true;
  }

 protected:
  BYTE* m_buffer = NULL;  // (lock) m_capacity bytes, or NULL
  // (lock) bytes the buffer holds: m_si, or more where spare capacity is kept;
  // never above the maximum size
  ULONG m_capacity = 0;
  CriticalSectionLock* m_storeLock = NULL;  // read-only after construction
};

// The size of a store that is not one buffer (a list of caller blocks).
struct StoreSize {
  ULONG m_si = 0;  // (lock) current size
};

// Answered only by the library's contiguous stores and the streams over them,
// with the store's ContiguousBytes; asked by a stream as it is made, and of a
// CopyTo target. It names no published interface.
constexpr IID kIidContiguousBytes = {
    0x00517663, 0x00FF, 0x0001, {0x01, 0x02, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}};

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
  // The same lock for a ChosenLock: NULL in the unlocked form.
  CriticalSectionLock* OwnLock() {
    if constexpr (std::is_same_v<typename ThreadModel::Lock, CriticalSectionLock>)
      return &m_lock;
    else
      return nullptr;
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
    else if (iid == kIidContiguousBytes && Contiguous())
      *ppv = Contiguous();
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

  // The buffer behind the object, for kIidContiguousBytes: a contiguous store's
  // own, a stream's store's; NULL for any other.
  virtual ContiguousBytes* Contiguous() { return NULL; }

  const DWORD m_flags;  // read-only after construction
};

// Calls make with the thread-model policy the flags ask for.
template <class Make>
HRESULT WithThreadModel(DWORD flags, Make make) {
  return (flags & QVCLBOMF_NOLOCK) ? make(SingleThreaded{}) : make(MultiThreaded{});
}

}  // namespace xk::stores
