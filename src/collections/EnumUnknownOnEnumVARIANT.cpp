// Enumerating objects through either enumerator a caller may have: an
// IEnumUnknown, or an IEnumVARIANT whose VARIANTs hold objects. The adapter
// presents the second as the first; the two exports below find out which one
// an object is.
//
// The adapter is for one thread at a time: a plain count, no lock, and its
// calls on the inner enumerator are made without one. It does not keep the
// module loaded (it is not made through a class object).
#include <xkcombsd/Collections.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/MORefCnt.h>
#include <xkcombsd/ScopedValue.h>

#include "collections/EnumKinds.h"
#include "frame/HandOut.h"

namespace xk::collections {
namespace {

// Only a VARIANT holding an object by value qualifies (VT_BYREF does not);
// object is borrowed from it.
HRESULT ObjectIn(const VARIANT& var, IUnknown** object) {
  if (V_VT(&var) != VT_UNKNOWN && V_VT(&var) != VT_DISPATCH) return DISP_E_BADVARTYPE;
  *object = V_UNKNOWN(&var);
  return S_OK;
}

// The adapter's item for one VARIANT: its object's IUnknown. A null object gives
// a null item, as an IEnumUnknown may hand out.
HRESULT ItemOf(const VARIANT& var, IUnknown** item) {
  IUnknown* object = nullptr;
  const HRESULT held = ObjectIn(var, &object);
  if (FAILED(held) || !object) return held;
  return object->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(item));
}

// A null item answers no interface.
HRESULT QueryItem(IUnknown* item, REFIID riid, void** ppv) {
  if (!item) {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  return item->QueryInterface(riid, ppv);
}

// The task-allocated VARIANTs of one multi-element Next. The ones held (those
// the inner enumerator fetched) are cleared, and the block freed, on every way
// out.
class VariantBatch {
 public:
  explicit VariantBatch(ULONG capacity) : m_capacity(capacity) {
    if (capacity <= SIZE_MAX / sizeof(VARIANT))
      m_items = static_cast<VARIANT*>(CoTaskMemAlloc(capacity * sizeof(VARIANT)));
  }
  ~VariantBatch() {
    for (ULONG i = 0; i < m_held; ++i) VariantPolicy::DestroyElement(&m_items[i]);
    CoTaskMemFree(m_items);
  }
  VariantBatch(const VariantBatch&) = delete;
  VariantBatch& operator=(const VariantBatch&) = delete;

  bool Allocated() const { return m_items != nullptr; }
  VARIANT* Items() { return m_items; }
  // Never more than the block holds, whatever the inner enumerator claims.
  void Hold(ULONG fetched) { m_held = fetched < m_capacity ? fetched : m_capacity; }
  ULONG Held() const { return m_held; }

 private:
  const ULONG m_capacity;
  VARIANT* m_items = nullptr;  // (owned)
  ULONG m_held = 0;
};

class EnumUnknownOnEnumVARIANT : public IEnumUnknown, public MORefCnt<SingleThreaded> {
 public:
  // Takes over the caller's reference to inner.
  explicit EnumUnknownOnEnumVARIANT(IEnumVARIANT* inner) : m_inner(inner, false) {}

  // A new adapter over inner, or NULL (and inner released) when out of memory.
  static EnumUnknownOnEnumVARIANT* Over(IEnumVARIANT* inner) {
    MLRelItf<IEnumVARIANT> held(inner, false);
    auto* adapter = new EnumUnknownOnEnumVARIANT(held.raw());
    if (adapter) held.Detach();
    return adapter;
  }

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    return xk::QueryFace(static_cast<IEnumUnknown*>(this), iid, ppv, IID_IEnumUnknown);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return InternalAddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return InternalRelease(); }

  STDMETHODIMP Next(ULONG celt, IUnknown** rgelt, ULONG* pceltFetched) override {
    if (!rgelt) return E_POINTER;
    for (ULONG i = 0; i < celt; ++i) rgelt[i] = nullptr;
    if (pceltFetched) *pceltFetched = 0;
    return celt == 1 ? NextOne(rgelt, pceltFetched) : NextMany(celt, rgelt, pceltFetched);
  }
  STDMETHODIMP Skip(ULONG celt) override { return m_inner->Skip(celt); }
  STDMETHODIMP Reset() override { return m_inner->Reset(); }
  STDMETHODIMP Clone(IEnumUnknown** ppenum) override {
    if (!ppenum) return E_POINTER;
    *ppenum = nullptr;
    IEnumVARIANT* innerClone = nullptr;
    const HRESULT cloned = m_inner->Clone(&innerClone);
    if (FAILED(cloned)) return cloned;
    EnumUnknownOnEnumVARIANT* adapter = Over(innerClone);
    if (!adapter) return E_OUTOFMEMORY;
    *ppenum = adapter;
    return S_OK;
  }

 private:
  HRESULT NextOne(IUnknown** rgelt, ULONG* pceltFetched) {
    ScopedVariant var;
    const HRESULT fetched = m_inner->Next(1, &var.get(), pceltFetched);
    if (FAILED(fetched) || fetched == S_FALSE) return fetched;
    const HRESULT converted = ItemOf(var.get(), rgelt);
    return FAILED(converted) ? converted : fetched;
  }

  // On a failed conversion every item already handed out is taken back.
  HRESULT NextMany(ULONG celt, IUnknown** rgelt, ULONG* pceltFetched) {
    if (!pceltFetched) return E_INVALIDARG;
    VariantBatch batch(celt);
    if (!batch.Allocated()) return E_OUTOFMEMORY;
    const HRESULT fetched = m_inner->Next(celt, batch.Items(), pceltFetched);
    if (FAILED(fetched)) return fetched;
    batch.Hold(*pceltFetched);
    for (ULONG i = 0; i < batch.Held(); ++i) {
      const HRESULT converted = ItemOf(batch.Items()[i], &rgelt[i]);
      if (FAILED(converted)) {
        for (ULONG j = 0; j < i; ++j) UnknownPolicy::DestroyElement(&rgelt[j]);
        return converted;
      }
    }
    return fetched;
  }

  MLRelItf<IEnumVARIANT> m_inner;  // read-only; one reference, owned
};

// The next item of an IEnumUnknown, queried for riid.
HRESULT QueryNextUnknown(IEnumUnknown* peu, REFIID riid, void** ppv) {
  MLRelItf<IUnknown> item;
  const HRESULT fetched = peu->Next(1, item.put(), nullptr);
  if (fetched != S_OK) return fetched;
  return QueryItem(item.raw(), riid, ppv);
}

// The object of the next VARIANT of an IEnumVARIANT, queried for riid.
HRESULT QueryNextVariant(IEnumVARIANT* pev, REFIID riid, void** ppv) {
  ScopedVariant var;
  const HRESULT fetched = pev->Next(1, &var.get(), nullptr);
  if (fetched != S_OK) return fetched;
  IUnknown* object = nullptr;
  const HRESULT held = ObjectIn(var.get(), &object);
  if (FAILED(held)) return held;
  return QueryItem(object, riid, ppv);
}

}  // namespace
}  // namespace xk::collections

