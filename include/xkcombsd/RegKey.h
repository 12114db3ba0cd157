// Registry keys: the owner of one opened or created key, which closes it
// through the late-bound entry point, so every path out of a function closes
// exactly the keys it opened. Predefined root keys are never given to one.
#pragma once

#include <xkcombsd/LateBound.h>
#include <xkcombsd/ScopedValue.h>

namespace xk {

struct RegKeyTraits {
  using Type = HKEY;
  static HKEY Empty() { return nullptr; }
  static void Destroy(HKEY key) {
    if (key) LB_RegCloseKey(key);
  }
};

using RegKey = ScopedValue<RegKeyTraits>;

}  // namespace xk
