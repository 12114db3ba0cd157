// The collection-and-enumerator contract, run over all five element kinds:
// every call at its edges as one table row, then the shared position,
// independent clones, the QueryInterface set, ownership of what goes in and
// out, growth as the task allocator sees it, the class object and the traces.
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
using xktest::IsSentinel;

namespace {

enum class Op { kAdd, kInsertAt, kRemoveAt, kSetAt, kSetPosition, kEmpty, kNext, kNextUncounted,
                kSkip, kReset };
constexpr int kNull = -1;  // as "from": a NULL array

// One call on a new object holding items [0, size) at position, and what it leaves.
struct Row {
  const char* what;
  int size;
  long position;
  Op op;
  long long at;  // the index or position the call is given
  int from;      // the first item handed in
  ULONG count;   // the items handed in, or the elements asked for
  HRESULT hr;
  std::vector<int> items;  // walks: the items fetched; edits: the items held afterwards
  ULONG positionAfter;
  bool starved = false;  // the task allocator refuses everything during the call
};

// Rows over one kind's items 0..39; "what" names the edge each row pins.
const Row kRows[] = {
    {"Add appends, position kept", 2, 1, Op::kAdd, 0, 5, 3, S_OK, {0, 1, 5, 6, 7}, 1},
    {"Add of none", 2, 1, Op::kAdd, 0, 5, 0, S_OK, {0, 1}, 1},
    {"Add of none from NULL", 2, 1, Op::kAdd, 0, kNull, 0, S_OK, {0, 1}, 1},
    {"Add from NULL", 2, 1, Op::kAdd, 0, kNull, 3, E_POINTER, {0, 1}, 1},
    {"Add starved", 3, 1, Op::kAdd, 0, 5, 1, E_OUTOFMEMORY, {0, 1, 2}, 1, true},
    {"Add of a huge count reads no item", 3, 1, Op::kAdd, 0, 5, ULONG_MAX, E_OUTOFMEMORY, {0, 1, 2},
     1, true},
    {"InsertAt of a huge count", 3, 1, Op::kInsertAt, 0, 5, ULONG_MAX, E_OUTOFMEMORY, {0, 1, 2}, 1,
     true},
    {"InsertAt of none", 3, 2, Op::kInsertAt, 0, 0, 0, S_FALSE, {0, 1, 2}, 2},
    {"InsertAt of none unchecked", 3, 2, Op::kInsertAt, ULONG_MAX, kNull, 0, S_FALSE, {0, 1, 2}, 2},
    {"InsertAt past the count", 3, 2, Op::kInsertAt, 4, 10, 1, E_INVALIDARG, {0, 1, 2}, 2},
    {"InsertAt from NULL", 3, 2, Op::kInsertAt, 0, kNull, 1, E_POINTER, {0, 1, 2}, 2},
    {"InsertAt the count appends", 3, 2, Op::kInsertAt, 3, 10, 2, S_OK, {0, 1, 2, 10, 11}, 2},
    {"InsertAt keeps the index", 3, 2, Op::kInsertAt, 0, 20, 1, S_OK, {20, 0, 1, 2}, 2},
    {"InsertAt in the middle", 3, 2, Op::kInsertAt, 2, 30, 2, S_OK, {0, 1, 30, 31, 2}, 2},
    {"RemoveAt the count", 5, 0, Op::kRemoveAt, 5, 0, 0, E_INVALIDARG, {0, 1, 2, 3, 4}, 0},
    {"RemoveAt ULONG_MAX", 5, 0, Op::kRemoveAt, ULONG_MAX, 0, 0, E_INVALIDARG, {0, 1, 2, 3, 4}, 0},
    {"RemoveAt closes the gap", 5, 1, Op::kRemoveAt, 1, 0, 0, S_OK, {0, 2, 3, 4}, 1},
    {"RemoveAt: position stays inside", 5, 5, Op::kRemoveAt, 4, 0, 0, S_OK, {0, 1, 2, 3}, 4},
    {"RemoveAt before the position", 3, 1, Op::kRemoveAt, 0, 0, 0, S_OK, {1, 2}, 1},
    {"SetAt checks the item first", 3, 0, Op::kSetAt, ULONG_MAX, kNull, 0, E_POINTER, {0, 1, 2}, 0},
    {"SetAt the count", 3, 0, Op::kSetAt, 3, 9, 0, E_INVALIDARG, {0, 1, 2}, 0},
    {"SetAt lets the old go", 3, 0, Op::kSetAt, 1, 9, 0, S_OK, {0, 9, 2}, 0},
    {"SetPosition -1", 4, 1, Op::kSetPosition, -1, 0, 0, E_INVALIDARG, {0, 1, 2, 3}, 1},
    {"SetPosition past the count", 4, 1, Op::kSetPosition, 5, 0, 0, E_INVALIDARG, {0, 1, 2, 3}, 1},
    {"SetPosition LONG_MIN", 4, 1, Op::kSetPosition, LONG_MIN, 0, 0, E_INVALIDARG, {0, 1, 2, 3}, 1},
    {"SetPosition LONG_MAX", 4, 1, Op::kSetPosition, LONG_MAX, 0, 0, E_INVALIDARG, {0, 1, 2, 3}, 1},
    {"SetPosition the count", 4, 1, Op::kSetPosition, 4, 0, 0, S_OK, {0, 1, 2, 3}, 4},
    {"SetPosition 0 when empty", 0, 0, Op::kSetPosition, 0, 0, 0, S_OK, {}, 0},
    {"Empty", 3, 2, Op::kEmpty, 0, 0, 0, S_OK, {}, 0},
    {"Empty when empty", 0, 0, Op::kEmpty, 0, 0, 0, S_FALSE, {}, 0},
    {"Next: only one may go uncounted", 5, 0, Op::kNextUncounted, 0, 0, 0, E_INVALIDARG, {}, 0},
    {"Next: nor two", 5, 0, Op::kNextUncounted, 0, 0, 2, E_INVALIDARG, {}, 0},
    {"Next of none", 5, 0, Op::kNext, 0, 0, 0, S_OK, {}, 0},
    {"Next clears the count first", 5, 0, Op::kNext, 0, kNull, 3, E_POINTER, {}, 0},
    {"Next of exactly the rest", 5, 2, Op::kNext, 0, 0, 3, S_OK, {2, 3, 4}, 5},
    {"Next at the end", 5, 5, Op::kNext, 0, 0, 1, S_FALSE, {}, 5},
    {"Next short", 5, 3, Op::kNext, 0, 0, 4, S_FALSE, {3, 4}, 5},
    {"Next of one uncounted", 4, 3, Op::kNextUncounted, 0, 0, 1, S_OK, {3}, 4},
    {"Next of one at the end", 4, 4, Op::kNextUncounted, 0, 0, 1, S_FALSE, {}, 4},
    {"Next when empty", 0, 0, Op::kNextUncounted, 0, 0, 1, S_FALSE, {}, 0},
    {"Skip to the end exactly", 5, 2, Op::kSkip, 0, 0, 3, S_FALSE, {}, 5},
    {"Skip inside", 5, 1, Op::kSkip, 0, 0, 2, S_OK, {}, 3},
    {"Skip a huge count", 5, 3, Op::kSkip, 0, 0, ULONG_MAX, S_FALSE, {}, 5},
    {"Skip 0 when empty", 0, 0, Op::kSkip, 0, 0, 0, S_FALSE, {}, 0},
    {"Reset", 5, 5, Op::kReset, 0, 0, 0, S_OK, {}, 0},
    {"Reset when empty", 0, 0, Op::kReset, 0, 0, 0, S_OK, {}, 0},
};

bool IsWalk(Op op) { return op >= Op::kNext; }

template <class Kind>
class CollectionTest : public xktest::CollectionsTest {
 protected:
  using Element = typename Kind::Element;
  using Input = typename Kind::Input;
  using Enum = typename Kind::Enum;
  using Seq = typename Kind::Seq;

