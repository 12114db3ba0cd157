// Every strings test watches the task allocator (BSTRs included) and the
// debugger output: at its end nothing it allocated may be left and no contract
// report may be unexpected. A test that expects reports checks and clears them.
#pragma once

#include <gmock/gmock.h>
#include <windows.h>
#include <ole2.h>

#include <string>

#include "DebugOutput.h"
#include "MallocSpy.h"

namespace xktest {

class StringsTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(spy.Registered()); }
  void TearDown() override {
    EXPECT_EQ(0, spy.Outstanding()) << "task blocks (BSTRs included) left behind";
    EXPECT_THAT(capture.Assertions(), ::testing::IsEmpty());
  }

  MallocSpy spy;
  DebugOutputCapture capture;
};

// The characters of a BSTR by its own length, embedded zeros included.
inline std::wstring Chars(BSTR b) { return b ? std::wstring(b, SysStringLen(b)) : std::wstring(); }

// ASCII text as wide characters, one for one.
inline std::wstring Widened(const std::string& ascii) { return std::wstring(ascii.begin(), ascii.end()); }

// What the platform makes of narrow text in the ANSI code page.
inline std::wstring FromAnsi(const std::string& text) {
  std::wstring wide(text.size(), L'\0');
  const int n = MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()),
                                    &wide[0], static_cast<int>(wide.size()));
  wide.resize(n);
  return wide;
}

inline std::string ToAnsi(const std::wstring& text) {
  std::string narrow(text.size() * 2, '\0');
  const int n = WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()),
                                    &narrow[0], static_cast<int>(narrow.size()), nullptr, nullptr);
  narrow.resize(n);
  return narrow;
}

}  // namespace xktest
