// The collection-and-enumerator contract over all five element kinds (every
// call at its edges as one table row, identity, clones, growth, traces, eight
// threads), a C client, and IEnumUnknown over either kind of object enumerator.
#include <gmock/gmock.h>
#include <xkcombsd/Collections.h>
#include <xkcombsd/Module.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "DebugOutput.h"
#include "FakeUnknown.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "StressHarness.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
extern "C" HRESULT InsertAddAndReadThroughC(ISeqBSTR* seq, BSTR item, long* count, BSTR* first);

namespace {

using xktest::FakeUnknown;
using xktest::MallocSpy;

constexpr int kMaxItems = 40;

inline BSTR ItemBstr(int i) { return SysAllocString((L"item " + std::to_wstring(i)).c_str()); }

// Fills an output slot with a byte pattern no call writes, to see whether one did.
template <class T>
void FillSentinel(T* slot, size_t count = 1) {
  std::memset(static_cast<void*>(slot), 0xDE, sizeof(T) * count);
}
template <class T>
bool IsSentinel(const T& slot) {
  T pattern;
  FillSentinel(&pattern);
  return std::memcmp(&pattern, &slot, sizeof(T)) == 0;
}

// Defaults a kind overrides: items and copies that need no freeing, no trace.
template <class E, class In, class En, HRESULT(WINAPI* kCreate)(const In*, ULONG, En**), class S,
          const IID* kSeq, const IID*... kOthers>
struct KindOf {
  using Element = E;
  using Input = In;
  using Seq = S;
  using Enum = En;
  static constexpr const IID* kAnswered[] = {kSeq, &IID_IUnknown, kOthers...};
  static constexpr const char* kTraceName = nullptr;
  static HRESULT Create(const In* items, ULONG n, En** e) { return kCreate(items, n, e); }
  static void FreeItem(In&) {}
  static void FreeCopy(E&) {}
};

struct BstrKind : KindOf<BSTR, BSTR, IEnumBSTR, EnumBSTR_Create, ISeqBSTR, &IID_ISeqBSTR,
                         &IID_ICollBSTR, &IID_IEnumBSTR> {
  static BSTR MakeItem(int i) { return ItemBstr(i); }
  static void FreeItem(BSTR& item) { SysFreeString(item); }
  static bool Copies(BSTR e, BSTR item) { return e && e != item && !std::wcscmp(e, item); }
  static void FreeCopy(BSTR& e) { SysFreeString(e); }
};

// GUIDs answer the platform's IEnumGUID beside their own.
struct GuidKind : KindOf<GUID, GUID, IEnumGUID, EnumGUID_Create, ISeqGUID, &IID_ISeqGUID,
                         &IID_ICollGUID, &IID_IQvEnumGUID, &IID_IEnumGUID> {
  static constexpr const char* kTraceName = "_EnumGUID";
  static GUID MakeItem(int i) { return {0x10000000u + i, 0x2222, 0x3333, {0x44, BYTE(i)}}; }
  static bool Copies(const GUID& e, const GUID& item) { return e == item; }
};

// The caller's strings need not come from the task allocator; the copies must.
struct StringKind : KindOf<LPOLESTR, LPCOLESTR, IEnumString, EnumString_Create, ISeqString,
                           &IID_ISeqString, &IID_ICollString, &IID_IEnumString> {
  static LPCOLESTR MakeItem(int i) {
    static std::wstring texts[kMaxItems];
    return (texts[i] = L"item " + std::to_wstring(i)).c_str();
  }
  static bool Copies(LPOLESTR e, LPCOLESTR item) {
    IMalloc* malloc = nullptr;
    const bool task = SUCCEEDED(CoGetMalloc(1, &malloc)) && malloc->DidAlloc(e) == 1;
    if (malloc) malloc->Release();
    return task && e != item && !std::wcscmp(e, item);
  }
  static void FreeCopy(LPOLESTR& e) { CoTaskMemFree(e); }
};

// Shared, counted objects, held as given (never queried); each reference taken is handed back.
struct UnknownKind : KindOf<IUnknown*, IUnknown*, IEnumUnknown, EnumUnknown_Create, ISeqUnknown,
                            &IID_ISeqUnknown, &IID_ICollUnknown, &IID_IEnumUnknown> {
  static constexpr const char* kTraceName = "_EnumUnknown";
  static IUnknown* MakeItem(int i) {
    static FakeUnknown objects[kMaxItems];
    return &objects[i];
  }
  static void FreeItem(IUnknown*& item) {
    EXPECT_EQ(1, static_cast<FakeUnknown*>(item)->refs);
    EXPECT_EQ(0, static_cast<FakeUnknown*>(item)->queries);
  }
  static bool Copies(IUnknown* e, IUnknown* item) { return e == item; }
  static void FreeCopy(IUnknown*& e) { e->Release(); }
};

// Strings inside, so that ownership of the copies shows.
struct VariantKind : KindOf<VARIANT, VARIANT, IEnumVARIANT, EnumVARIANT_Create, ISeqVARIANT,
                            &IID_ISeqVARIANT, &IID_ICollVARIANT, &IID_IEnumVARIANT> {
  static constexpr const char* kTraceName = "_EnumVARIANT";
  static VARIANT MakeItem(int i) {
    VARIANT v{};
    V_VT(&v) = VT_BSTR;
    V_BSTR(&v) = ItemBstr(i);
    return v;
  }
  static void FreeItem(VARIANT& item) { VariantClear(&item); }
  static bool Copies(const VARIANT& e, const VARIANT& item) {
    return V_VT(&e) == VT_BSTR && BstrKind::Copies(V_BSTR(&e), V_BSTR(&item));
  }
  static void FreeCopy(VARIANT& e) { VariantClear(&e); }
};

using AllKinds = ::testing::Types<BstrKind, GuidKind, StringKind, UnknownKind, VariantKind>;

// Every test ends with nothing left on the task allocator and nothing keeping the library loaded.
class CollectionsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(0, m_spy.Outstanding()) << "task-allocator blocks left behind";
    EXPECT_HR(S_OK, DllCanUnloadNow());
  }

  MallocSpy m_spy;
};

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
class CollectionTest : public CollectionsTest {
 protected:
  using Element = typename Kind::Element;
  using Enum = typename Kind::Enum;
  using Seq = typename Kind::Seq;

