// Error information on the calling thread, and the platform's exception
// record. The error object is always the platform's own (CreateErrorInfo), so
// any client reading GetErrorInfo sees what it expects.
#include <xkcombsd/ErrorInfo.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/ScopedValue.h>
#include <xkcombsd/Strings.h>

namespace xk::automation {

namespace {

// How far down the setter chain a member goes.
enum class Fields { Description, SourceAndGuid, All };

HRESULT SetThreadErrorInfo(Fields fields, LPCOLESTR description, LPCOLESTR source, REFIID iid,
                           LPCOLESTR helpFile, DWORD helpContext) {
  MLRelItf<ICreateErrorInfo> created;
  HRESULT hr = CreateErrorInfo(created.put());
  if (FAILED(hr)) return hr;
  // The cast: the setters take LPOLESTR, but only read it.
  hr = created->SetDescription(const_cast<LPOLESTR>(description));
  if (fields != Fields::Description) {
    if (SUCCEEDED(hr)) hr = created->SetSource(const_cast<LPOLESTR>(source));
    if (SUCCEEDED(hr)) hr = created->SetGUID(iid);
  }
  if (fields == Fields::All) {
    if (SUCCEEDED(hr)) hr = created->SetHelpFile(const_cast<LPOLESTR>(helpFile));
    if (SUCCEEDED(hr)) hr = created->SetHelpContext(helpContext);
  }
  if (FAILED(hr)) return hr;
  MLRelItf<IErrorInfo> info;
  hr = created->QueryInterface(IID_IErrorInfo, info.put_void());
  if (FAILED(hr)) return hr;
  return SetErrorInfo(0, info.get());
}

// A narrow string as the BSTR its wide twin is given, freed after the call.
class WideArgument {
 public:
  explicit WideArgument(LPCSTR text) : m_text(BSTR_CreateA(text, -1)) {}
  LPCOLESTR get() const { return m_text.get(); }

 private:
  ScopedBstr m_text;
};

bool BothCodes(WORD code, HRESULT scode) { return code != 0 && scode != 0; }

BSTR BstrOf(LPCSTR text) { return BSTR_CreateA(text, -1); }
BSTR BstrOf(LPCOLESTR text) { return BSTR_CreateW(text, -1); }

// Every field is overwritten: BSTRs the structure held before are the
// caller's to have freed.
template <class Char>
HRESULT InitExcepInfo(EXCEPINFO* pexcepinfo, WORD code, HRESULT scode, const Char* source,
                      const Char* description, const Char* helpFile, DWORD helpContext) {
  if (!pexcepinfo) return E_POINTER;
  if (BothCodes(code, scode)) return E_INVALIDARG;
  *pexcepinfo = EXCEPINFO{code,        0,       BstrOf(source), BstrOf(description),
                          BstrOf(helpFile), helpContext, nullptr, nullptr, scode};
  return S_OK;
}

}  // namespace

}  // namespace xk::automation

using namespace xk::automation;

// ---- ErrorInfo_SetDescA ------------------------------------------------------
extern "C" HRESULT WINAPI ErrorInfo_SetDescA(LPCSTR description) {
  return ErrorInfo_SetDescW(WideArgument(description).get());
}

// ---- ErrorInfo_SetDescW ------------------------------------------------------
extern "C" HRESULT WINAPI ErrorInfo_SetDescW(LPCOLESTR description) {
  return SetThreadErrorInfo(Fields::Description, description, nullptr, GUID_NULL, nullptr, 0);
}

// ---- ErrorInfo_SetA ----------------------------------------------------------
extern "C" HRESULT WINAPI ErrorInfo_SetA(LPCSTR description, LPCSTR source, REFIID iid) {
  return ErrorInfo_SetW(WideArgument(description).get(), WideArgument(source).get(), iid);
}

// ---- ErrorInfo_SetW ----------------------------------------------------------
extern "C" HRESULT WINAPI ErrorInfo_SetW(LPCOLESTR description, LPCOLESTR source, REFIID iid) {
  return SetThreadErrorInfo(Fields::SourceAndGuid, description, source, iid, nullptr, 0);
}

// ---- ErrorInfo_SetHelpA ------------------------------------------------------
extern "C" HRESULT WINAPI ErrorInfo_SetHelpA(LPCSTR description, LPCSTR source, REFIID iid,
                                             LPCSTR helpFile, DWORD helpContext) {
  return ErrorInfo_SetHelpW(WideArgument(description).get(), WideArgument(source).get(), iid,
                            WideArgument(helpFile).get(), helpContext);
}

// ---- ErrorInfo_SetHelpW ------------------------------------------------------
extern "C" HRESULT WINAPI ErrorInfo_SetHelpW(LPCOLESTR description, LPCOLESTR source, REFIID iid,
                                             LPCOLESTR helpFile, DWORD helpContext) {
  return SetThreadErrorInfo(Fields::All, description, source, iid, helpFile, helpContext);
}

// ---- EXCEPINFO_InitA ---------------------------------------------------------
extern "C" HRESULT WINAPI EXCEPINFO_InitA(EXCEPINFO* pexcepinfo, WORD code, HRESULT scode,
                                          LPCSTR source, LPCSTR description, LPCSTR helpFile,
                                          DWORD helpContext) {
  return InitExcepInfo(pexcepinfo, code, scode, source, description, helpFile, helpContext);
}

// ---- EXCEPINFO_InitW ---------------------------------------------------------
extern "C" HRESULT WINAPI EXCEPINFO_InitW(EXCEPINFO* pexcepinfo, WORD code, HRESULT scode,
                                          LPCOLESTR source, LPCOLESTR description,
                                          LPCOLESTR helpFile, DWORD helpContext) {
  return InitExcepInfo(pexcepinfo, code, scode, source, description, helpFile, helpContext);
}

// ---- EXCEPINFO_InitCallback --------------------------------------------------
extern "C" HRESULT WINAPI EXCEPINFO_InitCallback(EXCEPINFO* pexcepinfo, WORD code, HRESULT scode,
                                                 QV_EXCEPINFO_FILLIN fillIn) {
  if (!pexcepinfo) return E_POINTER;
  if (BothCodes(code, scode) || !fillIn) return E_INVALIDARG;
  *pexcepinfo = EXCEPINFO{};
  pexcepinfo->pfnDeferredFillIn = fillIn;
  return S_OK;
}

// ---- EXCEPINFO_Clear ---------------------------------------------------------
extern "C" HRESULT WINAPI EXCEPINFO_Clear(EXCEPINFO* pexcepinfo) {
  if (!pexcepinfo) return E_POINTER;
  BSTR_Destroy(&pexcepinfo->bstrSource);
  BSTR_Destroy(&pexcepinfo->bstrDescription);
  BSTR_Destroy(&pexcepinfo->bstrHelpFile);
  return S_OK;
}
