// Length and bounded copy of zero-terminated narrow or wide strings, for code
// that handles text it has already checked (the library links no runtime).
#pragma once

#include <stddef.h>
#include <xkcombsd/Strings.h>

#include "strings/MemoryPrimitives.h"

namespace xk {

// The library's own string lengths, chosen by character width.
inline size_t TextLength(const char* text) { return static_cast<size_t>(StrLenA(text)); }
inline size_t TextLength(const wchar_t* text) { return static_cast<size_t>(StrLenO(text)); }

// Copies at most maxChars characters of text and a terminator; returns the
// end of the copy (its terminator), so copies can be chained.
template <class Char>
Char* CopyCut(Char* dest, const Char* text, size_t maxChars) {
  for (size_t i = 0; i < maxChars && text[i]; ++i) *dest++ = text[i];
  *dest = 0;
  return dest;
}

}  // namespace xk
