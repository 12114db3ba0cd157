// The late-bound entry points that the library's own code never calls, as
// clients call them through the exports: with the system function's results.
#include <gmock/gmock.h>
#include <xkcombsd/LateBound.h>

#include <string>

namespace {

// Converts a copy of the text in place; the function must hand back the same buffer.
template <class C>
void ExpectConverted(C*(WINAPI* convert)(C*), const C* text, const C* expected) {
  std::basic_string<C> buffer(text);
  EXPECT_EQ(buffer.data(), convert(buffer.data()));
  EXPECT_EQ(std::basic_string<C>(expected), buffer);
}

}  // namespace

TEST(LateBound, TextFunctionsAnswerAsTheSystemOnes) {
  wchar_t wide[64];
  EXPECT_EQ(11, LB_wsprintfW(wide, L"%s.%d", L"abcd.dll", 12));
  EXPECT_STREQ(L"abcd.dll.12", wide);
  ExpectConverted(LB_CharLowerA, "MiXed 9", "mixed 9");
  ExpectConverted(LB_CharUpperA, "MiXed 9", "MIXED 9");
  ExpectConverted(LB_CharUpperW, L"MiXed", L"MIXED");
  ExpectConverted(LB_CharLowerW, L"MiXed", L"mixed");
}

TEST(LateBound, KeyInformationIsTheSystemsOwn) {
  auto counts = [](auto query) {
    DWORD subKeys = 0, values = 0;
    const LONG rc = query(HKEY_LOCAL_MACHINE, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr,
                          &values, nullptr, nullptr, nullptr, nullptr);
    return std::to_string(rc) + "|" + std::to_string(subKeys) + "|" + std::to_string(values);
  };
  EXPECT_EQ(counts(RegQueryInfoKeyA), counts(LB_RegQueryInfoKeyA));
  EXPECT_EQ(counts(RegQueryInfoKeyW), counts(LB_RegQueryInfoKeyW));
  EXPECT_EQ("0|", counts(LB_RegQueryInfoKeyW).substr(0, 2));
}
