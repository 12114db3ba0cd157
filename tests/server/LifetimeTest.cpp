// Attach and detach of the library, watched from outside: an explicit load in
// this process, a load that finds its linked address taken, and a static load
// in a child process run under the debugging interface.
#include <gmock/gmock.h>

#include <cstdio>
#include <cstring>

#include "DebugOutput.h"

using ::testing::ElementsAre;
using xktest::DebugOutputCapture;

namespace {

constexpr ULONG_PTR kLinkedBase = 0x6A400000;

std::string PathOf(HMODULE module) {
  char path[MAX_PATH];
  return std::string(path, GetModuleFileNameA(module, path, MAX_PATH));
}

std::string LoadLine(const char* word, const char* kind, const std::string& path,
                     const std::string& suffix = "") {
  return std::string("XKComBsD.dll - ") + word + " (" + kind + ") \"" + path + "\"" + suffix + "\n";
}

std::string Hex8(ULONG_PTR value) {
  char text[32];
  std::snprintf(text, sizeof text, "0x%08lx", static_cast<unsigned long>(value));
  return text;
}

std::vector<std::string> FamilyLines(const std::vector<std::string>& lines) {
  std::vector<std::string> family;
  for (const std::string& line : lines)
    if (line.rfind("XK", 0) == 0) family.push_back(line);
  return family;
}

}  // namespace

TEST(ModuleLifetime, ExplicitLoadAndUnloadTraceEveryStepInOrder) {
  DebugOutputCapture capture;
  HMODULE module = LoadLibraryW(L"XKComBsD.dll");
  ASSERT_NE(nullptr, module);
  EXPECT_EQ(kLinkedBase, reinterpret_cast<ULONG_PTR>(module));
  const std::string path = PathOf(module);
  ASSERT_TRUE(FreeLibrary(module));

  EXPECT_THAT(capture.Lines(),
              ElementsAre(LoadLine("initializing", "explicit", path),
                          "XKCmnBaD: services started (1)\n", "XKCmnBaD: COM work begins\n",
                          "XKCmnBaD: COM work ends\n", LoadLine("terminating", "explicit", path),
                          "XKCmnBaD: COM work begins\n", "XKCmnBaD: COM work ends\n",
                          "XKCmnBaD: services stopped (0)\n"));
}

TEST(ModuleLifetime, LoadAwayFromTheLinkedBaseWarnsWithBothAddresses) {
  // Taking the linked address first forces the loader to relocate the library.
  void* taken = VirtualAlloc(reinterpret_cast<void*>(kLinkedBase), 0x10000, MEM_RESERVE,
                             PAGE_NOACCESS);
  ASSERT_EQ(kLinkedBase, reinterpret_cast<ULONG_PTR>(taken));

  DebugOutputCapture capture;
  HMODULE module = LoadLibraryW(L"XKComBsD.dll");
  ASSERT_NE(nullptr, module);
  const ULONG_PTR actual = reinterpret_cast<ULONG_PTR>(module);
  const std::string path = PathOf(module);
  ASSERT_TRUE(FreeLibrary(module));
  VirtualFree(taken, 0, MEM_RELEASE);

  ASSERT_NE(kLinkedBase, actual);
  ASSERT_LT(actual, 0x100000000ull) << "the relocated address has more than eight digits";
  const std::vector<std::string> lines = capture.Lines();
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(LoadLine("initializing", "explicit", path,
                     " - WARNING: relocated from 0x6a400000 => " + Hex8(actual)),
            lines.front());
  // Detach never carries the warning.
  EXPECT_THAT(lines, ::testing::Contains(LoadLine("terminating", "explicit", path)));
}

TEST(ModuleLifetime, StaticLoadTracesImplicitAttachBeforeMainAndDetachAtExit) {
  const std::wstring probe = xktest::ExecutableDirectoryW() + L"\\module_probe.exe";
  const xktest::DebuggeeRun run = xktest::RunUnderDebugger(L"\"" + probe + L"\"", 60000);
  ASSERT_TRUE(run.finished);
  EXPECT_EQ(0u, run.exitCode);

  const std::string path = xktest::ExecutableDirectoryA() + "\\XKComBsD.dll";
  EXPECT_THAT(FamilyLines(run.output),
              ElementsAre(LoadLine("initializing", "implicit", path),
                          "XKCmnBaD: services started (1)\n", "XKCmnBaD: COM work begins\n",
                          "XKCmnBaD: COM work ends\n", LoadLine("terminating", "implicit", path),
                          "XKCmnBaD: COM work begins\n", "XKCmnBaD: COM work ends\n",
                          "XKCmnBaD: services stopped (0)\n"));
}
