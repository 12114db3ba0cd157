// The string functions as a client sees them: BSTRs, OLE strings, resource
// texts, the wide-string and memory primitives and the task-memory queries.
// Every case ends with no task block (BSTRs included) outstanding and no
// contract report it does not expect.
#include <gmock/gmock.h>
#include <xkcombsd/Strings.h>

#include <cstring>
#include <string>

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
std::wstring Units(const wchar_t (&literal)[N]) {
  return std::wstring(literal, N - 1);
}

// A made BSTR's characters by its length (its terminator checked), then the BSTR freed.
std::wstring TakeBstr(BSTR b) {
  if (!b) return kNone;
  EXPECT_EQ(L'\0', b[SysStringLen(b)]) << "the terminator after the length";
  const std::wstring text(b, SysStringLen(b));
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

// Long narrow text (past the conversion's inside buffer) in which a misplaced copy shows.
std::string Letters(size_t length) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>('A' + i % 26);
  return text;
}
const std::string kLong700 = Letters(700);

// Each old string a row replaces or extends is its own: the fixture sees any not freed.
const struct MadeBstr {
  const char* call;
  BSTR (*make)();
  std::wstring expected;
} kBstrs[] = {
    // A count takes that many source units, zeros included; -1 runs to the terminator.
    {ROW_CALL(BSTR_CreateW(L"abc", 2)), L"ab"},
    {ROW_CALL(BSTR_CreateW(L"abc", -1)), L"abc"},
    {ROW_CALL(BSTR_CreateA("ab\0cd", 5)), Units(L"ab\0cd")},
    {ROW_CALL(BSTR_CreateA("", -1)), kNone},
    {ROW_CALL(BSTR_RecreateW(SysAllocString(L"abc"), L"longer text", -1)), L"longer text"},
    {ROW_CALL(BSTR_RecreateW(nullptr, L"ab", -1)), L"ab"},
    {ROW_CALL(BSTR_RecreateA(SysAllocString(L"abc"), kLong700.c_str(), -1)), Widened(kLong700)},
    // Appending to no string creates one; a zero in the source ends the copy, zeros fill the rest.
    {ROW_CALL(BSTR_AppendW(nullptr, L"xy", -1)), L"xy"},
    {ROW_CALL(BSTR_AppendA(nullptr, "xyz", 2)), L"xy"},
    {ROW_CALL(BSTR_AppendA(SysAllocString(L"abc"), "ghijk", 2)), L"abcgh"},
    {ROW_CALL(BSTR_AppendW(SysAllocString(L"ab"), L"c\0de", 4)), Units(L"abc\0\0\0")},
    // Copies stop at the first zero; Redup without a source frees the string.
    {ROW_CALL(BSTR_Dup(L"ab\0cd")), L"ab"},
    {ROW_CALL(BSTR_Redup(SysAllocString(L"first"), L"second, longer")), L"second, longer"},
    {ROW_CALL(BSTR_Redup(SysAllocString(L"abc"), nullptr)), kNone},
};

// A string a row replaces is made first; the fixture sees it if a row loses it.
const struct MadeOle {
  const char* call;
  LPOLESTR (*make)();
  std::wstring expected;  // the characters before the terminator
} kOles[] = {
    {ROW_CALL(OleString_CreateW(L"abcdef", 3)), L"abc"},
    {ROW_CALL(OleString_CreateA("a\0b", 3)), Units(L"a\0b")},
    {ROW_CALL(OleString_CreateW(L"ab\0cd", 5)), Units(L"ab\0\0\0")},
    {ROW_CALL(OleString_RecreateW(OleString_CreateW(L"abc", -1), L"a longer text", -1)),
     L"a longer text"},
    {ROW_CALL(OleString_RecreateA(OleString_CreateW(L"abc", -1), "narrow text", -1)),
     L"narrow text"},
    {ROW_CALL(OleString_RecreateW(nullptr, L"x", -1)), L"x"},
    {ROW_CALL(OleString_RecreateA(OleString_CreateW(L"abc", -1), nullptr, 3)), kNone},
    {ROW_CALL(OleString_Dup(L"ab\0cd")), L"ab"},
};

constexpr wchar_t kSentinel = 0xBEEF;
wchar_t g_units[8];

