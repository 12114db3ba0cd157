// The module's own answers, as a client linked to the library sees them.
#include <gmock/gmock.h>

#include <cstdio>
#include <cstring>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>

#include "DebugOutput.h"
#include "FakeUnknown.h"
#include "HResult.h"

using ::testing::ElementsAre;
using xktest::DebugOutputCapture;
using xktest::FakeUnknown;

namespace {

HMODULE Library() { return GetModuleHandleW(L"XKComBsD.dll"); }

using DllMainFn = BOOL(WINAPI*)(HINSTANCE, DWORD, LPVOID);
DllMainFn ExportedDllMain() {
  return reinterpret_cast<DllMainFn>(reinterpret_cast<void*>(GetProcAddress(Library(), "DllMain")));
}

std::string ThreadLine(const char* word) {
  char text[96];
  std::snprintf(text, sizeof text, "XKComBsD.dll - %s (0x%08lx)\n", word, GetCurrentThreadId());
  return text;
}

}  // namespace

TEST(DllGetVersion, CopiesTheVersionRecordOnlyForItsOwnSize) {
  EXPECT_HR(E_POINTER, DllGetVersion(nullptr));

  DLLVERSIONINFO larger;
  std::memset(&larger, 0xAB, sizeof larger);
  larger.cbSize = 24;
  EXPECT_HR(E_INVALIDARG, DllGetVersion(&larger));
  EXPECT_EQ(24u, larger.cbSize);
  EXPECT_EQ(0xABABABABu, larger.dwMajorVersion) << "a refused record must stay untouched";
  EXPECT_EQ(0xABABABABu, larger.dwPlatformID);

  DLLVERSIONINFO info;
  std::memset(&info, 0xAB, sizeof info);
  info.cbSize = 20;
  EXPECT_HR(S_OK, DllGetVersion(&info));
  EXPECT_EQ(20u, info.cbSize);
  EXPECT_EQ(1u, info.dwMajorVersion);
  EXPECT_EQ(27u, info.dwMinorVersion);
  EXPECT_EQ(401u, info.dwBuildNumber);
  EXPECT_EQ(static_cast<DWORD>(DLLVER_PLATFORM_WINDOWS), info.dwPlatformID);
}

TEST(QvDllGetVersion, ReturnsTheHighHalfAndWritesTheLowHalfOnlyWhenAsked) {
  EXPECT_EQ(0x0001001Bu, QvDllGetVersion(nullptr));
  DWORD low = 0xDEADBEEF;
  EXPECT_EQ(0x0001001Bu, QvDllGetVersion(&low));
  EXPECT_EQ(0x00010191u, low);
}

TEST(InterfaceIsImplemented, AnswersOnlyWhetherAndReleasesWhatItObtained) {
  EXPECT_HR(E_POINTER, InterfaceIsImplemented(nullptr, IID_IUnknown));

  FakeUnknown refusing(IID_IUnknown, E_UNEXPECTED);
  EXPECT_HR(E_NOINTERFACE, InterfaceIsImplemented(&refusing, IID_IStream))
      << "the callee's own failure code is not passed on";
  EXPECT_EQ(1, refusing.queries);
  EXPECT_EQ(1, refusing.refs);

  FakeUnknown stream(IID_IStream);
  EXPECT_HR(S_OK, InterfaceIsImplemented(&stream, IID_IStream));
  EXPECT_EQ(1, stream.refs) << "the interface obtained must be released again";
}

TEST(DllCanUnloadNow, AnswersOkWithNoLockAndNoObject) { EXPECT_HR(S_OK, DllCanUnloadNow()); }

TEST(DllGetClassObject, UnknownClassLeavesTheOutPointerAlone) {
  void* sentinel = reinterpret_cast<void*>(0xDEADBEEF);
  void* out = sentinel;
  const CLSID unknown = {0x12345678, 0x1234, 0x1234, {1, 2, 3, 4, 5, 6, 7, 8}};
  EXPECT_HR(CLASS_E_CLASSNOTAVAILABLE, DllGetClassObject(unknown, IID_IClassFactory, &out));
  EXPECT_EQ(sentinel, out);
  EXPECT_HR(E_POINTER, DllGetClassObject(unknown, IID_IClassFactory, nullptr));
}

TEST(DllMain, ThreadReasonsTraceTheThreadAndUnknownReasonsNothingVisible) {
  DllMainFn entry = ExportedDllMain();
  ASSERT_NE(nullptr, entry);

  DebugOutputCapture capture;
  EXPECT_TRUE(entry(Library(), DLL_THREAD_ATTACH, nullptr));
  EXPECT_TRUE(entry(Library(), DLL_THREAD_DETACH, reinterpret_cast<void*>(1)));
  EXPECT_TRUE(entry(Library(), 7, nullptr));
  EXPECT_THAT(capture.Lines(), ElementsAre(ThreadLine("thread attaching"),
                                           ThreadLine("thread detaching"), ""));
}
