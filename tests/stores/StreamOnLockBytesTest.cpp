// CreateStreamOnLockBytes and CreateStreamOnMemory over a counting lock-bytes
// of the test's own: what the stream asks of its lock-bytes, when it flushes,
// and that the lock-bytes' failures come back unchanged.
#include "StoreTestSupport.h"

using namespace storetest;

namespace {

// A lock-bytes that counts what it is asked and can be told to fail.
class CountingLockBytes : public ILockBytes, public IThreadingInfo {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (iid == IID_IUnknown || iid == IID_ILockBytes) {
      *ppv = static_cast<ILockBytes*>(this);
    } else if (iid == IID_IThreadingInfo && answersThreading) {
      ++threadingQueries;
      *ppv = static_cast<IThreadingInfo*>(this);
    } else {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }

  STDMETHODIMP ReadAt(ULARGE_INTEGER, void*, ULONG cb, ULONG* pcbRead) override {
    if (pcbRead) *pcbRead = FAILED(failure) ? 0 : cb;
    return failure;
  }
  STDMETHODIMP WriteAt(ULARGE_INTEGER, const void*, ULONG cb, ULONG* pcbWritten) override {
    if (pcbWritten) *pcbWritten = FAILED(failure) ? 0 : cb;
    return failure;
  }
  STDMETHODIMP Flush() override {
    ++flushes;
    return E_FAIL;  // the stream must not care
  }
  STDMETHODIMP SetSize(ULARGE_INTEGER) override { return failure; }
  STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return 0x00030201; }
  STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return 0x00030202; }
  STDMETHODIMP Stat(STATSTG* stat, DWORD) override {
    if (FAILED(statFailure)) return statFailure;
    *stat = STATSTG{};
    stat->type = STGTY_LOCKBYTES;
    stat->cbSize.QuadPart = size;
    return S_OK;
  }
  STDMETHODIMP GetThreadingModel(DWORD* model) override {
    ++threadingAnswers;
    *model = 0;  // says it does not lock; the stream's form is the caller's choice all the same
    return S_OK;
  }

  ULONG refs = 1;
  int flushes = 0, threadingQueries = 0, threadingAnswers = 0;
  bool answersThreading = true;
  HRESULT failure = S_OK;
  HRESULT statFailure = S_OK;
  ULONGLONG size = 42;
};

class StreamOnLockBytesTest : public LeakCheckedTest {};

DWORD ThreadingModelOf(IStream* stream) {
  IThreadingInfo* info = nullptr;
  if (FAILED(stream->QueryInterface(IID_IThreadingInfo, reinterpret_cast<void**>(&info)))) return kSentinel;
  DWORD model = kSentinel;
  info->GetThreadingModel(&model);
  info->Release();
  return model;
}

ULONGLONG PositionOf(IStream* stream, DWORD origin = STREAM_SEEK_CUR) {
  ULARGE_INTEGER at = U(kSentinel);
  EXPECT_HR(S_OK, stream->Seek(L(0), origin, &at));
  return at.QuadPart;
}

}  // namespace

TEST_F(StreamOnLockBytesTest, RefusesFlagsOtherThanNoLockAndNullPointers) {
  CountingLockBytes lb;
  IStream* stream = reinterpret_cast<IStream*>(static_cast<ULONG_PTR>(kSentinel));
  for (DWORD flags : {DWORD(1), DWORD(QVCLBOMF_TASKALLOCATOR), DWORD(0x200), DWORD(0x80000000)}) {
    EXPECT_HR(E_INVALIDARG, CreateStreamOnLockBytes(&lb, flags, &stream)) << flags;
    EXPECT_EQ(kSentinel, reinterpret_cast<ULONG_PTR>(stream)) << "refused before any work";
  }
  EXPECT_HR(E_POINTER, CreateStreamOnLockBytes(nullptr, 0, &stream));
  EXPECT_HR(E_POINTER, CreateStreamOnLockBytes(&lb, 0, nullptr));
  EXPECT_EQ(1u, lb.refs);
  EXPECT_EQ(0, lb.flushes);
}

TEST_F(StreamOnLockBytesTest, AsksTheThreadingModelButFollowsTheCallersFlags) {
  CountingLockBytes lb;
  IStream* stream = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, 0, &stream));
  EXPECT_EQ(1, lb.threadingQueries);
  EXPECT_EQ(1, lb.threadingAnswers);
  EXPECT_EQ(2u, lb.refs) << "the stream holds one reference, the query's is given back";
  EXPECT_EQ(3u, ThreadingModelOf(stream)) << "locked, although the lock-bytes said 0";
  EXPECT_EQ(0u, stream->Release());

  lb.answersThreading = false;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, QVCLBOMF_NOLOCK, &stream));
  EXPECT_EQ(0u, ThreadingModelOf(stream));
  EXPECT_EQ(0u, stream->Release());
  EXPECT_EQ(1u, lb.refs);
}

