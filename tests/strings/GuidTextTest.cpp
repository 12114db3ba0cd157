// GUID text, class names and the reserved command-line parsers, as a client
// linked to the library sees them, against the real registry of the prefix.
#include <gmock/gmock.h>
#include <xkcombsd/Guids.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>

#include <cstring>
#include <string>
#include <vector>

#include "DebugOutput.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "RegistryProbe.h"

using xktest::AssertionReport;
using xktest::DebugOutputCapture;

namespace {

constexpr GUID kSample = {0x00517663, 0x0002, 0x0011, {0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}};
constexpr char kSampleUpper[] = "{00517663-0002-0011-0001-00C0DFE64A64}";
constexpr char kSampleLower[] = "{00517663-0002-0011-0001-00c0dfe64a64}";
constexpr wchar_t kSampleUpperW[] = L"{00517663-0002-0011-0001-00C0DFE64A64}";
constexpr wchar_t kSampleLowerW[] = L"{00517663-0002-0011-0001-00c0dfe64a64}";
constexpr GUID kFilled = {0xDEADBEEF, 0xDEAD, 0xBEEF, {1, 2, 3, 4, 5, 6, 7, 8}};

AssertionReport Report(int line, const char* expression) { return {"MOConv", line, expression}; }

// What a W call with a NULL argument, then one with an unreadable argument,
// and the same two calls of the A twin report: a NULL argument is unreadable too.
std::vector<AssertionReport> NullThenUnreadable(int lineW, int lineA, const char* present,
                                                const char* readableW, const char* readableA) {
  return {Report(lineW, present), Report(lineW + 1, readableW), Report(lineW + 1, readableW),
          Report(lineA, present), Report(lineA + 1, readableA), Report(lineA + 1, readableA)};
}

// Two pages: text placed at the end of the first runs into the second, which
// cannot be read.
class GuardedPages {
 public:
  GuardedPages() {
    m_base = static_cast<char*>(VirtualAlloc(nullptr, 2 * kPage, MEM_COMMIT, PAGE_READWRITE));
    DWORD old;
    VirtualProtect(m_base + kPage, kPage, PAGE_NOACCESS, &old);
  }
  ~GuardedPages() { VirtualFree(m_base, 0, MEM_RELEASE); }
  char* EndOfReadable(size_t bytes) { return m_base + kPage - bytes; }
  char* Unreadable() { return m_base + kPage; }

 private:
  static constexpr size_t kPage = 4096;
  char* m_base;
};

}  // namespace

TEST(QvStringFromGUID, WritesTheBracedUpperCaseTextAndItsTerminatorOnly) {
  wchar_t wide[48];
  std::fill(std::begin(wide), std::end(wide), L'#');
  EXPECT_HR(S_OK, QvStringFromGUIDW(wide, IID_IUnknown));
  EXPECT_EQ(std::wstring(L"{00000000-0000-0000-C000-000000000046}", 39),
            std::wstring(wide, 39));
  EXPECT_EQ(L'#', wide[39]) << "nothing is written after the 39 characters";

  char narrow[48];
  std::memset(narrow, '#', sizeof narrow);
  EXPECT_HR(S_OK, QvStringFromGUIDA(narrow, kSample));
  EXPECT_EQ(std::string(kSampleUpper, 39), std::string(narrow, 39));
  EXPECT_EQ('#', narrow[39]);
}

