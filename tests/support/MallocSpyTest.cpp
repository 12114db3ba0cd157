// The task-allocator spy that every suite's leak check relies on: a spy that
// saw nothing would let every leak through.
#include <gmock/gmock.h>

#include "MallocSpy.h"

TEST(MallocSpy, SeesEveryRequestCountsWhatIsOutAndRefusesOnDemand) {
  void* before = CoTaskMemAlloc(4);  // made before the watch: never counted
  xktest::MallocSpy spy;
  ASSERT_TRUE(spy.Registered());
  void* block = CoTaskMemRealloc(CoTaskMemAlloc(24), 40);
  SysFreeString(SysAllocString(L"abc"));  // a freed BSTR must not stay in a cache
  CoTaskMemFree(before);
  EXPECT_EQ(1, spy.Outstanding());
  {
    xktest::TaskAllocatorRefusal refusal;
    EXPECT_EQ(nullptr, CoTaskMemRealloc(block, 64)) << "a refused resize keeps the block";
  }
  CoTaskMemFree(block);
  EXPECT_EQ(0, spy.Outstanding());
  // The BSTR's block size is the platform's choice.
  EXPECT_THAT(spy.AllocRequests(), testing::ElementsAre(24u, testing::_));
  EXPECT_THAT(spy.ReallocRequests(), testing::ElementsAre(40u, 64u));
}
