// One collection used by several threads at once: every operation holds the
// object's lock, so the count afterwards is exactly what the operations imply
// and nothing leaks.
#include <atomic>
#include <thread>
#include <vector>

#include "Kinds.h"

namespace {

constexpr int kThreads = 4;
constexpr int kRounds = 300;

// Each thread appends one element a round and removes one every other round,
// never more than it appended itself, so every removal finds an element.
void Work(ISeqVARIANT* seq, const VARIANT* item, std::atomic<int>* failures) {
  IEnumVARIANT* shared = nullptr;
  if (seq->_NewEnum(&shared) != S_OK) return void(++*failures);
  for (int round = 0; round < kRounds; ++round) {
    if (seq->Add(item, 1) != S_OK) ++*failures;
    if (round % 2 == 1 && seq->RemoveAt(0) != S_OK) ++*failures;
    VARIANT fetched[3];
    ULONG n = 0;
    if (FAILED(shared->Next(3, fetched, &n)) || n > 3) ++*failures;
    for (ULONG i = 0; i < n && i < 3; ++i) {
      if (!xktest::VariantKind::Copies(fetched[i], *item)) ++*failures;
      VariantClear(&fetched[i]);
    }
    if (round % 16 == 0) shared->Reset();
    IEnumVARIANT* clone = nullptr;
    if (round % 10 != 0) continue;
    if (shared->Clone(&clone) != S_OK) {
      ++*failures;
      continue;
    }
    for (ULONG skipped = 0; clone->Skip(1) == S_OK && skipped < 100000;) ++skipped;
    if (clone->Release() != 0) ++*failures;
  }
  shared->Release();
}

using CollectionStressTest = xktest::CollectionsTest;

TEST_F(CollectionStressTest, ThreadsAddingRemovingEnumeratingAndCloningAgree) {
  VARIANT item = xktest::VariantKind::MakeItem(0);
  IEnumVARIANT* e = nullptr;
  ASSERT_HR(S_OK, EnumVARIANT_Create(nullptr, 0, &e));
  ISeqVARIANT* seq = nullptr;
  ASSERT_HR(S_OK, e->QueryInterface(IID_ISeqVARIANT, reinterpret_cast<void**>(&seq)));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) threads.emplace_back(Work, seq, &item, &failures);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, failures.load());
  long count = -1;
  EXPECT_HR(S_OK, seq->Count(&count));
  EXPECT_EQ(kThreads * (kRounds - kRounds / 2), count);
  EXPECT_EQ(1u, seq->Release());
  EXPECT_EQ(0u, e->Release());
  VariantClear(&item);
}

}  // namespace