  void SetUp() override {
    for (int i = 0; i < xktest::kMaxItems; ++i) m_items[i] = Kind::MakeItem(i);
  }
  void TearDown() override {
    for (Input& item : m_items) Kind::FreeItem(item);
    CollectionsTest::TearDown();
  }

  // A new enumerator over items[0..n).
  Enum* Make(int n) {
    Enum* e = nullptr;
    EXPECT_HR(S_OK, Kind::Create(m_items, n, &e));
    return e;
  }
  static Seq* SeqOf(IUnknown* object) {
    Seq* seq = nullptr;
    EXPECT_HR(S_OK, object->QueryInterface(Kind::SeqIid(), reinterpret_cast<void**>(&seq)));
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
  // Which item each fetched copy holds (-1 for none); frees the copies.
  static std::vector<int> Indices(Element* fetched, ULONG n) {
    std::vector<int> indices;
    for (ULONG i = 0; i < n; ++i) {
      int found = -1;
      for (int item = 0; item < xktest::kMaxItems && found < 0; ++item)
        if (Kind::Holds(fetched[i], item)) found = item;
      indices.push_back(found);
      Kind::FreeCopy(fetched[i]);
    }
    return indices;
  }
  // The items the sequence holds, in order; the position is left as it was.
  static std::vector<int> Contents(Seq* seq) {
    const ULONG position = PositionOf(seq);
    Enum* e = nullptr;
    EXPECT_HR(S_OK, seq->_NewEnum(&e));
    Element fetched[xktest::kMaxItems];
    ULONG n = 0;
    EXPECT_HR(S_OK, seq->SetPosition(0));
    EXPECT_HR(S_FALSE, e->Next(xktest::kMaxItems, fetched, &n));
    EXPECT_HR(S_OK, seq->SetPosition(static_cast<long>(position)));
    e->Release();
    return Indices(fetched, n);
  }
  // The next element: S_OK and a copy of item i.
  static void ExpectNext(Enum* e, int i) {
    Element fetched;
    ASSERT_HR(S_OK, e->Next(1, &fetched, nullptr));
    EXPECT_THAT(Indices(&fetched, 1), ElementsAre(i));
  }

  HRESULT Apply(const Row& row, Enum* e, Seq* seq, Element* slots, ULONG* n) {
    const Input* items = row.from == kNull ? nullptr : m_items + row.from;
    const auto at = static_cast<ULONG>(row.at);
    switch (row.op) {
      case Op::kAdd: return seq->Add(items, row.count);
      case Op::kInsertAt: return seq->InsertAt(at, items, row.count);
      case Op::kRemoveAt: return seq->RemoveAt(at);
      case Op::kSetAt: return seq->SetAt(at, items);
      case Op::kSetPosition: return seq->SetPosition(static_cast<long>(row.at));
      case Op::kEmpty: return seq->Empty();
      case Op::kNext: return e->Next(row.count, row.from == kNull ? nullptr : slots, n);
      case Op::kNextUncounted: return e->Next(row.count, slots, nullptr);
      case Op::kSkip: return e->Skip(row.count);
      case Op::kReset: return e->Reset();
    }
    return E_FAIL;
  }

  Input m_items[xktest::kMaxItems];
};

TYPED_TEST_SUITE(CollectionTest, xktest::AllKinds, xktest::KindNames);

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
      if (row.starved) refusal.emplace();
      hr = this->Apply(row, e, seq, slots, &n);
    }
    EXPECT_HR(row.hr, hr);
    EXPECT_EQ(row.positionAfter, this->PositionOf(seq));
    if (IsWalk(row.op)) {
      const auto fetched = static_cast<ULONG>(row.items.size());
      if (row.op == Op::kNext) EXPECT_EQ(fetched, n);
      for (ULONG i = fetched; i < 4; ++i) EXPECT_TRUE(IsSentinel(slots[i])) << "slot " << i;
      EXPECT_THAT(this->Indices(slots, fetched), ElementsAreArray(row.items));
    } else {
      EXPECT_EQ(static_cast<long>(row.items.size()), this->CountOf(seq));
      EXPECT_THAT(this->Contents(seq), ElementsAreArray(row.items));
    }
    seq->Release();
    EXPECT_EQ(0u, e->Release());
  }
  EXPECT_THAT(capture.Assertions(), IsEmpty());
}

