// The dispatch helpers against an IDispatch that records every call it gets,
// so the ids, flags, locale, argument arrays and named arguments the object
// sees are checked exactly.
#include <gmock/gmock.h>
#include <xkcombsd/Dispatch.h>
#include <xkcombsd/ScopedValue.h>

#include <string>
#include <utility>

#include "ComTest.h"

namespace {

using std::to_string;

// Members "Alpha" (1) and "Beta" (2). Invoke answers a BSTR, so a result a
// helper discards is a leak unless the helper frees it. Calls with IID_NULL
// and the system default locale record neither.
class RecordingDispatch : public IDispatch {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = iid == IID_IUnknown || iid == IID_IDispatch ? this : nullptr;
    return *ppv ? (AddRef(), S_OK) : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
  STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
  STDMETHODIMP GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID lcid,
                             DISPID* ids) override {
    calls += "names " + to_string(count) + Unusual(riid, lcid) + ";";
    *ids = names[0] == std::wstring(L"Alpha") ? 1 : names[0] == std::wstring(L"Beta") ? 2 : 0;
    return *ids ? S_OK : DISP_E_UNKNOWNNAME;
  }
  STDMETHODIMP Invoke(DISPID id, REFIID riid, LCID lcid, WORD flags, DISPPARAMS* params,
                      VARIANT* result, EXCEPINFO* info, UINT* argErr) override {
    calls += "invoke " + to_string(id) + Unusual(riid, lcid) + " flags " + to_string(flags) +
             " args " + to_string(params->cArgs) + (params->rgvarg == args ? "=given" : "") +
             " named";
    for (UINT i = 0; i < params->cNamedArgs; ++i)
      calls += " " + to_string(params->rgdispidNamedArgs[i]);
    calls +=
        std::string(info ? " info" : "") + (argErr ? " argErr " + to_string(int(*argErr)) : "");
    V_VT(result) = VT_BSTR, V_BSTR(result) = SysAllocString(L"answer");
    return S_OK;
  }
  static std::string Unusual(REFIID riid, LCID lcid) {
    return riid == IID_NULL && lcid == 0x800 ? "" : " iid/lcid " + to_string(lcid);
  }

  ULONG refs = 1;
  std::string calls;
  VARIANTARG args[2] = {};
};

LPOLESTR Name(const wchar_t* name) { return const_cast<LPOLESTR>(name); }

// What the object saw of one call that succeeded; forgets it for the next.
std::string Seen(RecordingDispatch& object, HRESULT hr) {
  EXPECT_HR(S_OK, hr);
  EXPECT_EQ(1u, object.refs);
  return std::exchange(object.calls, "");
}

using DispatchHelpersTest = xktest::ComTest<>;

TEST_F(DispatchHelpersTest, NamesAreLookedUpOneByOneAndUnknownOnesMarkedAndInvokeNothing) {
  RecordingDispatch o;
  LPOLESTR names[] = {Name(L"Alpha"), Name(L"Nope"), Name(L"Beta")};
  DISPID ids[3] = {7, 7, 7};
  EXPECT_HR(DISP_E_UNKNOWNNAME, Dispatch_GetMethodIDs(&o, IID_IDispatch, names, 3, 9, ids));
  EXPECT_THAT(ids, testing::ElementsAre(1, DISPID_UNKNOWN, 2));
  EXPECT_EQ("names 1 iid/lcid 9;names 1 iid/lcid 9;names 1 iid/lcid 9;", Seen(o, S_OK));
  EXPECT_EQ("names 1;", Seen(o, Dispatch_GetMethodIDs(&o, IID_NULL, names + 2, 1, 0x800, ids)));
  VARIANT result;
  EXPECT_HR(DISP_E_UNKNOWNNAME, Dispatch_NamedInvoke(&o, names[1], 1, 0, nullptr, nullptr));
  EXPECT_HR(DISP_E_UNKNOWNNAME, Dispatch_GetNamedProperty(&o, names[1], &result));
  EXPECT_EQ("names 1;names 1;", Seen(o, S_OK)) << "nothing invoked";
}

// A put names its argument -3 (DISPID_PROPERTYPUT) when the flags are exactly 4 or 8.
TEST_F(DispatchHelpersTest, EachCallReachesTheObjectAsGivenAndItsResultTheCaller) {
  RecordingDispatch o;
  xk::ScopedVariant r;
  EXPECT_EQ("invoke 2 flags 4 args 2=given named",
            Seen(o, Dispatch_Invoke(&o, 2, 4, 2, o.args, r.put())));
  EXPECT_EQ("invoke 2 flags 1 args 0 named",
            Seen(o, Dispatch_Invoke(&o, 2, 1, 0, nullptr, r.put())));
  for (WORD flags : {4, 8})
    EXPECT_EQ("names 1;invoke 2 flags " + to_string(flags) + " args 1=given named -3 argErr -1",
              Seen(o, Dispatch_NamedInvoke(&o, Name(L"Beta"), flags, 1, o.args, r.put())));
  EXPECT_EQ("names 1;invoke 2 flags 5 args 1=given named argErr -1",
            Seen(o, Dispatch_NamedInvoke(&o, Name(L"Beta"), 5, 1, o.args, r.put())));
  EXPECT_EQ("invoke 1 flags 2 args 0 named argErr -1",
            Seen(o, Dispatch_GetProperty(&o, 1, r.put())));
  EXPECT_EQ("names 1;invoke 2 flags 2 args 0 named argErr -1",
            Seen(o, Dispatch_GetNamedProperty(&o, Name(L"Beta"), r.put())));
  EXPECT_EQ(VT_BSTR, V_VT(&r.get()));
  // The old forms have no result: theirs is freed (the fixture's spy would see it).
  EXPECT_EQ("invoke 1 flags 1 args 2=given named",
            Seen(o, _Dispatch_Invoke_old(&o, 1, 1, 2, o.args)));
  EXPECT_EQ("names 1;invoke 2 flags 4 args 2=given named -3 argErr -1",
            Seen(o, _Dispatch_NamedInvoke_old(&o, Name(L"Beta"), 4, 2, o.args)));
}

}  // namespace
