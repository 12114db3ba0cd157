// The ILockBytes contract every memory store keeps and the IStream contract of
// streams over them, typed over each kind in both forms and run against the
// platform's store and stream on global memory too. Where the platform answers
// differently, the expectation says so ("platform:").
#include "StoreTestSupport.h"

using namespace storetest;

namespace {

constexpr HRESULT kNotRun = 0x7FFFFFFF;  // platform: a NULL buffer faults, near 4 GiB it allocates

// The object is made before each case; the case must leave it with one reference.
template <class Kind, class Object, ULONG Capacity>
class MadeObjectTest : public LeakCheckedTest {
 protected:
  static constexpr ULONG kCapacity = Capacity;
  static constexpr bool kPlatform = Kind::kPlatform;
  void SetUp() override { ASSERT_HR(S_OK, m_store.Make(kCapacity, &m_object)); }
  void TearDown() override {
    if (m_object) EXPECT_EQ(0u, m_object->Release()) << "the test holds the only reference";
    LeakCheckedTest::TearDown();
  }
  // One count for the object, whichever interface; a refusal clears the out-pointer.
  HRESULT Query(REFIID iid) {
    void* out = reinterpret_cast<void*>(0x1);
    const HRESULT hr = m_object->QueryInterface(iid, &out);
    if (iid == IID_IUnknown) EXPECT_EQ(static_cast<IUnknown*>(m_object), out);
    if (hr != S_OK) EXPECT_EQ(nullptr, out);
    if (hr == S_OK) EXPECT_EQ(1u, static_cast<IUnknown*>(out)->Release());
    return hr;
  }
  // The platform has none of the library's interfaces and answers a named Stat;
  // the library's stores report type and size only, and have no name to give.
  void ExpectInterfacesAndStat(REFIID refused, HRESULT platformAnswer, DWORD type, ULONG size) {
    EXPECT_HR(S_OK, Query(IID_IUnknown));
    EXPECT_HR(kPlatform ? platformAnswer : E_NOINTERFACE, Query(refused));
    EXPECT_HR(kPlatform ? E_NOINTERFACE : S_OK, Query(IID_ISaveToFile));
    EXPECT_EQ(kPlatform ? kSentinel : Kind::kThreadingModel, ThreadingModelOf(m_object));
    STATSTG stat, expected = {};
    expected.type = type;
    expected.cbSize.QuadPart = size;
    std::memset(&stat, 0xAB, sizeof stat);
    EXPECT_HR(S_OK, m_object->Stat(&stat, STATFLAG_NONAME));
    EXPECT_EQ(size, stat.cbSize.QuadPart);
    if (!kPlatform) EXPECT_EQ(0, std::memcmp(&expected, &stat, sizeof stat)) << "no other field";
    EXPECT_HR(kPlatform ? S_OK : STG_E_INVALIDFLAG, m_object->Stat(&stat, STATFLAG_DEFAULT));
    if (kPlatform) CoTaskMemFree(stat.pwcsName);
    if (!kPlatform) EXPECT_HR(STG_E_INVALIDPOINTER, m_object->Stat(nullptr, STATFLAG_NONAME));
  }

