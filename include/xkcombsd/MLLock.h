// Scoped lock guard: locks on construction, unlocks on destruction.
#pragma once

#include <xkcombsd/XKAssert.h>

namespace xk {

template <class Lockable>
class MLLock {
 public:
  explicit MLLock(Lockable* pt) : m_pt(pt) {
    if (Verify(m_pt != nullptr, {"MLLock", 261, "m_pt != NULL"})) m_pt->Lock();
  }
  ~MLLock() {
    if (m_pt) m_pt->Unlock();
  }
  MLLock(const MLLock&) = delete;
  MLLock& operator=(const MLLock&) = delete;

 private:
  Lockable* m_pt;
};

}  // namespace xk
