// The string functions as a client sees them: BSTRs, OLE strings, resource
// texts, the wide-string and memory primitives and the task-memory queries.
// Every case watches the task allocator (BSTRs included): exact requests, and
// nothing left at its end; and no contract report it does not expect.
#include <gmock/gmock.h>
#include <xkcombsd/Strings.h>

#include <climits>
#include <cstring>
#include <string>
#include <tuple>

#include "DebugOutput.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "ResourceStringIds.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::AssertionReport;

// A table row's call: its text for the trace, and a function that makes it.
#define ROW_CALL(...) #__VA_ARGS__, [] { return __VA_ARGS__; }

namespace {

class Strings : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(spy.Registered()); }
  void TearDown() override {
    EXPECT_EQ(0, spy.Outstanding()) << "task blocks (BSTRs included) left behind";
    EXPECT_THAT(capture.Assertions(), IsEmpty());
  }

  xktest::MallocSpy spy;
  xktest::DebugOutputCapture capture;
};

const std::wstring kNone = L"<none>";  // what a row expects when no string is made

// The characters of a wide literal, embedded zeros included.
template <size_t N>
std::wstring Units(const wchar_t (&literal)[N]) { return std::wstring(literal, N - 1); }

std::wstring Chars(BSTR b) { return std::wstring(b, SysStringLen(b)); }

// A made BSTR's characters by its length (its terminator checked), then the BSTR freed.
std::wstring TakeBstr(BSTR b) {
  if (!b) return kNone;
  EXPECT_EQ(L'\0', b[SysStringLen(b)]) << "the terminator after the length";
  const std::wstring text = Chars(b);
  SysFreeString(b);
  return text;
}

// A made OLE string's first n characters (its terminator checked after them), then freed.
std::wstring TakeOle(LPOLESTR p, size_t n = std::wstring::npos) {
  if (!p) return kNone;
  const std::wstring text = n == std::wstring::npos ? std::wstring(p) : std::wstring(p, n);
  EXPECT_EQ(L'\0', p[text.size()]);
  CoTaskMemFree(p);
  return text;
}

std::wstring Widened(const std::string& ascii) { return std::wstring(ascii.begin(), ascii.end()); }

// What the platform makes of narrow text in the ANSI code page, and back.
std::wstring FromAnsi(const std::string& text) {
  std::wstring wide(text.size(), L'\0');
  wide.resize(MultiByteToWideChar(CP_ACP, 0, text.data(), static_cast<int>(text.size()), &wide[0],
                                  static_cast<int>(wide.size())));
  return wide;
}
std::string ToAnsi(const std::wstring& text) {
  std::string narrow(text.size() * 2, '\0');
  narrow.resize(WideCharToMultiByte(CP_ACP, 0, text.data(), static_cast<int>(text.size()), &narrow[0],
                                    static_cast<int>(narrow.size()), nullptr, nullptr));
  return narrow;
}

// Letters A..Z over and over: long narrow text in which a misplaced copy shows.
std::string Letters(size_t length) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>('A' + i % 26);
  return text;
}

const std::string kLong600 = Letters(600), kLong700 = Letters(700), kCafe = "caf\xe9 \xfc",
                  kMuller = "M\xfcller \xe9t\xe9";

struct MadeBstr {
  const char* call;
  BSTR (*make)();
  std::wstring expected;
};

