// AllocatorBase: what every built-in allocator shares. It hands out an
// IAllocator whose table forwards to the object's first seven virtual
// operations, counts the blocks it has handed out and not taken back, and
// serialises its work on its own lock. A derived class supplies the five
// primitives (do_Alloc ... do_HeapMinimise) over the memory manager it adapts.
#pragma once

#include <xkcombsd/Atomic.h>
#include <xkcombsd/MIAtor.h>
#include <xkcombsd/MLLock.h>
#include <xkcombsd/MORefCnt.h>
#include <xkcombsd/MWCrtSct.h>

namespace xk {

class AllocatorBase : public MORefCnt<MultiThreaded>, private IAllocator {
 public:
  // The table view a store holds. The first reference belongs to the creator.
  IAllocator* Interface() { return this; }

  virtual ULONG AddRef() { return InternalAddRef(); }
  virtual ULONG Release() { return InternalRelease(); }

  virtual void* Alloc(ULONG cb) {
    MLLock<CriticalSectionLock> guard(&m_lock);
    void* p = do_Alloc(cb);
    if (p) AtomicIncrement(&m_cAllocs);
    return p;
  }

  virtual void* Realloc(void* pv, ULONG cb) {
    MLLock<CriticalSectionLock> guard(&m_lock);
    void* r = do_Realloc(pv, cb);
    if (!pv && r)
      AtomicIncrement(&m_cAllocs);
    else if (pv && !r && cb == 0)
      AtomicDecrement(&m_cAllocs);
    return r;  // a failed resize to a non-zero size keeps pv, and the count
  }

  virtual void Free(void* pv) {
    if (!pv) return;
    MLLock<CriticalSectionLock> guard(&m_lock);
    AtomicDecrement(&m_cAllocs);
    do_Free(pv);
  }

  virtual ULONG GetSize(void* pv) {
    MLLock<CriticalSectionLock> guard(&m_lock);
    return do_GetSize(pv);
  }

  virtual void HeapMinimise() {
    MLLock<CriticalSectionLock> guard(&m_lock);
    do_HeapMinimise();
  }

  virtual ~AllocatorBase() {
    Verify(m_cAllocs == 0, {"MLAtor", 200, "m_cAllocs == 0"});
  }

  virtual LONG GetRefCount() {
    const LONG cRefs = RefCount();
    Verify(cRefs >= 1, {"MLRefCnt", 89, "cRefs >= 1"});
    return cRefs;
  }

  // Gives back what the allocator holds of its memory manager. The base has
  // nothing to give back and only checks that no block is still out.
  virtual void ReleaseResources() {
    Verify(m_cAllocs == 0, {"MLAtor", 191, "m_cAllocs == 0"});
  }

  // A block the caller made with the same memory manager and handed over for
  // this allocator to free (a store created over a caller's block): counting
  // it keeps "m_cAllocs == 0" true once the store has freed it.
  void TakeOverBlock() {
    MLLock<CriticalSectionLock> guard(&m_lock);
    AtomicIncrement(&m_cAllocs);
  }

  LONG OutstandingBlocks() const { return m_cAllocs; }

 protected:
  AllocatorBase() { lpVtbl = &kTable; }

  virtual void* do_Alloc(ULONG cb) = 0;
  virtual void* do_Realloc(void* pv, ULONG cb) = 0;
  virtual void do_Free(void* pv) = 0;
  virtual ULONG do_GetSize(void* pv) = 0;
  virtual void do_HeapMinimise() = 0;

 private:
  static AllocatorBase* From(IAllocator* p) { return static_cast<AllocatorBase*>(p); }

  static ULONG STDMETHODCALLTYPE AddRefThunk(IAllocator* p) { return From(p)->AddRef(); }
  static ULONG STDMETHODCALLTYPE ReleaseThunk(IAllocator* p) { return From(p)->Release(); }
  static void* STDMETHODCALLTYPE AllocThunk(IAllocator* p, ULONG cb) { return From(p)->Alloc(cb); }
  static void* STDMETHODCALLTYPE ReallocThunk(IAllocator* p, void* pv, ULONG cb) {
    return From(p)->Realloc(pv, cb);
  }
  static void STDMETHODCALLTYPE FreeThunk(IAllocator* p, void* pv) { From(p)->Free(pv); }
  static ULONG STDMETHODCALLTYPE GetSizeThunk(IAllocator* p, void* pv) { return From(p)->GetSize(pv); }
  static void STDMETHODCALLTYPE HeapMinimiseThunk(IAllocator* p) { From(p)->HeapMinimise(); }

  static constexpr IAllocatorVtbl kTable = {&AddRefThunk,  &ReleaseThunk, &AllocThunk,
                                            &ReallocThunk, &FreeThunk,    &GetSizeThunk,
                                            &HeapMinimiseThunk};

  CriticalSectionLock m_lock;
  LONG m_cAllocs = 0;  // (atomic, changed under m_lock) blocks handed out, not yet freed
};

}  // namespace xk
