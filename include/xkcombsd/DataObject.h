// A data object that offers one block of bytes in one clipboard format
// through global memory (TYMED_HGLOBAL, aspect DVASPECT_CONTENT, lindex -1),
// for any consumer of IDataObject: the clipboard, drag and drop. GetData hands
// out a copy that the caller owns; the data never changes after creation.
// SetData and the advise methods answer E_NOTIMPL.
#pragma once

#include <xkcombsd/XKApi.h>

// 0 on the first call, 1 on every later one. The objects need no preparation:
// a client may call it as it always has, and need not.
XK_EXTERN_C int XKAPI InitialiseQvDataObject(void);  // 66

// Offers the block's GlobalSize bytes as CF_TEXT. Without ownership the bytes
// are copied and the caller's handle stays as it was; with it, the object
// frees the handle when it goes, or at once when it cannot be made.
// E_HANDLE: no handle, or not a valid one. E_UNEXPECTED: an empty block.
XK_EXTERN_C HRESULT XKAPI GetDataObjectFromHGlobal(HGLOBAL data, IDataObject** object,
                                                   BOOL takeOwnership);  // 67
// Copies count bytes (none when bytes is NULL) and offers them in format.
XK_EXTERN_C HRESULT XKAPI GetDataObjectFromMemory(const void* bytes, DWORD count,
                                                  IDataObject** object,
                                                  CLIPFORMAT format);  // 68

// The CF_HDROP handle of any data object, for the caller to free (exported by
// ordinal only). E_INVALIDARG for a NULL object or output; otherwise what the
// object's GetData answered.
XK_EXTERN_C HRESULT XKAPI DataObject_GetHDrop(IDataObject* object, HGLOBAL* drop);  // 137
