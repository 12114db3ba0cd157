// The GUID collections' own proxy/stub pair: the enumerator and sequence pairs
// instantiated for GUIDs, and the creation function of the class table's three
// rows, whose identifiers are the proxied interfaces' own. ICollGUID gets the
// sequence pair, which answers ISeqGUID only: asking it to proxy ICollGUID by
// itself ends in E_NOINTERFACE.
#include <xkcombsd/Collections.h>

#include "frame/HandOut.h"
#include "marshal/MOPSSqXX.h"
#include "marshal/MarshalRows.h"

namespace xk::marshal {
namespace {

struct GuidKind {
  using Item = GUID;
  using Enum = IEnumGUID;
  using Seq = ISeqGUID;
  static constexpr const IID* kEnumIid = &IID_IQvEnumGUID;
  static constexpr const IID* kSeqIid = &IID_ISeqGUID;
  static constexpr const CLSID* kClsid = &CLSID_QvEnumGUID;  // rebuilds a clone sent by value

  static constexpr AssertSite kCloneByValueRefused = {"MOPSGuid", 354,
                                                      "_cannot_remember_whether_this_is_valid"};
  static constexpr AssertSite kInsertAtNotServed = {"MOPSGuid", 457, "0"};
  static constexpr AssertSite kInsertAtNotSent = {"MOPSGuid", 473, "0"};
  static constexpr AssertSite kSetAtNotServed = {"MOPSGuid", 480, "0"};
  static constexpr AssertSite kSetAtNotSent = {"MOPSGuid", 494, "0"};
  static constexpr AssertSite kNewEnumNotServed = {"MOPSGuid", 501, "0"};
};

template <class Proxy>
HRESULT HandOutProxy(IUnknown* outer, REFIID riid, void** ppv) {
  Proxy* proxy = new Proxy(outer);
  return HandOut(proxy ? proxy->Buffer() : nullptr, riid, ppv);
}

}  // namespace

// ---- CreateGuidProxyStub ----------------------------------------------------
HRESULT CreateGuidProxyStub(REFCLSID clsid, IUnknown* outer, LONG*, REFIID riid, void** ppv) {
  const bool isEnum = clsid == IID_IQvEnumGUID;
  if (!isEnum && clsid != IID_ICollGUID && clsid != IID_ISeqGUID) return E_OUTOFMEMORY;
  if (outer)
    return isEnum ? HandOutProxy<EnumProxy<GuidKind>>(outer, riid, ppv)
                  : HandOutProxy<SeqProxy<GuidKind>>(outer, riid, ppv);
  // A stub is always handed out as IRpcStubBuffer, whatever was asked for.
  if (isEnum) return HandOut(new EnumStub<GuidKind>(), IID_IRpcStubBuffer, ppv);
  return HandOut(new SeqStub<GuidKind>(), IID_IRpcStubBuffer, ppv);
}

}  // namespace xk::marshal
