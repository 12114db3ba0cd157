// Automation strings (BSTR) and OLE strings: zero-terminated wide strings on the
// COM task allocator, the task-allocator queries, and the library's wide-string
// and memory primitives.
//
// Lengths: a negative cch means up to the terminating zero of the source; a
// count of 0 or more is a count of source units (wide characters for W, bytes
// for A). Narrow text is converted from the ANSI code page.
//
// String makers return the new string or NULL; nothing raises errors. A BSTR
// handed back is the caller's (SysFreeString or BSTR_Destroy), an OLE string too
// (OleString_Destroy or CoTaskMemFree). After a failed Recreate, Append or
// Redup the caller's old string is still allocated and still the caller's.
//
// Where the library sets its own limit: an OLE string, and the wide copy a
// narrow conversion makes, must have a byte size (characters and terminator)
// that a 32-bit count can hold, as CoTaskMemGetSize reports it; a larger count
// gives NULL before anything is read or allocated.
#pragma once

#include <xkcombsd/XKApi.h>

// ---- BSTR ----
XK_EXTERN_C BSTR XKAPI BSTR_CreateW(LPCOLESTR s, int cch);                  // 31
XK_EXTERN_C BSTR XKAPI BSTR_CreateA(LPCSTR s, int cch);                     // 32
XK_EXTERN_C BSTR XKAPI BSTR_RecreateW(BSTR bstr, LPCOLESTR s, int cch);     // 33
XK_EXTERN_C BSTR XKAPI BSTR_RecreateA(BSTR bstr, LPCSTR s, int cch);        // 34
XK_EXTERN_C BSTR XKAPI BSTR_AppendW(BSTR bstr, LPCOLESTR s, int cch);       // 35
XK_EXTERN_C BSTR XKAPI BSTR_AppendA(BSTR bstr, LPCSTR s, int cch);          // 36
// At most 259 characters: the string is loaded into a 260-unit buffer.
XK_EXTERN_C BSTR XKAPI BSTR_FromResourceA(HINSTANCE hinst, UINT id);        // 37
XK_EXTERN_C BSTR XKAPI BSTR_FromResourceW(HINSTANCE hinst, UINT id);        // 38
XK_EXTERN_C BSTR XKAPI BSTR_Dup(LPCOLESTR s);                               // 39
XK_EXTERN_C BSTR XKAPI BSTR_Redup(BSTR bstr, LPCOLESTR s);                  // 40
XK_EXTERN_C void XKAPI BSTR_Destroy(BSTR* pbstr);                           // 30
// Second minus first when both are given; NULL first gives -1, NULL second 1.
XK_EXTERN_C int  XKAPI BSTR_Cmp(BSTR a, BSTR b);                            // 44
// The system's text for a Win32 error, without trailing spaces, tabs and periods.
XK_EXTERN_C BSTR XKAPI BSTR_FromWin32Error(DWORD error);                    // 45
XK_EXTERN_C BOOL XKAPI SysReallocStringByteLen(BSTR* pbstr, const char* psz, UINT cb);  // 50

// ---- Task allocator ----
// 1: allocated by the task allocator, 0: not, -1: cannot tell.
XK_EXTERN_C int     XKAPI CoTaskMemDidAlloc(void* pv);                      // 26
XK_EXTERN_C ULONG   XKAPI CoTaskMemGetSize(void* pv);                       // 27
XK_EXTERN_C HRESULT XKAPI CoTaskMemHeapMinimise(void);                      // 69

// ---- OLE strings ----
XK_EXTERN_C LPOLESTR XKAPI OleString_CreateA(LPCSTR s, int cch);            // 28
XK_EXTERN_C LPOLESTR XKAPI OleString_CreateW(LPCOLESTR s, int cch);         // 29
XK_EXTERN_C LPOLESTR XKAPI OleString_RecreateA(LPOLESTR p, LPCSTR s, int cch);     // 73
XK_EXTERN_C LPOLESTR XKAPI OleString_RecreateW(LPOLESTR p, LPCOLESTR s, int cch);  // 74
XK_EXTERN_C LPOLESTR XKAPI OleString_FromResourceA(HINSTANCE hinst, UINT id);      // 75
XK_EXTERN_C LPOLESTR XKAPI OleString_FromResourceW(HINSTANCE hinst, UINT id);      // 76
XK_EXTERN_C LPOLESTR XKAPI OleString_Dup(LPCOLESTR s);                      // 77
// Frees *pstr if the task allocator owns it (a foreign string is reported and
// left alone) and sets *pstr to NULL.
XK_EXTERN_C void     XKAPI OleString_Destroy(LPOLESTR* pstr);               // 78

// ---- Wide-string and memory primitives ----
// A NULL source counts as an empty string; a NULL destination is not written.
XK_EXTERN_C int      XKAPI StrLenO(LPCOLESTR s);                            // 79
XK_EXTERN_C LPOLESTR XKAPI StrCpyO(LPOLESTR dst, LPCOLESTR src);            // 80
// Copies up to n characters and pads the rest of the n with zeros; adds no
// terminator when src has n or more characters.
XK_EXTERN_C LPOLESTR XKAPI StrNCpyO(LPOLESTR dst, LPCOLESTR src, int n);    // 86
// b[i] - a[i] at the first difference (second minus first), 0 when equal.
XK_EXTERN_C int      XKAPI StrCmpO(LPCOLESTR a, LPCOLESTR b);               // 87
// Overlapping ranges are copied so that the source arrives intact; NULL copies nothing.
XK_EXTERN_C void*    XKAPI MemMove(void* dst, const void* src, UINT n);     // 151
