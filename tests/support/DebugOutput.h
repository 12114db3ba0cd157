// Capture of debugger output inside the test process. OutputDebugStringA/W raise
// a printable exception that a first vectored handler sees before anything else
// (under Wine as on Windows); the handler records the text and lets the call
// return as if a debugger had consumed it.
#pragma once

#include <windows.h>

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace xktest {

// One report of the family's assertion reporter: "file(line): assertion failed: expression".
struct AssertionReport {
  std::string file;
  int line = 0;
  std::string expression;
  bool operator==(const AssertionReport& other) const {
    return file == other.file && line == other.line && expression == other.expression;
  }
};
void PrintTo(const AssertionReport& report, std::ostream* os);

// Every OutputDebugString call while the capture lives, one entry per call, in
// order, from every thread. Wide text is kept as UTF-8. One capture at a time.
class DebugOutputCapture {
 public:
  DebugOutputCapture();
  ~DebugOutputCapture();
  DebugOutputCapture(const DebugOutputCapture&) = delete;
  DebugOutputCapture& operator=(const DebugOutputCapture&) = delete;

  std::vector<std::string> Lines() const;
  // All output run together, for multi-call lines such as the QueryInterface trace.
  std::string Text() const;
  std::vector<AssertionReport> Assertions() const;
  void Clear();

 private:
  static LONG CALLBACK Handler(EXCEPTION_POINTERS* info);

  void* m_handler = nullptr;
  mutable std::mutex m_mutex;
  std::vector<std::string> m_lines;  // (m_mutex)
};

// The debugger output of a child process run to its end under the Win32
// debugging interface, which also sees what its DLLs write before main and
// after exit. Ends the child if it does not finish within timeoutMs.
struct DebuggeeRun {
  DWORD exitCode = 0;
  bool finished = false;
  std::vector<std::string> output;
};
DebuggeeRun RunUnderDebugger(std::wstring commandLine, DWORD timeoutMs);

// The exit code of a child process run to its end (no debugger); kNotRun when
// it could not be started or had to be ended after timeoutMs.
constexpr DWORD kNotRun = 0xFFFFFFFF;
DWORD RunToEnd(std::string commandLine, DWORD timeoutMs);

// The directory of the running test executable, where the DLLs are too.
std::string ExecutableDirectoryA();
std::wstring ExecutableDirectoryW();

}  // namespace xktest
