// The ILockBytes contract every memory store keeps and the IStream contract of
// streams over them, typed over each kind in both forms and run against the
// platform's store and stream on global memory too. Where the platform answers
// differently, the case says so ("platform:").
#include "StoreTestSupport.h"

using ::testing::IsEmpty;
using namespace storetest;

namespace {

// The object under test is made before each case; the case must leave it with
// one reference, and nothing of the task allocator's behind.
template <class Store, class Object, ULONG Capacity>
class MadeObjectTest : public LeakCheckedTest {
 protected:
  static constexpr ULONG kCapacity = Capacity;
  // Where the object starts out ending: empty when growable, the caller's whole memory when fixed.
  static constexpr ULONGLONG kInitialEnd = Store::kGrowable ? 0 : Capacity;

  void SetUp() override {
    ASSERT_HR(S_OK, m_store.Make(kCapacity, &m_object));
    ASSERT_NE(nullptr, m_object);
  }
  void TearDown() override {
    if (m_object) EXPECT_EQ(0u, m_object->Release()) << "the test holds the only reference";
    LeakCheckedTest::TearDown();
  }

  // Identity, one interface refused (platformAnswer: what the platform says to
  // it), IThreadingInfo with the form's model and ISaveToFile (the platform has neither).
  void ExpectInterfaces(REFIID refused, HRESULT platformAnswer) {
    IUnknown* identity = nullptr;
    ASSERT_HR(S_OK, m_object->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)));
    EXPECT_EQ(static_cast<IUnknown*>(m_object), identity);
    identity->Release();
    void* other = reinterpret_cast<void*>(0x1);
    const HRESULT hr = m_object->QueryInterface(refused, &other);
    EXPECT_HR(Store::kPlatform ? platformAnswer : E_NOINTERFACE, hr);
    if (hr == S_OK) static_cast<IUnknown*>(other)->Release();
    if (hr != S_OK) EXPECT_EQ(nullptr, other);

    IThreadingInfo* info = nullptr;
    const HRESULT infoHr = m_object->QueryInterface(IID_IThreadingInfo, reinterpret_cast<void**>(&info));
    if (Store::kPlatform) {
      EXPECT_HR(E_NOINTERFACE, infoHr) << "platform: no library interfaces";
      return;
    }
    ASSERT_HR(S_OK, infoHr);
    EXPECT_HR(E_POINTER, info->GetThreadingModel(nullptr));
    EXPECT_EQ(Store::kThreadingModel, ThreadingModelOf(m_object));
    EXPECT_EQ(3u, info->AddRef()) << "one count for the object, whichever interface";
    info->Release();
    info->Release();
    ISaveToFile* saver = nullptr;
    ASSERT_HR(S_OK, m_object->QueryInterface(IID_ISaveToFile, reinterpret_cast<void**>(&saver)));
    saver->Release();
  }

  // Stat needs no name and reports only type and size; no other field is set.
  void ExpectStat(DWORD type, ULONGLONG size) {
    STATSTG stat;
    std::memset(&stat, 0xAB, sizeof stat);
    EXPECT_HR(S_OK, m_object->Stat(&stat, STATFLAG_NONAME));
    EXPECT_EQ(nullptr, stat.pwcsName);
    EXPECT_EQ(type, stat.type);
    EXPECT_EQ(size, stat.cbSize.QuadPart);
    EXPECT_EQ(CLSID_NULL, stat.clsid);
    EXPECT_EQ(0u, stat.grfStateBits);
    if (!Store::kPlatform) {
      EXPECT_EQ(0u, stat.grfMode | stat.grfLocksSupported);
      EXPECT_EQ(0u, stat.mtime.dwLowDateTime | stat.mtime.dwHighDateTime | stat.ctime.dwLowDateTime |
                        stat.ctime.dwHighDateTime | stat.atime.dwLowDateTime | stat.atime.dwHighDateTime);
    }
    std::memset(&stat, 0xAB, sizeof stat);
    const HRESULT named = m_object->Stat(&stat, STATFLAG_DEFAULT);
    if (Store::kPlatform) {
      EXPECT_HR(S_OK, named) << "platform: answers a named Stat";
      CoTaskMemFree(stat.pwcsName);
    } else {
      EXPECT_HR(STG_E_INVALIDFLAG, named) << "the library's stores have no name to give";
      EXPECT_HR(STG_E_INVALIDPOINTER, m_object->Stat(nullptr, STATFLAG_NONAME));
    }
  }

  Store m_store;
  Object* m_object = nullptr;
};

