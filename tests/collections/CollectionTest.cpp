// The collection-and-enumerator contract, run over all five element kinds:
// every call at its edges as one table row, then the shared position,
// independent clones, the QueryInterface set, growth as the task allocator
// sees it, the class object and creator, and the traces.
#include <climits>
#include <cstdio>
#include <optional>
#include <vector>

#include "DebugOutput.h"
#include "Kinds.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using xktest::DebugOutputCapture;
using xktest::FillSentinel;

namespace {

enum Op { kAdd, kInsertAt, kRemoveAt, kSetAt, kSetPosition, kEmpty, kNext, kNext1, kSkip, kReset };
constexpr int kNull = -1;  // as "from": a NULL array

// One call on a new object holding items [0, size) at position: the call with its index or
// position (at), first item handed in (from) and count handed in or asked for; the code it
// returns, the items held afterwards (edits) or fetched (walks), and the position it leaves.
// Calls that must fail for want of memory run while the task allocator refuses everything.
// kNext1 leaves out the fetched count.
struct Row {
  const char* what;
  int size, position;
  Op op;
  long long at;
  int from;
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
    {"InsertAt huge", 3, 1, kInsertAt, 0, 5, ULONG_MAX, E_OUTOFMEMORY, {0, 1, 2}, 1},
    {"InsertAt of none unchecked", 3, 2, kInsertAt, ULONG_MAX, kNull, 0, S_FALSE, {0, 1, 2}, 2},
    {"InsertAt past the count", 3, 2, kInsertAt, 4, 10, 1, E_INVALIDARG, {0, 1, 2}, 2},
    {"InsertAt from NULL", 3, 2, kInsertAt, 0, kNull, 1, E_POINTER, {0, 1, 2}, 2},
    {"InsertAt the count appends", 3, 2, kInsertAt, 3, 10, 2, S_OK, {0, 1, 2, 10, 11}, 2},
    {"InsertAt in the middle", 3, 2, kInsertAt, 2, 30, 2, S_OK, {0, 1, 30, 31, 2}, 2},
    {"RemoveAt the count", 5, 0, kRemoveAt, 5, 0, 0, E_INVALIDARG, {0, 1, 2, 3, 4}, 0},
    {"RemoveAt ULONG_MAX", 5, 0, kRemoveAt, ULONG_MAX, 0, 0, E_INVALIDARG, {0, 1, 2, 3, 4}, 0},
    {"RemoveAt closes the gap", 5, 1, kRemoveAt, 1, 0, 0, S_OK, {0, 2, 3, 4}, 1},
    {"RemoveAt: position stays inside", 5, 5, kRemoveAt, 4, 0, 0, S_OK, {0, 1, 2, 3}, 4},
    {"RemoveAt before the position", 3, 1, kRemoveAt, 0, 0, 0, S_OK, {1, 2}, 1},
    // Its storage goes too, or the final release reports the pointers and leaks.
    {"RemoveAt the last", 1, 1, kRemoveAt, 0, 0, 0, S_OK, {}, 0},
    {"SetAt checks the item first", 3, 0, kSetAt, ULONG_MAX, kNull, 0, E_POINTER, {0, 1, 2}, 0},
    {"SetAt the count", 3, 0, kSetAt, 3, 9, 0, E_INVALIDARG, {0, 1, 2}, 0},
    {"SetAt lets the old go", 3, 0, kSetAt, 1, 9, 0, S_OK, {0, 9, 2}, 0},
    {"SetPosition -1", 4, 1, kSetPosition, -1, 0, 0, E_INVALIDARG, {0, 1, 2, 3}, 1},
    {"SetPosition past the count", 4, 1, kSetPosition, 5, 0, 0, E_INVALIDARG, {0, 1, 2, 3}, 1},
    {"SetPosition LONG_MAX", 4, 1, kSetPosition, LONG_MAX, 0, 0, E_INVALIDARG, {0, 1, 2, 3}, 1},
    {"SetPosition the count", 4, 1, kSetPosition, 4, 0, 0, S_OK, {0, 1, 2, 3}, 4},
    {"SetPosition 0 when empty", 0, 0, kSetPosition, 0, 0, 0, S_OK, {}, 0},
    {"Empty when empty", 0, 0, kEmpty, 0, 0, 0, S_FALSE, {}, 0},
    {"Next: only one may go uncounted", 5, 0, kNext1, 0, 0, 0, E_INVALIDARG, {}, 0},
    {"Next: nor two", 5, 0, kNext1, 0, 0, 2, E_INVALIDARG, {}, 0},
    {"Next clears the count first", 5, 0, kNext, 0, kNull, 3, E_POINTER, {}, 0},
    {"Next of exactly the rest", 5, 2, kNext, 0, 0, 3, S_OK, {2, 3, 4}, 5},
    {"Next at the end", 5, 5, kNext, 0, 0, 1, S_FALSE, {}, 5},
    {"Next short", 5, 3, kNext, 0, 0, 4, S_FALSE, {3, 4}, 5},
    {"Next of one uncounted", 4, 3, kNext1, 0, 0, 1, S_OK, {3}, 4},
    {"Next when empty", 0, 0, kNext1, 0, 0, 1, S_FALSE, {}, 0},
    {"Skip to the end exactly", 5, 2, kSkip, 0, 0, 3, S_FALSE, {}, 5},
    {"Skip a huge count", 5, 3, kSkip, 0, 0, ULONG_MAX, S_FALSE, {}, 5},
    {"Skip 0 when empty", 0, 0, kSkip, 0, 0, 0, S_FALSE, {}, 0},
    {"Reset", 5, 5, kReset, 0, 0, 0, S_OK, {}, 0},
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
    EXPECT_HR(S_OK, object->QueryInterface(Kind::SeqIid(), reinterpret_cast<void**>(&seq)));
    seq->Release();
    return seq;
  }
  static ULONG PositionOf(Seq* seq) {
    ULONG position = 0xDEADBEEF;
    EXPECT_HR(S_OK, seq->GetPosition(&position));
    return position;
  }
  static long CountOf(Seq* seq) {
    long count = -1;
    EXPECT_HR(S_OK, seq->Count(&count));
    return count;
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
  // The items the object holds, in order; its position is left as it was.
  std::vector<int> Contents(Enum* e) {
    const ULONG position = PositionOf(SeqOf(e));
    EXPECT_HR(S_OK, e->Reset());
    const std::vector<int> items = Fetch(e, xktest::kMaxItems, S_FALSE);
    EXPECT_HR(S_OK, SeqOf(e)->SetPosition(static_cast<long>(position)));
    return items;
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
    if (row.op == kReset) return e->Reset();
    return E_FAIL;
  }

  typename Kind::Input m_items[xktest::kMaxItems];
};

TYPED_TEST_SUITE(CollectionTest, xktest::AllKinds);

TYPED_TEST(CollectionTest, EachCallLeavesTheItemsAndPositionOfItsRow) {
  DebugOutputCapture capture;
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.what);
    auto* e = this->Make(row.size);
    auto* seq = this->SeqOf(e);
    ASSERT_HR(S_OK, seq->SetPosition(row.position));
    typename TypeParam::Element slots[4];
    FillSentinel(slots, 4);
    ULONG n = 0xDEADBEEF;
    HRESULT hr;
    {
      std::optional<xktest::TaskAllocatorRefusal> refusal;
      if (row.hr == E_OUTOFMEMORY) refusal.emplace();
      hr = this->Apply(row, e, seq, slots, &n);
    }
    EXPECT_HR(row.hr, hr);
    EXPECT_EQ(row.positionAfter, this->PositionOf(seq));
    if (row.op >= kNext) {
      const auto fetched = static_cast<ULONG>(row.items.size());
      if (row.op == kNext) EXPECT_EQ(fetched, n);
      for (ULONG i = fetched; i < 4; ++i) EXPECT_TRUE(xktest::IsSentinel(slots[i])) << i;
      EXPECT_THAT(this->Indices(slots, fetched), ElementsAreArray(row.items));
    } else {
      EXPECT_EQ(static_cast<long>(row.items.size()), this->CountOf(seq));
      EXPECT_THAT(this->Contents(e), ElementsAreArray(row.items));
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
  std::snprintf(text, sizeof text, "%s%s(%08x), th %x\n", birth ? "" : "~", name,
                static_cast<unsigned>(reinterpret_cast<ULONG_PTR>(object)),
                static_cast<unsigned>(GetCurrentThreadId()));
  return text;
}

// Three kinds trace each object's birth and death by the address of its
// collection face; the string creator echoes its items.
TYPED_TEST(CollectionTest, NewEnumIsTheObjectItselfReferencesCountExactlyAndLifetimesAreTraced) {
  DebugOutputCapture capture;
  auto* e = this->Make(2);
  typename TypeParam::Seq* seq = nullptr;
  ASSERT_HR(S_OK, e->QueryInterface(TypeParam::SeqIid(), reinterpret_cast<void**>(&seq)));
  EXPECT_EQ(3u, seq->AddRef()) << "one count for both faces";
  EXPECT_EQ(2u, e->Release());
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
  EXPECT_EQ(2u, other->Release());
  EXPECT_EQ(1u, seq->Release());
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
  {
    xktest::TaskAllocatorRefusal refusal;
    FillSentinel(&clone);
    EXPECT_HR(E_OUTOFMEMORY, e->Clone(&clone));
    EXPECT_EQ(nullptr, clone);
  }
  ASSERT_HR(S_OK, e->Clone(&clone));
  EXPECT_THAT(this->Fetch(clone, 1), ElementsAre(2));
  EXPECT_EQ(2u, this->PositionOf(this->SeqOf(e))) << "the source keeps its own position";
  EXPECT_HR(S_OK, this->SeqOf(e)->Empty());
  EXPECT_THAT(this->Contents(clone), ElementsAre(0, 1, 2, 3, 4));
  EXPECT_EQ(0u, clone->Release());
  ASSERT_HR(S_OK, e->Clone(&clone)) << "an empty source clones too";
  EXPECT_THAT(this->Contents(clone), IsEmpty());
  EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, QueryInterfaceAnswersItsOwnSetWithOneIdentity) {
  auto* e = this->Make(1);
  const IID* family[] = {
      &IID_IUnknown,    &IID_ICollBSTR,    &IID_ISeqBSTR,    &IID_IEnumBSTR,     &IID_ICollGUID,
      &IID_ISeqGUID,    &IID_IQvEnumGUID,  &IID_IEnumGUID,   &IID_ICollString,   &IID_ISeqString,
      &IID_IEnumString, &IID_ICollUnknown, &IID_ISeqUnknown, &IID_IEnumUnknown,  &IID_ICollVARIANT,
      &IID_ISeqVARIANT, &IID_IEnumVARIANT, &IID_IDispatch,   &IID_IClassFactory, &IID_IMarshal,
      &IID_IStream};
  for (const IID* iid : family) {
    // The enumerator face answers IUnknown and its own IIDs (for GUIDs, the platform's too).
    const bool isEnum = *iid == IID_IUnknown || *iid == TypeParam::EnumIid() ||
                        (std::is_same_v<TypeParam, xktest::GuidKind> && *iid == IID_IEnumGUID);
    const bool isSeq = *iid == TypeParam::CollIid() || *iid == TypeParam::SeqIid();
    void* out = reinterpret_cast<void*>(0xDEADBEEF);
    EXPECT_HR(isEnum || isSeq ? S_OK : E_NOINTERFACE, e->QueryInterface(*iid, &out));
    if (isEnum) EXPECT_EQ(static_cast<void*>(e), out);
    if (isSeq) EXPECT_EQ(static_cast<IUnknown*>(e), xktest::Identity(static_cast<IUnknown*>(out)));
    if (isEnum || isSeq)
      EXPECT_EQ(1u, static_cast<IUnknown*>(out)->Release());
    else
      EXPECT_EQ(nullptr, out);
  }
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, ClassObjectAndCreatorRefuseBadArgumentsAndLeaveNothingBehind) {
  IClassFactory* factory = nullptr;
  ASSERT_HR(S_OK, DllGetClassObject(TypeParam::Clsid(), IID_IClassFactory,
                                    reinterpret_cast<void**>(&factory)));
  xktest::FakeUnknown outer;
  void* object = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(CLASS_E_NOAGGREGATION, factory->CreateInstance(&outer, IID_IUnknown, &object));
  EXPECT_EQ(nullptr, object);
  EXPECT_EQ(1, outer.refs);
  object = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IStream, &object));
  EXPECT_EQ(nullptr, object);
  ASSERT_HR(S_OK, factory->CreateInstance(nullptr, TypeParam::CollIid(), &object));
  EXPECT_EQ(0u, factory->Release()) << "objects do not hold their class object";
  EXPECT_HR(S_FALSE, DllCanUnloadNow());
  EXPECT_EQ(0, this->CountOf(static_cast<typename TypeParam::Seq*>(object)));
  EXPECT_EQ(0u, static_cast<IUnknown*>(object)->Release());

  typename TypeParam::Enum* e = nullptr;
  EXPECT_HR(E_POINTER, TypeParam::Create(this->m_items, 1, nullptr));
  FillSentinel(&e);
  EXPECT_HR(E_INVALIDARG, TypeParam::Create(nullptr, 2, &e));
  EXPECT_EQ(nullptr, e);
  {
    xktest::TaskAllocatorRefusal refusal;
    FillSentinel(&e);
    EXPECT_HR(E_OUTOFMEMORY, TypeParam::Create(this->m_items, 3, &e));
    EXPECT_EQ(nullptr, e);
  }
  ASSERT_HR(S_OK, TypeParam::Create(nullptr, 0, &e)) << "NULL with 0 makes an empty one";
  EXPECT_EQ(0u, e->Release());
}

}  // namespace
