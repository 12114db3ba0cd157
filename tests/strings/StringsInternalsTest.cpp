// The strings subsystem from inside: where the narrow-to-wide copy and
// auto_buffer keep their text, what a refused heap reports, and the traces of
// the task-allocator questions when the allocator cannot be had.
#include <gmock/gmock.h>
#include <xkcombsd/auto_buffer.h>

#include <cstdint>
#include <string>

#include "DebugOutput.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "strings/StringsInternal.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::AssertionReport;
using xktest::DebugOutputCapture;

TEST(WideCopy, UpTo511CharactersStayInsideAndLongerTextTakesTheHeap) {
  DebugOutputCapture capture;
  for (int length : {511, 512}) {
    const std::string text(length, 'k');
    xk::strings::WideCopy copy(text.c_str(), length);
    ASSERT_TRUE(copy.ok()) << length;
    EXPECT_EQ(length == 512, copy.OnHeap()) << length;
    EXPECT_EQ(std::wstring(length, L'k') + L'\0', std::wstring(copy.get(), length + 1)) << length;
    // The same text with its terminator in the buffer the copy is built on.
    xk::auto_buffer<OLECHAR, 512> buffer(length + 1);
    auto* object = reinterpret_cast<const char*>(&buffer);
    auto* data = reinterpret_cast<const char*>(buffer.data());
    EXPECT_EQ(length == 511, data >= object && data < object + sizeof buffer) << length;
    EXPECT_EQ(length == 512, buffer.is_external()) << length;
  }
  EXPECT_THAT(capture.Assertions(), IsEmpty());
}

TEST(AutoBuffer, ARefusedHeapLeavesAnEmptyBufferAndReportsTheMissingBlock) {
  DebugOutputCapture capture;
  {
    xk::auto_buffer<char, 4> refused(SIZE_MAX);
    EXPECT_TRUE(refused.empty());
    EXPECT_EQ(nullptr, refused.data());
    EXPECT_THAT(capture.Assertions(), IsEmpty()) << "a refused heap is no broken invariant";
  }
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(AssertionReport{"auto_buffer", 607, "0 != m_buffer"},
                          AssertionReport{"auto_buffer", 510, "0 != p"}));
}

namespace {

HRESULT WINAPI GetNothing(DWORD, IMalloc** allocator) {
  *allocator = nullptr;
  return CO_E_NOTINITIALIZED;
}

}  // namespace

TEST(TaskAllocatorQuestions, WithoutAnAllocatorEachQuestionTracesAndAnswersItsFailureValue) {
  xktest::MallocSpy spy;
  DebugOutputCapture capture;
  int block;
  EXPECT_EQ(-1, xk::strings::DidAlloc(GetNothing, &block));
  EXPECT_EQ(0u, xk::strings::GetSize(GetNothing, &block));
  EXPECT_HR(CO_E_NOTINITIALIZED, xk::strings::HeapMinimise(GetNothing));
  // An allocator that cannot be had cannot disown the string either: it is freed.
  LPOLESTR p = static_cast<LPOLESTR>(CoTaskMemAlloc(8));
  xk::strings::DestroyOleString(GetNothing, &p);
  EXPECT_EQ(nullptr, p);
  EXPECT_EQ(0, spy.Outstanding());
  EXPECT_THAT(capture.Lines(),
              ElementsAre("CoTaskMemDidAlloc: failed to get COM task allocator!\n",
                          "CoTaskMemGetSize: failed to get COM task allocator!\n",
                          "CoTaskMemHeapMinimise: failed to get COM task allocator!\n",
                          "CoTaskMemDidAlloc: failed to get COM task allocator!\n"));
}
