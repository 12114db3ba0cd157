// The task-allocator spy that the leak checks of every suite rely on.
#include <gmock/gmock.h>

#include "MallocSpy.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(MallocSpy, SeesEveryRequestAndCountsWhatIsStillOut) {
  void* before = CoTaskMemAlloc(4);  // made before the watch: never counted
  xktest::MallocSpy spy;
  ASSERT_TRUE(spy.Registered());

  void* block = CoTaskMemAlloc(24);
  EXPECT_EQ(1, spy.Outstanding());
  block = CoTaskMemRealloc(block, 40);
  void* other = CoTaskMemRealloc(nullptr, 8);  // allocates
  EXPECT_EQ(2, spy.Outstanding());
  EXPECT_THAT(spy.AllocRequests(), ElementsAre(24u));
  EXPECT_THAT(spy.ReallocRequests(), ElementsAre(40u, 8u));

  CoTaskMemRealloc(other, 0);  // frees
  CoTaskMemFree(before);
  EXPECT_EQ(1, spy.Outstanding());
  CoTaskMemFree(block);
  EXPECT_EQ(0, spy.Outstanding());

  spy.ClearRequests();
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
  EXPECT_THAT(spy.ReallocRequests(), IsEmpty());
}

TEST(MallocSpy, SeesBstrsAsTheyAreAllocatedAndFreed) {
  xktest::MallocSpy spy;
  BSTR b = SysAllocString(L"abc");
  EXPECT_EQ(1, spy.Outstanding());
  SysFreeString(b);
  EXPECT_EQ(0, spy.Outstanding()) << "a freed BSTR must not be kept in a cache";
}

TEST(MallocSpy, ARefusalFailsAllocationsButLetsFreesThrough) {
  xktest::MallocSpy spy;
  void* block = CoTaskMemAlloc(16);
  ASSERT_NE(nullptr, block);
  {
    xktest::TaskAllocatorRefusal refusal;
    EXPECT_EQ(nullptr, CoTaskMemAlloc(8));
    EXPECT_EQ(nullptr, CoTaskMemRealloc(block, 64)) << "a refused resize keeps the block";
    EXPECT_EQ(nullptr, CoTaskMemRealloc(nullptr, 8));
    EXPECT_EQ(1, spy.Outstanding());
    CoTaskMemFree(block);
    EXPECT_EQ(0, spy.Outstanding());
  }
  EXPECT_THAT(spy.AllocRequests(), ElementsAre(16u, 8u));
  EXPECT_THAT(spy.ReallocRequests(), ElementsAre(64u, 8u));
  void* after = CoTaskMemAlloc(8);
  EXPECT_NE(nullptr, after) << "the allocator works again once the refusal ends";
  CoTaskMemFree(after);
  EXPECT_EQ(0, spy.Outstanding());
}
