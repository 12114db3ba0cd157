// CreateStreamOnLockBytes over a counting lock-bytes of the test's own: what
// the stream asks of its lock-bytes, when it flushes, and that the lock-bytes'
// failures come back unchanged.
#include "StoreTestSupport.h"

using namespace storetest;

namespace {

constexpr HRESULT kLockAnswer = 0x00030201, kUnlockAnswer = 0x00030202;  // passed on unchanged

// Has a size of 42, says it does not lock, fails every flush (which the stream
// must not care about) and fails Stat, transfers and SetSize when told to.
class CountingLockBytes : public ILockBytes, public IThreadingInfo {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = iid == IID_IUnknown || iid == IID_ILockBytes ? static_cast<ILockBytes*>(this) : nullptr;
    if (iid == IID_IThreadingInfo && answersThreading) *ppv = static_cast<IThreadingInfo*>(this);
    return *ppv ? AddRef(), S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP ReadAt(ULARGE_INTEGER, void*, ULONG cb, ULONG* n) override {
    return Transfer(cb, n);
  }
  STDMETHODIMP WriteAt(ULARGE_INTEGER, const void*, ULONG cb, ULONG* n) override {
    return Transfer(cb, n);
  }
  STDMETHODIMP Flush() override { return ++flushes, E_FAIL; }
  STDMETHODIMP SetSize(ULARGE_INTEGER) override { return failure; }
  STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return kLockAnswer; }
  STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return kUnlockAnswer;
  }
  STDMETHODIMP Stat(STATSTG* stat, DWORD) override {
    *stat = STATSTG{};
    stat->cbSize.QuadPart = 42;
    return statFailure;
  }
  STDMETHODIMP GetThreadingModel(DWORD* model) override { return ++answers, *model = 0, S_OK; }
  HRESULT Transfer(ULONG cb, ULONG* count) {
    if (count) *count = FAILED(failure) ? 0 : cb;
    return failure;
  }

  ULONG refs = 1;
  int flushes = 0, answers = 0;
  bool answersThreading = true;
  HRESULT failure = S_OK, statFailure = S_OK;
};

class StreamOnLockBytesTest : public LeakCheckedTest {
 protected:
  ULONGLONG PositionOf(DWORD origin = STREAM_SEEK_CUR) {
    ULARGE_INTEGER at = U(kSentinel);
    EXPECT_HR(S_OK, stream->Seek(L(0), origin, &at));
    return at.QuadPart;
  }
  CountingLockBytes lb;
  IStream* stream = nullptr;
};

}  // namespace

// The threading model is asked for once, and the given reference returned; the
// stream locks as the caller's flags say, whatever the lock-bytes answered.
TEST_F(StreamOnLockBytesTest, TakesItsEndFromTheLockBytesAndItsFormFromTheCallersFlags) {
  stream = reinterpret_cast<IStream*>(ULONG_PTR(kSentinel));
  for (DWORD flags : {1ul, DWORD(QVCLBOMF_TASKALLOCATOR), 0x200ul, 0x80000000ul}) {
    EXPECT_HR(E_INVALIDARG, CreateStreamOnLockBytes(&lb, flags, &stream)) << flags;
    EXPECT_EQ(kSentinel, reinterpret_cast<ULONG_PTR>(stream)) << "refused before any work";
  }
  EXPECT_HR(E_POINTER, CreateStreamOnLockBytes(nullptr, 0, &stream));
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, 0, &stream));
  EXPECT_EQ(1, lb.answers);
  EXPECT_EQ(2u, lb.refs);
  EXPECT_EQ(3u, ThreadingModelOf(stream));
  EXPECT_EQ(42u, PositionOf(STREAM_SEEK_END));
  EXPECT_EQ(0u, stream->Release());
  lb.answersThreading = false;
  lb.statFailure = STG_E_ACCESSDENIED;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, QVCLBOMF_NOLOCK, &stream));
  EXPECT_EQ(0u, ThreadingModelOf(stream));
  EXPECT_EQ(0u, PositionOf(STREAM_SEEK_END)) << "a lock-bytes that cannot say ends at 0";
  STATSTG stat;
  EXPECT_HR(STG_E_ACCESSDENIED, stream->Stat(&stat, STATFLAG_NONAME));
  EXPECT_EQ(0u, stream->Release());
  EXPECT_HR(E_POINTER, CreateStreamOnLockBytes(&lb, 0, nullptr));
  EXPECT_EQ(1u, lb.refs);
}

TEST_F(StreamOnLockBytesTest, FlushesAtEachStreamsLastReleaseAndOnCommitUnlessOnlyToTheDiskCache) {
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, QVCLBOMF_NOLOCK, &stream));
  EXPECT_EQ(2u, stream->AddRef());
  EXPECT_EQ(1u, stream->Release());
  EXPECT_HR(S_OK, stream->Commit(STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE));
  EXPECT_HR(S_OK, stream->Commit(STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE | STGC_OVERWRITE));
  EXPECT_EQ(0, lb.flushes);
  EXPECT_HR(S_OK, stream->Commit(STGC_DEFAULT)) << "the flush's own failure is ignored";
  EXPECT_EQ(1, lb.flushes);
  IStream* clone = nullptr;
  ASSERT_HR(S_OK, stream->Clone(&clone));
  EXPECT_EQ(3u, lb.refs);
  EXPECT_EQ(0u, stream->Release());
  EXPECT_EQ(2, lb.flushes);
  EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(3, lb.flushes) << "the clone flushes at its own last release";
  EXPECT_EQ(1u, lb.refs);
}

// A write after a seek past the end must extend first; a refused extension writes nothing.
TEST_F(StreamOnLockBytesTest, PassesLockBytesFailuresBackAndKeepsItsPosition) {
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, 0, &stream));
  BYTE bytes[8] = {};
  ASSERT_HR(S_OK, stream->Write(bytes, 8, nullptr));
  lb.failure = STG_E_ACCESSDENIED;
  ULONG read = kSentinel, written = kSentinel;
  EXPECT_HR(STG_E_ACCESSDENIED, stream->Read(bytes, 4, &read));
  EXPECT_HR(STG_E_ACCESSDENIED, stream->SetSize(U(100)));
  EXPECT_EQ(0u, read);
  for (ULONGLONG at : {8ull, 100ull}) {
    ASSERT_HR(S_OK, stream->Seek(L(LONGLONG(at)), STREAM_SEEK_SET, nullptr));
    EXPECT_HR(STG_E_ACCESSDENIED, stream->Write(bytes, 4, &written));
    EXPECT_EQ(0u, written);
    EXPECT_EQ(at, PositionOf());
    EXPECT_EQ(42u, PositionOf(STREAM_SEEK_END)) << "the end did not move either";
  }
  EXPECT_HR(kLockAnswer, stream->LockRegion(U(0), U(1), 0));
  EXPECT_HR(kUnlockAnswer, stream->UnlockRegion(U(0), U(1), 0));
  EXPECT_EQ(0u, stream->Release());
}
