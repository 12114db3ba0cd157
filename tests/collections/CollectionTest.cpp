// The collection-and-enumerator contract, run over all five element kinds:
// results at every edge, the shared position, independent clones, the
// QueryInterface set, ownership of what goes in and out, and growth as the task
// allocator sees it.
#include <climits>
#include <cstdio>
#include <vector>

#include "DebugOutput.h"
#include "Kinds.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using xktest::DebugOutputCapture;
using xktest::FillSentinel;
using xktest::IsSentinel;
using xktest::RefCount;

namespace {

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

  Input m_items[xktest::kMaxItems];
};

TYPED_TEST_SUITE(CollectionTest, xktest::AllKinds, xktest::KindNames);

TYPED_TEST(CollectionTest, ANewObjectIsEmptyAndSaysSo) {
  DebugOutputCapture capture;
  auto* e = this->Make(0);
  ASSERT_NE(nullptr, e);
  auto* seq = this->SeqOf(e);
  EXPECT_EQ(0, this->CountOf(seq));
  EXPECT_EQ(0u, this->PositionOf(seq));

  typename TypeParam::Element slot;
  FillSentinel(&slot);
  EXPECT_HR(S_FALSE, e->Next(1, &slot, nullptr));
  EXPECT_TRUE(IsSentinel(slot)) << "nothing fetched, nothing written";
  EXPECT_HR(S_FALSE, e->Skip(0)) << "already at the end";
  EXPECT_HR(S_OK, e->Reset());
  EXPECT_HR(S_OK, seq->SetPosition(0));
  EXPECT_HR(S_FALSE, seq->Empty());
  EXPECT_HR(E_POINTER, seq->Count(nullptr));
  EXPECT_HR(E_POINTER, seq->GetPosition(nullptr));
  EXPECT_THAT(capture.Assertions(), IsEmpty());

  EXPECT_EQ(1u, seq->Release());
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, NextChecksItsArgumentsInOrder) {
  auto* e = this->Make(5);
  typename TypeParam::Element slots[3];
  FillSentinel(slots, 3);
  ULONG n = 0xDEADBEEF;

  EXPECT_HR(E_INVALIDARG, e->Next(0, slots, nullptr)) << "only one element may go uncounted";
  EXPECT_HR(E_INVALIDARG, e->Next(2, slots, nullptr));
  EXPECT_HR(S_OK, e->Next(0, slots, &n));
  EXPECT_EQ(0u, n);
  n = 0xDEADBEEF;
  EXPECT_HR(E_POINTER, e->Next(3, nullptr, &n));
  EXPECT_EQ(0u, n) << "the count is cleared before anything is checked";
  for (const auto& slot : slots) EXPECT_TRUE(IsSentinel(slot));

  auto* seq = this->SeqOf(e);
  EXPECT_EQ(0u, this->PositionOf(seq)) << "refused calls do not move the position";
  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, NextAndSkipStopAtTheEnd) {
  auto* e = this->Make(5);
  auto* seq = this->SeqOf(e);
  typename TypeParam::Element slots[4];
  ULONG n = 0xDEADBEEF;

  ASSERT_HR(S_OK, seq->SetPosition(2));
  EXPECT_HR(S_OK, e->Next(3, slots, &n)) << "exactly the remaining elements is not short";
  ASSERT_EQ(3u, n);
  EXPECT_THAT(this->Indices(slots, n), ElementsAre(2, 3, 4));
  FillSentinel(slots, 4);
  n = 0xDEADBEEF;
  EXPECT_HR(S_FALSE, e->Next(1, slots, &n));
  EXPECT_EQ(0u, n);
  EXPECT_TRUE(IsSentinel(slots[0]));

  ASSERT_HR(S_OK, seq->SetPosition(3));
  FillSentinel(slots, 4);
  EXPECT_HR(S_FALSE, e->Next(4, slots, &n));
  ASSERT_EQ(2u, n);
  EXPECT_TRUE(IsSentinel(slots[2])) << "slots past the fetched ones stay untouched";
  EXPECT_THAT(this->Indices(slots, n), ElementsAre(3, 4));

  ASSERT_HR(S_OK, seq->SetPosition(2));
  EXPECT_HR(S_FALSE, e->Skip(3)) << "reaching the end exactly is S_FALSE";
  EXPECT_EQ(5u, this->PositionOf(seq));
  ASSERT_HR(S_OK, seq->SetPosition(1));
  EXPECT_HR(S_OK, e->Skip(2));
  EXPECT_EQ(3u, this->PositionOf(seq));
  EXPECT_HR(S_FALSE, e->Skip(ULONG_MAX));
  EXPECT_EQ(5u, this->PositionOf(seq));
  EXPECT_HR(S_OK, e->Reset());
  this->ExpectNext(e, 0);

  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, SetPositionTakesZeroToCount) {
  auto* e = this->Make(4);
  auto* seq = this->SeqOf(e);
  ASSERT_HR(S_OK, seq->SetPosition(1));
  EXPECT_HR(E_INVALIDARG, seq->SetPosition(-1));
  EXPECT_HR(E_INVALIDARG, seq->SetPosition(5));
  EXPECT_HR(E_INVALIDARG, seq->SetPosition(LONG_MIN));
  EXPECT_HR(E_INVALIDARG, seq->SetPosition(LONG_MAX));
  EXPECT_EQ(1u, this->PositionOf(seq)) << "refused positions change nothing";

  EXPECT_HR(S_OK, seq->SetPosition(4)) << "the count itself is the end";
  typename TypeParam::Element slot;
  FillSentinel(&slot);
  EXPECT_HR(S_FALSE, e->Next(1, &slot, nullptr));
  EXPECT_TRUE(IsSentinel(slot));
  EXPECT_HR(S_OK, seq->SetPosition(3));
  this->ExpectNext(e, 3);

  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, InsertAtPlacesCopiesBeforeTheIndex) {
  auto* e = this->Make(3);
  auto* seq = this->SeqOf(e);
  const auto* items = this->m_items;

  EXPECT_HR(S_FALSE, seq->InsertAt(0, items, 0));
  EXPECT_HR(S_FALSE, seq->InsertAt(ULONG_MAX, nullptr, 0)) << "nothing to insert: nothing checked";
  EXPECT_HR(E_INVALIDARG, seq->InsertAt(4, items + 10, 1));
  EXPECT_HR(E_POINTER, seq->InsertAt(0, nullptr, 1));
  EXPECT_THAT(this->Contents(seq), ElementsAre(0, 1, 2));

  ASSERT_HR(S_OK, seq->SetPosition(2));
  EXPECT_HR(S_OK, seq->InsertAt(3, items + 10, 2)) << "the count appends";
  EXPECT_HR(S_OK, seq->InsertAt(0, items + 20, 1));
  EXPECT_HR(S_OK, seq->InsertAt(2, items + 30, 2));
  EXPECT_THAT(this->Contents(seq), ElementsAre(20, 0, 30, 31, 1, 2, 10, 11));
  EXPECT_EQ(2u, this->PositionOf(seq)) << "the position keeps its index, not its element";
  this->ExpectNext(e, 30);

  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, RemoveAtClosesTheGapAndKeepsThePositionInside) {
  auto* e = this->Make(5);
  auto* seq = this->SeqOf(e);

  EXPECT_HR(E_INVALIDARG, seq->RemoveAt(5));
  EXPECT_HR(E_INVALIDARG, seq->RemoveAt(ULONG_MAX));
  ASSERT_HR(S_OK, seq->SetPosition(1));
  EXPECT_HR(S_OK, seq->RemoveAt(1));
  EXPECT_THAT(this->Contents(seq), ElementsAre(0, 2, 3, 4));
  EXPECT_EQ(1u, this->PositionOf(seq));
  this->ExpectNext(e, 2);

  ASSERT_HR(S_OK, seq->SetPosition(4));
  EXPECT_HR(S_OK, seq->RemoveAt(3));
  EXPECT_EQ(3u, this->PositionOf(seq)) << "never beyond the new end";
  EXPECT_HR(S_OK, seq->RemoveAt(0));
  EXPECT_THAT(this->Contents(seq), ElementsAre(2, 3));

  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, RemovingTheLastElementReturnsToTheEmptyState) {
  DebugOutputCapture capture;
  xktest::MallocSpy watch;
  auto* e = this->Make(1);
  auto* seq = this->SeqOf(e);
  EXPECT_LE(1, watch.Outstanding());
  EXPECT_HR(S_OK, seq->RemoveAt(0));
  EXPECT_EQ(0, this->CountOf(seq));
  EXPECT_EQ(0, watch.Outstanding()) << "the storage went with the last element";
  EXPECT_HR(S_FALSE, seq->Empty());
  EXPECT_THAT(capture.Assertions(), IsEmpty());

  EXPECT_HR(S_OK, seq->Add(this->m_items + 7, 1));
  EXPECT_THAT(this->Contents(seq), ElementsAre(7));
  EXPECT_HR(S_OK, seq->Empty());
  EXPECT_HR(S_FALSE, seq->Empty());
  EXPECT_THAT(capture.Assertions(), IsEmpty());

  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, SetAtReplacesOneElement) {
  auto* e = this->Make(3);
  auto* seq = this->SeqOf(e);

  EXPECT_HR(E_POINTER, seq->SetAt(ULONG_MAX, nullptr)) << "the item is checked first";
  EXPECT_HR(E_INVALIDARG, seq->SetAt(3, this->m_items + 9));
  EXPECT_HR(S_OK, seq->SetAt(1, this->m_items + 9));
  EXPECT_THAT(this->Contents(seq), ElementsAre(0, 9, 2));
  EXPECT_HR(S_OK, seq->SetAt(1, this->m_items + 1)) << "the old element is let go";
  EXPECT_THAT(this->Contents(seq), ElementsAre(0, 1, 2));

  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, AddAppendsCopiesAndKeepsThePosition) {
  auto* e = this->Make(2);
  auto* seq = this->SeqOf(e);
  ASSERT_HR(S_OK, seq->SetPosition(1));

  EXPECT_HR(S_OK, seq->Add(this->m_items + 5, 0));
  EXPECT_HR(S_OK, seq->Add(nullptr, 0));
  EXPECT_HR(E_POINTER, seq->Add(nullptr, 3));
  EXPECT_HR(S_OK, seq->Add(this->m_items + 5, 3));
  EXPECT_THAT(this->Contents(seq), ElementsAre(0, 1, 5, 6, 7));
  EXPECT_EQ(1u, this->PositionOf(seq));

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
  expected.push_back(2 * sixteen);
  expected.push_back(2 * sixteen);
  EXPECT_THAT(this->m_spy.ReallocRequests(), ElementsAreArray(expected));

  this->m_spy.ClearRequests();
  EXPECT_HR(S_OK, seq->InsertAt(3, this->m_items + 20, 16));
  EXPECT_THAT(this->m_spy.ReallocRequests(), ElementsAre(3 * sixteen)) << "33 elements";
  EXPECT_EQ(33, this->CountOf(seq));

  EXPECT_HR(S_OK, seq->Empty());
  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, WithoutMemoryNothingChanges) {
  auto* e = this->Make(3);
  auto* seq = this->SeqOf(e);
  ASSERT_HR(S_OK, seq->SetPosition(1));
  {
    xktest::TaskAllocatorRefusal refusal;
    EXPECT_HR(E_OUTOFMEMORY, seq->Add(this->m_items + 5, 1));
    // A count far beyond the array: refused before a single item is read.
    EXPECT_HR(E_OUTOFMEMORY, seq->Add(this->m_items + 5, ULONG_MAX));
    EXPECT_HR(E_OUTOFMEMORY, seq->InsertAt(0, this->m_items + 5, ULONG_MAX));
    typename TypeParam::Enum* clone = nullptr;
    FillSentinel(&clone);
    EXPECT_HR(E_OUTOFMEMORY, e->Clone(&clone));
    EXPECT_EQ(nullptr, clone);
  }
  EXPECT_THAT(this->Contents(seq), ElementsAre(0, 1, 2));
  EXPECT_EQ(1u, this->PositionOf(seq));

  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, NewEnumIsTheObjectItselfAndSharesItsPosition) {
  auto* e = this->Make(4);
  auto* seq = this->SeqOf(e);
  typename TypeParam::Enum* first = nullptr;
  typename TypeParam::Enum* second = nullptr;
  ASSERT_HR(S_OK, e->Skip(1));
  ASSERT_HR(S_OK, seq->_NewEnum(&first));
  ASSERT_HR(S_OK, seq->_NewEnum(&second));
  EXPECT_EQ(e, first);
  EXPECT_EQ(first, second);
  EXPECT_EQ(1u, this->PositionOf(seq)) << "handing out an enumerator does not reset it";
  EXPECT_HR(E_POINTER, seq->_NewEnum(nullptr));

  this->ExpectNext(first, 1);
  this->ExpectNext(second, 2);
  this->ExpectNext(e, 3);
  EXPECT_EQ(4u, this->PositionOf(seq));

  EXPECT_EQ(3u, first->Release());
  EXPECT_EQ(2u, second->Release());
  EXPECT_EQ(1u, seq->Release());
  EXPECT_EQ(1u, RefCount(e));
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, ClonesCopyElementsAndPositionAndThenGoTheirOwnWay) {
  auto* e = this->Make(5);
  auto* seq = this->SeqOf(e);
  EXPECT_HR(E_POINTER, e->Clone(nullptr));
  ASSERT_HR(S_OK, seq->SetPosition(2));

  typename TypeParam::Enum* clone = nullptr;
  ASSERT_HR(S_OK, e->Clone(&clone));
  ASSERT_NE(nullptr, clone);
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
  auto* emptySeq = this->SeqOf(emptyClone);
  EXPECT_EQ(0, this->CountOf(emptySeq));
  emptySeq->Release();
  EXPECT_EQ(0u, emptyClone->Release());

  cloneSeq->Release();
  EXPECT_EQ(0u, clone->Release());
  seq->Release();
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, QueryInterfaceAnswersItsOwnSetWithOneIdentity) {
  auto* e = this->Make(1);
  IUnknown* unknown = nullptr;
  void* face = nullptr;
  ASSERT_HR(S_OK, e->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&unknown)));
  EXPECT_EQ(static_cast<IUnknown*>(e), unknown) << "the enumerator is the object's identity";
  ASSERT_HR(S_OK, e->QueryInterface(TypeParam::EnumIid(), &face));
  EXPECT_EQ(static_cast<void*>(e), face);
  static_cast<IUnknown*>(face)->Release();

  void* coll = nullptr;
  void* seq = nullptr;
  ASSERT_HR(S_OK, e->QueryInterface(TypeParam::CollIid(), &coll));
  ASSERT_HR(S_OK, e->QueryInterface(TypeParam::SeqIid(), &seq));
  EXPECT_EQ(coll, seq);
  EXPECT_NE(static_cast<void*>(e), coll);
  EXPECT_EQ(unknown, xktest::Identity(static_cast<IUnknown*>(seq)));
  static_cast<IUnknown*>(coll)->Release();
  static_cast<IUnknown*>(seq)->Release();

  const IID* answered[] = {&IID_IUnknown, &TypeParam::EnumIid(), &TypeParam::CollIid(),
                           &TypeParam::SeqIid()};
  const IID* family[] = {
      &IID_ICollBSTR,    &IID_ISeqBSTR,    &IID_IEnumBSTR,     &IID_ICollGUID,    &IID_ISeqGUID,
      &IID_IQvEnumGUID,  &IID_IEnumGUID,   &IID_ICollString,   &IID_ISeqString,   &IID_IEnumString,
      &IID_ICollUnknown, &IID_ISeqUnknown, &IID_IEnumUnknown,  &IID_ICollVARIANT, &IID_ISeqVARIANT,
      &IID_IEnumVARIANT, &IID_IDispatch,   &IID_IClassFactory, &IID_IMarshal,     &IID_IStream};
  for (const IID* iid : family) {
    bool expected = false;
    for (const IID* own : answered) expected |= *iid == *own;
    if (std::is_same_v<TypeParam, xktest::GuidKind>) expected |= *iid == IID_IEnumGUID;
    void* out = reinterpret_cast<void*>(0xDEADBEEF);
    const HRESULT hr = e->QueryInterface(*iid, &out);
    if (expected) {
      EXPECT_HR(S_OK, hr);
      static_cast<IUnknown*>(out)->Release();
    } else {
      EXPECT_HR(E_NOINTERFACE, hr);
      EXPECT_EQ(nullptr, out);
    }
  }
  EXPECT_HR(E_POINTER, e->QueryInterface(IID_IUnknown, nullptr));

  EXPECT_EQ(1u, unknown->Release());
  EXPECT_EQ(0u, e->Release());
}

