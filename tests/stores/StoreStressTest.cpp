// Several threads on one locked store, and on one locked stream through its
// clones, at once: every record lands whole, no reader sees half of one, and
// the store ends exactly as large as the last record's end. Bounded: a fixed
// number of records per thread, joined before checking.
#include <functional>
#include <thread>

#include "StoreTestSupport.h"

using namespace storetest;

namespace {

constexpr ULONG kThreads = 4, kRecords = kThreads * 1500;

// A record that can tell whether it is whole; records interleave, so every
// thread keeps growing the same store.
struct Record {
  DWORD magic, thread, index, check;
  bool operator==(const Record& o) const { return std::memcmp(this, &o, sizeof o) == 0; }
};
Record RecordAt(ULONG slot) {
  const DWORD thread = slot % kThreads, index = slot / kThreads;
  return {0x5EC0DE5A, thread, index, 0x5EC0DE5A ^ thread ^ (index * 2654435761u)};
}
LONGLONG OffsetOf(ULONG slot) { return LONGLONG(slot) * sizeof(Record); }
const ULONGLONG kEnd = OffsetOf(kRecords);

// `writer` runs on kThreads threads, each given every kThreads-th slot from its
// own number; each reader on one more thread over every slot. `read` then reads
// each slot back once all are joined. A call that says false is a failure.
using Body = std::function<bool(ULONG)>;
void RunTogetherAndCheck(const Body& writer, const std::vector<Body>& readers,
                         const std::function<Record(ULONG)>& read) {
  LONG failures = 0;
  auto loop = [&failures](const Body& body, ULONG from, ULONG step) {
    for (ULONG i = from; i < kRecords; i += step)
      if (!body(i)) InterlockedIncrement(&failures);
  };
  std::vector<std::thread> threads;
  for (ULONG t = 0; t < kThreads; ++t) threads.emplace_back([&, t] { loop(writer, t, kThreads); });
  for (const Body& reader : readers) threads.emplace_back([&] { loop(reader, 0, 1); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, failures);
  for (ULONG slot = 0; slot < kRecords; ++slot) ASSERT_EQ(RecordAt(slot), read(slot)) << slot;
}

using StoreStressTest = LeakCheckedTest;

}  // namespace

// A reader may find an unwritten slot holding whatever growth left there, but
// never half a record: one of the right magic must be whole.
TEST_F(StoreStressTest, WritersAndReadersShareOneLockedStore) {
  for (DWORD kind : {DWORD(QVCLBOMF_TASKALLOCATOR), DWORD(QVCLBOMF_PRIVATEHEAP)}) {
    ILockBytes* lb = nullptr;
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, kind, 0, &lb));
    auto readAt = [&](ULONG slot, Record* record, ULONG* read) {
      return lb->ReadAt(U(OffsetOf(slot)), record, sizeof *record, read) == S_OK;
    };
    auto reader = [&](ULONG seed) {
      return [&, seed](ULONG i) {
        Record r = {};
        ULONG read = 0;
        return readAt((i * 7919 + seed) % kRecords, &r, &read) &&
               (read < sizeof r || r.magic != RecordAt(0).magic ||
                r == RecordAt(r.index * kThreads + r.thread));
      };
    };
    RunTogetherAndCheck(
        [&](ULONG slot) {
          const Record record = RecordAt(slot);
          ULONG written = 0;
          return lb->WriteAt(U(OffsetOf(slot)), &record, sizeof record, &written) == S_OK &&
                 written == sizeof record;
        },
        {reader(0), reader(1)},
        [&](ULONG slot) {
          Record record = {};
          EXPECT_TRUE(readAt(slot, &record, nullptr));
          return record;
        });
    EXPECT_EQ(kEnd, StatSize(lb));
    EXPECT_EQ(0u, lb->Release());
  }
}

// Each stream keeps its own end, and one that writes past it first sets the
// store's size to its position, which would cut off what another clone wrote
// further on; clones sharing a store are therefore given its full size first.
TEST_F(StoreStressTest, ClonesOfOneLockedStreamWriteAndReadAtOnce) {
  IStream* stream = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnMemory(nullptr, 0, QVCLBOMF_PRIVATEHEAP, 0, &stream));
  ASSERT_HR(S_OK, stream->SetSize(U(kEnd)));
  std::vector<IStream*> clones(kThreads);
  for (IStream*& clone : clones) ASSERT_HR(S_OK, stream->Clone(&clone));
  // Reads through `from`, at its own position; true if all went well.
  auto readAt = [](IStream* from, LONGLONG offset, Record* record) {
    ULONG read = 0;
    return from->Seek(L(offset), STREAM_SEEK_SET, nullptr) == S_OK &&
           from->Read(record, sizeof *record, &read) == S_OK && read == sizeof *record;
  };
  RunTogetherAndCheck(
      [&](ULONG slot) {  // written and read back through the same clone
        IStream* clone = clones[slot % kThreads];
        const Record record = RecordAt(slot);
        Record back = {};
        return clone->Seek(L(OffsetOf(slot)), STREAM_SEEK_SET, nullptr) == S_OK &&
               clone->Write(&record, sizeof record, nullptr) == S_OK &&
               readAt(clone, OffsetOf(slot), &back) && back == record;
      },
      {[&](ULONG i) {
        Record record;
        return readAt(stream, OffsetOf(i * 31 % kRecords), &record);
      }},
      [&](ULONG slot) {
        Record record = {};
        EXPECT_TRUE(readAt(stream, OffsetOf(slot), &record));
        return record;
      });
  EXPECT_EQ(kEnd, StatSize(stream));
  for (IStream* clone : clones) EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(0u, stream->Release());
}
