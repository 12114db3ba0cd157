// The strings subsystem from inside: the byte primitives against reference
// results for every alignment, the narrow-to-wide copy's inside/heap boundary,
// system-message trimming, and the task-allocator questions when the allocator
// cannot be had or answers otherwise than the platform's would.
#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "DebugOutput.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "frame/RuntimePrimitives.h"
#include "strings/StringsInternal.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::AssertionReport;
using xktest::DebugOutputCapture;

namespace {

constexpr unsigned char kGuard = 0xCC;
constexpr size_t kArena = 64;

}  // namespace

TEST(MemFill, FillsExactlyTheRangeForEveryAlignmentAndLength) {
  // Lengths on both sides of 17, where whole aligned words take over.
  for (size_t offset = 0; offset < 8; ++offset)
    for (size_t length = 0; length <= 40; ++length)
      for (unsigned char byte : {0x00, 0x5A, 0xFF}) {
        alignas(8) unsigned char arena[kArena];
        std::memset(arena, kGuard, sizeof arena);
        EXPECT_EQ(arena + offset, xk::MemFill(arena + offset, byte, length));
        for (size_t i = 0; i < kArena; ++i) {
          const bool inside = i >= offset && i < offset + length;
          ASSERT_EQ(inside ? byte : kGuard, arena[i])
              << "offset " << offset << ", length " << length << ", byte " << i;
        }
      }
}

TEST(MemMove, MatchesAReferenceCopyForEveryOverlap) {
  unsigned char original[32];
  for (size_t i = 0; i < sizeof original; ++i) original[i] = static_cast<unsigned char>(i * 7 + 1);
  for (size_t from = 0; from < 16; ++from)
    for (size_t to = 0; to < 16; ++to)
      for (size_t length = 0; length <= 16; ++length) {
        unsigned char actual[32], expected[32];
        std::memcpy(actual, original, sizeof actual);
        std::memcpy(expected, original, sizeof expected);
        std::memmove(expected + to, expected + from, length);
        EXPECT_EQ(actual + to, xk::MemMove(actual + to, actual + from, length));
        ASSERT_EQ(0, std::memcmp(expected, actual, sizeof actual))
            << "from " << from << " to " << to << ", length " << length;
      }
}

TEST(MemCompare, GivesTheFirstDifferenceOfUnsignedBytes) {
  EXPECT_EQ(0, xk::MemCompare("abcd", "abcd", 4));
  EXPECT_EQ(0, xk::MemCompare("abcX", "abcY", 3));
  EXPECT_EQ('X' - 'Y', xk::MemCompare("abcX", "abcY", 4));
  EXPECT_EQ(0x80 - 0x01, xk::MemCompare("\x80", "\x01", 1)) << "bytes are unsigned";
  EXPECT_EQ(0x01 - 0xFF, xk::MemCompare("a\x01z", "a\xFF" "a", 3)) << "the first difference decides";
  EXPECT_EQ(0, xk::MemCompare(nullptr, nullptr, 0));
}

TEST(StrLenA, CountsBytesBeforeTheTerminator) {
  EXPECT_EQ(0, xk::StrLenA(""));
  EXPECT_EQ(3, xk::StrLenA("abc"));
  EXPECT_EQ(1, xk::StrLenA("a\0bc"));
  EXPECT_EQ(2, xk::StrLenA("\xE9\xFC"));
}

TEST(WideCopy, UpTo511CharactersStayInsideAndLongerTextTakesTheHeap) {
  DebugOutputCapture capture;
  for (int length : {0, 1, 511, 512, 600}) {
    const std::string text(length, 'k');
    xk::strings::WideCopy copy(text.c_str(), length);
    ASSERT_TRUE(copy.ok()) << length;
    EXPECT_EQ(length >= 512, copy.OnHeap()) << length;
    EXPECT_EQ(std::wstring(length, L'k') + L'\0', std::wstring(copy.get(), length + 1)) << length;
  }
  EXPECT_THAT(capture.Assertions(), IsEmpty());
}

TEST(WideCopy, ConvertsZerosInsideTheCountAndTerminates) {
  xk::strings::WideCopy copy("a\0b", 3);
  ASSERT_TRUE(copy.ok());
  EXPECT_EQ(std::wstring(L"a\0b\0", 4), std::wstring(copy.get(), 4));
}

TEST(WideCopy, ACountBeyondA32BitSizeIsRefusedWithoutReadingOrReports) {
  DebugOutputCapture capture;
  {
    xk::strings::WideCopy copy("abc", INT_MAX);
    EXPECT_FALSE(copy.ok());
    EXPECT_FALSE(copy.OnHeap());
  }
  EXPECT_FALSE(xk::strings::FitsByteCount(0x7FFFFFFF));
  EXPECT_TRUE(xk::strings::FitsByteCount(0x7FFFFFFE));
  EXPECT_THAT(capture.Assertions(), IsEmpty());
}

namespace {

std::string Trimmed(std::string text) {
  text.push_back('\0');
  xk::strings::TrimMessageEnd(&text[0], static_cast<DWORD>(text.size() - 1));
  return text.c_str();
}

}  // namespace