TYPED_TEST(CollectionTest, ReferencesCountExactlyAndTheLastReleaseReturnsZero) {
  auto* e = this->Make(1);
  EXPECT_EQ(2u, e->AddRef());
  auto* seq = this->SeqOf(e);
  EXPECT_EQ(4u, seq->AddRef()) << "one count for both faces";
  EXPECT_EQ(3u, seq->Release());
  EXPECT_EQ(2u, seq->Release());
  EXPECT_EQ(1u, e->Release());
  EXPECT_HR(S_FALSE, DllCanUnloadNow()) << "a live object keeps the library loaded";
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
  if constexpr (std::is_same_v<TypeParam, xktest::UnknownKind>)
    EXPECT_EQ(4, xktest::UnknownKind::Objects()[0].refs) << "the item, the element, two copies";
  EXPECT_EQ(0u, e->Release()) << "the copies outlive the enumerator";
  EXPECT_THAT(this->Indices(first, 2), ElementsAre(0, 1));
  EXPECT_THAT(this->Indices(again, 2), ElementsAre(0, 1));
}

TYPED_TEST(CollectionTest, ClassObjectRefusesAnOuterUnknownAndCountsItsObjects) {
  DebugOutputCapture capture;
  IClassFactory* factory = nullptr;
  ASSERT_HR(S_OK, DllGetClassObject(TypeParam::Clsid(), IID_IClassFactory,
                                    reinterpret_cast<void**>(&factory)));
  xktest::FakeUnknown outer;
  void* object = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(CLASS_E_NOAGGREGATION, factory->CreateInstance(&outer, IID_IUnknown, &object));
  EXPECT_EQ(nullptr, object);
  EXPECT_EQ(1, outer.refs);
  EXPECT_THAT(capture.Lines(), IsEmpty()) << "nothing was made";

  object = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IStream, &object));
  EXPECT_EQ(nullptr, object);
  EXPECT_HR(S_OK, DllCanUnloadNow()) << "a refused query destroys the new object";

  ASSERT_HR(S_OK, factory->CreateInstance(nullptr, TypeParam::CollIid(), &object));
  EXPECT_EQ(0u, factory->Release()) << "objects do not hold their class object";
  EXPECT_HR(S_FALSE, DllCanUnloadNow());
  auto* coll = static_cast<typename TypeParam::Coll*>(object);
  long count = -1;
  EXPECT_HR(S_OK, coll->Count(&count));
  EXPECT_EQ(0, count);
  EXPECT_EQ(0u, coll->Release());
}

