// OLE strings: zero-terminated wide strings on the COM task allocator, always
// allocated with room for exactly their characters and a terminator.
//
// NULL sources give NULL strings and allocation failures give NULL; nothing here
// reports an error any other way, except a broken contract of OleString_Destroy.
#include <xkcombsd/Strings.h>
#include <xkcombsd/XKAssert.h>

#include "frame/Diagnostics.h"
#include "frame/RuntimePrimitives.h"
#include "strings/StringsInternal.h"

namespace xk::strings {

namespace {

constexpr char kSource[] = "MOOleStr";

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
