// Collections and enumerators of five element kinds: BSTR, GUID, OLE string,
// IUnknown* and VARIANT. One object of a kind is at once a growable, ordered
// sequence (ICollXxx, extended by ISeqXxx) and an enumerator over that same
// sequence (IEnumXxx) whose position belongs to the object: _NewEnum hands out
// the object itself, so every enumerator obtained that way shares one position,
// while Clone makes an independent copy. The object's IUnknown is its
// enumerator interface.
//
// Items handed in are copied; items handed out are copies the caller owns
// (SysFreeString, CoTaskMemFree, Release, VariantClear). Every method may be
// called from any thread.
//
// The interfaces are declared for C++ and C alike (InterfaceDeclarations.h).
#pragma once

#include <comcat.h>  // IEnumGUID
#include <oaidl.h>   // IEnumVARIANT
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/InterfaceDeclarations.h>
#include <xkcombsd/XKApi.h>

// The library's own IEnumGUID (IID_IQvEnumGUID) has the platform IEnumGUID's
// methods in the same slots, so the platform declaration is used for both.

// ICollXxx: Count; Add appends copies and keeps the position's index; Empty
// answers S_FALSE when there was nothing; _NewEnum does not reset the position.
#define QV_ICOLL_METHODS(iface, Item, IEnum)                                                      \
  STDMETHOD(Count)(QV_THIS_(iface) long* rcount) PURE;                                            \
  STDMETHOD(Add)(QV_THIS_(iface) const Item* items, ULONG cItems) PURE;                           \
  STDMETHOD(Empty)(QV_THIS(iface)) PURE;                                                          \
  STDMETHOD(_NewEnum)(QV_THIS_(iface) IEnum** ppenum) PURE;

// ISeqXxx: the position is the index of the next element Next returns, from 0
// to Count (the end). Indices out of range answer E_INVALIDARG and change
// nothing; InsertAt of no items answers S_FALSE.
#define QV_ISEQ_METHODS(iface, Item)                                                              \
  STDMETHOD(GetPosition)(QV_THIS_(iface) ULONG* pIndex) PURE;                                     \
  STDMETHOD(SetPosition)(QV_THIS_(iface) long index) PURE;                                        \
  STDMETHOD(RemoveAt)(QV_THIS_(iface) ULONG index) PURE;                                          \
  STDMETHOD(InsertAt)(QV_THIS_(iface) ULONG index, const Item* items, ULONG cItems) PURE;         \
  STDMETHOD(SetAt)(QV_THIS_(iface) ULONG index, const Item* item) PURE;

// The two interfaces of one kind: Item is the type its items are handed in as.
#define QV_DECLARE_COLLECTION(Kind, Item, IEnum)                                                  \
  DECLARE_INTERFACE_(IColl##Kind, IUnknown) {                                                     \
    QV_INHERITED(QV_IUNKNOWN_METHODS(IColl##Kind))                                                \
    QV_ICOLL_METHODS(IColl##Kind, Item, IEnum)                                                    \
  };                                                                                              \
  DECLARE_INTERFACE_(ISeq##Kind, IColl##Kind) {                                                   \
    QV_INHERITED(QV_IUNKNOWN_METHODS(ISeq##Kind) QV_ICOLL_METHODS(ISeq##Kind, Item, IEnum))       \
    QV_ISEQ_METHODS(ISeq##Kind, Item)                                                             \
  };

// IEnumBSTR: the platform enumerator contract over BSTRs.
DECLARE_INTERFACE_(IEnumBSTR, IUnknown) {
  QV_INHERITED(QV_IUNKNOWN_METHODS(IEnumBSTR))
  STDMETHOD(Next)(QV_THIS_(IEnumBSTR) ULONG celt, BSTR* rgelt, ULONG* pceltFetched) PURE;
  STDMETHOD(Skip)(QV_THIS_(IEnumBSTR) ULONG celt) PURE;
  STDMETHOD(Reset)(QV_THIS(IEnumBSTR)) PURE;
  STDMETHOD(Clone)(QV_THIS_(IEnumBSTR) IEnumBSTR** ppenum) PURE;
};

QV_DECLARE_COLLECTION(BSTR, BSTR, IEnumBSTR)
QV_DECLARE_COLLECTION(GUID, GUID, IEnumGUID)
QV_DECLARE_COLLECTION(String, LPCOLESTR, IEnumString)
QV_DECLARE_COLLECTION(Unknown, LPUNKNOWN, IEnumUnknown)
QV_DECLARE_COLLECTION(VARIANT, VARIANT, IEnumVARIANT)

// Creators: a new enumerator at its first element holding copies of
// items[0..cItems); NULL items with a count of 0 make an empty one. Its
// collection interfaces are reached with QueryInterface. Exported by ordinal
// only. EnumString_Create also writes each string, then "\n", to the debugger
// output. EnumGUID_Create hands out the library's IEnumGUID (IID_IQvEnumGUID).
XK_EXTERN_C HRESULT XKAPI EnumString_Create(const LPCOLESTR* items, ULONG cItems,
                                            IEnumString** ppenum);              // 144
XK_EXTERN_C HRESULT XKAPI EnumUnknown_Create(IUnknown* const* items, ULONG cItems,
                                             IEnumUnknown** ppenum);            // 145
XK_EXTERN_C HRESULT XKAPI EnumGUID_Create(const GUID* items, ULONG cItems,
                                          IEnumGUID** ppenum);                  // 146
XK_EXTERN_C HRESULT XKAPI EnumBSTR_Create(const BSTR* items, ULONG cItems,
                                          IEnumBSTR** ppenum);                  // 147
XK_EXTERN_C HRESULT XKAPI EnumVARIANT_Create(const VARIANT* items, ULONG cItems,
                                             IEnumVARIANT** ppenum);            // 158

// An IEnumUnknown over punk: its own, or (for an object that only enumerates
// VARIANTs) an adapter that hands out each VARIANT's object. The adapter is for
// one thread at a time.
XK_EXTERN_C HRESULT XKAPI EnumUnknown_FromUnknown(IUnknown* punk, IEnumUnknown** ppenum);

// Fetches the next item of an IEnumUnknown or IEnumVARIANT and queries it for
// riid. S_FALSE at the end, with *ppv untouched.
XK_EXTERN_C HRESULT XKAPI Enum_QueryNextItem(IUnknown* penum, REFIID riid, void** ppv);
