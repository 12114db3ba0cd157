// Lists of property-page class ids, as ISpecifyPropertyPages::GetPages hands
// them out: a counted array from the task allocator, grown by appending.
#include <xkcombsd/PropertyPages.h>
#include <xkcombsd/Strings.h>
#include <xkcombsd/XKAssert.h>

#include "frame/RuntimePrimitives.h"

// ---- AddPropPageIDs ----------------------------------------------------------
// An array the task allocator did not make cannot be resized by it: after the
// report the call fails as a failed resize does, rather than hand a foreign
// block to CoTaskMemRealloc.
extern "C" HRESULT WINAPI AddPropPageIDs(CAUUID* pPgInfo, const GUID* ids, ULONG count) {
  if (!pPgInfo || !ids) return E_POINTER;
  if (count == 0) return S_FALSE;
  if (!xk::Verify(CoTaskMemDidAlloc(pPgInfo->pElems) != 0,
                  {"MOPrpPgs", 44, "CoTaskMemDidAlloc(pPgInfo->pElems) != 0"}))
    return E_FAIL;
  const ULONG total = pPgInfo->cElems + count;
  const ULONGLONG bytes = ULONGLONG{total} * sizeof(GUID);
  if (total < count || bytes != static_cast<SIZE_T>(bytes)) return E_FAIL;
  auto* grown = static_cast<GUID*>(CoTaskMemRealloc(pPgInfo->pElems, static_cast<SIZE_T>(bytes)));
  if (!grown) return E_FAIL;
  xk::MemCopy(grown + pPgInfo->cElems, ids, count * sizeof(GUID));
  pPgInfo->pElems = grown;
  pPgInfo->cElems = total;
  return S_OK;
}

// ---- AddPropPages ------------------------------------------------------------
extern "C" HRESULT WINAPI AddPropPages(CAUUID* pPgInfo, const CAUUID* more) {
  if (!more) return E_POINTER;
  return AddPropPageIDs(pPgInfo, more->pElems, more->cElems);
}
