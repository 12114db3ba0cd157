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
    EXPECT_EQ(0u, m_object->Release()) << "the test holds the only reference";
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
  void ExpectCommonAnswers(ULONG size) {
    constexpr bool kStream = std::is_same_v<Object, IStream>;
    EXPECT_HR(S_OK, Query(IID_IUnknown));
    EXPECT_HR(kPlatform && kStream ? S_OK : E_NOINTERFACE,
              Query(kStream ? IID_ISequentialStream : IID_IStream));
    EXPECT_HR(kPlatform ? E_NOINTERFACE : S_OK, Query(IID_ISaveToFile));
    EXPECT_EQ(kPlatform ? kSentinel : Kind::kThreadingModel, ThreadingModelOf(m_object));
    EXPECT_HR(STG_E_INVALIDFUNCTION, m_object->LockRegion(U(0), U(1), LOCK_WRITE));
    EXPECT_HR(kPlatform && kStream ? S_OK : STG_E_INVALIDFUNCTION,
              m_object->UnlockRegion(U(0), U(1), LOCK_WRITE));
    STATSTG stat, expected = {};
    expected.type = kStream ? STGTY_STREAM : STGTY_LOCKBYTES;
    expected.cbSize.QuadPart = size;
    std::memset(&stat, 0xAB, sizeof stat);
    EXPECT_HR(S_OK, m_object->Stat(&stat, STATFLAG_NONAME));
    if (kPlatform) return;  // platform: a name too, and other fields
    EXPECT_EQ(0, std::memcmp(&expected, &stat, sizeof stat)) << "no other field";
    EXPECT_HR(STG_E_INVALIDFLAG, m_object->Stat(&stat, STATFLAG_DEFAULT));
    EXPECT_HR(STG_E_INVALIDPOINTER, m_object->Stat(nullptr, STATFLAG_NONAME));
  }

  Kind m_store;
  Object* m_object = nullptr;
};

template <class Kind>
using LockBytesContract = MadeObjectTest<Kind, ILockBytes, 64>;
TYPED_TEST_SUITE(LockBytesContract, AllKinds);

// Streams start empty whatever their kind; that a fixed store starts full is the flag table's.
template <class Kind>
class StreamContract : public MadeObjectTest<Kind, IStream, 2048> {
 protected:
  void SetUp() override {
    MadeObjectTest<Kind, IStream, 2048>::SetUp();
    ASSERT_HR(S_OK, this->m_object->SetSize(U(0)));
  }
  ULONGLONG Position() {
    ULARGE_INTEGER at = U(kSentinel);
    EXPECT_HR(S_OK, this->m_object->Seek(L(0), STREAM_SEEK_CUR, &at));
    return at.QuadPart;
  }
  void Write(const Bytes& bytes) {
    ASSERT_HR(S_OK, this->m_object->Write(bytes.data(), ULONG(bytes.size()), nullptr));
  }
};
TYPED_TEST_SUITE(StreamContract, AllKinds);

// Transfers on a store holding Pattern(64), one row per check the store makes.
// Counts start as kSentinel, read buffers as 0xEE; a read copies exactly what it counts.
enum Op { kRead, kWrite };
struct Transfer {
  Op op;
  ULONGLONG offset;
  ULONG cb, done, platformDone;
  HRESULT hr, platformHr;
};
const Transfer kTransfers[] = {
    {kRead, 13, 16, 16, 16, S_OK, S_OK},                      // across blocks
    {kRead, 60, 16, 4, 4, S_OK, STG_E_READFAULT},             // crossing the end
    {kRead, 1064, 4, 0, kSentinel, S_OK, E_FAIL},             // past the end
    {kRead, 0, 4, kSentinel, 0, E_POINTER, kNotRun},          // into NULL
    {kRead, 0xFFFFFFFF, 1, 0, 0, STG_E_MEDIUMFULL, kNotRun},  // of the last byte below 4 GiB
    {kWrite, 15, 20, 20, 20, S_OK, S_OK},                     // across blocks
    {kWrite, 74, 0, 0, kSentinel, S_OK, S_OK},                // empty, past the end
    {kWrite, ~0ull - 3, 8, 0, 0, STG_E_MEDIUMFULL, kNotRun},  // wrapping past 2^64
};

}  // namespace

TYPED_TEST(LockBytesContract, TransfersExactlyTheBytesEachRowAllows) {
  const Bytes source = Pattern(128, 77);
  for (const Transfer& row : kTransfers) {
    SCOPED_TRACE(&row - kTransfers);
    const HRESULT hr = this->kPlatform ? row.platformHr : row.hr;
    const ULONG done = this->kPlatform ? row.platformDone : row.done;
    if (hr == kNotRun) continue;
    ASSERT_HR(S_OK, WriteBytes(this->m_object, 0, Pattern(this->kCapacity)));
    Bytes buffer(128, 0xEE), expectedBuffer = buffer, expectedStore = Pattern(this->kCapacity);
    ULONG count = kSentinel;
    if (row.op == kRead) {
      BYTE* into = row.hr == E_POINTER ? nullptr : buffer.data();
      EXPECT_HR(hr, this->m_object->ReadAt(U(row.offset), into, row.cb, &count));
      if (done != kSentinel && done)
        std::copy_n(&expectedStore[row.offset], done, &expectedBuffer[0]);
    } else {
      EXPECT_HR(hr, this->m_object->WriteAt(U(row.offset), source.data(), row.cb, &count));
      if (hr == S_OK && row.cb) std::copy_n(&source[0], row.cb, &expectedStore[row.offset]);
    }
    EXPECT_EQ(done, count);
    EXPECT_EQ(expectedBuffer, buffer) << "nothing past what was counted is copied";
    EXPECT_EQ(this->kCapacity, StatSize(this->m_object)) << "no transfer here changes the size";
    EXPECT_EQ(expectedStore, ReadAll(this->m_object, this->kCapacity));
    if (!TypeParam::kGrowable) EXPECT_EQ(expectedStore, this->m_store.Contents()) << "in place";
  }
}