template <class Store>
class LockBytesContract : public MadeObjectTest<Store, ILockBytes, 64> {
 protected:
  // Growable stores start empty; make them as large as the fixed ones.
  void FillToCapacity(BYTE seed = 1) {
    ASSERT_HR(S_OK, WriteBytes(this->m_object, 0, Pattern(this->kCapacity, seed)));
    ASSERT_EQ(this->kCapacity, StatSize(this->m_object));
  }
};
TYPED_TEST_SUITE(LockBytesContract, AllKinds);

template <class Store>
class StreamContract : public MadeObjectTest<Store, IStream, 2048> {
 protected:
  ULONGLONG SeekTo(LONGLONG move, DWORD origin = STREAM_SEEK_SET, IStream* stream = nullptr) {
    ULARGE_INTEGER at = U(kSentinel);
    EXPECT_HR(S_OK, (stream ? stream : this->m_object)->Seek(L(move), origin, &at));
    return at.QuadPart;
  }
  ULONGLONG Position() { return SeekTo(0, STREAM_SEEK_CUR); }
  ULONGLONG End() { return SeekTo(0, STREAM_SEEK_END); }
  void Write(const Bytes& bytes) {
    ULONG written = kSentinel;
    ASSERT_HR(S_OK, this->m_object->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written));
    ASSERT_EQ(bytes.size(), written);
  }
  Bytes Read(ULONG cb, IStream* stream = nullptr) {
    Bytes bytes(cb);
    ULONG read = kSentinel;
    EXPECT_HR(S_OK, (stream ? stream : this->m_object)->Read(bytes.data(), cb, &read));
    bytes.resize(read == kSentinel ? 0 : read);
    return bytes;
  }
  // The end after writing n bytes at the start.
  static ULONGLONG EndAfter(ULONGLONG n) { return std::max(n, StreamContract::kInitialEnd); }
};
TYPED_TEST_SUITE(StreamContract, AllKinds);

}  // namespace

// ---- ILockBytes ----

TYPED_TEST(LockBytesContract, AnswersItsInterfacesStatAndNoRegionLocks) {
  this->ExpectInterfaces(IID_IStream, E_NOINTERFACE);
  this->FillToCapacity();
  this->ExpectStat(STGTY_LOCKBYTES, this->kCapacity);
  EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->LockRegion(U(0), U(1), LOCK_WRITE));
  EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->UnlockRegion(U(0), U(1), LOCK_WRITE));
  if (!TypeParam::kPlatform)
    EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->LockRegion(U(~0ull), U(0), 0xFFFF));
}

TYPED_TEST(LockBytesContract, WritesAndReadsBackExactBytes) {
  this->FillToCapacity(9);
  Bytes expected = Pattern(this->kCapacity, 9);
  EXPECT_EQ(expected, ReadAll(this->m_object, this->kCapacity));
  const Bytes middle = Pattern(20, 77);
  ASSERT_HR(S_OK, WriteBytes(this->m_object, 15, middle));  // 15: where a block-list block ends
  std::copy(middle.begin(), middle.end(), expected.begin() + 15);
  EXPECT_EQ(expected, ReadAll(this->m_object, this->kCapacity));
  if constexpr (!TypeParam::kGrowable) {
    expected.resize(this->m_store.Contents().size());  // caller's memory past the end stays 0
    EXPECT_EQ(expected, this->m_store.Contents()) << "the bytes live in the caller's memory";
  }
  EXPECT_EQ(this->kCapacity, StatSize(this->m_object)) << "a write inside the store keeps its size";
  EXPECT_HR(S_OK, this->m_object->Flush());
}

