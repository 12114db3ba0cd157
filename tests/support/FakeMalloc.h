// An IMalloc a test hands in: counts its references and calls, keeps its blocks
// on the task allocator, and answers DidAlloc and GetSize as the test chooses
// (by default: "cannot tell", and the task allocator's own size).
#pragma once

#include <objbase.h>

#include <optional>

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
    asked = pv;
    return size ? *size : TaskAllocatorSize(pv);
  }
  STDMETHODIMP_(int) DidAlloc(void* pv) override {
    ++calls;
    asked = pv;
    return didAlloc;
  }
  STDMETHODIMP_(void) HeapMinimize() override {
    ++calls;
    ++minimised;
  }

  ULONG refs = 1;
  int calls = 0;
  int minimised = 0;
  void* asked = nullptr;          // the block of the last DidAlloc or GetSize
  int didAlloc = -1;              // DidAlloc's answer
  std::optional<SIZE_T> size;     // GetSize's answer; unset: the task allocator's

 private:
  static SIZE_T TaskAllocatorSize(void* pv) {
    IMalloc* task = nullptr;
    if (FAILED(CoGetMalloc(MEMCTX_TASK, &task))) return 0;
    const SIZE_T cb = task->GetSize(pv);
    task->Release();
    return cb;
  }
};

}  // namespace xktest
