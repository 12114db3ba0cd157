// What single creators add to the common contract: the items no other kind
// has (NULL strings, embedded zeros), and the C form of the public interfaces.
#include "DebugOutput.h"
#include "Kinds.h"

using ::testing::ElementsAre;
using xktest::CollectionsTest;

extern "C" HRESULT AppendAndCountThroughC(ISeqGUID* seq, const GUID* item, long* count);
extern "C" HRESULT FirstThroughC(ICollBSTR* coll, BSTR* first);

namespace {

using CreatorTest = CollectionsTest;

TEST_F(CreatorTest, EnumStringEchoesANullStringAsAnEmptyLineAndKeepsItNull) {
  const LPCOLESTR items[] = {L"b", nullptr};
  IEnumString* e = nullptr;
  xktest::DebugOutputCapture capture;
  ASSERT_HR(S_OK, EnumString_Create(items, 2, &e));
  EXPECT_THAT(capture.Lines(), ElementsAre("b", "\n", "", "\n"));
  LPOLESTR fetched[2] = {};
  ULONG n = 0;
  ASSERT_HR(S_OK, e->Next(2, fetched, &n));
  EXPECT_STREQ(L"b", fetched[0]);
  EXPECT_EQ(nullptr, fetched[1]);
  CoTaskMemFree(fetched[0]);
  EXPECT_EQ(0u, e->Release());
}

TEST_F(CreatorTest, EnumBSTRCopiesUpToTheFirstZeroAndKeepsNullAsNull) {
  BSTR items[] = {nullptr, SysAllocStringLen(L"ab\0cd", 5)};
  IEnumBSTR* e = nullptr;
  ASSERT_HR(S_OK, EnumBSTR_Create(items, 2, &e));
  SysFreeString(items[1]);
  BSTR fetched[2] = {};
  ULONG n = 0;
  ASSERT_HR(S_OK, e->Next(2, fetched, &n));
  EXPECT_EQ(nullptr, fetched[0]);
  EXPECT_EQ(2u, SysStringLen(fetched[1]));
  EXPECT_STREQ(L"ab", fetched[1]);
  SysFreeString(fetched[1]);
  EXPECT_EQ(0u, e->Release());
}

TEST_F(CreatorTest, CClientsReachEveryMethodThroughTheVtable) {
  IEnumGUID* guids = nullptr;
  ASSERT_HR(S_OK, EnumGUID_Create(nullptr, 0, &guids));
  ISeqGUID* seq = nullptr;
  ASSERT_HR(S_OK, guids->QueryInterface(IID_ISeqGUID, reinterpret_cast<void**>(&seq)));
  long count = -1;
  EXPECT_HR(S_OK, AppendAndCountThroughC(seq, &IID_IStream, &count));
  EXPECT_EQ(2, count);
  seq->Release();
  EXPECT_EQ(0u, guids->Release());

  BSTR items[] = {SysAllocString(L"first")};
  IEnumBSTR* e = nullptr;
  ASSERT_HR(S_OK, EnumBSTR_Create(items, 1, &e));
  SysFreeString(items[0]);
  ICollBSTR* coll = nullptr;
  ASSERT_HR(S_OK, e->QueryInterface(IID_ICollBSTR, reinterpret_cast<void**>(&coll)));
  BSTR first = nullptr;
  EXPECT_HR(S_OK, FirstThroughC(coll, &first));
  EXPECT_STREQ(L"first", first);
  SysFreeString(first);
  coll->Release();
  EXPECT_EQ(0u, e->Release());
}

}  // namespace
