// Error information on the thread and the exception record, as a client reads
// them back through the platform.
#include <gmock/gmock.h>
#include <xkcombsd/ErrorInfo.h>

#include <string>

#include "ComTest.h"

namespace {

// {12345678-0000-0000-C000-000000000046}: any identifier the setters pass on.
constexpr GUID kIid = {0x12345678, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};

// The text of a BSTR the caller owns, or `none`.
std::wstring Text(BSTR text, const wchar_t* none = L"", bool owned = true) {
  std::wstring copy = text ? text : none;
  if (owned) SysFreeString(text);
  return copy;
}

using ErrorInfoTest = xktest::ComTest<>;

// "description|source|help file|context|whether the identifier is kIid", once
// `set` has succeeded.
std::wstring TakeThreadError(HRESULT set = S_OK) {
  EXPECT_HR(S_OK, set);
  IErrorInfo* info = nullptr;
  if (GetErrorInfo(0, &info) != S_OK) return L"none";
  BSTR description, source, help;
  GUID iid;
  DWORD context;
  info->GetDescription(&description), info->GetSource(&source), info->GetHelpFile(&help);
  info->GetGUID(&iid), info->GetHelpContext(&context), info->Release();
  return Text(description) + L"|" + Text(source) + L"|" + Text(help) + L"|" +
         std::to_wstring(context) + (IsEqualGUID(iid, kIid) ? L"|iid" : L"|");
}

TEST_F(ErrorInfoTest, EachSetterFillsItsFieldsOfTheThreadsNewErrorObject) {
  EXPECT_EQ(L"d|||0|", TakeThreadError(ErrorInfo_SetDescA("d")));
  EXPECT_EQ(L"wide|||0|", TakeThreadError(ErrorInfo_SetDescW(L"wide")));
  EXPECT_EQ(L"d|s||0|iid", TakeThreadError(ErrorInfo_SetA("d", "s", kIid)));
  EXPECT_EQ(L"d|s||0|iid", TakeThreadError(ErrorInfo_SetW(L"d", L"s", kIid)));
  EXPECT_EQ(L"d|s|h.hlp|7|iid", TakeThreadError(ErrorInfo_SetHelpA("d", "s", kIid, "h.hlp", 7)));
  EXPECT_EQ(L"d|s|h.hlp|7|iid", TakeThreadError(ErrorInfo_SetHelpW(L"d", L"s", kIid, L"h.hlp", 7)));
  EXPECT_EQ(L"none", TakeThreadError()) << "taking it cleared it";
}

HRESULT STDAPICALLTYPE FillIn(EXCEPINFO*) { return S_OK; }

// Every field; a NULL string shows as "(null)".
std::wstring FieldsOf(const EXCEPINFO& e) {
  auto text = [](BSTR s) { return Text(s, L"(null)", false); };
  return std::to_wstring(e.wCode) + L"|" + std::to_wstring(e.wReserved) + L"|" +
         text(e.bstrSource) + L"|" + text(e.bstrDescription) + L"|" + text(e.bstrHelpFile) + L"|" +
         std::to_wstring(e.dwHelpContext) + L"|" + (e.pvReserved ? L"reserved" : L"") + L"|" +
         (e.pfnDeferredFillIn == FillIn ? L"fill"
          : e.pfnDeferredFillIn         ? L"?"
                                        : L"") +
         L"|" + std::to_wstring(e.scode);
}

TEST_F(ErrorInfoTest, ExceptionRecordsTakeOneCodeAndOwnTheirThreeStrings) {
  EXCEPINFO info, before;
  memset(&info, 0xA5, sizeof info);
  before = info;
  EXPECT_HR(E_INVALIDARG, EXCEPINFO_InitCallback(&info, 5, E_FAIL, FillIn));
  EXPECT_HR(E_INVALIDARG, EXCEPINFO_InitCallback(&info, 5, 0, nullptr));
  EXPECT_EQ(0, memcmp(&before, &info, sizeof info)) << "a refused call touches nothing";

  ASSERT_HR(S_OK, EXCEPINFO_InitA(&info, 0, E_FAIL, "src", "desc", nullptr, 9));
  EXPECT_EQ(L"0|0|src|desc|(null)|9|||-2147467259", FieldsOf(info));
  info.dwHelpContext = 3;
  EXPECT_HR(S_OK, EXCEPINFO_Clear(&info));
  EXPECT_HR(S_OK, EXCEPINFO_Clear(&info)) << "a second clear finds nothing to free";
  EXPECT_EQ(L"0|0|(null)|(null)|(null)|3|||-2147467259", FieldsOf(info));

  ASSERT_HR(S_OK, EXCEPINFO_InitW(&info, 1001, 0, L"s", nullptr, L"h", 0));
  EXPECT_EQ(L"1001|0|s|(null)|h|0|||0", FieldsOf(info));
  EXCEPINFO_Clear(&info);

  memset(&info, 0xA5, sizeof info);
  ASSERT_HR(S_OK, EXCEPINFO_InitCallback(&info, 5, 0, FillIn));
  EXPECT_EQ(L"0|0|(null)|(null)|(null)|0||fill|0", FieldsOf(info)) << "codes are checked, not kept";
}

}  // namespace
