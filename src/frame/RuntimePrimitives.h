// The library's own byte and text primitives. The modules carry no language
// runtime, so these are the one implementation behind both the library's code
// and the block copies, fills and comparisons the compiler emits
// (CompilerSupport.cpp forwards memcpy, memmove, memset and memcmp here). Every module compiles them with -fno-tree-loop-distribute-patterns, so
// the loops below are never turned back into calls to those functions.
//
// Kept free of platform headers: the sibling libraries include this file too.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace xk {

// Characters before the terminator of a zero-terminated string of either width.
template <class Char>
size_t TextLength(const Char* text) {
  const Char* end = text;
  while (*end) ++end;
  return static_cast<size_t>(end - text);
}

// Byte length of a zero-terminated narrow string.
inline int StrLenA(const char* s) { return static_cast<int>(TextLength(s)); }

// Copies at most maxChars characters of text and a terminator; returns the
// end of the copy (its terminator), so copies can be chained.
template <class Char>
Char* CopyCut(Char* dest, const Char* text, size_t maxChars) {
  for (size_t i = 0; i < maxChars && text[i]; ++i) *dest++ = text[i];
  *dest = 0;
  return dest;
}

// Forward byte copy; returns dst.
inline void* MemCopy(void* dst, const void* src, size_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  auto* s = static_cast<const unsigned char*>(src);
  while (n--) *d++ = *s++;
  return dst;
}

namespace details {
// A 4-byte store that may alias whatever the caller's buffer holds.
typedef uint32_t __attribute__((may_alias)) AliasedWord;

inline void FillBytes(unsigned char* from, unsigned char* to, unsigned char byte) {
  while (from < to) *from++ = byte;
}
}  // namespace details

// Fills n bytes with byte; returns dst. Short runs go byte by byte; from 17 bytes
// on, the aligned words inside the range are written whole and only the
// unaligned head and tail byte by byte.
inline void* MemFill(void* dst, unsigned char byte, size_t n) {
  auto* begin = static_cast<unsigned char*>(dst);
  auto* end = begin + n;
  if (n < 17) {
    details::FillBytes(begin, end, byte);
    return dst;
  }
  const uintptr_t first = (reinterpret_cast<uintptr_t>(begin) + 3) & ~uintptr_t{3};
  const uintptr_t last = reinterpret_cast<uintptr_t>(end) & ~uintptr_t{3};
  const uint32_t word = byte * 0x01010101u;
  for (uintptr_t at = first; at < last; at += 4) *reinterpret_cast<details::AliasedWord*>(at) = word;
  details::FillBytes(begin, reinterpret_cast<unsigned char*>(first), byte);
  details::FillBytes(reinterpret_cast<unsigned char*>(last), end, byte);
  return dst;
}

// The first difference a-byte minus b-byte (bytes unsigned), or 0 when equal.
inline int MemCompare(const void* a, const void* b, size_t n) {
  auto* x = static_cast<const unsigned char*>(a);
  auto* y = static_cast<const unsigned char*>(b);
  for (; n; --n, ++x, ++y)
    if (*x != *y) return *x - *y;
  return 0;
}

// Copy between ranges that may overlap: backwards when dst lies at or after an
// overlapping src, so no byte is overwritten before it has been read.
inline void* MemMove(void* dst, const void* src, size_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  auto* s = static_cast<const unsigned char*>(src);
  const bool overlap = d < s + n && s < d + n;
  if (!overlap || d < s) return MemCopy(dst, src, n);
  while (n--) d[n] = s[n];
  return dst;
}

}  // namespace xk
