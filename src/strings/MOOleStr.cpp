// OLE strings: zero-terminated wide strings on the COM task allocator, always
// allocated with room for exactly their characters and a terminator; the three
// questions the library puts to the task allocator; and the wide-string and
// memory primitives the library exports in place of a language runtime.
//
// NULL sources give NULL strings and allocation failures give NULL; nothing here
// reports an error any other way, except a broken contract of OleString_Destroy.
#include <xkcombsd/LateBound.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/Strings.h>
#include <xkcombsd/XKAssert.h>

#include "module/Diagnostics.h"
#include "strings/MemoryPrimitives.h"
#include "strings/StringsInternal.h"

namespace xk::strings {

namespace {

constexpr char kSource[] = "MOOleStr";

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

LPOLESTR AllocateOleString(size_t cch) {
  if (!FitsByteCount(cch)) return nullptr;
  return static_cast<LPOLESTR>(CoTaskMemAlloc((cch + 1) * sizeof(OLECHAR)));
}

// A NULL p allocates; on failure p is still allocated and still the caller's.
LPOLESTR ReallocateOleString(LPOLESTR p, size_t cch) {
  if (!FitsByteCount(cch)) return nullptr;
  return static_cast<LPOLESTR>(CoTaskMemRealloc(p, (cch + 1) * sizeof(OLECHAR)));
}

// A failed conversion leaves an empty string.
LPOLESTR ConvertInto(LPOLESTR p, LPCSTR s, int cch) {
  p[MultiByteToWideChar(CP_ACP, 0, s, cch, p, cch + 1)] = 0;
  return p;
}

LPOLESTR CopyInto(LPOLESTR p, LPCOLESTR s, int cch) {
  StrNCpyO(p, s, cch);
  p[cch] = 0;
  return p;
}

}  // namespace

bool LoadResourceText(HINSTANCE hinst, UINT id, char (&text)[kResourceChars]) {
  return LB_LoadStringA(hinst, id, text, kResourceChars) != 0;
}

bool LoadResourceText(HINSTANCE hinst, UINT id, OLECHAR (&text)[kResourceChars]) {
  return LB_LoadStringW(hinst, id, text, kResourceChars) != 0;
}

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

void DestroyOleString(GetTaskAllocator get, LPOLESTR* pstr) {
  if (!Verify(pstr != nullptr, {kSource, 233, "&rstr"})) return;
  if (!*pstr) return;
  // An allocator that cannot tell (-1) is trusted; only a definite "not mine"
  // keeps the string from being freed. Freeing memory the task allocator does
  // not own would corrupt its heap, so a foreign string is left to its owner.
  if (DidAlloc(get, *pstr) == 0) {
    DebugTraceW(L"OleStringDestroy: failed to recognise string (00000000)!\n");
    ReportAssertion({kSource, 242, "0"});
  } else {
    CoTaskMemFree(*pstr);
  }
  *pstr = nullptr;
}

}  // namespace xk::strings

using namespace xk::strings;

// ---- CoTaskMemDidAlloc -------------------------------------------------------
extern "C" int WINAPI CoTaskMemDidAlloc(void* pv) { return DidAlloc(CoGetMalloc, pv); }

// ---- CoTaskMemGetSize --------------------------------------------------------
extern "C" ULONG WINAPI CoTaskMemGetSize(void* pv) { return GetSize(CoGetMalloc, pv); }

// ---- CoTaskMemHeapMinimise ---------------------------------------------------
extern "C" HRESULT WINAPI CoTaskMemHeapMinimise() { return HeapMinimise(CoGetMalloc); }

// ---- OleString_CreateA -------------------------------------------------------
extern "C" LPOLESTR WINAPI OleString_CreateA(LPCSTR s, int cch) {
  if (!s) return nullptr;
  if (cch < 0) cch = xk::StrLenA(s);
  LPOLESTR p = AllocateOleString(cch);
  return p ? ConvertInto(p, s, cch) : nullptr;
}

