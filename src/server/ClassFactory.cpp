// The class object of every row of the class table, and the search that hands
// one out.
#include "server/ClassFactory.h"

#include <xkcombsd/Atomic.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/XKAssert.h>

#include <utility>

#include "frame/HandOut.h"
#include "server/ModuleState.h"

namespace xk::server {

namespace {

constexpr char kSource[] = "MOFactry";

// A class object without a row cannot be made through the table; the check
// stands for a broken object.
bool HasRow(const ClassRow* row, int line) { return Verify(row != nullptr, {kSource, line, "m_pItem"}); }

}  // namespace

ClassFactory* ClassFactory::Create(const ClassRow* row) {
  return new ClassFactory(LockCount(), ObjectCount(), row);
}

STDMETHODIMP ClassFactory::QueryInterface(REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  if (riid == IID_IUnknown || riid == IID_IClassFactory) {
    *ppv = static_cast<IClassFactory*>(this);
  } else if (riid == IID_IPSFactoryBuffer) {
    *ppv = static_cast<IPSFactoryBuffer*>(this);
  } else {
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  AddRef();
  return S_OK;
}

STDMETHODIMP ClassFactory::CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) {
  if (!ppv) return E_POINTER;
  *ppv = nullptr;
  if (!HasRow(m_pItem, 248)) return E_UNEXPECTED;
  if (pUnkOuter && (m_pItem->flags & kNoAggregation)) return CLASS_E_NOAGGREGATION;
  return m_pItem->create(*m_pItem->id, pUnkOuter, m_objectCount, riid, ppv);
}

STDMETHODIMP ClassFactory::LockServer(BOOL fLock) {
  const LONG count = fLock ? AtomicIncrement(m_lockCount) : AtomicDecrement(m_lockCount);
  // So the unlock that brings the count back to 0 answers E_UNEXPECTED.
  return count >= 1 ? S_OK : E_UNEXPECTED;
}

STDMETHODIMP ClassFactory::CreateProxy(IUnknown* pUnkOuter, REFIID riid, IRpcProxyBuffer** ppProxy,
                                       void** ppv) {
  if (!pUnkOuter || !ppProxy || !ppv) return E_POINTER;
  *ppProxy = nullptr;
  *ppv = nullptr;
  if (!HasRow(m_pItem, 299)) return E_UNEXPECTED;
  MLRelItf<IUnknown> proxy;
  HRESULT hr = m_pItem->create(*m_pItem->id, pUnkOuter, nullptr, IID_IUnknown, proxy.put_void());
  if (FAILED(hr)) return hr;
  hr = proxy->QueryInterface(IID_IRpcProxyBuffer, reinterpret_cast<void**>(ppProxy));
  if (SUCCEEDED(hr)) {
    hr = proxy->QueryInterface(riid, ppv);
    // Left to the implementer: a proxy that cannot give riid is not handed out
    // either, so that a failed call leaves the caller nothing to release.
    if (FAILED(hr)) ReleaseItf(std::exchange(*ppProxy, nullptr));
  }
  return hr;
}

STDMETHODIMP ClassFactory::CreateStub(REFIID riid, IUnknown* pUnkServer, IRpcStubBuffer** ppStub) {
  if (!ppStub) return E_POINTER;
  *ppStub = nullptr;
  if (!HasRow(m_pItem, 346)) return E_UNEXPECTED;
  const HRESULT hr =
      m_pItem->create(*m_pItem->id, nullptr, nullptr, riid, reinterpret_cast<void**>(ppStub));
  if (FAILED(hr) || !pUnkServer || !*ppStub) return hr;
  const HRESULT connected = (*ppStub)->Connect(pUnkServer);
  if (FAILED(connected)) {
    ReleaseItf(std::exchange(*ppStub, nullptr));
    return connected;
  }
  return hr;
}

const ClassRow* FindClassRow(const ClassRow* table, REFCLSID rclsid) {
  for (const ClassRow* row = table; row->id; ++row)
    if (*row->id == rclsid) return row;  // a 16-byte comparison
  return nullptr;
}

HRESULT GetClassObject(const ClassRow* table, REFCLSID rclsid, REFIID riid, void** ppv) {
  ModuleLock lock;
  if (!ppv) return E_POINTER;
  const ClassRow* row = FindClassRow(table, rclsid);
  if (!row) return CLASS_E_CLASSNOTAVAILABLE;  // *ppv stays as the caller left it
  return HandOut(ClassFactory::Create(row), riid, ppv);
}

}  // namespace xk::server
