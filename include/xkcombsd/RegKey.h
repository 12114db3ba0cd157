// Registry keys: the holder that owns one opened or created key and closes it
// through the late-bound entry point, so every path out of a function closes
// exactly the keys it opened. Predefined root keys are never put in a holder.
#pragma once

#include <xkcombsd/LateBound.h>

namespace xk {

class RegKey {
 public:
  RegKey() = default;
  explicit RegKey(HKEY key) : m_key(key) {}
  ~RegKey() { Close(); }
  RegKey(const RegKey&) = delete;
  RegKey& operator=(const RegKey&) = delete;
  RegKey(RegKey&& other) noexcept : m_key(other.Detach()) {}

  HKEY get() const { return m_key; }
  explicit operator bool() const { return m_key != nullptr; }

  // For out-parameters: closes the current key first.
  HKEY* put() {
    Close();
    return &m_key;
  }
  HKEY Detach() {
    HKEY key = m_key;
    m_key = nullptr;
    return key;
  }
  void Close() {
    if (m_key) LB_RegCloseKey(Detach());
  }

 private:
  HKEY m_key = nullptr;
};

}  // namespace xk
