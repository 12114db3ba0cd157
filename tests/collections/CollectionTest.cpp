// The collection-and-enumerator contract, run over all five element kinds:
// every call at its edges as one table row, then the shared position,
// one identity, independent clones, growth as the task allocator sees it,
// the creators, the traces; then a C client, eight threads, and the classes
// made by ProgID.
#include <climits>
#include <cstdio>
#include <optional>
#include <vector>

#include "DebugOutput.h"
#include "Kinds.h"
#include "StressHarness.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using xktest::FillSentinel;

extern "C" HRESULT InsertAddAndReadThroughC(ISeqBSTR* seq, BSTR item, long* count, BSTR* first);

namespace {

enum Op { kAdd, kInsertAt, kRemoveAt, kSetAt, kSetPosition, kEmpty, kNext, kNext1, kSkip };
constexpr int kNull = -1;  // as "from": a NULL array

// One call on a new object holding items [0, size) at position, with its index or position
// (at), first item (from) and count; the code it returns, the items held afterwards (edits) or
// fetched (walks; kNext1 leaves out the count), and the position it leaves. E_OUTOFMEMORY rows
// run while the task allocator refuses everything.
struct Row {
  const char* what;
  int size, position, op;
  long long at, from;
  ULONG count;
  HRESULT hr;
  std::vector<int> items;
  ULONG positionAfter;
};

const Row kRows[] = {
    {"Add appends, position kept", 2, 1, kAdd, 0, 5, 3, S_OK, {0, 1, 5, 6, 7}, 1},
    {"Add of none from NULL", 2, 1, kAdd, 0, kNull, 0, S_OK, {0, 1}, 1},
    {"Add from NULL", 2, 1, kAdd, 0, kNull, 3, E_POINTER, {0, 1}, 1},
    {"Add starved", 3, 1, kAdd, 0, 5, 1, E_OUTOFMEMORY, {0, 1, 2}, 1},
    {"Add huge, reads no item", 3, 1, kAdd, 0, 5, ULONG_MAX, E_OUTOFMEMORY, {0, 1, 2}, 1},
    {"InsertAt of none unchecked", 3, 2, kInsertAt, ULONG_MAX, kNull, 0, S_FALSE, {0, 1, 2}, 2},
    {"InsertAt past the count", 3, 2, kInsertAt, 4, 10, 1, E_INVALIDARG, {0, 1, 2}, 2},
    {"InsertAt from NULL", 3, 2, kInsertAt, 0, kNull, 1, E_POINTER, {0, 1, 2}, 2},
    {"InsertAt the count appends", 3, 2, kInsertAt, 3, 10, 2, S_OK, {0, 1, 2, 10, 11}, 2},
    {"InsertAt in the middle", 3, 2, kInsertAt, 2, 30, 2, S_OK, {0, 1, 30, 31, 2}, 2},
    {"RemoveAt the count", 5, 0, kRemoveAt, 5, 0, 0, E_INVALIDARG, {0, 1, 2, 3, 4}, 0},
    {"RemoveAt closes the gap", 5, 1, kRemoveAt, 1, 0, 0, S_OK, {0, 2, 3, 4}, 1},
    {"RemoveAt: position stays inside", 5, 5, kRemoveAt, 4, 0, 0, S_OK, {0, 1, 2, 3}, 4},
    // Its storage goes too, or the final release reports the pointers and leaks.
    {"RemoveAt the last", 1, 1, kRemoveAt, 0, 0, 0, S_OK, {}, 0},
    {"SetAt checks the item first", 3, 0, kSetAt, ULONG_MAX, kNull, 0, E_POINTER, {0, 1, 2}, 0},
    {"SetAt the count", 3, 0, kSetAt, 3, 9, 0, E_INVALIDARG, {0, 1, 2}, 0},
    {"SetAt lets the old go", 3, 0, kSetAt, 1, 9, 0, S_OK, {0, 9, 2}, 0},
    {"SetPosition -1", 4, 1, kSetPosition, -1, 0, 0, E_INVALIDARG, {0, 1, 2, 3}, 1},
    {"SetPosition past the count", 4, 1, kSetPosition, 5, 0, 0, E_INVALIDARG, {0, 1, 2, 3}, 1},
    {"SetPosition the count", 4, 1, kSetPosition, 4, 0, 0, S_OK, {0, 1, 2, 3}, 4},
    {"Empty when empty", 0, 0, kEmpty, 0, 0, 0, S_FALSE, {}, 0},
    {"Next: only one may go uncounted", 5, 0, kNext1, 0, 0, 0, E_INVALIDARG, {}, 0},
    {"Next clears the count first", 5, 0, kNext, 0, kNull, 3, E_POINTER, {}, 0},
    {"Next of exactly the rest", 5, 2, kNext, 0, 0, 3, S_OK, {2, 3, 4}, 5},
    {"Next short", 5, 3, kNext, 0, 0, 4, S_FALSE, {3, 4}, 5},
    {"Next of one uncounted", 4, 3, kNext1, 0, 0, 1, S_OK, {3}, 4},
    {"Skip to the end exactly", 5, 2, kSkip, 0, 0, 3, S_FALSE, {}, 5},
};

template <class Kind>
class CollectionTest : public xktest::CollectionsTest {
 protected:
  using Element = typename Kind::Element;
  using Enum = typename Kind::Enum;
  using Seq = typename Kind::Seq;