  void SetUp() override {
    for (int i = 0; i < kMaxItems; ++i) m_items[i] = Kind::MakeItem(i);
  }
  void TearDown() override {
    for (auto& item : m_items) Kind::FreeItem(item);
    CollectionsTest::TearDown();
  }

  Enum* Make(int n) {  // NULL with 0 makes an empty one
    Enum* e = nullptr;
    EXPECT_HR(S_OK, Kind::Create(n ? m_items : nullptr, n, &e));
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
      for (int item = 0; item < kMaxItems && indices[i] < 0; ++item)
        if (Kind::Copies(fetched[i], m_items[item])) indices[i] = item;
      Kind::FreeCopy(fetched[i]);
    }
    return indices;
  }
  std::vector<int> Fetch(Enum* e, ULONG count, HRESULT expected = S_OK) {
    Element fetched[kMaxItems];
    ULONG n = 0;
    EXPECT_HR(expected, e->Next(count, fetched, &n));
    return Indices(fetched, n);
  }
  // The items the object holds, in order; leaves it at the end.
  std::vector<int> All(Enum* e) {
    EXPECT_HR(S_OK, e->Reset());
    return Fetch(e, kMaxItems, S_FALSE);
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

  typename Kind::Input m_items[kMaxItems];
};

TYPED_TEST_SUITE(CollectionTest, AllKinds);

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
      for (ULONG i = fetched; i < 4; ++i) EXPECT_TRUE(IsSentinel(slots[i])) << i;
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
  if (std::is_same_v<TypeParam, StringKind>) expected = {"item 0", "\n", "item 1", "\n"};
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

