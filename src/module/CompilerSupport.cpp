// The few C runtime functions the compiler emits calls to on its own (block
// copies, zero-fills and comparisons). The modules link no language runtime,
// so each carries these. Built with -fno-tree-loop-distribute-patterns so the
// loops below are not turned back into calls to themselves.
#include <stddef.h>

extern "C" {

void* memcpy(void* dst, const void* src, size_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  auto* s = static_cast<const unsigned char*>(src);
  while (n--) *d++ = *s++;
  return dst;
}

void* memmove(void* dst, const void* src, size_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  auto* s = static_cast<const unsigned char*>(src);
  if (d <= s || d >= s + n) return memcpy(dst, src, n);
  while (n--) d[n] = s[n];
  return dst;
}

void* memset(void* dst, int value, size_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  while (n--) *d++ = static_cast<unsigned char>(value);
  return dst;
}

int memcmp(const void* a, const void* b, size_t n) {
  auto* x = static_cast<const unsigned char*>(a);
  auto* y = static_cast<const unsigned char*>(b);
  for (; n; --n, ++x, ++y)
    if (*x != *y) return *x - *y;
  return 0;
}

}  // extern "C"
