// Thread-model policies. Every class that exists in a locked and an unlocked
// form is one template over one of these: the count arithmetic and the lock
// are the only things that differ.
#pragma once

#include <xkcombsd/Atomic.h>
#include <xkcombsd/MWCrtSct.h>

namespace xk {

struct MultiThreaded {
  static LONG Increment(LONG* count) { return AtomicIncrement(count); }
  static LONG Decrement(LONG* count) { return AtomicDecrement(count); }
  using Lock = CriticalSectionLock;
  static constexpr DWORD kThreadingModel = 3;  // free: any thread, any time
};

struct SingleThreaded {
  static LONG Increment(LONG* count) { return ++*count; }
  static LONG Decrement(LONG* count) { return --*count; }
  using Lock = NoLock;
  static constexpr DWORD kThreadingModel = 0;  // one thread at a time
};

}  // namespace xk
