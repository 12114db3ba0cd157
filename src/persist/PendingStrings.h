// The BSTR makers the VARIANT helpers build their strings with. They belong to
// the string functions; until those are on this branch, PendingStrings.cpp
// stands in for them (replaced at merge: this header then includes the string
// family's public header instead).
#pragma once

#include <xkcombsd/XKApi.h>

XK_EXTERN_C BSTR XKAPI BSTR_CreateW(LPCOLESTR s, int cch);
XK_EXTERN_C BSTR XKAPI BSTR_CreateA(LPCSTR s, int cch);
