// The BSTR functions as a client sees them: counts, NULLs, ownership of old and
// new strings, and the platform's refusals of sizes no BSTR can have.
#include <climits>
#include <cstring>
#include <string>
#include <xkcombsd/Strings.h>

#include "HResult.h"
#include "StringsFixture.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::AssertionReport;
using xktest::Chars;
using xktest::FromAnsi;
using xktest::Widened;

namespace {

using BstrCreate = xktest::StringsTest;
using BstrRecreate = xktest::StringsTest;
using BstrAppend = xktest::StringsTest;
using BstrCopies = xktest::StringsTest;
using BstrCmp = xktest::StringsTest;
using BstrFromWin32Error = xktest::StringsTest;
using SysReallocStringByteLenTest = xktest::StringsTest;

std::string Narrow(size_t length) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>('A' + i % 26);
  return text;
}

}  // namespace

TEST_F(BstrCreate, WideCountsTakeAPrefixEmbeddedZerosOrUpToTheTerminator) {
  BSTR b = BSTR_CreateW(L"abc", 2);
  EXPECT_EQ(L"ab", Chars(b));
  EXPECT_EQ(L'\0', b[2]);
  SysFreeString(b);

  b = BSTR_CreateW(L"abc", -1);
  EXPECT_EQ(L"abc", Chars(b));
  SysFreeString(b);

  b = BSTR_CreateW(L"abc", 0);
  ASSERT_NE(nullptr, b) << "a count of 0 is an empty string, not none";
  EXPECT_EQ(0u, SysStringLen(b));
  SysFreeString(b);

  b = BSTR_CreateW(L"a\0b", 3);
  EXPECT_EQ(std::wstring(L"a\0b", 3), Chars(b)) << "a positive count reads past zeros";
  SysFreeString(b);
}

TEST_F(BstrCreate, WideWithoutSourceGivesNoneOrUnspecifiedCharacters) {
  EXPECT_EQ(nullptr, BSTR_CreateW(nullptr, -1));
  BSTR b = BSTR_CreateW(nullptr, 3);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(3u, SysStringLen(b));
  EXPECT_EQ(L'\0', b[3]);
  SysFreeString(b);
}

TEST_F(BstrCreate, NarrowNullOrEmptySourcesFollowTheCount) {
  EXPECT_EQ(nullptr, BSTR_CreateA(nullptr, -1));
  EXPECT_EQ(nullptr, BSTR_CreateA("", -1));

  BSTR b = BSTR_CreateA("abc", 0);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(0u, SysStringLen(b));
  SysFreeString(b);

  b = BSTR_CreateA(nullptr, 0);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(0u, SysStringLen(b));
  SysFreeString(b);

  b = BSTR_CreateA("", 4);
  ASSERT_NE(nullptr, b) << "an empty source with a positive count still makes that many";
  EXPECT_EQ(4u, SysStringLen(b));
  SysFreeString(b);
}

TEST_F(BstrCreate, NarrowTextIsConvertedByteCountForCharacter) {
  BSTR b = BSTR_CreateA("abc", -1);
  EXPECT_EQ(L"abc", Chars(b));
  SysFreeString(b);

  b = BSTR_CreateA("abcdef", 3);
  EXPECT_EQ(L"abc", Chars(b));
  SysFreeString(b);

  b = BSTR_CreateA("ab\0cd", 5);
  EXPECT_EQ(std::wstring(L"ab\0cd", 5), Chars(b));
  SysFreeString(b);

  const std::string accented = "caf\xe9 \xfc";
  b = BSTR_CreateA(accented.c_str(), -1);
  EXPECT_EQ(FromAnsi(accented), Chars(b)) << "the ANSI code page is " << GetACP();
  SysFreeString(b);
}

TEST_F(BstrCreate, LongNarrowTextConvertsWholeOnEitherSideOfTheInsideBuffer) {
  for (size_t length : {511u, 512u, 600u, 5000u}) {
    const std::string text = Narrow(length);
    BSTR b = BSTR_CreateA(text.c_str(), -1);
    EXPECT_EQ(Widened(text), Chars(b)) << length;
    SysFreeString(b);
    b = BSTR_CreateA(text.c_str(), static_cast<int>(length - 1));
    EXPECT_EQ(Widened(text.substr(0, length - 1)), Chars(b)) << length;
    SysFreeString(b);
  }
}

