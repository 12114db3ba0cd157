// A test that runs inside a COM apartment and ends with none of the task
// allocator's blocks it made still outstanding (BSTRs included).
#pragma once

#include <gtest/gtest.h>
#include <objbase.h>

#include "MallocSpy.h"

namespace xktest {

template <DWORD Apartment = COINIT_APARTMENTTHREADED>
class ComTest : public ::testing::Test {
 protected:
  void SetUp() override { CoInitializeEx(nullptr, Apartment); }
  void TearDown() override {
    EXPECT_EQ(0, spy.Outstanding());
    CoUninitialize();
  }

  MallocSpy spy;
};

}  // namespace xktest
