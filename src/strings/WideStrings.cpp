// The wide-string and memory primitives the library exports in place of a
// language runtime. A NULL source counts as an empty string and a NULL
// destination is not written, so none of them can be made to fault on NULL.
#include <xkcombsd/Strings.h>

#include "frame/RuntimePrimitives.h"

// ---- StrLenO -----------------------------------------------------------------
extern "C" int WINAPI StrLenO(LPCOLESTR s) {
  return s ? static_cast<int>(xk::TextLength(s)) : 0;
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
