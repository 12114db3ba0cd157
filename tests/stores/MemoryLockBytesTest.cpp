// CreateLockBytesOnMemory: every flag rule in its order of checks, and what
// each kind does with the caller's memory, allocator, heap and references.
#include <algorithm>
#include <string>

#include "DebugOutput.h"
#include "StoreTestSupport.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::AssertionReport;
using xktest::DebugOutputCapture;
using namespace storetest;

namespace {

const AssertionReport kSiInitReport{"MOMemLkB", 1370, "(flags & QVCLBOMF_SIINIT) == 0 || si == 0"};
const AssertionReport kBlocksOutstandingReport{"MLAtor", 200, "m_cAllocs == 0"};

ILockBytes* const kUntouched = reinterpret_cast<ILockBytes*>(static_cast<ULONG_PTR>(0xDEADBEEF));
constexpr ULONG_PTR kSomeSource = 0x1234;  // only ever given to kinds that must refuse it

enum class Memory { None, Buffer, Blocks };

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
                INIT = QVCLBOMF_SIINIT, NOFREE = QVCLBOMF_NOFREE, ADOPT = QVCLBOMF_ADOPT;
constexpr ULONG kBufferSize = 32;

const FlagRule kFlagRules[] = {
    // Refused before the out-pointer is touched.
    {"NOFREE with ADOPT", T | NOFREE | ADOPT, 0, Memory::None, 0, E_INVALIDARG, false},
    {"NOFREE with ADOPT, fixed", F | NOFREE | ADOPT, kBufferSize, Memory::Buffer, 0, E_INVALIDARG, false},
    {"HGLOBAL, SIMAX with SIINIT", G | MAX | INIT, 0, Memory::None, 0, E_INVALIDARG, false},
    {"HGLOBAL, SIINIT with a size", G | INIT, 5, Memory::None, 0, E_INVALIDARG, false},
    {"kind 0, SIINIT with a size", INIT, 5, Memory::None, 0, E_INVALIDARG, false},
    {"kind 8, SIMAX with SIINIT", 8 | MAX | INIT, 0, Memory::None, 0, E_INVALIDARG, false},
    {"kind 9, SIINIT with a size", 9 | INIT, 1, Memory::None, 0, E_INVALIDARG, false},
    // Refused by kind, after the out-pointer is cleared.
    {"HGLOBAL with an allocator source", G, 0, Memory::None, kSomeSource, E_INVALIDARG, true},
    {"HGLOBAL with ADOPT", G | ADOPT, 0, Memory::None, 0, E_INVALIDARG, true},
    {"kind 0", 0, 0, Memory::None, 0, E_INVALIDARG, true},
    {"kind 7", 7, kBufferSize, Memory::Buffer, 0, E_INVALIDARG, true},
    {"kind 8", 8, 0, Memory::None, 0, E_INVALIDARG, true},
    {"kind 15", 15, kBufferSize, Memory::Buffer, 0, E_INVALIDARG, true},
    {"fixed without a buffer", F, kBufferSize, Memory::None, 0, E_INVALIDARG, true},
    {"fixed without a size", F, 0, Memory::Buffer, 0, E_INVALIDARG, true},
    {"fixed with an allocator source", F, kBufferSize, Memory::Buffer, kSomeSource, E_INVALIDARG, true},
    {"fixed, SIMAX alone", F | MAX, kBufferSize, Memory::Buffer, 0, E_INVALIDARG, true},
    {"block list without blocks", B, kBufferSize, Memory::None, 0, E_INVALIDARG, true},
    {"block list without a size", B, 0, Memory::Blocks, 0, E_INVALIDARG, true},
    {"block list with an allocator source", B, kBufferSize, Memory::Blocks, kSomeSource, E_INVALIDARG, true},
    // Made.
    {"HGLOBAL", G, 0, Memory::None, 0, S_OK, true, 0},
    {"HGLOBAL, SIMAX is ignored", G | MAX, 7, Memory::None, 0, S_OK, true, 0},
    {"HGLOBAL, SIINIT with size 0", G | INIT, 0, Memory::None, 0, S_OK, true, 0},
    {"HGLOBAL, NOFREE", G | NOFREE, 0, Memory::None, 0, S_OK, true, 0},
    {"task allocator", T, 0, Memory::None, 0, S_OK, true, 0},
    {"task allocator, unlocked", T | QVCLBOMF_NOLOCK, 0, Memory::None, 0, S_OK, true, 0},
    {"task allocator, SIMAX", T | MAX, 100, Memory::None, 0, S_OK, true, 0},
    {"task allocator, SIINIT", T | INIT, 100, Memory::None, 0, S_OK, true, 100, true},
    {"task allocator, SIMAX with SIINIT", T | MAX | INIT, 100, Memory::None, 0, S_OK, true, 100, true},
    {"task allocator, SIMAX with SIINIT, size 0", T | MAX | INIT, 0, Memory::None, 0, S_OK, true, 0},
    {"private heap, SIINIT", H | INIT, 100, Memory::None, 0, S_OK, true, 100, true},
    {"private heap, ADOPT of no heap", H | ADOPT, 0, Memory::None, 0, S_OK, true, 0},
    {"caller allocator of none acts as task", QVCLBOMF_ALLOCATOR | INIT, 9, Memory::None, 0, S_OK, true, 9, true},
    {"fixed", F, kBufferSize, Memory::Buffer, 0, S_OK, true, kBufferSize},
    {"fixed, SIINIT", F | INIT, kBufferSize, Memory::Buffer, 0, S_OK, true, kBufferSize},
    {"fixed, SIMAX with SIINIT", F | MAX | INIT, kBufferSize, Memory::Buffer, 0, S_OK, true, kBufferSize},
    {"fixed, NOFREE", F | NOFREE, kBufferSize, Memory::Buffer, 0, S_OK, true, kBufferSize},
    {"block list", B, kBufferSize, Memory::Blocks, 0, S_OK, true, kBufferSize},
    {"block list, SIMAX", B | MAX, kBufferSize, Memory::Blocks, 0, S_OK, true, kBufferSize},
    {"block list, SIINIT", B | INIT, kBufferSize, Memory::Blocks, 0, S_OK, true, kBufferSize},
    {"block list, unlocked", B | QVCLBOMF_NOLOCK, kBufferSize, Memory::Blocks, 0, S_OK, true, kBufferSize},
};

class CreateLockBytesOnMemoryTest : public LeakCheckedTest {};

// Lists the heaps of the process, to see private heaps come and go.
bool HeapExists(HANDLE heap) {
  std::vector<HANDLE> heaps(256);
  const DWORD count = GetProcessHeaps(static_cast<DWORD>(heaps.size()), heaps.data());
  return std::find(heaps.begin(), heaps.begin() + std::min<DWORD>(count, 256), heap) !=
         heaps.begin() + std::min<DWORD>(count, 256);
}
DWORD HeapCount() { return GetProcessHeaps(0, nullptr); }

// An IMalloc handed in by the caller: forwards to the task allocator and
// counts its references and calls.
class CountingMalloc : public IMalloc {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = (iid == IID_IUnknown || iid == IID_IMalloc) ? this : nullptr;
    if (!*ppv) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP_(void*) Alloc(SIZE_T cb) override { ++calls; return CoTaskMemAlloc(cb); }
  STDMETHODIMP_(void*) Realloc(void* pv, SIZE_T cb) override {
    ++calls;
    return CoTaskMemRealloc(pv, cb);
  }
  STDMETHODIMP_(void) Free(void* pv) override { ++calls; CoTaskMemFree(pv); }
  STDMETHODIMP_(SIZE_T) GetSize(void* pv) override {
    ++calls;
    IMalloc* task = nullptr;
    CoGetMalloc(MEMCTX_TASK, &task);
    const SIZE_T size = task->GetSize(pv);
    task->Release();
    return size;
  }
  STDMETHODIMP_(int) DidAlloc(void*) override { return -1; }
  STDMETHODIMP_(void) HeapMinimize() override {}

