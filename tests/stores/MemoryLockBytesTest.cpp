// CreateLockBytesOnMemory (and CreateStreamOnMemory, which makes its store the
// same way): every flag rule in its order of checks, and what each kind does
// with the caller's memory, allocator, heap and references; ISaveToFile on a
// real file; CreateStreamOnLockBytes over a counting lock-bytes.
#include "DebugOutput.h"
#include "FakeMalloc.h"
#include "StoreTestSupport.h"

using xktest::AssertionReport;
using xktest::DebugOutputCapture;
using namespace storetest;

namespace {

const AssertionReport kSiInitReport{"MOMemLkB", 1370, "(flags & QVCLBOMF_SIINIT) == 0 || si == 0"};
constexpr ULONG_PTR kSomeSource = 0x1234;  // only ever given to kinds that must refuse it
constexpr DWORD T = QVCLBOMF_TASKALLOCATOR, H = QVCLBOMF_PRIVATEHEAP, G = QVCLBOMF_HGLOBAL,
                F = QVCLBOMF_FIXEDBLOCK, B = QVCLBOMF_BLOCKLIST, A = QVCLBOMF_ALLOCATOR,
                MAX = QVCLBOMF_SIMAX, INIT = QVCLBOMF_SIINIT, NOFREE = QVCLBOMF_NOFREE,
                ADOPT = QVCLBOMF_ADOPT, SPARE = QVCLBOMF_SPARE;
constexpr ULONG kSize = 32;

// kBlocks: {16, 16, then an invalid entry past the size, which is never read};
// kEmptyBlock spoils the second entry.
enum Memory { kNone, kBuffer, kBlocks, kEmptyBlock };
// clearsOut: *pplb is set to NULL before the kind is checked.
struct FlagRule {
  const char* name;
  DWORD flags;
  ULONG si;
  Memory pv;
  ULONG_PTR source;
  HRESULT expected;
  bool clearsOut, reportsSiInit;
};
const FlagRule kFlagRules[] = {
    // Refused before the out-pointer is touched, whatever the kind.
    {"NOFREE with ADOPT", T | NOFREE | ADOPT, 0, kNone, 0, E_INVALIDARG, false},
    {"HGLOBAL, SIMAX with SIINIT", G | MAX | INIT, 0, kNone, 0, E_INVALIDARG, false},
    {"kind 0, SIINIT with a size", INIT, 5, kNone, 0, E_INVALIDARG, false},
    // Refused by kind, after the out-pointer is cleared.
    {"HGLOBAL with an allocator source", G, 0, kNone, kSomeSource, E_INVALIDARG, true},
    {"HGLOBAL with ADOPT", G | ADOPT, 0, kNone, 0, E_INVALIDARG, true},
    {"kind 0", 0, 0, kNone, 0, E_INVALIDARG, true},
    {"kind 7", 7, kSize, kBuffer, 0, E_INVALIDARG, true},
    // Left to us: no heap exists yet to tell the block's size, and a store must
    // never claim more bytes than its block holds.
    {"private heap over a block of unknown size", H, 0, kBuffer, 0, E_INVALIDARG, true},
    {"fixed without a buffer", F, kSize, kNone, 0, E_INVALIDARG, true},
    {"fixed without a size", F, 0, kBuffer, 0, E_INVALIDARG, true},
    {"fixed with an allocator source", F, kSize, kBuffer, kSomeSource, E_INVALIDARG, true},
    {"fixed, SIMAX alone", F | MAX, kSize, kBuffer, 0, E_INVALIDARG, true},
    {"block list with an empty block", B, kSize, kEmptyBlock, 0, E_INVALIDARG, true},
    {"HGLOBAL with SPARE", G | SPARE, 0, kNone, 0, E_INVALIDARG, true},
    {"fixed with SPARE", F | SPARE, kSize, kBuffer, 0, E_INVALIDARG, true},
    {"block list with SPARE", B | SPARE, kSize, kBlocks, 0, E_INVALIDARG, true},
    // Made (the plain kinds in both forms are the typed contract's).
    {"HGLOBAL, SIMAX is ignored", G | MAX, 7, kNone, 0, S_OK, true},
    {"HGLOBAL, SIINIT with size 0", G | INIT, 0, kNone, 0, S_OK, true},
    {"task allocator, SIMAX with SIINIT", T | MAX | INIT, 100, kNone, 0, S_OK, true, true},
    {"no allocator: the task's", A | INIT, 9, kNone, 0, S_OK, true, true},
    {"fixed, SIMAX with SIINIT", F | MAX | INIT, kSize, kBuffer, 0, S_OK, true},
    {"block list, SIMAX", B | MAX, kSize, kBlocks, 0, S_OK, true},
    {"private heap, SPARE", H | SPARE, 0, kNone, 0, S_OK, true},
};

// A rule through the store's factory or the stream's; the stream's clears its
// out-pointer before the store is made.
template <class Out>
void ExpectFlagRule(const FlagRule& rule) {
  DebugOutputCapture capture;
  BYTE buffer[kSize];
  LOCKBYTESBLOCK blocks[] = {
      {16, buffer}, {rule.pv == kEmptyBlock ? 0u : 16u, buffer + 16}, {0, nullptr}};
  void* pv = rule.pv == kNone ? nullptr : rule.pv == kBuffer ? buffer : (void*)blocks;
  Out* const untouched = reinterpret_cast<Out*>(ULONG_PTR(kSentinel));
  Out* out = untouched;
  ASSERT_HR(rule.expected, CreateOnMemory(pv, rule.si, rule.flags, rule.source, &out));
  if (FAILED(rule.expected))
    EXPECT_EQ((rule.clearsOut || std::is_same_v<Out, IStream> ? nullptr : untouched), out);
  // The HGLOBAL kind's store is the platform's own, with no IThreadingInfo.
  const bool platform = std::is_same_v<Out, ILockBytes> && (rule.flags & 0xF) == G;
  if (SUCCEEDED(rule.expected)) {
    EXPECT_EQ((rule.flags & 0xF) == G ? 0 : rule.si, StatSize(out)) << "HGLOBAL ignores si";
    EXPECT_EQ(platform ? kSentinel : 3u, ThreadingModelOf(out));
    EXPECT_EQ(0u, out->Release());
  }
  EXPECT_EQ(rule.reportsSiInit ? 1u : 0u, capture.Assertions().size());
  for (const AssertionReport& report : capture.Assertions()) EXPECT_EQ(kSiInitReport, report);
}

class CreateLockBytesOnMemoryTest : public LeakCheckedTest {
 protected:
  ILockBytes* lb = nullptr;
};

TEST_F(CreateLockBytesOnMemoryTest, FollowsEveryFlagRuleInItsOrder) {
  for (const FlagRule& rule : kFlagRules) {
    SCOPED_TRACE(rule.name);
    ExpectFlagRule<ILockBytes>(rule);
    ExpectFlagRule<IStream>(rule);
  }
}

// One exact reallocation per append, by design, or with SPARE one per doubling
// up to the maximum; nothing before the first write, nor for a write past the
// maximum, which fails whole. SPARE shrinks without reallocating, and every
// answer follows the size, never the buffer.
TEST_F(CreateLockBytesOnMemoryTest, GrowableStoresGrowToExactlyTheEndOfEachWriteUpToTheMaximum) {
  for (const DWORD flags : {T | MAX, T | MAX | SPARE}) {
    SCOPED_TRACE(flags);
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 1000, flags, 0, &lb));
    std::vector<SIZE_T> exact;
    for (ULONG end = 16; end <= 992; end += 16) {
      ASSERT_HR(S_OK, WriteBytes(lb, end - 16, Pattern(16, BYTE(end))));
      exact.push_back(end);
    }
    EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(lb, 992, Pattern(16)));
    const std::vector<SIZE_T> doubling = {64, 128, 256, 512, 1000};
    EXPECT_EQ(flags & SPARE ? doubling : exact, m_spy.ReallocRequests());
    ASSERT_HR(S_OK, lb->SetSize(U(20)));
    EXPECT_EQ(20u, StatSize(lb));
    EXPECT_EQ(Bytes({32, 39, 46, 53}), ReadAll(lb, 8, 16)) << "up to the size only";
    EXPECT_EQ((flags & SPARE ? doubling.size() : exact.size() + 1), m_spy.ReallocRequests().size());
    EXPECT_EQ(1, m_spy.Outstanding()) << "one buffer";
    ASSERT_HR(S_OK, lb->SetSize(U(0)));
    EXPECT_EQ(0, m_spy.Outstanding()) << "size 0 frees the buffer";
    EXPECT_EQ(0u, lb->Release());
    m_spy.ClearRequests();
  }
}

