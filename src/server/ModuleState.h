// Module state: what the entry point sets up at process attach and tears down
// at detach, and the two counts behind DllCanUnloadNow.
#pragma once

#include <windows.h>
#include <xkcombsd/MLLock.h>
#include <xkcombsd/MWCrtSct.h>

namespace xk::server {

// Zero until process attach; written only at attach and detach, apart from
// the two counts, which change atomically.
struct ModuleState {
  HINSTANCE instance;
  CRITICAL_SECTION lock;   // serialises DllGetClassObject and DllCanUnloadNow
  LONG lockCount;          // (atomic) LockServer of the class objects
  LONG objectCount;        // (atomic) objects made through a class object
  DWORD classObjectCookie; // EnumUnknown's registration at attach; 0 = none
  BOOL comInitialised;     // the attach-time CoInitialize succeeded
  char path[MAX_PATH];     // the library's own file, printed in attach/detach lines
};

extern ModuleState g_module;

inline LONG* LockCount() { return &g_module.lockCount; }
inline LONG* ObjectCount() { return &g_module.objectCount; }

// Holds the module critical section for a scope.
class ModuleLock {
 public:
  ModuleLock() : m_ref(&g_module.lock), m_guard(&m_ref) {}

 private:
  CriticalSectionRef m_ref;
  MLLock<CriticalSectionRef> m_guard;
};

// S_FALSE while a LockServer lock or an object made through a class object is
// alive, else S_OK; read under the module critical section.
HRESULT CanUnloadNow();

// Writes the trace line of one entry-point call; returns the module path buffer.
char* TraceModuleEvent(const char* moduleName, HINSTANCE hinst, DWORD reason, LPVOID reserved,
                       void* preferredBase);

}  // namespace xk::server
