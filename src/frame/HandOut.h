// Every object the library makes is created with one reference, owned by its
// maker. HandOut gives the caller the interface it asked for and lets that
// creation reference go, so the caller holds the only one; a refused interface
// or a failed initialisation destroys the object again, and nothing is left
// for a failure path to release.
#pragma once

#include <windows.h>
#include <unknwn.h>

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

}  // namespace xk
