// The task-allocator spy that the leak checks of every suite rely on.
#include <gmock/gmock.h>

#include "MallocSpy.h"

using ::testing::ElementsAre;

TEST(MallocSpy, SeesEveryRequestCountsWhatIsOutAndRefusesOnDemand) {
  void* before = CoTaskMemAlloc(4);  // made before the watch: never counted
  xktest::MallocSpy spy;
  ASSERT_TRUE(spy.Registered());
  void* block = CoTaskMemRealloc(CoTaskMemAlloc(24), 40);
  void* other = CoTaskMemRealloc(nullptr, 8);  // allocates
  BSTR text = SysAllocString(L"abc");
  EXPECT_EQ(3, spy.Outstanding());
  SysFreeString(text);
  EXPECT_EQ(2, spy.Outstanding()) << "a freed BSTR must not be kept in a cache";
  CoTaskMemRealloc(other, 0);  // frees
  CoTaskMemFree(before);
  EXPECT_EQ(1, spy.Outstanding());
  spy.ClearRequests();
  {
    xktest::TaskAllocatorRefusal refusal;
    EXPECT_EQ(nullptr, CoTaskMemAlloc(8));
    EXPECT_EQ(nullptr, CoTaskMemRealloc(block, 64)) << "a refused resize keeps the block";
    CoTaskMemFree(block);
  }
  EXPECT_EQ(0, spy.Outstanding());
  EXPECT_THAT(spy.AllocRequests(), ElementsAre(8u));
  EXPECT_THAT(spy.ReallocRequests(), ElementsAre(64u));
  void* after = CoTaskMemAlloc(8);
  EXPECT_NE(nullptr, after) << "the allocator works again once the refusal ends";
  CoTaskMemFree(after);
}
