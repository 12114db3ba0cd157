// Debug traces and the QueryInterface trace, as the debugger output shows them.
#include <gmock/gmock.h>

#include <string>

#include "DebugOutput.h"
#include "frame/Diagnostics.h"

using ::testing::ElementsAre;

TEST(DebugTrace, WritesTheFormattedLineAsItIsAndCutsWhatOverrunsTheBuffer) {
  xktest::DebugOutputCapture capture;
  xk::DebugTraceA("%s=%d\n", "narrow", 5);
  xk::DebugTraceW(L"%s=%d\n", L"wide", 6);
  xk::DebugTraceA("%s", std::string(3000, 'x').c_str());
  xk::DebugTraceW(L"%s", std::wstring(3000, L'y').c_str());
  EXPECT_THAT(capture.Lines(), ElementsAre("narrow=5\n", "wide=6\n", std::string(1023, 'x'),
                                           std::string(1023, 'y')));
}

TEST(TraceQueryInterface, NamesTheInterfaceAndTheOutcomeButGivesAnUnnamedOneNoOutcome) {
  xktest::DebugOutputCapture capture;
  xk::TraceQueryInterface(IID_IUnknown, true);
  xk::TraceQueryInterface(IID_IStream, false);
  xk::TraceQueryInterface({0x00517663, 0x0003, 0x00FF, {0, 1, 0, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}},
                          true);
  EXPECT_EQ(
      "IID: IUnknown - succeeded\r\nIID: IStream - failed\r\n"
      "IID: {00517663-0003-00FF-0001-00C0DFE64A64}\r\n",
      capture.Text());
}