namespace coll = xk::collections;

// ---- EnumUnknown_FromUnknown ------------------------------------------------
extern "C" HRESULT WINAPI EnumUnknown_FromUnknown(IUnknown* punk, IEnumUnknown** ppenum) {
  if (!punk || !ppenum) return E_POINTER;
  *ppenum = nullptr;
  if (SUCCEEDED(punk->QueryInterface(IID_IEnumUnknown, reinterpret_cast<void**>(ppenum))))
    return S_OK;
  *ppenum = nullptr;  // whatever a refusing object left there
  IEnumVARIANT* pev = nullptr;
  // Whatever punk answered, it is neither kind of enumerator.
  if (FAILED(punk->QueryInterface(IID_IEnumVARIANT, reinterpret_cast<void**>(&pev))))
    return E_NOINTERFACE;
  coll::EnumUnknownOnEnumVARIANT* adapter = coll::EnumUnknownOnEnumVARIANT::Over(pev);
  if (!adapter) return E_OUTOFMEMORY;
  *ppenum = adapter;
  return S_OK;
}

// ---- Enum_QueryNextItem -----------------------------------------------------
extern "C" HRESULT WINAPI Enum_QueryNextItem(IUnknown* penum, REFIID riid, void** ppv) {
  if (!penum || !ppv) return E_POINTER;
  xk::MLRelItf<IEnumUnknown> peu;
  if (SUCCEEDED(penum->QueryInterface(IID_IEnumUnknown, peu.put_void())))
    return coll::QueryNextUnknown(peu.get(), riid, ppv);
  xk::MLRelItf<IEnumVARIANT> pev;
  const HRESULT found = penum->QueryInterface(IID_IEnumVARIANT, pev.put_void());
  if (FAILED(found)) return found;
  return coll::QueryNextVariant(pev.get(), riid, ppv);
}
