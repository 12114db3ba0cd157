// Array records are not implemented: every call answers E_NOTIMPL, so a VARIANT
// holding an array can neither be saved nor loaded. The save and the load still
// arm a position guard and never commit it, so the stream is always back where
// it was, and they still name an array kind that no array record could carry.
#include <xkcombsd/Persist.h>

#include "persist/RecordIO.h"
#include "persist/StreamPositionGuard.h"

namespace xk::persist {
namespace {

// The same text on the save and the load side.
constexpr char kUnrecognisedArray[] =
    "SAFEARRAY_SaveToStream: Unrecognised SAFEARRAY type. Cannot Write\n";

// An array record would carry only arrays of BSTRs, objects or VARIANTs; the
// kind is the array's feature flags masked with 0x0F00.
bool IsRecordedKind(DWORD features) {
  switch (features & 0x0F00) {
    case FADF_BSTR:
    case FADF_UNKNOWN:
    case FADF_DISPATCH:
    case FADF_VARIANT:
      return true;
    default:
      return false;
  }
}

void ReportIfUnrecorded(DWORD features) {
  if (!IsRecordedKind(features)) OutputDebugStringA(kUnrecognisedArray);
}

}  // namespace
}  // namespace xk::persist

using namespace xk::persist;

// ---- SAFEARRAY_GetSizeMax ----------------------------------------------------
extern "C" HRESULT WINAPI SAFEARRAY_GetSizeMax(SAFEARRAY*, ULONG*) { return E_NOTIMPL; }

// ---- SAFEARRAY_SaveToStream --------------------------------------------------
extern "C" HRESULT WINAPI SAFEARRAY_SaveToStream(IStream* pstm, SAFEARRAY* psa) {
  StreamPositionGuard neverCommitted(pstm);
  if (psa) ReportIfUnrecorded(psa->fFeatures);
  return E_NOTIMPL;
}

// ---- SAFEARRAY_LoadFromStream ------------------------------------------------
extern "C" HRESULT WINAPI SAFEARRAY_LoadFromStream(IStream* pstm, SAFEARRAY**) {
  StreamPositionGuard neverCommitted(pstm);
  // The kind a record would start with; the caller's array pointer is never written.
  ULONG kind;
  if (pstm && SUCCEEDED(ReadUInt32(pstm, &kind))) ReportIfUnrecorded(kind);
  return E_NOTIMPL;
}
