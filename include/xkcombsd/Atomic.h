// Atomic counters: every reference count and module count changes through these.
#pragma once

#include <windows.h>

namespace xk {

inline LONG AtomicIncrement(LONG* value) { return InterlockedIncrement(value); }
inline LONG AtomicDecrement(LONG* value) { return InterlockedDecrement(value); }

}  // namespace xk
