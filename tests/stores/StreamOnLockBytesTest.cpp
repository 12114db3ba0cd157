// CreateStreamOnLockBytes over a counting lock-bytes of the test's own: what
// the stream asks of its lock-bytes, when it flushes, and that the lock-bytes'
// failures come back unchanged.
#include "StoreTestSupport.h"

using namespace storetest;

namespace {

constexpr HRESULT kLockAnswer = 0x00030201, kUnlockAnswer = 0x00030202;  // passed on unchanged

// A lock-bytes that counts what it is asked and can be told to fail.
class CountingLockBytes : public ILockBytes, public IThreadingInfo {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = nullptr;
    if (iid == IID_IUnknown || iid == IID_ILockBytes) *ppv = static_cast<ILockBytes*>(this);
    if (iid == IID_IThreadingInfo && answersThreading) *ppv = static_cast<IThreadingInfo*>(this);
    threadingQueries += iid == IID_IThreadingInfo;
    if (!*ppv) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP ReadAt(ULARGE_INTEGER, void*, ULONG cb, ULONG* pcbRead) override { return Transfer(cb, pcbRead); }
  STDMETHODIMP WriteAt(ULARGE_INTEGER, const void*, ULONG cb, ULONG* pcb) override { return Transfer(cb, pcb); }
  STDMETHODIMP Flush() override {
    ++flushes;
    return E_FAIL;  // the stream must not care
  }
  STDMETHODIMP SetSize(ULARGE_INTEGER) override { return failure; }
  STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return kLockAnswer; }
  STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return kUnlockAnswer; }
  STDMETHODIMP Stat(STATSTG* stat, DWORD) override {
    *stat = STATSTG{};
    stat->type = STGTY_LOCKBYTES;
    stat->cbSize.QuadPart = 42;
    return statFailure;
  }
  STDMETHODIMP GetThreadingModel(DWORD* model) override {
    ++threadingAnswers;
    *model = 0;  // says it does not lock; the stream's form is the caller's choice all the same
    return S_OK;
  }

  ULONG refs = 1;
  int flushes = 0, threadingQueries = 0, threadingAnswers = 0;
  bool answersThreading = true;
  HRESULT failure = S_OK, statFailure = S_OK;

 private:
  HRESULT Transfer(ULONG cb, ULONG* count) {
    if (count) *count = FAILED(failure) ? 0 : cb;
    return failure;
  }
};

class StreamOnLockBytesTest : public LeakCheckedTest {
 protected:
  CountingLockBytes lb;
  IStream* stream = nullptr;
};

ULONGLONG PositionOf(IStream* stream, DWORD origin = STREAM_SEEK_CUR) {
  ULARGE_INTEGER at = U(kSentinel);
  EXPECT_HR(S_OK, stream->Seek(L(0), origin, &at));
  return at.QuadPart;
}

}  // namespace

TEST_F(StreamOnLockBytesTest, RefusesFlagsOtherThanNoLockAndNullPointers) {
  stream = reinterpret_cast<IStream*>(static_cast<ULONG_PTR>(kSentinel));
  for (DWORD flags : {DWORD(1), DWORD(QVCLBOMF_TASKALLOCATOR), DWORD(0x200), DWORD(0x80000000)}) {
    EXPECT_HR(E_INVALIDARG, CreateStreamOnLockBytes(&lb, flags, &stream)) << flags;
    EXPECT_EQ(kSentinel, reinterpret_cast<ULONG_PTR>(stream)) << "refused before any work";
  }
  EXPECT_HR(E_POINTER, CreateStreamOnLockBytes(nullptr, 0, &stream));
  EXPECT_HR(E_POINTER, CreateStreamOnLockBytes(&lb, 0, nullptr));
  EXPECT_EQ(1u, lb.refs);
  EXPECT_EQ(0, lb.flushes);
}

