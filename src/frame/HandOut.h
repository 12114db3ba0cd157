// Every object the library makes is created with one reference, owned by its
// maker. HandOut gives the caller the interface it asked for and lets that
// creation reference go, so the caller holds the only one; a refused interface
// or a failed initialisation destroys the object again, and nothing is left
// for a failure path to release.
#pragma once

#include <unknwn.h>
#include <windows.h>

namespace xk {

// created NULL (no memory) answers E_OUTOFMEMORY and leaves *ppv alone.
template <class Object>
HRESULT HandOut(Object* created, REFIID riid, void** ppv, HRESULT initialised = S_OK) {
  if (!created) return E_OUTOFMEMORY;
  HRESULT hr = initialised;
  if (SUCCEEDED(hr)) hr = created->QueryInterface(riid, ppv);
  created->Release();
  return hr;
}

// QueryInterface of an object with a single face: IUnknown, the face's own
// interface and, where the face extends one, that base all answer with it.
template <class Face>
HRESULT QueryFace(Face* face, REFIID iid, void** ppv, REFIID own, REFIID base = IID_IUnknown) {
  if (!ppv) return E_POINTER;
  if (iid != IID_IUnknown && iid != own && iid != base) {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  *ppv = face;
  face->AddRef();
  return S_OK;
}

// A REFIID is a pointer underneath, and a caller of a creation function may
// pass none; the laundering keeps the compiler from assuming it cannot.
inline bool IsMissing(REFIID riid) {
  const IID* address = &riid;
  __asm__("" : "+r"(address));
  return address == nullptr;
}

// The rule of the creation functions that take an outer unknown only for
// IUnknown: S_OK to go on, else the refusal.
inline HRESULT AggregationRefusal(REFIID riid) {
  if (IsMissing(riid)) return E_INVALIDARG;
  return riid == IID_IUnknown ? S_OK : CLASS_E_NOAGGREGATION;
}

}  // namespace xk