TYPED_TEST(CollectionTest, RemovingTheLastElementReturnsToTheEmptyState) {
  DebugOutputCapture capture;
  xktest::MallocSpy watch;
  auto* e = this->Make(1);
  auto* seq = this->SeqOf(e);
  EXPECT_LE(1, watch.Outstanding());
  EXPECT_HR(S_OK, seq->RemoveAt(0));
  EXPECT_EQ(0, watch.Outstanding()) << "the storage went with the last element";
  EXPECT_HR(S_FALSE, seq->Empty());
  EXPECT_HR(S_OK, seq->Add(this->m_items + 7, 1));
  EXPECT_THAT(this->Contents(seq), ElementsAre(7));
  EXPECT_HR(S_OK, seq->Empty());
  EXPECT_HR(S_FALSE, seq->Empty());
  EXPECT_THAT(capture.Assertions(), IsEmpty());
  seq->Release();
  EXPECT_EQ(0u, e->Release());
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

  this->m_spy.ClearRequests();
  EXPECT_HR(S_OK, seq->InsertAt(3, this->m_items + 20, 16));
  EXPECT_THAT(this->m_spy.ReallocRequests(), ElementsAre(3 * sixteen)) << "33 elements";
  EXPECT_EQ(33, this->CountOf(seq));
  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, NewEnumIsTheObjectItselfAndReferencesCountExactly) {
  auto* e = this->Make(4);
  EXPECT_EQ(2u, e->AddRef());
  auto* seq = this->SeqOf(e);
  EXPECT_EQ(4u, seq->AddRef()) << "one count for both faces";
  EXPECT_EQ(3u, seq->Release());
  EXPECT_EQ(2u, e->Release());
  EXPECT_HR(E_POINTER, seq->_NewEnum(nullptr));
  EXPECT_HR(E_POINTER, seq->Count(nullptr));
  EXPECT_HR(E_POINTER, seq->GetPosition(nullptr));
  EXPECT_HR(E_POINTER, e->Clone(nullptr));
  EXPECT_HR(E_POINTER, e->QueryInterface(IID_IUnknown, nullptr));

  typename TypeParam::Enum* first = nullptr;
  typename TypeParam::Enum* second = nullptr;
  ASSERT_HR(S_OK, e->Skip(1));
  ASSERT_HR(S_OK, seq->_NewEnum(&first));
  ASSERT_HR(S_OK, seq->_NewEnum(&second));
  EXPECT_EQ(e, first);
  EXPECT_EQ(first, second);
  EXPECT_EQ(1u, this->PositionOf(seq)) << "handing out an enumerator does not reset it";
  this->ExpectNext(first, 1);
  this->ExpectNext(second, 2);
  this->ExpectNext(e, 3);
  EXPECT_EQ(3u, first->Release());
  EXPECT_EQ(2u, second->Release());
  EXPECT_EQ(1u, seq->Release());
  EXPECT_HR(S_FALSE, DllCanUnloadNow()) << "a live object keeps the library loaded";
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, ClonesCopyElementsAndPositionAndThenGoTheirOwnWay) {
  auto* e = this->Make(5);
  auto* seq = this->SeqOf(e);
  ASSERT_HR(S_OK, seq->SetPosition(2));
  typename TypeParam::Enum* clone = nullptr;
  {
    xktest::TaskAllocatorRefusal refusal;
    FillSentinel(&clone);
    EXPECT_HR(E_OUTOFMEMORY, e->Clone(&clone));
    EXPECT_EQ(nullptr, clone);
  }
  ASSERT_HR(S_OK, e->Clone(&clone));
  EXPECT_NE(xktest::Identity(e), xktest::Identity(clone));
  auto* cloneSeq = this->SeqOf(clone);
  EXPECT_EQ(2u, this->PositionOf(cloneSeq));
  this->ExpectNext(clone, 2);
  EXPECT_EQ(2u, this->PositionOf(seq)) << "the source keeps its own position";

  EXPECT_HR(S_OK, seq->Empty());
  EXPECT_HR(S_OK, cloneSeq->Add(this->m_items + 9, 1));
  EXPECT_THAT(this->Contents(cloneSeq), ElementsAre(0, 1, 2, 3, 4, 9));
  EXPECT_EQ(0, this->CountOf(seq));

  typename TypeParam::Enum* emptyClone = nullptr;
  ASSERT_HR(S_OK, e->Clone(&emptyClone)) << "an empty source clones too";
  EXPECT_EQ(0, this->CountOf(this->SeqOf(emptyClone)));
  EXPECT_EQ(1u, emptyClone->Release());
  EXPECT_EQ(0u, emptyClone->Release());
  cloneSeq->Release();
  EXPECT_EQ(0u, clone->Release());
  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, QueryInterfaceAnswersItsOwnSetWithOneIdentity) {
  auto* e = this->Make(1);
  void* coll = nullptr;
  ASSERT_HR(S_OK, e->QueryInterface(TypeParam::CollIid(), &coll));
  auto* seq = this->SeqOf(e);
  EXPECT_EQ(coll, static_cast<void*>(seq));
  EXPECT_NE(static_cast<void*>(e), coll);
  EXPECT_EQ(static_cast<IUnknown*>(e), xktest::Identity(seq)) << "the enumerator is the identity";
  static_cast<IUnknown*>(coll)->Release();
  seq->Release();

  const IID* family[] = {
      &IID_IUnknown,     &IID_ICollBSTR,   &IID_ISeqBSTR,      &IID_IEnumBSTR,    &IID_ICollGUID,
      &IID_ISeqGUID,     &IID_IQvEnumGUID, &IID_IEnumGUID,     &IID_ICollString,  &IID_ISeqString,
      &IID_IEnumString,  &IID_ICollUnknown, &IID_ISeqUnknown,  &IID_IEnumUnknown, &IID_ICollVARIANT,
      &IID_ISeqVARIANT, &IID_IEnumVARIANT, &IID_IDispatch,     &IID_IClassFactory, &IID_IMarshal,
      &IID_IStream};
  for (const IID* iid : family) {
    // The enumerator face answers IUnknown and its own IIDs (for GUIDs, the platform's too).
    const bool isEnum = *iid == IID_IUnknown || *iid == TypeParam::EnumIid() ||
                        (std::is_same_v<TypeParam, xktest::GuidKind> && *iid == IID_IEnumGUID);
    const bool isSeq = *iid == TypeParam::CollIid() || *iid == TypeParam::SeqIid();
    void* out = reinterpret_cast<void*>(0xDEADBEEF);
    const HRESULT hr = e->QueryInterface(*iid, &out);
    if (isEnum) EXPECT_EQ(static_cast<void*>(e), out);
    if (isEnum || isSeq) {
      EXPECT_HR(S_OK, hr);
      EXPECT_EQ(1u, static_cast<IUnknown*>(out)->Release());
    } else {
      EXPECT_HR(E_NOINTERFACE, hr);
      EXPECT_EQ(nullptr, out);
    }
  }
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, CopiesHandedOutBelongToTheCaller) {
  auto* e = this->Make(2);
  typename TypeParam::Element first[2];
  typename TypeParam::Element again[2];
  ULONG n = 0;
  ASSERT_HR(S_OK, e->Next(2, first, &n));
  ASSERT_HR(S_OK, e->Reset());
  ASSERT_HR(S_OK, e->Next(2, again, &n));
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(TypeParam::IsOwnCopy(first[i], this->m_items[i]));
    EXPECT_TRUE(TypeParam::IsOwnCopy(again[i], this->m_items[i]));
  }
  if constexpr (std::is_same_v<TypeParam, xktest::UnknownKind>) {
    EXPECT_EQ(4, xktest::UnknownKind::Objects()[0].refs) << "the item, the element, two copies";
    EXPECT_EQ(0, xktest::UnknownKind::Objects()[0].queries) << "held as given, not queried";
  }
  EXPECT_EQ(0u, e->Release()) << "the copies outlive the enumerator";
  EXPECT_THAT(this->Indices(first, 2), ElementsAre(0, 1));
  EXPECT_THAT(this->Indices(again, 2), ElementsAre(0, 1));
}