// Each old string a row replaces or extends is its own: the spy sees any not freed.
const MadeBstr kBstrs[] = {
    // A count takes a prefix and reads past zeros, -1 runs to the terminator, 0 is empty (not none).
    {ROW_CALL(BSTR_CreateW(L"abc", 2)), L"ab"}, {ROW_CALL(BSTR_CreateA("abcdef", 3)), L"abc"},
    {ROW_CALL(BSTR_CreateW(L"abc", -1)), L"abc"}, {ROW_CALL(BSTR_CreateA("abc", -1)), L"abc"},
    {ROW_CALL(BSTR_CreateW(L"abc", 0)), L""}, {ROW_CALL(BSTR_CreateA("abc", 0)), L""},
    {ROW_CALL(BSTR_CreateW(L"a\0b", 3)), Units(L"a\0b")}, {ROW_CALL(BSTR_CreateA("ab\0cd", 5)), Units(L"ab\0cd")},
    {ROW_CALL(BSTR_CreateW(nullptr, -1)), kNone}, {ROW_CALL(BSTR_CreateA(nullptr, -1)), kNone},
    {ROW_CALL(BSTR_CreateA(nullptr, 0)), L""}, {ROW_CALL(BSTR_CreateA("", -1)), kNone},
    {ROW_CALL(BSTR_CreateA(kCafe.c_str(), -1)), FromAnsi(kCafe)},
    {ROW_CALL(BSTR_RecreateW(SysAllocString(L"abc"), L"longer text", -1)), L"longer text"},
    {ROW_CALL(BSTR_RecreateA(SysAllocString(L"abc"), "xyz", -1)), L"xyz"},
    {ROW_CALL(BSTR_RecreateW(SysAllocString(L"abc"), L"wxyz", 2)), L"wx"},
    {ROW_CALL(BSTR_RecreateA(SysAllocString(L"abc"), "abcdef", 2)), L"ab"},
    {ROW_CALL(BSTR_RecreateW(SysAllocString(L"abc"), L"", 0)), L""},
    {ROW_CALL(BSTR_RecreateA(SysAllocString(L"abc"), "x", 0)), L""},
    {ROW_CALL(BSTR_RecreateW(nullptr, L"ab", -1)), L"ab"},
    {ROW_CALL(BSTR_RecreateA(SysAllocString(L"abc"), kLong700.c_str(), -1)), Widened(kLong700)},
    // Appending to no string creates one; a zero in the source ends the copy, zeros fill the rest.
    {ROW_CALL(BSTR_AppendW(nullptr, L"xy", -1)), L"xy"}, {ROW_CALL(BSTR_AppendA(nullptr, "xyz", 2)), L"xy"},
    {ROW_CALL(BSTR_AppendA(nullptr, "", -1)), kNone},
    {ROW_CALL(BSTR_AppendW(SysAllocString(L"abc"), L"ghij", 2)), L"abcgh"},
    {ROW_CALL(BSTR_AppendA(SysAllocString(L"abc"), "ghijk", 2)), L"abcgh"},
    {ROW_CALL(BSTR_AppendW(SysAllocString(L"ab"), L"c\0de", 4)), Units(L"abc\0\0\0")},
    {ROW_CALL(BSTR_AppendA(SysAllocString(L"abc"), "def", -1)), L"abcdef"},
    {ROW_CALL(BSTR_AppendA(SysAllocString(L"abc"), kLong600.c_str(), -1)), L"abc" + Widened(kLong600)},
    // Copies stop at the first zero; Redup without a source frees the string.
    {ROW_CALL(BSTR_Dup(nullptr)), kNone}, {ROW_CALL(BSTR_Dup(L"ab\0cd")), L"ab"},
    {ROW_CALL(BSTR_Redup(nullptr, L"first")), L"first"}, {ROW_CALL(BSTR_Redup(nullptr, nullptr)), kNone},
    {ROW_CALL(BSTR_Redup(SysAllocString(L"first"), L"second, longer")), L"second, longer"},
    {ROW_CALL(BSTR_Redup(SysAllocString(L"abc"), nullptr)), kNone},
    // Codes without system text: a customer code, and one no facility has.
    {ROW_CALL(BSTR_FromWin32Error(0x2000ABCD)), kNone}, {ROW_CALL(BSTR_FromWin32Error(0xFFFFFFFF)), kNone},
};

struct MadeOle {
  const char* call;
  LPOLESTR (*make)();
  std::wstring expected;  // the characters before the terminator
  SIZE_T alloc, realloc;  // the one request of each kind that makes the block (0: none)
};

