// Several threads at once, each on its own clone of one locked stream over one
// locked store (in memory, or on a registry key): the store ends holding
// exactly every record, whole, and the registry key all of them too.
// Bounded: a fixed number of records per thread, joined before checking.
#include <thread>

#include "RegistryProbe.h"
#include "StoreTestSupport.h"

using namespace storetest;

namespace {

constexpr ULONG kThreads = 4, kRecords = kThreads * 1500;

struct Record {
  DWORD thread, index, check;
  bool operator==(const Record& o) const { return std::memcmp(this, &o, sizeof o) == 0; }
};
Record RecordAt(ULONG slot) { return {slot % kThreads, slot / kThreads, slot * 2654435761u + 1}; }
LARGE_INTEGER OffsetOf(ULONG slot) { return L(LONGLONG(slot) * sizeof(Record)); }

using StoreStressTest = LeakCheckedTest;

}  // namespace

// The registry store on the test's own key; every thread also flushes it now and then.
TEST_F(StoreStressTest, ClonesOfOneLockedStreamWriteAtOnceWhileTheStoreIsFlushed) {
  const char kKey[] = "Software\\XKComBsD tests";
  xktest::KeyTreeCleanup cleanup(HKEY_CURRENT_USER, {kKey});
  HKEY key;
  ASSERT_EQ(0, RegCreateKeyA(HKEY_CURRENT_USER, kKey, &key));
  std::vector<Record> memory(kRecords), expected(kRecords);
  for (ULONG slot = 0; slot < kRecords; ++slot) expected[slot] = RecordAt(slot);
  const ULONG size = ULONG(memory.size() * sizeof(Record));
  ILockBytes* stores[2] = {};
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(memory.data(), size, QVCLBOMF_FIXEDBLOCK, 0, &stores[0]));
  ASSERT_HR(S_OK, CreateLockBytesOnRegKey(key, nullptr, 0, &stores[1]));
  RegCloseKey(key);
  // Sized first: a clone writing past its own idea of the end would resize the store.
  ASSERT_HR(S_OK, stores[1]->SetSize(U(size)));
  for (ILockBytes* lb : stores) {
    IStream* stream = nullptr;
    ASSERT_HR(S_OK, CreateStreamOnLockBytes(lb, 0, &stream));
    std::vector<IStream*> clones(kThreads);
    for (IStream*& clone : clones) ASSERT_HR(S_OK, stream->Clone(&clone));
    LONG failures = 0;
    std::vector<std::thread> threads;
    for (ULONG t = 0; t < kThreads; ++t)
      threads.emplace_back([&, t] {
        for (ULONG slot = t; slot < kRecords; slot += kThreads)
          if (clones[t]->Seek(OffsetOf(slot), STREAM_SEEK_SET, nullptr) != S_OK ||
              clones[t]->Write(&expected[slot], sizeof(Record), nullptr) != S_OK ||
              (slot % 256 < kThreads && lb->Flush() != S_OK))
            InterlockedIncrement(&failures);
      });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, failures);
    const Bytes bytes = ReadAll(lb, size);
    EXPECT_TRUE(bytes.size() == size && std::memcmp(bytes.data(), expected.data(), size) == 0);
    for (IStream* clone : clones) EXPECT_EQ(0u, clone->Release());
    EXPECT_EQ(0u, stream->Release());  // which flushes the store once more
    EXPECT_EQ(0u, lb->Release());
  }
  DWORD cb = size;
  EXPECT_EQ(0, RegGetValueA(HKEY_CURRENT_USER, kKey, nullptr, RRF_RT_REG_BINARY, nullptr,
                            memory.data(), &cb));
  EXPECT_TRUE(cb == size && memory == expected) << "the registry holds every record";
}
