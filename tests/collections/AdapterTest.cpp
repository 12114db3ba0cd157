// IEnumUnknown from either kind of object enumerator: EnumUnknown_FromUnknown,
// the adapter over an IEnumVARIANT, and Enum_QueryNextItem.
#include "Kinds.h"

using ::testing::ElementsAre;
using xktest::FakeUnknown;

namespace {

// A VARIANT that borrows an object: the enumerators copy it, the test never clears it.
VARIANT Holding(IUnknown* object, VARTYPE vt = VT_UNKNOWN) {
  VARIANT v{};
  V_VT(&v) = vt;
  V_UNKNOWN(&v) = object;
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
  xktest::FillSentinel(items, 4);
  ULONG n = 0xDEADBEEF;
  EXPECT_HR(S_OK, adapter->Next(3, items, &n));
  EXPECT_EQ(3u, n);
  EXPECT_THAT(items, ElementsAre(&m_objects[0], &m_objects[1], nullptr, items[3]));
  EXPECT_TRUE(xktest::IsSentinel(items[3]));
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

TEST_F(AdapterTest, AnObjectThatIsNeitherAndAVariantWithoutAnObjectAreRefused) {
  IEnumUnknown* e = nullptr;
  FakeUnknown neither(IID_IUnknown, E_UNEXPECTED);
  EXPECT_HR(E_NOINTERFACE, EnumUnknown_FromUnknown(&neither, &e)) << "whatever the object said";
  EXPECT_EQ(nullptr, e);
  EXPECT_EQ(1, neither.refs);
  IEnumUnknown* adapter =
      AdapterOver({Holding(&m_objects[0]), Holding(nullptr, VT_I4), Holding(&m_objects[1])});
  IUnknown* items[3];
  xktest::FillSentinel(items, 3);
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
