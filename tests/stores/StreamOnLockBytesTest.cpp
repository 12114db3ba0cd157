// CreateStreamOnLockBytes over a counting lock-bytes: when the stream flushes,
// and that the lock-bytes' failures come back unchanged.
#include "StoreTestSupport.h"

using namespace storetest;

namespace {

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

using StreamOnLockBytesTest = LeakCheckedTest;

}  // namespace

// Each stream flushes once at its own last release, and Commit unless only to
// the disk cache; it locks as the caller's flags say, whatever the lock-bytes can do.
TEST_F(StreamOnLockBytesTest, FlushesAtLastReleaseAndOnCommitAndPassesFailuresBack) {
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
