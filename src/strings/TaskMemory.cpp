// The three questions the library puts to the COM task allocator. Each holds
// the allocator only for its one question; when the allocator cannot be had,
// the question writes a trace and answers as its export documents.
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/Strings.h>

#include "frame/Diagnostics.h"
#include "strings/StringsInternal.h"

namespace xk::strings {

namespace {

// Holds the task allocator while one question is put to it; on failure writes
// failureTrace and hands back the getter's code.
template <typename Question>
HRESULT AskTaskAllocator(GetTaskAllocator get, const char* failureTrace, Question question) {
  MLRelItf<IMalloc> allocator;
  const HRESULT hr = get(MEMCTX_TASK, allocator.put());
  if (FAILED(hr)) {
    DebugTraceA(failureTrace);
    return hr;
  }
  question(allocator.get());
  return hr;
}

}  // namespace

int DidAlloc(GetTaskAllocator get, void* pv) {
  int answer = -1;
  AskTaskAllocator(get, "CoTaskMemDidAlloc: failed to get COM task allocator!\n",
                   [&](IMalloc* allocator) { answer = allocator->DidAlloc(pv); });
  return answer;
}

// A block beyond 4 GiB on x86_64 is reported cut to 32 bits, as the export's
// ULONG result allows.
ULONG GetSize(GetTaskAllocator get, void* pv) {
  ULONG size = 0;
  AskTaskAllocator(get, "CoTaskMemGetSize: failed to get COM task allocator!\n",
                   [&](IMalloc* allocator) { size = static_cast<ULONG>(allocator->GetSize(pv)); });
  return size;
}

HRESULT HeapMinimise(GetTaskAllocator get) {
  return AskTaskAllocator(get, "CoTaskMemHeapMinimise: failed to get COM task allocator!\n",
                          [](IMalloc* allocator) { allocator->HeapMinimize(); });
}

}  // namespace xk::strings

using namespace xk::strings;

// ---- CoTaskMemDidAlloc -------------------------------------------------------
extern "C" int WINAPI CoTaskMemDidAlloc(void* pv) { return DidAlloc(CoGetMalloc, pv); }

// ---- CoTaskMemGetSize --------------------------------------------------------
extern "C" ULONG WINAPI CoTaskMemGetSize(void* pv) { return GetSize(CoGetMalloc, pv); }

// ---- CoTaskMemHeapMinimise ---------------------------------------------------
extern "C" HRESULT WINAPI CoTaskMemHeapMinimise() { return HeapMinimise(CoGetMalloc); }