TEST(QvGUIDFromString, ParsesTheBracedFormInEitherCaseAndPassesOnThePlatformRefusal) {
  for (const wchar_t* text : {kSampleUpperW, kSampleLowerW}) {
    GUID guid = kFilled;
    EXPECT_HR(S_OK, QvGUIDFromStringW(&guid, text));
    EXPECT_EQ(kSample, guid);
  }
  for (const char* text : {kSampleUpper, kSampleLower}) {
    GUID guid = kFilled;
    EXPECT_HR(S_OK, QvGUIDFromStringA(&guid, text));
    EXPECT_EQ(kSample, guid);
  }

  GUID guid = kFilled;
  EXPECT_HR(CO_E_CLASSSTRING, QvGUIDFromStringW(&guid, L"{00517663-0002-0011-0001-00C0DFE64A6}"));
  EXPECT_HR(CO_E_CLASSSTRING, QvGUIDFromStringA(&guid, "00517663-0002-0011-0001-00C0DFE64A64"));
  EXPECT_HR(CO_E_CLASSSTRING, QvGUIDFromStringA(&guid, ""));
  EXPECT_HR(E_INVALIDARG, QvGUIDFromStringA(nullptr, kSampleUpper)) << "the platform's own answer";
}

TEST(QvGUIDFromStringA, ReadsNoMoreThanThirtyNineBytes) {
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

  const std::wstring wideLonger(L"QuorvelTest.GuidTextCut.ThirtyNineCharsAndMore");
  EXPECT_HR(CO_E_CLASSSTRING, QvGUIDFromStringW(&guid, wideLonger.c_str()))
      << "the wide form parses the whole text";
  EXPECT_EQ(0, spy.Outstanding());
}

TEST(GuidTextContracts, NullAndUnreadableTextIsReportedAndNeverRead) {
  GuardedPages pages;
  char* unterminated = pages.EndOfReadable(8);
  std::memset(unterminated, 'A', 8);

  DebugOutputCapture capture;
  GUID guid = kFilled;
  GUID platform = kFilled;
  const HRESULT platformForNull = CLSIDFromString(nullptr, &platform);
  EXPECT_HR(platformForNull, QvGUIDFromStringW(&guid, nullptr)) << "NULL goes to the platform";
  EXPECT_EQ(platform, guid);
  guid = kFilled;
  EXPECT_HR(CO_E_CLASSSTRING, QvGUIDFromStringW(&guid, reinterpret_cast<LPCOLESTR>(unterminated)));
  EXPECT_HR(CO_E_CLASSSTRING, QvGUIDFromStringA(&guid, nullptr));
  EXPECT_HR(CO_E_CLASSSTRING, QvGUIDFromStringA(&guid, unterminated));
  EXPECT_EQ(NullThenUnreadable(31, 39, "lpszStr", "!::IsBadStringPtrW(lpszStr, (UINT)-1)",
                               "!::IsBadStringPtrA(lpszStr, (UINT)-1)"),
            capture.Assertions());

  capture.Clear();
  EXPECT_HR(E_POINTER, QvStringFromGUIDW(nullptr, kSample));
  EXPECT_HR(E_POINTER, QvStringFromGUIDW(reinterpret_cast<LPOLESTR>(pages.Unreadable()), kSample));
  EXPECT_HR(E_POINTER, QvStringFromGUIDA(nullptr, kSample));
  EXPECT_HR(E_POINTER, QvStringFromGUIDA(pages.Unreadable(), kSample));
  EXPECT_EQ(NullThenUnreadable(56, 64, "szStr", "!::IsBadStringPtrW(szStr, CCH_GUID)",
                               "!::IsBadStringPtrA(szStr, CCH_GUID)"),
            capture.Assertions());

  capture.Clear();
  char text[39];
  EXPECT_HR(S_OK, QvStringFromGUIDA(text, kSample));
  EXPECT_HR(S_OK, QvGUIDFromStringA(&guid, text));
  EXPECT_TRUE(capture.Assertions().empty()) << "usable arguments are not reported";
}

class CoRegGetClassName : public ::testing::Test {
 protected:
  static constexpr GUID kClass = {0x00517663, 0x0002, 0x00EE, {0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}};
  CoRegGetClassName()
      : m_key("CLSID\\" + xktest::GuidText(kClass)), m_cleanup(HKEY_CLASSES_ROOT, {m_key}) {
    xktest::WriteString(HKEY_CLASSES_ROOT, m_key, nullptr, "EnumGUID Class");
  }
  void TearDown() override {
    EXPECT_EQ(0, m_spy.Outstanding());
    EXPECT_HR(S_OK, DllCanUnloadNow());
  }

