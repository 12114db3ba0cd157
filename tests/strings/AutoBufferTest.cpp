// auto_buffer: where its storage lives, its field layout, and every report it
// makes (broken invariants are forced by writing its fields directly).
#include <gmock/gmock.h>
#include <ole2.h>
#include <xkcombsd/auto_buffer.h>

#include <cstdint>
#include <cstring>

#include "DebugOutput.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::AssertionReport;
using xktest::DebugOutputCapture;

namespace {

AssertionReport Report(int line, const char* expression) { return {"auto_buffer", line, expression}; }

template <class Buffer>
bool StorageIsInside(Buffer& buffer) {
  auto* begin = reinterpret_cast<const char*>(&buffer);
  auto* data = reinterpret_cast<const char*>(buffer.data());
  return data >= begin && data < begin + sizeof buffer;
}

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

}  // namespace

TEST(AutoBuffer, UpToNElementsLiveInsideTheObjectAndMoreOnTheGlobalHeap) {
  DebugOutputCapture capture;
  for (size_t count : {0u, 1u, 512u, 513u, 600u}) {
    WideBuffer buffer(count);
    const bool inside = count <= 512;
    EXPECT_EQ(inside, StorageIsInside(buffer)) << count;
    EXPECT_EQ(!inside, buffer.is_external()) << count;
    EXPECT_EQ(count, buffer.size());
    EXPECT_EQ(count == 0, buffer.empty());
    EXPECT_EQ(buffer.data() + count, buffer.end()) << "the end address is allowed";
    for (size_t i = 0; i < count; ++i) buffer[i] = static_cast<OLECHAR>(i);
    if (count) EXPECT_EQ(count - 1, buffer[count - 1]);
    if (!inside) EXPECT_GE(GlobalSize(GlobalHandle(buffer.data())), count * sizeof(OLECHAR));
  }
  EXPECT_THAT(capture.Assertions(), IsEmpty());
}

TEST(AutoBuffer, FieldsLieInTheirDocumentedOrder) {
  WideBuffer inside(3);
  WideBuffer outside(600);
  for (WideBuffer* buffer : {&inside, &outside}) {
    const Fields* fields = FieldsOf(*buffer);
    EXPECT_EQ(buffer->data(), fields->buffer);
    EXPECT_EQ(buffer->size(), fields->count);
    EXPECT_EQ(buffer->is_external(), fields->external);
  }
}

TEST(AutoBuffer, AHeapRequestThatCannotBeMetLeavesItEmptyAndIsReportedOnDestruction) {
  DebugOutputCapture capture;
  {
    xk::auto_buffer<char, 4> refused(SIZE_MAX);
    EXPECT_TRUE(refused.empty());
    EXPECT_EQ(0u, refused.size());
    EXPECT_EQ(nullptr, refused.data());
    EXPECT_TRUE(refused.is_external());
    EXPECT_THAT(capture.Assertions(), IsEmpty()) << "a refused heap is no broken invariant";
  }
  EXPECT_THAT(capture.Assertions(), ElementsAre(Report(607, "0 != m_buffer"), Report(510, "0 != p")));

  capture.Clear();
  {
    // A size whose byte count would wrap is refused, not cut.
    xk::auto_buffer<OLECHAR, 4> wrapping(SIZE_MAX / sizeof(OLECHAR) + 2);
    EXPECT_TRUE(wrapping.empty());
  }
  EXPECT_THAT(capture.Assertions(), ElementsAre(Report(607, "0 != m_buffer"), Report(510, "0 != p")));
}

TEST(AutoBuffer, AnIndexPastTheEndIsReported) {
  DebugOutputCapture capture;
  WideBuffer buffer(4);
  EXPECT_EQ(buffer.data() + 5, buffer.address_of(5));
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(Report(851, "(\"Index is out of bounds\", index <= m_cItems)")));
}

TEST(AutoBuffer, AnExternalMarkOnInsideStorageBreaksEveryCheck) {
  DebugOutputCapture capture;
  WideBuffer buffer(4);
  Fields* fields = FieldsOf(buffer);
  fields->external = true;
  buffer.size();
  buffer.empty();
  buffer.address_of(0);
  buffer.is_external();
  fields->external = false;  // restored: destruction must not free inside storage
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(Report(1044, "is_valid()"), Report(1061, "is_valid()"),
                          Report(853, "is_valid()"),
                          Report(630, "(m_buffer != &m_internal[0]) == m_bExternal")));
}

TEST(AutoBuffer, MoreElementsThanInsideStorageWithoutTheHeapIsReported) {
  DebugOutputCapture capture;
  {
    WideBuffer buffer(4);
    FieldsOf(buffer)->count = 513;
    EXPECT_FALSE(buffer.is_valid());
  }
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(Report(603, "is_valid()"), Report(631, "m_bExternal || !(space < m_cItems)")));
}
