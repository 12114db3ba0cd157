// EnumSequence: the one body of the five collection classes. An object is at
// once a growable, ordered sequence of T (its ICollXxx / ISeqXxx face) and an
// enumerator over that sequence (its IEnumXxx face, which is also its IUnknown)
// whose position belongs to the object.
//
// Policy is the only place that knows the element kind: the three interfaces
// and their identifiers, the construction and destruction traces, and the
// element operations InitElement (a new slot becomes a valid empty element),
// CopyElement (an empty slot becomes an independent copy; its own failure leaves
// an empty value and is not reported) and DestroyElement (a live element lets go
// of what it owns).
//
// Storage is one task-allocator block. Its capacity is not kept: every growth
// reallocates to the next multiple of 16 elements above the new count, and the
// allocator is left to grow the block in place. Elements move bytewise on
// insertion and removal; only the policy copies or destroys them. The empty
// sequence holds no block at all (the three pointers are NULL).
//
// Every operation holds the object's recursive lock for its whole work, element
// copies included; the checks of NULL arguments come first, outside it.
#pragma once

#include <XKCmnBaD.h>
#include <stdint.h>
#include <xkcombsd/MLLock.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/MORefCnt.h>

#include "frame/Diagnostics.h"

namespace xk::collections {

template <class T, class Policy>
class EnumSequence : public Policy::Seq, public Policy::Enum, public MORefCnt<MultiThreaded> {
  using Input = typename Policy::Input;  // what items are handed in as
  using SeqFace = typename Policy::Seq;
  using EnumFace = typename Policy::Enum;
  using Guard = MLLock<CriticalSectionLock>;

 public:
  // objectCount, when given, counts this object for its lifetime and is handed
  // on to every clone.
  explicit EnumSequence(LONG* objectCount) : m_objectCount(objectCount) {
    TraceLifetime(Policy::kBornTrace);
    if (m_objectCount) AtomicIncrement(m_objectCount);
  }

  // ---- IUnknown, shared by both faces
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (!ppv) return E_POINTER;
    IUnknown* face = FaceFor(iid);
    *ppv = face;
    if (!face) return E_NOINTERFACE;
    face->AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return InternalAddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return InternalRelease(); }

  // ---- ICollXxx
  STDMETHODIMP Count(long* rcount) override {
    if (!rcount) return E_POINTER;
    Guard guard(&m_lock);
    *rcount = static_cast<long>(Size());
    return S_OK;
  }

  // The position keeps its index.
  STDMETHODIMP Add(const Input* items, ULONG cItems) override {
    if (!items && cItems) return E_POINTER;  // a NULL array with a count is refused, not read
    Guard guard(&m_lock);
    const HRESULT grown = GrowBy(cItems);
    if (SUCCEEDED(grown)) CopyInto(m_end - cItems, items, cItems);
    return grown;
  }

  STDMETHODIMP Empty() override {
    Guard guard(&m_lock);
    if (Size() == 0) {
      Verify(m_start == NULL, {kSource, 340, "m_start == NULL"});
      Verify(m_end == NULL, {kSource, 341, "m_end == NULL"});
      Verify(m_iter == NULL, {kSource, 342, "m_iter == NULL"});
      return S_FALSE;
    }
    for (m_iter = m_start; m_iter != m_end; ++m_iter) Policy::DestroyElement(m_iter);
    FreeStorage();
    return S_OK;
  }

  // The object itself: every enumerator handed out here shares its position.
  STDMETHODIMP _NewEnum(EnumFace** ppenum) override {
    if (!ppenum) return E_POINTER;
    Guard guard(&m_lock);
    *ppenum = AsEnum();
    AddRef();
    return S_OK;
  }

  // ---- ISeqXxx
  STDMETHODIMP GetPosition(ULONG* pIndex) override {
    if (!pIndex) return E_POINTER;
    Guard guard(&m_lock);
    *pIndex = static_cast<ULONG>(Position());
    return S_OK;
  }

  STDMETHODIMP SetPosition(long index) override {
    Guard guard(&m_lock);
    if (index < 0 || static_cast<size_t>(index) > Size()) return E_INVALIDARG;
    m_iter = m_start + index;
    return S_OK;
  }

  // The storage block is kept unless the last element goes; the position keeps
  // its index but never lies beyond the new end.
  STDMETHODIMP RemoveAt(ULONG index) override {
    Guard guard(&m_lock);
    if (index >= Size()) return E_INVALIDARG;
    T* removed = m_start + index;
    Policy::DestroyElement(removed);
    MoveMemory(removed, removed + 1, (m_end - (removed + 1)) * sizeof(T));
    --m_end;
    if (Size() == 0)
      FreeStorage();
    else if (m_iter > m_end)
      m_iter = m_end;
    return S_OK;
  }

  // The position keeps its index; it does not follow the elements moved up.
  STDMETHODIMP InsertAt(ULONG index, const Input* items, ULONG cItems) override {
    if (cItems == 0) return S_FALSE;
    if (!items) return E_POINTER;  // as in Add: refused, not read
    Guard guard(&m_lock);
    const size_t count = Size();
    if (index > count) return E_INVALIDARG;
    const HRESULT grown = GrowBy(cItems);
    if (FAILED(grown)) return grown;
    T* place = m_start + index;
    MoveMemory(place + cItems, place, (count - index) * sizeof(T));
    CopyInto(place, items, cItems);
    return S_OK;
  }

