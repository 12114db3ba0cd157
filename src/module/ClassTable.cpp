// DllGetClassObject: the class table is searched under the module critical
// section. No class is served yet, so every identifier is unknown; the entry
// point then skips its attach-time class-object registration.
#include <xkcombsd/Module.h>

#include "Module.h"

// ---- DllGetClassObject -------------------------------------------------------
extern "C" HRESULT WINAPI DllGetClassObject(REFCLSID, REFIID, void** ppv) {
  xk::module::ModuleLock lock;
  if (!ppv) return E_POINTER;
  return CLASS_E_CLASSNOTAVAILABLE;  // *ppv stays as the caller left it
}
