// The IStream contract of streams on memory stores, typed over each kind in
// both forms and run against the platform's stream on global memory too.
// Where the platform answers differently, the case says so ("platform:").
#include "StoreTestSupport.h"

using ::testing::IsEmpty;
using namespace storetest;

namespace {

template <class Store>
class StreamContract : public MadeObjectTest<Store, IStream, 2048> {
 protected:
  using MadeObjectTest<Store, IStream, 2048>::kCapacity;

  // Where the stream starts out ending: empty for growable stores, the
  // caller's whole buffer for fixed ones.
  static ULONGLONG InitialEnd() { return Store::kGrowable ? 0 : kCapacity; }

  ULONGLONG SeekTo(LONGLONG move, DWORD origin = STREAM_SEEK_SET) {
    ULARGE_INTEGER at = U(kSentinel);
    EXPECT_HR(S_OK, this->m_object->Seek(L(move), origin, &at));
    return at.QuadPart;
  }
  void Write(const std::vector<BYTE>& bytes) {
    ULONG written = kSentinel;
    ASSERT_HR(S_OK, this->m_object->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written));
    ASSERT_EQ(bytes.size(), written);
  }
  std::vector<BYTE> Read(ULONG cb, IStream* stream = nullptr) {
    std::vector<BYTE> bytes(cb);
    ULONG read = kSentinel;
    EXPECT_HR(S_OK, (stream ? stream : this->m_object)->Read(bytes.data(), cb, &read));
    bytes.resize(read == kSentinel ? 0 : read);
    return bytes;
  }
};

TYPED_TEST_SUITE(StreamContract, AllKinds);

}  // namespace

TYPED_TEST(StreamContract, AnswersItsInterfacesAndItsThreadingModel) {
  IStream* stream = this->m_object;
  IUnknown* identity = nullptr;
  ASSERT_HR(S_OK, stream->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)));
  EXPECT_EQ(static_cast<IUnknown*>(stream), identity);
  identity->Release();

  void* sequential = reinterpret_cast<void*>(0x1);
  const HRESULT hr = stream->QueryInterface(IID_ISequentialStream, &sequential);
  IThreadingInfo* info = nullptr;
  const HRESULT infoHr = stream->QueryInterface(IID_IThreadingInfo, reinterpret_cast<void**>(&info));
  if constexpr (TypeParam::kPlatform) {
    EXPECT_HR(S_OK, hr) << "platform: answers ISequentialStream";
    static_cast<IUnknown*>(sequential)->Release();
    EXPECT_HR(E_NOINTERFACE, infoHr) << "platform: no library interfaces";
  } else {
    EXPECT_HR(E_NOINTERFACE, hr);
    EXPECT_EQ(nullptr, sequential);
    ASSERT_HR(S_OK, infoHr);
    DWORD model = kSentinel;
    EXPECT_HR(S_OK, info->GetThreadingModel(&model));
    EXPECT_EQ(TypeParam::kThreadingModel, model);
    EXPECT_HR(E_POINTER, info->GetThreadingModel(nullptr));
    info->Release();
  }
}

TYPED_TEST(StreamContract, EndsWhereItsStoreEndsAndWritesPastItWithoutCuttingAnything) {
  const ULONGLONG end = this->InitialEnd();
  EXPECT_EQ(end, this->SeekTo(0, STREAM_SEEK_END));
  EXPECT_EQ(0u, this->SeekTo(0, STREAM_SEEK_SET));
  const std::vector<BYTE> bytes = Pattern(100, 3);
  this->Write(bytes);
  EXPECT_EQ(100u, this->SeekTo(0, STREAM_SEEK_CUR));
  EXPECT_EQ(std::max<ULONGLONG>(end, 100), this->SeekTo(0, STREAM_SEEK_END));

  EXPECT_EQ(10u, this->SeekTo(10));
  EXPECT_EQ(std::vector<BYTE>(bytes.begin() + 10, bytes.begin() + 20), this->Read(10));
  EXPECT_EQ(20u, this->SeekTo(0, STREAM_SEEK_CUR)) << "reads move the position";
}

TYPED_TEST(StreamContract, SeekingPastTheEndAndWritingExtendsTheStreamFirst) {
  const ULONGLONG target = this->InitialEnd() ? this->kCapacity - 10 : 300;
  if (this->InitialEnd()) ASSERT_HR(S_OK, this->m_object->SetSize(U(100)));
  EXPECT_EQ(target, this->SeekTo(target));
  this->Write(Pattern(4, 8));
  EXPECT_EQ(target + 4, this->SeekTo(0, STREAM_SEEK_END));
  EXPECT_EQ(target + 4, StatSize(this->m_object));
  EXPECT_EQ(target, this->SeekTo(-4, STREAM_SEEK_END));
  EXPECT_EQ(Pattern(4, 8), this->Read(10)) << "reads stop at the end";

  // Reading at or past the end succeeds with nothing.
  EXPECT_THAT(this->Read(10), IsEmpty());
  this->SeekTo(5000);
  if constexpr (TypeParam::kPlatform)
    EXPECT_EQ(10u, this->Read(10).size()) << "platform: reads whatever lies past the end";
  else
    EXPECT_THAT(this->Read(10), IsEmpty());
}

