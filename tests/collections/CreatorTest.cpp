// What single creators add to the common contract: the items no other kind has
// (NULL strings, embedded zeros), and the C form of the public interfaces.
#include "DebugOutput.h"
#include "Kinds.h"

using ::testing::ElementsAre;

extern "C" HRESULT InsertAddAndReadThroughC(ISeqBSTR* seq, BSTR item, long* count, BSTR* first);

namespace {

using CreatorTest = xktest::CollectionsTest;

TEST_F(CreatorTest, NullStringsStayNullAndEmbeddedZerosEndACopy) {
  const LPCOLESTR strings[] = {L"b", nullptr};
  IEnumString* e = nullptr;
  xktest::DebugOutputCapture capture;
  ASSERT_HR(S_OK, EnumString_Create(strings, 2, &e));
  EXPECT_THAT(capture.Lines(), ElementsAre("b", "\n", "", "\n"))
      << "a NULL string as an empty line";
  LPOLESTR fetched[2] = {};
  ULONG n = 0;
  ASSERT_HR(S_OK, e->Next(2, fetched, &n));
  EXPECT_EQ(nullptr, fetched[1]);
  CoTaskMemFree(fetched[0]);
  EXPECT_EQ(0u, e->Release());

  BSTR bstrs[] = {nullptr, SysAllocStringLen(L"ab\0cd", 5)};
  IEnumBSTR* b = nullptr;
  ASSERT_HR(S_OK, EnumBSTR_Create(bstrs, 2, &b));
  SysFreeString(bstrs[1]);
  BSTR copies[2] = {};
  ASSERT_HR(S_OK, b->Next(2, copies, &n));
  EXPECT_EQ(nullptr, copies[0]);
  EXPECT_EQ(2u, SysStringLen(copies[1]));
  SysFreeString(copies[1]);
  EXPECT_EQ(0u, b->Release());
}

TEST_F(CreatorTest, CClientsReachEveryMethodThroughTheVtable) {
  IEnumBSTR* e = nullptr;
  ASSERT_HR(S_OK, EnumBSTR_Create(nullptr, 0, &e));
  ISeqBSTR* seq = nullptr;
  ASSERT_HR(S_OK, e->QueryInterface(IID_ISeqBSTR, reinterpret_cast<void**>(&seq)));
  BSTR item = SysAllocString(L"first"), first = nullptr;
  long count = -1;
  EXPECT_HR(S_OK, InsertAddAndReadThroughC(seq, item, &count, &first));
  EXPECT_EQ(2, count);
  EXPECT_STREQ(L"first", first);
  SysFreeString(first);
  SysFreeString(item);
  EXPECT_EQ(1u, seq->Release());
  EXPECT_EQ(0u, e->Release());
}

}  // namespace
