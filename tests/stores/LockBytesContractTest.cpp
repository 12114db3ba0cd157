// The ILockBytes contract every memory store keeps, typed over each kind in
// both forms, and run against the platform's store on global memory too.
// Where the platform answers differently, the case says so ("platform:").
#include "StoreTestSupport.h"

using namespace storetest;

namespace {

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

}  // namespace

TYPED_TEST(LockBytesContract, AnswersItsInterfacesAndItsThreadingModel) {
  ILockBytes* lb = this->m_object;
  IUnknown* identity = nullptr;
  ASSERT_HR(S_OK, lb->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)));
  EXPECT_EQ(static_cast<IUnknown*>(lb), identity);
  identity->Release();

  void* other = reinterpret_cast<void*>(0x1);
  EXPECT_HR(E_NOINTERFACE, lb->QueryInterface(IID_IStream, &other));
  EXPECT_EQ(nullptr, other);

  IThreadingInfo* info = nullptr;
  const HRESULT hr = lb->QueryInterface(IID_IThreadingInfo, reinterpret_cast<void**>(&info));
  if constexpr (TypeParam::kPlatform) {
    EXPECT_HR(E_NOINTERFACE, hr) << "platform: no library interfaces";
    return;
  }
  ASSERT_HR(S_OK, hr);
  EXPECT_HR(E_POINTER, info->GetThreadingModel(nullptr));
  DWORD model = kSentinel;
  EXPECT_HR(S_OK, info->GetThreadingModel(&model));
  EXPECT_EQ(TypeParam::kThreadingModel, model);
  EXPECT_EQ(3u, info->AddRef()) << "one count for the store, whichever interface";
  info->Release();
  info->Release();

  ISaveToFile* saver = nullptr;
  ASSERT_HR(S_OK, lb->QueryInterface(IID_ISaveToFile, reinterpret_cast<void**>(&saver)));
  saver->Release();
}

TYPED_TEST(LockBytesContract, WritesAndReadsBackExactBytes) {
  this->FillToCapacity(9);
  EXPECT_EQ(Pattern(this->kCapacity, 9), ReadAll(this->m_object, this->kCapacity));

  const std::vector<BYTE> middle = Pattern(20, 77);
  ASSERT_HR(S_OK, WriteBytes(this->m_object, 17, middle));
  EXPECT_EQ(middle, ReadAll(this->m_object, 20, 17));
  std::vector<BYTE> expected = Pattern(this->kCapacity, 9);
  std::copy(middle.begin(), middle.end(), expected.begin() + 17);
  EXPECT_EQ(expected, ReadAll(this->m_object, this->kCapacity));
  EXPECT_EQ(this->kCapacity, StatSize(this->m_object)) << "a write inside the store keeps its size";
  EXPECT_HR(S_OK, this->m_object->Flush());
}

TYPED_TEST(LockBytesContract, ReadsAtOrPastTheEndGiveZeroBytesAndCrossingReadsStopAtIt) {
  this->FillToCapacity();
  const ULONG end = this->kCapacity;
  BYTE buffer[16];
  std::memset(buffer, 0xEE, sizeof buffer);
  ULONG read = kSentinel;
  const HRESULT crossing = this->m_object->ReadAt(U(end - 4), buffer, sizeof buffer, &read);
  EXPECT_EQ(4u, read);
  EXPECT_EQ(0xEE, buffer[4]) << "nothing past the end is copied";

  read = kSentinel;
  const HRESULT atEnd = this->m_object->ReadAt(U(end), buffer, 4, &read);
  EXPECT_EQ(0u, read);
  ULONG pastRead = kSentinel;
  const HRESULT past = this->m_object->ReadAt(U(end + 1000), buffer, 4, &pastRead);
  if constexpr (TypeParam::kPlatform) {
    // platform: a read that comes up short is a read fault, and one that
    // starts past the end fails without writing the count.
    EXPECT_HR(STG_E_READFAULT, crossing);
    EXPECT_HR(STG_E_READFAULT, atEnd);
    EXPECT_HR(E_FAIL, past);
    EXPECT_EQ(kSentinel, pastRead);
  } else {
    EXPECT_HR(S_OK, crossing);
    EXPECT_HR(S_OK, atEnd);
    EXPECT_HR(S_OK, past);
    EXPECT_EQ(0u, pastRead);
  }
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
  if constexpr (TypeParam::kPlatform)
    EXPECT_EQ(kSentinel, written) << "platform: an empty write leaves the count alone";
  else
    EXPECT_EQ(0u, written);
}