TEST_F(BstrCreate, CountsNoBstrCanHoldFailCleanly) {
  EXPECT_EQ(nullptr, BSTR_CreateW(L"abc", INT_MAX));
  // Refused before the source is read or a conversion buffer is taken.
  EXPECT_EQ(nullptr, BSTR_CreateA("abc", INT_MAX));
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
}

TEST_F(BstrRecreate, WideReplacesAndFreesTheOldString) {
  BSTR b = SysAllocString(L"abc");
  b = BSTR_RecreateW(b, L"longer text", -1);
  EXPECT_EQ(L"longer text", Chars(b));
  b = BSTR_RecreateW(b, L"wxyz", 2);
  EXPECT_EQ(L"wx", Chars(b));
  b = BSTR_RecreateW(b, L"", 0);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(0u, SysStringLen(b));
  SysFreeString(b);

  b = BSTR_RecreateW(nullptr, L"ab", -1);
  EXPECT_EQ(L"ab", Chars(b));
  SysFreeString(b);
}

TEST_F(BstrRecreate, NarrowReplacesAndFreesTheOldString) {
  BSTR b = SysAllocString(L"abc");
  b = BSTR_RecreateA(b, "xyz", -1);
  EXPECT_EQ(L"xyz", Chars(b));
  b = BSTR_RecreateA(b, "abcdef", 2);
  EXPECT_EQ(L"ab", Chars(b));
  const std::string text = Narrow(700);
  b = BSTR_RecreateA(b, text.c_str(), -1);
  EXPECT_EQ(Widened(text), Chars(b));
  b = BSTR_RecreateA(b, "x", 0);
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(0u, SysStringLen(b));
  SysFreeString(b);
}

TEST_F(BstrRecreate, NarrowWithoutTextLeavesItToThePlatform) {
  // The platform decides what replacing by no text means; either way nothing leaks.
  BSTR b = BSTR_RecreateA(SysAllocString(L"abc"), nullptr, -1);
  if (b) EXPECT_EQ(0u, SysStringLen(b));
  SysFreeString(b);
  b = BSTR_RecreateA(SysAllocString(L"abc"), "", -1);
  if (b) EXPECT_EQ(0u, SysStringLen(b));
  SysFreeString(b);
}

TEST_F(BstrAppend, NothingToAppendReturnsTheStringItself) {
  BSTR b = SysAllocString(L"abc");
  spy.ClearRequests();
  EXPECT_EQ(b, BSTR_AppendW(b, nullptr, 5));
  EXPECT_EQ(b, BSTR_AppendW(b, L"xy", 0));
  EXPECT_EQ(b, BSTR_AppendA(b, nullptr, 5));
  EXPECT_EQ(b, BSTR_AppendA(b, "xy", 0));
  EXPECT_EQ(b, BSTR_AppendA(b, "", -1));
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
  EXPECT_THAT(spy.ReallocRequests(), IsEmpty());
  EXPECT_EQ(L"abc", Chars(b));
  SysFreeString(b);
}

TEST_F(BstrAppend, ToNoStringCreatesOne) {
  BSTR b = BSTR_AppendW(nullptr, L"xy", -1);
  EXPECT_EQ(L"xy", Chars(b));
  SysFreeString(b);
  b = BSTR_AppendA(nullptr, "xyz", 2);
  EXPECT_EQ(L"xy", Chars(b));
  SysFreeString(b);
  EXPECT_EQ(nullptr, BSTR_AppendA(nullptr, "", -1));
}

TEST_F(BstrAppend, WideGrowsTheStringWithOneReallocation) {
  BSTR b = SysAllocString(L"abc");
  spy.ClearRequests();
  b = BSTR_AppendW(b, L"def", -1);
  EXPECT_EQ(L"abcdef", Chars(b));
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
  EXPECT_EQ(1u, spy.ReallocRequests().size());

  b = BSTR_AppendW(b, L"ghij", 2);
  EXPECT_EQ(L"abcdefgh", Chars(b));
  SysFreeString(b);
}

TEST_F(BstrAppend, AZeroInTheSourceEndsTheCopyAndTheRestIsZeros) {
  BSTR b = SysAllocString(L"ab");
  b = BSTR_AppendW(b, L"c\0de", 4);
  EXPECT_EQ(std::wstring(L"abc\0\0\0", 6), Chars(b));
  SysFreeString(b);
}

TEST_F(BstrAppend, AStringAppendedToItselfSurvivesItsReallocation) {
  BSTR b = SysAllocString(L"abcd");
  b = BSTR_AppendW(b, b, -1);
  EXPECT_EQ(L"abcdabcd", Chars(b));
  b = BSTR_AppendW(b, b + 6, -1);
  EXPECT_EQ(L"abcdabcdcd", Chars(b));
  SysFreeString(b);
}

