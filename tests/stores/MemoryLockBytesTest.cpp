// CreateLockBytesOnMemory (and CreateStreamOnMemory, which makes its store the
// same way): every flag rule in its order of checks, and what each kind does
// with the caller's memory, allocator, heap and references.
#include <algorithm>

#include "DebugOutput.h"
#include "FakeMalloc.h"
#include "StoreTestSupport.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::AssertionReport;
using xktest::DebugOutputCapture;
using namespace storetest;

namespace {

const AssertionReport kSiInitReport{"MOMemLkB", 1370, "(flags & QVCLBOMF_SIINIT) == 0 || si == 0"};
const AssertionReport kBlocksOutstandingReport{"MLAtor", 200, "m_cAllocs == 0"};
constexpr ULONG_PTR kSomeSource = 0x1234;  // only ever given to kinds that must refuse it

// Blocks: {16, 16, then an invalid entry past the size, which is never read};
// EmptyBlock and NullBlock spoil the second entry.
enum class Memory { None, Buffer, Blocks, EmptyBlock, NullBlock };

struct FlagRule {
  const char* name;
  DWORD flags;
  ULONG si;
  Memory pv;
  ULONG_PTR allocSource;
  HRESULT expected;
  bool clearsOut;         // *pplb is set to NULL before the kind is checked
  ULONGLONG size;         // the new store's size, on success
  bool reportsSiInit;
};

constexpr DWORD T = QVCLBOMF_TASKALLOCATOR, H = QVCLBOMF_PRIVATEHEAP, G = QVCLBOMF_HGLOBAL,
                F = QVCLBOMF_FIXEDBLOCK, B = QVCLBOMF_BLOCKLIST, MAX = QVCLBOMF_SIMAX,
                INIT = QVCLBOMF_SIINIT, NOFREE = QVCLBOMF_NOFREE, ADOPT = QVCLBOMF_ADOPT,
                NOLOCK = QVCLBOMF_NOLOCK;
constexpr ULONG kSize = 32;

const FlagRule kFlagRules[] = {
    // Refused before the out-pointer is touched.
    {"NOFREE with ADOPT", T | NOFREE | ADOPT, 0, Memory::None, 0, E_INVALIDARG, false},
    {"NOFREE with ADOPT, fixed", F | NOFREE | ADOPT, kSize, Memory::Buffer, 0, E_INVALIDARG, false},
    {"HGLOBAL, SIMAX with SIINIT", G | MAX | INIT, 0, Memory::None, 0, E_INVALIDARG, false},
    {"HGLOBAL, SIINIT with a size", G | INIT, 5, Memory::None, 0, E_INVALIDARG, false},
    {"kind 0, SIINIT with a size", INIT, 5, Memory::None, 0, E_INVALIDARG, false},
    {"kind 8, SIMAX with SIINIT", 8 | MAX | INIT, 0, Memory::None, 0, E_INVALIDARG, false},
    {"kind 9, SIINIT with a size", 9 | INIT, 1, Memory::None, 0, E_INVALIDARG, false},
    // Refused by kind, after the out-pointer is cleared.
    {"HGLOBAL with an allocator source", G, 0, Memory::None, kSomeSource, E_INVALIDARG, true},
    {"HGLOBAL with ADOPT", G | ADOPT, 0, Memory::None, 0, E_INVALIDARG, true},
    {"kind 0", 0, 0, Memory::None, 0, E_INVALIDARG, true},
    {"kind 7", 7, kSize, Memory::Buffer, 0, E_INVALIDARG, true},
    {"kind 8", 8, 0, Memory::None, 0, E_INVALIDARG, true},
    {"kind 15", 15, kSize, Memory::Buffer, 0, E_INVALIDARG, true},
    // Left to us: no heap exists yet to tell the block's size, and a store must
    // never claim more bytes than its block holds.
    {"private heap over a block of unknown size", H, 0, Memory::Buffer, 0, E_INVALIDARG, true},
    {"fixed without a buffer", F, kSize, Memory::None, 0, E_INVALIDARG, true},
    {"fixed without a size", F, 0, Memory::Buffer, 0, E_INVALIDARG, true},
    {"fixed with an allocator source", F, kSize, Memory::Buffer, kSomeSource, E_INVALIDARG, true},
    {"fixed, SIMAX alone", F | MAX, kSize, Memory::Buffer, 0, E_INVALIDARG, true},
    {"block list without blocks", B, kSize, Memory::None, 0, E_INVALIDARG, true},
    {"block list without a size", B, 0, Memory::Blocks, 0, E_INVALIDARG, true},
    {"block list with an allocator source", B, kSize, Memory::Blocks, kSomeSource, E_INVALIDARG, true},
    {"block list with an empty block", B, kSize, Memory::EmptyBlock, 0, E_INVALIDARG, true},
    {"block list with a NULL block", B, kSize, Memory::NullBlock, 0, E_INVALIDARG, true},
    // Made.
    {"HGLOBAL", G, 0, Memory::None, 0, S_OK, true, 0},
    {"HGLOBAL, unlocked", G | NOLOCK, 0, Memory::None, 0, S_OK, true, 0},
    {"HGLOBAL, SIMAX is ignored", G | MAX, 7, Memory::None, 0, S_OK, true, 0},
    {"HGLOBAL, SIINIT with size 0", G | INIT, 0, Memory::None, 0, S_OK, true, 0},
    {"HGLOBAL, NOFREE", G | NOFREE, 0, Memory::None, 0, S_OK, true, 0},
    {"task allocator", T, 0, Memory::None, 0, S_OK, true, 0},
    {"task allocator, unlocked", T | NOLOCK, 0, Memory::None, 0, S_OK, true, 0},
    {"task allocator, SIMAX", T | MAX, 100, Memory::None, 0, S_OK, true, 0},
    {"task allocator, SIINIT", T | INIT, 100, Memory::None, 0, S_OK, true, 100, true},
    {"task allocator, SIMAX with SIINIT", T | MAX | INIT, 100, Memory::None, 0, S_OK, true, 100, true},
    {"task allocator, SIMAX with SIINIT, size 0", T | MAX | INIT, 0, Memory::None, 0, S_OK, true, 0},
    {"private heap, SIINIT", H | INIT, 100, Memory::None, 0, S_OK, true, 100, true},
    {"private heap, ADOPT of no heap", H | ADOPT, 0, Memory::None, 0, S_OK, true, 0},
    {"caller allocator of none acts as task", QVCLBOMF_ALLOCATOR | INIT, 9, Memory::None, 0, S_OK, true, 9, true},
    {"fixed", F, kSize, Memory::Buffer, 0, S_OK, true, kSize},
    {"fixed, SIINIT", F | INIT, kSize, Memory::Buffer, 0, S_OK, true, kSize},
    {"fixed, SIMAX with SIINIT", F | MAX | INIT, kSize, Memory::Buffer, 0, S_OK, true, kSize},
    {"fixed, NOFREE", F | NOFREE, kSize, Memory::Buffer, 0, S_OK, true, kSize},
    {"block list", B, kSize, Memory::Blocks, 0, S_OK, true, kSize},
    {"block list, SIMAX", B | MAX, kSize, Memory::Blocks, 0, S_OK, true, kSize},
    {"block list, SIINIT", B | INIT, kSize, Memory::Blocks, 0, S_OK, true, kSize},
    {"block list, unlocked", B | NOLOCK, kSize, Memory::Blocks, 0, S_OK, true, kSize},
};

// A rule through the store's factory or the stream's; the stream's clears its
// out-pointer before the store is made.
template <class Out>
void ExpectFlagRule(const FlagRule& rule) {
  DebugOutputCapture capture;
  Bytes buffer(kSize, 0x11), first(16), second(16);
  LOCKBYTESBLOCK blocks[] = {{16, first.data()}, {16, second.data()}, {0, nullptr}};
  if (rule.pv == Memory::EmptyBlock) blocks[1].cb = 0;
  if (rule.pv == Memory::NullBlock) blocks[1].pv = nullptr;
  void* pv = rule.pv == Memory::None ? nullptr : rule.pv == Memory::Buffer ? buffer.data() : static_cast<void*>(blocks);

  Out* const untouched = reinterpret_cast<Out*>(static_cast<ULONG_PTR>(kSentinel));
  Out* out = untouched;
  EXPECT_HR(rule.expected, CreateOnMemory(pv, rule.si, rule.flags, rule.allocSource, &out));
  if (FAILED(rule.expected)) {
    const bool clears = rule.clearsOut || std::is_same_v<Out, IStream>;
    EXPECT_EQ(clears ? nullptr : untouched, out);
  } else if (out != untouched && out) {
    EXPECT_EQ(rule.size, StatSize(out));
    // The HGLOBAL kind's store is the platform's own, with no IThreadingInfo.
    const bool platform = std::is_same_v<Out, ILockBytes> && (rule.flags & 0xF) == G;
    EXPECT_EQ(platform ? kSentinel : rule.flags & NOLOCK ? 0u : 3u, ThreadingModelOf(out));
    EXPECT_EQ(0u, out->Release());
  } else {
    ADD_FAILURE() << "nothing made";
  }
  if (rule.reportsSiInit)
    EXPECT_THAT(capture.Assertions(), ElementsAre(kSiInitReport));
  else
    EXPECT_THAT(capture.Assertions(), IsEmpty());
}

class CreateLockBytesOnMemoryTest : public LeakCheckedTest {
 protected:
  ILockBytes* lb = nullptr;
};

// The heaps of the process, to see private heaps come and go.
DWORD HeapCount() { return GetProcessHeaps(0, nullptr); }
bool HeapExists(HANDLE heap) {
  std::vector<HANDLE> heaps(HeapCount() + 8);
  heaps.resize(GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data()));
  return std::find(heaps.begin(), heaps.end(), heap) != heaps.end();
}

}  // namespace