// Growable stores grow to exactly the end of a write; fixed ones stop at the
// caller's size and then refuse a write whole, not even writing the part that fits.
TYPED_TEST(LockBytesContract, AnswersItsInterfacesThenShrinksAndGrowsUpToItsMaximum) {
  ILockBytes* const lb = this->m_object;
  const ULONG end = this->kCapacity;
  ASSERT_HR(S_OK, WriteBytes(lb, 0, Pattern(end, 6)));
  this->ExpectCommonAnswers(end);
  EXPECT_HR(S_OK, lb->Flush());
  ASSERT_HR(S_OK, lb->SetSize(U(10)));
  ASSERT_HR(S_OK, WriteBytes(lb, 20, Pattern(4, 50)));
  EXPECT_EQ(Pattern(10, 6), ReadAll(lb, 10)) << "what stayed";
  const Bytes before = this->m_store.Contents();
  const HRESULT fits = TypeParam::kGrowable ? S_OK : STG_E_MEDIUMFULL;
  EXPECT_HR(fits, WriteBytes(lb, end - 2, Pattern(3, 60)));
  EXPECT_EQ(TypeParam::kGrowable ? end + 1 : 24u, StatSize(lb));
  EXPECT_EQ(before, this->m_store.Contents()) << "a refused write leaves the caller's memory alone";
  if (!this->kPlatform) EXPECT_HR(STG_E_MEDIUMFULL, lb->SetSize(U(1ull << 32)));
  EXPECT_EQ(Pattern(4, 50), ReadAll(lb, 4, 20));
}

// Seeks in order from position 8 of 8 bytes. A failed seek clears the new
// position (the platform answers the current one) and leaves the position alone.
// The library does not check positions: a negative one wraps.
TYPED_TEST(StreamContract, AnswersItsInterfacesSeeksFromEachOriginAndWrapsWithoutChecking) {
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
  };
  this->Write(Pattern(8));
  this->ExpectCommonAnswers(8);
  EXPECT_HR(S_OK, this->m_object->Commit(STGC_DEFAULT));
  for (const auto& row : kSeeks) {
    SCOPED_TRACE(row.move);
    const ULONGLONG before = this->Position();
    ULARGE_INTEGER at = U(kSentinel);
    const HRESULT hr = this->m_object->Seek(L(row.move), row.origin, &at);
    EXPECT_HR(this->kPlatform ? row.platformHr : row.hr, hr);
    EXPECT_EQ(this->kPlatform ? row.platformAt : row.at, at.QuadPart);
    EXPECT_EQ(hr == S_OK ? at.QuadPart : before, this->Position());
  }
}

// Up to 512 bytes go through a buffer inside the call, more through one buffer
// for the whole count, which a count of 4 GiB or more cannot have.
TYPED_TEST(StreamContract, CopyToMovesWhatItReadThroughOneBuffer) {
  this->Write(Pattern(600, 4));
  IStream* target = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnHGlobal(nullptr, TRUE, &target));
  ASSERT_HR(S_OK, this->m_object->Seek(L(0), STREAM_SEEK_SET, nullptr));
  this->m_spy.ClearRequests();
  ULARGE_INTEGER read = U(kSentinel), written = U(kSentinel);
  EXPECT_HR(S_OK, this->m_object->CopyTo(target, U(512), nullptr, nullptr));
  EXPECT_HR(S_OK, this->m_object->CopyTo(target, U(1000), &read, &written));
  EXPECT_EQ(88u, read.QuadPart);
  EXPECT_EQ(88u, written.QuadPart);
  if (!this->kPlatform) {  // platform: in pieces, and no limit
    EXPECT_EQ(std::vector<SIZE_T>{1000}, this->m_spy.AllocRequests());
    EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->CopyTo(target, U(1ull << 32), nullptr, nullptr));
  }
  HGLOBAL global = nullptr;
  ASSERT_HR(S_OK, GetHGlobalFromStream(target, &global));
  EXPECT_EQ(0, std::memcmp(Pattern(600, 4).data(), GlobalLock(global), 600)) << "all of it";
  EXPECT_EQ(0u, target->Release());
  // Into another of the library's streams, the bytes go from where they lie.
  ASSERT_HR(S_OK, CreateStreamOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, &target));
  ASSERT_HR(S_OK, this->m_object->Seek(L(100), STREAM_SEEK_SET, nullptr));
  EXPECT_HR(S_OK, this->m_object->CopyTo(target, U(1000), &read, &written));
  EXPECT_EQ(std::make_pair(500ull, 500ull), std::make_pair(read.QuadPart, written.QuadPart));
  const Bytes all = Pattern(600, 4);
  Bytes back(600);
  ASSERT_HR(S_OK, target->Seek(L(0), STREAM_SEEK_SET, nullptr));
  EXPECT_HR(S_OK, target->Read(back.data(), 600, &read.LowPart));
  back.resize(read.LowPart);
  EXPECT_EQ(Bytes(all.begin() + 100, all.end()), back);
  EXPECT_EQ(0u, target->Release());
}
