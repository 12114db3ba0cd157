// The exported enumerator creators. They make their object the way a client
// would, through the library's own DllGetClassObject and the class object's
// CreateInstance, then fill it through its collection interface.
#include <xkcombsd/Collections.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/Module.h>

#include "collections/EnumKinds.h"

namespace xk::collections {
namespace {

struct NoEcho {
  template <class Input>
  void operator()(const Input*, ULONG) const {}
};

// The enumerator of a new object of Policy's class holding copies of items.
// On any failure the object is gone again and *ppenum stays NULL.
template <class Policy, class Echo = NoEcho>
HRESULT CreateFilled(const typename Policy::Input* items, ULONG cItems,
                     typename Policy::Enum** ppenum, Echo echo = {}) {
  if (!ppenum) return E_POINTER;
  *ppenum = nullptr;
  if (!items && cItems) return E_INVALIDARG;

  MLRelItf<IClassFactory> factory;
  HRESULT hr = DllGetClassObject(*Policy::kClsid, IID_IClassFactory, factory.put_void());
  if (FAILED(hr)) return hr;
  MLRelItf<typename Policy::Coll> coll;
  hr = factory->CreateInstance(nullptr, *Policy::kCollIid, coll.put_void());
  if (FAILED(hr)) return hr;
  echo(items, cItems);
  hr = coll->Add(items, cItems);
  if (SUCCEEDED(hr))
    hr = coll->QueryInterface(*Policy::kEnumIids[0], reinterpret_cast<void**>(ppenum));
  return hr;  // the collection goes first, then the class object
}

// One debugger-output call for each string and one for its line end; a NULL
// string shows as an empty line.
void EchoStrings(const LPCOLESTR* items, ULONG cItems) {
  for (ULONG i = 0; i < cItems; ++i) {
    OutputDebugStringW(items[i] ? items[i] : L"");
    OutputDebugStringW(L"\n");
  }
}

}  // namespace
}  // namespace xk::collections

namespace coll = xk::collections;

// ---- EnumString_Create ------------------------------------------------------
extern "C" HRESULT WINAPI EnumString_Create(const LPCOLESTR* items, ULONG cItems,
                                            IEnumString** ppenum) {
  return coll::CreateFilled<coll::StringPolicy>(items, cItems, ppenum, coll::EchoStrings);
}

// ---- EnumUnknown_Create -----------------------------------------------------
extern "C" HRESULT WINAPI EnumUnknown_Create(IUnknown* const* items, ULONG cItems,
                                             IEnumUnknown** ppenum) {
  return coll::CreateFilled<coll::UnknownPolicy>(items, cItems, ppenum);
}

// ---- EnumGUID_Create --------------------------------------------------------
extern "C" HRESULT WINAPI EnumGUID_Create(const GUID* items, ULONG cItems, IEnumGUID** ppenum) {
  return coll::CreateFilled<coll::GuidPolicy>(items, cItems, ppenum);
}

// ---- EnumBSTR_Create --------------------------------------------------------
extern "C" HRESULT WINAPI EnumBSTR_Create(const BSTR* items, ULONG cItems, IEnumBSTR** ppenum) {
  return coll::CreateFilled<coll::BstrPolicy>(items, cItems, ppenum);
}

// ---- EnumVARIANT_Create -----------------------------------------------------
extern "C" HRESULT WINAPI EnumVARIANT_Create(const VARIANT* items, ULONG cItems,
                                             IEnumVARIANT** ppenum) {
  return coll::CreateFilled<coll::VariantPolicy>(items, cItems, ppenum);
}