  ULONG refs = 1;
  int calls = 0;
};

}  // namespace

TEST_F(CreateLockBytesOnMemoryTest, FollowsEveryFlagRuleInItsOrder) {
  for (const FlagRule& rule : kFlagRules) {
    SCOPED_TRACE(rule.name);
    DebugOutputCapture capture;
    std::vector<BYTE> buffer(kBufferSize, 0x11);
    std::vector<BYTE> first(16), second(16);
    LOCKBYTESBLOCK blocks[] = {{16, first.data()}, {16, second.data()}};
    void* pv = rule.pv == Memory::Buffer ? static_cast<void*>(buffer.data())
               : rule.pv == Memory::Blocks ? static_cast<void*>(blocks)
                                           : nullptr;

    ILockBytes* lb = kUntouched;
    EXPECT_HR(rule.expected, CreateLockBytesOnMemory(pv, rule.si, rule.flags, rule.allocSource, &lb));
    if (FAILED(rule.expected)) {
      EXPECT_EQ(rule.clearsOut ? nullptr : kUntouched, lb);
    } else if (lb != kUntouched && lb != nullptr) {
      EXPECT_EQ(rule.size, StatSize(lb));
      EXPECT_EQ(0u, lb->Release());
    } else {
      ADD_FAILURE() << "no store";
    }
    if (rule.reportsSiInit)
      EXPECT_THAT(capture.Assertions(), ElementsAre(kSiInitReport));
    else
      EXPECT_THAT(capture.Assertions(), IsEmpty());
  }
  EXPECT_HR(E_POINTER, CreateLockBytesOnMemory(nullptr, 0, T, 0, nullptr));
}

