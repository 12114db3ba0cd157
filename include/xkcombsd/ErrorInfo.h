// Error information and exception records. ErrorInfo_* builds an error object
// and installs it as the calling thread's error information (replacing what
// the thread held); each setter of the new object is called only if the one
// before it succeeded, and the first failure is returned unchanged.
// EXCEPINFO_* fills and clears the platform's EXCEPINFO; the structure owns
// the three BSTRs it is given.
//
// Narrow members convert each string with BSTR_CreateA and call their wide twin.
#pragma once

#include <xkcombsd/XKApi.h>
#include <oaidl.h>

XK_EXTERN_C HRESULT XKAPI ErrorInfo_SetDescA(LPCSTR description);                              // 131
XK_EXTERN_C HRESULT XKAPI ErrorInfo_SetDescW(LPCOLESTR description);                           // 132
XK_EXTERN_C HRESULT XKAPI ErrorInfo_SetA(LPCSTR description, LPCSTR source, REFIID iid);        // 133
XK_EXTERN_C HRESULT XKAPI ErrorInfo_SetW(LPCOLESTR description, LPCOLESTR source, REFIID iid);  // 134
XK_EXTERN_C HRESULT XKAPI ErrorInfo_SetHelpA(LPCSTR description, LPCSTR source, REFIID iid,
                                             LPCSTR helpFile, DWORD helpContext);              // 135
XK_EXTERN_C HRESULT XKAPI ErrorInfo_SetHelpW(LPCOLESTR description, LPCOLESTR source, REFIID iid,
                                             LPCOLESTR helpFile, DWORD helpContext);           // 136

// The deferred fill-in callback of an EXCEPINFO.
typedef HRESULT(STDAPICALLTYPE* QV_EXCEPINFO_FILLIN)(EXCEPINFO* pexcepinfo);

// Overwrite every field (BSTRs already there are not freed). At most one of
// code and scode may be non-zero: both give E_INVALIDARG and touch nothing. A
// NULL string, or one that cannot be allocated, leaves its field NULL.
XK_EXTERN_C HRESULT XKAPI EXCEPINFO_InitA(EXCEPINFO* pexcepinfo, WORD code, HRESULT scode,
                                          LPCSTR source, LPCSTR description, LPCSTR helpFile,
                                          DWORD helpContext);                                  // 139
XK_EXTERN_C HRESULT XKAPI EXCEPINFO_InitW(EXCEPINFO* pexcepinfo, WORD code, HRESULT scode,
                                          LPCOLESTR source, LPCOLESTR description,
                                          LPCOLESTR helpFile, DWORD helpContext);              // 140
// The codes are only checked: every field becomes zero except the callback.
XK_EXTERN_C HRESULT XKAPI EXCEPINFO_InitCallback(EXCEPINFO* pexcepinfo, WORD code, HRESULT scode,
                                                 QV_EXCEPINFO_FILLIN fillIn);                  // 141
// Frees the three BSTRs and sets them to NULL; the other fields stay.
XK_EXTERN_C HRESULT XKAPI EXCEPINFO_Clear(EXCEPINFO* pexcepinfo);                              // 142