  void SetUp() override {
    for (int i = 0; i < xktest::kMaxItems; ++i) m_items[i] = Kind::MakeItem(i);
  }
  void TearDown() override {
    for (auto& item : m_items) Kind::FreeItem(item);
    CollectionsTest::TearDown();
  }

  Enum* Make(int n) {
    Enum* e = nullptr;
    EXPECT_HR(S_OK, Kind::Create(m_items, n, &e));
    return e;
  }
  // The sequence face of an object; adds no reference.
  static Seq* SeqOf(IUnknown* object) {
    Seq* seq = nullptr;
    EXPECT_HR(S_OK, object->QueryInterface(*Kind::kAnswered[0], reinterpret_cast<void**>(&seq)));
    seq->Release();
    return seq;
  }
  static ULONG PositionOf(Seq* seq) {
    ULONG position = 0xDEADBEEF;
    EXPECT_HR(S_OK, seq->GetPosition(&position));
    return position;
  }
  // Which item each fetched element is the caller's own copy of (-1 for none); frees them.
  std::vector<int> Indices(Element* fetched, ULONG n) {
    std::vector<int> indices(n, -1);
    for (ULONG i = 0; i < n; ++i) {
      for (int item = 0; item < xktest::kMaxItems && indices[i] < 0; ++item)
        if (Kind::Copies(fetched[i], m_items[item])) indices[i] = item;
      Kind::FreeCopy(fetched[i]);
    }
    return indices;
  }
  std::vector<int> Fetch(Enum* e, ULONG count, HRESULT expected = S_OK) {
    Element fetched[xktest::kMaxItems];
    ULONG n = 0;
    EXPECT_HR(expected, e->Next(count, fetched, &n));
    return Indices(fetched, n);
  }
  // The items the object holds, in order; leaves it at the end.
  std::vector<int> All(Enum* e) {
    EXPECT_HR(S_OK, e->Reset());
    return Fetch(e, xktest::kMaxItems, S_FALSE);
  }

  HRESULT Apply(const Row& row, Enum* e, Seq* seq, Element* slots, ULONG* n) {
    const auto* items = row.from == kNull ? nullptr : m_items + row.from;
    const auto at = static_cast<ULONG>(row.at);
    if (row.op == kAdd) return seq->Add(items, row.count);
    if (row.op == kInsertAt) return seq->InsertAt(at, items, row.count);
    if (row.op == kRemoveAt) return seq->RemoveAt(at);
    if (row.op == kSetAt) return seq->SetAt(at, items);
    if (row.op == kSetPosition) return seq->SetPosition(static_cast<long>(row.at));
    if (row.op == kEmpty) return seq->Empty();
    if (row.op == kNext) return e->Next(row.count, row.from == kNull ? nullptr : slots, n);
    if (row.op == kNext1) return e->Next(row.count, slots, nullptr);
    if (row.op == kSkip) return e->Skip(row.count);
    return E_FAIL;
  }

