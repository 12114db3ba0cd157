// Property bags: an ordered list of named VARIANTs, served as the classes
// PropertyBag (free-threaded) and PropertyBag_ST (one thread at a time). Names
// are compared exactly, case-sensitively. Besides IPropertyBag a bag answers
// IPropertyBagEdit below, ISupportErrorInfo and IPersistStream (Load only).
// Warnings (S_FALSE results) leave their text as the thread's error
// information, with the source "Quorvel Software PropertyBag Implementation".
#pragma once

#include <ocidl.h>  // IPropertyBag
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/InterfaceDeclarations.h>
#include <xkcombsd/XKApi.h>

// Count; Remove answers E_FAIL for an absent name and S_FALSE for an empty
// one; Empty answers S_FALSE when there was nothing; Add replaces the value of
// an existing name and answers S_FALSE; Item copies the value (E_INVALIDARG
// for an absent name); _NewEnum lists copies of the names as they are now.
DECLARE_INTERFACE_(IPropertyBagEdit, IUnknown) {
  QV_INHERITED(QV_IUNKNOWN_METHODS(IPropertyBagEdit))
  STDMETHOD(Count)(QV_THIS_(IPropertyBagEdit) LONG* count) PURE;
  STDMETHOD(Remove)(QV_THIS_(IPropertyBagEdit) LPWSTR name) PURE;
  STDMETHOD(Empty)(QV_THIS(IPropertyBagEdit)) PURE;
  STDMETHOD(Add)(QV_THIS_(IPropertyBagEdit) LPWSTR name, VARIANT* value) PURE;
  STDMETHOD(Item)(QV_THIS_(IPropertyBagEdit) LPWSTR name, VARIANT* value) PURE;
  STDMETHOD(_NewEnum)(QV_THIS_(IPropertyBagEdit) IEnumString** ppenum) PURE;
};

// The bag's own size through IPersistStream: 16 for an empty library bag;
// PERSIST_E_SIZEDEFINITE for a size beyond 32 bits.
XK_EXTERN_C HRESULT XKAPI PropertyBag_GetSizeMax(IUnknown* bag, ULONG* pcb);                 // 81
// A bag from an object record (class id, then the object's data); with no
// stream, a new empty free-threaded bag.
XK_EXTERN_C HRESULT XKAPI PropertyBag_LoadFromStream(IStream* pstm, IPropertyBag** ppbag);   // 82
// OleInitFromStream and OleSaveUnknownToStream under these names. The
// library's own bags refuse to save (E_NOTIMPL) after their class id is written.
XK_EXTERN_C HRESULT XKAPI PropertyBag_InitFromStream(IStream* pstm, IUnknown* bag);          // 83
XK_EXTERN_C HRESULT XKAPI PropertyBag_SaveToStream(IStream* pstm, IUnknown* bag);            // 84
// As PropertyBag_SaveToStream; a success also releases bag once.
XK_EXTERN_C HRESULT XKAPI PropertyBag_SaveToStreamAndRelease(IStream* pstm, IUnknown* bag);  // 85