// A string a row replaces is made first, by the one allocation of 8 bytes.
const MadeOle kOles[] = {
    // Exactly the characters and a terminator; a zero in the source ends the copy, zeros pad the rest.
    {ROW_CALL(OleString_CreateW(L"abcdef", 3)), L"abc", 8, 0}, {ROW_CALL(OleString_CreateA("abcdef", 2)), L"ab", 6, 0},
    {ROW_CALL(OleString_CreateW(L"abc", -1)), L"abc", 8, 0}, {ROW_CALL(OleString_CreateA("", -1)), L"", 2, 0},
    {ROW_CALL(OleString_CreateW(L"", -1)), L"", 2, 0}, {ROW_CALL(OleString_CreateA("abc", 0)), L"", 2, 0},
    {ROW_CALL(OleString_CreateW(L"ab\0cd", 5)), Units(L"ab\0\0\0"), 12, 0},
    {ROW_CALL(OleString_CreateA("a\0b", 3)), Units(L"a\0b"), 8, 0},  // narrow counts convert past zeros
    {ROW_CALL(OleString_CreateW(nullptr, 5)), kNone, 0, 0}, {ROW_CALL(OleString_CreateA(nullptr, 5)), kNone, 0, 0},
    {ROW_CALL(OleString_CreateW(nullptr, -1)), kNone, 0, 0},
    {ROW_CALL(OleString_CreateA(kMuller.c_str(), -1)), FromAnsi(kMuller), 22, 0},
    {ROW_CALL(OleString_CreateA(kLong700.c_str(), -1)), Widened(kLong700), 1402, 0},
    // Counts beyond a 32-bit size fail before allocating.
    {ROW_CALL(OleString_CreateW(L"abc", INT_MAX)), kNone, 0, 0},
    {ROW_CALL(OleString_CreateA("abc", INT_MAX)), kNone, 0, 0},
    // Replacing resizes the block to the new text; no string allocates one, no source frees it.
    {ROW_CALL(OleString_RecreateW(OleString_CreateW(L"abc", -1), L"a longer text", -1)), L"a longer text", 8, 28},
    {ROW_CALL(OleString_RecreateA(OleString_CreateW(L"abc", -1), "narrow text", -1)), L"narrow text", 8, 24},
    {ROW_CALL(OleString_RecreateW(OleString_CreateW(L"abc", -1), L"wxyz", 2)), L"wx", 8, 6},
    {ROW_CALL(OleString_RecreateA(OleString_CreateW(L"abc", -1), "uvw", 0)), L"", 8, 2},
    {ROW_CALL(OleString_RecreateW(nullptr, L"x", -1)), L"x", 0, 4},
    {ROW_CALL(OleString_RecreateA(nullptr, "xy", -1)), L"xy", 0, 6},
    {ROW_CALL(OleString_RecreateW(OleString_CreateW(L"abc", -1), nullptr, 0)), kNone, 8, 0},
    {ROW_CALL(OleString_RecreateA(OleString_CreateW(L"abc", -1), nullptr, 3)), kNone, 8, 0},
    {ROW_CALL(OleString_RecreateW(nullptr, nullptr, -1)), kNone, 0, 0},
    {ROW_CALL(OleString_Dup(L"ab\0cd")), L"ab", 6, 0}, {ROW_CALL(OleString_Dup(nullptr)), kNone, 0, 0},
};

constexpr wchar_t kSentinel = 0xBEEF;
wchar_t g_units[8];

struct Copy {
  const char* call;
  LPOLESTR (*run)();  // writes into g_units
  std::wstring written;
};

const Copy kCopies[] = {
    {ROW_CALL(StrCpyO(g_units, L"abc")), Units(L"abc\0")}, {ROW_CALL(StrCpyO(g_units, nullptr)), Units(L"\0")},
    // Short sources are padded; long ones (or exact ones) are not terminated.
    {ROW_CALL(StrNCpyO(g_units, L"ab", 5)), Units(L"ab\0\0\0")}, {ROW_CALL(StrNCpyO(g_units, L"abcdef", 3)), L"abc"},
    {ROW_CALL(StrNCpyO(g_units, L"abc", 3)), L"abc"}, {ROW_CALL(StrNCpyO(g_units, L"a\0bc", 4)), Units(L"a\0\0\0")},
    {ROW_CALL(StrNCpyO(g_units, L"abc", 0)), L""}, {ROW_CALL(StrNCpyO(g_units, L"abc", -5)), L""},
    {ROW_CALL(StrNCpyO(g_units, nullptr, 3)), Units(L"\0\0\0")},
};

