// Interface references: add and release one reference, and the holder that owns
// exactly one for its lifetime, so every failure path releases what it took.
#pragma once

#include <unknwn.h>
#include <xkcombsd/XKAssert.h>

namespace xk {

template <class T>
void AddRefItf(T* p) {
  if (Verify(NULL != p, {"MLRelItf", 112, "NULL != p"})) p->AddRef();
}

template <class T>
void ReleaseItf(T* p) {
  if (Verify(NULL != p, {"MLRelItf", 121, "NULL != p"})) p->Release();
}

template <class T>
class MLRelItf {
 public:
  MLRelItf() = default;
  // Takes p; with addRef the holder adds its own reference, else it adopts the caller's.
  MLRelItf(T* p, bool addRef) : m_p(p) {
    if (m_p && addRef) AddRefItf(m_p);
  }
  ~MLRelItf() { Reset(); }
  MLRelItf(const MLRelItf&) = delete;
  MLRelItf& operator=(const MLRelItf&) = delete;
  MLRelItf(MLRelItf&& other) noexcept : m_p(other.Detach()) {}

  // The held interface; asking for one that is not there is a broken contract.
  T* get() const {
    Verify(NULL != m_p, {"MLRelItf", 676, "NULL != m_p"});
    return m_p;
  }
  T* operator->() const { return get(); }
  T* raw() const { return m_p; }
  explicit operator bool() const { return m_p != nullptr; }

  // For out-parameters: lets go of the current interface first.
  T** put() {
    Reset();
    return &m_p;
  }
  void** put_void() { return reinterpret_cast<void**>(put()); }

  T* Detach() {
    T* p = m_p;
    m_p = nullptr;
    return p;
  }
  void Reset() {
    if (m_p) ReleaseItf(Detach());
  }

 private:
  T* m_p = nullptr;
};

}  // namespace xk
