// The class object: one generic class bound to a row of the class table. It is
// the row's IClassFactory (classes) and IPSFactoryBuffer (proxy/stub rows),
// and has a lock face that does nothing, for it keeps no state of its own
// besides its atomic counts. It does not count in the module object count;
// only LockServer keeps the library loaded on its account.
#pragma once

#include <xkcombsd/MILock.h>
#include <xkcombsd/MORefCnt.h>

#include "server/ClassTable.h"

namespace xk::server {

class ClassFactory final : public IClassFactory,
                           public IPSFactoryBuffer,
                           public MILock,
                           public MORefCnt<MultiThreaded> {
 public:
  // A new class object over row with one reference, or NULL without memory.
  static ClassFactory* Create(const ClassRow* row);

  // IUnknown, for both faces.
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override;
  STDMETHODIMP_(ULONG) AddRef() override { return InternalAddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return InternalRelease(); }

  // IClassFactory
  STDMETHODIMP CreateInstance(IUnknown* pUnkOuter, REFIID riid, void** ppv) override;
  STDMETHODIMP LockServer(BOOL fLock) override;

  // IPSFactoryBuffer
  STDMETHODIMP CreateProxy(IUnknown* pUnkOuter, REFIID riid, IRpcProxyBuffer** ppProxy,
                           void** ppv) override;
  STDMETHODIMP CreateStub(REFIID riid, IUnknown* pUnkServer, IRpcStubBuffer** ppStub) override;

  // MILock: nothing to guard.
  void Lock() override {}
  void Unlock() override {}

 private:
  ClassFactory(LONG* lockCount, LONG* objectCount, const ClassRow* row)
      : m_lockCount(lockCount), m_objectCount(objectCount), m_pItem(row) {}

  LONG* const m_lockCount;      // (atomic) the module lock count
  LONG* const m_objectCount;    // handed to every object CreateInstance makes
  const ClassRow* const m_pItem;  // read-only after construction
};

}  // namespace xk::server
