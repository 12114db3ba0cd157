// OLE strings and the task-allocator queries as a client sees them: exact block
// sizes, counts, NULLs, foreign pointers and who owns what afterwards.
#include <climits>
#include <cstring>
#include <string>
#include <xkcombsd/Strings.h>

#include "HResult.h"
#include "StringsFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::AssertionReport;
using xktest::FromAnsi;

namespace {

using OleStringCreate = xktest::StringsTest;
using OleStringRecreate = xktest::StringsTest;
using OleStringCopies = xktest::StringsTest;
using OleStringDestroy = xktest::StringsTest;
using TaskMemoryQueries = xktest::StringsTest;

// The n characters of a block, terminator or not.
std::wstring Units(LPCOLESTR p, size_t n) { return std::wstring(p, n); }

}  // namespace

TEST_F(OleStringCreate, WideTakesExactlyTheCharactersAndATerminator) {
  LPOLESTR p = OleString_CreateW(L"abcdef", 3);
  EXPECT_EQ(Units(L"abc", 4), Units(p, 4));
  EXPECT_THAT(spy.AllocRequests(), ElementsAre(8u));
  CoTaskMemFree(p);

  spy.ClearRequests();
  p = OleString_CreateW(L"abc", -1);
  EXPECT_EQ(Units(L"abc", 4), Units(p, 4));
  EXPECT_THAT(spy.AllocRequests(), ElementsAre(8u));
  CoTaskMemFree(p);

  spy.ClearRequests();
  p = OleString_CreateW(L"", -1);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(L'\0', p[0]);
  EXPECT_THAT(spy.AllocRequests(), ElementsAre(2u));
  CoTaskMemFree(p);
}

TEST_F(OleStringCreate, WideStopsAtAZeroInTheSourceAndPadsWithZeros) {
  LPOLESTR p = OleString_CreateW(L"ab\0cd", 5);
  EXPECT_EQ(Units(L"ab\0\0\0\0", 6), Units(p, 6));
  EXPECT_THAT(spy.AllocRequests(), ElementsAre(12u));
  CoTaskMemFree(p);
}

TEST_F(OleStringCreate, NarrowIsConvertedIntoABlockOfTheSameCount) {
  LPOLESTR p = OleString_CreateA("abcdef", 2);
  EXPECT_EQ(Units(L"ab", 3), Units(p, 3));
  EXPECT_THAT(spy.AllocRequests(), ElementsAre(6u));
  CoTaskMemFree(p);

  p = OleString_CreateA("a\0b", 3);
  EXPECT_EQ(Units(L"a\0b", 4), Units(p, 4)) << "a positive count converts past zeros";
  CoTaskMemFree(p);

  const std::string accented = "M\xfcller \xe9t\xe9";
  p = OleString_CreateA(accented.c_str(), -1);
  EXPECT_EQ(FromAnsi(accented), std::wstring(p)) << "the ANSI code page is " << GetACP();
  CoTaskMemFree(p);

  const std::string text(700, 'q');
  p = OleString_CreateA(text.c_str(), -1);
  EXPECT_EQ(std::wstring(700, L'q'), std::wstring(p));
  CoTaskMemFree(p);
}

TEST_F(OleStringCreate, EmptyNarrowTextIsAnEmptyStringButNoTextIsNone) {
  LPOLESTR p = OleString_CreateA("", -1);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(L'\0', p[0]);
  CoTaskMemFree(p);

  p = OleString_CreateA("abc", 0);
  ASSERT_NE(nullptr, p);
  EXPECT_EQ(L'\0', p[0]);
  CoTaskMemFree(p);

  spy.ClearRequests();
  EXPECT_EQ(nullptr, OleString_CreateA(nullptr, 5));
  EXPECT_EQ(nullptr, OleString_CreateW(nullptr, 5));
  EXPECT_EQ(nullptr, OleString_CreateW(nullptr, -1));
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
}

TEST_F(OleStringCreate, CountsBeyondA32BitSizeFailBeforeAllocating) {
  EXPECT_EQ(nullptr, OleString_CreateW(L"abc", INT_MAX));
  EXPECT_EQ(nullptr, OleString_CreateA("abc", INT_MAX));
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
}

TEST_F(OleStringRecreate, NoSourceFreesTheString) {
  LPOLESTR p = OleString_CreateW(L"abc", -1);
  EXPECT_EQ(nullptr, OleString_RecreateW(p, nullptr, 0));
  EXPECT_EQ(0, spy.Outstanding());
  p = OleString_CreateW(L"abc", -1);
  EXPECT_EQ(nullptr, OleString_RecreateA(p, nullptr, 3));
  EXPECT_EQ(0, spy.Outstanding());
  EXPECT_EQ(nullptr, OleString_RecreateW(nullptr, nullptr, -1));
}

