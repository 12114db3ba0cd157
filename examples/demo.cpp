// A client of XKComBsD, end to end: it loads the library, asks for its version
// and shows the trace lines the library and its base library write to the
// debugger output while it is loaded and unloaded.
#include <xkcombsd/Module.h>

#include <cstdio>
#include <string>

#include "DebugOutput.h"

namespace {

void ShowTrace(const xktest::DebugOutputCapture& capture, size_t* shown) {
  const std::vector<std::string> lines = capture.Lines();
  for (; *shown < lines.size(); ++*shown) std::printf("    | %s", lines[*shown].c_str());
}

template <typename Fn>
Fn Export(HMODULE library, const char* name) {
  return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

}  // namespace

int main() {
  xktest::DebugOutputCapture capture;
  size_t shown = 0;

  std::printf("Loading XKComBsD.dll; its debugger output:\n");
  HMODULE library = LoadLibraryW(L"XKComBsD.dll");
  ShowTrace(capture, &shown);
  if (!library) {
    std::printf("XKComBsD.dll could not be loaded (error %lu)\n", GetLastError());
    return 1;
  }

  auto getVersion = Export<decltype(&DllGetVersion)>(library, "DllGetVersion");
  auto qvGetVersion = Export<decltype(&QvDllGetVersion)>(library, "QvDllGetVersion");
  DLLVERSIONINFO info = {sizeof info};
  if (getVersion && SUCCEEDED(getVersion(&info)))
    std::printf("DllGetVersion:   %lu.%lu build %lu (platform %lu)\n", info.dwMajorVersion,
                info.dwMinorVersion, info.dwBuildNumber, info.dwPlatformID);
  if (qvGetVersion) {
    DWORD low = 0;
    const DWORD high = qvGetVersion(&low);
    std::printf("QvDllGetVersion: 0x%08lX 0x%08lX, file version %lu.%lu.%lu.%lu\n", high, low,
                HIWORD(high), LOWORD(high), HIWORD(low), LOWORD(low));
  }

  std::printf("Unloading XKComBsD.dll; its debugger output:\n");
  FreeLibrary(library);
  ShowTrace(capture, &shown);
  return 0;
}