  typename Kind::Input m_items[xktest::kMaxItems];
};

TYPED_TEST_SUITE(CollectionTest, xktest::AllKinds);

TYPED_TEST(CollectionTest, EachCallLeavesTheItemsAndPositionOfItsRow) {
  xktest::DebugOutputCapture capture;
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.what);
    auto* e = this->Make(row.size);
    auto* seq = this->SeqOf(e);
    ASSERT_HR(S_OK, seq->SetPosition(row.position));
    typename TypeParam::Element slots[4];
    FillSentinel(slots, 4);
    ULONG n = 0xDEADBEEF;
    std::optional<xktest::TaskAllocatorRefusal> refusal;
    if (row.hr == E_OUTOFMEMORY) refusal.emplace();
    const HRESULT hr = this->Apply(row, e, seq, slots, &n);
    refusal.reset();
    EXPECT_HR(row.hr, hr);
    EXPECT_EQ(row.positionAfter, this->PositionOf(seq));
    if (row.op >= kNext) {
      const auto fetched = static_cast<ULONG>(row.items.size());
      if (row.op == kNext) EXPECT_EQ(fetched, n);
      for (ULONG i = fetched; i < 4; ++i) EXPECT_TRUE(xktest::IsSentinel(slots[i])) << i;
      EXPECT_THAT(this->Indices(slots, fetched), ElementsAreArray(row.items));
    } else {
      EXPECT_THAT(this->All(e), ElementsAreArray(row.items));
    }
    EXPECT_EQ(0u, e->Release());
  }
  EXPECT_THAT(capture.Assertions(), IsEmpty());
}

TYPED_TEST(CollectionTest, GrowthAsksForTheNextMultipleOfSixteenEveryTime) {
  auto* e = this->Make(0);
  auto* seq = this->SeqOf(e);
  this->m_spy.ClearRequests();
  for (int i = 0; i < 17; ++i) ASSERT_HR(S_OK, seq->Add(this->m_items + i, 1));
  const SIZE_T sixteen = 16 * sizeof(typename TypeParam::Element);
  std::vector<SIZE_T> expected(15, sixteen);
  expected.insert(expected.end(), 2, 2 * sixteen);
  EXPECT_THAT(this->m_spy.ReallocRequests(), ElementsAreArray(expected));
  EXPECT_EQ(0u, e->Release());
}

std::string TraceLine(const char* name, bool birth, const void* object) {
  char text[96];
  std::snprintf(text, sizeof text, "%s%s(%08x), th %lx\n", birth ? "" : "~", name,
                unsigned(reinterpret_cast<ULONG_PTR>(object)), GetCurrentThreadId());
  return text;
}

// Three kinds trace each object's birth and death by the address of its
// collection face; the string creator echoes its items.
TYPED_TEST(CollectionTest, OneObjectBehindEveryFaceCountedExactlyAndTraced) {
  xktest::DebugOutputCapture capture;
  auto* e = this->Make(2);
  for (const IID* iid : TypeParam::kAnswered) {
    IUnknown *face = nullptr, *identity = nullptr;
    ASSERT_HR(S_OK, e->QueryInterface(*iid, reinterpret_cast<void**>(&face)));
    ASSERT_HR(S_OK, face->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)));
    EXPECT_EQ(static_cast<IUnknown*>(e), identity);
    EXPECT_EQ(2u, identity->Release());
    EXPECT_EQ(1u, face->Release()) << "one count for every face";
  }
  void* out = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(E_NOINTERFACE, e->QueryInterface(IID_IStream, &out));
  EXPECT_EQ(nullptr, out);
  auto* seq = this->SeqOf(e);
  EXPECT_HR(E_POINTER, seq->_NewEnum(nullptr));
  EXPECT_HR(E_POINTER, seq->Count(nullptr));
  EXPECT_HR(E_POINTER, seq->GetPosition(nullptr));
  EXPECT_HR(E_POINTER, e->Clone(nullptr));
  EXPECT_HR(E_POINTER, e->QueryInterface(IID_IUnknown, nullptr));
  typename TypeParam::Enum* other = nullptr;
  ASSERT_HR(S_OK, e->Skip(1));
  ASSERT_HR(S_OK, seq->_NewEnum(&other));
  EXPECT_EQ(e, other);
  EXPECT_THAT(this->Fetch(other, 1), ElementsAre(1)) << "handing it out does not reset it";
  EXPECT_EQ(1u, other->Release());
  EXPECT_HR(S_FALSE, DllCanUnloadNow()) << "a live object keeps the library loaded";
  EXPECT_EQ(0u, e->Release());
  std::vector<std::string> expected;
  if (const char* name = TypeParam::kTraceName)
    expected = {TraceLine(name, true, seq), TraceLine(name, false, seq)};
  if (std::is_same_v<TypeParam, xktest::StringKind>) expected = {"item 0", "\n", "item 1", "\n"};
  EXPECT_THAT(capture.Lines(), ElementsAreArray(expected));
}

