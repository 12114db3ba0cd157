// auto_buffer<T, N>: an array of a size fixed at construction that keeps up to
// N elements inside itself and takes larger sizes from the global heap, so that
// the common, short case costs no allocation. Elements are raw storage: no
// constructors or destructors run on them.
//
// Broken invariants are reported (source "auto_buffer") and the object carries
// on. A heap request that cannot be met leaves the buffer empty (NULL storage,
// no elements) but still marked external; callers treat empty() as a failed
// allocation.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <windows.h>
#include <xkcombsd/XKAssert.h>

#include <type_traits>

namespace xk {

template <class T, size_t N>
class auto_buffer {
  static_assert(N > 0, "an auto_buffer holds at least one element inside");
  static_assert(std::is_trivially_default_constructible<T>::value &&
                    std::is_trivially_destructible<T>::value,
                "auto_buffer elements are raw storage");

 public:
  typedef T value_type;
  typedef size_t size_type;

  explicit auto_buffer(size_type cItems)
      : m_buffer(cItems <= N ? &m_internal[0] : allocate_(cItems)),
        m_cItems(m_buffer ? cItems : 0),
        m_bExternal(cItems > N) {
    Verify(static_cast<void const*>(&m_buffer) < static_cast<void const*>(&m_cItems),
           {"auto_buffer", 577,
            "(\"m_buffer must be before m_cItems in the auto_buffer definition\", "
            "static_cast<void const*>(&m_buffer) < static_cast<void const*>(&m_cItems))"});
    Verify(is_valid(), {"auto_buffer", 590, "is_valid()"});
  }

  ~auto_buffer() {
    Verify(is_valid(), {"auto_buffer", 603, "is_valid()"});
    if (is_external()) {
      Verify(0 != m_buffer, {"auto_buffer", 607, "0 != m_buffer"});
      Verify(m_bExternal, {"auto_buffer", 608, "m_bExternal"});
      Verify(&m_internal[0] != m_buffer, {"auto_buffer", 609, "&m_internal[0] != m_buffer"});
      free_(m_buffer);
    }
  }

  auto_buffer(const auto_buffer&) = delete;
  auto_buffer& operator=(const auto_buffer&) = delete;

  // The address of element index; index may equal size(), giving the end.
  T* address_of(size_type index) {
    Verify(index <= m_cItems,
           {"auto_buffer", 851, "(\"Index is out of bounds\", index <= m_cItems)"});
    Verify(is_valid(), {"auto_buffer", 853, "is_valid()"});
    return m_buffer + index;
  }
  T& operator[](size_type index) { return *address_of(index); }
  T* data() { return address_of(0); }
  T* begin() { return address_of(0); }
  T* end() { return address_of(m_cItems); }

  size_type size() const {
    Verify(is_valid(), {"auto_buffer", 1044, "is_valid()"});
    return m_cItems;
  }
  bool empty() const {
    Verify(is_valid(), {"auto_buffer", 1061, "is_valid()"});
    return 0 == m_cItems;
  }

  // Whether the storage was taken from the heap.
  bool is_external() const {
    const size_type space = N;
    Verify((m_buffer != &m_internal[0]) == m_bExternal,
           {"auto_buffer", 630, "(m_buffer != &m_internal[0]) == m_bExternal"});
    Verify(m_bExternal || !(space < m_cItems),
           {"auto_buffer", 631, "m_bExternal || !(space < m_cItems)"});
    return m_bExternal;
  }

  // More than N elements only on the heap; external exactly when not inside.
  bool is_valid() const {
    if (m_cItems > N && !m_bExternal) return false;
    return m_bExternal == (m_buffer != &m_internal[0]);
  }

 private:
  // NULL when the size cannot be expressed or the heap refuses it.
  static T* allocate_(size_type cItems) {
    if (cItems > SIZE_MAX / sizeof(T)) return nullptr;
    return static_cast<T*>(GlobalAlloc(GMEM_FIXED, cItems * sizeof(T)));
  }
  static void free_(T* p) {
    if (Verify(0 != p, {"auto_buffer", 510, "0 != p"})) GlobalFree(p);
  }

  T* m_buffer;         // the elements in use: m_internal or a heap block
  size_type m_cItems;  // read-only after construction
  bool m_bExternal;    // read-only after construction
  T m_internal[N];
};

}  // namespace xk