TYPED_TEST(CollectionTest, CreatorRefusesBadArgumentsAndLeavesNothingBehind) {
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
  typename TypeParam::Element slot;
  EXPECT_HR(S_FALSE, e->Next(1, &slot, nullptr));
  void* face = nullptr;
  ASSERT_HR(S_OK, e->QueryInterface(TypeParam::EnumIid(), &face));
  EXPECT_EQ(static_cast<void*>(e), face) << "the creator hands out this interface";
  static_cast<IUnknown*>(face)->Release();
  EXPECT_EQ(0u, e->Release());
}

std::string TraceLine(const char* name, bool birth, const void* object) {
  char text[96];
  std::snprintf(text, sizeof text, "%s%s(%08x), th %x\n", birth ? "" : "~", name,
                static_cast<unsigned>(reinterpret_cast<ULONG_PTR>(object)),
                static_cast<unsigned>(GetCurrentThreadId()));
  return text;
}

TYPED_TEST(CollectionTest, TracingKindsWriteABirthAndADeathLine) {
  auto* e = this->Make(0);
  typename TypeParam::Enum* clone = nullptr;
  DebugOutputCapture capture;
  ASSERT_HR(S_OK, e->Clone(&clone));
  // The object is named by its address, which is where its collection face is.
  auto* cloneSeq = this->SeqOf(clone);
  EXPECT_EQ(1u, cloneSeq->Release());
  EXPECT_EQ(0u, clone->Release());
  auto* seq = this->SeqOf(e);
  EXPECT_EQ(1u, seq->Release());
  EXPECT_EQ(0u, e->Release());

  if (TypeParam::kTraceName) {
    EXPECT_THAT(capture.Lines(), ElementsAre(TraceLine(TypeParam::kTraceName, true, cloneSeq),
                                             TraceLine(TypeParam::kTraceName, false, cloneSeq),
                                             TraceLine(TypeParam::kTraceName, false, seq)));
  } else {
    EXPECT_THAT(capture.Lines(), IsEmpty());
  }
}

}  // namespace