  Kind m_store;
  Object* m_object = nullptr;
};

// Growable stores start empty; each case first fills them as large as the fixed ones.
template <class Kind>
class LockBytesContract : public MadeObjectTest<Kind, ILockBytes, 64> {
 protected:
  void FillToCapacity(BYTE seed = 1) {
    ASSERT_HR(S_OK, WriteBytes(this->m_object, 0, Pattern(this->kCapacity, seed)));
  }
};
TYPED_TEST_SUITE(LockBytesContract, AllKinds);

// Streams start empty whatever their kind; that a fixed store starts full is the flag table's.
template <class Kind>
class StreamContract : public MadeObjectTest<Kind, IStream, 2048> {
 protected:
  void SetUp() override {
    MadeObjectTest<Kind, IStream, 2048>::SetUp();
    ASSERT_HR(S_OK, this->m_object->SetSize(U(0)));
  }
  ULONGLONG SeekTo(LONGLONG move, DWORD origin = STREAM_SEEK_SET, IStream* stream = nullptr) {
    ULARGE_INTEGER at = U(kSentinel);
    EXPECT_HR(S_OK, (stream ? stream : this->m_object)->Seek(L(move), origin, &at));
    return at.QuadPart;
  }
  ULONGLONG Position(IStream* stream = nullptr) { return SeekTo(0, STREAM_SEEK_CUR, stream); }
  void Write(const Bytes& bytes) {
    ULONG written = kSentinel;
    ASSERT_HR(S_OK, this->m_object->Write(bytes.data(), ULONG(bytes.size()), &written));
    ASSERT_EQ(bytes.size(), written);
  }
  Bytes Read(ULONG cb, IStream* stream = nullptr) {
    Bytes bytes(cb);
    ULONG read = 0;
    EXPECT_HR(S_OK, (stream ? stream : this->m_object)->Read(bytes.data(), cb, &read));
    return bytes.resize(read), bytes;
  }
};
TYPED_TEST_SUITE(StreamContract, AllKinds);

// Transfers on a store holding Pattern(64). Counts start as kSentinel, read
// buffers as 0xEE; a read must copy exactly the store's bytes it counts.
enum Op { kRead, kWrite, kReadNull, kWriteNull };
struct Transfer {
  const char* what;
  Op op;
  ULONGLONG offset;
  ULONG cb, done, platformDone;
  HRESULT hr, platformHr;
};
const Transfer kTransfers[] = {
    {"read across blocks", kRead, 13, 16, 16, 16, S_OK, S_OK},
    {"read crossing the end", kRead, 60, 16, 4, 4, S_OK, STG_E_READFAULT},
    {"read at the end", kRead, 64, 4, 0, 0, S_OK, STG_E_READFAULT},
    {"read past the end", kRead, 1064, 4, 0, kSentinel, S_OK, E_FAIL},
    {"empty read", kRead, 3, 0, 0, 0, S_OK, S_OK},
    {"read into NULL", kReadNull, 0, 4, kSentinel, 0, E_POINTER, kNotRun},
    {"read of the last byte below 4 GiB", kRead, 0xFFFFFFFF, 1, 0, 0, STG_E_MEDIUMFULL, kNotRun},
    {"read past 4 GiB", kRead, k4GiB + 1, 1, 0, 0, STG_E_MEDIUMFULL, kNotRun},
    {"read at 2^64 - 1, no wrap to 0", kRead, ~0ull, 1, 0, 0, STG_E_MEDIUMFULL, kNotRun},
    {"write across blocks", kWrite, 15, 20, 20, 20, S_OK, S_OK},
    {"empty write past the end", kWrite, 74, 0, 0, kSentinel, S_OK, S_OK},
    {"write from NULL", kWriteNull, 0, 4, kSentinel, 0, E_POINTER, kNotRun},
    {"write of the last byte below 4 GiB", kWrite, 0xFFFFFFFF, 1, 0, 0, STG_E_MEDIUMFULL, kNotRun},
    {"write of 4 GiB - 1 bytes", kWrite, 1, 0xFFFFFFFF, 0, 0, STG_E_MEDIUMFULL, kNotRun},
    {"write wrapping past 2^64", kWrite, ~0ull - 3, 8, 0, 0, STG_E_MEDIUMFULL, kNotRun},
};

}  // namespace

TYPED_TEST(LockBytesContract, AnswersItsInterfacesStatFlushAndNoRegionLocks) {
  this->FillToCapacity();
  this->ExpectInterfacesAndStat(IID_IStream, E_NOINTERFACE, STGTY_LOCKBYTES, this->kCapacity);
  EXPECT_HR(S_OK, this->m_object->Flush());
  EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->LockRegion(U(0), U(1), LOCK_WRITE));
  EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->UnlockRegion(U(0), U(1), LOCK_WRITE));
}

TYPED_TEST(LockBytesContract, TransfersExactlyTheBytesEachRowAllows) {
  const Bytes source = Pattern(128, 77);
  for (const Transfer& row : kTransfers) {
    SCOPED_TRACE(row.what);
    const HRESULT hr = this->kPlatform ? row.platformHr : row.hr;
    const ULONG done = this->kPlatform ? row.platformDone : row.done;
    if (hr == kNotRun) continue;
    this->FillToCapacity();
    Bytes buffer(128, 0xEE), expectedBuffer = buffer, expectedStore = Pattern(this->kCapacity);
    ULONG count = kSentinel;
    if (row.op == kRead || row.op == kReadNull) {
      BYTE* into = row.op == kRead ? buffer.data() : nullptr;
      EXPECT_HR(hr, this->m_object->ReadAt(U(row.offset), into, row.cb, &count));
      if (done != kSentinel && done)
        std::copy_n(&expectedStore[row.offset], done, &expectedBuffer[0]);
    } else {
      const BYTE* from = row.op == kWrite ? source.data() : nullptr;
      EXPECT_HR(hr, this->m_object->WriteAt(U(row.offset), from, row.cb, &count));
      if (hr == S_OK && row.cb) std::copy_n(&source[0], row.cb, &expectedStore[row.offset]);
    }
    EXPECT_EQ(done, count);
    EXPECT_EQ(expectedBuffer, buffer) << "nothing past what was counted is copied";
    EXPECT_EQ(this->kCapacity, StatSize(this->m_object)) << "no transfer here changes the size";
    EXPECT_EQ(expectedStore, ReadAll(this->m_object, this->kCapacity));
    if (!TypeParam::kGrowable) EXPECT_EQ(expectedStore, this->m_store.Contents()) << "in place";
  }
  BYTE four[4];
  EXPECT_HR(S_OK, this->m_object->ReadAt(U(0), four, 4, nullptr)) << "the count is optional";
}