TYPED_TEST(StreamContract, ABadOriginIsRefusedAndLeavesThePositionAlone) {
  this->Write(Pattern(8));
  ULARGE_INTEGER at = U(kSentinel);
  const HRESULT hr = this->m_object->Seek(L(1), 3, &at);
  if constexpr (TypeParam::kPlatform) {
    EXPECT_HR(STG_E_SEEKERROR, hr) << "platform: a seek error";
    EXPECT_EQ(8u, at.QuadPart) << "platform: answers the current position";
  } else {
    EXPECT_HR(STG_E_INVALIDFUNCTION, hr);
    EXPECT_EQ(0u, at.QuadPart) << "the new position is cleared first";
  }
  EXPECT_EQ(8u, this->SeekTo(0, STREAM_SEEK_CUR));
  EXPECT_HR(S_OK, this->m_object->Seek(L(2), STREAM_SEEK_SET, nullptr));
  EXPECT_EQ(2u, this->SeekTo(0, STREAM_SEEK_CUR));
}

TYPED_TEST(StreamContract, NegativeMovesWrapAndTheStoreRefusesWhatFollows) {
  this->Write(Pattern(8));
  ULARGE_INTEGER at = U(kSentinel);
  const HRESULT hr = this->m_object->Seek(L(-1), STREAM_SEEK_SET, &at);
  if constexpr (TypeParam::kPlatform) {
    EXPECT_HR(STG_E_SEEKERROR, hr) << "platform: refuses a position before the start";
  } else {
    EXPECT_HR(S_OK, hr) << "positions are not checked";
    EXPECT_EQ(~0ull, at.QuadPart);
    BYTE byte = 0;
    ULONG count = kSentinel;
    EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->Read(&byte, 1, &count));
    EXPECT_EQ(0u, count);
    count = kSentinel;
    EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->Write(&byte, 1, &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(~0ull, this->SeekTo(0, STREAM_SEEK_CUR)) << "failures do not move the position";
    EXPECT_EQ(8u, this->SeekTo(9, STREAM_SEEK_CUR)) << "and moving on wraps back";
    EXPECT_EQ(std::max<ULONGLONG>(8, this->InitialEnd()), StatSize(this->m_object));
  }
}

TYPED_TEST(StreamContract, StatIsTheStoresWithTheStreamType) {
  this->Write(Pattern(33));
  STATSTG stat;
  std::memset(&stat, 0xAB, sizeof stat);
  EXPECT_HR(S_OK, this->m_object->Stat(&stat, STATFLAG_NONAME));
  EXPECT_EQ(static_cast<DWORD>(STGTY_STREAM), stat.type);
  EXPECT_EQ(std::max<ULONGLONG>(33, this->InitialEnd()), stat.cbSize.QuadPart);
  EXPECT_EQ(nullptr, stat.pwcsName);

  const HRESULT named = this->m_object->Stat(&stat, STATFLAG_DEFAULT);
  if constexpr (TypeParam::kPlatform) {
    EXPECT_HR(S_OK, named) << "platform: answers a named Stat";
    CoTaskMemFree(stat.pwcsName);
  } else {
    EXPECT_HR(STG_E_INVALIDFLAG, named);
    EXPECT_HR(STG_E_INVALIDPOINTER, this->m_object->Stat(nullptr, STATFLAG_NONAME));
  }
}

