// Length of a zero-terminated narrow or wide string, for code that measures
// text it has already checked (the library links no runtime strlen).
#pragma once

#include <stddef.h>

namespace xk {

template <class Char>
size_t TextLength(const Char* text) {
  size_t length = 0;
  while (text[length]) ++length;
  return length;
}

}  // namespace xk
