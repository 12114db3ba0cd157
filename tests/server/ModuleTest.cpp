// The module's own answers, as a client linked to the library sees them.
#include <gmock/gmock.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>

#include <cstdio>
#include <cstring>

#include "DebugOutput.h"
#include "FakeUnknown.h"
#include "HResult.h"

using ::testing::ElementsAre;

TEST(ModuleAnswers, VersionsFillTheRecordAndAnInterfaceQuestionKeepsNoReference) {
  DLLVERSIONINFO fits, tooBig = {24, 7};  // one field too many is no known record
  std::memset(&fits, 0xAB, sizeof fits);
  fits.cbSize = 20;
  EXPECT_HR(S_OK, DllGetVersion(&fits));
  EXPECT_THAT((std::vector<DWORD>{fits.cbSize, fits.dwMajorVersion, fits.dwMinorVersion,
                                  fits.dwBuildNumber, fits.dwPlatformID}),
              ElementsAre(20u, 1u, 27u, 401u, DWORD{DLLVER_PLATFORM_WINDOWS}));
  EXPECT_HR(E_INVALIDARG, DllGetVersion(&tooBig));
  EXPECT_EQ(7u, tooBig.dwMajorVersion);
  DWORD low = 0xDEADBEEF;
  EXPECT_EQ(0x0001001Bu, QvDllGetVersion(&low));
  EXPECT_EQ(0x00010191u, low);
  xktest::FakeUnknown stream(IID_IStream);
  EXPECT_HR(S_OK, InterfaceIsImplemented(&stream, IID_IStream));
  EXPECT_EQ(1, stream.refs);
}

TEST(DllMain, ThreadReasonsTraceTheThreadAndUnknownReasonsNothingVisible) {
  const HMODULE library = GetModuleHandleW(L"XKComBsD.dll");
  auto entry = reinterpret_cast<BOOL(WINAPI*)(HINSTANCE, DWORD, LPVOID)>(
      reinterpret_cast<void*>(GetProcAddress(library, "DllMain")));
  ASSERT_NE(nullptr, entry);
  xktest::DebugOutputCapture capture;
  EXPECT_TRUE(entry(library, DLL_THREAD_ATTACH, nullptr));
  EXPECT_TRUE(entry(library, DLL_THREAD_DETACH, reinterpret_cast<void*>(1)));
  EXPECT_TRUE(entry(library, 7, nullptr));
  char line[2][96];
  for (int i = 0; i < 2; ++i)
    std::snprintf(line[i], sizeof line[i], "XKComBsD.dll - thread %s (0x%08lx)\n",
                  i ? "detaching" : "attaching", GetCurrentThreadId());
  EXPECT_THAT(capture.Lines(), ElementsAre(line[0], line[1], ""));
}