TYPED_TEST(CollectionTest, ClassObjectAndCreatorRefuseBadArgumentsAndLeaveNothingBehind) {
  IClassFactory* factory = nullptr;
  ASSERT_HR(S_OK, DllGetClassObject(TypeParam::Clsid(), IID_IClassFactory,
                                    reinterpret_cast<void**>(&factory)));
  xktest::FakeUnknown outer;
  void* object = reinterpret_cast<void*>(0xDEADBEEF);
  {
    DebugOutputCapture capture;
    EXPECT_HR(CLASS_E_NOAGGREGATION, factory->CreateInstance(&outer, IID_IUnknown, &object));
    EXPECT_THAT(capture.Lines(), IsEmpty()) << "nothing was made";
  }
  EXPECT_EQ(nullptr, object);
  EXPECT_EQ(1, outer.refs);
  object = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IStream, &object));
  EXPECT_EQ(nullptr, object);
  EXPECT_HR(S_OK, DllCanUnloadNow()) << "a refused query destroys the new object";
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
  EXPECT_HR(S_OK, DllCanUnloadNow()) << "the half-made object is gone";
  ASSERT_HR(S_OK, TypeParam::Create(nullptr, 0, &e)) << "NULL with 0 makes an empty one";
  EXPECT_EQ(0, this->CountOf(this->SeqOf(e)));
  EXPECT_EQ(1u, e->Release());
  EXPECT_EQ(0u, e->Release());
}

