// The built-in allocators through their plain function table, as a store or a
// C caller reaches them: block counts, lazy acquisition of the memory manager,
// and the reports for a missing table and for blocks left at destruction.
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

// Calls go through the table, as a caller that knows no classes makes them.
struct Table {
  explicit Table(xk::AllocatorBase* allocator) : itf(allocator->Interface()), vt(itf->lpVtbl) {}
  void* Realloc(void* pv, ULONG cb) { return vt->Realloc(itf, pv, cb); }
  ULONG GetSize(void* pv) { return vt->GetSize(itf, pv); }
  IAllocator* itf;
  const IAllocatorVtbl* vt;
};

template <class Allocator>
class AllocatorTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (m_allocator) EXPECT_EQ(0u, t.vt->Release(t.itf));
    EXPECT_EQ(0, m_spy.Outstanding());
  }
  LONG Blocks() const { return m_allocator->OutstandingBlocks(); }

  xktest::MallocSpy m_spy;
  xk::AllocatorBase* m_allocator = new Allocator(NULL, false);
  Table t{m_allocator};
};
using Allocators = ::testing::Types<HeapAllocator, xk::stores::TaskAllocator>;
TYPED_TEST_SUITE(AllocatorTest, Allocators);

}  // namespace

// Nothing is acquired before the first allocation; a resize is the same block.
TYPED_TEST(AllocatorTest, CountsEveryBlockHandedOutAndTakenBackAndAcquiresNothingUntilThen) {
  Table& t = this->t;
  BYTE notOurs[4];
  EXPECT_EQ(kUnknownSize, t.GetSize(notOurs)) << "no memory manager yet";
  t.vt->HeapMinimise(t.itf);
  EXPECT_EQ(0u, this->m_spy.AllocRequests().size());
  EXPECT_EQ(2u, t.vt->AddRef(t.itf));
  EXPECT_EQ(2, this->m_allocator->GetRefCount());
  EXPECT_EQ(1u, t.vt->Release(t.itf));
  void* a = t.vt->Alloc(t.itf, 10);
  void* b = t.Realloc(nullptr, 20);
  ASSERT_TRUE(a && b);
  EXPECT_LE(10u, t.GetSize(a));
  EXPECT_EQ(kUnknownSize, t.GetSize(nullptr));
  EXPECT_EQ(2, this->Blocks());
  void* grown = t.Realloc(a, 4000);
  ASSERT_NE(nullptr, grown);
  EXPECT_LE(4000u, t.GetSize(grown));
  EXPECT_EQ(2, this->Blocks());
  EXPECT_EQ(nullptr, t.Realloc(grown, 0)) << "resizing to 0 frees";
  EXPECT_EQ(1, this->Blocks());
  t.vt->Free(t.itf, nullptr);
  t.vt->Free(t.itf, b);
  EXPECT_EQ(0, this->Blocks());
}

// The base's check comes first, then the memory manager goes.
TYPED_TEST(AllocatorTest, DyingWithBlocksOutIsReportedAndStillCompletes) {
  DebugOutputCapture capture;
  void* left = this->t.Realloc(nullptr, 32);
  ASSERT_NE(nullptr, left);
  this->m_allocator->ReleaseResources();
  EXPECT_EQ(kUnknownSize, this->t.GetSize(left)) << "nothing left to ask";
  EXPECT_EQ(0u, this->t.vt->Release(this->t.itf));
  this->m_allocator = nullptr;
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MLAtor", 200, "m_cAllocs == 0"}));
  if (!std::is_same_v<TypeParam, HeapAllocator>) CoTaskMemFree(left);  // task memory outlives it
}

// A heap of its own comes with the first allocation and goes with the
// allocator; a caller's heap goes only when adopted.
TEST(HeapAllocator, MakesItsOwnHeapLazilyAndDestroysOnlyAHeapItOwns) {
  const struct {
    bool callers, adopt;
    SIZE_T maximum;
  } kRows[] = {{false, false, 0}, {true, false, 0}, {true, true, 64 * 1024}};
  for (const auto& [callers, adopt, maximum] : kRows) {
    HANDLE heap = callers ? HeapCreate(0, 0, maximum) : NULL;
    const DWORD before = HeapCount();
    auto* allocator = new HeapAllocator(heap, adopt);
    Table t(allocator);
    EXPECT_EQ(before, HeapCount()) << "nothing made before the first allocation";
    void* block = t.Realloc(nullptr, 100);
    ASSERT_NE(nullptr, block);
    if (heap) EXPECT_EQ(100u, HeapSize(heap, 0, block)) << "allocated from the caller's heap";
    EXPECT_EQ(before + !heap, HeapCount());
    if (maximum) EXPECT_EQ(nullptr, t.Realloc(block, 1 << 20));
    EXPECT_EQ(1, allocator->OutstandingBlocks());
    EXPECT_EQ(100u, t.GetSize(block)) << "a failed resize keeps the block";
    t.vt->Free(t.itf, block);
    EXPECT_EQ(0u, t.vt->Release(t.itf));
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
