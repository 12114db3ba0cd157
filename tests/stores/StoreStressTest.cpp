// Eight threads, each on its own clone of one locked stream over one locked
// store, write their own records at their own offsets and read each other's,
// committing now and then: every record read is either not written yet or
// whole, and the store ends holding exactly every record (the registry key too).
#include <xkcombsd/Module.h>

#include "RegistryProbe.h"
#include "StoreTestSupport.h"
#include "StressHarness.h"

using namespace storetest;

namespace {

constexpr int kSteps = 1000;
constexpr ULONG kRecords = xktest::kStressThreads * kSteps;

// Long enough that a write and a read overlapping without the lock would tear.
struct Record {
  DWORD thread, index, check[14];
  bool operator==(const Record& o) const { return std::memcmp(this, &o, sizeof o) == 0; }
};
Record RecordAt(ULONG slot) {
  Record record{slot % xktest::kStressThreads, slot / xktest::kStressThreads, {}};
  for (DWORD& check : record.check) check = slot * 2654435761u + 1 + (&check - record.check);
  return record;
}
LARGE_INTEGER OffsetOf(ULONG slot) { return L(LONGLONG(slot) * sizeof(Record)); }

// The store under the stream: the caller's fixed block, task memory, a stream on a
// private heap with no lock-bytes at hand, or the test's registry key.
enum Kind { kFixed, kTask, kHeapStream, kRegistry };
const char kKey[] = "Software\\XKComBsD tests";

// The stream, and the store under it when there is one at hand (held by the stream).
HRESULT Make(Kind kind, std::vector<Record>& memory, IStream** stream, ILockBytes** lb) {
  const ULONG size = ULONG(memory.size() * sizeof(Record));
  if (kind == kHeapStream) return CreateStreamOnMemory(nullptr, 0, QVCLBOMF_PRIVATEHEAP, 0, stream);
  HKEY key = nullptr;
  HRESULT hr =
      kind == kFixed  ? CreateLockBytesOnMemory(memory.data(), size, QVCLBOMF_FIXEDBLOCK, 0, lb)
      : kind == kTask ? CreateLockBytesOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, lb)
      : RegCreateKeyA(HKEY_CURRENT_USER, kKey, &key) ? E_FAIL
                                                     : CreateLockBytesOnRegKey(key, nullptr, 0, lb);
  if (key) RegCloseKey(key);
  if (SUCCEEDED(hr)) hr = CreateStreamOnLockBytes(*lb, 0, stream);
  if (*lb) (*lb)->Release();
  return hr;
}

using StoreStressTest = LeakCheckedTest;

// A growable store at hand is also written and grown from every thread at once,
// each thread putting its records a second time behind the first copy, straight
// on the store, and reading back its own earlier ones.
TEST_F(StoreStressTest, ClonesOfOneLockedStreamWriteTheirOwnRecordsAndReadWholeOnesOnly) {
  xktest::KeyTreeCleanup cleanup(HKEY_CURRENT_USER, {kKey});
  std::vector<Record> expected(kRecords), twice;
  for (ULONG slot = 0; slot < kRecords; ++slot) expected[slot] = RecordAt(slot);
  twice = expected, twice.insert(twice.end(), expected.begin(), expected.end());
  const ULONG size = kRecords * sizeof(Record);
  for (Kind kind : {kFixed, kTask, kHeapStream, kRegistry}) {
    SCOPED_TRACE(kind);
    std::vector<Record> memory(kRecords);
    IStream* stream = nullptr;
    ILockBytes* lb = nullptr;
    ASSERT_HR(S_OK, Make(kind, memory, &stream, &lb));
    const bool grows = kind == kTask || kind == kRegistry;
    // Filled first: a clone writing past its own idea of the end would resize the
    // store, and grown bytes are not cleared.
    ASSERT_HR(S_OK, stream->Write(memory.data(), size, nullptr));
    IStream* clones[xktest::kStressThreads];
    for (IStream*& clone : clones) ASSERT_HR(S_OK, stream->Clone(&clone));
    const long failures = xktest::RunStress(kSteps, [&](xktest::StressThread& t, int n) {
      IStream* mine = clones[t.index];
      const ULONG slot = ULONG(t.index + n * xktest::kStressThreads), other = t.Next(kRecords),
                  earlier = t.index + xktest::kStressThreads * t.Next(n + 1);
      Record read{};
      ULONG cb = 0;
      t.Check(mine->Seek(OffsetOf(slot), STREAM_SEEK_SET, nullptr) == S_OK &&
              mine->Write(&expected[slot], sizeof(Record), nullptr) == S_OK);
      t.Check(mine->Seek(OffsetOf(other), STREAM_SEEK_SET, nullptr) == S_OK &&
              mine->Read(&read, sizeof read, &cb) == S_OK && cb == sizeof read &&
              (read == expected[other] || read == Record{}));
      t.Check(n % 128 || mine->Commit(STGC_DEFAULT) == S_OK);
      if (!grows) return;
      t.Check(lb->WriteAt(U(size + OffsetOf(slot).QuadPart), &expected[slot], sizeof read,
                          nullptr) == S_OK);
      t.Check(lb->ReadAt(U(size + OffsetOf(earlier).QuadPart), &read, sizeof read, &cb) == S_OK &&
              cb == sizeof read && read == expected[earlier]);
    });
    EXPECT_EQ(0, failures);
    const size_t records = grows ? twice.size() : expected.size();
    std::vector<Record> stored(records + 1);
    ULONG cb = 0;
    EXPECT_HR(S_OK, stream->Seek(L(0), STREAM_SEEK_SET, nullptr));
    EXPECT_HR(S_OK, stream->Read(stored.data(), ULONG(stored.size() * sizeof(Record)), &cb));
    stored.resize(cb / sizeof(Record));
    EXPECT_TRUE(std::equal(stored.begin(), stored.end(), twice.begin(), twice.begin() + records))
        << "the store holds every record, and nothing else";
    EXPECT_TRUE(kind != kFixed || memory == expected) << "in the caller's own block";
    for (IStream* clone : clones) EXPECT_EQ(0u, clone->Release());
    EXPECT_EQ(0u, stream->Release());  // which flushes the store once more
  }
  std::vector<Record> value(twice.size());
  DWORD cb = DWORD(value.size() * sizeof(Record));
  EXPECT_EQ(0, RegGetValueA(HKEY_CURRENT_USER, kKey, nullptr, RRF_RT_REG_BINARY, nullptr,
                            value.data(), &cb));
  EXPECT_TRUE(cb == 2 * size && value == twice) << "the registry holds every record";
  EXPECT_HR(S_OK, DllCanUnloadNow());
}

}  // namespace