TEST_F(StreamOnLockBytesTest, AsksTheThreadingModelAndTheEndButFollowsTheCallersFlags) {
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, 0, &stream));
  EXPECT_EQ(1, lb.threadingQueries);
  EXPECT_EQ(1, lb.threadingAnswers);
  EXPECT_EQ(2u, lb.refs) << "the stream holds one reference, the query's is given back";
  EXPECT_EQ(3u, ThreadingModelOf(stream)) << "locked, although the lock-bytes said 0";
  EXPECT_EQ(42u, PositionOf(stream, STREAM_SEEK_END)) << "the end is the lock-bytes' size";
  EXPECT_EQ(0u, stream->Release());

  lb.answersThreading = false;
  lb.statFailure = STG_E_ACCESSDENIED;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, QVCLBOMF_NOLOCK, &stream));
  EXPECT_EQ(0u, ThreadingModelOf(stream));
  EXPECT_EQ(0u, PositionOf(stream, STREAM_SEEK_END)) << "a lock-bytes that cannot say ends at 0";
  STATSTG stat;
  EXPECT_HR(STG_E_ACCESSDENIED, stream->Stat(&stat, STATFLAG_NONAME));
  EXPECT_EQ(0u, stream->Release());
  EXPECT_EQ(1u, lb.refs);
}

TEST_F(StreamOnLockBytesTest, FlushesAtEachStreamsLastReleaseAndOnCommitUnlessOnlyToTheDiskCache) {
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, QVCLBOMF_NOLOCK, &stream));
  stream->AddRef();
  EXPECT_EQ(1u, stream->Release());
  EXPECT_HR(S_OK, stream->Commit(STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE));
  EXPECT_HR(S_OK, stream->Commit(STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE | STGC_OVERWRITE));
  EXPECT_EQ(0, lb.flushes) << "not before the last release, nor for the disk cache";
  EXPECT_HR(S_OK, stream->Commit(STGC_DEFAULT)) << "the flush's own failure is ignored";
  EXPECT_EQ(1, lb.flushes);

  IStream* clone = nullptr;
  ASSERT_HR(S_OK, stream->Clone(&clone));
  EXPECT_EQ(3u, lb.refs);
  EXPECT_EQ(0u, stream->Release());
  EXPECT_EQ(2, lb.flushes) << "nothing written, flushed all the same";
  EXPECT_EQ(2u, lb.refs);
  EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(3, lb.flushes) << "the clone flushes at its own last release";
  EXPECT_EQ(1u, lb.refs);
}

TEST_F(StreamOnLockBytesTest, PassesLockBytesFailuresBackAndKeepsItsPosition) {
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, 0, &stream));
  BYTE bytes[8] = {};
  ASSERT_HR(S_OK, stream->Write(bytes, 8, nullptr));
  EXPECT_EQ(8u, PositionOf(stream));

  lb.failure = STG_E_ACCESSDENIED;
  ULONG read = kSentinel, written = kSentinel;
  EXPECT_HR(STG_E_ACCESSDENIED, stream->Read(bytes, 4, &read));
  EXPECT_HR(STG_E_ACCESSDENIED, stream->Write(bytes, 4, &written));
  EXPECT_EQ(0u, read | written);
  EXPECT_HR(STG_E_ACCESSDENIED, stream->SetSize(U(100)));
  EXPECT_EQ(8u, PositionOf(stream));
  EXPECT_EQ(42u, PositionOf(stream, STREAM_SEEK_END)) << "the end did not move either";

  // Writing after a seek past the end must extend first; a refused extension writes nothing.
  ASSERT_HR(S_OK, stream->Seek(L(100), STREAM_SEEK_SET, nullptr));
  written = kSentinel;
  EXPECT_HR(STG_E_ACCESSDENIED, stream->Write(bytes, 4, &written));
  EXPECT_EQ(0u, written);
  EXPECT_EQ(100u, PositionOf(stream));
  EXPECT_HR(kLockAnswer, stream->LockRegion(U(0), U(1), 0));
  EXPECT_HR(kUnlockAnswer, stream->UnlockRegion(U(0), U(1), 0));
  EXPECT_EQ(0u, stream->Release());
}
