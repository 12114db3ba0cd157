// An IMalloc a test hands in: counts its references and calls and keeps its
// blocks on the task allocator; DidAlloc cannot tell which blocks are its own.
#pragma once

#include <objbase.h>

namespace xktest {

class FakeMalloc : public IMalloc {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = (iid == IID_IUnknown || iid == IID_IMalloc) ? this : nullptr;
    if (!*ppv) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP_(void*) Alloc(SIZE_T cb) override {
    ++calls;
    return CoTaskMemAlloc(cb);
  }
  STDMETHODIMP_(void*) Realloc(void* pv, SIZE_T cb) override {
    ++calls;
    return CoTaskMemRealloc(pv, cb);
  }
  STDMETHODIMP_(void) Free(void* pv) override {
    ++calls;
    CoTaskMemFree(pv);
  }
  STDMETHODIMP_(SIZE_T) GetSize(void* pv) override {
    ++calls;
    IMalloc* task = nullptr;  // the blocks are the task allocator's: it knows their size
    if (FAILED(CoGetMalloc(MEMCTX_TASK, &task))) return 0;
    const SIZE_T cb = task->GetSize(pv);
    task->Release();
    return cb;
  }
  STDMETHODIMP_(int) DidAlloc(void*) override {
    ++calls;
    return -1;  // cannot tell
  }
  STDMETHODIMP_(void) HeapMinimize() override { ++calls; }

  ULONG refs = 1;
  int calls = 0;
};

}  // namespace xktest