struct Comparison {
  const wchar_t* first;
  const wchar_t* second;
  int strCmpO, bstrCmp;  // second minus first at the first difference
};

const Comparison kComparisons[] = {
    {L"a", L"b", 1, 1}, {L"b", L"a", -1, -1}, {L"abc", L"abc", 0, 0}, {L"", L"", 0, 0},
    {L"ab", L"a", -'b', -'b'},  // the terminator of the second string is 0
    {L"ab", L"abc", 'c', 'c'},
    {L"\xFFFF", L"\x0001", 1 - 0xFFFF, 1 - 0xFFFF},  // characters compare unsigned
    // NULL is an empty string to StrCmpO; a NULL first BSTR is always less, even than NULL.
    {nullptr, nullptr, 0, -1}, {nullptr, L"a", 'a', -1}, {L"a", nullptr, -'a', 1},
};

HINSTANCE Library() { return GetModuleHandleW(L"XKComBsD.dll"); }

struct Loader {
  const char* name;
  bool narrow;
  std::wstring (*load)(HINSTANCE, UINT);  // the text loaded, or kNone
};

const Loader kLoaders[] = {
    {"BSTR_FromResourceA", true, [](HINSTANCE h, UINT id) { return TakeBstr(BSTR_FromResourceA(h, id)); }},
    {"BSTR_FromResourceW", false, [](HINSTANCE h, UINT id) { return TakeBstr(BSTR_FromResourceW(h, id)); }},
    {"OleString_FromResourceA", true, [](HINSTANCE h, UINT id) { return TakeOle(OleString_FromResourceA(h, id)); }},
    {"OleString_FromResourceW", false, [](HINSTANCE h, UINT id) { return TakeOle(OleString_FromResourceW(h, id)); }},
};

static_assert(sizeof QVIDS_STRINGS_EXACT_259_TEXT == 260 && sizeof QVIDS_STRINGS_LONG_TEXT == 301);
const std::wstring kShort = Widened(QVIDS_STRINGS_SHORT_TEXT), kExact = Widened(QVIDS_STRINGS_EXACT_259_TEXT),
                   kCut = Widened(QVIDS_STRINGS_LONG_TEXT).substr(0, 259), kNonAscii = QVIDS_STRINGS_NON_ASCII_TEXT;

struct Resource {
  UINT id;
  std::wstring narrowForms, wideForms;
};

// Texts of 259 characters and more come back as 259; narrow forms pass through the ANSI code page.
const Resource kResources[] = {
    {QVIDS_STRINGS_SHORT, kShort, kShort}, {QVIDS_STRINGS_EXACT_259, kExact, kExact},
    {QVIDS_STRINGS_LONG, kCut, kCut}, {QVIDS_STRINGS_NON_ASCII, FromAnsi(ToAnsi(kNonAscii)), kNonAscii},
    {QVIDS_STRINGS_EMPTY, kNone, kNone}, {QVIDS_STRINGS_MISSING, kNone, kNone},
};

::testing::Matcher<std::vector<SIZE_T>> OneRequestOf(SIZE_T bytes) {
  return bytes ? ElementsAre(bytes) : ::testing::Matcher<std::vector<SIZE_T>>(IsEmpty());
}

}  // namespace

TEST_F(Strings, EachBstrCallMakesExactlyItsTextAndFreesWhatItReplaces) {
  for (const MadeBstr& row : kBstrs) {
    SCOPED_TRACE(row.call);
    EXPECT_EQ(row.expected, TakeBstr(row.make()));
    EXPECT_EQ(0, spy.Outstanding());
  }
}

TEST_F(Strings, WithoutSourceTextAPositiveCountStillMakesThatManyCharacters) {
  EXPECT_EQ(3u, TakeBstr(BSTR_CreateW(nullptr, 3)).size());
  EXPECT_EQ(4u, TakeBstr(BSTR_CreateA("", 4)).size());
  // The platform decides what replacing by no narrow text means; either way nothing leaks.
  for (const char* none : {static_cast<const char*>(nullptr), ""}) {
    const std::wstring replaced = TakeBstr(BSTR_RecreateA(SysAllocString(L"abc"), none, -1));
    if (replaced != kNone) EXPECT_EQ(L"", replaced);
  }
}

