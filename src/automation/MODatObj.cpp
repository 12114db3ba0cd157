// The data object over global memory and its format enumerator, written as
// plain structures: each starts with a pointer to a constant table of
// functions laid out as its interface's virtual table, so any client of
// IDataObject calls them as it calls any other. The tables are constants,
// ready before any object can exist; InitialiseQvDataObject only says whether
// it was called before.
//
// The data is read-only after creation and the counts are atomic, so one
// object may be read from several threads; an enumerator, like the
// platform's, is for one thread at a time.
#include <xkcombsd/Atomic.h>
#include <xkcombsd/DataObject.h>
#include <xkcombsd/ScopedValue.h>
#include <xkcombsd/XKAssert.h>

#include "frame/HandOut.h"
#include "frame/RuntimePrimitives.h"

namespace xk::automation {

namespace {

// The expressions are what clients see in the reports; the lines are this
// file's own, one per expression. After a report a method answers E_POINTER
// for a missing pointer, as the library's exports do.
constexpr AssertSite kNoThis = {"MODatObj", 96, "pThis != NULL"};
constexpr AssertSite kNoFormat = {"MODatObj", 97, "lpfe != NULL"};
constexpr AssertSite kNoMedium = {"MODatObj", 98, "lpstm != NULL"};
constexpr AssertSite kNoFormatIn = {"MODatObj", 99, "lpfeIn != NULL"};
constexpr AssertSite kNoFormatOut = {"MODatObj", 100, "lpfeOut != NULL"};
constexpr AssertSite kNoDataObject = {"MODatObj", 101, "pDO != NULL"};
constexpr AssertSite kNoEnumOut = {"MODatObj", 102, "ppenum != NULL"};
constexpr AssertSite kNoElements = {"MODatObj", 103, "rgelt != NULL"};
constexpr AssertSite kNoData = {"MODatObj", 104, "pThis->hData != NULL"};

LONG g_initialised = 0;  // (atomic) whether InitialiseQvDataObject has run

// The bytes of a global block while the view lives. Locking lets a moveable
// block handed over by a caller serve as a fixed one does.
class GlobalBytes {
 public:
  explicit GlobalBytes(HGLOBAL block)
      : m_block(block), m_bytes(block ? static_cast<BYTE*>(GlobalLock(block)) : nullptr) {}
  ~GlobalBytes() {
    if (m_bytes) GlobalUnlock(m_block);
  }
  GlobalBytes(const GlobalBytes&) = delete;
  GlobalBytes& operator=(const GlobalBytes&) = delete;

  BYTE* get() const { return m_bytes; }

 private:
  HGLOBAL m_block;
  BYTE* m_bytes;
};

// Copies cb bytes between two global blocks; false when either cannot be read.
bool CopyGlobal(HGLOBAL to, HGLOBAL from, SIZE_T cb) {
  GlobalBytes target(to), source(from);
  if (cb && (!target.get() || !source.get())) return false;
  MemCopy(target.get(), source.get(), cb);
  return true;
}

// A new fixed block holding the first cb bytes of from, or NULL.
HGLOBAL DuplicateGlobal(HGLOBAL from, SIZE_T cb) {
  ScopedGlobal copy(GlobalAlloc(GMEM_FIXED, cb));
  if (copy.get() && !CopyGlobal(copy.get(), from, cb)) copy.Reset();
  return copy.Detach();
}

struct DataObject;
struct FormatEnumerator;

template <class Object>
HRESULT STDMETHODCALLTYPE QueryInterfaceOf(Object* pThis, REFIID riid, void** ppv);
template <class Object>
ULONG STDMETHODCALLTYPE ReleaseOf(Object* pThis);

// What both structures share: the table, the count, and the two calls HandOut makes.
template <class Object, class Methods>
struct PlainObject {
  const Methods* methods;  // read-only; a constant table
  LONG references;         // (atomic)

