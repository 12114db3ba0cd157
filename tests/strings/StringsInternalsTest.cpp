// The strings subsystem from inside: the byte primitives against reference
// results for every alignment, the narrow-to-wide copy's inside/heap boundary,
// system-message trimming, the task-allocator questions when the allocator
// cannot be had or answers otherwise than the platform's would, and
// auto_buffer's storage, field layout and every report it makes (broken
// invariants are forced by writing its fields directly).
#include <gmock/gmock.h>
#include <xkcombsd/auto_buffer.h>

#include <climits>
#include <cstring>
#include <string>

#include "DebugOutput.h"
#include "FakeMalloc.h"
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

// A system message with its trailing run trimmed, read up to its first zero.
std::string Trimmed(std::string text) {
  text.push_back('\0');
  xk::strings::TrimMessageEnd(&text[0], static_cast<DWORD>(text.size() - 1));
  return text.c_str();
}

}  // namespace

TEST(MemFill, FillsExactlyTheRangeForEveryAlignmentAndLength) {
  // Lengths on both sides of 17, where whole aligned words take over.
  for (size_t offset = 0; offset < 8; ++offset)
    for (size_t length = 0; length <= 40; ++length)
      for (unsigned char byte : {0x00, 0x5A, 0xFF}) {
        alignas(8) unsigned char arena[64];
        std::memset(arena, kGuard, sizeof arena);
        EXPECT_EQ(arena + offset, xk::MemFill(arena + offset, byte, length));
        for (size_t i = 0; i < sizeof arena; ++i)
          ASSERT_EQ(i >= offset && i < offset + length ? byte : kGuard, arena[i])
              << "offset " << offset << ", length " << length << ", byte " << i;
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

TEST(MemCompareAndStrLenA, CountUnsignedBytes) {
  EXPECT_EQ(0, xk::MemCompare("abcX", "abcY", 3));
  EXPECT_EQ('X' - 'Y', xk::MemCompare("abcX", "abcY", 4));
  EXPECT_EQ(0x80 - 0x01, xk::MemCompare("\x80", "\x01", 1)) << "bytes are unsigned";
  EXPECT_EQ(0x01 - 0xFF, xk::MemCompare("a\x01z", "a\xFF" "a", 3)) << "the first difference decides";
  EXPECT_EQ(0, xk::MemCompare(nullptr, nullptr, 0));
  EXPECT_EQ(0, xk::StrLenA(""));
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
  xk::strings::WideCopy withZero("a\0b", 3);
  ASSERT_TRUE(withZero.ok());
  EXPECT_EQ(std::wstring(L"a\0b\0", 4), std::wstring(withZero.get(), 4)) << "zeros inside the count convert";
  EXPECT_THAT(capture.Assertions(), IsEmpty());
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

xktest::FakeMalloc* g_fake = nullptr;
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
    EXPECT_EQ(0, spy.Outstanding());
    g_fake = nullptr;
  }

  // Frees an OLE string of its own as the allocator's answer lets it, and says whether it did.
  bool DestroyFrees(xk::strings::GetTaskAllocator get) {
    void* block = CoTaskMemAlloc(8);
    LPOLESTR p = static_cast<LPOLESTR>(block);
    xk::strings::DestroyOleString(get, &p);
    EXPECT_EQ(nullptr, p);
    if (spy.Outstanding() == 0) return true;
    CoTaskMemFree(block);
    return false;
  }

  xktest::FakeMalloc fake;
  xktest::MallocSpy spy;
  DebugOutputCapture capture;
};

}  // namespace

