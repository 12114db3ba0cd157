// Locks an object can own: the recursive critical-section lock of the
// free-threaded forms, and the empty lock of the single-threaded forms, which
// are the same classes instantiated with a different policy.
#pragma once

#include <windows.h>

namespace xk {

// Re-entrant: the platform's critical section keeps the owning thread and a
// recursion count, so a method holding it may call another that takes it again.
class CriticalSectionLock {
 public:
  CriticalSectionLock() { InitializeCriticalSection(&m_cs); }
  ~CriticalSectionLock() { DeleteCriticalSection(&m_cs); }
  CriticalSectionLock(const CriticalSectionLock&) = delete;
  CriticalSectionLock& operator=(const CriticalSectionLock&) = delete;

  void Lock() { EnterCriticalSection(&m_cs); }
  void Unlock() { LeaveCriticalSection(&m_cs); }

 private:
  CRITICAL_SECTION m_cs;
};

// A lockable view of a critical section whose lifetime is managed elsewhere
// (the module's own, initialised at process attach rather than by a constructor).
class CriticalSectionRef {
 public:
  explicit CriticalSectionRef(CRITICAL_SECTION* cs) : m_cs(cs) {}
  void Lock() { EnterCriticalSection(m_cs); }
  void Unlock() { LeaveCriticalSection(m_cs); }

 private:
  CRITICAL_SECTION* m_cs;
};

class NoLock {
 public:
  void Lock() {}
  void Unlock() {}
};

}  // namespace xk