// ---- OleString_CreateW -------------------------------------------------------
extern "C" LPOLESTR WINAPI OleString_CreateW(LPCOLESTR s, int cch) {
  if (!s) return nullptr;
  if (cch < 0) cch = StrLenO(s);
  LPOLESTR p = AllocateOleString(cch);
  return p ? CopyInto(p, s, cch) : nullptr;
}

// ---- OleString_RecreateA -----------------------------------------------------
extern "C" LPOLESTR WINAPI OleString_RecreateA(LPOLESTR p, LPCSTR s, int cch) {
  if (!s) {
    CoTaskMemFree(p);
    return nullptr;
  }
  if (cch < 0) cch = xk::StrLenA(s);
  LPOLESTR q = ReallocateOleString(p, cch);
  return q ? ConvertInto(q, s, cch) : nullptr;
}

// ---- OleString_RecreateW -----------------------------------------------------
extern "C" LPOLESTR WINAPI OleString_RecreateW(LPOLESTR p, LPCOLESTR s, int cch) {
  if (!s) {
    CoTaskMemFree(p);
    return nullptr;
  }
  if (cch < 0) cch = StrLenO(s);
  LPOLESTR q = ReallocateOleString(p, cch);
  return q ? CopyInto(q, s, cch) : nullptr;
}

// ---- OleString_FromResourceA -------------------------------------------------
extern "C" LPOLESTR WINAPI OleString_FromResourceA(HINSTANCE hinst, UINT id) {
  char text[kResourceChars];
  return LoadResourceText(hinst, id, text) ? OleString_CreateA(text, -1) : nullptr;
}

// ---- OleString_FromResourceW -------------------------------------------------
extern "C" LPOLESTR WINAPI OleString_FromResourceW(HINSTANCE hinst, UINT id) {
  OLECHAR text[kResourceChars];
  return LoadResourceText(hinst, id, text) ? OleString_CreateW(text, -1) : nullptr;
}

// ---- OleString_Dup -----------------------------------------------------------
extern "C" LPOLESTR WINAPI OleString_Dup(LPCOLESTR s) {
  if (!s) return nullptr;
  LPOLESTR p = AllocateOleString(StrLenO(s));
  return p ? StrCpyO(p, s) : nullptr;
}

// ---- OleString_Destroy -------------------------------------------------------
extern "C" void WINAPI OleString_Destroy(LPOLESTR* pstr) { DestroyOleString(CoGetMalloc, pstr); }

// ---- StrLenO -----------------------------------------------------------------
extern "C" int WINAPI StrLenO(LPCOLESTR s) {
  if (!s) return 0;
  LPCOLESTR end = s;
  while (*end) ++end;
  return static_cast<int>(end - s);
}

// ---- StrCpyO -----------------------------------------------------------------
extern "C" LPOLESTR WINAPI StrCpyO(LPOLESTR dst, LPCOLESTR src) {
  if (!dst) return dst;
  LPOLESTR to = dst;
  if (src)
    while ((*to++ = *src++) != 0) {
    }
  else
    *to = 0;
  return dst;
}

// ---- StrNCpyO ----------------------------------------------------------------
extern "C" LPOLESTR WINAPI StrNCpyO(LPOLESTR dst, LPCOLESTR src, int n) {
  if (!dst) return dst;
  int i = 0;
  if (src)
    for (; i < n && src[i]; ++i) dst[i] = src[i];
  for (; i < n; ++i) dst[i] = 0;
  return dst;
}

// ---- StrCmpO -----------------------------------------------------------------
extern "C" int WINAPI StrCmpO(LPCOLESTR a, LPCOLESTR b) {
  static constexpr OLECHAR kEmpty[] = {0};
  if (!a) a = kEmpty;
  if (!b) b = kEmpty;
  size_t i = 0;
  while (a[i] && a[i] == b[i]) ++i;
  // OLECHAR is unsigned 16-bit, so the difference cannot overflow.
  return static_cast<int>(b[i]) - static_cast<int>(a[i]);
}

// ---- MemMove -----------------------------------------------------------------
extern "C" void* WINAPI MemMove(void* dst, const void* src, UINT n) {
  if (!dst || !src) return dst;
  return xk::MemMove(dst, src, n);
}