TEST_F(CreateLockBytesOnMemoryTest, BlockListsAreReadOnlyUpToTheBlockThatReachesTheSize) {
  std::vector<BYTE> a(4), b(4);
  // Entries past the size are never looked at, even invalid ones.
  LOCKBYTESBLOCK blocks[] = {{4, a.data()}, {4, b.data()}, {0, nullptr}};
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(blocks, 8, B, 0, &lb));
  EXPECT_EQ(8u, StatSize(lb));
  lb->Release();

  for (LOCKBYTESBLOCK bad : {LOCKBYTESBLOCK{0, a.data()}, LOCKBYTESBLOCK{4, nullptr}}) {
    LOCKBYTESBLOCK withBad[] = {{4, a.data()}, bad, {4, b.data()}};
    lb = kUntouched;
    EXPECT_HR(E_INVALIDARG, CreateLockBytesOnMemory(withBad, 12, B, 0, &lb));
    EXPECT_EQ(nullptr, lb);
  }
}

TEST_F(CreateLockBytesOnMemoryTest, WrapsAnHGlobalAndLeavesItAliveWithNoFree) {
  HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, 6);
  ASSERT_NE(nullptr, memory);
  std::memcpy(GlobalLock(memory), "abcdef", 6);
  GlobalUnlock(memory);
  ILockBytes* lb = nullptr;
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
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, T, 0, &lb));
  EXPECT_THAT(m_spy.ReallocRequests(), IsEmpty()) << "nothing is allocated before the first write";
  const std::vector<BYTE> record = Pattern(16);
  std::vector<SIZE_T> expected;
  for (ULONG i = 0; i < 1000; ++i) {
    ASSERT_HR(S_OK, WriteBytes(lb, i * 16, record));
    expected.push_back((i + 1) * 16);
  }
  EXPECT_EQ(expected, m_spy.ReallocRequests()) << "one exact reallocation per append, by design";
  EXPECT_EQ(16000u, StatSize(lb));
  EXPECT_EQ(1, m_spy.Outstanding()) << "one buffer";

  ASSERT_HR(S_OK, lb->SetSize(U(0)));
  EXPECT_EQ(0, m_spy.Outstanding()) << "size 0 frees the buffer";
  EXPECT_EQ(0u, lb->Release());
}

TEST_F(CreateLockBytesOnMemoryTest, GrownBytesAreNotClearedAndAFailedGrowthChangesNothing) {
  TestAllocator allocator;
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, QVCLBOMF_ALLOCATOR, allocator.Source(), &lb));
  EXPECT_EQ(2, allocator.refs) << "the store adds its own reference";
  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(4)));
  ASSERT_HR(S_OK, WriteBytes(lb, 10, Pattern(2, 9)));
  EXPECT_EQ(std::vector<BYTE>(6, 0xCD), ReadAll(lb, 6, 4)) << "the gap keeps what the allocator gave";
  EXPECT_THAT(allocator.sizes, ElementsAre(4u, 12u));

  allocator.refuseAbove = 100;
  EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 99, Pattern(2, 50)));
  EXPECT_EQ(12u, StatSize(lb));
  EXPECT_EQ(Pattern(4), ReadAll(lb, 4));
  EXPECT_EQ(1, allocator.blocks);

  EXPECT_HR(S_OK, lb->SetSize(U(0)));
  EXPECT_EQ(0, allocator.blocks);
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(1, allocator.refs);
}

