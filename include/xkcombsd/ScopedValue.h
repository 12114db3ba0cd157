// Owners of one platform value each: a BSTR, a task-allocator block, a
// global-memory block (fixed or moveable), a VARIANT, a file handle.
// One template serves them all; a traits struct says what "empty" is and how the
// value is let go, so a failure path frees exactly what the success path would
// have handed out.
#pragma once

#include <objbase.h>
#include <oleauto.h>

namespace xk {

template <class Traits>
class ScopedValue {
 public:
  using Type = typename Traits::Type;

  ScopedValue() : m_value(Traits::Empty()) {}
  explicit ScopedValue(Type value) : m_value(value) {}
  ~ScopedValue() { Traits::Destroy(m_value); }
  ScopedValue(const ScopedValue&) = delete;
  ScopedValue& operator=(const ScopedValue&) = delete;

  Type& get() { return m_value; }
  const Type& get() const { return m_value; }
  // For out-parameters: lets go of the current value first.
  Type* put() {
    Reset();
    return &m_value;
  }
  // Hands the value to the caller, who owns it from now on.
  Type Detach() {
    Type value = m_value;
    m_value = Traits::Empty();
    return value;
  }
  void Reset() {
    Traits::Destroy(m_value);
    m_value = Traits::Empty();
  }

 private:
  Type m_value;
};

struct BstrTraits {
  using Type = BSTR;
  static BSTR Empty() { return nullptr; }
  static void Destroy(BSTR value) { SysFreeString(value); }
};

template <class T>
struct TaskMemoryTraits {
  using Type = T*;
  static T* Empty() { return nullptr; }
  static void Destroy(T* value) { CoTaskMemFree(value); }
};

// A global-memory block: fixed, seen as T*, or moveable (T = void, the HGLOBAL).
template <class T = void>
struct GlobalMemoryTraits {
  using Type = T*;
  static T* Empty() { return nullptr; }
  static void Destroy(T* value) {
    if (value) GlobalFree(value);
  }
};

struct VariantTraits {
  using Type = VARIANT;
  static VARIANT Empty() {
    VARIANT value = {};
    VariantInit(&value);
    return value;
  }
  static void Destroy(VARIANT& value) { VariantClear(&value); }
};

struct FileHandleTraits {
  using Type = HANDLE;
  static HANDLE Empty() { return INVALID_HANDLE_VALUE; }
  static void Destroy(HANDLE file) {
    if (file != INVALID_HANDLE_VALUE) CloseHandle(file);
  }
};

using ScopedBstr = ScopedValue<BstrTraits>;
using ScopedGlobal = ScopedValue<GlobalMemoryTraits<>>;
using ScopedFile = ScopedValue<FileHandleTraits>;
template <class T>
using ScopedTaskMemory = ScopedValue<TaskMemoryTraits<T>>;
using ScopedVariant = ScopedValue<VariantTraits>;
template <class T>
using ScopedGlobalMemory = ScopedValue<GlobalMemoryTraits<T>>;

}  // namespace xk
