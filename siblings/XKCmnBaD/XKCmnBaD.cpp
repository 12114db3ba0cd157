// XKCmnBaD: the smallest base library XKComBsD relies on. Everything it does is
// visible as debugger output, so a test can see the order in which a module
// starts and stops its services and which contracts it reports broken.
#include "XKCmnBaD.h"

namespace {
LONG g_serviceStarts;  // (atomic) balance of start-up and shut-down calls
}

extern "C" BOOL WINAPI DllMain(HINSTANCE hinst, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) DisableThreadLibraryCalls(hinst);
  return TRUE;
}

extern "C" void WINAPI XKCmnBaD_StartServices() {
  char line[64];
  wsprintfA(line, "XKCmnBaD: services started (%d)\n", InterlockedIncrement(&g_serviceStarts));
  OutputDebugStringA(line);
}

extern "C" void WINAPI XKCmnBaD_StopServices() {
  char line[64];
  wsprintfA(line, "XKCmnBaD: services stopped (%d)\n", InterlockedDecrement(&g_serviceStarts));
  OutputDebugStringA(line);
}

extern "C" void WINAPI XKCmnBaD_BracketComWork(int entering) {
  OutputDebugStringA(entering ? "XKCmnBaD: COM work begins\n" : "XKCmnBaD: COM work ends\n");
}

extern "C" void WINAPI XKCmnBaD_ReportAssertion(const char* file, int line, const char* expression) {
  // wsprintfA stops at 1024 characters; a longer report is cut, never overrun.
  char report[1025];
  wsprintfA(report, xkcmnbad::kAssertionFormat, file ? file : "?", line, expression ? expression : "?");
  OutputDebugStringA(report);
}

extern "C" DWORD WINAPI XKCmnBaD_CurrentThreadId() { return GetCurrentThreadId(); }
