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
  // A single character travels in the low word of the pointer, as the system defines.
  EXPECT_EQ(static_cast<ULONG_PTR>(L'Q'),
            reinterpret_cast<ULONG_PTR>(LB_CharUpperW(reinterpret_cast<LPWSTR>(L'q'))));
}
