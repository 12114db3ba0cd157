// GUID text and class names in both widths,
// as a client linked to the library sees them, against the real registry of the prefix.
#include <gmock/gmock.h>
#include <xkcombsd/Guids.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>

#include <algorithm>
#include <string>
#include <vector>

#include "DebugOutput.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "RegistryProbe.h"

using xktest::AssertionReport;

namespace {

constexpr GUID kSample = {
    0x00517663, 0x0002, 0x0011, {0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}};
constexpr char kSampleUpper[] = "{00517663-0002-0011-0001-00C0DFE64A64}";
constexpr GUID kFilled = {0xDEADBEEF, 0xDEAD, 0xBEEF, {1, 2, 3, 4, 5, 6, 7, 8}};

// The narrow and the wide forms, with the source lines of their contract checks.
struct Narrow {
  using Char = char;
  static std::string Text(const std::string& ascii) { return ascii; }
  static HRESULT ToText(char* s, REFGUID g) { return QvStringFromGUIDA(s, g); }
  static HRESULT FromText(GUID* g, const char* s) { return QvGUIDFromStringA(g, s); }
  static HRESULT ClassName(REFCLSID c, char* s, DWORD* n) { return CoReg_GetClassNameA(c, s, n); }
  static constexpr int kFromTextLine = 39, kToTextLine = 64;
  static constexpr char kSuffix = 'A';
};

struct Wide {
  using Char = wchar_t;
  static std::wstring Text(const std::string& ascii) {
    return std::wstring(ascii.begin(), ascii.end());
  }
  static HRESULT ToText(wchar_t* s, REFGUID g) { return QvStringFromGUIDW(s, g); }
  static HRESULT FromText(GUID* g, const wchar_t* s) { return QvGUIDFromStringW(g, s); }
  static HRESULT ClassName(REFCLSID c, wchar_t* s, DWORD* n) {
    return CoReg_GetClassNameW(c, s, n);
  }
  static constexpr int kFromTextLine = 31, kToTextLine = 56;
  static constexpr char kSuffix = 'W';
};

AssertionReport Report(int line, const std::string& expression) {
  return {"MOConv", line, expression};
}

// A class whose name the registry holds for the length of each test.
template <class Form>
class GuidText : public ::testing::Test {
 protected:
  using Char = typename Form::Char;
  using String = std::basic_string<Char>;
  static constexpr GUID kClass = {
      0x00517663, 0x0002, 0x00EE, {0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}};
  GuidText() { xktest::WriteString(HKEY_CLASSES_ROOT, m_key, nullptr, "EnumGUID Class"); }
  void TearDown() override {
    EXPECT_EQ(0, m_spy.Outstanding());
    EXPECT_HR(S_OK, DllCanUnloadNow());
  }

  const std::string m_key = "CLSID\\" + xktest::GuidText(kClass);
  xktest::KeyTreeCleanup m_cleanup{HKEY_CLASSES_ROOT, {m_key}};
  xktest::MallocSpy m_spy;
};

using Forms = ::testing::Types<Narrow, Wide>;
TYPED_TEST_SUITE(GuidText, Forms);

}  // namespace

TYPED_TEST(GuidText, RoundTripsThroughTheBracedUpperCaseText) {
  typename TestFixture::Char text[39];
  EXPECT_HR(S_OK, TypeParam::ToText(text, kSample));
  EXPECT_EQ(TypeParam::Text(std::string(kSampleUpper, 39)), typename TestFixture::String(text, 39));
  GUID guid = kFilled;
  EXPECT_HR(S_OK, TypeParam::FromText(&guid, text));
  EXPECT_EQ(kSample, guid);
}

TYPED_TEST(GuidText, NullAndUnreadableTextIsReportedAndNeverRead) {
  using Char = typename TestFixture::Char;
  // Two pages: text at the end of the first runs into the second, which cannot be read.
  auto* pages = static_cast<char*>(VirtualAlloc(nullptr, 8192, MEM_COMMIT, PAGE_READWRITE));
  DWORD old;
  VirtualProtect(pages + 4096, 4096, PAGE_NOACCESS, &old);
  auto* unterminated = reinterpret_cast<Char*>(pages + 4096 - 8);
  std::fill(unterminated, unterminated + 8 / sizeof(Char), 'A');

  xktest::DebugOutputCapture capture;
  GUID guid = kFilled;
  TypeParam::FromText(&guid, nullptr);  // what NULL yields is the platform's answer
  EXPECT_HR(CO_E_CLASSSTRING, TypeParam::FromText(&guid, unterminated));
  EXPECT_HR(E_POINTER, TypeParam::ToText(nullptr, kSample));
  EXPECT_HR(E_POINTER, TypeParam::ToText(reinterpret_cast<Char*>(pages + 4096), kSample));
  VirtualFree(pages, 0, MEM_RELEASE);
  // NULL is unreadable too: both of its checks report.
  const std::string isBad = std::string("!::IsBadStringPtr") + TypeParam::kSuffix;
  const int from = TypeParam::kFromTextLine, to = TypeParam::kToTextLine;
  const AssertionReport unreadableText = Report(from + 1, isBad + "(lpszStr, (UINT)-1)");
  const AssertionReport unreadableBuffer = Report(to + 1, isBad + "(szStr, CCH_GUID)");
  EXPECT_EQ((std::vector<AssertionReport>{Report(from, "lpszStr"), unreadableText, unreadableText,
                                          Report(to, "szStr"), unreadableBuffer, unreadableBuffer}),
            capture.Assertions());
}

TYPED_TEST(GuidText, ClassNameComesWithItsTerminatorOrAsTheSizeNeeded) {
  using String = typename TestFixture::String;
  String name(32, '#');
  for (DWORD given : {5u, 15u}) {
    DWORD cch = given;
    EXPECT_HR(given < 15 ? HRESULT(0x800700EA) : S_OK,
              TypeParam::ClassName(this->kClass, &name[0], &cch));
    EXPECT_EQ(15u, cch);
  }
  EXPECT_EQ(TypeParam::Text(std::string("EnumGUID Class\0", 15)) + String(17, '#'), name);
}

TEST(GuidTextNarrow, ReadsNoMoreThanThirtyNineBytes) {
  // The platform parser also accepts a registered ProgID, which makes the cut
  // visible: a 39-byte ProgID followed by more text still names its class.
  const std::string progID = "QuorvelTest.GuidTextCut.ThirtyNineChars";
  ASSERT_EQ(39u, progID.size());
  xktest::KeyTreeCleanup cleanup(HKEY_CLASSES_ROOT, {progID});
  xktest::WriteString(HKEY_CLASSES_ROOT, progID + "\\CLSID", nullptr, kSampleUpper);
  xktest::MallocSpy spy;
  GUID guid = kFilled;
  EXPECT_HR(S_OK, QvGUIDFromStringA(&guid, (progID + "AndMore").c_str()));
  EXPECT_EQ(kSample, guid);
  EXPECT_EQ(0, spy.Outstanding());
}