// A caller's block is freed with the store unless NOFREE; the store holds its own
// reference to a caller's IAllocator or IMalloc unless ADOPT hands it the caller's.
TEST_F(CreateLockBytesOnMemoryTest, TakesOverACallersBlockAllocatorOrMallocAsAsked) {
  DebugOutputCapture capture;
  enum From { kBlock, kAllocator, kMalloc };
  const std::pair<DWORD, From> kRows[] = {{T, kBlock},     {T | NOFREE, kBlock},
                                          {A, kAllocator}, {A | ADOPT, kAllocator},
                                          {T, kMalloc},    {T | ADOPT, kMalloc}};
  for (const auto& row : kRows) {
    const auto [flags, from] = row;
    SCOPED_TRACE(&row - kRows);
    TestAllocator allocator;
    xktest::FakeMalloc malloc;
    void* block = from == kBlock ? CoTaskMemAlloc(4) : nullptr;
    const ULONG_PTR source = from == kAllocator ? ULONG_PTR(&allocator.itf)
                             : from == kMalloc  ? ULONG_PTR(static_cast<IMalloc*>(&malloc))
                                                : 0;
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(block, 0, flags, source, &lb));
    const LONG held = flags & ADOPT ? 1 : 2;
    EXPECT_EQ(from == kAllocator ? held : 1, allocator.refs);
    EXPECT_EQ(from == kMalloc ? held : 1, LONG(malloc.refs));
    EXPECT_EQ(0, malloc.calls) << "asked for nothing before the first write";
    ASSERT_HR(S_OK, WriteBytes(lb, StatSize(lb), Pattern(3)));
    EXPECT_EQ(0u, lb->Release());
    EXPECT_EQ(from == kAllocator ? held - 1 : 1, allocator.refs);
    EXPECT_EQ(from == kMalloc ? held - 1 : 1, LONG(malloc.refs));
    EXPECT_EQ(from == kMalloc ? 2 : 0, malloc.calls) << "allocated and freed through it";
    EXPECT_EQ(0, allocator.blocks);
    EXPECT_EQ(flags & NOFREE ? 1 : 0, m_spy.Outstanding())
        << "NOFREE: the block stays the caller's";
    if (flags & NOFREE) CoTaskMemFree(block);
  }
  EXPECT_EQ(0u, capture.Assertions().size()) << "a block taken over is one of the allocator's";
}