// Growable stores grow to exactly the end of a write; fixed ones stop at the
// caller's size and then refuse a write whole, not even writing the part that fits.
TYPED_TEST(LockBytesContract, ShrinksAndGrowsKeepingTheBytesThatStayedUpToItsMaximum) {
  ILockBytes* const lb = this->m_object;
  const ULONG end = this->kCapacity;
  this->FillToCapacity(6);
  ASSERT_HR(S_OK, lb->SetSize(U(10)));
  ASSERT_HR(S_OK, lb->SetSize(U(10))) << "the same size again";
  EXPECT_EQ(10u, StatSize(lb));
  if (!this->kPlatform)  // platform: a read that comes up short fails
    EXPECT_EQ(Pattern(10, 6), ReadAll(lb, end)) << "reads stop at the new end";
  ASSERT_HR(S_OK, WriteBytes(lb, 20, Pattern(4, 50)));
  EXPECT_EQ(24u, StatSize(lb));
  EXPECT_EQ(Pattern(10, 6), ReadAll(lb, 10));
  const Bytes before = this->m_store.Contents();
  const HRESULT fits = TypeParam::kGrowable ? S_OK : STG_E_MEDIUMFULL;
  EXPECT_HR(fits, WriteBytes(lb, end - 2, Pattern(3, 60)));
  EXPECT_EQ(TypeParam::kGrowable ? end + 1 : 24u, StatSize(lb));
  EXPECT_EQ(before, this->m_store.Contents()) << "a refused write leaves the caller's memory alone";
  EXPECT_HR(fits, lb->SetSize(U(end + 10)));
  if (!this->kPlatform)
    for (ULONGLONG huge : {k4GiB, ~0ull}) EXPECT_HR(STG_E_MEDIUMFULL, lb->SetSize(U(huge)));
  EXPECT_EQ(Pattern(4, 50), ReadAll(lb, 4, 20));
  EXPECT_HR(S_OK, lb->SetSize(U(0)));
  EXPECT_EQ(0u, StatSize(lb));
}

TYPED_TEST(StreamContract, AnswersItsInterfacesStatCommitAndRegionLocks) {
  this->Write(Pattern(33));
  this->ExpectInterfacesAndStat(IID_ISequentialStream, S_OK, STGTY_STREAM, 33);
  EXPECT_HR(S_OK, this->m_object->Commit(STGC_DEFAULT));
  EXPECT_HR(S_OK, this->m_object->Commit(STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE));
  EXPECT_HR(S_OK, this->m_object->Revert());
  EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->LockRegion(U(0), U(1), LOCK_WRITE));
  EXPECT_HR(this->kPlatform ? S_OK : STG_E_INVALIDFUNCTION,
            this->m_object->UnlockRegion(U(0), U(1), LOCK_WRITE));
}