TEST_F(OleStringRecreate, NoStringAllocatesOne) {
  LPOLESTR p = OleString_RecreateW(nullptr, L"x", -1);
  EXPECT_EQ(Units(L"x", 2), Units(p, 2));
  EXPECT_THAT(spy.ReallocRequests(), ElementsAre(4u));
  CoTaskMemFree(p);

  p = OleString_RecreateA(nullptr, "xy", -1);
  EXPECT_EQ(Units(L"xy", 3), Units(p, 3));
  CoTaskMemFree(p);
}

TEST_F(OleStringRecreate, ReplacesTheTextInABlockResizedToIt) {
  LPOLESTR p = OleString_CreateW(L"abc", -1);
  spy.ClearRequests();
  p = OleString_RecreateW(p, L"a longer text", -1);
  EXPECT_EQ(L"a longer text", std::wstring(p));
  p = OleString_RecreateW(p, L"wxyz", 2);
  EXPECT_EQ(Units(L"wx", 3), Units(p, 3));
  p = OleString_RecreateA(p, "narrow text", -1);
  EXPECT_EQ(L"narrow text", std::wstring(p));
  p = OleString_RecreateA(p, "uvw", 0);
  EXPECT_EQ(L"", std::wstring(p));
  EXPECT_THAT(spy.ReallocRequests(), ElementsAre(28u, 6u, 24u, 2u));
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
  EXPECT_EQ(1, spy.Outstanding());
  CoTaskMemFree(p);
}

TEST_F(OleStringRecreate, AFailedReplacementLeavesTheOldStringWithItsOwner) {
  LPOLESTR p = OleString_CreateW(L"keep", -1);
  EXPECT_EQ(nullptr, OleString_RecreateW(p, L"ab", INT_MAX));
  EXPECT_EQ(nullptr, OleString_RecreateA(p, "ab", INT_MAX));
  EXPECT_EQ(L"keep", std::wstring(p));
  EXPECT_EQ(1, CoTaskMemDidAlloc(p));
  CoTaskMemFree(p);
}

TEST_F(OleStringCopies, DupCopiesUpToTheTerminator) {
  EXPECT_EQ(nullptr, OleString_Dup(nullptr));
  const wchar_t source[] = L"ab\0cd";
  LPOLESTR p = OleString_Dup(source);
  EXPECT_NE(source, p);
  EXPECT_EQ(Units(L"ab", 3), Units(p, 3));
  EXPECT_THAT(spy.AllocRequests(), ElementsAre(6u));
  CoTaskMemFree(p);
}

TEST_F(OleStringDestroy, FreesTheStringAndClearsThePointer) {
  LPOLESTR p = OleString_CreateW(L"abc", -1);
  OleString_Destroy(&p);
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(0, spy.Outstanding());

  OleString_Destroy(&p);  // a pointer to NULL: nothing happens
  EXPECT_EQ(nullptr, p);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(OleStringDestroy, ANullPointerIsReported) {
  OleString_Destroy(nullptr);
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOOleStr", 233, "&rstr"}));
  capture.Clear();
}

TEST_F(OleStringDestroy, AForeignStringIsReportedAndLeftAlone) {
  wchar_t foreign[] = L"not from the task allocator";
  LPOLESTR p = foreign;
  OleString_Destroy(&p);
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(L"not from the task allocator", std::wstring(foreign));
  const auto lines = capture.Lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("OleStringDestroy: failed to recognise string (00000000)!\n", lines[0]);
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOOleStr", 242, "0"}));
  capture.Clear();
}

TEST_F(TaskMemoryQueries, DidAllocKnowsTheTaskAllocatorsOwnBlocks) {
  void* block = CoTaskMemAlloc(24);
  char stack[16];
  EXPECT_EQ(1, CoTaskMemDidAlloc(block));
  EXPECT_EQ(0, CoTaskMemDidAlloc(stack));
  EXPECT_EQ(-1, CoTaskMemDidAlloc(nullptr)) << "the allocator cannot tell for NULL";
  CoTaskMemFree(block);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(TaskMemoryQueries, GetSizeReportsAtLeastWhatWasAsked) {
  void* block = CoTaskMemAlloc(24);
  EXPECT_GE(CoTaskMemGetSize(block), 24u);
  LPOLESTR s = OleString_CreateW(L"abcdef", 3);
  EXPECT_GE(CoTaskMemGetSize(s), 8u);
  EXPECT_EQ(0xFFFFFFFFu, CoTaskMemGetSize(nullptr)) << "the allocator's -1, cut to 32 bits";
  CoTaskMemFree(s);
  CoTaskMemFree(block);
}

TEST_F(TaskMemoryQueries, HeapMinimiseAnswersWithTheAllocatorsCode) {
  EXPECT_HR(S_OK, CoTaskMemHeapMinimise());
  EXPECT_THAT(capture.Lines(), IsEmpty());
}
