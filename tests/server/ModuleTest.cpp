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

TEST(ModuleAnswers, VersionsAndInterfaceQuestionsLeaveARefusedRecordAndEveryCountUntouched) {
  DLLVERSIONINFO fits, tooBig;
  std::memset(&fits, 0xAB, sizeof fits), std::memset(&tooBig, 0xAB, sizeof tooBig);
  fits.cbSize = 20, tooBig.cbSize = 24;
  xktest::FakeUnknown refusing(IID_IUnknown, E_UNEXPECTED), stream(IID_IStream);
  const HRESULT rows[][2] = {{S_OK, DllGetVersion(&fits)},
                             {E_INVALIDARG, DllGetVersion(&tooBig)},
                             {S_OK, InterfaceIsImplemented(&stream, IID_IStream)},
                             {E_NOINTERFACE, InterfaceIsImplemented(&refusing, IID_IStream)}};
  for (const auto& row : rows) EXPECT_HR(row[0], row[1]) << "row " << &row - rows;
  EXPECT_THAT((std::vector<DWORD>{fits.cbSize, fits.dwMajorVersion, fits.dwMinorVersion,
                                  fits.dwBuildNumber, fits.dwPlatformID, tooBig.cbSize,
                                  tooBig.dwMajorVersion, tooBig.dwPlatformID}),
              ElementsAre(20u, 1u, 27u, 401u, DWORD{DLLVER_PLATFORM_WINDOWS}, 24u, 0xABABABABu,
                          0xABABABABu));
  EXPECT_THAT((std::vector<long>{refusing.queries, refusing.refs, stream.refs}),
              ElementsAre(1, 1, 1));
  DWORD low = 0xDEADBEEF;
  EXPECT_EQ(0x0001001Bu, QvDllGetVersion(&low));
  EXPECT_EQ(0x00010191u, low);
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