TYPED_TEST(LockBytesContract, ReadsAtOrPastTheEndGiveZeroBytesAndCrossingReadsStopAtIt) {
  this->FillToCapacity();
  const ULONG end = this->kCapacity;
  BYTE buffer[16];
  std::memset(buffer, 0xEE, sizeof buffer);
  ULONG read = kSentinel, atEndRead = kSentinel, pastRead = kSentinel;
  const HRESULT crossing = this->m_object->ReadAt(U(end - 4), buffer, sizeof buffer, &read);
  EXPECT_EQ(4u, read);
  EXPECT_EQ(0xEE, buffer[4]) << "nothing past the end is copied";
  const HRESULT atEnd = this->m_object->ReadAt(U(end), buffer, 4, &atEndRead);
  EXPECT_EQ(0u, atEndRead);
  const HRESULT past = this->m_object->ReadAt(U(end + 1000), buffer, 4, &pastRead);
  // platform: a read that comes up short is a read fault, and one that starts
  // past the end fails without writing the count.
  EXPECT_HR(TypeParam::kPlatform ? STG_E_READFAULT : S_OK, crossing);
  EXPECT_HR(TypeParam::kPlatform ? STG_E_READFAULT : S_OK, atEnd);
  EXPECT_HR(TypeParam::kPlatform ? E_FAIL : S_OK, past);
  EXPECT_EQ(TypeParam::kPlatform ? kSentinel : 0u, pastRead);
  EXPECT_HR(S_OK, this->m_object->ReadAt(U(0), buffer, 4, nullptr)) << "the count is optional";
}

TYPED_TEST(LockBytesContract, ZeroLengthTransfersSucceedWithoutTouchingTheStore) {
  this->FillToCapacity();
  BYTE byte = 0x42;
  ULONG written = kSentinel, read = kSentinel;
  EXPECT_HR(S_OK, this->m_object->WriteAt(U(this->kCapacity + 10), &byte, 0, &written));
  EXPECT_EQ(this->kCapacity, StatSize(this->m_object)) << "an empty write past the end must not grow";
  EXPECT_HR(S_OK, this->m_object->ReadAt(U(3), &byte, 0, &read));
  EXPECT_EQ(0x42, byte);
  EXPECT_EQ(0u, read);
  EXPECT_EQ(TypeParam::kPlatform ? kSentinel : 0u, written) << "platform: an empty write leaves the count alone";
}

TYPED_TEST(LockBytesContract, RefusesNullBuffersAndEverythingAtOrBeyondFourGiB) {
  if (TypeParam::kPlatform)
    GTEST_SKIP() << "platform: a NULL buffer faults, and near 4 GiB it tries to allocate rather than refuse";
  ULONG count = kSentinel;
  EXPECT_HR(E_POINTER, this->m_object->ReadAt(U(0), nullptr, 4, &count));
  EXPECT_EQ(kSentinel, count) << "the pointer is checked before the count is cleared";
  EXPECT_HR(E_POINTER, this->m_object->WriteAt(U(0), nullptr, 4, &count));
  EXPECT_EQ(kSentinel, count);
  if (TypeParam::kGrowable) EXPECT_EQ(0u, StatSize(this->m_object)) << "a refused write must not grow";

  this->FillToCapacity(3);
  BYTE buffer[8] = {};
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->ReadAt(U(0xFFFFFFFF), buffer, 1, &count));
  EXPECT_EQ(0u, count);
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->ReadAt(U(0xFFFFFFF8), buffer, 8, &count));
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->ReadAt(U(k4GiB + 1), buffer, 1, &count));
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->ReadAt(U(~0ull), buffer, 1, &count)) << "no wrap to 0";
  count = kSentinel;
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->WriteAt(U(0xFFFFFFFF), buffer, 1, &count));
  EXPECT_EQ(0u, count);
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->WriteAt(U(1), buffer, 0xFFFFFFFF, &count));
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->WriteAt(U(~0ull - 3), buffer, 8, &count));
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->SetSize(U(k4GiB)));
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->SetSize(U(~0ull)));
  EXPECT_EQ(Pattern(this->kCapacity, 3), ReadAll(this->m_object, this->kCapacity + 8)) << "nothing moved";
}

