// Several threads at once, each on its own clone of one locked stream over one
// locked store: the caller's memory ends holding exactly every record, whole.
// Bounded: a fixed number of records per thread, joined before checking.
#include <thread>

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

TEST_F(StoreStressTest, ClonesOfOneLockedStreamWriteAtOnce) {
  std::vector<Record> memory(kRecords);
  const ULONG size = ULONG(memory.size() * sizeof(Record));
  ILockBytes* lb = nullptr;
  IStream* stream = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(memory.data(), size, QVCLBOMF_FIXEDBLOCK, 0, &lb));
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(lb, 0, &stream));
  std::vector<IStream*> clones(kThreads);
  for (IStream*& clone : clones) ASSERT_HR(S_OK, stream->Clone(&clone));
  LONG failures = 0;
  std::vector<std::thread> threads;
  for (ULONG t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      for (ULONG slot = t; slot < kRecords; slot += kThreads) {
        const Record record = RecordAt(slot);
        if (clones[t]->Seek(OffsetOf(slot), STREAM_SEEK_SET, nullptr) != S_OK ||
            clones[t]->Write(&record, sizeof record, nullptr) != S_OK)
          InterlockedIncrement(&failures);
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, failures);
  for (ULONG slot = 0; slot < kRecords; ++slot) ASSERT_TRUE(memory[slot] == RecordAt(slot)) << slot;
  EXPECT_EQ(size, StatSize(lb));
  for (IStream* clone : clones) EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(0u, stream->Release());
  EXPECT_EQ(0u, lb->Release());
}
