// Stand-in for BSTR_CreateW / BSTR_CreateA, only so this branch links; replaced
// at merge by the string functions themselves. Not exported.
#include "PendingStrings.h"

extern "C" BSTR WINAPI BSTR_CreateW(LPCOLESTR s, int cch) {
  return cch < 0 ? SysAllocString(s) : SysAllocStringLen(s, static_cast<UINT>(cch));
}

extern "C" BSTR WINAPI BSTR_CreateA(LPCSTR s, int cch) {
  if (!s || !*s || cch == 0) return BSTR_CreateW(nullptr, cch);
  const int bytes = cch < 0 ? lstrlenA(s) : cch;
  BSTR text = SysAllocStringLen(nullptr, static_cast<UINT>(bytes));
  if (text) text[MultiByteToWideChar(CP_ACP, 0, s, bytes, text, bytes)] = L'\0';
  return text;
}