TEST_F(BstrAppend, NarrowTextIsConvertedAndAppended) {
  BSTR b = SysAllocString(L"abc");
  b = BSTR_AppendA(b, "def", -1);
  EXPECT_EQ(L"abcdef", Chars(b));
  b = BSTR_AppendA(b, "ghijk", 2);
  EXPECT_EQ(L"abcdefgh", Chars(b));
  const std::string text = Narrow(600);
  b = BSTR_AppendA(b, text.c_str(), -1);
  EXPECT_EQ(L"abcdefgh" + Widened(text), Chars(b));
  SysFreeString(b);
}

TEST_F(BstrAppend, AFailedAppendOrReplacementLeavesTheOldStringWithItsOwner) {
  BSTR b = SysAllocString(L"keep");
  EXPECT_EQ(nullptr, BSTR_AppendW(b, L"xy", INT_MAX));
  EXPECT_EQ(nullptr, BSTR_AppendA(b, "xy", INT_MAX));
  EXPECT_EQ(nullptr, BSTR_RecreateW(b, L"ab", INT_MAX));
  EXPECT_EQ(nullptr, BSTR_RecreateA(b, "ab", INT_MAX));
  EXPECT_EQ(L"keep", Chars(b));
  EXPECT_EQ(1, spy.Outstanding());
  SysFreeString(b);
}

TEST_F(BstrCopies, DupCopiesUpToTheFirstZero) {
  EXPECT_EQ(nullptr, BSTR_Dup(nullptr));
  BSTR withZero = SysAllocStringLen(L"ab\0cd", 5);
  BSTR copy = BSTR_Dup(withZero);
  EXPECT_NE(withZero, copy);
  EXPECT_EQ(L"ab", Chars(copy));
  SysFreeString(copy);
  SysFreeString(withZero);
}

TEST_F(BstrCopies, RedupReplacesCreatesOrFrees) {
  BSTR b = BSTR_Redup(nullptr, L"first");
  EXPECT_EQ(L"first", Chars(b));
  b = BSTR_Redup(b, L"second, longer");
  EXPECT_EQ(L"second, longer", Chars(b));
  EXPECT_EQ(1, spy.Outstanding());
  EXPECT_EQ(nullptr, BSTR_Redup(b, nullptr));
  EXPECT_EQ(0, spy.Outstanding()) << "Redup with no source frees the string";
  EXPECT_EQ(nullptr, BSTR_Redup(nullptr, nullptr));
}

TEST_F(BstrCopies, DestroyFreesAndClears) {
  BSTR b = SysAllocString(L"abc");
  BSTR_Destroy(&b);
  EXPECT_EQ(nullptr, b);
  EXPECT_EQ(0, spy.Outstanding());
  BSTR_Destroy(&b);
  EXPECT_EQ(nullptr, b);
  BSTR_Destroy(nullptr);
}

TEST_F(BstrCmp, SignIsSecondMinusFirstAndANullFirstIsAlwaysLess) {
  BSTR a = SysAllocString(L"a");
  BSTR b = SysAllocString(L"b");
  BSTR ab = SysAllocString(L"ab");
  BSTR a2 = SysAllocString(L"a");
  BSTR high = SysAllocString(L"\xFFFF");

  EXPECT_EQ(1, BSTR_Cmp(a, b));
  EXPECT_EQ(-1, BSTR_Cmp(b, a));
  EXPECT_EQ(-'b', BSTR_Cmp(ab, a));
  EXPECT_EQ(0, BSTR_Cmp(a, a2));
  EXPECT_EQ('a' - 0xFFFF, BSTR_Cmp(high, a)) << "characters compare unsigned";
  EXPECT_EQ(-1, BSTR_Cmp(nullptr, nullptr));
  EXPECT_EQ(-1, BSTR_Cmp(nullptr, a));
  EXPECT_EQ(1, BSTR_Cmp(a, nullptr));

  for (BSTR s : {a, b, ab, a2, high}) SysFreeString(s);
}