TEST_F(CreateLockBytesOnMemoryTest, AnAdoptedCallerAllocatorIsReleasedWithTheStore) {
  TestAllocator allocator;
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, QVCLBOMF_ALLOCATOR | ADOPT,
                                          allocator.Source(), &lb));
  EXPECT_EQ(1, allocator.refs) << "adopted: no reference of its own";
  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(8)));
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(0, allocator.refs) << "the caller's reference went with the store";
  EXPECT_EQ(0, allocator.blocks);
}

TEST_F(CreateLockBytesOnMemoryTest, WritesPastTheMaximumFailAndWriteNothing) {
  for (DWORD kind : {T, H}) {
    ILockBytes* lb = nullptr;
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 100, kind | MAX, 0, &lb));
    EXPECT_EQ(0u, StatSize(lb));
    EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 95, Pattern(10)));
    EXPECT_EQ(0u, StatSize(lb));
    EXPECT_HR(S_OK, WriteBytes(lb, 90, Pattern(10)));
    EXPECT_EQ(100u, StatSize(lb));
    EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 100, Pattern(1)));
    EXPECT_HR(STG_E_MEDIUMFULL, lb->SetSize(U(101)));
    EXPECT_EQ(Pattern(10), ReadAll(lb, 10, 90));
    EXPECT_EQ(0u, lb->Release());
  }
}

TEST_F(CreateLockBytesOnMemoryTest, AStoreOverACallersTaskBlockTakesItOver) {
  DebugOutputCapture capture;
  void* block = CoTaskMemAlloc(10);
  std::memcpy(block, "0123456789", 10);
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(block, 0, T, 0, &lb));
  EXPECT_EQ(10u, StatSize(lb)) << "the block's own size";
  EXPECT_EQ(std::vector<BYTE>({'3', '4'}), ReadAll(lb, 2, 3));
  ASSERT_HR(S_OK, WriteBytes(lb, 10, {'A'}));
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(0, m_spy.Outstanding()) << "the store freed the block it took over";
  EXPECT_THAT(capture.Assertions(), IsEmpty()) << "a block taken over is one of the allocator's";

  // With NOFREE the block stays the caller's.
  block = CoTaskMemAlloc(4);
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(block, 0, T | NOFREE, 0, &lb));
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(1, m_spy.Outstanding());
  CoTaskMemFree(block);
  EXPECT_THAT(capture.Assertions(), IsEmpty());
}

TEST_F(CreateLockBytesOnMemoryTest, ACallersMallocIsUsedLazilyAndReferencedAsAsked) {
  CountingMalloc malloc;
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, T, reinterpret_cast<ULONG_PTR>(&malloc), &lb));
  EXPECT_EQ(2u, malloc.refs);
  EXPECT_EQ(0, malloc.calls) << "nothing asked before the first write";
  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(3)));
  EXPECT_EQ(1, malloc.calls);
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(1u, malloc.refs);
  EXPECT_EQ(2, malloc.calls) << "the buffer is freed through it";

  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, T | ADOPT, reinterpret_cast<ULONG_PTR>(&malloc), &lb));
  EXPECT_EQ(1u, malloc.refs) << "adopted";
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(0u, malloc.refs);
}

TEST_F(CreateLockBytesOnMemoryTest, PrivateHeapsComeWithTheFirstWriteAndGoWithTheStore) {
  const DWORD before = HeapCount();
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, H, 0, &lb));
  EXPECT_EQ(before, HeapCount()) << "no heap before the first allocation";
  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(5000)));
  EXPECT_EQ(before + 1, HeapCount());
  EXPECT_EQ(Pattern(5000), ReadAll(lb, 5000));
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(before, HeapCount());
}

TEST_F(CreateLockBytesOnMemoryTest, ACallersHeapIsDestroyedOnlyWhenAdopted) {
  for (bool adopt : {false, true}) {
    SCOPED_TRACE(adopt ? "adopted" : "not adopted");
    HANDLE heap = HeapCreate(0, 0, 0);
    ILockBytes* lb = nullptr;
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, H | (adopt ? ADOPT : 0),
                                            reinterpret_cast<ULONG_PTR>(heap), &lb));
    ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(64)));
    EXPECT_EQ(0u, lb->Release());
    EXPECT_EQ(!adopt, HeapExists(heap));
    if (!adopt) {
      EXPECT_TRUE(HeapValidate(heap, 0, nullptr)) << "the heap stays usable";
      HeapDestroy(heap);
    }
  }
}

