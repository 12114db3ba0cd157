// Late binding of system functions: each entry point finds its function on its
// first call (loading the system library by name on that library's first
// request), keeps the address and forwards every call to it.
//
// A slot is published with one atomic store holding either the address or a
// "missing" marker, so a thread that sees a slot resolved also sees its address.
// Two threads may both resolve a slot on a first call; they store the same value.
#pragma once

#include <windows.h>
#include <type_traits>
#include <utility>

namespace xk::latebound {

struct SystemLibrary {
  const char* fileName;
  void* handle;  // (atomic) NULL until first requested; never freed
};

struct EntryName {
  SystemLibrary* library;
  const char* function;
};

extern SystemLibrary g_user32;
extern SystemLibrary g_advapi32;

// The function's address, resolved once per slot; NULL when it cannot be found.
void* Resolve(void** slot, const EntryName& name);

// What an entry point returns instead of calling a function that is missing: a
// failure of the function's own kind.
template <typename R>
R FailureOf() {
  if constexpr (std::is_void_v<R>) {
    return;
  } else if constexpr (std::is_pointer_v<R>) {
    return nullptr;
  } else if constexpr (std::is_same_v<R, LONG>) {
    return ERROR_PROC_NOT_FOUND;  // the registry functions' own error codes
  } else {
    return R{};  // counts and flags: 0
  }
}

// One entry point: Name identifies the function (and, by its address, the slot),
// Fn is the function's pointer type, calling convention included.
template <const EntryName& Name, typename Fn>
struct Entry {
  template <typename... Args>
  static auto Call(Args... args) -> decltype(std::declval<Fn>()(args...)) {
    using Result = decltype(std::declval<Fn>()(args...));
    const auto fn = reinterpret_cast<Fn>(Resolve(&s_slot, Name));
    if (!fn) return FailureOf<Result>();
    return fn(args...);
  }

  static inline void* s_slot;  // (atomic) NULL until the first call
};

}  // namespace xk::latebound

namespace xk {

// Entry points used inside the library only (not exported).
BOOL LB_IsCharAlphaA(CHAR ch);
BOOL LB_IsCharAlphaW(WCHAR ch);
int LB_MessageBoxA(HWND owner, LPCSTR text, LPCSTR caption, UINT type);
int LB_MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type);

}  // namespace xk