// ISaveToFile: the private heaps' stores hold "hello", the task allocator's nothing; the
// fixed store's memory cannot be read, so it opens its file and then fails to write.
struct Save {
  DWORD kind;
  const char *before, *after;  // the file's contents, nullptr for no file
  DWORD disposition;
  HRESULT expected;
};
const Save kSaves[] = {
    {H, nullptr, "hello", CREATE_NEW, S_OK},
    {H | QVCLBOMF_SPARE, nullptr, "hello", CREATE_NEW, S_OK},  // the size, not the buffer
    {H, "was here", "was here", CREATE_NEW, HRESULT_FROM_WIN32(ERROR_FILE_EXISTS)},
    {H, nullptr, nullptr, OPEN_EXISTING, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)},
    {QVCLBOMF_TASKALLOCATOR, "old contents", "", CREATE_ALWAYS, S_OK},
    {QVCLBOMF_BLOCKLIST, nullptr, nullptr, CREATE_ALWAYS, E_NOTIMPL},
    {F, nullptr, nullptr, CREATE_NEW, HRESULT_FROM_WIN32(ERROR_INVALID_USER_BUFFER)},
};

std::string Contents(const std::wstring& name) {
  FILE* file = _wfopen(name.c_str(), L"rb");
  char bytes[64];
  const size_t read = file ? fread(bytes, 1, sizeof bytes, file) : 0;
  return file ? (fclose(file), std::string(bytes, read)) : "<absent>";
}

