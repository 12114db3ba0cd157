// The few C runtime functions the compiler emits calls to on its own (block
// copies, zero-fills and comparisons). The modules link no language runtime,
// so each carries these, as thin doors to the library's own primitives.
#include "RuntimePrimitives.h"  // same folder: every module compiles this file

extern "C" {

void* memcpy(void* dst, const void* src, size_t n) { return xk::MemCopy(dst, src, n); }

void* memmove(void* dst, const void* src, size_t n) { return xk::MemMove(dst, src, n); }

void* memset(void* dst, int value, size_t n) {
  return xk::MemFill(dst, static_cast<unsigned char>(value), n);
}

int memcmp(const void* a, const void* b, size_t n) { return xk::MemCompare(a, b, n); }

}  // extern "C"
