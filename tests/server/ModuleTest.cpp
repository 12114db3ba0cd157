// The module's own answers, as a client linked to the library sees them.
#include <gmock/gmock.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>

#include <cstdio>
#include <cstring>

#include "DebugOutput.h"
#include "FakeUnknown.h"
#include "HResult.h"

using xktest::FakeUnknown;

namespace {

std::string ThreadLine(const char* word) {
  char text[96];
  std::snprintf(text, sizeof text, "XKComBsD.dll - %s (0x%08lx)\n", word, GetCurrentThreadId());
  return text;
}

}  // namespace

TEST(DllGetVersion, CopiesTheVersionRecordOnlyForItsOwnSize) {
  EXPECT_HR(E_POINTER, DllGetVersion(nullptr));
  DLLVERSIONINFO info;
  std::memset(&info, 0xAB, sizeof info);
  info.cbSize = 24;
  EXPECT_HR(E_INVALIDARG, DllGetVersion(&info));
  EXPECT_EQ(24u, info.cbSize);
  EXPECT_EQ(0xABABABABu, info.dwMajorVersion) << "a refused record must stay untouched";
  EXPECT_EQ(0xABABABABu, info.dwPlatformID);
  info.cbSize = 20;
  EXPECT_HR(S_OK, DllGetVersion(&info));
  EXPECT_EQ(20u, info.cbSize);
  EXPECT_EQ(1u, info.dwMajorVersion);
  EXPECT_EQ(27u, info.dwMinorVersion);
  EXPECT_EQ(401u, info.dwBuildNumber);
  EXPECT_EQ(static_cast<DWORD>(DLLVER_PLATFORM_WINDOWS), info.dwPlatformID);
  // The same version in two halves; the low one only when asked.
  DWORD low = 0xDEADBEEF;
  EXPECT_EQ(0x0001001Bu, QvDllGetVersion(nullptr));
  EXPECT_EQ(0x0001001Bu, QvDllGetVersion(&low));
  EXPECT_EQ(0x00010191u, low);
}

TEST(InterfaceIsImplemented, AnswersOnlyWhetherAndReleasesWhatItObtained) {
  EXPECT_HR(E_POINTER, InterfaceIsImplemented(nullptr, IID_IUnknown));
  FakeUnknown refusing(IID_IUnknown, E_UNEXPECTED), stream(IID_IStream);
  EXPECT_HR(E_NOINTERFACE, InterfaceIsImplemented(&refusing, IID_IStream))
      << "not the callee's own code";
  EXPECT_EQ(1, refusing.queries);
  EXPECT_EQ(1, refusing.refs);
  EXPECT_HR(S_OK, InterfaceIsImplemented(&stream, IID_IStream));
  EXPECT_EQ(1, stream.refs) << "the interface obtained must be released again";
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
  EXPECT_THAT(capture.Lines(), ::testing::ElementsAre(ThreadLine("thread attaching"),
                                                      ThreadLine("thread detaching"), ""));
}
