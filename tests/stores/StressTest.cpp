// Several threads on one locked store, and on one locked stream through its
// clones, at once: every record lands whole, no reader sees half of one, and
// the store ends exactly as large as the last record's end. Bounded: a fixed
// number of records per thread, joined before checking.
#include <thread>
#include <vector>

#include "StoreTestSupport.h"

using namespace storetest;

namespace {

constexpr ULONG kThreads = 4;
constexpr ULONG kRecordsPerThread = 1500;
constexpr ULONG kRecords = kThreads * kRecordsPerThread;

// A record that can tell whether it is whole: its check word ties the others together.
struct Record {
  DWORD magic, thread, index, check;
};
static_assert(sizeof(Record) == 16, "records are 16 bytes");
constexpr DWORD kMagic = 0x5EC0DE5A;

Record MakeRecord(ULONG thread, ULONG index) {
  return {kMagic, thread, index, kMagic ^ thread ^ (index * 2654435761u)};
}
bool IsWhole(const Record& r) { return r.check == (r.magic ^ r.thread ^ (r.index * 2654435761u)); }

// Records interleave, so every thread keeps growing the same store.
ULONGLONG SlotOffset(ULONG thread, ULONG index) {
  return ULONGLONG(index * kThreads + thread) * sizeof(Record);
}

class StressTest : public LeakCheckedTest {};

}  // namespace

TEST_F(StressTest, WritersAndReadersShareOneLockedStore) {
  for (DWORD kind : {DWORD(QVCLBOMF_TASKALLOCATOR), DWORD(QVCLBOMF_PRIVATEHEAP)}) {
    ILockBytes* lb = nullptr;
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, kind, 0, &lb));
    LONG failures = 0, torn = 0, whole = 0;
    std::vector<std::thread> threads;
    for (ULONG t = 0; t < kThreads; ++t)
      threads.emplace_back([&, t] {
        for (ULONG i = 0; i < kRecordsPerThread; ++i) {
          const Record record = MakeRecord(t, i);
          ULONG written = 0;
          if (lb->WriteAt(U(SlotOffset(t, i)), &record, sizeof record, &written) != S_OK ||
              written != sizeof record)
            InterlockedIncrement(&failures);
        }
      });
    for (ULONG r = 0; r < 2; ++r)
      threads.emplace_back([&, r] {
        for (ULONG i = 0; i < kRecords; ++i) {
          Record record = {};
          ULONG read = 0;
          const ULONG slot = (i * 7919 + r) % kRecords;
          if (FAILED(lb->ReadAt(U(ULONGLONG(slot) * sizeof record), &record, sizeof record, &read)))
            InterlockedIncrement(&failures);
          // Unwritten slots hold whatever growth left there; a written one is whole.
          if (read == sizeof record && record.magic == kMagic)
            InterlockedIncrement(IsWhole(record) ? &whole : &torn);
        }
      });
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(0, failures);
    EXPECT_EQ(0, torn) << "a reader saw half a record (" << whole << " whole)";
    EXPECT_EQ(ULONGLONG(kRecords) * sizeof(Record), StatSize(lb));
    for (ULONG t = 0; t < kThreads; ++t)
      for (ULONG i = 0; i < kRecordsPerThread; ++i) {
        Record record = {};
        lb->ReadAt(U(SlotOffset(t, i)), &record, sizeof record, nullptr);
        const Record expected = MakeRecord(t, i);
        ASSERT_EQ(0, std::memcmp(&expected, &record, sizeof record)) << t << "/" << i;
      }
    EXPECT_EQ(0u, lb->Release());
  }
}

TEST_F(StressTest, ClonesOfOneLockedStreamWriteAndReadAtOnce) {
  IStream* stream = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnMemory(nullptr, 0, QVCLBOMF_PRIVATEHEAP, 0, &stream));
  // Each stream keeps its own end, and one that writes past it first sets the
  // store's size to its position, which would cut off what another clone wrote
  // further on. Clones sharing a store are therefore given its full size first.
  ASSERT_HR(S_OK, stream->SetSize(U(ULONGLONG(kRecords) * sizeof(Record))));
  std::vector<IStream*> clones(kThreads);
  for (IStream*& clone : clones) ASSERT_HR(S_OK, stream->Clone(&clone));

  LONG failures = 0;
  std::vector<std::thread> threads;
  for (ULONG t = 0; t < kThreads; ++t)
    threads.emplace_back([&, t] {
      IStream* mine = clones[t];
      for (ULONG i = 0; i < kRecordsPerThread; ++i) {
        const Record record = MakeRecord(t, i);
        ULONG count = 0;
        if (FAILED(mine->Seek(L(LONGLONG(SlotOffset(t, i))), STREAM_SEEK_SET, nullptr)) ||
            mine->Write(&record, sizeof record, &count) != S_OK || count != sizeof record)
          InterlockedIncrement(&failures);
        // Read back through the same clone: its position is its own.
        Record back = {};
        if (FAILED(mine->Seek(L(-LONGLONG(sizeof back)), STREAM_SEEK_CUR, nullptr)) ||
            mine->Read(&back, sizeof back, &count) != S_OK || count != sizeof back ||
            std::memcmp(&back, &record, sizeof record) != 0)
          InterlockedIncrement(&failures);
      }
    });
  // The source stream reads alongside, through its own position.
  threads.emplace_back([&] {
    for (ULONG i = 0; i < kRecords; ++i) {
      Record record = {};
      if (FAILED(stream->Seek(L(LONGLONG((i * 31) % kRecords) * 16), STREAM_SEEK_SET, nullptr)) ||
          FAILED(stream->Read(&record, sizeof record, nullptr)))
        InterlockedIncrement(&failures);
    }
  });
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(0, failures);
  EXPECT_EQ(ULONGLONG(kRecords) * sizeof(Record), StatSize(stream));
  ASSERT_HR(S_OK, stream->Seek(L(0), STREAM_SEEK_SET, nullptr));
  for (ULONG slot = 0; slot < kRecords; ++slot) {
    Record record = {};
    ASSERT_HR(S_OK, stream->Read(&record, sizeof record, nullptr));
    const Record expected = MakeRecord(slot % kThreads, slot / kThreads);
    ASSERT_EQ(0, std::memcmp(&expected, &record, sizeof record)) << slot;
  }
  for (IStream* clone : clones) EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(0u, stream->Release());
}