TEST_F(TaskAllocatorQuestions, WithoutAnAllocatorEachQuestionTracesAndAnswersItsFailureValue) {
  int block;
  EXPECT_EQ(-1, xk::strings::DidAlloc(GetNothing, &block));
  EXPECT_EQ(0u, xk::strings::GetSize(GetNothing, &block));
  EXPECT_HR(CO_E_NOTINITIALIZED, xk::strings::HeapMinimise(GetNothing));
  EXPECT_TRUE(DestroyFrees(GetNothing)) << "an allocator that cannot be had cannot tell either";
  EXPECT_THAT(capture.Lines(), ElementsAre("CoTaskMemDidAlloc: failed to get COM task allocator!\n",
                                           "CoTaskMemGetSize: failed to get COM task allocator!\n",
                                           "CoTaskMemHeapMinimise: failed to get COM task allocator!\n",
                                           "CoTaskMemDidAlloc: failed to get COM task allocator!\n"));
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

TEST_F(TaskAllocatorQuestions, DestroyFreesOnlyWhatTheAllocatorDoesNotDisown) {
  for (int answer : {1, -1}) {
    fake.didAlloc = answer;
    EXPECT_TRUE(DestroyFrees(GetFake)) << answer;
  }
  EXPECT_THAT(capture.Lines(), IsEmpty());
  fake.didAlloc = 0;
  EXPECT_FALSE(DestroyFrees(GetFake)) << "a string the allocator disowns is not freed";
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOOleStr", 242, "0"}));
  EXPECT_EQ("OleStringDestroy: failed to recognise string (00000000)!\n", capture.Lines().at(0));
}

namespace {

AssertionReport Report(int line, const char* expression) { return {"auto_buffer", line, expression}; }

// The leading fields as they lie in memory: m_buffer, m_cItems, m_bExternal.
struct Fields {
  void* buffer;
  size_t count;
  bool external;
};

template <class Buffer>
Fields* FieldsOf(Buffer& buffer) {
  static_assert(std::is_standard_layout_v<Buffer>, "fields lie in declaration order");
  return reinterpret_cast<Fields*>(&buffer);
}

using WideBuffer = xk::auto_buffer<OLECHAR, 512>;

class AutoBuffer : public ::testing::Test {
 protected:
  DebugOutputCapture capture;
};

}  // namespace

TEST_F(AutoBuffer, UpToNElementsLiveInsideTheObjectAndMoreOnTheGlobalHeap) {
  for (size_t count : {0u, 1u, 512u, 513u, 600u}) {
    WideBuffer buffer(count);
    const bool inside = count <= 512;
    auto* object = reinterpret_cast<const char*>(&buffer);
    auto* data = reinterpret_cast<const char*>(buffer.data());
    EXPECT_EQ(inside, data >= object && data < object + sizeof buffer) << count;
    EXPECT_EQ(!inside, buffer.is_external()) << count;
    EXPECT_EQ(count, buffer.size());
    EXPECT_EQ(count == 0, buffer.empty());
    EXPECT_EQ(buffer.data() + count, buffer.end()) << "the end address is allowed";
    for (size_t i = 0; i < count; ++i) buffer[i] = static_cast<OLECHAR>(i);
    if (count) EXPECT_EQ(count - 1, buffer[count - 1]);
    if (!inside) EXPECT_GE(GlobalSize(GlobalHandle(buffer.data())), count * sizeof(OLECHAR));
    const Fields* fields = FieldsOf(buffer);
    EXPECT_EQ(buffer.data(), fields->buffer);
    EXPECT_EQ(count, fields->count);
    EXPECT_EQ(!inside, fields->external);
  }
  EXPECT_THAT(capture.Assertions(), IsEmpty());
}

TEST_F(AutoBuffer, AHeapRequestThatCannotBeMetLeavesItEmptyAndIsReportedOnDestruction) {
  {
    xk::auto_buffer<char, 4> refused(SIZE_MAX);
    EXPECT_TRUE(refused.empty());
    EXPECT_EQ(0u, refused.size());
    EXPECT_EQ(nullptr, refused.data());
    EXPECT_TRUE(refused.is_external());
    EXPECT_THAT(capture.Assertions(), IsEmpty()) << "a refused heap is no broken invariant";
    // A size whose byte count would wrap is refused, not cut.
    xk::auto_buffer<OLECHAR, 4> wrapping(SIZE_MAX / sizeof(OLECHAR) + 2);
    EXPECT_TRUE(wrapping.empty());
  }
  EXPECT_THAT(capture.Assertions(), ElementsAre(Report(607, "0 != m_buffer"), Report(510, "0 != p"),
                                                Report(607, "0 != m_buffer"), Report(510, "0 != p")));
}

TEST_F(AutoBuffer, AnIndexPastTheEndIsReported) {
  WideBuffer buffer(4);
  EXPECT_EQ(buffer.data() + 5, buffer.address_of(5));
  EXPECT_THAT(capture.Assertions(), ElementsAre(Report(851, "(\"Index is out of bounds\", index <= m_cItems)")));
}

TEST_F(AutoBuffer, AnExternalMarkOnInsideStorageBreaksEveryCheck) {
  WideBuffer buffer(4);
  Fields* fields = FieldsOf(buffer);
  fields->external = true;
  buffer.size();
  buffer.empty();
  buffer.address_of(0);
  buffer.is_external();
  fields->external = false;  // restored: destruction must not free inside storage
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(Report(1044, "is_valid()"), Report(1061, "is_valid()"), Report(853, "is_valid()"),
                          Report(630, "(m_buffer != &m_internal[0]) == m_bExternal")));
}

TEST_F(AutoBuffer, MoreElementsThanInsideStorageWithoutTheHeapIsReported) {
  {
    WideBuffer buffer(4);
    FieldsOf(buffer)->count = 513;
    EXPECT_FALSE(buffer.is_valid());
  }
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(Report(603, "is_valid()"), Report(631, "m_bExternal || !(space < m_cItems)")));
}