TEST_F(CreateLockBytesOnMemoryTest, FollowsEveryFlagRuleInItsOrder) {
  for (const FlagRule& rule : kFlagRules) {
    SCOPED_TRACE(rule.name);
    ExpectFlagRule<ILockBytes>(rule);
    ExpectFlagRule<IStream>(rule);
  }
  EXPECT_HR(E_POINTER, CreateLockBytesOnMemory(nullptr, 0, T, 0, nullptr));
  EXPECT_HR(E_POINTER, CreateStreamOnMemory(nullptr, 0, T, 0, nullptr));
}

TEST_F(CreateLockBytesOnMemoryTest, WrapsAnHGlobalAndLeavesItAliveWithNoFree) {
  HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, 6);
  ASSERT_NE(nullptr, memory);
  std::memcpy(GlobalLock(memory), "abcdef", 6);
  GlobalUnlock(memory);
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(memory, 0, G | NOFREE, 0, &lb));
  EXPECT_EQ(6u, StatSize(lb));
  ASSERT_HR(S_OK, WriteBytes(lb, 6, {'g'}));
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(7u, GlobalSize(memory)) << "NOFREE keeps the HGLOBAL, grown by the write";
  EXPECT_EQ(0, std::memcmp(GlobalLock(memory), "abcdefg", 7));
  GlobalUnlock(memory);
  EXPECT_EQ(nullptr, GlobalFree(memory));
}