std::string TraceLine(const char* name, bool birth, const void* object) {
  char text[96];
  std::snprintf(text, sizeof text, "%s%s(%08x), th %x\n", birth ? "" : "~", name,
                static_cast<unsigned>(reinterpret_cast<ULONG_PTR>(object)),
                static_cast<unsigned>(GetCurrentThreadId()));
  return text;
}

// Three kinds trace each object's birth and death; the string creator echoes its items.
TYPED_TEST(CollectionTest, CreatingCloningAndDestroyingWriteTheirDebuggerLines) {
  DebugOutputCapture capture;
  auto* e = this->Make(2);
  typename TypeParam::Enum* clone = nullptr;
  ASSERT_HR(S_OK, e->Clone(&clone));
  // An object is named by its address, which is where its collection face is.
  auto* seq = this->SeqOf(e);
  auto* cloneSeq = this->SeqOf(clone);
  EXPECT_EQ(1u, cloneSeq->Release());
  EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(1u, seq->Release());
  EXPECT_EQ(0u, e->Release());

  std::vector<std::string> expected;
  if (const char* name = TypeParam::kTraceName)
    expected = {TraceLine(name, true, seq), TraceLine(name, true, cloneSeq),
                TraceLine(name, false, cloneSeq), TraceLine(name, false, seq)};
  if (std::is_same_v<TypeParam, xktest::StringKind>)
    expected = {"item 0", "\n", "item 1", "\n"};
  EXPECT_THAT(capture.Lines(), ElementsAreArray(expected));
}

}  // namespace
