// Attach and detach of the library, watched from outside: an explicit load in
// this process that finds its linked address taken, and a static load in a
// child process run under the debugging interface.
#include <gmock/gmock.h>

#include <cstdio>

#include "DebugOutput.h"

namespace {

constexpr ULONG_PTR kLinkedBase = 0x6A400000;

std::string LoadLine(const char* word, const char* kind, const std::string& path,
                     const std::string& suffix = "") {
  return std::string("XKComBsD.dll - ") + word + " (" + kind + ") \"" + path + "\"" + suffix + "\n";
}

// Every line of a load and unload, in order; the services start and stop once.
std::vector<std::string> LifetimeLines(const char* kind, const std::string& path) {
  return {LoadLine("initializing", kind, path), "XKCmnBaD: services started (1)\n",
          "XKCmnBaD: COM work begins\n",        "XKCmnBaD: COM work ends\n",
          LoadLine("terminating", kind, path),  "XKCmnBaD: COM work begins\n",
          "XKCmnBaD: COM work ends\n",          "XKCmnBaD: services stopped (0)\n"};
}

// Loads and frees the library explicitly; its address and path.
std::pair<ULONG_PTR, std::string> LoadAndFree() {
  HMODULE module = LoadLibraryW(L"XKComBsD.dll");
  if (!module) return {0, ""};
  char path[MAX_PATH];
  std::string text(path, GetModuleFileNameA(module, path, MAX_PATH));
  EXPECT_TRUE(FreeLibrary(module));
  return {reinterpret_cast<ULONG_PTR>(module), text};
}

}  // namespace

TEST(ModuleLifetime, ExplicitLoadAwayFromTheLinkedBaseTracesEveryStepAndWarnsWithBothAddresses) {
  // Taking the linked address first forces the loader to relocate the library.
  void* taken =
      VirtualAlloc(reinterpret_cast<void*>(kLinkedBase), 0x10000, MEM_RESERVE, PAGE_NOACCESS);
  ASSERT_EQ(kLinkedBase, reinterpret_cast<ULONG_PTR>(taken));
  xktest::DebugOutputCapture capture;
  const auto [address, path] = LoadAndFree();
  VirtualFree(taken, 0, MEM_RELEASE);
  ASSERT_NE(0u, address);
  ASSERT_NE(kLinkedBase, address);
  ASSERT_LT(address, 0x100000000ull) << "the relocated address has more than eight digits";
  char relocated[64];
  std::snprintf(relocated, sizeof relocated, " - WARNING: relocated from 0x6a400000 => 0x%08lx",
                static_cast<unsigned long>(address));
  std::vector<std::string> expected = LifetimeLines("explicit", path);
  expected.front() = LoadLine("initializing", "explicit", path, relocated);  // none at detach
  EXPECT_EQ(expected, capture.Lines());
}

TEST(ModuleLifetime, StaticLoadTracesImplicitAttachBeforeMainAndDetachAtExit) {
  const std::wstring probe = xktest::ExecutableDirectoryW() + L"\\module_probe.exe";
  const xktest::DebuggeeRun run = xktest::RunUnderDebugger(L"\"" + probe + L"\"", 60000);
  ASSERT_TRUE(run.finished);
  EXPECT_EQ(0u, run.exitCode);
  std::vector<std::string> family;  // the library family's own lines
  for (const std::string& line : run.output)
    if (line.rfind("XK", 0) == 0) family.push_back(line);
  EXPECT_EQ(LifetimeLines("implicit", xktest::ExecutableDirectoryA() + "\\XKComBsD.dll"), family);
}