TEST_F(CreateLockBytesOnMemoryTest, AStoreOverABlockOfACallersHeapFreesItThere) {
  HANDLE heap = HeapCreate(0, 0, 0);
  void* block = HeapAlloc(heap, 0, 24);
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(block, 0, H, reinterpret_cast<ULONG_PTR>(heap), &lb));
  EXPECT_EQ(24u, StatSize(lb));
  EXPECT_EQ(0u, lb->Release());
  PROCESS_HEAP_ENTRY entry = {};
  int busy = 0;
  while (HeapWalk(heap, &entry))
    busy += (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0;
  EXPECT_EQ(0, busy) << "the block went back to its heap";
  HeapDestroy(heap);
}

TEST_F(CreateLockBytesOnMemoryTest, ABlockOfUnknownSizeIsRefused) {
  // Left to us by the contract: the allocator cannot tell the size of a block
  // of a private heap that does not exist yet, and a store must never claim
  // more bytes than its block holds.
  BYTE notAHeapBlock[8];
  ILockBytes* lb = kUntouched;
  EXPECT_HR(E_INVALIDARG, CreateLockBytesOnMemory(notAHeapBlock, 0, H, 0, &lb));
  EXPECT_EQ(nullptr, lb);
}

TEST_F(CreateLockBytesOnMemoryTest, ABufferLeftBehindByNoFreeIsReportedWithItsHeap) {
  DebugOutputCapture capture;
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, H | NOFREE, 0, &lb));
  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(8)));
  EXPECT_EQ(0u, lb->Release()) << "completes all the same";
  EXPECT_THAT(capture.Assertions(), ElementsAre(kBlocksOutstandingReport));
}

TEST_F(CreateLockBytesOnMemoryTest, AFixedStoreWorksInTheCallersBufferAndNeverFreesIt) {
  std::vector<BYTE> buffer(16, 0);
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(buffer.data(), 16, F, 0, &lb));
  ASSERT_HR(S_OK, WriteBytes(lb, 14, {7, 8}));
  EXPECT_EQ(7, buffer[14]);
  EXPECT_EQ(8, buffer[15]);
  EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 15, {1, 2}));
  EXPECT_EQ(8, buffer[15]);
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(7, buffer[14]);
}

TEST_F(CreateLockBytesOnMemoryTest, BlockListTransfersCrossBoundariesAndStartAtBlockEnds) {
  std::vector<BYTE> a(3, 0), b(5, 0), c(4, 0), unused(4, 0xAA);
  LOCKBYTESBLOCK blocks[] = {{3, a.data()}, {5, b.data()}, {4, c.data()}, {4, unused.data()}};
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(blocks, 10, B, 0, &lb));
  EXPECT_EQ(10u, StatSize(lb)) << "the array is longer than si; the third block reaches it";

  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(10)));
  const std::vector<BYTE> all = Pattern(10);
  EXPECT_EQ(std::vector<BYTE>(all.begin(), all.begin() + 3), a);
  EXPECT_EQ(std::vector<BYTE>(all.begin() + 3, all.begin() + 8), b);
  EXPECT_EQ(std::vector<BYTE>({all[8], all[9], 0, 0}), c);
  EXPECT_EQ(std::vector<BYTE>(4, 0xAA), unused) << "blocks past si are never touched";

  // Starting exactly at a block's end takes nothing from that block.
  EXPECT_EQ(std::vector<BYTE>(all.begin() + 3, all.begin() + 9), ReadAll(lb, 6, 3));
  ASSERT_HR(S_OK, WriteBytes(lb, 8, {0x51, 0x52}));
  EXPECT_EQ(0x51, c[0]);
  ASSERT_HR(S_OK, WriteBytes(lb, 2, {0x61, 0x62}));
  EXPECT_EQ(0x61, a[2]);
  EXPECT_EQ(0x62, b[0]);

  // The store's end is si, not the end of the third block.
  EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 9, {1, 2}));
  EXPECT_EQ(0, c[2]);
  EXPECT_HR(S_OK, lb->SetSize(U(4)));
  EXPECT_EQ(std::vector<BYTE>({all[0], all[1], 0x61, 0x62}), ReadAll(lb, 4));
  EXPECT_HR(S_OK, lb->SetSize(U(10)));
  EXPECT_EQ(0u, lb->Release());
}