TEST_F(Strings, LongNarrowTextConvertsWholeOnEitherSideOfTheInsideBuffer) {
  for (size_t length : {511u, 512u, 600u, 5000u}) {
    const std::string text = Letters(length);
    EXPECT_EQ(Widened(text), TakeBstr(BSTR_CreateA(text.c_str(), -1))) << length;
    EXPECT_EQ(Widened(text.substr(0, length - 1)),
              TakeBstr(BSTR_CreateA(text.c_str(), static_cast<int>(length - 1)))) << length;
  }
}

TEST_F(Strings, CountsNoStringCanHoldFailAndLeaveTheOldStringWithItsOwner) {
  BSTR b = SysAllocString(L"keep");
  LPOLESTR p = OleString_CreateW(L"keep", -1);
  spy.ClearRequests();
  // Refused before the source is read or a conversion buffer is taken.
  EXPECT_EQ(nullptr, BSTR_CreateW(L"abc", INT_MAX));
  EXPECT_EQ(nullptr, BSTR_CreateA("abc", INT_MAX));
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
  EXPECT_EQ(nullptr, BSTR_AppendW(b, L"xy", INT_MAX));
  EXPECT_EQ(nullptr, BSTR_AppendA(b, "xy", INT_MAX));
  EXPECT_EQ(nullptr, BSTR_RecreateW(b, L"ab", INT_MAX));
  EXPECT_EQ(nullptr, BSTR_RecreateA(b, "ab", INT_MAX));
  EXPECT_EQ(nullptr, OleString_RecreateW(p, L"ab", INT_MAX));
  EXPECT_EQ(nullptr, OleString_RecreateA(p, "ab", INT_MAX));
  EXPECT_EQ(1, CoTaskMemDidAlloc(p));
  EXPECT_EQ(2, spy.Outstanding());
  EXPECT_EQ(L"keep", TakeBstr(b));
  EXPECT_EQ(L"keep", TakeOle(p));
}

TEST_F(Strings, AppendingNothingReturnsTheBstrAndAppendingGrowsItInOneReallocation) {
  BSTR b = SysAllocString(L"abc");
  spy.ClearRequests();
  EXPECT_EQ(b, BSTR_AppendW(b, nullptr, 5));
  EXPECT_EQ(b, BSTR_AppendW(b, L"xy", 0));
  EXPECT_EQ(b, BSTR_AppendA(b, nullptr, 5));
  EXPECT_EQ(b, BSTR_AppendA(b, "xy", 0));
  EXPECT_EQ(b, BSTR_AppendA(b, "", -1));
  EXPECT_THAT(spy.ReallocRequests(), IsEmpty());
  b = BSTR_AppendW(b, L"def", -1);
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
  EXPECT_EQ(1u, spy.ReallocRequests().size());
  // A string appended to itself, or its own tail, survives the reallocation.
  b = BSTR_AppendW(b, b, -1);
  EXPECT_EQ(L"abcdefabcdef", Chars(b));
  EXPECT_EQ(L"abcdefabcdefef", TakeBstr(BSTR_AppendW(b, b + 10, -1)));
}

TEST_F(Strings, SystemTextComesBackWithoutItsTrailingPeriodAndSpaces) {
  for (DWORD error : {ERROR_SUCCESS, ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_INVALID_PARAMETER,
                      ERROR_NOT_ENOUGH_MEMORY}) {
    char* raw = nullptr;
    const DWORD length =
        FormatMessageA(0x11FF, nullptr, error, 0x0400, reinterpret_cast<LPSTR>(&raw), 0, nullptr);
    ASSERT_NE(0u, length) << error;
    std::string expected(raw, length);
    LocalFree(raw);
    while (expected.size() > 1 && expected.find_last_of(". \t") == expected.size() - 1) expected.pop_back();
    ASSERT_LT(expected.size(), length) << "the system text ends in a period or space";
    EXPECT_EQ(FromAnsi(expected), TakeBstr(BSTR_FromWin32Error(error))) << error;
  }
}

