// The late-bound entry points as clients call them: through the exports, by
// ordinal, with the system function's own results.
#include <gmock/gmock.h>
#include <xkcombsd/LateBound.h>

#include <cstring>
#include <string>

#include "HResult.h"

namespace {

HMODULE Library() { return GetModuleHandleW(L"XKComBsD.dll"); }

// A private key for this suite under HKEY_CURRENT_USER, removed again.
class LateBoundRegistry : public ::testing::Test {
 protected:
  static constexpr const char* kKey = "Software\\XKComBsD Tests\\LateBound";
  void TearDown() override { RegDeleteTreeA(HKEY_CURRENT_USER, "Software\\XKComBsD Tests"); }
};

}  // namespace

TEST(LateBound, EntryPointsAreExportedByOrdinalOnly) {
  EXPECT_EQ(nullptr, GetProcAddress(Library(), "LB_RegCloseKey"));
  EXPECT_EQ(nullptr, GetProcAddress(Library(), "LB_wsprintfA"));
  for (int ordinal : {91, 99, 107, 111, 114, 115, 120})
    EXPECT_NE(nullptr, GetProcAddress(Library(), MAKEINTRESOURCEA(ordinal))) << ordinal;
  for (int ordinal : {108, 109, 110})
    EXPECT_EQ(nullptr, GetProcAddress(Library(), MAKEINTRESOURCEA(ordinal))) << ordinal;
}

TEST(LateBound, RegCloseKeyReturnsExactlyTheSystemCode) {
  HKEY bogus = reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x1234));
  const LONG system = RegCloseKey(bogus);
  EXPECT_NE(ERROR_SUCCESS, system);
  EXPECT_EQ(system, LB_RegCloseKey(bogus));

  using CloseFn = LONG(WINAPI*)(HKEY);
  auto byOrdinal = reinterpret_cast<CloseFn>(
      reinterpret_cast<void*>(GetProcAddress(Library(), MAKEINTRESOURCEA(91))));
  ASSERT_NE(nullptr, byOrdinal);
  EXPECT_EQ(system, byOrdinal(bogus));
}

TEST(LateBound, WsprintfGathersItsArgumentsForTheSystemFormatter) {
  char narrow[64];
  EXPECT_EQ(10, LB_wsprintfA(narrow, "%s,%d", "abcd.dll", 3));
  EXPECT_STREQ("abcd.dll,3", narrow);

  wchar_t wide[64];
  EXPECT_EQ(11, LB_wsprintfW(wide, L"%s.%d", L"abcd.dll", 12));
  EXPECT_STREQ(L"abcd.dll.12", wide);
}

TEST(LateBound, CharacterCaseConvertsInPlaceAndReturnsTheString) {
  char narrow[] = "MiXed 9";
  EXPECT_EQ(narrow, LB_CharLowerA(narrow));
  EXPECT_STREQ("mixed 9", narrow);
  EXPECT_EQ(narrow, LB_CharUpperA(narrow));
  EXPECT_STREQ("MIXED 9", narrow);

  wchar_t wide[] = L"MiXed";
  EXPECT_EQ(wide, LB_CharUpperW(wide));
  EXPECT_STREQ(L"MIXED", wide);
  EXPECT_EQ(wide, LB_CharLowerW(wide));
  EXPECT_STREQ(L"mixed", wide);
  // A single character travels in the low word of the pointer, as the system defines.
  EXPECT_EQ(static_cast<ULONG_PTR>(L'Q'),
            reinterpret_cast<ULONG_PTR>(LB_CharUpperW(reinterpret_cast<LPWSTR>(L'q'))));
}

TEST_F(LateBoundRegistry, KeysAndValuesRoundTripThroughTheEntryPoints) {
  HKEY key = nullptr;
  DWORD disposition = 0;
  ASSERT_EQ(ERROR_SUCCESS, LB_RegCreateKeyExA(HKEY_CURRENT_USER, kKey, 0, nullptr, 0, KEY_ALL_ACCESS,
                                              nullptr, &key, &disposition));
  EXPECT_EQ(static_cast<DWORD>(REG_CREATED_NEW_KEY), disposition);

  const char text[] = "narrow";
  EXPECT_EQ(ERROR_SUCCESS, LB_RegSetValueExA(key, "A", 0, REG_SZ,
                                             reinterpret_cast<const BYTE*>(text), sizeof text));
  const wchar_t wideText[] = L"wide";
  EXPECT_EQ(ERROR_SUCCESS, LB_RegSetValueExW(key, L"W", 0, REG_SZ,
                                             reinterpret_cast<const BYTE*>(wideText), sizeof wideText));
  HKEY child = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, LB_RegCreateKeyExW(key, L"Child", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                              &child, nullptr));
  EXPECT_EQ(ERROR_SUCCESS, LB_RegCloseKey(child));

  char read[32] = {};
  DWORD type = 0, cb = sizeof read;
  EXPECT_EQ(ERROR_SUCCESS, LB_RegQueryValueExA(key, "A", nullptr, &type,
                                               reinterpret_cast<BYTE*>(read), &cb));
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), type);
  EXPECT_STREQ("narrow", read);
  cb = 2;
  EXPECT_EQ(ERROR_MORE_DATA, LB_RegQueryValueExA(key, "A", nullptr, nullptr,
                                                 reinterpret_cast<BYTE*>(read), &cb));
  EXPECT_EQ(sizeof text, cb);

  wchar_t wideRead[32] = {};
  cb = sizeof wideRead;
  EXPECT_EQ(ERROR_SUCCESS, LB_RegQueryValueExW(key, L"W", nullptr, nullptr,
                                               reinterpret_cast<BYTE*>(wideRead), &cb));
  EXPECT_STREQ(L"wide", wideRead);

  DWORD subKeys = 0, values = 0;
  EXPECT_EQ(ERROR_SUCCESS, LB_RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &subKeys, nullptr,
                                               nullptr, &values, nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(1u, subKeys);
  EXPECT_EQ(2u, values);
  char name[MAX_PATH];
  DWORD cchName = MAX_PATH;
  EXPECT_EQ(ERROR_SUCCESS, LB_RegEnumKeyExA(key, 0, name, &cchName, nullptr, nullptr, nullptr, nullptr));
  EXPECT_STREQ("Child", name);
  cchName = MAX_PATH;
  EXPECT_EQ(ERROR_NO_MORE_ITEMS,
            LB_RegEnumKeyExA(key, 1, name, &cchName, nullptr, nullptr, nullptr, nullptr));

  EXPECT_EQ(ERROR_SUCCESS, LB_RegDeleteValueA(key, "A"));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, LB_RegDeleteValueW(key, L"A"));
  EXPECT_EQ(ERROR_SUCCESS, LB_RegDeleteKeyW(key, L"Child"));
  EXPECT_EQ(ERROR_SUCCESS, LB_RegCloseKey(key));

  HKEY reopened = nullptr;
  ASSERT_EQ(ERROR_SUCCESS, LB_RegOpenKeyExW(HKEY_CURRENT_USER, L"Software\\XKComBsD Tests\\LateBound",
                                            0, KEY_READ, &reopened));
  EXPECT_EQ(ERROR_SUCCESS, LB_RegCloseKey(reopened));
  EXPECT_EQ(ERROR_SUCCESS, LB_RegDeleteKeyA(HKEY_CURRENT_USER, kKey));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND,
            LB_RegOpenKeyExA(HKEY_CURRENT_USER, kKey, 0, KEY_READ, &reopened));
}
