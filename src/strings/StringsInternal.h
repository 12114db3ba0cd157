// Pieces the BSTR and OLE-string functions share: the size limit on text the
// library allocates, the narrow-to-wide copy, string resources and the questions
// put to the task allocator.
#pragma once

#include <stddef.h>
#include <windows.h>
#include <ole2.h>
#include <xkcombsd/auto_buffer.h>

namespace xk::strings {

// Whether text of cch characters and its terminator has a byte size that a
// 32-bit count can hold (the size CoTaskMemGetSize reports). Larger counts are
// refused before anything is read, so a hostile count cannot wrap a size
// computation on either target or walk far past its source.
constexpr bool FitsByteCount(size_t cch) {
  return cch <= (0xFFFFFFFFu / sizeof(OLECHAR)) - 1;
}

// The wide copy of cch bytes of narrow text (ANSI code page), with room for cch
// characters and a terminator: 511 characters or fewer stay inside the object,
// longer text takes one block of the global heap. The characters the conversion
// did not produce (a multi-byte code page yields fewer than cch) are zeros.
class WideCopy {
 public:
  WideCopy(LPCSTR s, int cch);
  WideCopy(const WideCopy&) = delete;
  WideCopy& operator=(const WideCopy&) = delete;

  // False when the copy could not be had (too large, or no memory).
  bool ok() const { return !m_text.empty(); }
  LPCOLESTR get() { return m_text.data(); }
  bool OnHeap() const { return m_text.is_external(); }

 private:
  auto_buffer<OLECHAR, 512> m_text;
};

// Text beyond the first 259 units of a string resource is cut.
constexpr int kResourceChars = 260;
bool LoadResourceText(HINSTANCE hinst, UINT id, char (&text)[kResourceChars]);
bool LoadResourceText(HINSTANCE hinst, UINT id, OLECHAR (&text)[kResourceChars]);

// Clears the trailing zeros, spaces, tabs and periods of a system message of
// length characters, from its terminator leftwards; the first character stays.
void TrimMessageEnd(char* text, DWORD length);

// The task-allocator questions, over a chosen way of obtaining the allocator
// (the exports pass CoGetMalloc). Each writes its trace and answers -1, 0 or the
// getter's failure code when the allocator cannot be had.
using GetTaskAllocator = HRESULT(WINAPI*)(DWORD context, IMalloc** allocator);
int DidAlloc(GetTaskAllocator get, void* pv);
ULONG GetSize(GetTaskAllocator get, void* pv);
HRESULT HeapMinimise(GetTaskAllocator get);
void DestroyOleString(GetTaskAllocator get, LPOLESTR* pstr);

}  // namespace xk::strings