// Seeks in order from position 8 of 8 bytes. A failed seek clears the new
// position (the platform answers the current one) and leaves the position alone.
// The library does not check positions: a negative one wraps.
TYPED_TEST(StreamContract, SeeksFromEachOriginWrapsWithoutCheckingAndExtendsOnWrite) {
  const struct {
    LONGLONG move;
    DWORD origin;
    HRESULT hr, platformHr;
    ULONGLONG at, platformAt;
  } kSeeks[] = {
      {1, 3, STG_E_INVALIDFUNCTION, STG_E_SEEKERROR, 0, 8},
      {2, STREAM_SEEK_SET, S_OK, S_OK, 2, 2},
      {3, STREAM_SEEK_CUR, S_OK, S_OK, 5, 5},
      {-4, STREAM_SEEK_END, S_OK, S_OK, 4, 4},
      {-1, STREAM_SEEK_SET, S_OK, STG_E_SEEKERROR, ~0ull, 4},
      {9, STREAM_SEEK_CUR, S_OK, S_OK, 8, 13},
  };
  this->Write(Pattern(8));
  for (const auto& row : kSeeks) {
    SCOPED_TRACE(row.move);
    const ULONGLONG before = this->Position();
    ULARGE_INTEGER at = U(kSentinel);
    const HRESULT hr = this->m_object->Seek(L(row.move), row.origin, &at);
    EXPECT_HR(this->kPlatform ? row.platformHr : row.hr, hr);
    EXPECT_EQ(this->kPlatform ? row.platformAt : row.at, at.QuadPart);
    EXPECT_EQ(hr == S_OK ? at.QuadPart : before, this->Position());
  }
  EXPECT_HR(S_OK, this->m_object->Seek(L(2), STREAM_SEEK_SET, nullptr)) << "position optional";
  EXPECT_EQ(8u, StatSize(this->m_object));
  // Writing past the end extends the stream first; reads stop at the end.
  EXPECT_EQ(300u, this->SeekTo(300));
  this->Write(Pattern(4, 8));
  EXPECT_EQ(304u, StatSize(this->m_object));
  EXPECT_EQ(300u, this->SeekTo(-4, STREAM_SEEK_END));
  EXPECT_EQ(Pattern(4, 8), this->Read(10));
  EXPECT_EQ(304u, this->Position()) << "reads move the position";
  EXPECT_EQ(Bytes(), this->Read(10)) << "reading at the end succeeds with nothing";
  this->SeekTo(5000);
  EXPECT_EQ(this->kPlatform ? 10u : 0u, this->Read(10).size()) << "platform: reads past the end";
}

// Clones are always locked, but answer from the flags they were cloned with.
TYPED_TEST(StreamContract, ClonesShareTheBytesButKeepTheirOwnPositions) {
  this->Write(Pattern(50, 2));
  IStream* clone = nullptr;
  ASSERT_HR(S_OK, this->m_object->Clone(&clone));
  EXPECT_EQ(50u, this->Position(clone)) << "the clone starts at the source's position";
  this->SeekTo(0, STREAM_SEEK_SET, clone);
  EXPECT_HR(S_OK, clone->Write("\x77\x78", 2, nullptr));
  EXPECT_EQ(50u, this->Position()) << "the source did not move";
  this->SeekTo(0);
  EXPECT_EQ(Bytes({0x77, 0x78}), this->Read(2)) << "the source sees the clone's write";
  this->Write({0x99});
  EXPECT_EQ(Bytes({0x99}), this->Read(1, clone));
  EXPECT_EQ(this->kPlatform ? kSentinel : TypeParam::kThreadingModel, ThreadingModelOf(clone));
  if (!this->kPlatform) EXPECT_HR(E_POINTER, this->m_object->Clone(nullptr));
  EXPECT_EQ(0u, clone->Release());
}

// Up to 512 bytes go through a buffer inside the call, more through one buffer
// for the whole count, which a count of 4 GiB or more cannot have.
TYPED_TEST(StreamContract, CopyToMovesWhatItReadThroughOneBufferAndRefusesWhatCannotFit) {
  this->Write(Pattern(600, 4));
  IStream* target = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnHGlobal(nullptr, TRUE, &target));
  const struct {
    ULONGLONG cb, done;
    HRESULT hr;
    std::vector<SIZE_T> allocs;
  } kCopies[] = {{512, 512, S_OK, {}},
                 {1000, 88, S_OK, {1000}},
                 {4, 0, E_POINTER, {}},
                 {~0ull, 0, STG_E_MEDIUMFULL, {}},
                 {k4GiB, 0, STG_E_MEDIUMFULL, {}}};
  this->SeekTo(0);
  for (const auto& row : kCopies) {
    SCOPED_TRACE(row.cb);
    if (this->kPlatform && row.hr != S_OK) break;  // platform: no NULL check, no limit
    this->m_spy.ClearRequests();
    ULARGE_INTEGER read = U(kSentinel), written = U(kSentinel);
    IStream* to = row.hr == E_POINTER ? nullptr : target;
    EXPECT_HR(row.hr, this->m_object->CopyTo(to, U(row.cb), &read, &written));
    EXPECT_EQ(row.done, read.QuadPart);
    EXPECT_EQ(row.done, written.QuadPart);
    if (!this->kPlatform) EXPECT_EQ(row.allocs, this->m_spy.AllocRequests());  // platform: pieces
  }
  EXPECT_EQ(600u, this->Position()) << "a refused copy does not move";
  EXPECT_EQ(600u, this->Position(target));
  this->SeekTo(0, STREAM_SEEK_SET, target);
  EXPECT_EQ(Pattern(600, 4), this->Read(600, target));
  EXPECT_EQ(0u, target->Release());
}