TEST_F(BstrFromWin32Error, SystemTextComesBackWithoutItsTrailingPeriodAndSpaces) {
  for (DWORD error : {ERROR_SUCCESS, ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED,
                      ERROR_INVALID_PARAMETER, ERROR_NOT_ENOUGH_MEMORY}) {
    char* raw = nullptr;
    const DWORD length = FormatMessageA(0x11FF, nullptr, error, 0x0400,
                                        reinterpret_cast<LPSTR>(&raw), 0, nullptr);
    ASSERT_NE(0u, length) << error;
    std::string expected(raw, length);
    LocalFree(raw);
    const size_t rawLength = expected.size();
    while (expected.size() > 1 && expected.find_last_of(". \t") == expected.size() - 1)
      expected.pop_back();

    ASSERT_LT(expected.size(), rawLength) << "the system text ends in a period or space";

    BSTR text = BSTR_FromWin32Error(error);
    EXPECT_EQ(FromAnsi(expected), Chars(text)) << error;
    ASSERT_NE(nullptr, text);
    const wchar_t last = text[SysStringLen(text) - 1];
    EXPECT_TRUE(last != L'.' && last != L' ') << error;
    SysFreeString(text);
  }
}

TEST_F(BstrFromWin32Error, ACodeWithoutSystemTextGivesNone) {
  EXPECT_EQ(nullptr, BSTR_FromWin32Error(0x2000ABCD));  // a customer code
  EXPECT_EQ(nullptr, BSTR_FromWin32Error(0xFFFFFFFF));
}

TEST_F(SysReallocStringByteLenTest, ANullStringPointerIsReported) {
  EXPECT_FALSE(SysReallocStringByteLen(nullptr, "ab", 2));
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOBStrFn", 421, "&rbstr != NULL"}));
  capture.Clear();
}

TEST_F(SysReallocStringByteLenTest, TheSameByteLengthRewritesInPlace) {
  BSTR b = SysAllocStringByteLen("abcdef", 6);
  BSTR before = b;
  spy.ClearRequests();
  EXPECT_TRUE(SysReallocStringByteLen(&b, "uvwxyz", 6));
  EXPECT_EQ(before, b);
  EXPECT_EQ(0, std::memcmp(b, "uvwxyz\0", 7));
  EXPECT_EQ(6u, SysStringByteLen(b));
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
  EXPECT_THAT(spy.ReallocRequests(), IsEmpty());

  // A source inside the string itself, overlapping its new place.
  EXPECT_TRUE(SysReallocStringByteLen(&b, reinterpret_cast<char*>(b) + 1, 6));
  EXPECT_EQ(before, b);
  EXPECT_EQ(0, std::memcmp(b, "vwxyz\0\0", 7));

  // No source: the bytes stay as they are.
  EXPECT_TRUE(SysReallocStringByteLen(&b, nullptr, 6));
  EXPECT_EQ(before, b);
  EXPECT_EQ(0, std::memcmp(b, "vwxyz\0\0", 7));
  SysFreeString(b);
}

TEST_F(SysReallocStringByteLenTest, AnyOtherLengthMakesANewStringAndFreesTheOld) {
  BSTR b = SysAllocStringByteLen("abcdef", 6);
  BSTR before = b;
  EXPECT_TRUE(SysReallocStringByteLen(&b, "xyz", 3));
  EXPECT_NE(before, b);
  EXPECT_EQ(3u, SysStringByteLen(b));
  EXPECT_EQ(0, std::memcmp(b, "xyz\0", 4));
  EXPECT_EQ(1, spy.Outstanding()) << "the old string is freed";

  // The source may be the old string itself: the new one is made first.
  EXPECT_TRUE(SysReallocStringByteLen(&b, reinterpret_cast<char*>(b), 2));
  EXPECT_EQ(0, std::memcmp(b, "xy\0", 3));
  SysFreeString(b);

  b = nullptr;
  EXPECT_TRUE(SysReallocStringByteLen(&b, "ab", 2));
  EXPECT_EQ(0, std::memcmp(b, "ab\0", 3));
  SysFreeString(b);

  b = nullptr;
  EXPECT_TRUE(SysReallocStringByteLen(&b, "ab", 0)) << "no string and no bytes is still a new string";
  ASSERT_NE(nullptr, b);
  EXPECT_EQ(0u, SysStringByteLen(b));
  SysFreeString(b);
}

TEST_F(SysReallocStringByteLenTest, ALengthNoBstrCanHoldFailsAndTheOldStringIsGone) {
  BSTR b = SysAllocStringByteLen("abc", 3);
  EXPECT_FALSE(SysReallocStringByteLen(&b, "abc", UINT_MAX));
  EXPECT_EQ(nullptr, b);
  EXPECT_EQ(0, spy.Outstanding());
}