TYPED_TEST(LockBytesContract, ShrinksAndGrowsBackKeepingTheBytesThatStayed) {
  this->FillToCapacity(5);
  EXPECT_HR(S_OK, this->m_object->SetSize(U(10)));
  EXPECT_EQ(10u, StatSize(this->m_object));
  EXPECT_EQ(Pattern(10, 5), ReadAll(this->m_object, 10));
  if (!TypeParam::kPlatform)  // platform: a read that comes up short fails
    EXPECT_EQ(Pattern(10, 5), ReadAll(this->m_object, this->kCapacity)) << "reads stop at the new end";
  EXPECT_HR(S_OK, this->m_object->SetSize(U(10))) << "the same size again";
  EXPECT_HR(S_OK, this->m_object->SetSize(U(this->kCapacity)));
  EXPECT_EQ(this->kCapacity, StatSize(this->m_object));
  EXPECT_EQ(Pattern(10, 5), ReadAll(this->m_object, 10));
  EXPECT_HR(S_OK, this->m_object->SetSize(U(0)));
  EXPECT_EQ(0u, StatSize(this->m_object));
}

TYPED_TEST(LockBytesContract, GrowsToExactlyTheEndOfAWriteOrStopsAtItsMaximum) {
  if constexpr (TypeParam::kGrowable) {
    ASSERT_HR(S_OK, WriteBytes(this->m_object, 100, Pattern(10, 40)));
    EXPECT_EQ(110u, StatSize(this->m_object));
    EXPECT_EQ(Pattern(10, 40), ReadAll(this->m_object, 10, 100));
    ASSERT_HR(S_OK, WriteBytes(this->m_object, 109, Pattern(3, 1)));
    EXPECT_EQ(112u, StatSize(this->m_object)) << "no spare capacity: the size is the end of the write";
  } else {
    // A fixed store ends at the caller's size: a write past it changes nothing.
    this->FillToCapacity(6);
    ASSERT_HR(S_OK, this->m_object->SetSize(U(8)));
    ASSERT_HR(S_OK, WriteBytes(this->m_object, 20, Pattern(4, 50)));
    EXPECT_EQ(24u, StatSize(this->m_object)) << "grows back inside the caller's memory";
    const Bytes before = this->m_store.Contents();
    EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(this->m_object, this->kCapacity - 2, Pattern(3, 60)));
    EXPECT_EQ(before, this->m_store.Contents()) << "not even the part that fits";
    EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->SetSize(U(this->kCapacity + 1)));
    EXPECT_EQ(24u, StatSize(this->m_object));
    EXPECT_EQ(Pattern(4, 50), ReadAll(this->m_object, 4, 20));
  }
}

// ---- IStream ----

TYPED_TEST(StreamContract, AnswersItsInterfacesStatCommitAndRegionLocks) {
  this->ExpectInterfaces(IID_ISequentialStream, S_OK);
  this->Write(Pattern(33));
  this->ExpectStat(STGTY_STREAM, this->EndAfter(33));
  EXPECT_HR(S_OK, this->m_object->Commit(STGC_DEFAULT));
  EXPECT_HR(S_OK, this->m_object->Commit(STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE));
  EXPECT_HR(S_OK, this->m_object->Revert());
  EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->LockRegion(U(0), U(1), LOCK_WRITE));
  EXPECT_HR(TypeParam::kPlatform ? S_OK : STG_E_INVALIDFUNCTION,
            this->m_object->UnlockRegion(U(0), U(1), LOCK_WRITE)) << "platform: unlocking succeeds";
}