TEST_F(Strings, SysReallocStringByteLenRewritesTheSameLengthInPlace) {
  EXPECT_FALSE(SysReallocStringByteLen(nullptr, "ab", 2));
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOBStrFn", 421, "&rbstr != NULL"}));
  capture.Clear();

  BSTR b = SysAllocStringByteLen("abcdef", 6);
  BSTR before = b;
  spy.ClearRequests();
  EXPECT_TRUE(SysReallocStringByteLen(&b, "uvwxyz", 6));
  EXPECT_EQ(0, std::memcmp(b, "uvwxyz\0", 7));
  EXPECT_EQ(6u, SysStringByteLen(b));
  // A source inside the string itself, overlapping its new place; then no source, which keeps the bytes.
  EXPECT_TRUE(SysReallocStringByteLen(&b, reinterpret_cast<char*>(b) + 1, 6));
  EXPECT_TRUE(SysReallocStringByteLen(&b, nullptr, 6));
  EXPECT_EQ(0, std::memcmp(b, "vwxyz\0\0", 7));
  EXPECT_EQ(before, b);
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
  EXPECT_THAT(spy.ReallocRequests(), IsEmpty());
  SysFreeString(b);
}

TEST_F(Strings, SysReallocStringByteLenMakesAnyOtherLengthAnewAndFreesTheOld) {
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
  // A length no BSTR can hold fails, and the old string is gone.
  EXPECT_FALSE(SysReallocStringByteLen(&b, "abc", UINT_MAX));
  EXPECT_EQ(nullptr, b);
}

TEST_F(Strings, EachOleStringCallMakesExactlyItsTextInABlockOfExactlyItsSize) {
  for (const MadeOle& row : kOles) {
    SCOPED_TRACE(row.call);
    spy.ClearRequests();
    EXPECT_EQ(row.expected, TakeOle(row.make(), row.expected == kNone ? 0 : row.expected.size()));
    EXPECT_THAT(spy.AllocRequests(), OneRequestOf(row.alloc));
    EXPECT_THAT(spy.ReallocRequests(), OneRequestOf(row.realloc));
    EXPECT_EQ(0, spy.Outstanding());
  }
}

TEST_F(Strings, DestroyFreesAndClearsAndOleStringsReportANullOrForeignString) {
  BSTR b = SysAllocString(L"abc");
  LPOLESTR p = OleString_CreateW(L"abc", -1);
  BSTR_Destroy(&b);
  OleString_Destroy(&p);
  EXPECT_EQ(nullptr, b);
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(0, spy.Outstanding());
  BSTR_Destroy(&b);  // a pointer to NULL: nothing happens
  BSTR_Destroy(nullptr);
  OleString_Destroy(&p);
  EXPECT_EQ(nullptr, b);
  EXPECT_EQ(nullptr, p);
  EXPECT_THAT(capture.Lines(), IsEmpty());
  OleString_Destroy(nullptr);
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOOleStr", 233, "&rstr"}));

  capture.Clear();
  wchar_t foreign[] = L"not from the task allocator";
  p = foreign;
  OleString_Destroy(&p);
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(L"not from the task allocator", std::wstring(foreign)) << "left to its owner";
  EXPECT_THAT(capture.Lines(), ElementsAre("OleStringDestroy: failed to recognise string (00000000)!\n",
                                           ::testing::_));
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOOleStr", 242, "0"}));
  capture.Clear();
}

