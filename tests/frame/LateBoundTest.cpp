// The late-bound entry points as clients call them: through the exports, by
// ordinal, with the system function's own results.
#include <gmock/gmock.h>
#include <xkcombsd/LateBound.h>

#include <string>

namespace {

HMODULE Library() { return GetModuleHandleW(L"XKComBsD.dll"); }

// Converts a copy of the text in place; the function must hand back the same buffer.
template <class C>
void ExpectConverted(C* (WINAPI* convert)(C*), const C* text, const C* expected) {
  std::basic_string<C> buffer(text);
  EXPECT_EQ(buffer.data(), convert(buffer.data()));
  EXPECT_EQ(std::basic_string<C>(expected), buffer);
}

}  // namespace

TEST(LateBound, EntryPointsAreExportedByOrdinalOnly) {
  EXPECT_EQ(nullptr, GetProcAddress(Library(), "LB_RegCloseKey"));
  EXPECT_EQ(nullptr, GetProcAddress(Library(), "LB_wsprintfA"));
  for (int ordinal : {91, 99, 107, 111, 114, 115, 120})
    EXPECT_NE(nullptr, GetProcAddress(Library(), MAKEINTRESOURCEA(ordinal))) << ordinal;
  for (int ordinal : {108, 109, 110})
    EXPECT_EQ(nullptr, GetProcAddress(Library(), MAKEINTRESOURCEA(ordinal))) << ordinal;
}

TEST(LateBound, RegCloseKeyReturnsExactlyTheSystemCodeAlsoByOrdinal) {
  HKEY bogus = reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x1234));
  const LONG system = RegCloseKey(bogus);
  EXPECT_NE(ERROR_SUCCESS, system);
  EXPECT_EQ(system, LB_RegCloseKey(bogus));
  auto byOrdinal = reinterpret_cast<LONG(WINAPI*)(HKEY)>(
      reinterpret_cast<void*>(GetProcAddress(Library(), MAKEINTRESOURCEA(91))));
  ASSERT_NE(nullptr, byOrdinal);
  EXPECT_EQ(system, byOrdinal(bogus));
}

TEST(LateBound, TextFunctionsAnswerAsTheSystemOnes) {
  char narrow[64];
  EXPECT_EQ(10, LB_wsprintfA(narrow, "%s,%d", "abcd.dll", 3));
  EXPECT_STREQ("abcd.dll,3", narrow);
  wchar_t wide[64];
  EXPECT_EQ(11, LB_wsprintfW(wide, L"%s.%d", L"abcd.dll", 12));
  EXPECT_STREQ(L"abcd.dll.12", wide);

  ExpectConverted(LB_CharLowerA, "MiXed 9", "mixed 9");
  ExpectConverted(LB_CharUpperA, "MiXed 9", "MIXED 9");
  ExpectConverted(LB_CharUpperW, L"MiXed", L"MIXED");
  ExpectConverted(LB_CharLowerW, L"MiXed", L"mixed");
  // A single character travels in the low word of the pointer, as the system defines.
  EXPECT_EQ(static_cast<ULONG_PTR>(L'Q'), reinterpret_cast<ULONG_PTR>(LB_CharUpperW(reinterpret_cast<LPWSTR>(L'q'))));
}

TEST(LateBound, KeysAndValuesRoundTripThroughTheEntryPoints) {
  constexpr const char* kKey = "Software\\XKComBsD Tests\\LateBound";
  RegDeleteTreeA(HKEY_CURRENT_USER, "Software\\XKComBsD Tests");
  HKEY key = nullptr, child = nullptr;
  DWORD disposition = 0;
  ASSERT_EQ(ERROR_SUCCESS, LB_RegCreateKeyExA(HKEY_CURRENT_USER, kKey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                              &key, &disposition));
  EXPECT_EQ(static_cast<DWORD>(REG_CREATED_NEW_KEY), disposition);
  const char text[] = "narrow";
  const wchar_t wideText[] = L"wide";
  EXPECT_EQ(ERROR_SUCCESS, LB_RegSetValueExA(key, "A", 0, REG_SZ, reinterpret_cast<const BYTE*>(text), sizeof text));
  EXPECT_EQ(ERROR_SUCCESS,
            LB_RegSetValueExW(key, L"W", 0, REG_SZ, reinterpret_cast<const BYTE*>(wideText), sizeof wideText));
  ASSERT_EQ(ERROR_SUCCESS, LB_RegCreateKeyExW(key, L"Child", 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &child, nullptr));
  EXPECT_EQ(ERROR_SUCCESS, LB_RegCloseKey(child));

  char read[32] = {};
  DWORD type = 0, cb = sizeof read;
  EXPECT_EQ(ERROR_SUCCESS, LB_RegQueryValueExA(key, "A", nullptr, &type, reinterpret_cast<BYTE*>(read), &cb));
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), type);
  EXPECT_STREQ("narrow", read);
  cb = 2;
  EXPECT_EQ(ERROR_MORE_DATA, LB_RegQueryValueExA(key, "A", nullptr, nullptr, reinterpret_cast<BYTE*>(read), &cb));
  EXPECT_EQ(sizeof text, cb);
  wchar_t wideRead[32] = {};
  cb = sizeof wideRead;
  EXPECT_EQ(ERROR_SUCCESS, LB_RegQueryValueExW(key, L"W", nullptr, nullptr, reinterpret_cast<BYTE*>(wideRead), &cb));
  EXPECT_STREQ(L"wide", wideRead);

  DWORD subKeys = 0, values = 0, cchName = MAX_PATH;
  EXPECT_EQ(ERROR_SUCCESS, LB_RegQueryInfoKeyA(key, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr, &values,
                                               nullptr, nullptr, nullptr, nullptr));
  EXPECT_EQ(1u, subKeys);
  EXPECT_EQ(2u, values);
  char name[MAX_PATH];
  EXPECT_EQ(ERROR_SUCCESS, LB_RegEnumKeyExA(key, 0, name, &cchName, nullptr, nullptr, nullptr, nullptr));
  EXPECT_STREQ("Child", name);
  cchName = MAX_PATH;
  EXPECT_EQ(ERROR_NO_MORE_ITEMS, LB_RegEnumKeyExA(key, 1, name, &cchName, nullptr, nullptr, nullptr, nullptr));

  EXPECT_EQ(ERROR_SUCCESS, LB_RegDeleteValueA(key, "A"));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, LB_RegDeleteValueW(key, L"A"));
  EXPECT_EQ(ERROR_SUCCESS, LB_RegDeleteKeyW(key, L"Child"));
  EXPECT_EQ(ERROR_SUCCESS, LB_RegCloseKey(key));
  ASSERT_EQ(ERROR_SUCCESS,
            LB_RegOpenKeyExW(HKEY_CURRENT_USER, L"Software\\XKComBsD Tests\\LateBound", 0, KEY_READ, &key));
  EXPECT_EQ(ERROR_SUCCESS, LB_RegCloseKey(key));
  EXPECT_EQ(ERROR_SUCCESS, LB_RegDeleteKeyA(HKEY_CURRENT_USER, kKey));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, LB_RegOpenKeyExA(HKEY_CURRENT_USER, kKey, 0, KEY_READ, &key));
  RegDeleteTreeA(HKEY_CURRENT_USER, "Software\\XKComBsD Tests");
}
