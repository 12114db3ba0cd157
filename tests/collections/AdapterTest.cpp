// IEnumUnknown from either kind of object enumerator: EnumUnknown_FromUnknown,
// the adapter over an IEnumVARIANT, and Enum_QueryNextItem.
#include "Kinds.h"

using ::testing::ElementsAre;
using xktest::CollectionsTest;
using xktest::FakeUnknown;
using xktest::FillSentinel;
using xktest::IsSentinel;
using xktest::RefCount;

namespace {

// A VARIANT that borrows an object: the enumerators copy it, the test never clears it.
VARIANT Holding(IUnknown* object, VARTYPE vt = VT_UNKNOWN) {
  VARIANT v;
  VariantInit(&v);
  V_VT(&v) = vt;
  V_UNKNOWN(&v) = object;
  return v;
}

VARIANT Number(LONG value) {
  VARIANT v;
  VariantInit(&v);
  V_VT(&v) = VT_I4;
  V_I4(&v) = value;
  return v;
}

// An IEnumVARIANT whose every call fails with one code.
class FailingEnumVARIANT : public IEnumVARIANT {
 public:
  explicit FailingEnumVARIANT(HRESULT failure) : m_failure(failure) {}
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (iid != IID_IUnknown && iid != IID_IEnumVARIANT) {
      *ppv = nullptr;
      return E_NOINTERFACE;
    }
    *ppv = static_cast<IEnumVARIANT*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP Next(ULONG, VARIANT*, ULONG*) override { return m_failure; }
  STDMETHODIMP Skip(ULONG) override { return m_failure; }
  STDMETHODIMP Reset() override { return m_failure; }
  STDMETHODIMP Clone(IEnumVARIANT** ppenum) override {
    *ppenum = nullptr;
    return m_failure;
  }
  ULONG refs = 1;

 private:
  HRESULT m_failure;
};

class AdapterTest : public CollectionsTest {
 protected:
  // An adapter over a new EnumVARIANT of the given values.
  IEnumUnknown* AdapterOver(std::initializer_list<VARIANT> values) {
    IEnumVARIANT* variants = nullptr;
    EXPECT_HR(S_OK,
              EnumVARIANT_Create(values.begin(), static_cast<ULONG>(values.size()), &variants));
    IEnumUnknown* adapter = nullptr;
    EXPECT_HR(S_OK, EnumUnknown_FromUnknown(variants, &adapter));
    EXPECT_EQ(1u, variants->Release()) << "the adapter holds the enumerator";
    return adapter;
  }

