// CreateLockBytesOnMemory (and CreateStreamOnMemory, which makes its store the
// same way): every flag rule in its order of checks, and what each kind does
// with the caller's memory, allocator, heap and references.
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
constexpr ULONG_PTR kSomeSource = 0x1234;  // only ever given to kinds that must refuse it
constexpr DWORD T = QVCLBOMF_TASKALLOCATOR, H = QVCLBOMF_PRIVATEHEAP, G = QVCLBOMF_HGLOBAL,
                F = QVCLBOMF_FIXEDBLOCK, B = QVCLBOMF_BLOCKLIST, MAX = QVCLBOMF_SIMAX,
                INIT = QVCLBOMF_SIINIT, NOFREE = QVCLBOMF_NOFREE, ADOPT = QVCLBOMF_ADOPT,
                NOLOCK = QVCLBOMF_NOLOCK;
constexpr ULONG kSize = 32;

// kBlocks: {16, 16, then an invalid entry past the size, which is never read};
// kEmptyBlock and kNullBlock spoil the second entry.
enum Memory { kNone, kBuffer, kBlocks, kEmptyBlock, kNullBlock };
// clearsOut: *pplb is set to NULL before the kind is checked; size: the new store's.
struct FlagRule {
  const char* name;
  DWORD flags;
  ULONG si;
  Memory pv;
  ULONG_PTR source;
  HRESULT expected;
  bool clearsOut;
  ULONG size;
  bool reportsSiInit;
};
const FlagRule kFlagRules[] = {
    // Refused before the out-pointer is touched.
    {"NOFREE with ADOPT", T | NOFREE | ADOPT, 0, kNone, 0, E_INVALIDARG, false},
    {"HGLOBAL, SIMAX with SIINIT", G | MAX | INIT, 0, kNone, 0, E_INVALIDARG, false},
    {"HGLOBAL, SIINIT with a size", G | INIT, 5, kNone, 0, E_INVALIDARG, false},
    {"kind 0, SIINIT with a size", INIT, 5, kNone, 0, E_INVALIDARG, false},
    {"kind 8, SIMAX with SIINIT", 8 | MAX | INIT, 0, kNone, 0, E_INVALIDARG, false},
    // Refused by kind, after the out-pointer is cleared.
    {"HGLOBAL with an allocator source", G, 0, kNone, kSomeSource, E_INVALIDARG, true},
    {"HGLOBAL with ADOPT", G | ADOPT, 0, kNone, 0, E_INVALIDARG, true},
    {"kind 0", 0, 0, kNone, 0, E_INVALIDARG, true},
    {"kind 7", 7, kSize, kBuffer, 0, E_INVALIDARG, true},
    {"kind 8", 8, 0, kNone, 0, E_INVALIDARG, true},
    {"kind 15", 15, kSize, kBuffer, 0, E_INVALIDARG, true},
    // Left to us: no heap exists yet to tell the block's size, and a store must
    // never claim more bytes than its block holds.
    {"private heap over a block of unknown size", H, 0, kBuffer, 0, E_INVALIDARG, true},
    {"fixed without a buffer", F, kSize, kNone, 0, E_INVALIDARG, true},
    {"fixed without a size", F, 0, kBuffer, 0, E_INVALIDARG, true},
    {"fixed with an allocator source", F, kSize, kBuffer, kSomeSource, E_INVALIDARG, true},
    {"fixed, SIMAX alone", F | MAX, kSize, kBuffer, 0, E_INVALIDARG, true},
    {"block list without blocks", B, kSize, kNone, 0, E_INVALIDARG, true},
    {"block list without a size", B, 0, kBlocks, 0, E_INVALIDARG, true},
    {"block list with an allocator source", B, kSize, kBlocks, kSomeSource, E_INVALIDARG, true},
    {"block list with an empty block", B, kSize, kEmptyBlock, 0, E_INVALIDARG, true},
    {"block list with a NULL block", B, kSize, kNullBlock, 0, E_INVALIDARG, true},
    // Made (the plain kinds in both forms are the typed contract's).
    {"HGLOBAL", G, 0, kNone, 0, S_OK, true, 0},
    {"HGLOBAL, unlocked", G | NOLOCK, 0, kNone, 0, S_OK, true, 0},
    {"HGLOBAL, SIMAX is ignored", G | MAX, 7, kNone, 0, S_OK, true, 0},
    {"HGLOBAL, SIINIT with size 0", G | INIT, 0, kNone, 0, S_OK, true, 0},
    {"task allocator, SIINIT", T | INIT, 100, kNone, 0, S_OK, true, 100, true},
    {"task allocator, SIMAX with SIINIT", T | MAX | INIT, 100, kNone, 0, S_OK, true, 100, true},
    {"task allocator, SIMAX with SIINIT, size 0", T | MAX | INIT, 0, kNone, 0, S_OK, true, 0},
    {"private heap, SIINIT", H | INIT, 100, kNone, 0, S_OK, true, 100, true},
    {"private heap, ADOPT of no heap", H | ADOPT, 0, kNone, 0, S_OK, true, 0},
    {"no caller allocator: the task's", QVCLBOMF_ALLOCATOR | INIT, 9, kNone, 0, S_OK, true, 9,
     true},
    {"fixed, SIINIT", F | INIT, kSize, kBuffer, 0, S_OK, true, kSize},
    {"fixed, SIMAX with SIINIT", F | MAX | INIT, kSize, kBuffer, 0, S_OK, true, kSize},
    {"fixed, NOFREE", F | NOFREE, kSize, kBuffer, 0, S_OK, true, kSize},
    {"block list, SIMAX", B | MAX, kSize, kBlocks, 0, S_OK, true, kSize},
    {"block list, SIINIT", B | INIT, kSize, kBlocks, 0, S_OK, true, kSize},
};

