// DllGetClassObject: the class table is searched under the module critical
// section, and a class object bound to the row found is handed out.
#include <xkcombsd/MORefCnt.h>
#include <xkcombsd/Module.h>

#include "Module.h"
#include "collections/CollectionRows.h"

namespace {

using xk::collections::ClassRow;

// TEMPORARY, replaced at merge.
// The smallest class object that serves the collection rows, until the class
// table and its ClassFactory arrive from their own branch. Everything between
// this line and the END TEMPORARY line goes then; kCollectionRows and their
// creation functions stay and become rows of that table.
//
// It answers IClassFactory only. Answered for IUnknown, the EnumUnknown class
// object lets the entry point register it as a local server at process attach,
// and under Wine that registration starts the RPC server from inside DllMain:
// the server thread waits for the loader lock DllMain holds, and the load never
// returns. Refusing IUnknown takes the entry point's "class object not obtained"
// path. The real class object must settle this with the entry point.
class RowClassObject : public IClassFactory, public xk::MORefCnt<xk::MultiThreaded> {
 public:
  explicit RowClassObject(const ClassRow* row) : m_row(row) {}

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (iid != IID_IClassFactory) {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    *ppv = static_cast<IClassFactory*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return InternalAddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return InternalRelease(); }

  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID riid, void** ppv) override {
    if (!ppv) return E_POINTER;
    *ppv = nullptr;
    if (outer && (m_row->flags & xk::collections::kNoAggregation)) return CLASS_E_NOAGGREGATION;
    return m_row->create(*m_row->id, outer, xk::module::ObjectCount(), riid, ppv);
  }
  STDMETHODIMP LockServer(BOOL lock) override {
    LONG* count = xk::module::LockCount();
    const LONG locks = lock ? xk::AtomicIncrement(count) : xk::AtomicDecrement(count);
    return locks >= 1 ? S_OK : E_UNEXPECTED;
  }

 private:
  const ClassRow* const m_row;
};

const ClassRow* FindRow(REFCLSID rclsid) {
  for (const ClassRow& row : xk::collections::kCollectionRows)
    if (rclsid == *row.id) return &row;
  return nullptr;
}
// END TEMPORARY.

}  // namespace

// ---- DllGetClassObject ------------------------------------------------------
extern "C" HRESULT WINAPI DllGetClassObject(REFCLSID rclsid, REFIID riid, void** ppv) {
  xk::module::ModuleLock lock;
  if (!ppv) return E_POINTER;
  const ClassRow* row = FindRow(rclsid);
  if (!row) return CLASS_E_CLASSNOTAVAILABLE;  // *ppv stays as the caller left it
  auto* classObject = new RowClassObject(row);
  if (!classObject) return E_OUTOFMEMORY;
  // The caller holds the only reference on success; a refused query ends it.
  const HRESULT queried = classObject->QueryInterface(riid, ppv);
  classObject->Release();
  return queried;
}
