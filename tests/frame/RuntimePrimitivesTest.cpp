// The block primitives behind memcpy, memmove and memset, against a plain byte
// loop: every length up to four blocks and a tail and one of many blocks, at
// every misalignment of either side, and moves whose ranges overlap in both
// directions.
#include <gtest/gtest.h>

#include <vector>

#include "frame/RuntimePrimitives.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr size_t kLarge = 1001, kBuffer = kLarge + 48;

Bytes Pattern() {
  Bytes bytes(kBuffer);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 7 + 1);
  return bytes;
}

TEST(RuntimePrimitives, CopyFillAndMoveMatchAByteLoopAtEveryLengthAndAlignment) {
  const Bytes source = Pattern();
  for (size_t n = 0; n <= kLarge; n = n == 70 ? kLarge : n + 1) {
    for (size_t to = 0; to < 32; ++to) {
      for (size_t from = 0; from < 16; ++from) {
        Bytes copied(kBuffer, 0xEE), moved = source, expected(kBuffer, 0xEE), expectedMove = source;
        for (size_t i = 0; i < n; ++i) expected[to + i] = source[from + i];
        for (size_t i = 0; i < n; ++i) expectedMove[to + i] = source[from + i];
        ASSERT_EQ(&copied[to], xk::MemCopy(&copied[to], &source[from], n));
        ASSERT_EQ(&moved[to], xk::MemMove(&moved[to], &moved[from], n));
        ASSERT_EQ(expected, copied) << "copy of " << n << " from " << from << " to " << to;
        ASSERT_EQ(expectedMove, moved) << "move of " << n << " from " << from << " to " << to;
      }
      Bytes filled(kBuffer, 0xEE), expected(kBuffer, 0xEE);
      for (size_t i = 0; i < n; ++i) expected[to + i] = 0x5A;
      ASSERT_EQ(&filled[to], xk::MemFill(&filled[to], 0x5A, n));
      ASSERT_EQ(expected, filled) << "fill of " << n << " at " << to;
    }
  }
}

}  // namespace