  std::string m_key;
  xktest::KeyTreeCleanup m_cleanup;
  xktest::MallocSpy m_spy;
};

TEST_F(CoRegGetClassName, ASmallBufferAsksForTheSizeNeededAndIsNotOverrun) {
  char narrow[32];
  std::memset(narrow, '#', sizeof narrow);
  DWORD cch = 5;
  EXPECT_HR(static_cast<HRESULT>(0x800700EA), CoReg_GetClassNameA(kClass, narrow, &cch));
  EXPECT_EQ(15u, cch);
  EXPECT_EQ(std::string(27, '#'), std::string(narrow + 5, 27));

  wchar_t wide[32];
  std::fill(std::begin(wide), std::end(wide), L'#');
  cch = 5;
  EXPECT_HR(static_cast<HRESULT>(0x800700EA), CoReg_GetClassNameW(kClass, wide, &cch));
  EXPECT_EQ(15u, cch);
  EXPECT_EQ(std::wstring(27, L'#'), std::wstring(wide + 5, 27));
}

TEST_F(CoRegGetClassName, ReadsTheNameWithItsTerminatorInBothWidths) {
  char narrow[15];
  DWORD cch = 15;
  EXPECT_HR(S_OK, CoReg_GetClassNameA(kClass, narrow, &cch));
  EXPECT_EQ(15u, cch);
  EXPECT_STREQ("EnumGUID Class", narrow);

  wchar_t wide[40];
  cch = 40;
  EXPECT_HR(S_OK, CoReg_GetClassNameW(kClass, wide, &cch));
  EXPECT_EQ(15u, cch);
  EXPECT_STREQ(L"EnumGUID Class", wide);

  cch = 0;
  EXPECT_HR(S_OK, CoReg_GetClassNameA(kClass, nullptr, &cch)) << "no buffer: a size query";
  EXPECT_EQ(15u, cch);
}

TEST_F(CoRegGetClassName, AnUnknownClassReportsNotFoundAndNoSize) {
  const GUID unknown = {0x00517663, 0x0002, 0x00EF, {0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}};
  char narrow[32] = "untouched";
  DWORD cch = 32;
  EXPECT_HR(static_cast<HRESULT>(0x80070002), CoReg_GetClassNameA(unknown, narrow, &cch));
  EXPECT_EQ(0u, cch);
  EXPECT_STREQ("untouched", narrow);

  wchar_t wide[32];
  cch = 0xDEADBEEF;
  EXPECT_HR(static_cast<HRESULT>(0x80070002), CoReg_GetClassNameW(unknown, wide, &cch));
  EXPECT_EQ(0u, cch);

  EXPECT_HR(E_POINTER, CoReg_GetClassNameA(kClass, narrow, nullptr));
  EXPECT_HR(E_POINTER, CoReg_GetClassNameW(kClass, wide, nullptr));
}

TEST(ParseCommandLineAsEnumString, IsReservedAndTouchesNothing) {
  IEnumString* sentinel = reinterpret_cast<IEnumString*>(0xDEADBEEF);
  IEnumString* out = sentinel;
  EXPECT_HR(E_NOTIMPL, ParseCommandLineAsEnumStringA("a b c", &out));
  EXPECT_HR(E_NOTIMPL, ParseCommandLineAsEnumStringW(L"a b c", &out));
  EXPECT_EQ(sentinel, out);
  EXPECT_HR(E_NOTIMPL, ParseCommandLineAsEnumStringA(nullptr, nullptr));
  EXPECT_HR(E_NOTIMPL, ParseCommandLineAsEnumStringW(nullptr, nullptr));
}
