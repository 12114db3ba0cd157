// Debug traces and the QueryInterface trace, as the debugger output shows them.
#include <gmock/gmock.h>

#include <string>

#include "DebugOutput.h"
#include "frame/Diagnostics.h"

using ::testing::ElementsAre;
using xktest::DebugOutputCapture;

TEST(DebugTrace, FormatsAndWritesTheLineAsItIs) {
  DebugOutputCapture capture;
  xk::DebugTraceA("%s=%d\n", "narrow", 5);
  xk::DebugTraceW(L"%s=%d\n", L"wide", 6);
  xk::DebugTraceA("no newline");
  EXPECT_THAT(capture.Lines(), ElementsAre("narrow=5\n", "wide=6\n", "no newline"));
}

TEST(DebugTrace, OutputLongerThanTheBufferIsCutNotOverrun) {
  DebugOutputCapture capture;
  const std::string longText(3000, 'x');
  xk::DebugTraceA("%s", longText.c_str());
  const std::wstring longWide(3000, L'y');
  xk::DebugTraceW(L"%s", longWide.c_str());
  const auto lines = capture.Lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(std::string(1023, 'x'), lines[0]);
  EXPECT_EQ(std::string(1023, 'y'), lines[1]);
}

TEST(TraceQueryInterface, NamesTheInterfaceAndTheOutcome) {
  DebugOutputCapture capture;
  xk::TraceQueryInterface(IID_IUnknown, true);
  xk::TraceQueryInterface(IID_IStream, false);
  EXPECT_EQ("IID: IUnknown - succeeded\r\nIID: IStream - failed\r\n", capture.Text());
}

TEST(TraceQueryInterface, AnUnnamedInterfaceGetsNoOutcome) {
  DebugOutputCapture capture;
  const IID unnamed = {0x00517663, 0x0003, 0x00FF, {0, 1, 0, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}};
  xk::TraceQueryInterface(unnamed, true);
  EXPECT_EQ("IID: {00517663-0003-00FF-0001-00C0DFE64A64}\r\n", capture.Text());
  EXPECT_THAT(capture.Lines(), ElementsAre("IID: ", "{00517663-0003-00FF-0001-00C0DFE64A64}", "\r\n"));
}