TEST_F(CreateLockBytesOnMemoryTest, SaveToFileWritesTheBytesOrReportsWhyAndDeletesOnlyAFileItMade) {
  wchar_t temp[MAX_PATH];
  ASSERT_NE(0u, GetTempPathW(MAX_PATH, temp));
  const std::wstring name = temp + (L"xkstores-" + std::to_wstring(GetCurrentProcessId()));
  void* unreadable = VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_NOACCESS);
  BYTE bytes[4] = {};
  LOCKBYTESBLOCK blocks[2] = {{2, bytes}, {2, bytes + 2}};
  for (const Save& row : kSaves) {
    SCOPED_TRACE(&row - kSaves);
    if (FILE* file = row.before ? _wfopen(name.c_str(), L"wb") : nullptr)
      fputs(row.before, file), fclose(file);
    void* pv = row.kind == F ? unreadable : row.kind == QVCLBOMF_BLOCKLIST ? blocks : nullptr;
    ILockBytes* lb = nullptr;
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(pv, pv ? 4 : 0, row.kind, 0, &lb));
    if ((row.kind & QVCLBOMF_TYPEMASK) == H) WriteBytes(lb, 0, {'h', 'e', 'l', 'l', 'o'});
    ISaveToFile* saver = nullptr;
    ASSERT_HR(S_OK, lb->QueryInterface(IID_ISaveToFile, reinterpret_cast<void**>(&saver)));
    EXPECT_HR(row.expected, saver->SaveToFile(name.c_str(), row.disposition, 0));
    EXPECT_EQ(1u, saver->Release());
    EXPECT_EQ(0u, lb->Release());
    EXPECT_EQ(row.after ? row.after : "<absent>", Contents(name));
    DeleteFileW(name.c_str());
  }
  VirtualFree(unreadable, 0, MEM_RELEASE);
}

// Says it does not lock, fails every flush (which the stream must not care
// about) and fails transfers, SetSize and Stat.
constexpr HRESULT kFailure = STG_E_ACCESSDENIED;

class CountingLockBytes : public ILockBytes {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = iid == IID_IUnknown || iid == IID_ILockBytes ? this : nullptr;
    return *ppv ? AddRef(), S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP ReadAt(ULARGE_INTEGER, void*, ULONG, ULONG* n) override { return *n = 0, kFailure; }
  STDMETHODIMP WriteAt(ULARGE_INTEGER, const void*, ULONG, ULONG* n) override {
    return *n = 0, kFailure;
  }
  STDMETHODIMP Flush() override { return ++flushes, E_FAIL; }
  STDMETHODIMP SetSize(ULARGE_INTEGER) override { return kFailure; }
  STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP Stat(STATSTG* stat, DWORD) override { return *stat = STATSTG{}, kFailure; }

  ULONG refs = 1, flushes = 0;
};

// Each stream flushes once at its own last release, and Commit unless only to
// the disk cache; it locks as the caller's flags say, whatever the lock-bytes can do.
TEST_F(CreateLockBytesOnMemoryTest,
       StreamOnLockBytesFlushesAtLastReleaseAndOnCommitAndPassesFailuresBack) {
  CountingLockBytes lb;
  IStream *stream = nullptr, *clone = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, 0, &stream));
  EXPECT_EQ(3u, ThreadingModelOf(stream));
  BYTE bytes[4];
  ULONG read = kSentinel, written = kSentinel;
  EXPECT_HR(kFailure, stream->Read(bytes, 4, &read));
  EXPECT_HR(kFailure, stream->Write(bytes, 4, &written));
  EXPECT_HR(kFailure, stream->SetSize(U(100)));
  EXPECT_EQ(0u, read + written);
  EXPECT_HR(S_OK, stream->Commit(STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE));
  EXPECT_EQ(0u, lb.flushes);
  EXPECT_HR(S_OK, stream->Commit(STGC_DEFAULT)) << "the flush's own failure is ignored";
  ASSERT_HR(S_OK, stream->Clone(&clone));
  EXPECT_EQ(1u, lb.flushes);
  EXPECT_EQ(0u, stream->Release());
  EXPECT_EQ(2u, lb.flushes);
  EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(3u, lb.flushes) << "the clone flushes at its own last release";
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, QVCLBOMF_NOLOCK, &stream));
  EXPECT_EQ(0u, ThreadingModelOf(stream));
  EXPECT_EQ(0u, stream->Release());
  EXPECT_EQ(1u, lb.refs);
}

}  // namespace