  HRESULT QueryInterface(REFIID riid, void** ppv) {
    return QueryInterfaceOf(static_cast<Object*>(this), riid, ppv);
  }
  ULONG Release() { return ReleaseOf(static_cast<Object*>(this)); }
};

// IDataObject's slots, in order.
struct DataObjectMethods {
  HRESULT(STDMETHODCALLTYPE* QueryInterface)(DataObject* pThis, REFIID riid, void** ppv);
  ULONG(STDMETHODCALLTYPE* AddRef)(DataObject* pThis);
  ULONG(STDMETHODCALLTYPE* Release)(DataObject* pThis);
  HRESULT(STDMETHODCALLTYPE* GetData)(DataObject* pThis, FORMATETC* lpfe, STGMEDIUM* lpstm);
  HRESULT(STDMETHODCALLTYPE* GetDataHere)(DataObject* pThis, FORMATETC* lpfe, STGMEDIUM* lpstm);
  HRESULT(STDMETHODCALLTYPE* QueryGetData)(DataObject* pThis, FORMATETC* lpfe);
  HRESULT(STDMETHODCALLTYPE* GetCanonicalFormatEtc)
  (DataObject* pThis, FORMATETC* lpfeIn, FORMATETC* lpfeOut);
  HRESULT(STDMETHODCALLTYPE* SetData)
  (DataObject* pThis, FORMATETC* lpfe, STGMEDIUM* lpstm, BOOL release);
  HRESULT(STDMETHODCALLTYPE* EnumFormatEtc)
  (DataObject* pThis, DWORD direction, IEnumFORMATETC** ppenum);
  HRESULT(STDMETHODCALLTYPE* DAdvise)
  (DataObject* pThis, FORMATETC* lpfe, DWORD flags, IAdviseSink* sink, DWORD* connection);
  HRESULT(STDMETHODCALLTYPE* DUnadvise)(DataObject* pThis, DWORD connection);
  HRESULT(STDMETHODCALLTYPE* EnumDAdvise)(DataObject* pThis, IEnumSTATDATA** ppenum);
};

// IEnumFORMATETC's slots, in order.
struct EnumeratorMethods {
  HRESULT(STDMETHODCALLTYPE* QueryInterface)(FormatEnumerator* pThis, REFIID riid, void** ppv);
  ULONG(STDMETHODCALLTYPE* AddRef)(FormatEnumerator* pThis);
  ULONG(STDMETHODCALLTYPE* Release)(FormatEnumerator* pThis);
  HRESULT(STDMETHODCALLTYPE* Next)
  (FormatEnumerator* pThis, ULONG celt, FORMATETC* rgelt, ULONG* pceltFetched);
  HRESULT(STDMETHODCALLTYPE* Skip)(FormatEnumerator* pThis, ULONG celt);
  HRESULT(STDMETHODCALLTYPE* Reset)(FormatEnumerator* pThis);
  HRESULT(STDMETHODCALLTYPE* Clone)(FormatEnumerator* pThis, IEnumFORMATETC** ppenum);
};

struct DataObject : PlainObject<DataObject, DataObjectMethods> {
  static const IID& Iid() { return IID_IDataObject; }

  HGLOBAL hData;        // read-only; owned, freed with the object
  DWORD cbData;         // read-only
  CLIPFORMAT cfFormat;  // read-only
};

struct FormatEnumerator : PlainObject<FormatEnumerator, EnumeratorMethods> {
  static const IID& Iid() { return IID_IEnumFORMATETC; }

