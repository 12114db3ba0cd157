// The built-in allocators through their IAllocator, as a store reaches them: block
// counts, lazy memory managers, and the reports for a missing table or blocks left.
#include <gmock/gmock.h>

#include "DebugOutput.h"
#include "MallocSpy.h"
#include "stores/Allocators.h"

using ::testing::ElementsAre;
using xk::stores::HeapAllocator;
using xktest::AssertionReport;
using xktest::DebugOutputCapture;

namespace {

constexpr ULONG kUnknownSize = 0xFFFFFFFF;
DWORD HeapCount() { return GetProcessHeaps(0, nullptr); }

template <class Allocator>
class AllocatorTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(0, m_spy.Outstanding()); }

  xktest::MallocSpy m_spy;
  xk::AllocatorBase* m_allocator = new Allocator(NULL, false);
  IAllocator* a = m_allocator->Interface();
};
using Allocators = ::testing::Types<HeapAllocator, xk::stores::TaskAllocator>;
TYPED_TEST_SUITE(AllocatorTest, Allocators);

}  // namespace

// Nothing is acquired before the first allocation; a resize is the same block.
// Dying with a block out is reported by the base before the memory manager goes.
TYPED_TEST(AllocatorTest, CountsEveryBlockAcquiresNothingUntilThenAndReportsBlocksLeft) {
  DebugOutputCapture capture;
  IAllocator* a = this->a;
  BYTE notOurs[4];
  EXPECT_EQ(kUnknownSize, a->GetSize(notOurs)) << "no memory manager yet";
  EXPECT_EQ(0u, this->m_spy.AllocRequests().size());
  void* first = a->Alloc(10);
  void* left = a->Realloc(nullptr, 20);
  ASSERT_TRUE(first && left);
  void* grown = a->Realloc(first, 4000);
  ASSERT_NE(nullptr, grown);
  EXPECT_LE(4000u, a->GetSize(grown));
  EXPECT_EQ(2, this->m_allocator->OutstandingBlocks());
  EXPECT_EQ(nullptr, a->Realloc(grown, 0)) << "resizing to 0 frees";
  EXPECT_EQ(1, this->m_allocator->OutstandingBlocks());
  this->m_allocator->ReleaseResources();
  EXPECT_EQ(kUnknownSize, a->GetSize(left)) << "nothing left to ask";
  EXPECT_EQ(0u, a->Release());
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MLAtor", 200, "m_cAllocs == 0"}));
  if (!std::is_same_v<TypeParam, HeapAllocator>) CoTaskMemFree(left);  // task memory outlives it
}

// A heap of its own comes with the first allocation and goes with the
// allocator; a caller's heap goes only when adopted.
TEST(HeapAllocator, MakesItsOwnHeapLazilyAndDestroysOnlyAHeapItOwns) {
  const struct { bool callers, adopt; } kRows[] = {{false, false}, {true, false}, {true, true}};
  for (const auto& [callers, adopt] : kRows) {
    HANDLE heap = callers ? HeapCreate(0, 0, 0) : NULL;
    const DWORD before = HeapCount();
    IAllocator* a = (new HeapAllocator(heap, adopt))->Interface();
    EXPECT_EQ(before, HeapCount()) << "nothing made before the first allocation";
    void* block = a->Alloc(100);
    ASSERT_NE(nullptr, block);
    if (heap) EXPECT_EQ(100u, HeapSize(heap, 0, block)) << "allocated from the caller's heap";
    EXPECT_EQ(before + !heap, HeapCount());
    a->Free(block);
    EXPECT_EQ(0u, a->Release());
    EXPECT_EQ(before - adopt, HeapCount());
    if (heap && !adopt) HeapDestroy(heap);
  }
}

TEST(IAllocatorWrappers, AMissingTableIsReportedAtEachWrapper) {
  DebugOutputCapture capture;
  IAllocator broken = {nullptr};
  BYTE byte;
  EXPECT_EQ(0u, broken.AddRef());
  EXPECT_EQ(0u, broken.Release());
  EXPECT_EQ(nullptr, broken.Alloc(1));
  EXPECT_EQ(nullptr, broken.Realloc(&byte, 1));
  broken.Free(&byte);
  EXPECT_EQ(kUnknownSize, broken.GetSize(&byte));
  broken.HeapMinimise();
  std::vector<AssertionReport> expected;
  for (int line : {144, 149, 154, 160, 165, 170, 175})
    expected.push_back({"MIAtor", line, "NULL != get_vtable_()"});
  EXPECT_EQ(expected, capture.Assertions());
}
