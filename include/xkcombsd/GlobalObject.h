// Object memory: every object the library creates comes from fixed global
// memory. Allocation failure yields NULL, never an exception, so a new-expression
// on these classes must always be checked.
#pragma once

#include <windows.h>
#include <new>

namespace xk {

class GlobalObject {
 public:
  // noexcept makes the compiler test the result before running a constructor.
  static void* operator new(size_t size) noexcept { return GlobalAlloc(GMEM_FIXED, size); }
  static void* operator new(size_t, void* where) noexcept { return where; }
  static void operator delete(void* p) noexcept {
    if (p) GlobalFree(p);
  }
  static void operator delete(void*, void*) noexcept {}
};

}  // namespace xk
