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

namespace {

const AssertionReport kOutstandingAtDestruction{"MLAtor", 200, "m_cAllocs == 0"};

struct HeapFactory {
  static xk::AllocatorBase* Make() { return new xk::stores::HeapAllocator(NULL, false); }
};
struct TaskFactory {
  static xk::AllocatorBase* Make() { return new xk::stores::TaskAllocator(NULL, false); }
};

template <class Factory>
class AllocatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_allocator = Factory::Make();
    ASSERT_NE(nullptr, m_allocator);
    m_table = m_allocator->Interface();
  }
  void TearDown() override {
    if (m_allocator) EXPECT_EQ(0u, m_table->lpVtbl->Release(m_table));
    EXPECT_EQ(0, m_spy.Outstanding());
  }

  // Calls go through the table, as a caller that knows no classes makes them.
  void* Alloc(ULONG cb) { return m_table->lpVtbl->Alloc(m_table, cb); }
  void* Realloc(void* pv, ULONG cb) { return m_table->lpVtbl->Realloc(m_table, pv, cb); }
  void Free(void* pv) { m_table->lpVtbl->Free(m_table, pv); }
  ULONG GetSize(void* pv) { return m_table->lpVtbl->GetSize(m_table, pv); }
  LONG Blocks() const { return m_allocator->OutstandingBlocks(); }

  xktest::MallocSpy m_spy;
  xk::AllocatorBase* m_allocator = nullptr;
  IAllocator* m_table = nullptr;
};

using Allocators = ::testing::Types<HeapFactory, TaskFactory>;
TYPED_TEST_SUITE(AllocatorTest, Allocators);

}  // namespace

TYPED_TEST(AllocatorTest, AnswersUnknownAndIgnoresFreesUntilItHasAllocated) {
  BYTE notOurs[4];
  EXPECT_EQ(0xFFFFFFFFu, this->GetSize(notOurs)) << "no memory manager yet";
  EXPECT_EQ(0xFFFFFFFFu, this->GetSize(nullptr));
  this->m_table->lpVtbl->HeapMinimise(this->m_table);
  EXPECT_EQ(0, this->Blocks());
  EXPECT_THAT(this->m_spy.AllocRequests(), IsEmpty());
}

TYPED_TEST(AllocatorTest, CountsEveryBlockHandedOutAndTakenBack) {
  void* a = this->Alloc(10);
  ASSERT_NE(nullptr, a);
  EXPECT_EQ(1, this->Blocks());
  EXPECT_LE(10u, this->GetSize(a));
  EXPECT_EQ(0xFFFFFFFFu, this->GetSize(nullptr));

  void* b = this->Realloc(nullptr, 20);  // as Alloc
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(2, this->Blocks());

  void* grown = this->Realloc(a, 4000);
  ASSERT_NE(nullptr, grown);
  EXPECT_LE(4000u, this->GetSize(grown));
  EXPECT_EQ(2, this->Blocks()) << "a resize is the same block";

  EXPECT_EQ(nullptr, this->Realloc(grown, 0)) << "resizing to 0 frees";
  EXPECT_EQ(1, this->Blocks());
  this->Free(nullptr);
  EXPECT_EQ(1, this->Blocks());
  this->Free(b);
  EXPECT_EQ(0, this->Blocks());
  this->m_table->lpVtbl->HeapMinimise(this->m_table);
}

TYPED_TEST(AllocatorTest, ReferencesAreCountedThroughTheTable) {
  EXPECT_EQ(2u, this->m_table->lpVtbl->AddRef(this->m_table));
  EXPECT_EQ(2, this->m_allocator->GetRefCount());
  EXPECT_EQ(1u, this->m_table->lpVtbl->Release(this->m_table));
}

TYPED_TEST(AllocatorTest, DyingWithBlocksOutIsReportedAndStillCompletes) {
  DebugOutputCapture capture;
  void* left = this->Alloc(32);
  ASSERT_NE(nullptr, left);
  this->m_allocator->ReleaseResources();  // the base's check first, then the memory manager goes
  EXPECT_EQ(0xFFFFFFFFu, this->GetSize(left)) << "nothing left to ask";
  EXPECT_EQ(0u, this->m_table->lpVtbl->Release(this->m_table));
  this->m_allocator = nullptr;
  EXPECT_THAT(capture.Assertions(), ElementsAre(kOutstandingAtDestruction));
  if (std::is_same_v<TypeParam, TaskFactory>) CoTaskMemFree(left);  // task memory outlives its allocator
}

TEST(HeapAllocator, DestroysOnlyAHeapItOwns) {
  const DWORD before = GetProcessHeaps(0, nullptr);
  HANDLE callers = HeapCreate(0, 0, 0);
  for (bool adopt : {false, true}) {
    auto* allocator = new xk::stores::HeapAllocator(callers, adopt);
    IAllocator* table = allocator->Interface();
    void* block = table->lpVtbl->Alloc(table, 100);
    EXPECT_NE(nullptr, block);
    EXPECT_EQ(100u, HeapSize(callers, 0, block)) << "allocated from the caller's heap";
    table->lpVtbl->Free(table, block);
    EXPECT_EQ(0u, table->lpVtbl->Release(table));
    EXPECT_EQ(adopt ? before : before + 1, GetProcessHeaps(0, nullptr));
  }

  // A heap with a fixed maximum refuses to grow a block past it.
  HANDLE small = HeapCreate(0, 0, 64 * 1024);
  auto* bounded = new xk::stores::HeapAllocator(small, true);
  IAllocator* boundedTable = bounded->Interface();
  void* kept = boundedTable->lpVtbl->Alloc(boundedTable, 100);
  ASSERT_NE(nullptr, kept);
  EXPECT_EQ(nullptr, boundedTable->lpVtbl->Realloc(boundedTable, kept, 1 << 20));
  EXPECT_EQ(1, bounded->OutstandingBlocks()) << "a failed resize keeps the block and the count";
  EXPECT_EQ(100u, boundedTable->lpVtbl->GetSize(boundedTable, kept)) << "and the block stays valid";
  boundedTable->lpVtbl->Free(boundedTable, kept);
  EXPECT_EQ(0u, boundedTable->lpVtbl->Release(boundedTable));

  // One of its own is made at the first allocation and goes with it.
  auto* own = new xk::stores::HeapAllocator(NULL, false);
  IAllocator* table = own->Interface();
  EXPECT_EQ(before, GetProcessHeaps(0, nullptr));
  void* block = table->lpVtbl->Realloc(table, nullptr, 8);
  EXPECT_EQ(before + 1, GetProcessHeaps(0, nullptr));
  table->lpVtbl->Free(table, block);
  EXPECT_EQ(0u, table->lpVtbl->Release(table));
  EXPECT_EQ(before, GetProcessHeaps(0, nullptr));
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
  EXPECT_EQ(0xFFFFFFFFu, broken.GetSize(&byte));
  broken.HeapMinimise();
  const char* expression = "NULL != get_vtable_()";
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(AssertionReport{"MIAtor", 144, expression},
                          AssertionReport{"MIAtor", 149, expression},
                          AssertionReport{"MIAtor", 154, expression},
                          AssertionReport{"MIAtor", 160, expression},
                          AssertionReport{"MIAtor", 165, expression},
                          AssertionReport{"MIAtor", 170, expression},
                          AssertionReport{"MIAtor", 175, expression}));
}