// Short sources are padded with zeros; long ones are not terminated.
const struct Copy {
  const char* call;
  LPOLESTR (*run)();  // writes into g_units
  std::wstring written;
} kCopies[] = {
    {ROW_CALL(StrCpyO(g_units, L"abc")), Units(L"abc\0")},
    {ROW_CALL(StrNCpyO(g_units, L"ab", 5)), Units(L"ab\0\0\0")},
    {ROW_CALL(StrNCpyO(g_units, L"abcdef", 3)), L"abc"},
    {ROW_CALL(StrNCpyO(g_units, nullptr, 3)), Units(L"\0\0\0")},
};

// Second minus first at the first difference, characters unsigned; NULL is an
// empty string to StrCmpO, while a NULL first BSTR is always less, even than NULL.
const struct Comparison {
  const wchar_t *first, *second;
  int strCmpO, bstrCmp;
} kComparisons[] = {
    {L"a", L"b", 1, 1},
    {L"abc", L"abc", 0, 0},
    {L"\xFFFF", L"\x0001", 1 - 0xFFFF, 1 - 0xFFFF},
    {nullptr, L"a", 'a', -1},
    {L"a", nullptr, -'a', 1},
};

// A loader's name, and a function giving the text it loads (or kNone).
#define LOADER(load, take) #load, [](HINSTANCE h, UINT id) { return take(load(h, id)); }
const struct Loader {
  const char* name;
  std::wstring (*load)(HINSTANCE, UINT);
} kLoaders[] = {{LOADER(BSTR_FromResourceA, TakeBstr)},
                {LOADER(BSTR_FromResourceW, TakeBstr)},
                {LOADER(OleString_FromResourceA, TakeOle)},
                {LOADER(OleString_FromResourceW, TakeOle)}};

// A byte-length BSTR's bytes, and the terminator byte after them.
std::string BytesOf(BSTR b) {
  return std::string(reinterpret_cast<const char*>(b), SysStringByteLen(b) + 1);
}

}  // namespace

TEST_F(Strings, EachBstrCallMakesExactlyItsTextAndFreesWhatItReplaces) {
  for (const MadeBstr& row : kBstrs) {
    SCOPED_TRACE(row.call);
    EXPECT_EQ(row.expected, TakeBstr(row.make()));
  }
}

TEST_F(Strings, AppendingGrowsTheBstrInOneReallocationAndSurvivesItsOwnTail) {
  BSTR b = SysAllocString(L"abc");
  spy.ClearRequests();
  b = BSTR_AppendW(b, L"def", -1);
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
  EXPECT_EQ(1u, spy.ReallocRequests().size());
  EXPECT_EQ(L"abcdefcdef", TakeBstr(BSTR_AppendW(b, b + 2, -1)));
}

TEST_F(Strings, SystemTextComesBackWithoutItsTrailingPeriodAndSpaces) {
  wchar_t* raw = nullptr;
  const DWORD length = FormatMessageW(0x11FF, nullptr, ERROR_FILE_NOT_FOUND, 0x0400,
                                      reinterpret_cast<LPWSTR>(&raw), 0, nullptr);
  ASSERT_NE(0u, length);
  std::wstring expected(raw, length);
  LocalFree(raw);
  while (expected.find_last_of(L". ") == expected.size() - 1) expected.pop_back();
  ASSERT_LT(expected.size(), length) << "the system text ends in a period or space";
  EXPECT_EQ(expected, TakeBstr(BSTR_FromWin32Error(ERROR_FILE_NOT_FOUND)));
}

TEST_F(Strings, SysReallocStringByteLenKeepsTheSameLengthInPlaceAndMakesAnyOtherAnew) {
  EXPECT_FALSE(SysReallocStringByteLen(nullptr, "ab", 2));
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(AssertionReport{"MOBStrFn", 421, "&rbstr != NULL"}));
  capture.Clear();
  BSTR b = SysAllocStringByteLen("abcdef", 6);
  BSTR const before = b;
  EXPECT_TRUE(SysReallocStringByteLen(&b, "uvwxyz", 6));
  EXPECT_EQ(before, b);
  EXPECT_TRUE(SysReallocStringByteLen(&b, reinterpret_cast<char*>(b) + 1, 6));  // overlapping
  EXPECT_EQ(std::string("vwxyz\0\0", 7), BytesOf(b));
  EXPECT_TRUE(SysReallocStringByteLen(&b, reinterpret_cast<char*>(b), 3));
  EXPECT_NE(before, b);
  EXPECT_EQ(std::string("vwx\0", 4), BytesOf(b));
  SysFreeString(b);
}

