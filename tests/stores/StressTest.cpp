// Several threads on one locked store, and on one locked stream through its
// clones, at once: every record lands whole, no reader sees half of one, and
// the store ends exactly as large as the last record's end. Bounded: a fixed
// number of records per thread, joined before checking.
#include <functional>
#include <thread>
#include <vector>

#include "StoreTestSupport.h"

using namespace storetest;

namespace {

constexpr ULONG kThreads = 4, kRecordsPerThread = 1500, kRecords = kThreads * kRecordsPerThread;

// A record that can tell whether it is whole: its check word ties the others together.
struct Record {
  DWORD magic, thread, index, check;
  bool operator==(const Record& o) const { return std::memcmp(this, &o, sizeof o) == 0; }
};
constexpr DWORD kMagic = 0x5EC0DE5A;
constexpr ULONGLONG kEnd = ULONGLONG(kRecords) * sizeof(Record);

// Records interleave, so every thread keeps growing the same store.
Record RecordAt(ULONG slot) {
  const DWORD thread = slot % kThreads, index = slot / kThreads;
  return {kMagic, thread, index, kMagic ^ thread ^ (index * 2654435761u)};
}
bool IsWhole(const Record& r) { return r.check == (r.magic ^ r.thread ^ (r.index * 2654435761u)); }
ULARGE_INTEGER OffsetOf(ULONG slot) { return U(ULONGLONG(slot) * sizeof(Record)); }

// Runs each body on its own thread, `kThreads` writers first, and joins them all.
void RunTogether(const std::function<void(ULONG)>& writer, const std::vector<std::function<void()>>& readers) {
  std::vector<std::thread> threads;
  for (ULONG t = 0; t < kThreads; ++t) threads.emplace_back(writer, t);
  for (const auto& reader : readers) threads.emplace_back(reader);
  for (std::thread& thread : threads) thread.join();
}

class StressTest : public LeakCheckedTest {
 protected:
  LONG failures = 0;
  void Fail() { InterlockedIncrement(&failures); }
};

}  // namespace

TEST_F(StressTest, WritersAndReadersShareOneLockedStore) {
  for (DWORD kind : {DWORD(QVCLBOMF_TASKALLOCATOR), DWORD(QVCLBOMF_PRIVATEHEAP)}) {
    ILockBytes* lb = nullptr;
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, kind, 0, &lb));
    LONG torn = 0, whole = 0;
    auto reader = [&](ULONG seed) {
      for (ULONG i = 0; i < kRecords; ++i) {
        Record record = {};
        ULONG read = 0;
        if (FAILED(lb->ReadAt(OffsetOf((i * 7919 + seed) % kRecords), &record, sizeof record, &read))) Fail();
        // Unwritten slots hold whatever growth left there; a written one is whole.
        if (read == sizeof record && record.magic == kMagic) InterlockedIncrement(IsWhole(record) ? &whole : &torn);
      }
    };
    RunTogether(
        [&](ULONG t) {
          for (ULONG slot = t; slot < kRecords; slot += kThreads) {
            const Record record = RecordAt(slot);
            ULONG written = 0;
            if (lb->WriteAt(OffsetOf(slot), &record, sizeof record, &written) != S_OK || written != sizeof record)
              Fail();
          }
        },
        {[&] { reader(0); }, [&] { reader(1); }});
    EXPECT_EQ(0, failures);
    EXPECT_EQ(0, torn) << "a reader saw half a record (" << whole << " whole)";
    EXPECT_EQ(kEnd, StatSize(lb));
    for (ULONG slot = 0; slot < kRecords; ++slot) {
      Record record = {};
      lb->ReadAt(OffsetOf(slot), &record, sizeof record, nullptr);
      ASSERT_EQ(RecordAt(slot), record) << slot;
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
  ASSERT_HR(S_OK, stream->SetSize(U(kEnd)));
  std::vector<IStream*> clones(kThreads);
  for (IStream*& clone : clones) ASSERT_HR(S_OK, stream->Clone(&clone));
  RunTogether(
      [&](ULONG t) {
        for (ULONG slot = t; slot < kRecords; slot += kThreads) {
          // Written and read back through the same clone: its position is its own.
          const Record record = RecordAt(slot);
          Record back = {};
          ULONG written = 0, read = 0;
          if (FAILED(clones[t]->Seek(L(LONGLONG(OffsetOf(slot).QuadPart)), STREAM_SEEK_SET, nullptr)) ||
              clones[t]->Write(&record, sizeof record, &written) != S_OK || written != sizeof record ||
              FAILED(clones[t]->Seek(L(-LONGLONG(sizeof back)), STREAM_SEEK_CUR, nullptr)) ||
              clones[t]->Read(&back, sizeof back, &read) != S_OK || read != sizeof back || !(back == record))
            Fail();
        }
      },
      // The source stream reads alongside, through its own position.
      {[&] {
        for (ULONG i = 0; i < kRecords; ++i) {
          Record record = {};
          if (FAILED(stream->Seek(L(LONGLONG(OffsetOf((i * 31) % kRecords).QuadPart)), STREAM_SEEK_SET, nullptr)) ||
              FAILED(stream->Read(&record, sizeof record, nullptr)))
            Fail();
        }
      }});
  EXPECT_EQ(0, failures);
  EXPECT_EQ(kEnd, StatSize(stream));
  ASSERT_HR(S_OK, stream->Seek(L(0), STREAM_SEEK_SET, nullptr));
  for (ULONG slot = 0; slot < kRecords; ++slot) {
    Record record = {};
    ASSERT_HR(S_OK, stream->Read(&record, sizeof record, nullptr));
    ASSERT_EQ(RecordAt(slot), record) << slot;
  }
  for (IStream* clone : clones) EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(0u, stream->Release());
}