TEST_F(CollectionsTest, TheStringCreatorEchoesANullStringAsAnEmptyLineAndCopiesItAsNull) {
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

using BstrTest = CollectionTest<BstrKind>;

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

// A VARIANT that borrows an object: the enumerators copy it, the test never clears it.
VARIANT Holding(IUnknown* object, VARTYPE vt = VT_UNKNOWN) {
  VARIANT v{};
  V_VT(&v) = vt;
  V_UNKNOWN(&v) = object;
  return v;
}
void* const kUnwritten = reinterpret_cast<void*>(0xDEADBEEF);

// Every test ends with each object holding only the test's own reference.
class AdapterTest : public CollectionsTest {
 protected:
  void TearDown() override {
    for (const FakeUnknown& object : m_objects) EXPECT_EQ(1, object.refs);
    CollectionsTest::TearDown();
  }
  IEnumUnknown* AdapterOver(std::initializer_list<VARIANT> values) {
    IEnumVARIANT* variants = nullptr;
    EXPECT_HR(S_OK, EnumVARIANT_Create(values.begin(), ULONG(values.size()), &variants));
    IEnumUnknown* adapter = nullptr;
    EXPECT_HR(S_OK, EnumUnknown_FromUnknown(variants, &adapter));
    EXPECT_EQ(1u, variants->Release()) << "the adapter keeps the reference its query took";
    return adapter;
  }

  FakeUnknown m_objects[3];
};

TEST_F(AdapterTest, FromUnknownPassesAnIEnumUnknownAndAdaptsAnIEnumVARIANT) {
  IEnumUnknown *own = nullptr, *e = nullptr;
  ASSERT_HR(S_OK, EnumUnknown_Create(nullptr, 0, &own));
  ASSERT_HR(S_OK, EnumUnknown_FromUnknown(own, &e));
  EXPECT_EQ(own, e);
  EXPECT_EQ(1u, e->Release());
  EXPECT_EQ(0u, own->Release());
  IEnumUnknown* adapter = AdapterOver({Holding(&m_objects[0]), Holding(&m_objects[1], VT_DISPATCH),
                                       Holding(nullptr), Holding(&m_objects[2])});
  IUnknown* items[4];
  FillSentinel(items, 4);
  ULONG n = 0xDEADBEEF;
  EXPECT_HR(S_OK, adapter->Next(3, items, &n));
  EXPECT_EQ(3u, n);
  EXPECT_THAT(items, ElementsAre(&m_objects[0], &m_objects[1], nullptr, items[3]));
  EXPECT_TRUE(IsSentinel(items[3]));
  EXPECT_EQ(3, m_objects[0].refs) << "the caller's own reference, beside the enumerator's";
  items[0]->Release();
  items[1]->Release();
  IEnumUnknown* clone = nullptr;
  ASSERT_HR(S_OK, adapter->Clone(&clone));
  EXPECT_HR(S_FALSE, clone->Next(2, items, &n)) << "the clone starts where it was made";
  EXPECT_EQ(1u, n);
  EXPECT_EQ(&m_objects[2], items[0]);
  items[0]->Release();
  EXPECT_EQ(0u, clone->Release());
  EXPECT_HR(S_FALSE, DllCanUnloadNow()) << "through its enumerator";
  EXPECT_EQ(0u, adapter->Release());
}

TEST_F(AdapterTest, AVariantWithoutAnObjectIsRefusedAndTakenBack) {
  IEnumUnknown* adapter =
      AdapterOver({Holding(&m_objects[0]), Holding(nullptr, VT_I4), Holding(&m_objects[1])});
  IUnknown* items[3];
  FillSentinel(items, 3);
  ULONG n = 0xDEADBEEF;
  EXPECT_HR(DISP_E_BADVARTYPE, adapter->Next(3, items, &n));
  EXPECT_EQ(3u, n) << "the count the inner enumerator reported";
  EXPECT_THAT(items, ElementsAre(nullptr, nullptr, nullptr)) << "handed-out items are taken back";
  EXPECT_EQ(2, m_objects[0].refs) << "only the enumerator's reference is left";
  EXPECT_EQ(0u, adapter->Release());
}

// The same items through either enumerator.
TEST_F(AdapterTest, QueryNextItemQueriesTheNextObjectOfEitherEnumerator) {
  FakeUnknown stream(IID_IStream);
  IUnknown* const objects[] = {&stream, &m_objects[0]};
  const VARIANT variants[] = {Holding(&stream, VT_DISPATCH), Holding(&m_objects[0])};
  for (bool overVariants : {false, true}) {
    SCOPED_TRACE(overVariants ? "IEnumVARIANT" : "IEnumUnknown");
    IUnknown* e = nullptr;
    if (overVariants)
      ASSERT_HR(S_OK, EnumVARIANT_Create(variants, 2, reinterpret_cast<IEnumVARIANT**>(&e)));
    else
      ASSERT_HR(S_OK, EnumUnknown_Create(objects, 2, reinterpret_cast<IEnumUnknown**>(&e)));
    void* out = kUnwritten;
    EXPECT_HR(S_OK, Enum_QueryNextItem(e, IID_IStream, &out));
    EXPECT_EQ(static_cast<IUnknown*>(&stream), out);
    EXPECT_EQ(3, stream.refs) << "the caller's, beside the enumerator's";
    static_cast<IUnknown*>(out)->Release();
    out = kUnwritten;
    EXPECT_HR(E_NOINTERFACE, Enum_QueryNextItem(e, IID_IStream, &out));
    EXPECT_EQ(nullptr, out) << "an object without the interface";
    out = kUnwritten;
    EXPECT_HR(S_FALSE, Enum_QueryNextItem(e, IID_IStream, &out));
    EXPECT_EQ(kUnwritten, out) << "nothing fetched, nothing written";
    EXPECT_EQ(0u, e->Release());
  }
  EXPECT_EQ(1, stream.refs);
}

}  // namespace