TYPED_TEST(LockBytesContract, RefusesNullBuffersAndClearsTheCount) {
  if constexpr (TypeParam::kPlatform) {
    GTEST_SKIP() << "platform: a NULL buffer is not checked (the call faults)";
  } else {
    ULONG count = kSentinel;
    EXPECT_HR(E_POINTER, this->m_object->ReadAt(U(0), nullptr, 4, &count));
    EXPECT_EQ(0xDEADBEEFu, count) << "the pointer is checked before the count is cleared";
    EXPECT_HR(E_POINTER, this->m_object->WriteAt(U(0), nullptr, 4, &count));
    EXPECT_EQ(0xDEADBEEFu, count);
    if (TypeParam::kGrowable) EXPECT_EQ(0u, StatSize(this->m_object)) << "a refused write must not grow";
  }
}

TYPED_TEST(LockBytesContract, EverythingAtOrBeyondFourGiBIsMediumFull) {
  if constexpr (TypeParam::kPlatform) {
    GTEST_SKIP() << "platform: not run; near 4 GiB it tries to allocate rather than refuse";
  } else {
    this->FillToCapacity(3);
    BYTE buffer[8] = {};
    ULONG count = kSentinel;
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
    EXPECT_EQ(this->kCapacity, StatSize(this->m_object));
    EXPECT_EQ(Pattern(this->kCapacity, 3), ReadAll(this->m_object, this->kCapacity));
  }
}

TYPED_TEST(LockBytesContract, StatNeedsNoNameAndReportsOnlyTypeAndSize) {
  this->FillToCapacity();
  STATSTG stat;
  std::memset(&stat, 0xAB, sizeof stat);
  EXPECT_HR(S_OK, this->m_object->Stat(&stat, STATFLAG_NONAME));
  EXPECT_EQ(nullptr, stat.pwcsName);
  EXPECT_EQ(static_cast<DWORD>(STGTY_LOCKBYTES), stat.type);
  EXPECT_EQ(this->kCapacity, stat.cbSize.QuadPart);
  EXPECT_EQ(CLSID_NULL, stat.clsid);
  EXPECT_EQ(0u, stat.grfStateBits);
  if (!TypeParam::kPlatform) {
    EXPECT_EQ(0u, stat.grfMode);
    EXPECT_EQ(0u, stat.grfLocksSupported);
    EXPECT_EQ(0u, stat.mtime.dwLowDateTime | stat.mtime.dwHighDateTime);
    EXPECT_EQ(0u, stat.ctime.dwLowDateTime | stat.ctime.dwHighDateTime);
    EXPECT_EQ(0u, stat.atime.dwLowDateTime | stat.atime.dwHighDateTime);
  }

  std::memset(&stat, 0xAB, sizeof stat);
  const HRESULT named = this->m_object->Stat(&stat, STATFLAG_DEFAULT);
  if constexpr (TypeParam::kPlatform) {
    EXPECT_HR(S_OK, named) << "platform: answers a named Stat";
    CoTaskMemFree(stat.pwcsName);
  } else {
    EXPECT_HR(STG_E_INVALIDFLAG, named) << "the library's stores have no name to give";
    EXPECT_HR(STG_E_INVALIDPOINTER, this->m_object->Stat(nullptr, STATFLAG_NONAME));
  }
}

TYPED_TEST(LockBytesContract, RegionLocksAreNotSupported) {
  EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->LockRegion(U(0), U(1), LOCK_WRITE));
  EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->UnlockRegion(U(0), U(1), LOCK_WRITE));
  if (!TypeParam::kPlatform)
    EXPECT_HR(STG_E_INVALIDFUNCTION, this->m_object->LockRegion(U(~0ull), U(0), 0xFFFF));
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
    const std::vector<BYTE> tail = Pattern(10, 40);
    ASSERT_HR(S_OK, WriteBytes(this->m_object, 100, tail));
    EXPECT_EQ(110u, StatSize(this->m_object));
    EXPECT_EQ(tail, ReadAll(this->m_object, 10, 100));
    ASSERT_HR(S_OK, WriteBytes(this->m_object, 109, Pattern(3, 1)));
    EXPECT_EQ(112u, StatSize(this->m_object)) << "no spare capacity: the size is the end of the write";
  } else {
    // A fixed store ends at the caller's size: a write past it changes nothing.
    this->FillToCapacity(6);
    ASSERT_HR(S_OK, this->m_object->SetSize(U(8)));
    ASSERT_HR(S_OK, WriteBytes(this->m_object, 20, Pattern(4, 50)));
    EXPECT_EQ(24u, StatSize(this->m_object)) << "grows back inside the caller's memory";
    EXPECT_HR(STG_E_MEDIUMFULL, WriteBytes(this->m_object, this->kCapacity - 2, Pattern(3, 60)));
    EXPECT_HR(STG_E_MEDIUMFULL, this->m_object->SetSize(U(this->kCapacity + 1)));
    EXPECT_EQ(24u, StatSize(this->m_object));
    EXPECT_EQ(Pattern(4, 50), ReadAll(this->m_object, 4, 20));
  }
}