TEST(TrimMessageEnd, ClearsTrailingSpacesTabsAndPeriodsButNeverTheFirstCharacter) {
  EXPECT_EQ("File not found", Trimmed("File not found. "));
  EXPECT_EQ("a", Trimmed("a. \t.. "));
  EXPECT_EQ("x.y", Trimmed("x.y."));
  EXPECT_EQ("a.b c", Trimmed("a.b c"));
  EXPECT_EQ(".", Trimmed("."));
  EXPECT_EQ(" ", Trimmed("  "));
  EXPECT_EQ("", Trimmed(""));
  EXPECT_EQ("end", Trimmed(std::string("end\0\0", 5))) << "zeros before the terminator go too";
}

namespace {

// An allocator whose answers a test chooses, counting its references.
class FakeMalloc : public IMalloc {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = (iid == IID_IUnknown || iid == IID_IMalloc) ? this : nullptr;
    if (!*ppv) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP_(void*) Alloc(SIZE_T) override { return nullptr; }
  STDMETHODIMP_(void*) Realloc(void*, SIZE_T) override { return nullptr; }
  STDMETHODIMP_(void) Free(void*) override {}
  STDMETHODIMP_(SIZE_T) GetSize(void* pv) override {
    asked = pv;
    return size;
  }
  STDMETHODIMP_(int) DidAlloc(void* pv) override {
    asked = pv;
    return didAlloc;
  }
  STDMETHODIMP_(void) HeapMinimize() override { ++minimised; }

  ULONG refs = 1;
  int didAlloc = 1;
  SIZE_T size = 0;
  void* asked = nullptr;
  int minimised = 0;
};

FakeMalloc* g_fake = nullptr;
DWORD g_context = 0;

HRESULT WINAPI GetFake(DWORD context, IMalloc** allocator) {
  g_context = context;
  g_fake->AddRef();
  *allocator = g_fake;
  return S_OK;
}

HRESULT WINAPI GetNothing(DWORD, IMalloc** allocator) {
  *allocator = nullptr;
  return CO_E_NOTINITIALIZED;
}

class TaskAllocatorQuestions : public ::testing::Test {
 protected:
  void SetUp() override { g_fake = &fake; }
  void TearDown() override {
    EXPECT_EQ(1u, fake.refs) << "the allocator must be released after every question";
    g_fake = nullptr;
  }

  FakeMalloc fake;
  DebugOutputCapture capture;
};

}  // namespace

TEST_F(TaskAllocatorQuestions, WithoutAnAllocatorEachQuestionTracesAndAnswersItsFailureValue) {
  int block;
  EXPECT_EQ(-1, xk::strings::DidAlloc(GetNothing, &block));
  EXPECT_EQ(0u, xk::strings::GetSize(GetNothing, &block));
  EXPECT_HR(CO_E_NOTINITIALIZED, xk::strings::HeapMinimise(GetNothing));
  EXPECT_THAT(capture.Lines(), ElementsAre("CoTaskMemDidAlloc: failed to get COM task allocator!\n",
                                           "CoTaskMemGetSize: failed to get COM task allocator!\n",
                                           "CoTaskMemHeapMinimise: failed to get COM task allocator!\n"));
}

TEST_F(TaskAllocatorQuestions, AnswersComeFromTheTaskContextsAllocatorUnchanged) {
  int block;
  for (int answer : {1, 0, -1}) {
    fake.didAlloc = answer;
    EXPECT_EQ(answer, xk::strings::DidAlloc(GetFake, &block));
    EXPECT_EQ(&block, fake.asked);
    EXPECT_EQ(static_cast<DWORD>(MEMCTX_TASK), g_context);
  }
  fake.size = 24;
  EXPECT_EQ(24u, xk::strings::GetSize(GetFake, &block));
  if (sizeof(SIZE_T) > sizeof(ULONG)) {
    fake.size = static_cast<SIZE_T>(0x100000010ull);
    EXPECT_EQ(0x10u, xk::strings::GetSize(GetFake, &block)) << "cut to the 32-bit result";
  }
  EXPECT_HR(S_OK, xk::strings::HeapMinimise(GetFake));
  EXPECT_EQ(1, fake.minimised);
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(TaskAllocatorQuestions, DestroyFreesWhatTheAllocatorOwnsOrCannotTellAbout) {
  xktest::MallocSpy spy;
  for (int answer : {1, -1}) {
    fake.didAlloc = answer;
    LPOLESTR p = static_cast<LPOLESTR>(CoTaskMemAlloc(8));
    xk::strings::DestroyOleString(GetFake, &p);
    EXPECT_EQ(nullptr, p);
    EXPECT_EQ(0, spy.Outstanding()) << answer;
  }
  LPOLESTR p = static_cast<LPOLESTR>(CoTaskMemAlloc(8));
  xk::strings::DestroyOleString(GetNothing, &p);
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(0, spy.Outstanding()) << "an allocator that cannot be had cannot tell either";
  EXPECT_THAT(capture.Lines(), ElementsAre("CoTaskMemDidAlloc: failed to get COM task allocator!\n"));
}

TEST_F(TaskAllocatorQuestions, DestroyReportsAndKeepsWhatTheAllocatorDisowns) {
  xktest::MallocSpy spy;
  fake.didAlloc = 0;
  void* block = CoTaskMemAlloc(8);
  LPOLESTR p = static_cast<LPOLESTR>(block);
  xk::strings::DestroyOleString(GetFake, &p);
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(1, spy.Outstanding()) << "a string the allocator disowns is not freed";
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOOleStr", 242, "0"}));
  EXPECT_EQ("OleStringDestroy: failed to recognise string (00000000)!\n", capture.Lines().at(0));
  CoTaskMemFree(block);
}
