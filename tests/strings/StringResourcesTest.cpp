// The four string-resource loaders over the library's own string table: whole
// texts, the 259-character cut, code-page conversion of the narrow forms, and
// strings that load as nothing.
#include <string>
#include <xkcombsd/Strings.h>

#include "ResourceStringIds.h"
#include "StringsFixture.h"

using ::testing::IsEmpty;
using xktest::Chars;
using xktest::FromAnsi;
using xktest::Widened;
using xktest::ToAnsi;

namespace {

HINSTANCE Library() { return GetModuleHandleW(L"XKComBsD.dll"); }

// What each loader makes of one resource; OLE strings freed, BSTRs too.
struct Loaded {
  explicit Loaded(UINT id) {
    BSTR a = BSTR_FromResourceA(Library(), id);
    BSTR w = BSTR_FromResourceW(Library(), id);
    LPOLESTR oa = OleString_FromResourceA(Library(), id);
    LPOLESTR ow = OleString_FromResourceW(Library(), id);
    bstrA = a ? Chars(a) : L"<none>";
    bstrW = w ? Chars(w) : L"<none>";
    oleA = oa ? std::wstring(oa) : L"<none>";
    oleW = ow ? std::wstring(ow) : L"<none>";
    SysFreeString(a);
    SysFreeString(w);
    CoTaskMemFree(oa);
    CoTaskMemFree(ow);
  }
  std::wstring bstrA, bstrW, oleA, oleW;
};

class StringResources : public xktest::StringsTest {
 protected:
  void ExpectAllLoad(UINT id, const std::wstring& narrowForms, const std::wstring& wideForms) {
    const Loaded loaded(id);
    EXPECT_EQ(narrowForms, loaded.bstrA) << "BSTR_FromResourceA " << id;
    EXPECT_EQ(wideForms, loaded.bstrW) << "BSTR_FromResourceW " << id;
    EXPECT_EQ(narrowForms, loaded.oleA) << "OleString_FromResourceA " << id;
    EXPECT_EQ(wideForms, loaded.oleW) << "OleString_FromResourceW " << id;
  }
};

}  // namespace

TEST_F(StringResources, AShortTextLoadsWhole) {
  ASSERT_NE(nullptr, Library());
  const std::wstring text = Widened(QVIDS_STRINGS_SHORT_TEXT);
  ExpectAllLoad(QVIDS_STRINGS_SHORT, text, text);

  LPOLESTR p = OleString_FromResourceW(Library(), QVIDS_STRINGS_SHORT);
  EXPECT_EQ((text.size() + 1) * sizeof(OLECHAR), spy.AllocRequests().back())
      << "an OLE string holds exactly its text";
  CoTaskMemFree(p);
}

TEST_F(StringResources, TextsOf259CharactersAndMoreComeBackAs259) {
  const std::wstring exact = Widened(QVIDS_STRINGS_EXACT_259_TEXT);
  ASSERT_EQ(259u, exact.size());
  ExpectAllLoad(QVIDS_STRINGS_EXACT_259, exact, exact);

  const std::wstring longer = Widened(QVIDS_STRINGS_LONG_TEXT);
  ASSERT_EQ(300u, longer.size());
  ExpectAllLoad(QVIDS_STRINGS_LONG, longer.substr(0, 259), longer.substr(0, 259));
}

TEST_F(StringResources, NarrowFormsPassThroughTheAnsiCodePage) {
  const std::wstring text = QVIDS_STRINGS_NON_ASCII_TEXT;
  const std::wstring throughAnsi = FromAnsi(ToAnsi(text));
  ExpectAllLoad(QVIDS_STRINGS_NON_ASCII, throughAnsi, text);
  if (GetACP() == 1252)
    EXPECT_EQ(L"Caf\x00e9 M\x00fcller ", throughAnsi.substr(0, 12)) << "Western: accents kept";
}

TEST_F(StringResources, EmptyMissingOrForeignResourcesLoadAsNothing) {
  ExpectAllLoad(QVIDS_STRINGS_EMPTY, L"<none>", L"<none>");
  ExpectAllLoad(QVIDS_STRINGS_MISSING, L"<none>", L"<none>");
  EXPECT_EQ(nullptr, BSTR_FromResourceW(nullptr, QVIDS_STRINGS_SHORT))
      << "the test program has no such resource";
  EXPECT_EQ(nullptr, OleString_FromResourceA(nullptr, QVIDS_STRINGS_SHORT));
  EXPECT_EQ(nullptr, BSTR_FromResourceA(reinterpret_cast<HINSTANCE>(0x12340000), QVIDS_STRINGS_SHORT))
      << "a handle that is no module";
  EXPECT_EQ(nullptr, OleString_FromResourceW(reinterpret_cast<HINSTANCE>(0x12340000), QVIDS_STRINGS_SHORT));
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
}