TEST_F(Strings, TaskMemoryQueriesAnswerForTheTaskAllocatorsOwnBlocks) {
  void* block = CoTaskMemAlloc(24);
  char stack[16];
  EXPECT_EQ(1, CoTaskMemDidAlloc(block));
  EXPECT_EQ(0, CoTaskMemDidAlloc(stack));
  EXPECT_EQ(-1, CoTaskMemDidAlloc(nullptr)) << "the allocator cannot tell for NULL";
  EXPECT_GE(CoTaskMemGetSize(block), 24u);
  EXPECT_EQ(0xFFFFFFFFu, CoTaskMemGetSize(nullptr)) << "the allocator's -1, cut to 32 bits";
  EXPECT_HR(S_OK, CoTaskMemHeapMinimise());
  CoTaskMemFree(block);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(Strings, StrLenOCountsUpToTheFirstZeroAndNullAsEmpty) {
  EXPECT_EQ(3, StrLenO(L"abc"));
  EXPECT_EQ(1, StrLenO(L"a\0bc"));
  EXPECT_EQ(0, StrLenO(L""));
  EXPECT_EQ(0, StrLenO(nullptr));
}

TEST_F(Strings, WideCopiesWriteExactlyTheirUnitsAndNothingBeyond) {
  for (const Copy& row : kCopies) {
    SCOPED_TRACE(row.call);
    std::fill(std::begin(g_units), std::end(g_units), kSentinel);
    EXPECT_EQ(g_units, row.run());
    EXPECT_EQ(row.written + std::wstring(8 - row.written.size(), kSentinel), std::wstring(g_units, 8));
  }
  EXPECT_EQ(nullptr, StrCpyO(nullptr, L"abc"));
  EXPECT_EQ(nullptr, StrNCpyO(nullptr, L"abc", 3));
}

TEST_F(Strings, ComparisonsGiveSecondMinusFirst) {
  for (const Comparison& row : kComparisons) {
    SCOPED_TRACE(&row - kComparisons);
    EXPECT_EQ(row.strCmpO, StrCmpO(row.first, row.second));
    BSTR first = SysAllocString(row.first), second = SysAllocString(row.second);
    EXPECT_EQ(row.bstrCmp, BSTR_Cmp(first, second));
    SysFreeString(first);
    SysFreeString(second);
  }
}

TEST_F(Strings, MemMoveMovesOverlapsEitherWayAndIgnoresNulls) {
  // Up and down over an overlap, between separate ranges, onto itself, and nothing at all.
  for (auto [from, to, n] : {std::tuple{0, 3, 10}, {3, 0, 10}, {0, 9, 6}, {2, 2, 6}, {1, 5, 0}}) {
    unsigned char actual[16], expected[16];
    for (int i = 0; i < 16; ++i) actual[i] = expected[i] = static_cast<unsigned char>(i + 1);
    std::memmove(expected + to, expected + from, n);
    EXPECT_EQ(actual + to, MemMove(actual + to, actual + from, n));
    EXPECT_EQ(0, std::memcmp(expected, actual, 16)) << from << " to " << to << ", " << n;
  }
  unsigned char bytes[4] = {1, 2, 3, 4};
  EXPECT_EQ(nullptr, MemMove(nullptr, bytes, 4));
  EXPECT_EQ(bytes, MemMove(bytes, nullptr, 4));
  EXPECT_EQ(0, std::memcmp(bytes, "\1\2\3\4", 4));
}

TEST_F(Strings, EachResourceLoaderGivesTheTextItsWidthCanCarryFromTheLibraryOnly) {
  ASSERT_NE(nullptr, Library());
  for (const Resource& resource : kResources)
    for (const Loader& loader : kLoaders)
      EXPECT_EQ(loader.narrow ? resource.narrowForms : resource.wideForms, loader.load(Library(), resource.id))
          << loader.name << ' ' << resource.id;
  if (GetACP() == 1252)
    EXPECT_EQ(L"Caf\x00e9 M\x00fcller ", FromAnsi(ToAnsi(kNonAscii)).substr(0, 12)) << "Western: accents kept";
  spy.ClearRequests();
  CoTaskMemFree(OleString_FromResourceW(Library(), QVIDS_STRINGS_SHORT));
  EXPECT_EQ((kShort.size() + 1) * sizeof(OLECHAR), spy.AllocRequests().back()) << "exactly the text";
  // The test program has no such resource; the second handle is no module at all.
  spy.ClearRequests();
  for (HINSTANCE module : {HINSTANCE{}, reinterpret_cast<HINSTANCE>(0x12340000)})
    for (const Loader& loader : kLoaders) EXPECT_EQ(kNone, loader.load(module, QVIDS_STRINGS_SHORT)) << loader.name;
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
}
