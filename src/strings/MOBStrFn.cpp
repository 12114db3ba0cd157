// BSTR functions: create, replace, extend, duplicate, compare and free automation
// strings from wide or narrow text, string resources and system error codes.
// Every allocation goes through the platform's Sys* functions. Results are the
// string or NULL; after a failed Recreate, Append or Redup the caller's old
// string is untouched and still the caller's.
//
// A function given narrow text converts it first (WideCopy) and then does what
// its wide twin does with the same count: the count handed on is always the
// caller's byte count, whatever number of characters the conversion produced.
#include <xkcombsd/LateBound.h>
#include <xkcombsd/Strings.h>
#include <xkcombsd/XKAssert.h>

#include "frame/RuntimePrimitives.h"
#include "strings/StringsInternal.h"

namespace xk::strings {

namespace {

constexpr DWORD kSystemMessageFlags =
    FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_MAX_WIDTH_MASK;
constexpr DWORD kUserDefaultLanguage = MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT);

// A system message buffer, released with LocalFree.
class SystemMessage {
 public:
  explicit SystemMessage(DWORD error)
      : m_length(FormatMessageA(kSystemMessageFlags, nullptr, error, kUserDefaultLanguage,
                                reinterpret_cast<LPSTR>(&m_text), 0, nullptr)) {}
  ~SystemMessage() {
    if (m_text) LocalFree(m_text);
  }
  SystemMessage(const SystemMessage&) = delete;
  SystemMessage& operator=(const SystemMessage&) = delete;

  DWORD length() const { return m_text ? m_length : 0; }
  char* text() { return m_text; }

 private:
  char* m_text = nullptr;
  DWORD m_length;
};

bool IsTrimmedFromMessageEnd(char c) { return c == 0 || c == ' ' || c == '\t' || c == '.'; }

}  // namespace

WideCopy::WideCopy(LPCSTR s, int cch) : m_text(FitsByteCount(cch) ? cch + 1 : 0) {
  if (m_text.empty()) return;
  const int converted = MultiByteToWideChar(CP_ACP, 0, s, cch, m_text.data(), cch + 1);
  MemFill(m_text.address_of(converted), 0, (cch + 1 - converted) * sizeof(OLECHAR));
}

void TrimMessageEnd(char* text, DWORD length) {
  for (DWORD at = length; at > 0 && IsTrimmedFromMessageEnd(text[at]); --at) text[at] = 0;
}

}  // namespace xk::strings

using namespace xk::strings;

// ---- BSTR_CreateW ------------------------------------------------------------
extern "C" BSTR WINAPI BSTR_CreateW(LPCOLESTR s, int cch) {
  return cch < 0 ? SysAllocString(s) : SysAllocStringLen(s, cch);
}

// ---- BSTR_CreateA ------------------------------------------------------------
extern "C" BSTR WINAPI BSTR_CreateA(LPCSTR s, int cch) {
  if (!s || !*s || cch == 0) return BSTR_CreateW(nullptr, cch);
  if (cch < 0) cch = xk::StrLenA(s);
  WideCopy wide(s, cch);
  return wide.ok() ? SysAllocStringLen(wide.get(), cch) : nullptr;
}

// ---- BSTR_RecreateW ----------------------------------------------------------
extern "C" BSTR WINAPI BSTR_RecreateW(BSTR bstr, LPCOLESTR s, int cch) {
  const INT replaced = cch < 0 ? SysReAllocString(&bstr, s) : SysReAllocStringLen(&bstr, s, cch);
  return replaced ? bstr : nullptr;
}

// ---- BSTR_RecreateA ----------------------------------------------------------
extern "C" BSTR WINAPI BSTR_RecreateA(BSTR bstr, LPCSTR s, int cch) {
  if (!s || !*s || cch == 0) return BSTR_RecreateW(bstr, nullptr, cch);
  if (cch < 0) cch = xk::StrLenA(s);
  WideCopy wide(s, cch);
  return wide.ok() ? BSTR_RecreateW(bstr, wide.get(), cch) : nullptr;
}

