// Small VARIANT and time helpers exported beside the VARIANT records.
#include <xkcombsd/Persist.h>
#include <xkcombsd/Strings.h>
#include <xkcombsd/XKAssert.h>

#include "frame/Win32Error.h"

namespace xk::persist {
namespace {

constexpr char kSource[] = "MOVar";

// A null VARIANT is a broken contract: reported, and nothing is written.
bool ValidVariant(VARIANT* pvar, int line) {
  return Verify(pvar != nullptr, {kSource, line, "pvar != NULL"});
}

// The previous content is not released: these fill an empty or uninitialised VARIANT.
void InitBstr(VARIANT* pvar, BSTR text) {
  VariantInit(pvar);
  pvar->vt = VT_BSTR;
  pvar->bstrVal = text;  // null when the string could not be made
}

}  // namespace
}  // namespace xk::persist

using namespace xk::persist;

// ---- VARIANT_InitI4 ----------------------------------------------------------
extern "C" void WINAPI VARIANT_InitI4(VARIANT* pvar, LONG number) {
  if (!ValidVariant(pvar, 27)) return;
  VariantInit(pvar);
  pvar->vt = VT_I4;
  pvar->lVal = number;
}

// ---- VARIANT_InitBSTRA -------------------------------------------------------
extern "C" void WINAPI VARIANT_InitBSTRA(VARIANT* pvar, LPCSTR psz) {
  if (!ValidVariant(pvar, 38)) return;
  InitBstr(pvar, BSTR_CreateA(psz, -1));
}

// ---- VARIANT_InitBSTRW -------------------------------------------------------
extern "C" void WINAPI VARIANT_InitBSTRW(VARIANT* pvar, LPCOLESTR psz) {
  if (!ValidVariant(pvar, 49)) return;
  InitBstr(pvar, BSTR_CreateW(psz, -1));
}

// ---- FileTimeToVariantTime ---------------------------------------------------
extern "C" HRESULT WINAPI FileTimeToVariantTime(const FILETIME* pft, DATE* pdate) {
  if (!pft || !pdate) return E_POINTER;
  SYSTEMTIME broken;
  if (!FileTimeToSystemTime(pft, &broken)) return xk::HResultFromLastError();
  // SystemTimeToVariantTime only says no; the likely reason is a year past what a
  // DATE holds, hence an overflow.
  return SystemTimeToVariantTime(&broken, pdate) ? S_OK : DISP_E_OVERFLOW;
}

// ---- VariantTimeToFileTime ---------------------------------------------------
extern "C" HRESULT WINAPI VariantTimeToFileTime(DATE, FILETIME*) { return E_NOTIMPL; }