  STDMETHODIMP SetAt(ULONG index, const Input* item) override {
    if (!item) return E_POINTER;
    Guard guard(&m_lock);
    if (index >= Size()) return E_INVALIDARG;
    Policy::DestroyElement(m_start + index);
    Policy::CopyElement(m_start + index, item);
    return S_OK;
  }

  // ---- IEnumXxx
  STDMETHODIMP Next(ULONG celt, T* rgelt, ULONG* pceltFetched) override {
    if (pceltFetched) *pceltFetched = 0;
    if (celt != 1 && !pceltFetched) return E_INVALIDARG;
    if (!rgelt) return E_POINTER;
    Guard guard(&m_lock);
    const size_t remaining = m_end - m_iter;
    const ULONG fetched = celt > remaining ? static_cast<ULONG>(remaining) : celt;
    if (pceltFetched) *pceltFetched = fetched;
    for (ULONG i = 0; i < fetched; ++i) Policy::CopyElement(&rgelt[i], m_iter++);
    return fetched == celt ? S_OK : S_FALSE;
  }

  // Reaching the end, even exactly, answers S_FALSE.
  STDMETHODIMP Skip(ULONG celt) override {
    Guard guard(&m_lock);
    const size_t remaining = m_end - m_iter;
    if (celt >= remaining) {
      m_iter = m_end;
      return S_FALSE;
    }
    m_iter += celt;
    return S_OK;
  }

  STDMETHODIMP Reset() override {
    Guard guard(&m_lock);
    m_iter = m_start;
    return S_OK;
  }

  // A new object with copies of the elements and the same position index.
  STDMETHODIMP Clone(EnumFace** ppenum) override {
    if (!ppenum) return E_POINTER;
    *ppenum = nullptr;
    Guard guard(&m_lock);
    MLRelItf<EnumSequence> clone(CreateNew(), false);
    if (!clone) return E_OUTOFMEMORY;
    // An empty source answers S_FALSE here, which is success too.
    const HRESULT copied = clone->InsertAt(0, m_start, static_cast<ULONG>(Size()));
    if (FAILED(copied)) return copied;
    clone->SetPosition(static_cast<long>(Position()));
    *ppenum = clone->AsEnum();
    clone->AddRef();
    return S_OK;
  }

 protected:
  ~EnumSequence() override {
    TraceLifetime(Policy::kDiedTrace);
    Verify(Size() == 0, {kSource, 212, "cItems == 0"});
    if (m_objectCount) AtomicDecrement(m_objectCount);
  }

  // A new, empty object of this class counted in the same object count; NULL
  // when out of memory.
  virtual EnumSequence* CreateNew() const { return new EnumSequence(m_objectCount); }

  void FinalRelease() override { Empty(); }

  static constexpr char kSource[] = "MOEnXXXX";

  // Elements [m_start, m_end) are live; m_start <= m_iter <= m_end. (object lock)
  T* m_start = nullptr;
  T* m_end = nullptr;
  T* m_iter = nullptr;  // the next element Next returns

 private:
  EnumFace* AsEnum() { return static_cast<EnumFace*>(this); }

  IUnknown* FaceFor(REFIID iid) {
    if (iid == IID_IUnknown) return AsEnum();
    for (const IID* answered : Policy::kEnumIids)
      if (iid == *answered) return AsEnum();
    if (iid == *Policy::kCollIid || iid == *Policy::kSeqIid) return static_cast<SeqFace*>(this);
    return nullptr;
  }

  size_t Size() const { return m_end - m_start; }
  size_t Position() const { return m_iter - m_start; }

  // Appends extra InitElement'ed elements; on failure nothing changes.
  HRESULT GrowBy(size_t extra) {
    Guard guard(&m_lock);
    const size_t count = Size();
    if (extra == 0) return S_OK;
    constexpr size_t kStep = 16;
    const size_t wanted = count + extra;
    const size_t capacity = wanted + kStep - wanted % kStep;  // strictly above wanted
    if (wanted < count || capacity < wanted || capacity > SIZE_MAX / sizeof(T))
      return E_OUTOFMEMORY;
    T* block = static_cast<T*>(CoTaskMemRealloc(m_start, capacity * sizeof(T)));
    if (!block) return E_OUTOFMEMORY;
    const size_t position = Position();
    m_start = block;
    m_iter = block + position;
    m_end = block + count;
    for (size_t i = 0; i < extra; ++i) Policy::InitElement(m_end++);
    return S_OK;
  }

  static void CopyInto(T* dest, const Input* items, ULONG cItems) {
    for (ULONG i = 0; i < cItems; ++i) Policy::CopyElement(dest + i, items + i);
  }

  void FreeStorage() {
    CoTaskMemFree(m_start);
    m_iter = m_end = m_start = nullptr;
  }

  // The line names the object by the low 32 bits of its address: the format's
  // eight digits are fixed, and on 64-bit systems the low half still tells the
  // live objects of a trace apart.
  void TraceLifetime(const char* format) {
    if (format)
      DebugTraceA(format, static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(this)),
                  XKCmnBaD_CurrentThreadId());
  }

  LONG* const m_objectCount;  // read-only; NULL when not counted
  CriticalSectionLock m_lock;
};

}  // namespace xk::collections