TYPED_TEST(StreamContract, ClonesShareTheBytesButKeepTheirOwnPositions) {
  this->Write(Pattern(50, 2));
  IStream* clone = nullptr;
  ASSERT_HR(S_OK, this->m_object->Clone(&clone));
  ASSERT_NE(nullptr, clone);
  ULARGE_INTEGER at = U(kSentinel);
  EXPECT_HR(S_OK, clone->Seek(L(0), STREAM_SEEK_CUR, &at));
  EXPECT_EQ(50u, at.QuadPart) << "the clone starts at the source's position";
  EXPECT_HR(S_OK, clone->Seek(L(0), STREAM_SEEK_END, &at));
  EXPECT_EQ(std::max<ULONGLONG>(50, this->InitialEnd()), at.QuadPart);

  EXPECT_HR(S_OK, clone->Seek(L(0), STREAM_SEEK_SET, nullptr));
  EXPECT_HR(S_OK, clone->Write("\x77\x78", 2, nullptr));
  EXPECT_EQ(50u, this->SeekTo(0, STREAM_SEEK_CUR)) << "the source did not move";
  this->SeekTo(0);
  EXPECT_EQ(std::vector<BYTE>({0x77, 0x78}), this->Read(2)) << "the source sees the clone's write";
  this->Write({0x99});
  EXPECT_EQ(std::vector<BYTE>({0x99}), this->Read(1, clone));

  if constexpr (!TypeParam::kPlatform) {
    // Clones are always locked, but answer from the flags they were cloned with.
    IThreadingInfo* info = nullptr;
    ASSERT_HR(S_OK, clone->QueryInterface(IID_IThreadingInfo, reinterpret_cast<void**>(&info)));
    DWORD model = kSentinel;
    EXPECT_HR(S_OK, info->GetThreadingModel(&model));
    EXPECT_EQ(TypeParam::kThreadingModel, model);
    info->Release();
    EXPECT_HR(E_POINTER, this->m_object->Clone(nullptr));
  }
  EXPECT_EQ(0u, clone->Release());
}

TYPED_TEST(StreamContract, CopyToMovesSmallCountsWithoutAllocating) {
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

  // More than is left: only what was read is written.
  this->m_spy.ClearRequests();
  EXPECT_HR(S_OK, this->m_object->CopyTo(target, U(1000), &read, &written));
  const ULONGLONG left = std::min<ULONGLONG>(1000, std::max<ULONGLONG>(600, this->InitialEnd()) - 512);
  EXPECT_EQ(left, read.QuadPart);
  EXPECT_EQ(left, written.QuadPart);
  if constexpr (TypeParam::kPlatform)
    EXPECT_THAT(this->m_spy.AllocRequests(), IsEmpty()) << "platform: copies in pieces";
  else
    EXPECT_EQ(std::vector<SIZE_T>({1000}), this->m_spy.AllocRequests()) << "one buffer for the whole count";

  ULARGE_INTEGER end = U(0);
  EXPECT_HR(S_OK, target->Seek(L(0), STREAM_SEEK_CUR, &end));
  EXPECT_EQ(512 + left, end.QuadPart);
  EXPECT_HR(S_OK, target->Seek(L(0), STREAM_SEEK_SET, nullptr));
  EXPECT_EQ(Pattern(600, 4), this->Read(600, target));
  EXPECT_EQ(512 + left, StatSize(target));
  EXPECT_EQ(0u, target->Release());
}

TYPED_TEST(StreamContract, CopyToRefusesNoTargetAndCountsOfFourGiB) {
  this->Write(Pattern(10));
  this->SeekTo(0);
  ULARGE_INTEGER read = U(kSentinel), written = U(kSentinel);
  if constexpr (TypeParam::kPlatform) {
    GTEST_SKIP() << "platform: no NULL check, and copies everything for the largest count";
  } else {
    EXPECT_HR(E_POINTER, this->m_object->CopyTo(nullptr, U(4), &read, &written));
    EXPECT_EQ(0u, read.QuadPart);
    EXPECT_EQ(0u, written.QuadPart);

    IStream* target = nullptr;
    ASSERT_HR(S_OK, CreateStreamOnHGlobal(nullptr, TRUE, &target));
    read = written = U(kSentinel);
    EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->CopyTo(target, U(~0ull), &read, &written))
        << "the copy-everything idiom does not fit in memory at once";
    EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->CopyTo(target, U(k4GiB), nullptr, nullptr));
    EXPECT_EQ(0u, read.QuadPart);
    EXPECT_EQ(0u, written.QuadPart);
    EXPECT_EQ(0u, this->SeekTo(0, STREAM_SEEK_CUR));
    EXPECT_EQ(0u, StatSize(target));
    EXPECT_EQ(0u, target->Release());
  }
}

TYPED_TEST(StreamContract, CommitRevertAndRegionLocksAnswerAsTheStoreDoes) {
  EXPECT_HR(S_OK, this->m_object->Commit(STGC_DEFAULT));
  EXPECT_HR(S_OK, this->m_object->Commit(STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE));
  EXPECT_HR(S_OK, this->m_object->Revert());
  EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->LockRegion(U(0), U(1), LOCK_WRITE));
  const HRESULT unlock = this->m_object->UnlockRegion(U(0), U(1), LOCK_WRITE);
  if constexpr (TypeParam::kPlatform)
    EXPECT_HR(S_OK, unlock) << "platform: unlocking succeeds";
  else
    EXPECT_HR(STG_E_INVALIDFUNCTION, unlock);
}