// A rule through the store's factory or the stream's; the stream's clears its
// out-pointer before the store is made.
template <class Out>
void ExpectFlagRule(const FlagRule& rule) {
  DebugOutputCapture capture;
  Bytes buffer(kSize, 0x11), first(16), second(16);
  LOCKBYTESBLOCK blocks[] = {{16, first.data()}, {16, second.data()}, {0, nullptr}};
  blocks[1].cb = rule.pv == kEmptyBlock ? 0 : 16;
  blocks[1].pv = rule.pv == kNullBlock ? nullptr : second.data();
  void* pv = rule.pv == kNone ? nullptr : rule.pv == kBuffer ? buffer.data() : (void*)blocks;
  Out* const untouched = reinterpret_cast<Out*>(ULONG_PTR(kSentinel));
  Out* out = untouched;
  ASSERT_HR(rule.expected, CreateOnMemory(pv, rule.si, rule.flags, rule.source, &out));
  if (FAILED(rule.expected))
    EXPECT_EQ((rule.clearsOut || std::is_same_v<Out, IStream> ? nullptr : untouched), out);
  // The HGLOBAL kind's store is the platform's own, with no IThreadingInfo.
  const bool platform = std::is_same_v<Out, ILockBytes> && (rule.flags & 0xF) == G;
  if (SUCCEEDED(rule.expected)) {
    EXPECT_EQ(rule.size, StatSize(out));
    EXPECT_EQ(platform ? kSentinel : rule.flags & NOLOCK ? 0u : 3u, ThreadingModelOf(out));
    EXPECT_EQ(0u, out->Release());
  }
  EXPECT_EQ(rule.reportsSiInit ? 1u : 0u, capture.Assertions().size());
  for (const AssertionReport& report : capture.Assertions()) EXPECT_EQ(kSiInitReport, report);
}

class CreateLockBytesOnMemoryTest : public LeakCheckedTest {
 protected:
  ILockBytes* lb = nullptr;
};

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

