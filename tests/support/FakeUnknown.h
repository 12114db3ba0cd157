// A COM object for tests: counts its references and answers QueryInterface for
// IUnknown and one chosen identifier, refusing everything else with a chosen code.
#pragma once

#include <unknwn.h>
#include <windows.h>

namespace xktest {

class FakeUnknown : public IUnknown {
 public:
  explicit FakeUnknown(REFIID accepted = IID_IUnknown, HRESULT refusal = E_NOINTERFACE)
      : m_accepted(accepted), m_refusal(refusal) {}

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    ++queries;
    if (iid == IID_IUnknown || iid == m_accepted) {
      *ppv = static_cast<IUnknown*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return m_refusal;
  }
  // Counted atomically: a shared object is taken and given back from many threads.
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&refs)); }
  STDMETHODIMP_(ULONG) Release() override {
    return static_cast<ULONG>(InterlockedDecrement(&refs));
  }

  long refs = 1;
  int queries = 0;

 private:
  IID m_accepted;
  HRESULT m_refusal;
};

}  // namespace xktest
