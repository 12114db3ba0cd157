// TEMPORARY, replaced at merge: minimal stand-ins for the string functions the
// element kinds need (see PendingStrings.h). Not exported.
#include "PendingStrings.h"

extern "C" LPOLESTR WINAPI OleString_Dup(LPCOLESTR s) {
  if (!s) return nullptr;
  const SIZE_T bytes = (static_cast<SIZE_T>(lstrlenW(s)) + 1) * sizeof(OLECHAR);
  auto* copy = static_cast<LPOLESTR>(CoTaskMemAlloc(bytes));
  if (copy) CopyMemory(copy, s, bytes);
  return copy;
}

extern "C" void WINAPI OleString_Destroy(LPOLESTR* pstr) {
  if (!pstr || !*pstr) return;
  CoTaskMemFree(*pstr);
  *pstr = nullptr;
}

extern "C" BSTR WINAPI BSTR_Dup(LPCOLESTR s) { return s ? SysAllocString(s) : nullptr; }

extern "C" void WINAPI BSTR_Destroy(BSTR* pbstr) {
  if (!pbstr || !*pbstr) return;
  SysFreeString(*pbstr);
  *pbstr = nullptr;
}
