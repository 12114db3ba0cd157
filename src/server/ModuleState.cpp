// The module state and the answer it gives to DllCanUnloadNow. Kept apart from
// the entry point so that the library's own objects can be tested without it.
#include "server/ModuleState.h"

namespace xk::server {

ModuleState g_module;

HRESULT CanUnloadNow() {
  ModuleLock lock;
  return (g_module.lockCount >= 1 || g_module.objectCount >= 1) ? S_FALSE : S_OK;
}

}  // namespace xk::server
