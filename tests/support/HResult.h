// HRESULTs are compared exactly and printed in hexadecimal.
#pragma once

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdio>

namespace xktest {

inline std::string HexOf(HRESULT hr) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08lX", static_cast<unsigned long>(hr));
  return text;
}

inline ::testing::AssertionResult HResultsEqual(const char* expectedText, const char* actualText,
                                                HRESULT expected, HRESULT actual) {
  if (expected == actual) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << actualText << " is " << HexOf(actual) << ", expected "
                                       << expectedText << " (" << HexOf(expected) << ")";
}

}  // namespace xktest

#define EXPECT_HR(expected, actual) EXPECT_PRED_FORMAT2(::xktest::HResultsEqual, expected, actual)
#define ASSERT_HR(expected, actual) ASSERT_PRED_FORMAT2(::xktest::HResultsEqual, expected, actual)
