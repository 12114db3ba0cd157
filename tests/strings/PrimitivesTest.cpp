// The exported wide-string and memory primitives: exact units written (checked
// against sentinels), signs, overlaps and NULLs.
#include <algorithm>
#include <cstring>
#include <string>
#include <xkcombsd/Strings.h>

#include "StringsFixture.h"

namespace {

using WideStringPrimitives = xktest::StringsTest;
using MemMoveExport = xktest::StringsTest;

constexpr wchar_t kSentinel = 0xBEEF;

struct Target {
  Target() { std::fill(units, units + 8, kSentinel); }
  std::wstring All() const { return std::wstring(units, 8); }
  wchar_t units[8];
};

std::wstring Expect(const wchar_t* head, size_t headLength) {
  std::wstring all(8, kSentinel);
  all.replace(0, headLength, head, headLength);
  return all;
}

}  // namespace

TEST_F(WideStringPrimitives, StrLenOCountsUpToTheFirstZero) {
  EXPECT_EQ(3, StrLenO(L"abc"));
  EXPECT_EQ(1, StrLenO(L"a\0bc"));
  EXPECT_EQ(0, StrLenO(L""));
  EXPECT_EQ(0, StrLenO(nullptr)) << "no string counts as empty";
}

TEST_F(WideStringPrimitives, StrCpyOCopiesTheTerminatorAndNothingBeyond) {
  Target t;
  EXPECT_EQ(t.units, StrCpyO(t.units, L"abc"));
  EXPECT_EQ(Expect(L"abc", 4), t.All());

  Target fromNull;
  EXPECT_EQ(fromNull.units, StrCpyO(fromNull.units, nullptr));
  EXPECT_EQ(Expect(L"", 1), fromNull.All());

  EXPECT_EQ(nullptr, StrCpyO(nullptr, L"abc"));
}

TEST_F(WideStringPrimitives, StrNCpyOPadsShortSourcesAndDoesNotTerminateLongOnes) {
  Target padded;
  EXPECT_EQ(padded.units, StrNCpyO(padded.units, L"ab", 5));
  EXPECT_EQ(Expect(L"ab\0\0\0", 5), padded.All());

  Target cut;
  StrNCpyO(cut.units, L"abcdef", 3);
  EXPECT_EQ(Expect(L"abc", 3), cut.All()) << "no terminator after the third character";

  Target exact;
  StrNCpyO(exact.units, L"abc", 3);
  EXPECT_EQ(Expect(L"abc", 3), exact.All());

  Target stopsAtZero;
  StrNCpyO(stopsAtZero.units, L"a\0bc", 4);
  EXPECT_EQ(Expect(L"a\0\0\0", 4), stopsAtZero.All());

  Target nothing;
  StrNCpyO(nothing.units, L"abc", 0);
  StrNCpyO(nothing.units, L"abc", -5);
  EXPECT_EQ(Expect(L"", 0), nothing.All());

  Target fromNull;
  StrNCpyO(fromNull.units, nullptr, 3);
  EXPECT_EQ(Expect(L"\0\0\0", 3), fromNull.All());

  EXPECT_EQ(nullptr, StrNCpyO(nullptr, L"abc", 3));
}

TEST_F(WideStringPrimitives, StrCmpOGivesSecondMinusFirstAtTheFirstDifference) {
  EXPECT_EQ(1, StrCmpO(L"a", L"b"));
  EXPECT_EQ(-1, StrCmpO(L"b", L"a"));
  EXPECT_EQ(-'b', StrCmpO(L"ab", L"a")) << "the terminator of the second string is 0";
  EXPECT_EQ('c', StrCmpO(L"ab", L"abc"));
  EXPECT_EQ(0, StrCmpO(L"abc", L"abc"));
  EXPECT_EQ(0, StrCmpO(L"", L""));
  EXPECT_EQ(1 - 0xFFFF, StrCmpO(L"\xFFFF", L"\x0001")) << "characters compare unsigned";
  EXPECT_EQ(0, StrCmpO(nullptr, nullptr));
  EXPECT_EQ('a', StrCmpO(nullptr, L"a"));
  EXPECT_EQ(-'a', StrCmpO(L"a", nullptr));
}

TEST_F(MemMoveExport, OverlappingRangesArriveIntactEitherWay) {
  unsigned char buffer[16];
  for (int i = 0; i < 16; ++i) buffer[i] = static_cast<unsigned char>(i + 1);
  EXPECT_EQ(buffer + 3, MemMove(buffer + 3, buffer, 10));
  const unsigned char up[16] = {1, 2, 3, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 14, 15, 16};
  EXPECT_EQ(0, std::memcmp(up, buffer, 16));

  for (int i = 0; i < 16; ++i) buffer[i] = static_cast<unsigned char>(i + 1);
  EXPECT_EQ(buffer, MemMove(buffer, buffer + 3, 10));
  const unsigned char down[16] = {4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 11, 12, 13, 14, 15, 16};
  EXPECT_EQ(0, std::memcmp(down, buffer, 16));
}

TEST_F(MemMoveExport, SeparateRangesSameRangeAndNothingToMove) {
  unsigned char from[6] = {1, 2, 3, 4, 5, 6};
  unsigned char to[8] = {9, 9, 9, 9, 9, 9, 9, 9};
  EXPECT_EQ(to + 1, MemMove(to + 1, from, 6));
  const unsigned char copied[8] = {9, 1, 2, 3, 4, 5, 6, 9};
  EXPECT_EQ(0, std::memcmp(copied, to, 8));

  EXPECT_EQ(from, MemMove(from, from, 6));
  EXPECT_EQ(to, MemMove(to, from, 0));
  EXPECT_EQ(0, std::memcmp(copied, to, 8));

  EXPECT_EQ(nullptr, MemMove(nullptr, from, 6));
  EXPECT_EQ(to, MemMove(to, nullptr, 6));
  EXPECT_EQ(0, std::memcmp(copied, to, 8));
}
