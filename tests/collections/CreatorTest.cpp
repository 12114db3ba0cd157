// What each creator adds to the common contract: the string creator's echo,
// references taken on objects, BSTR copies, the GUID creator's interface, and
// the C form of the public interfaces.
#include "DebugOutput.h"
#include "Kinds.h"

using ::testing::ElementsAre;
using xktest::CollectionsTest;
using xktest::FakeUnknown;

extern "C" HRESULT AppendAndCountThroughC(ISeqGUID* seq, const GUID* item, long* count);
extern "C" HRESULT FirstThroughC(ICollBSTR* coll, BSTR* first);

namespace {

using CreatorTest = CollectionsTest;

TEST_F(CreatorTest, EnumStringEchoesEachStringAndKeepsCopies) {
  wchar_t a[] = L"a";
  wchar_t b[] = L"b";
  const LPCOLESTR items[] = {a, b, nullptr};
  IEnumString* e = nullptr;
  {
    xktest::DebugOutputCapture capture;
    ASSERT_HR(S_OK, EnumString_Create(items, 2, &e));
    EXPECT_THAT(capture.Lines(), ElementsAre("a", "\n", "b", "\n"));
  }
  a[0] = L'x';  // the caller's buffers change; the enumerator's copies do not
  LPOLESTR fetched[2] = {};
  ULONG n = 0;
  ASSERT_HR(S_OK, e->Next(2, fetched, &n));
  EXPECT_STREQ(L"a", fetched[0]);
  EXPECT_STREQ(L"b", fetched[1]);
  CoTaskMemFree(fetched[0]);
  CoTaskMemFree(fetched[1]);
  EXPECT_EQ(0u, e->Release());

  xktest::DebugOutputCapture capture;
  ASSERT_HR(S_OK, EnumString_Create(items + 1, 2, &e)) << "a NULL string is kept as NULL";
  EXPECT_THAT(capture.Lines(), ElementsAre("b", "\n", "", "\n"));
  ASSERT_HR(S_OK, e->Next(2, fetched, &n));
  EXPECT_EQ(nullptr, fetched[1]);
  CoTaskMemFree(fetched[0]);
  EXPECT_EQ(0u, e->Release());
}

TEST_F(CreatorTest, EnumUnknownHoldsOneReferenceOnEachObject) {
  FakeUnknown first, second;
  IUnknown* const items[] = {&first, &second};
  IEnumUnknown* e = nullptr;
  ASSERT_HR(S_OK, EnumUnknown_Create(items, 2, &e));
  EXPECT_EQ(2, first.refs);
  EXPECT_EQ(2, second.refs);
  EXPECT_EQ(0, first.queries) << "held as given, not queried";
  EXPECT_EQ(0u, e->Release());
  EXPECT_EQ(1, first.refs);
  EXPECT_EQ(1, second.refs);
}

TEST_F(CreatorTest, EnumBSTRCopiesUpToTheFirstZeroAndKeepsNullAsNull) {
  BSTR items[] = {nullptr, SysAllocStringLen(L"ab\0cd", 5)};
  IEnumBSTR* e = nullptr;
  ASSERT_HR(S_OK, EnumBSTR_Create(items, 2, &e));
  BSTR fetched = reinterpret_cast<BSTR>(0xDEADBEEF);
  ASSERT_HR(S_OK, e->Next(1, &fetched, nullptr));
  EXPECT_EQ(nullptr, fetched);
  ASSERT_HR(S_OK, e->Next(1, &fetched, nullptr));
  EXPECT_EQ(2u, SysStringLen(fetched));
  EXPECT_STREQ(L"ab", fetched);
  SysFreeString(fetched);
  SysFreeString(items[1]);
  EXPECT_EQ(0u, e->Release());
}

TEST_F(CreatorTest, EnumGUIDHandsOutTheLibraryInterfaceWhichIsAlsoThePlatformOne) {
  const GUID items[] = {IID_IStream};
  IEnumGUID* e = nullptr;
  ASSERT_HR(S_OK, EnumGUID_Create(items, 1, &e));
  void* library = nullptr;
  void* platform = nullptr;
  ASSERT_HR(S_OK, e->QueryInterface(IID_IQvEnumGUID, &library));
  ASSERT_HR(S_OK, e->QueryInterface(IID_IEnumGUID, &platform));
  EXPECT_EQ(static_cast<void*>(e), library);
  EXPECT_EQ(library, platform);
  static_cast<IUnknown*>(library)->Release();
  static_cast<IUnknown*>(platform)->Release();
  GUID fetched;
  ASSERT_HR(S_OK, e->Next(1, &fetched, nullptr));
  EXPECT_EQ(IID_IStream, fetched);
  EXPECT_EQ(0u, e->Release());
}

TEST_F(CreatorTest, EnumVARIANTCopiesTheValuesItIsGiven) {
  FakeUnknown object;
  VARIANT items[2];
  VariantInit(&items[0]);
  V_VT(&items[0]) = VT_UNKNOWN;
  V_UNKNOWN(&items[0]) = &object;
  VariantInit(&items[1]);
  V_VT(&items[1]) = VT_I4;
  V_I4(&items[1]) = -7;
  IEnumVARIANT* e = nullptr;
  ASSERT_HR(S_OK, EnumVARIANT_Create(items, 2, &e));
  EXPECT_EQ(2, object.refs);
  VARIANT fetched[2];
  ULONG n = 0;
  ASSERT_HR(S_OK, e->Next(2, fetched, &n));
  EXPECT_EQ(VT_UNKNOWN, V_VT(&fetched[0]));
  EXPECT_EQ(&object, V_UNKNOWN(&fetched[0]));
  EXPECT_EQ(VT_I4, V_VT(&fetched[1]));
  EXPECT_EQ(-7, V_I4(&fetched[1]));
  EXPECT_EQ(3, object.refs);
  VariantClear(&fetched[0]);
  EXPECT_EQ(0u, e->Release());
  EXPECT_EQ(1, object.refs);
}

TEST_F(CreatorTest, CClientsReachEveryMethodThroughTheVtable) {
  IEnumGUID* e = nullptr;
  ASSERT_HR(S_OK, EnumGUID_Create(nullptr, 0, &e));
  ISeqGUID* seq = nullptr;
  ASSERT_HR(S_OK, e->QueryInterface(IID_ISeqGUID, reinterpret_cast<void**>(&seq)));
  long count = -1;
  EXPECT_HR(S_OK, AppendAndCountThroughC(seq, &IID_IStream, &count));
  EXPECT_EQ(2, count);
  seq->Release();
  EXPECT_EQ(0u, e->Release());

  BSTR items[] = {SysAllocString(L"first")};
  IEnumBSTR* bstrs = nullptr;
  ASSERT_HR(S_OK, EnumBSTR_Create(items, 1, &bstrs));
  ICollBSTR* coll = nullptr;
  ASSERT_HR(S_OK, bstrs->QueryInterface(IID_ICollBSTR, reinterpret_cast<void**>(&coll)));
  BSTR first = nullptr;
  EXPECT_HR(S_OK, FirstThroughC(coll, &first));
  EXPECT_STREQ(L"first", first);
  SysFreeString(first);
  SysFreeString(items[0]);
  coll->Release();
  EXPECT_EQ(0u, bstrs->Release());
}

}  // namespace