TYPED_TEST(StreamContract, EndsWhereItsStoreEndsAndWritesPastItWithoutCuttingAnything) {
  EXPECT_EQ(this->kInitialEnd, this->End());
  EXPECT_EQ(0u, this->SeekTo(0));
  const Bytes bytes = Pattern(100, 3);
  this->Write(bytes);
  EXPECT_EQ(100u, this->Position());
  EXPECT_EQ(this->EndAfter(100), this->End());
  EXPECT_EQ(10u, this->SeekTo(10));
  EXPECT_EQ(Bytes(bytes.begin() + 10, bytes.begin() + 20), this->Read(10));
  EXPECT_EQ(20u, this->Position()) << "reads move the position";
}

TYPED_TEST(StreamContract, SeekingPastTheEndAndWritingExtendsTheStreamFirst) {
  const ULONGLONG target = this->kInitialEnd ? this->kCapacity - 10 : 300;
  if (this->kInitialEnd) ASSERT_HR(S_OK, this->m_object->SetSize(U(100)));
  EXPECT_EQ(target, this->SeekTo(target));
  this->Write(Pattern(4, 8));
  EXPECT_EQ(target + 4, this->End());
  EXPECT_EQ(target + 4, StatSize(this->m_object));
  EXPECT_EQ(target, this->SeekTo(-4, STREAM_SEEK_END));
  EXPECT_EQ(Pattern(4, 8), this->Read(10)) << "reads stop at the end";
  EXPECT_THAT(this->Read(10), IsEmpty()) << "reading at the end succeeds with nothing";
  this->SeekTo(5000);
  EXPECT_EQ(TypeParam::kPlatform ? 10u : 0u, this->Read(10).size()) << "platform: reads what lies past the end";
}

TYPED_TEST(StreamContract, ABadOriginIsRefusedAndLeavesThePositionAlone) {
  this->Write(Pattern(8));
  ULARGE_INTEGER at = U(kSentinel);
  const HRESULT hr = this->m_object->Seek(L(1), 3, &at);
  // platform: a seek error that answers the current position.
  EXPECT_HR(TypeParam::kPlatform ? STG_E_SEEKERROR : STG_E_INVALIDFUNCTION, hr);
  EXPECT_EQ(TypeParam::kPlatform ? 8u : 0u, at.QuadPart) << "the new position is cleared first";
  EXPECT_EQ(8u, this->Position());
  EXPECT_HR(S_OK, this->m_object->Seek(L(2), STREAM_SEEK_SET, nullptr));
  EXPECT_EQ(2u, this->Position());
}

TYPED_TEST(StreamContract, NegativeMovesWrapAndTheStoreRefusesWhatFollows) {
  this->Write(Pattern(8));
  ULARGE_INTEGER at = U(kSentinel);
  const HRESULT hr = this->m_object->Seek(L(-1), STREAM_SEEK_SET, &at);
  if (TypeParam::kPlatform) {
    EXPECT_HR(STG_E_SEEKERROR, hr) << "platform: refuses a position before the start";
    return;
  }
  EXPECT_HR(S_OK, hr) << "positions are not checked";
  EXPECT_EQ(~0ull, at.QuadPart);
  BYTE byte = 0;
  ULONG read = kSentinel, written = kSentinel;
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->Read(&byte, 1, &read));
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->Write(&byte, 1, &written));
  EXPECT_EQ(0u, read | written);
  EXPECT_EQ(~0ull, this->Position()) << "failures do not move the position";
  EXPECT_EQ(8u, this->SeekTo(9, STREAM_SEEK_CUR)) << "and moving on wraps back";
  EXPECT_EQ(this->EndAfter(8), StatSize(this->m_object));
}

