// The library's own byte and text primitives. The modules carry no language
// runtime, so these are the one implementation behind both the library's code
// and the block copies, fills and comparisons the compiler emits
// (CompilerSupport.cpp forwards memcpy, memmove, memset and memcmp here). Every
// module compiles them with -fno-tree-loop-distribute-patterns, so the loops
// below are never turned back into calls to those functions. Copies and fills
// move whole blocks: message buffers of several kilobytes pass through them.
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

namespace details {
// The widest block moved whole: an SSE2 vector where the target has one (x86_64),
// a machine word otherwise (i686 is built without SSE).
#if defined(__SSE2__)
typedef char Block __attribute__((vector_size(16)));
inline Block Repeat(unsigned char byte) { return Block{} + static_cast<char>(byte); }
#else
typedef uintptr_t Block;
inline Block Repeat(unsigned char byte) { return ~uintptr_t{0} / 0xFF * byte; }
#endif
constexpr size_t kBlock = sizeof(Block);

// Every access goes through a packed, aliasing wrapper, so a piece may start at
// any byte of any buffer. (Attributes on a typedef would be lost as a template
// argument, and the compiler would then assume an aligned address.)
template <class T>
struct __attribute__((packed, may_alias)) Unaligned {
  T value;
};
template <class T>
inline T Load(const unsigned char* at) {
  return reinterpret_cast<const Unaligned<T>*>(at)->value;
}
template <class T>
inline void Store(unsigned char* at, T value) {
  reinterpret_cast<Unaligned<T>*>(at)->value = value;
}

// Fewer bytes than a block: the first and the last piece of the widest size
// that fits, which overlap in the middle. Both are read before either is
// written, so the ranges may overlap either way.
template <class Piece>
inline void CopyEnds(unsigned char* d, const unsigned char* s, size_t n) {
  const Piece first = Load<Piece>(s), last = Load<Piece>(s + n - sizeof(Piece));
  Store(d, first);
  Store(d + n - sizeof(Piece), last);
}
inline void CopyShort(unsigned char* d, const unsigned char* s, size_t n) {
  if (kBlock > 8 && n >= 8) return CopyEnds<uint64_t>(d, s, n);
  if (kBlock > 4 && n >= 4) return CopyEnds<uint32_t>(d, s, n);
  if (!n) return;
  const unsigned char first = s[0], middle = s[n / 2], last = s[n - 1];
  d[0] = first, d[n / 2] = middle, d[n - 1] = last;
}

// At least a block. The block that ends the range is read first and written
// last, so a destination below an overlapping source is still copied right.
inline void CopyUp(unsigned char* d, const unsigned char* s, size_t n) {
  const Block last = Load<Block>(s + n - kBlock);
  for (size_t at = 0; at + kBlock < n; at += kBlock) Store(d + at, Load<Block>(s + at));
  Store(d + n - kBlock, last);
}
// The mirror image, for a destination above an overlapping source.
inline void CopyDown(unsigned char* d, const unsigned char* s, size_t n) {
  const Block first = Load<Block>(s);
  for (size_t end = n; end > kBlock; end -= kBlock)
    Store(d + end - kBlock, Load<Block>(s + end - kBlock));
  Store(d, first);
}
}  // namespace details

// Copy between ranges that do not overlap (or whose destination lies below the
// source); returns dst.
inline void* MemCopy(void* dst, const void* src, size_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  auto* s = static_cast<const unsigned char*>(src);
  if (n < details::kBlock)
    details::CopyShort(d, s, n);
  else
    details::CopyUp(d, s, n);
  return dst;
}

// Fills n bytes with byte; returns dst. Whole blocks, the last one overlapping
// its neighbour; below a block, the first and last piece that fits.
inline void* MemFill(void* dst, unsigned char byte, size_t n) {
  using namespace details;
  auto* d = static_cast<unsigned char*>(dst);
  if (n >= kBlock) {
    const Block block = Repeat(byte);
    for (size_t at = 0; at + kBlock < n; at += kBlock) Store(d + at, block);
    Store(d + n - kBlock, block);
  } else if (kBlock > 8 && n >= 8) {
    const uint64_t piece = byte * 0x0101010101010101ull;
    Store(d, piece), Store(d + n - 8, piece);
  } else if (kBlock > 4 && n >= 4) {
    const uint32_t piece = byte * 0x01010101u;
    Store(d, piece), Store(d + n - 4, piece);
  } else if (n) {
    d[0] = d[n / 2] = d[n - 1] = byte;
  }
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

// Copy between ranges that may overlap: downwards when dst lies above an
// overlapping src, so no byte is overwritten before it has been read.
inline void* MemMove(void* dst, const void* src, size_t n) {
  auto* d = static_cast<unsigned char*>(dst);
  auto* s = static_cast<const unsigned char*>(src);
  if (n < details::kBlock)
    details::CopyShort(d, s, n);
  else if (s < d && d < s + n)
    details::CopyDown(d, s, n);
  else
    details::CopyUp(d, s, n);
  return dst;
}

}  // namespace xk