  FakeUnknown m_objects[3];
};

TEST_F(AdapterTest, FromUnknownFindsTheEnumeratorAnObjectHas) {
  IEnumUnknown* e = nullptr;
  FillSentinel(&e);
  EXPECT_HR(E_POINTER, EnumUnknown_FromUnknown(nullptr, &e));
  EXPECT_TRUE(IsSentinel(e));
  EXPECT_HR(E_POINTER, EnumUnknown_FromUnknown(&m_objects[0], nullptr));

  IUnknown* const items[] = {&m_objects[0]};
  IEnumUnknown* own = nullptr;
  ASSERT_HR(S_OK, EnumUnknown_Create(items, 1, &own));
  ASSERT_HR(S_OK, EnumUnknown_FromUnknown(own, &e));
  EXPECT_EQ(own, e) << "an IEnumUnknown is handed out as it is";
  EXPECT_EQ(1u, e->Release());
  EXPECT_EQ(0u, own->Release());

  FakeUnknown neither(IID_IUnknown, E_UNEXPECTED);
  FillSentinel(&e);
  EXPECT_HR(E_NOINTERFACE, EnumUnknown_FromUnknown(&neither, &e)) << "whatever the object said";
  EXPECT_EQ(nullptr, e);
  EXPECT_EQ(2, neither.queries);
  EXPECT_EQ(1, neither.refs);
}

TEST_F(AdapterTest, TheAdapterIsAnIEnumUnknownOfItsOwn) {
  IEnumVARIANT* variants = nullptr;
  ASSERT_HR(S_OK, EnumVARIANT_Create(nullptr, 0, &variants));
  IEnumUnknown* adapter = nullptr;
  ASSERT_HR(S_OK, EnumUnknown_FromUnknown(variants, &adapter));
  EXPECT_NE(xktest::Identity(variants), xktest::Identity(adapter));
  EXPECT_EQ(2u, RefCount(variants)) << "the adapter keeps the reference its query took";

  void* face = nullptr;
  ASSERT_HR(S_OK, adapter->QueryInterface(IID_IUnknown, &face));
  EXPECT_EQ(static_cast<void*>(adapter), face);
  EXPECT_EQ(1u, adapter->Release());
  face = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(E_NOINTERFACE, adapter->QueryInterface(IID_IEnumVARIANT, &face));
  EXPECT_EQ(nullptr, face);
  EXPECT_HR(E_POINTER, adapter->QueryInterface(IID_IEnumUnknown, nullptr));

  EXPECT_EQ(2u, adapter->AddRef());
  EXPECT_EQ(1u, adapter->Release());
  EXPECT_EQ(0u, adapter->Release());
  EXPECT_EQ(1u, RefCount(variants)) << "the last release of the adapter lets go of its enumerator";
  EXPECT_EQ(0u, variants->Release());
}

TEST_F(AdapterTest, NextHandsOutTheObjectsOfTheVariants) {
  IEnumUnknown* adapter = AdapterOver({Holding(&m_objects[0]), Holding(&m_objects[1], VT_DISPATCH),
                                       Holding(nullptr), Holding(&m_objects[2])});
  IUnknown* items[4];
  ULONG n = 0xDEADBEEF;
  ASSERT_HR(S_OK, adapter->Next(1, items, nullptr));
  EXPECT_EQ(&m_objects[0], items[0]);
  EXPECT_EQ(3, m_objects[0].refs) << "the caller's own reference, beside the enumerator's";
  items[0]->Release();

  FillSentinel(items, 4);
  EXPECT_HR(S_OK, adapter->Next(3, items, &n));
  EXPECT_EQ(3u, n);
  EXPECT_EQ(&m_objects[1], items[0]);
  EXPECT_EQ(nullptr, items[1]) << "a null object is a null item";
  EXPECT_EQ(&m_objects[2], items[2]);
  EXPECT_TRUE(IsSentinel(items[3]));
  items[0]->Release();
  items[2]->Release();

  FillSentinel(items, 2);
  EXPECT_HR(S_FALSE, adapter->Next(1, items, nullptr));
  EXPECT_EQ(nullptr, items[0]);
  EXPECT_HR(S_FALSE, adapter->Next(2, items, &n));
  EXPECT_EQ(0u, n);
  EXPECT_EQ(nullptr, items[1]) << "every slot asked for is cleared";

  EXPECT_HR(S_OK, adapter->Reset());
  EXPECT_HR(S_OK, adapter->Skip(2));
  IEnumUnknown* clone = nullptr;
  ASSERT_HR(S_OK, adapter->Clone(&clone));
  EXPECT_HR(S_FALSE, adapter->Skip(5));
  ASSERT_HR(S_OK, clone->Next(2, items, &n)) << "the clone stayed where it was made";
  EXPECT_EQ(nullptr, items[0]);
  EXPECT_EQ(&m_objects[2], items[1]);
  items[1]->Release();
  EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(0u, adapter->Release());
  for (const FakeUnknown& object : m_objects) EXPECT_EQ(1, object.refs);
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
  EXPECT_THAT(items, ElementsAre(nullptr, nullptr, nullptr))
      << "what was already handed out is taken back";
  EXPECT_EQ(2, m_objects[0].refs) << "only the enumerator's reference is left";
  EXPECT_EQ(2, m_objects[1].refs);

  EXPECT_HR(DISP_E_BADVARTYPE, adapter->Next(1, items, nullptr)) << "a reference is no object";
  EXPECT_EQ(0u, adapter->Release());
  for (const FakeUnknown& object : m_objects) EXPECT_EQ(1, object.refs);
}

TEST_F(AdapterTest, ArgumentsAndInnerFailures) {
  IEnumUnknown* adapter = AdapterOver({Holding(&m_objects[0]), Holding(&m_objects[1])});
  IUnknown* items[2];
  FillSentinel(items, 2);
  EXPECT_HR(E_POINTER, adapter->Next(1, nullptr, nullptr));
  EXPECT_HR(E_INVALIDARG, adapter->Next(2, items, nullptr));
  EXPECT_THAT(items, ElementsAre(nullptr, nullptr));
  EXPECT_HR(E_POINTER, adapter->Clone(nullptr));

  m_spy.ClearRequests();
  ULONG n = 0;
  ASSERT_HR(S_OK, adapter->Next(2, items, &n));
  EXPECT_THAT(m_spy.AllocRequests(), ElementsAre(2 * sizeof(VARIANT)))
      << "one task-allocator block of the VARIANTs asked for";
  items[0]->Release();
  items[1]->Release();
  ASSERT_HR(S_OK, adapter->Reset());
  {
    xktest::TaskAllocatorRefusal refusal;
    EXPECT_HR(E_OUTOFMEMORY, adapter->Next(2, items, &n));
    IEnumUnknown* clone = reinterpret_cast<IEnumUnknown*>(0xDEADBEEF);
    EXPECT_HR(E_OUTOFMEMORY, adapter->Clone(&clone)) << "the inner clone's own failure";
    EXPECT_EQ(nullptr, clone);
  }
  EXPECT_EQ(0u, adapter->Release());

  FailingEnumVARIANT failing(E_UNEXPECTED);
  ASSERT_HR(S_OK, EnumUnknown_FromUnknown(&failing, &adapter));
  EXPECT_HR(E_UNEXPECTED, adapter->Next(1, items, nullptr));
  EXPECT_HR(E_UNEXPECTED, adapter->Next(2, items, &n));
  EXPECT_HR(E_UNEXPECTED, adapter->Skip(1));
  EXPECT_HR(E_UNEXPECTED, adapter->Reset());
  IEnumUnknown* clone = nullptr;
  EXPECT_HR(E_UNEXPECTED, adapter->Clone(&clone));
  EXPECT_EQ(0u, adapter->Release());
  EXPECT_EQ(1u, failing.refs);
}

using QueryNextItemTest = CollectionsTest;

TEST_F(QueryNextItemTest, QueriesTheNextObjectOfAnIEnumUnknown) {
  void* out = reinterpret_cast<void*>(0xDEADBEEF);
  FakeUnknown stream(IID_IStream);
  EXPECT_HR(E_POINTER, Enum_QueryNextItem(nullptr, IID_IStream, &out));
  EXPECT_HR(E_POINTER, Enum_QueryNextItem(&stream, IID_IStream, nullptr));

  FakeUnknown plain;
  IUnknown* const items[] = {&stream, &plain, nullptr};
  IEnumUnknown* e = nullptr;
  ASSERT_HR(S_OK, EnumUnknown_Create(items, 3, &e));
  EXPECT_HR(S_OK, Enum_QueryNextItem(e, IID_IStream, &out));
  EXPECT_EQ(static_cast<IUnknown*>(&stream), out);
  EXPECT_EQ(3, stream.refs) << "the caller's, beside the enumerator's";
  static_cast<IUnknown*>(out)->Release();

  EXPECT_HR(E_NOINTERFACE, Enum_QueryNextItem(e, IID_IStream, &out));
  EXPECT_EQ(nullptr, out);
  EXPECT_EQ(2, plain.refs) << "the fetched item is released again";
  out = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(E_NOINTERFACE, Enum_QueryNextItem(e, IID_IStream, &out)) << "a null item";
  EXPECT_EQ(nullptr, out);

  out = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(S_FALSE, Enum_QueryNextItem(e, IID_IStream, &out));
  EXPECT_EQ(reinterpret_cast<void*>(0xDEADBEEF), out) << "nothing fetched, nothing written";
  EXPECT_EQ(0u, e->Release());
  EXPECT_EQ(1, stream.refs);
  EXPECT_EQ(1, plain.refs);
}

TEST_F(QueryNextItemTest, QueriesTheObjectOfTheNextVariant) {
  FakeUnknown stream(IID_IStream);
  const VARIANT items[] = {Holding(&stream, VT_DISPATCH), Number(1)};
  IEnumVARIANT* e = nullptr;
  ASSERT_HR(S_OK, EnumVARIANT_Create(items, 2, &e));
  void* out = nullptr;
  EXPECT_HR(S_OK, Enum_QueryNextItem(e, IID_IStream, &out));
  EXPECT_EQ(static_cast<IUnknown*>(&stream), out);
  static_cast<IUnknown*>(out)->Release();

  out = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(DISP_E_BADVARTYPE, Enum_QueryNextItem(e, IID_IStream, &out));
  EXPECT_EQ(reinterpret_cast<void*>(0xDEADBEEF), out);
  EXPECT_HR(S_FALSE, Enum_QueryNextItem(e, IID_IStream, &out));
  EXPECT_EQ(reinterpret_cast<void*>(0xDEADBEEF), out);
  EXPECT_EQ(0u, e->Release());
  EXPECT_EQ(1, stream.refs);

  FakeUnknown neither(IID_IUnknown, E_UNEXPECTED);
  EXPECT_HR(E_UNEXPECTED, Enum_QueryNextItem(&neither, IID_IStream, &out))
      << "the refusal of the IEnumVARIANT query, as the object gave it";
  EXPECT_EQ(reinterpret_cast<void*>(0xDEADBEEF), out);
  EXPECT_EQ(1, neither.refs);
}

}  // namespace
