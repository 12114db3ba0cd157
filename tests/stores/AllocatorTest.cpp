// The built-in allocators through their plain function table, as a store or a
// C caller reaches them: block counts, lazy acquisition of the memory manager,
// and the reports for a missing table and for blocks left at destruction.
#include <gmock/gmock.h>

#include "DebugOutput.h"
#include "MallocSpy.h"
#include "stores/Allocators.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::AssertionReport;
using xktest::DebugOutputCapture;
using xk::stores::HeapAllocator;

namespace {

constexpr ULONG kUnknownSize = 0xFFFFFFFF;
DWORD HeapCount() { return GetProcessHeaps(0, nullptr); }

// Calls go through the table, as a caller that knows no classes makes them.
struct Table {
  explicit Table(xk::AllocatorBase* allocator) : itf(allocator->Interface()) {}
  ULONG AddRef() { return itf->lpVtbl->AddRef(itf); }
  ULONG Release() { return itf->lpVtbl->Release(itf); }
  void* Alloc(ULONG cb) { return itf->lpVtbl->Alloc(itf, cb); }
  void* Realloc(void* pv, ULONG cb) { return itf->lpVtbl->Realloc(itf, pv, cb); }
  void Free(void* pv) { itf->lpVtbl->Free(itf, pv); }
  ULONG GetSize(void* pv) { return itf->lpVtbl->GetSize(itf, pv); }
  void HeapMinimise() { itf->lpVtbl->HeapMinimise(itf); }
  IAllocator* itf;
};

template <class Allocator>
class AllocatorTest : public ::testing::Test {
 protected:
  void TearDown() override {
    if (m_allocator) EXPECT_EQ(0u, m_table.Release());
    EXPECT_EQ(0, m_spy.Outstanding());
  }
  LONG Blocks() const { return m_allocator->OutstandingBlocks(); }

  xktest::MallocSpy m_spy;
  xk::AllocatorBase* m_allocator = new Allocator(NULL, false);
  Table m_table{m_allocator};
};
using Allocators = ::testing::Types<HeapAllocator, xk::stores::TaskAllocator>;
TYPED_TEST_SUITE(AllocatorTest, Allocators);

}  // namespace

TYPED_TEST(AllocatorTest, AnswersUnknownAndAcquiresNothingUntilItAllocates) {
  BYTE notOurs[4];
  EXPECT_EQ(kUnknownSize, this->m_table.GetSize(notOurs)) << "no memory manager yet";
  EXPECT_EQ(kUnknownSize, this->m_table.GetSize(nullptr));
  this->m_table.HeapMinimise();
  EXPECT_EQ(0, this->Blocks());
  EXPECT_THAT(this->m_spy.AllocRequests(), IsEmpty());
  EXPECT_EQ(2u, this->m_table.AddRef()) << "references are counted through the table";
  EXPECT_EQ(2, this->m_allocator->GetRefCount());
  EXPECT_EQ(1u, this->m_table.Release());
}

TYPED_TEST(AllocatorTest, CountsEveryBlockHandedOutAndTakenBack) {
  void* a = this->m_table.Alloc(10);
  ASSERT_NE(nullptr, a);
  EXPECT_EQ(1, this->Blocks());
  EXPECT_LE(10u, this->m_table.GetSize(a));
  EXPECT_EQ(kUnknownSize, this->m_table.GetSize(nullptr));
  void* b = this->m_table.Realloc(nullptr, 20);  // as Alloc
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(2, this->Blocks());
  void* grown = this->m_table.Realloc(a, 4000);
  ASSERT_NE(nullptr, grown);
  EXPECT_LE(4000u, this->m_table.GetSize(grown));
  EXPECT_EQ(2, this->Blocks()) << "a resize is the same block";
  EXPECT_EQ(nullptr, this->m_table.Realloc(grown, 0)) << "resizing to 0 frees";
  EXPECT_EQ(1, this->Blocks());
  this->m_table.Free(nullptr);
  EXPECT_EQ(1, this->Blocks());
  this->m_table.Free(b);
  EXPECT_EQ(0, this->Blocks());
  this->m_table.HeapMinimise();
}

TYPED_TEST(AllocatorTest, DyingWithBlocksOutIsReportedAndStillCompletes) {
  DebugOutputCapture capture;
  void* left = this->m_table.Alloc(32);
  ASSERT_NE(nullptr, left);
  this->m_allocator->ReleaseResources();  // the base's check first, then the memory manager goes
  EXPECT_EQ(kUnknownSize, this->m_table.GetSize(left)) << "nothing left to ask";
  EXPECT_EQ(0u, this->m_table.Release());
  this->m_allocator = nullptr;
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MLAtor", 200, "m_cAllocs == 0"}));
  if (!std::is_same_v<TypeParam, HeapAllocator>) CoTaskMemFree(left);  // task memory outlives its allocator
}

TEST(HeapAllocator, MakesItsOwnHeapLazilyAndDestroysOnlyAHeapItOwns) {
  const DWORD before = HeapCount();
  HANDLE callers = HeapCreate(0, 0, 0);
  const struct { HANDLE heap; bool adopt; } kRows[] = {{callers, false}, {callers, true}, {NULL, false}};
  for (const auto& [heap, adopt] : kRows) {
    Table table(new HeapAllocator(heap, adopt));
    EXPECT_EQ(heap ? before + 1 : before, HeapCount()) << "nothing made before the first allocation";
    void* block = table.Realloc(nullptr, 100);
    ASSERT_NE(nullptr, block);
    if (heap) EXPECT_EQ(100u, HeapSize(heap, 0, block)) << "allocated from the caller's heap";
    EXPECT_EQ(before + 1, HeapCount());
    table.Free(block);
    EXPECT_EQ(0u, table.Release());
    EXPECT_EQ(heap && !adopt ? before + 1 : before, HeapCount());
  }
}

TEST(HeapAllocator, AFailedResizeKeepsTheBlockAndTheCount) {
  auto* bounded = new HeapAllocator(HeapCreate(0, 0, 64 * 1024), true);  // a heap with a fixed maximum
  Table table(bounded);
  void* kept = table.Alloc(100);
  ASSERT_NE(nullptr, kept);
  EXPECT_EQ(nullptr, table.Realloc(kept, 1 << 20));
  EXPECT_EQ(1, bounded->OutstandingBlocks());
  EXPECT_EQ(100u, table.GetSize(kept)) << "and the block stays valid";
  table.Free(kept);
  EXPECT_EQ(0u, table.Release());
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
  for (int line : {144, 149, 154, 160, 165, 170, 175}) expected.push_back({"MIAtor", line, "NULL != get_vtable_()"});
  EXPECT_EQ(expected, capture.Assertions());
}