TEST_F(StreamOnLockBytesTest, TakesItsEndFromTheLockBytesStatOrStartsAtZero) {
  CountingLockBytes lb;
  IStream* stream = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, 0, &stream));
  EXPECT_EQ(42u, PositionOf(stream, STREAM_SEEK_END));
  EXPECT_EQ(0u, stream->Release());

  lb.statFailure = STG_E_ACCESSDENIED;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, 0, &stream));
  EXPECT_EQ(0u, PositionOf(stream, STREAM_SEEK_END));
  STATSTG stat;
  EXPECT_HR(STG_E_ACCESSDENIED, stream->Stat(&stat, STATFLAG_NONAME));
  EXPECT_EQ(0u, stream->Release());
}

TEST_F(StreamOnLockBytesTest, FlushesExactlyOnceAtEachStreamsLastRelease) {
  CountingLockBytes lb;
  IStream* stream = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, QVCLBOMF_NOLOCK, &stream));
  stream->AddRef();
  EXPECT_EQ(1u, stream->Release());
  EXPECT_EQ(0, lb.flushes) << "not before the last release";

  IStream* clone = nullptr;
  ASSERT_HR(S_OK, stream->Clone(&clone));
  EXPECT_EQ(3u, lb.refs);
  EXPECT_EQ(0u, stream->Release());
  EXPECT_EQ(1, lb.flushes) << "nothing written, flushed all the same";
  EXPECT_EQ(2u, lb.refs);
  EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(2, lb.flushes) << "the clone flushes at its own last release";
  EXPECT_EQ(1u, lb.refs);
}

TEST_F(StreamOnLockBytesTest, CommitFlushesUnlessOnlyToTheDiskCache) {
  CountingLockBytes lb;
  IStream* stream = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, 0, &stream));
  EXPECT_HR(S_OK, stream->Commit(STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE));
  EXPECT_HR(S_OK, stream->Commit(STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE | STGC_OVERWRITE));
  EXPECT_EQ(0, lb.flushes);
  EXPECT_HR(S_OK, stream->Commit(STGC_DEFAULT)) << "the flush's own failure is ignored";
  EXPECT_EQ(1, lb.flushes);
  EXPECT_EQ(0u, stream->Release());
  EXPECT_EQ(2, lb.flushes);
}

TEST_F(StreamOnLockBytesTest, PassesLockBytesFailuresBackAndKeepsItsPosition) {
  CountingLockBytes lb;
  IStream* stream = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(&lb, 0, &stream));
  BYTE bytes[8] = {};
  ULONG count = kSentinel;
  ASSERT_HR(S_OK, stream->Write(bytes, 8, &count));
  EXPECT_EQ(8u, PositionOf(stream));

  lb.failure = STG_E_ACCESSDENIED;
  count = kSentinel;
  EXPECT_HR(STG_E_ACCESSDENIED, stream->Read(bytes, 4, &count));
  EXPECT_EQ(0u, count);
  count = kSentinel;
  EXPECT_HR(STG_E_ACCESSDENIED, stream->Write(bytes, 4, &count));
  EXPECT_EQ(0u, count);
  EXPECT_HR(STG_E_ACCESSDENIED, stream->SetSize(U(100)));
  EXPECT_EQ(8u, PositionOf(stream));
  EXPECT_EQ(42u, PositionOf(stream, STREAM_SEEK_END)) << "the end did not move either";

  // Writing after a seek past the end must extend first; a refused extension writes nothing.
  ASSERT_HR(S_OK, stream->Seek(L(100), STREAM_SEEK_SET, nullptr));
  count = kSentinel;
  EXPECT_HR(STG_E_ACCESSDENIED, stream->Write(bytes, 4, &count));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(100u, PositionOf(stream));

  EXPECT_HR(HRESULT(0x00030201), stream->LockRegion(U(0), U(1), 0)) << "passed on unchanged";
  EXPECT_HR(HRESULT(0x00030202), stream->UnlockRegion(U(0), U(1), 0));
  EXPECT_EQ(0u, stream->Release());
}

TEST_F(StreamOnLockBytesTest, StreamsOnMemoryReturnTheStoresRefusalAndOwnTheirStore) {
  IStream* stream = reinterpret_cast<IStream*>(static_cast<ULONG_PTR>(kSentinel));
  EXPECT_HR(E_POINTER, CreateStreamOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, nullptr));
  EXPECT_HR(E_INVALIDARG, CreateStreamOnMemory(nullptr, 0, QVCLBOMF_FIXEDBLOCK, 0, &stream));
  EXPECT_EQ(nullptr, stream) << "cleared before the store is made";
  stream = reinterpret_cast<IStream*>(static_cast<ULONG_PTR>(kSentinel));
  EXPECT_HR(E_INVALIDARG, CreateStreamOnMemory(nullptr, 0, 9, 0, &stream));
  EXPECT_EQ(nullptr, stream);

  // Over the platform's HGLOBAL kind, with the stream's flags taken as given.
  ASSERT_HR(S_OK, CreateStreamOnMemory(nullptr, 0, QVCLBOMF_HGLOBAL | QVCLBOMF_NOLOCK, 0, &stream));
  EXPECT_EQ(0u, ThreadingModelOf(stream));
  ASSERT_HR(S_OK, stream->Write("xyz", 3, nullptr));
  EXPECT_EQ(3u, StatSize(stream));
  EXPECT_EQ(0u, stream->Release());
}
