// Stream records of strings, objects, VARIANTs and arrays. Every record integer
// is little-endian and the records are the same on every target. A save or load
// that fails leaves the stream's seek position where it was on entry; bytes
// already written stay beyond it.
#pragma once

#include <xkcombsd/XKApi.h>
#include <oaidl.h>

// Object records: the class id (as WriteClassStm writes it), then the object's
// own data; 16 zero bytes for a null pointer.
XK_EXTERN_C HRESULT XKAPI OleInitFromStream(IStream* pstm, IUnknown* punk);                  // 13
XK_EXTERN_C HRESULT XKAPI OleSaveUnknownToStream(IStream* pstm, IUnknown* punk);             // 14

// OLE-string records: a byte count including the terminator (0 for NULL), then
// the characters. The size query counts the whole record.
XK_EXTERN_C HRESULT XKAPI OleString_GetSizeMax(LPCOLESTR psz, ULONG* pcb);                   // 23
XK_EXTERN_C HRESULT XKAPI OleString_SaveToStream(IStream* pstm, LPCOLESTR psz);              // 24
XK_EXTERN_C HRESULT XKAPI OleString_LoadFromStream(IStream* pstm, LPOLESTR* ppsz);           // 25

// BSTR records: SysStringByteLen + 2 (0 for NULL), then the bytes and the
// terminator. The size query counts the bytes after the count field only.
XK_EXTERN_C HRESULT XKAPI BSTR_GetSizeMax(BSTR bstr, ULONG* pcb);                            // 41
XK_EXTERN_C HRESULT XKAPI BSTR_SaveToStream(IStream* pstm, BSTR bstr);                       // 42
XK_EXTERN_C HRESULT XKAPI BSTR_LoadFromStream(IStream* pstm, BSTR* pbstr);                   // 43

// VARIANT records: 16 bytes (vt, three reserved words, the first 8 bytes of the
// value), then a BSTR, object or array record where vt calls for one.
XK_EXTERN_C HRESULT XKAPI VARIANT_GetSizeMax(const VARIANT* pvar, ULONG* pcb);               // 46
XK_EXTERN_C HRESULT XKAPI VARIANT_SaveToStream(IStream* pstm, const VARIANT* pvar);          // 47
XK_EXTERN_C HRESULT XKAPI VARIANT_LoadFromStream(IStream* pstm, VARIANT* pvar);              // 48
XK_EXTERN_C void    XKAPI VARIANT_InitI4(VARIANT* pvar, LONG number);                        // 49
XK_EXTERN_C void    XKAPI VARIANT_InitBSTRA(VARIANT* pvar, LPCSTR psz);                      // 121
XK_EXTERN_C void    XKAPI VARIANT_InitBSTRW(VARIANT* pvar, LPCOLESTR psz);                   // 122

// Property records: the name's byte length rounded up to a multiple of 4, the
// name's characters (no terminator) and 0 or 2 zero bytes of padding, then a
// VARIANT record. Names are never empty. The loaded name is the caller's
// (OleString_Destroy), also after a failure that left it allocated. The size
// query answers E_NOTIMPL and 0 for every valid name, as a VARIANT record's
// size is never known.
XK_EXTERN_C HRESULT XKAPI Property_GetSizeMax(LPCOLESTR name, const VARIANT* value,
                                              ULONG* pcb);                                   // 56
XK_EXTERN_C HRESULT XKAPI Property_SaveToStream(IStream* pstm, LPCOLESTR name,
                                                const VARIANT* value);                       // 57
XK_EXTERN_C HRESULT XKAPI Property_LoadFromStream(IStream* pstm, LPOLESTR* pname,
                                                  VARIANT* value);                           // 58

// Array records are not implemented: every call answers E_NOTIMPL.
XK_EXTERN_C HRESULT XKAPI SAFEARRAY_GetSizeMax(SAFEARRAY* psa, ULONG* pcb);                  // 51
XK_EXTERN_C HRESULT XKAPI SAFEARRAY_SaveToStream(IStream* pstm, SAFEARRAY* psa);             // 52
XK_EXTERN_C HRESULT XKAPI SAFEARRAY_LoadFromStream(IStream* pstm, SAFEARRAY** ppsa);         // 53

// Times: FILETIME to an automation DATE; the reverse is not implemented.
XK_EXTERN_C HRESULT XKAPI FileTimeToVariantTime(const FILETIME* pft, DATE* pdate);           // 152
XK_EXTERN_C HRESULT XKAPI VariantTimeToFileTime(DATE date, FILETIME* pft);                   // 153