TYPED_TEST(CollectionTest, ClonesCopyElementsAndPositionAndThenGoTheirOwnWay) {
  auto* e = this->Make(5);
  ASSERT_HR(S_OK, this->SeqOf(e)->SetPosition(2));
  typename TypeParam::Enum* clone = nullptr;
  ASSERT_HR(S_OK, e->Clone(&clone));
  EXPECT_THAT(this->Fetch(clone, 1), ElementsAre(2));
  EXPECT_EQ(2u, this->PositionOf(this->SeqOf(e))) << "the source keeps its own position";
  EXPECT_HR(S_OK, this->SeqOf(e)->Empty());
  EXPECT_THAT(this->All(clone), ElementsAre(0, 1, 2, 3, 4));
  EXPECT_EQ(0u, clone->Release());
  ASSERT_HR(S_OK, e->Clone(&clone)) << "an empty source clones too";
  EXPECT_THAT(this->All(clone), IsEmpty());
  EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, CreatorMakesAnEmptyOneFromNothing) {
  typename TypeParam::Enum* e = nullptr;
  ASSERT_HR(S_OK, TypeParam::Create(nullptr, 0, &e)) << "NULL with 0 makes an empty one";
  EXPECT_THAT(this->All(e), IsEmpty());
  EXPECT_EQ(0u, e->Release());
}

// What single creators add: the string creator's echo of a NULL string, and
// the C form of the public interfaces for BSTRs.
using CreatorTest = xktest::CollectionsTest;

TEST_F(CreatorTest, TheStringCreatorEchoesANullStringAsAnEmptyLineAndCopiesItAsNull) {
  const LPCOLESTR strings[] = {L"b", nullptr};
  IEnumString* e = nullptr;
  xktest::DebugOutputCapture capture;
  ASSERT_HR(S_OK, EnumString_Create(strings, 2, &e));
  EXPECT_THAT(capture.Lines(), ElementsAre("b", "\n", "", "\n"));
  LPOLESTR fetched = reinterpret_cast<LPOLESTR>(0xDEADBEEF);
  ASSERT_HR(S_OK, e->Skip(1));
  ASSERT_HR(S_OK, e->Next(1, &fetched, nullptr));
  EXPECT_EQ(nullptr, fetched);
  EXPECT_EQ(0u, e->Release());
}

using BstrTest = CollectionTest<xktest::BstrKind>;

TEST_F(BstrTest, CClientsReachEveryMethodThroughTheVtable) {
  auto* e = Make(0);
  long count = -1;
  BSTR first = nullptr;
  EXPECT_HR(S_OK, InsertAddAndReadThroughC(SeqOf(e), m_items[7], &count, &first));
  EXPECT_EQ(2, count);
  EXPECT_THAT(Indices(&first, 1), ElementsAre(7));
  EXPECT_EQ(0u, e->Release());
}