TEST_F(Strings, EachOleStringCallMakesExactlyItsTextAndCreateAsksForExactlyItsSize) {
  for (const MadeOle& row : kOles) {
    SCOPED_TRACE(row.call);
    EXPECT_EQ(row.expected, TakeOle(row.make(), row.expected == kNone ? 0 : row.expected.size()));
  }
  spy.ClearRequests();
  TakeOle(OleString_CreateW(L"abcdef", 3));
  EXPECT_THAT(spy.AllocRequests(), ElementsAre((3 + 1) * sizeof(OLECHAR)));
}

TEST_F(Strings, DestroyFreesAndClearsAndOleStringsReportANullOrForeignString) {
  BSTR b = SysAllocString(L"abc");
  LPOLESTR p = OleString_CreateW(L"abc", -1);
  BSTR_Destroy(&b);
  OleString_Destroy(&p);
  EXPECT_EQ(nullptr, b);
  EXPECT_EQ(nullptr, p);
  OleString_Destroy(nullptr);
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOOleStr", 233, "&rstr"}));
  capture.Clear();
  wchar_t foreign[] = L"not from the task allocator";
  p = foreign;
  OleString_Destroy(&p);
  EXPECT_EQ(nullptr, p);
  EXPECT_THAT(
      capture.Lines(),
      ElementsAre("OleStringDestroy: failed to recognise string (00000000)!\n", ::testing::_));
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOOleStr", 242, "0"}));
  capture.Clear();
}

TEST_F(Strings, TaskMemoryQueriesAnswerForTheTaskAllocatorsOwnBlocks) {
  void* block = CoTaskMemAlloc(24);
  char stack[16];
  EXPECT_EQ(1, CoTaskMemDidAlloc(block));
  EXPECT_EQ(0, CoTaskMemDidAlloc(stack));
  EXPECT_GE(CoTaskMemGetSize(block), 24u);
  CoTaskMemFree(block);
}

TEST_F(Strings, WideLengthsCopiesAndComparisonsTreatNullAsEmpty) {
  EXPECT_EQ(1, StrLenO(L"a\0bc"));
  for (const Copy& row : kCopies) {
    SCOPED_TRACE(row.call);
    std::fill(std::begin(g_units), std::end(g_units), kSentinel);
    EXPECT_EQ(g_units, row.run());
    EXPECT_EQ(row.written + std::wstring(8 - row.written.size(), kSentinel),
              std::wstring(g_units, 8));
  }
  for (const Comparison& row : kComparisons) {
    SCOPED_TRACE(&row - kComparisons);
    EXPECT_EQ(row.strCmpO, StrCmpO(row.first, row.second));
    BSTR first = SysAllocString(row.first), second = SysAllocString(row.second);
    EXPECT_EQ(row.bstrCmp, BSTR_Cmp(first, second));
    SysFreeString(first);
    SysFreeString(second);
  }
}

TEST_F(Strings, EachResourceLoaderGivesTheTextCutTo259CharactersFromTheLibraryOnly) {
  static_assert(sizeof QVIDS_STRINGS_LONG_TEXT > 260);
  const HINSTANCE library = GetModuleHandleW(L"XKComBsD.dll");
  ASSERT_NE(nullptr, library);
  const struct {
    HINSTANCE module;
    UINT id;
    std::wstring expected;
  } kResources[] = {
      {library, QVIDS_STRINGS_SHORT, Widened(QVIDS_STRINGS_SHORT_TEXT)},
      {library, QVIDS_STRINGS_LONG, Widened(QVIDS_STRINGS_LONG_TEXT).substr(0, 259)},
      {library, QVIDS_STRINGS_MISSING, kNone},
  };
  for (const auto& resource : kResources)
    for (const Loader& loader : kLoaders)
      EXPECT_EQ(resource.expected, loader.load(resource.module, resource.id))
          << loader.name << ' ' << resource.id;
}