// ---- BSTR_AppendW ------------------------------------------------------------
extern "C" BSTR WINAPI BSTR_AppendW(BSTR bstr, LPCOLESTR s, int cch) {
  if (!s || cch == 0) return bstr;
  if (!bstr) return BSTR_CreateW(s, cch);
  const UINT old = SysStringLen(bstr);
  if (cch < 0) cch = StrLenO(s);
  // A string appended to itself (or to its own tail) moves with the reallocation.
  const UINT_PTR offset = reinterpret_cast<UINT_PTR>(s) - reinterpret_cast<UINT_PTR>(bstr);
  const bool ownText = offset <= old * sizeof(OLECHAR);
  // Without a source the platform keeps the first characters: one reallocation.
  if (!SysReAllocStringLen(&bstr, nullptr, old + cch)) return nullptr;
  if (ownText) s = reinterpret_cast<LPCOLESTR>(reinterpret_cast<UINT_PTR>(bstr) + offset);
  StrNCpyO(bstr + old, s, cch);
  bstr[old + cch] = 0;
  return bstr;
}

// ---- BSTR_AppendA ------------------------------------------------------------
extern "C" BSTR WINAPI BSTR_AppendA(BSTR bstr, LPCSTR s, int cch) {
  if (!s || cch == 0) return bstr;
  if (!bstr) return BSTR_CreateA(s, cch);
  if (cch < 0) cch = xk::StrLenA(s);
  if (cch == 0) return bstr;
  WideCopy wide(s, cch);
  return wide.ok() ? BSTR_AppendW(bstr, wide.get(), cch) : nullptr;
}

// ---- BSTR_FromResourceA ------------------------------------------------------
extern "C" BSTR WINAPI BSTR_FromResourceA(HINSTANCE hinst, UINT id) {
  // Cleared, so the whole buffer converts from defined bytes; the wide copy has
  // room for a terminator after all 260 converted characters.
  char text[kResourceChars] = {};
  if (!LoadResourceText(hinst, id, text)) return nullptr;
  OLECHAR wide[kResourceChars + 1];
  wide[MultiByteToWideChar(CP_ACP, 0, text, kResourceChars, wide, kResourceChars)] = 0;
  return SysAllocString(wide);
}

// ---- BSTR_FromResourceW ------------------------------------------------------
extern "C" BSTR WINAPI BSTR_FromResourceW(HINSTANCE hinst, UINT id) {
  OLECHAR text[kResourceChars];
  return LoadResourceText(hinst, id, text) ? SysAllocString(text) : nullptr;
}

// ---- BSTR_Dup ----------------------------------------------------------------
extern "C" BSTR WINAPI BSTR_Dup(LPCOLESTR s) { return s ? SysAllocString(s) : nullptr; }

// ---- BSTR_Redup --------------------------------------------------------------
extern "C" BSTR WINAPI BSTR_Redup(BSTR bstr, LPCOLESTR s) {
  if (!s) {
    SysFreeString(bstr);
    return nullptr;
  }
  if (!bstr) return BSTR_Dup(s);
  return SysReAllocString(&bstr, s) ? bstr : nullptr;
}

// ---- BSTR_Destroy ------------------------------------------------------------
extern "C" void WINAPI BSTR_Destroy(BSTR* pbstr) {
  if (!pbstr || !*pbstr) return;
  SysFreeString(*pbstr);
  *pbstr = nullptr;
}

// ---- BSTR_Cmp ----------------------------------------------------------------
extern "C" int WINAPI BSTR_Cmp(BSTR a, BSTR b) {
  if (!a) return -1;  // even against another NULL
  if (!b) return 1;
  return StrCmpO(a, b);
}

// ---- BSTR_FromWin32Error -----------------------------------------------------
extern "C" BSTR WINAPI BSTR_FromWin32Error(DWORD error) {
  SystemMessage message(error);
  if (!message.length()) return nullptr;
  TrimMessageEnd(message.text(), message.length());
  return BSTR_CreateA(message.text(), -1);
}

// ---- SysReallocStringByteLen -------------------------------------------------
extern "C" BOOL WINAPI SysReallocStringByteLen(BSTR* pbstr, const char* psz, UINT cb) {
  if (!xk::Verify(pbstr != nullptr, {"MOBStrFn", 421, "&rbstr != NULL"})) return FALSE;
  if (*pbstr && cb == SysStringByteLen(*pbstr)) {
    auto* bytes = reinterpret_cast<char*>(*pbstr);
    // Without a source the bytes stay as they are, as SysAllocStringByteLen
    // leaves them unspecified; a source inside the string may overlap it.
    if (psz) xk::MemMove(bytes, psz, cb);
    bytes[cb] = 0;
  } else {
    // The new string first: psz may point into the old one.
    BSTR old = *pbstr;
    *pbstr = SysAllocStringByteLen(psz, cb);
    SysFreeString(old);
  }
  return *pbstr != nullptr;
}
