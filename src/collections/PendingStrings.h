// TEMPORARY, replaced at merge: the string functions the string and BSTR
// element kinds copy and free with. Their real homes are the task-allocated
// string and BSTR families, written on another branch; these declarations give
// way to those families' headers, and PendingStrings.cpp is deleted.
#pragma once

#include <xkcombsd/XKApi.h>

// A task-allocated copy of s; NULL for NULL or when out of memory.
XK_EXTERN_C LPOLESTR XKAPI OleString_Dup(LPCOLESTR s);
// Frees *pstr with the task allocator and sets it to NULL.
XK_EXTERN_C void XKAPI OleString_Destroy(LPOLESTR* pstr);
// SysAllocString(s); NULL for NULL.
XK_EXTERN_C BSTR XKAPI BSTR_Dup(LPCOLESTR s);
// SysFreeString(*pbstr) and sets it to NULL.
XK_EXTERN_C void XKAPI BSTR_Destroy(BSTR* pbstr);
