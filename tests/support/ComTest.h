// A test that runs inside a COM apartment and ends with none of the task
// allocator's blocks it made still outstanding (BSTRs included) and nothing
// keeping the library loaded.
#pragma once

#include <gtest/gtest.h>
#include <objbase.h>
#include <xkcombsd/Module.h>

#include "HResult.h"
#include "MallocSpy.h"

namespace xktest {

template <DWORD Apartment = COINIT_APARTMENTTHREADED>
class ComTest : public ::testing::Test {
 protected:
  void SetUp() override { CoInitializeEx(nullptr, Apartment); }
  void TearDown() override {
    EXPECT_EQ(0, spy.Outstanding());
    EXPECT_HR(S_OK, DllCanUnloadNow());
    CoUninitialize();
  }

  MallocSpy spy;
};

}  // namespace xktest