  BOOL done;            // the enumerator's one thread's; set once the element is behind
  CLIPFORMAT cfFormat;  // read-only
};

// An enumerator for the one format, at its start; made after the tables below.
HRESULT NewEnumerator(CLIPFORMAT format, IEnumFORMATETC** ppenum);

// The one FORMATETC a data object accepts and reports.
FORMATETC OfferedFormat(CLIPFORMAT format) {
  return FORMATETC{format, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
}

// Exact: the aspect and the medium must be the one offered, not sets that
// include it. The target device is not looked at.
bool Matches(const DataObject* pThis, const FORMATETC* lpfe) {
  return lpfe->cfFormat == pThis->cfFormat && lpfe->dwAspect == DVASPECT_CONTENT &&
         lpfe->lindex < 0 && lpfe->tymed == TYMED_HGLOBAL;
}

void Destroy(DataObject* pThis) {
  GlobalFree(pThis->hData);
  GlobalFree(pThis);
}

void Destroy(FormatEnumerator* pThis) { GlobalFree(pThis); }

template <class Object>
HRESULT STDMETHODCALLTYPE QueryInterfaceOf(Object* pThis, REFIID riid, void** ppv) {
  if (!Verify(pThis != NULL, kNoThis) || !ppv) return E_POINTER;
  *ppv = nullptr;
  if (riid != IID_IUnknown && riid != Object::Iid()) return E_NOINTERFACE;
  AtomicIncrement(&pThis->references);
  *ppv = pThis;
  return S_OK;
}

template <class Object>
ULONG STDMETHODCALLTYPE AddRefOf(Object* pThis) {
  if (!Verify(pThis != NULL, kNoThis)) return 0;
  return static_cast<ULONG>(AtomicIncrement(&pThis->references));
}

template <class Object>
ULONG STDMETHODCALLTYPE ReleaseOf(Object* pThis) {
  if (!Verify(pThis != NULL, kNoThis)) return 0;
  const LONG left = AtomicDecrement(&pThis->references);
  if (left == 0) Destroy(pThis);
  return static_cast<ULONG>(left);
}

// ---- the data object -------------------------------------------------------

HRESULT STDMETHODCALLTYPE GetData(DataObject* pThis, FORMATETC* lpfe, STGMEDIUM* lpstm) {
  if (!Verify(pThis != NULL, kNoThis) || !Verify(lpfe != NULL, kNoFormat) ||
      !Verify(lpstm != NULL, kNoMedium))
    return E_POINTER;
  if (!Matches(pThis, lpfe)) return DV_E_FORMATETC;
  if (!Verify(pThis->hData != NULL, kNoData)) return E_UNEXPECTED;
  HGLOBAL copy = DuplicateGlobal(pThis->hData, pThis->cbData);
  if (!copy) return E_OUTOFMEMORY;
  lpstm->tymed = TYMED_HGLOBAL;
  lpstm->hGlobal = copy;
  lpstm->pUnkForRelease = nullptr;
  return S_OK;
}

// A caller's block smaller than the data takes what fits, without complaint.
HRESULT STDMETHODCALLTYPE GetDataHere(DataObject* pThis, FORMATETC* lpfe, STGMEDIUM* lpstm) {
  if (!Verify(pThis != NULL, kNoThis) || !Verify(lpfe != NULL, kNoFormat) ||
      !Verify(lpstm != NULL, kNoMedium))
    return E_POINTER;
  if (!Matches(pThis, lpfe)) return DV_E_FORMATETC;
  if (lpstm->tymed != TYMED_HGLOBAL) return DV_E_TYMED;
  if (!Verify(pThis->hData != NULL, kNoData)) return E_UNEXPECTED;
  const SIZE_T room = GlobalSize(lpstm->hGlobal);
  CopyGlobal(lpstm->hGlobal, pThis->hData, room < pThis->cbData ? room : pThis->cbData);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE QueryGetData(DataObject* pThis, FORMATETC* lpfe) {
  if (!Verify(pThis != NULL, kNoThis) || !Verify(lpfe != NULL, kNoFormat)) return E_POINTER;
  if (!Matches(pThis, lpfe)) return S_FALSE;
  if (!Verify(pThis->hData != NULL, kNoData)) return E_UNEXPECTED;
  return S_OK;
}

HRESULT STDMETHODCALLTYPE GetCanonicalFormatEtc(DataObject* pThis, FORMATETC* lpfeIn,
                                                FORMATETC* lpfeOut) {
  if (!Verify(pThis != NULL, kNoThis) || !Verify(lpfeIn != NULL, kNoFormatIn) ||
      !Verify(lpfeOut != NULL, kNoFormatOut))
    return E_POINTER;
  if (lpfeIn->lindex != -1) return DV_E_LINDEX;
  *lpfeOut = FORMATETC{};
  return DATA_S_SAMEFORMATETC;
}

HRESULT STDMETHODCALLTYPE SetData(DataObject*, FORMATETC*, STGMEDIUM*, BOOL) { return E_NOTIMPL; }

// The output stays NULL when no enumerator can be made; the answer is S_OK
// all the same.
HRESULT STDMETHODCALLTYPE EnumFormatEtc(DataObject* pThis, DWORD direction,
                                        IEnumFORMATETC** ppenum) {
  const bool present = Verify(pThis != NULL, kNoThis) & Verify(ppenum != NULL, kNoEnumOut);
  if (direction == DATADIR_SET) return E_NOTIMPL;
  if (!present) return E_POINTER;
  *ppenum = nullptr;
  NewEnumerator(pThis->cfFormat, ppenum);
  return S_OK;
}

HRESULT STDMETHODCALLTYPE DAdvise(DataObject*, FORMATETC*, DWORD, IAdviseSink*, DWORD*) {
  return E_NOTIMPL;
}

HRESULT STDMETHODCALLTYPE DUnadvise(DataObject*, DWORD) { return E_NOTIMPL; }

HRESULT STDMETHODCALLTYPE EnumDAdvise(DataObject*, IEnumSTATDATA**) { return E_NOTIMPL; }

// ---- the format enumerator -------------------------------------------------

HRESULT STDMETHODCALLTYPE Next(FormatEnumerator* pThis, ULONG celt, FORMATETC* rgelt,
                               ULONG* pceltFetched) {
  const bool present = Verify(pThis != NULL, kNoThis) & Verify(rgelt != NULL, kNoElements);
  if (!pceltFetched && celt != 1) return E_INVALIDARG;
  if (!pThis) return E_POINTER;
  if (pThis->done) return S_FALSE;
  if (pceltFetched) *pceltFetched = 0;
  if (celt == 0) return S_OK;
  if (!present) return E_POINTER;
  rgelt[0] = OfferedFormat(pThis->cfFormat);
  pThis->done = TRUE;
  if (pceltFetched) *pceltFetched = 1;
  return celt == 1 ? S_OK : S_FALSE;
}

HRESULT STDMETHODCALLTYPE Skip(FormatEnumerator* pThis, ULONG celt) {
  if (!Verify(pThis != NULL, kNoThis)) return E_POINTER;
  if (celt == 0) return S_OK;
  const bool skippedAsAsked = !pThis->done && celt == 1;
  pThis->done = TRUE;
  return skippedAsAsked ? S_OK : S_FALSE;
}

HRESULT STDMETHODCALLTYPE Reset(FormatEnumerator* pThis) {
  if (!Verify(pThis != NULL, kNoThis)) return E_POINTER;
  pThis->done = FALSE;
  return S_OK;
}

// A clone starts at the beginning: the position is not copied.
HRESULT STDMETHODCALLTYPE Clone(FormatEnumerator* pThis, IEnumFORMATETC** ppenum) {
  if (!Verify(pThis != NULL, kNoThis) || !Verify(ppenum != NULL, kNoEnumOut)) return E_POINTER;
  *ppenum = nullptr;
  return NewEnumerator(pThis->cfFormat, ppenum);
}

constexpr DataObjectMethods kDataObjectMethods = {&QueryInterfaceOf<DataObject>,
                                                  &AddRefOf<DataObject>,
                                                  &ReleaseOf<DataObject>,
                                                  &GetData,
                                                  &GetDataHere,
                                                  &QueryGetData,
                                                  &GetCanonicalFormatEtc,
                                                  &SetData,
                                                  &EnumFormatEtc,
                                                  &DAdvise,
                                                  &DUnadvise,
                                                  &EnumDAdvise};

constexpr EnumeratorMethods kEnumeratorMethods = {&QueryInterfaceOf<FormatEnumerator>,
                                                  &AddRefOf<FormatEnumerator>,
                                                  &ReleaseOf<FormatEnumerator>,
                                                  &Next,
                                                  &Skip,
                                                  &Reset,
                                                  &Clone};

// The slots are the interfaces' own, one pointer each.
static_assert(sizeof(DataObjectMethods) == 12 * sizeof(void*));
static_assert(sizeof(EnumeratorMethods) == 7 * sizeof(void*));

HRESULT NewEnumerator(CLIPFORMAT format, IEnumFORMATETC** ppenum) {
  auto* created = static_cast<FormatEnumerator*>(GlobalAlloc(GMEM_FIXED, sizeof(FormatEnumerator)));
  if (created) *created = FormatEnumerator{{&kEnumeratorMethods, 1}, FALSE, format};
  return HandOut(created, IID_IEnumFORMATETC, reinterpret_cast<void**>(ppenum));
}

// Takes the block: it goes with the object, or here when none can be made.
HRESULT HandOutDataObject(ScopedGlobal* block, SIZE_T cb, CLIPFORMAT format, IDataObject** ppDO) {
  auto* created = static_cast<DataObject*>(GlobalAlloc(GMEM_FIXED, sizeof(DataObject)));
  if (created)
    *created =
        DataObject{{&kDataObjectMethods, 1}, block->Detach(), static_cast<DWORD>(cb), format};
  return HandOut(created, IID_IDataObject, reinterpret_cast<void**>(ppDO));
}

}  // namespace

}  // namespace xk::automation

using namespace xk;
using namespace xk::automation;

// ---- InitialiseQvDataObject --------------------------------------------------
extern "C" int WINAPI InitialiseQvDataObject() {
  return InterlockedExchange(&g_initialised, 1) ? 1 : 0;
}

// ---- GetDataObjectFromHGlobal ------------------------------------------------
// Always offered as CF_TEXT. A copy that cannot be made fails with
// E_OUTOFMEMORY rather than making an object without data.
extern "C" HRESULT WINAPI GetDataObjectFromHGlobal(HGLOBAL data, IDataObject** ppDO,
                                                   BOOL takeOwnership) {
  if (!ppDO) return E_POINTER;
  *ppDO = nullptr;
  if (!data || GlobalFlags(data) == GMEM_INVALID_HANDLE) return E_HANDLE;
  const SIZE_T cb = GlobalSize(data);
  if (cb == 0) return E_UNEXPECTED;
  ScopedGlobal block(takeOwnership ? data : DuplicateGlobal(data, cb));
  if (!block.get()) return E_OUTOFMEMORY;
  return HandOutDataObject(&block, cb, CF_TEXT, ppDO);
}

// ---- GetDataObjectFromMemory -------------------------------------------------
extern "C" HRESULT WINAPI GetDataObjectFromMemory(const void* bytes, DWORD count,
                                                  IDataObject** ppDO, CLIPFORMAT format) {
  if (!bytes) count = 0;
  if (!ppDO) return E_POINTER;
  ScopedGlobal block(GlobalAlloc(GMEM_FIXED, count));
  *ppDO = nullptr;
  if (!block.get()) return E_OUTOFMEMORY;
  MemCopy(block.get(), bytes, count);
  return HandOutDataObject(&block, count, format, ppDO);
}

// ---- DataObject_GetHDrop -----------------------------------------------------
// A NULL object is reported under the name the data object's own reports give
// it. A medium other than global memory is no drop handle: it is released
// whole and refused, so the caller never holds something it cannot free.
extern "C" HRESULT WINAPI DataObject_GetHDrop(IDataObject* pDO, HGLOBAL* drop) {
  if (!Verify(pDO != NULL, kNoDataObject) || !drop) return E_INVALIDARG;
  *drop = nullptr;
  FORMATETC request = OfferedFormat(CF_HDROP);
  STGMEDIUM medium = {};
  const HRESULT hr = pDO->GetData(&request, &medium);
  if (FAILED(hr)) return hr;
  if (medium.tymed != TYMED_HGLOBAL) {
    ReleaseStgMedium(&medium);
    return DV_E_TYMED;
  }
  // Cleared in the medium, the handle outlives its release and is the caller's.
  *drop = medium.hGlobal;
  medium.hGlobal = nullptr;
  ReleaseStgMedium(&medium);
  return hr;
}