// A caller's memory becomes the store's: its size is the block's own, and the
// store frees it (through its own kind's allocator) unless told NOFREE.
TEST_F(CreateLockBytesOnMemoryTest, TakesOverACallersBlockUnlessNoFree) {
  DebugOutputCapture capture;
  HGLOBAL global = GlobalAlloc(GMEM_MOVEABLE, 6);
  std::memcpy(GlobalLock(global), "abcdef", 6);
  GlobalUnlock(global);
  void* task = CoTaskMemAlloc(10);
  std::memcpy(task, "abcdefghij", 10);
  for (auto [memory, flags] : {std::pair<void*, DWORD>{global, G | NOFREE}, {task, T}}) {
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(memory, 0, flags, 0, &lb));
    EXPECT_EQ(Bytes({'c', 'd'}), ReadAll(lb, 2, 2));
    ASSERT_HR(S_OK, WriteBytes(lb, StatSize(lb), {'g'}));
    EXPECT_EQ(0u, lb->Release());
  }
  EXPECT_EQ(0, m_spy.Outstanding()) << "the store freed the task block it took over";
  EXPECT_EQ(7u, GlobalSize(global)) << "NOFREE keeps the HGLOBAL, grown by the write";
  EXPECT_EQ(0, std::memcmp(GlobalLock(global), "abcdefg", 7));
  GlobalUnlock(global);
  EXPECT_EQ(nullptr, GlobalFree(global));
  task = CoTaskMemAlloc(4);
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(task, 0, T | NOFREE, 0, &lb));
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(1, m_spy.Outstanding()) << "NOFREE: the block stays the caller's";
  CoTaskMemFree(task);
  EXPECT_THAT(capture.Assertions(), IsEmpty()) << "a block taken over is one of the allocator's";
}

// One exact reallocation per append, by design; nothing before the first write.
TEST_F(CreateLockBytesOnMemoryTest, GrowableStoresGrowToExactlyTheEndOfEachWrite) {
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, T, 0, &lb));
  std::vector<SIZE_T> expected;
  for (ULONG end = 16; end <= 16000; end += 16) {
    ASSERT_HR(S_OK, WriteBytes(lb, end - 16, Pattern(16)));
    expected.push_back(end);
  }
  EXPECT_EQ(expected, m_spy.ReallocRequests());
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
    EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 100, Pattern(1)));
    EXPECT_HR(STG_E_MEDIUMFULL, lb->SetSize(U(101)));
    EXPECT_EQ(Pattern(10), ReadAll(lb, 20, 90));
    EXPECT_EQ(0u, lb->Release());
  }
}

// Adopted: the store takes the caller's reference instead of one of its own.
// The allocator's bytes are not cleared, and a failed growth changes nothing.
TEST_F(CreateLockBytesOnMemoryTest, ACallersAllocatorOrMallocIsReferencedAsAsked) {
  for (bool adopt : {false, true}) {
    SCOPED_TRACE(adopt);
    TestAllocator allocator;
    const DWORD flags = QVCLBOMF_ALLOCATOR | (adopt ? ADOPT : 0);
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, flags, allocator.Source(), &lb));
    EXPECT_EQ(adopt ? 1 : 2, allocator.refs);
    ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(4)));
    ASSERT_HR(S_OK, WriteBytes(lb, 10, Pattern(2, 9)));
    EXPECT_EQ(Bytes(6, 0xCD), ReadAll(lb, 6, 4));
    allocator.refuseAbove = 100;
    EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 99, Pattern(2)));
    EXPECT_THAT(allocator.sizes, ElementsAre(4u, 12u, 101u));
    EXPECT_EQ(Pattern(4), ReadAll(lb, 4));
    EXPECT_EQ(12u, StatSize(lb));
    EXPECT_HR(S_OK, lb->SetSize(U(0)));
    EXPECT_EQ(0, allocator.blocks);
    EXPECT_EQ(0u, lb->Release());
    EXPECT_EQ(adopt ? 0 : 1, allocator.refs);
    // A caller's IMalloc for the task kind: asked for nothing before the first write.
    xktest::FakeMalloc malloc;
    const ULONG_PTR source = reinterpret_cast<ULONG_PTR>(static_cast<IMalloc*>(&malloc));
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, T | (adopt ? ADOPT : 0), source, &lb));
    EXPECT_EQ(adopt ? 1u : 2u, malloc.refs);
    EXPECT_EQ(0, malloc.calls);
    ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(3)));
    EXPECT_EQ(0u, lb->Release());
    EXPECT_EQ(2, malloc.calls) << "allocated and freed through it";
    EXPECT_EQ(adopt ? 0u : 1u, malloc.refs);
  }
}

TEST_F(CreateLockBytesOnMemoryTest, ABufferLeftBehindByNoFreeIsReportedWithItsHeap) {
  DebugOutputCapture capture;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, H | NOFREE, 0, &lb));
  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(8)));
  EXPECT_EQ(0u, lb->Release()) << "completes all the same";
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MLAtor", 200, "m_cAllocs == 0"}));
}
