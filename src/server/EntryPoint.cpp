// The library's entry point and module-wide answers: process attach and detach
// in their fixed order with a trace line for every call, DllCanUnloadNow, the
// version queries and the general interface probe.
#include "server/ModuleState.h"

#include <XKCmnBaD.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/LateBound.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/Module.h>

#include "frame/Diagnostics.h"

namespace xk::server {

namespace {

constexpr char kModuleName[] = "XKComBsD.dll";
constexpr char kLoadLineFormat[] = "%s - %s (%s) \"%s\"%s\n";
constexpr char kThreadLineFormat[] = "%s - %s (0x%08x)\n";
constexpr int kSuffixChars = 201;

constexpr DLLVERSIONINFO kVersion = {20, 1, 27, 401, DLLVER_PLATFORM_WINDOWS};
static_assert(sizeof(DLLVERSIONINFO) == 20, "the version record is five 32-bit fields");

void* LinkedBase() { return reinterpret_cast<void*>(static_cast<ULONG_PTR>(XK_LINKED_BASE)); }

DWORD HighHalf(ULONG_PTR address) {
  return static_cast<DWORD>(static_cast<unsigned long long>(address) >> 32);
}

// An address as "0x" and at least eight hex digits: a 64-bit address above 4 GiB
// keeps its upper digits instead of being cut to its low half.
void FormatAddress(char* out, const void* address) {
  const ULONG_PTR value = reinterpret_cast<ULONG_PTR>(address);
  const DWORD low = static_cast<DWORD>(value);
  if (HighHalf(value))
    LB_wsprintfA(out, "0x%x%08x", HighHalf(value), low);
  else
    LB_wsprintfA(out, "0x%08x", low);
}

void FormatRelocationWarning(char* suffix, const void* preferred, const void* actual) {
  const ULONG_PTR from = reinterpret_cast<ULONG_PTR>(preferred);
  const ULONG_PTR to = reinterpret_cast<ULONG_PTR>(actual);
  if (!HighHalf(from) && !HighHalf(to)) {
    LB_wsprintfA(suffix, " - WARNING: relocated from 0x%08x => 0x%08x", static_cast<DWORD>(from),
                 static_cast<DWORD>(to));
    return;
  }
  char fromText[24], toText[24];
  FormatAddress(fromText, preferred);
  FormatAddress(toText, actual);
  LB_wsprintfA(suffix, " - WARNING: relocated from %s => %s", fromText, toText);
}

// Registering a local-server class object makes the COM runtime start its RPC
// server. Wine's runtime starts a server thread and waits for it, and that
// thread cannot start while DllMain holds the loader lock: the load would never
// return. There the registration is treated as failed (cookie 0), which the
// entry point already tolerates; everywhere else it is made as specified.
bool CanRegisterLocalServerUnderLoaderLock() {
  const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  return !(ntdll && GetProcAddress(ntdll, "wine_get_version"));
}

void OnProcessAttach(HINSTANCE hinst) {
  g_module.instance = hinst;
  DisableThreadLibraryCalls(hinst);
  InitializeCriticalSection(&g_module.lock);
  XKCmnBaD_StartServices();
  XKCmnBaD_BracketComWork(1);

  IUnknown* factory = nullptr;
  const HRESULT found = DllGetClassObject(CLSID_QvEnumUnknown, IID_IUnknown,
                                          reinterpret_cast<void**>(&factory));
  g_module.comInitialised = SUCCEEDED(CoInitialize(nullptr));
  if (SUCCEEDED(found)) {
    MLRelItf<IUnknown> held(factory, false);
    if (!CanRegisterLocalServerUnderLoaderLock() ||
        FAILED(CoRegisterClassObject(CLSID_QvEnumUnknown, held.get(), CLSCTX_LOCAL_SERVER,
                                     REGCLS_MULTIPLEUSE, &g_module.classObjectCookie)))
      g_module.classObjectCookie = 0;
  }

  XKCmnBaD_BracketComWork(0);
}

void OnProcessDetach() {
  XKCmnBaD_BracketComWork(1);
  if (g_module.classObjectCookie) {
    CoRevokeClassObject(g_module.classObjectCookie);
    // Only a registered class object balances the attach-time CoInitialize here.
    if (g_module.comInitialised) CoUninitialize();
  }
  XKCmnBaD_BracketComWork(0);
  XKCmnBaD_StopServices();
  DeleteCriticalSection(&g_module.lock);
}

}  // namespace

char* TraceModuleEvent(const char* moduleName, HINSTANCE hinst, DWORD reason, LPVOID reserved,
                       void* preferredBase) {
  const char* loadKind = reserved ? "implicit" : "explicit";
  char suffix[kSuffixChars];
  suffix[0] = '\0';

  switch (reason) {
    case DLL_PROCESS_DETACH:
      DebugTraceA(kLoadLineFormat, moduleName, "terminating", loadKind, g_module.path, suffix);
      break;
    case DLL_PROCESS_ATTACH:
      GetModuleFileNameA(hinst, g_module.path, MAX_PATH);
      if (static_cast<void*>(hinst) != preferredBase)
        FormatRelocationWarning(suffix, preferredBase, hinst);
      DebugTraceA(kLoadLineFormat, moduleName, "initializing", loadKind, g_module.path, suffix);
      break;
    case DLL_THREAD_ATTACH:
      DebugTraceA(kThreadLineFormat, moduleName, "thread attaching", GetCurrentThreadId());
      break;
    case DLL_THREAD_DETACH:
      DebugTraceA(kThreadLineFormat, moduleName, "thread detaching", GetCurrentThreadId());
      break;
    default:
      DebugTraceA("");  // an unknown reason writes nothing visible
      break;
  }
  return g_module.path;
}

}  // namespace xk::server

using namespace xk::server;

// ---- DllMain: process attach and detach in their fixed order -----------------
extern "C" BOOL WINAPI DllMain(HINSTANCE hinst, DWORD reason, LPVOID reserved) {
  TraceModuleEvent(kModuleName, hinst, reason, reserved, LinkedBase());
  if (reason == DLL_PROCESS_ATTACH)
    OnProcessAttach(hinst);
  else if (reason == DLL_PROCESS_DETACH)
    OnProcessDetach();
  return TRUE;  // nothing that fails in here changes the answer
}

// ---- DllCanUnloadNow ---------------------------------------------------------
extern "C" HRESULT WINAPI DllCanUnloadNow() { return CanUnloadNow(); }

// ---- DllGetVersion -----------------------------------------------------------
extern "C" HRESULT WINAPI DllGetVersion(DLLVERSIONINFO* pdvi) {
  if (!pdvi) return E_POINTER;
  if (pdvi->cbSize != kVersion.cbSize) return E_INVALIDARG;
  *pdvi = kVersion;
  return S_OK;
}

// ---- QvDllGetVersion ---------------------------------------------------------
extern "C" DWORD WINAPI QvDllGetVersion(DWORD* pdwLow) {
  if (pdwLow) *pdwLow = QV_DLLVERSION_LOW;
  return QV_DLLVERSION_HIGH;
}

// ---- InterfaceIsImplemented --------------------------------------------------
extern "C" HRESULT WINAPI InterfaceIsImplemented(IUnknown* punk, REFIID riid) {
  if (!punk) return E_POINTER;
  void* obtained = nullptr;
  // The callee's own failure code is deliberately not passed on.
  if (FAILED(punk->QueryInterface(riid, &obtained))) return E_NOINTERFACE;
  xk::MLRelItf<IUnknown> release(static_cast<IUnknown*>(obtained), false);
  return S_OK;
}