// Eight threads on one object holding items 0-7 ahead of copies of item kX:
// they add, insert, replace and remove copies behind the fixed items (a thread
// removes only what it added, so one is always there), fetch from the shared
// enumerator and walk clones of their own. Every walk finds the fixed items
// and then copies of kX, whole; the count ends where each thread's own tally says.
constexpr int kFixed = 8, kX = 9, kSteps = 3000;

TYPED_TEST(CollectionTest, EightThreadsLeaveExactlyTheElementsTheirTalliesImply) {
  using Element = typename TypeParam::Element;
  auto* e = this->Make(kFixed);
  auto* seq = this->SeqOf(e);
  const auto* x = this->m_items + kX;
  auto walk = [&](typename TypeParam::Enum* from) {  // the count, or -1 for a wrong element
    long count = 0, wrong = from->Reset() != S_OK;
    Element got[16];
    for (ULONG n = 16; n == 16; count += n) {
      n = 0;
      wrong += FAILED(from->Next(16, got, &n));
      for (ULONG i = 0; i < n; ++i) {
        const int item = count + i < kFixed ? int(count + i) : kX;
        wrong += !TypeParam::Copies(got[i], this->m_items[item]);
        TypeParam::FreeCopy(got[i]);
      }
    }
    return wrong ? -1 : count;
  };
  long tally[xktest::kStressThreads] = {};
  const long failures = xktest::RunStress(kSteps, [&](xktest::StressThread& t, int) {
    long& mine = tally[t.index];
    typename TypeParam::Enum* clone = nullptr;
    Element got[3];
    ULONG n = 0;
    switch (t.Next(8)) {
      case 0:
        return t.Check(seq->Add(x, 1) == S_OK), void(++mine);
      case 1:
        return t.Check(seq->InsertAt(kFixed, x, 1) == S_OK), void(++mine);
      case 2:
      case 3:
      case 4:
        return mine ? t.Check(seq->RemoveAt(kFixed) == S_OK), void(--mine) : void();
      case 5:
        return t.Check(!mine || seq->SetAt(kFixed, x) == S_OK);
      case 6:
        t.Check(SUCCEEDED(e->Next(3, got, &n)));
        for (int index : this->Indices(got, n))
          t.Check(index == kX || (index >= 0 && index < kFixed));
        return void(n < 3 && e->Reset());
      default:
        t.Check(e->Clone(&clone) == S_OK && walk(clone) >= kFixed);
        return t.Check(clone && clone->Release() == 0);
    }
  });
  EXPECT_EQ(0, failures);
  long expected = kFixed, count = -1;
  for (long mine : tally) expected += mine;
  EXPECT_HR(S_OK, seq->Count(&count));
  EXPECT_EQ(expected, count);
  EXPECT_EQ(expected, walk(e));
  EXPECT_EQ(0u, e->Release());
}

// After regsvr32, any COM client makes the classes by ProgID through CoCreateInstance.
std::string Regsvr32(const char* options) {
  return std::string("regsvr32.exe ") + options + " \"" + xktest::ExecutableDirectoryA() +
         "\\XKComBsD.dll\"";
}

class RegisteredClassTest : public CollectionTest<xktest::GuidKind> {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(0u, xktest::RunToEnd(Regsvr32("/s"), 60000)); }
  static void TearDownTestSuite() { EXPECT_EQ(0u, xktest::RunToEnd(Regsvr32("/s /u"), 60000)); }
};

TEST_F(RegisteredClassTest, EnumGUIDMadeByProgIDHoldsAndListsWhatItIsGiven) {
  CLSID clsid = {};
  ASSERT_HR(S_OK, CLSIDFromProgID(L"QuorvelSoftware.EnumGUID", &clsid));
  IEnumGUID* e = nullptr;
  ASSERT_HR(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IEnumGUID,
                                   reinterpret_cast<void**>(&e)));
  ASSERT_HR(S_OK, SeqOf(e)->Add(m_items + 3, 2));
  EXPECT_THAT(All(e), ElementsAre(3, 4));
  EXPECT_EQ(0u, e->Release());
}

}  // namespace