TEST_F(CreateLockBytesOnMemoryTest, GrowableStoresGrowToExactlyTheEndOfEachWrite) {
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, T, 0, &lb));
  EXPECT_THAT(m_spy.ReallocRequests(), IsEmpty()) << "nothing is allocated before the first write";
  std::vector<SIZE_T> expected;
  for (ULONG i = 0; i < 1000; ++i) {
    ASSERT_HR(S_OK, WriteBytes(lb, i * 16, Pattern(16)));
    expected.push_back((i + 1) * 16);
  }
  EXPECT_EQ(expected, m_spy.ReallocRequests()) << "one exact reallocation per append, by design";
  EXPECT_EQ(1, m_spy.Outstanding()) << "one buffer";
  ASSERT_HR(S_OK, lb->SetSize(U(0)));
  EXPECT_EQ(0, m_spy.Outstanding()) << "size 0 frees the buffer";
  EXPECT_EQ(0u, lb->Release());
}

TEST_F(CreateLockBytesOnMemoryTest, WritesPastTheMaximumFailAndWriteNothing) {
  for (DWORD kind : {T, H}) {
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 100, kind | MAX, 0, &lb));
    EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 95, Pattern(10)));
    EXPECT_EQ(0u, StatSize(lb));
    EXPECT_HR(S_OK, WriteBytes(lb, 90, Pattern(10)));
    EXPECT_EQ(100u, StatSize(lb));
    EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 100, Pattern(1)));
    EXPECT_HR(STG_E_MEDIUMFULL, lb->SetSize(U(101)));
    EXPECT_EQ(Pattern(10), ReadAll(lb, 20, 90));
    EXPECT_EQ(0u, lb->Release());
  }
}

TEST_F(CreateLockBytesOnMemoryTest, ACallersAllocatorIsReferencedAsAskedAndNotAskedToClear) {
  for (bool adopt : {false, true}) {
    SCOPED_TRACE(adopt ? "adopted" : "referenced");
    TestAllocator allocator;
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, QVCLBOMF_ALLOCATOR | (adopt ? ADOPT : 0),
                                            allocator.Source(), &lb));
    EXPECT_EQ(adopt ? 1 : 2, allocator.refs) << "adopted: no reference of its own";
    ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(4)));
    ASSERT_HR(S_OK, WriteBytes(lb, 10, Pattern(2, 9)));
    EXPECT_EQ(Bytes(6, 0xCD), ReadAll(lb, 6, 4)) << "the gap keeps what the allocator gave";
    EXPECT_THAT(allocator.sizes, ElementsAre(4u, 12u));

    allocator.refuseAbove = 100;
    EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 99, Pattern(2, 50))) << "a failed growth changes nothing";
    EXPECT_EQ(12u, StatSize(lb));
    EXPECT_EQ(Pattern(4), ReadAll(lb, 4));
    EXPECT_EQ(1, allocator.blocks);
    EXPECT_HR(S_OK, lb->SetSize(U(0)));
    EXPECT_EQ(0, allocator.blocks);
    EXPECT_EQ(0u, lb->Release());
    EXPECT_EQ(adopt ? 0 : 1, allocator.refs) << "an adopted reference goes with the store";
  }
}

