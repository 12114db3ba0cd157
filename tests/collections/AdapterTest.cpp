// IEnumUnknown from either kind of object enumerator: EnumUnknown_FromUnknown,
// the adapter over an IEnumVARIANT, and Enum_QueryNextItem.
#include "Kinds.h"

using ::testing::ElementsAre;
using xktest::FakeUnknown;
using xktest::FillSentinel;

namespace {

// A VARIANT that borrows an object: the enumerators copy it, the test never clears it.
VARIANT Holding(IUnknown* object, VARTYPE vt = VT_UNKNOWN) {
  VARIANT v{};
  V_VT(&v) = vt;
  V_UNKNOWN(&v) = object;
  return v;
}
VARIANT Number(LONG value) {
  VARIANT v{};
  V_VT(&v) = VT_I4;
  V_I4(&v) = value;
  return v;
}
void* const kUnwritten = reinterpret_cast<void*>(0xDEADBEEF);

// Every test ends with each object holding only the test's own reference.
class AdapterTest : public xktest::CollectionsTest {
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

TEST_F(AdapterTest, FromUnknownHandsOutAnIEnumUnknownAsItIsAndRefusesOtherObjects) {
  IEnumUnknown* e = nullptr;
  EXPECT_HR(E_POINTER, EnumUnknown_FromUnknown(nullptr, &e));
  EXPECT_HR(E_POINTER, EnumUnknown_FromUnknown(&m_objects[0], nullptr));
  IEnumUnknown* own = nullptr;
  ASSERT_HR(S_OK, EnumUnknown_Create(nullptr, 0, &own));
  ASSERT_HR(S_OK, EnumUnknown_FromUnknown(own, &e));
  EXPECT_EQ(own, e);
  EXPECT_EQ(1u, e->Release());
  EXPECT_EQ(0u, own->Release());
  FakeUnknown neither(IID_IUnknown, E_UNEXPECTED);
  EXPECT_HR(E_NOINTERFACE, EnumUnknown_FromUnknown(&neither, &e)) << "whatever the object said";
  EXPECT_EQ(nullptr, e);
  EXPECT_EQ(2, neither.queries);
  EXPECT_EQ(1, neither.refs);
}

TEST_F(AdapterTest, TheAdapterIsAnObjectOfItsOwnThatHandsOutTheObjectsOfTheVariants) {
  IEnumUnknown* adapter = AdapterOver({Holding(&m_objects[0]), Holding(&m_objects[1], VT_DISPATCH),
                                       Holding(nullptr), Holding(&m_objects[2])});
  void* face = kUnwritten;
  EXPECT_HR(E_NOINTERFACE, adapter->QueryInterface(IID_IEnumVARIANT, &face));
  EXPECT_EQ(nullptr, face);
  EXPECT_HR(E_POINTER, adapter->QueryInterface(IID_IEnumUnknown, nullptr));
  EXPECT_EQ(static_cast<IUnknown*>(adapter), xktest::Identity(adapter));
  IUnknown* items[4];
  ASSERT_HR(S_OK, adapter->Next(1, items, nullptr));
  EXPECT_EQ(&m_objects[0], items[0]);
  EXPECT_EQ(3, m_objects[0].refs) << "the caller's own reference, beside the enumerator's";
  items[0]->Release();
  FillSentinel(items, 4);
  ULONG n = 0xDEADBEEF;
  EXPECT_HR(S_OK, adapter->Next(3, items, &n));
  EXPECT_EQ(3u, n);
  EXPECT_THAT(items, ElementsAre(&m_objects[1], nullptr, &m_objects[2], items[3]));
  EXPECT_TRUE(xktest::IsSentinel(items[3]));
  items[0]->Release();
  items[2]->Release();
  FillSentinel(items, 2);
  EXPECT_HR(S_FALSE, adapter->Next(2, items, &n));
  EXPECT_EQ(0u, n);
  EXPECT_THAT(std::vector<IUnknown*>(items, items + 2), ElementsAre(nullptr, nullptr));
  EXPECT_HR(S_OK, adapter->Reset());
  EXPECT_HR(S_OK, adapter->Skip(2));
  IEnumUnknown* clone = nullptr;
  ASSERT_HR(S_OK, adapter->Clone(&clone));
  ASSERT_HR(S_OK, clone->Next(2, items, &n)) << "the clone stayed where it was made";
  EXPECT_THAT(std::vector<IUnknown*>(items, items + 2), ElementsAre(nullptr, &m_objects[2]));
  items[1]->Release();
  EXPECT_EQ(0u, clone->Release());
  EXPECT_HR(S_FALSE, DllCanUnloadNow()) << "through its enumerator";
  EXPECT_EQ(0u, adapter->Release());
}

TEST_F(AdapterTest, AVariantWithoutAnObjectFailsTheWholeNext) {
  IEnumUnknown* adapter =
      AdapterOver({Number(4), Holding(&m_objects[0]), Number(5), Holding(&m_objects[1]),
                   Holding(&m_objects[2], VT_UNKNOWN | VT_BYREF)});
  IUnknown* items[3];
  FillSentinel(items, 3);
  EXPECT_HR(DISP_E_BADVARTYPE, adapter->Next(1, items, nullptr));
  EXPECT_EQ(nullptr, items[0]);
  FillSentinel(items, 3);
  ULONG n = 0xDEADBEEF;
  EXPECT_HR(DISP_E_BADVARTYPE, adapter->Next(3, items, &n));
  EXPECT_EQ(3u, n) << "the count the inner enumerator reported";
  EXPECT_THAT(items, ElementsAre(nullptr, nullptr, nullptr)) << "handed-out items are taken back";
  EXPECT_EQ(2, m_objects[0].refs) << "only the enumerator's reference is left";
  EXPECT_HR(DISP_E_BADVARTYPE, adapter->Next(1, items, nullptr)) << "a reference is no object";
  EXPECT_EQ(0u, adapter->Release());
}

TEST_F(AdapterTest, ArgumentsAndFailuresOfTheAdapter) {
  IEnumUnknown* adapter = AdapterOver({Holding(&m_objects[0]), Holding(&m_objects[1])});
  IUnknown* items[2];
  FillSentinel(items, 2);
  EXPECT_HR(E_POINTER, adapter->Next(1, nullptr, nullptr));
  EXPECT_HR(E_INVALIDARG, adapter->Next(2, items, nullptr));
  EXPECT_THAT(items, ElementsAre(nullptr, nullptr));
  EXPECT_HR(E_POINTER, adapter->Clone(nullptr));
  m_spy.ClearRequests();
  ULONG n = 0;
  {
    xktest::TaskAllocatorRefusal refusal;
    EXPECT_HR(E_OUTOFMEMORY, adapter->Next(2, items, &n));
    EXPECT_THAT(m_spy.AllocRequests(), ElementsAre(2 * sizeof(VARIANT))) << "one block";
    auto* clone = static_cast<IEnumUnknown*>(kUnwritten);
    EXPECT_HR(E_OUTOFMEMORY, adapter->Clone(&clone)) << "the inner clone's own failure";
    EXPECT_EQ(nullptr, clone);
  }
  EXPECT_EQ(0u, adapter->Release());
}

// The same items through either enumerator; the VARIANTs end with one without an object.
TEST_F(AdapterTest, QueryNextItemQueriesTheNextObjectOfEitherEnumerator) {
  void* out = kUnwritten;
  FakeUnknown stream(IID_IStream);
  EXPECT_HR(E_POINTER, Enum_QueryNextItem(nullptr, IID_IStream, &out));
  EXPECT_HR(E_POINTER, Enum_QueryNextItem(&stream, IID_IStream, nullptr));
  FakeUnknown neither(IID_IUnknown, E_UNEXPECTED);
  EXPECT_HR(E_UNEXPECTED, Enum_QueryNextItem(&neither, IID_IStream, &out))
      << "the refusal of the IEnumVARIANT query, as the object gave it";
  EXPECT_EQ(1, neither.refs);
  IUnknown* const objects[] = {&stream, &m_objects[0], nullptr};
  const VARIANT variants[] = {Holding(&stream, VT_DISPATCH), Holding(&m_objects[0]),
                              Holding(nullptr), Number(1)};
  for (bool overVariants : {false, true}) {
    SCOPED_TRACE(overVariants ? "IEnumVARIANT" : "IEnumUnknown");
    IUnknown* e = nullptr;
    if (overVariants)
      ASSERT_HR(S_OK, EnumVARIANT_Create(variants, 4, reinterpret_cast<IEnumVARIANT**>(&e)));
    else
      ASSERT_HR(S_OK, EnumUnknown_Create(objects, 3, reinterpret_cast<IEnumUnknown**>(&e)));
    EXPECT_HR(S_OK, Enum_QueryNextItem(e, IID_IStream, &out));
    EXPECT_EQ(static_cast<IUnknown*>(&stream), out);
    EXPECT_EQ(3, stream.refs) << "the caller's, beside the enumerator's";
    static_cast<IUnknown*>(out)->Release();
    for (const char* item : {"an object without the interface", "a null item"}) {
      out = kUnwritten;
      EXPECT_HR(E_NOINTERFACE, Enum_QueryNextItem(e, IID_IStream, &out)) << item;
      EXPECT_EQ(nullptr, out);
    }
    out = kUnwritten;
    if (overVariants) EXPECT_HR(DISP_E_BADVARTYPE, Enum_QueryNextItem(e, IID_IStream, &out));
    EXPECT_HR(S_FALSE, Enum_QueryNextItem(e, IID_IStream, &out));
    EXPECT_EQ(kUnwritten, out) << "nothing fetched, nothing written";
    EXPECT_EQ(0u, e->Release());
  }
  EXPECT_EQ(1, stream.refs);
}

}  // namespace