TYPED_TEST(StreamContract, ClonesShareTheBytesButKeepTheirOwnPositions) {
  this->Write(Pattern(50, 2));
  IStream* clone = nullptr;
  ASSERT_HR(S_OK, this->m_object->Clone(&clone));
  ASSERT_NE(nullptr, clone);
  EXPECT_EQ(50u, this->SeekTo(0, STREAM_SEEK_CUR, clone)) << "the clone starts at the source's position";
  EXPECT_EQ(this->EndAfter(50), this->SeekTo(0, STREAM_SEEK_END, clone));
  this->SeekTo(0, STREAM_SEEK_SET, clone);
  EXPECT_HR(S_OK, clone->Write("\x77\x78", 2, nullptr));
  EXPECT_EQ(50u, this->Position()) << "the source did not move";
  this->SeekTo(0);
  EXPECT_EQ(Bytes({0x77, 0x78}), this->Read(2)) << "the source sees the clone's write";
  this->Write({0x99});
  EXPECT_EQ(Bytes({0x99}), this->Read(1, clone));
  if (!TypeParam::kPlatform) {
    // Clones are always locked, but answer from the flags they were cloned with.
    EXPECT_EQ(TypeParam::kThreadingModel, ThreadingModelOf(clone));
    EXPECT_HR(E_POINTER, this->m_object->Clone(nullptr));
  }
  EXPECT_EQ(0u, clone->Release());
}

TYPED_TEST(StreamContract, CopyToMovesOnlyWhatItReadAndSmallCountsWithoutAllocating) {
  this->Write(Pattern(600, 4));
  IStream* target = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnHGlobal(nullptr, TRUE, &target));
  this->SeekTo(0);
  this->m_spy.ClearRequests();
  ULARGE_INTEGER read = U(kSentinel), written = U(kSentinel);
  EXPECT_HR(S_OK, this->m_object->CopyTo(target, U(512), &read, &written));
  EXPECT_EQ(512u, read.QuadPart);
  EXPECT_EQ(512u, written.QuadPart);
  EXPECT_THAT(this->m_spy.AllocRequests(), IsEmpty()) << "512 bytes fit the buffer inside the call";

  this->m_spy.ClearRequests();
  EXPECT_HR(S_OK, this->m_object->CopyTo(target, U(1000), &read, &written));
  const ULONGLONG left = std::min<ULONGLONG>(1000, this->EndAfter(600) - 512);
  EXPECT_EQ(left, read.QuadPart);
  EXPECT_EQ(left, written.QuadPart);
  if (TypeParam::kPlatform)
    EXPECT_THAT(this->m_spy.AllocRequests(), IsEmpty()) << "platform: copies in pieces";
  else
    EXPECT_EQ(std::vector<SIZE_T>({1000}), this->m_spy.AllocRequests()) << "one buffer for the whole count";
  EXPECT_EQ(512 + left, this->SeekTo(0, STREAM_SEEK_CUR, target));
  EXPECT_EQ(512 + left, StatSize(target));
  this->SeekTo(0, STREAM_SEEK_SET, target);
  EXPECT_EQ(Pattern(600, 4), this->Read(600, target));
  EXPECT_EQ(0u, target->Release());
}

TYPED_TEST(StreamContract, CopyToRefusesNoTargetAndCountsOfFourGiB) {
  if (TypeParam::kPlatform) GTEST_SKIP() << "platform: no NULL check, and copies everything for the largest count";
  this->Write(Pattern(10));
  this->SeekTo(0);
  ULARGE_INTEGER read = U(kSentinel), written = U(kSentinel);
  EXPECT_HR(E_POINTER, this->m_object->CopyTo(nullptr, U(4), &read, &written));
  EXPECT_EQ(0u, read.QuadPart | written.QuadPart);
  IStream* target = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnHGlobal(nullptr, TRUE, &target));
  read = written = U(kSentinel);
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->CopyTo(target, U(~0ull), &read, &written))
      << "the copy-everything idiom does not fit in memory at once";
  EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->CopyTo(target, U(k4GiB), nullptr, nullptr));
  EXPECT_EQ(0u, read.QuadPart | written.QuadPart);
  EXPECT_EQ(0u, this->Position());
  EXPECT_EQ(0u, StatSize(target));
  EXPECT_EQ(0u, target->Release());
}