TEST_F(CreateLockBytesOnMemoryTest, ACallersMallocIsUsedLazilyAndReferencedAsAsked) {
  xktest::FakeMalloc malloc;
  const ULONG_PTR source = reinterpret_cast<ULONG_PTR>(static_cast<IMalloc*>(&malloc));
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, T, source, &lb));
  EXPECT_EQ(2u, malloc.refs);
  EXPECT_EQ(0, malloc.calls) << "nothing asked before the first write";
  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(3)));
  EXPECT_EQ(1, malloc.calls);
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(1u, malloc.refs);
  EXPECT_EQ(2, malloc.calls) << "the buffer is freed through it";

  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, T | ADOPT, source, &lb));
  EXPECT_EQ(1u, malloc.refs) << "adopted";
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(0u, malloc.refs);
}

TEST_F(CreateLockBytesOnMemoryTest, AStoreOverACallersTaskBlockTakesItOverUnlessNoFree) {
  DebugOutputCapture capture;
  void* block = CoTaskMemAlloc(10);
  std::memcpy(block, "0123456789", 10);
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(block, 0, T, 0, &lb));
  EXPECT_EQ(10u, StatSize(lb)) << "the block's own size";
  EXPECT_EQ(Bytes({'3', '4'}), ReadAll(lb, 2, 3));
  ASSERT_HR(S_OK, WriteBytes(lb, 10, {'A'}));
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(0, m_spy.Outstanding()) << "the store freed the block it took over";

  block = CoTaskMemAlloc(4);
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(block, 0, T | NOFREE, 0, &lb));
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(1, m_spy.Outstanding()) << "NOFREE: the block stays the caller's";
  CoTaskMemFree(block);
  EXPECT_THAT(capture.Assertions(), IsEmpty()) << "a block taken over is one of the allocator's";
}

TEST_F(CreateLockBytesOnMemoryTest, PrivateHeapsComeWithTheFirstWriteAndGoWithTheStore) {
  const DWORD before = HeapCount();
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, H, 0, &lb));
  EXPECT_EQ(before, HeapCount()) << "no heap before the first allocation";
  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(5000)));
  EXPECT_EQ(before + 1, HeapCount());
  EXPECT_EQ(Pattern(5000), ReadAll(lb, 5000));
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(before, HeapCount());
}

TEST_F(CreateLockBytesOnMemoryTest, ACallersHeapTakesTheBlockBackAndIsDestroyedOnlyWhenAdopted) {
  for (bool adopt : {false, true}) {
    SCOPED_TRACE(adopt ? "adopted" : "not adopted");
    HANDLE heap = HeapCreate(0, 0, 0);
    void* block = HeapAlloc(heap, 0, 24);
    const DWORD flags = H | (adopt ? ADOPT : 0);
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(block, 0, flags, reinterpret_cast<ULONG_PTR>(heap), &lb));
    EXPECT_EQ(24u, StatSize(lb)) << "the block's own size";
    ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(64)));
    EXPECT_EQ(0u, lb->Release());
    EXPECT_EQ(!adopt, HeapExists(heap));
    if (adopt) continue;
    EXPECT_TRUE(HeapValidate(heap, 0, nullptr)) << "the heap stays usable";
    PROCESS_HEAP_ENTRY entry = {};
    int busy = 0;
    while (HeapWalk(heap, &entry)) busy += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0;
    EXPECT_EQ(0, busy) << "the block went back to its heap";
    HeapDestroy(heap);
  }
}

TEST_F(CreateLockBytesOnMemoryTest, ABufferLeftBehindByNoFreeIsReportedWithItsHeap) {
  DebugOutputCapture capture;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, H | NOFREE, 0, &lb));
  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(8)));
  EXPECT_EQ(0u, lb->Release()) << "completes all the same";
  EXPECT_THAT(capture.Assertions(), ElementsAre(kBlocksOutstandingReport));
}
