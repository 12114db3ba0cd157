#include "DebugOutput.h"

#include <XKCmnBaD.h>

#include <atomic>
#include <cstring>

namespace xktest {

namespace {

constexpr DWORD kPrintException = 0x40010006;      // DBG_PRINTEXCEPTION_C
constexpr DWORD kPrintExceptionWide = 0x4001000A;  // DBG_PRINTEXCEPTION_WIDE_C

std::atomic<DebugOutputCapture*> g_active{nullptr};

std::string Narrow(const wchar_t* text, size_t length, UINT codePage = CP_UTF8) {
  const int cch = static_cast<int>(length);
  std::string out(WideCharToMultiByte(codePage, 0, text, cch, nullptr, 0, nullptr, nullptr), '\0');
  WideCharToMultiByte(codePage, 0, text, cch, out.data(), int(out.size()), nullptr, nullptr);
  return out;
}

// The exception carries the length including the terminator, then the text.
std::string TextOf(const EXCEPTION_RECORD& record) {
  const size_t length = record.ExceptionInformation[0];
  const ULONG_PTR text = record.ExceptionInformation[1];
  if (!text || !length) return {};
  if (record.ExceptionCode == kPrintExceptionWide)
    return Narrow(reinterpret_cast<const wchar_t*>(text), length - 1);
  return std::string(reinterpret_cast<const char*>(text), length - 1);
}

// One entry of the family's assertion reporter: "file(line): assertion failed: expression\n".
bool ParseAssertion(const std::string& line, AssertionReport* report) {
  const size_t marker = line.find(xkcmnbad::kAssertionMarker);
  if (marker == std::string::npos || line.back() != '\n') return false;
  const size_t open = line.rfind('(', marker);
  if (open == std::string::npos) return false;
  report->file = line.substr(0, open);
  report->line = std::atoi(line.c_str() + open + 1);
  const size_t text = marker + std::strlen(xkcmnbad::kAssertionMarker);
  report->expression = line.substr(text, line.size() - 1 - text);
  return true;
}

// The text a debuggee passed, narrow or wide, up to its first terminator.
std::string ReadDebuggeeString(HANDLE process, const OUTPUT_DEBUG_STRING_INFO& info) {
  const size_t unit = info.fUnicode ? sizeof(wchar_t) : 1;
  std::string raw(info.nDebugStringLength * unit, '\0');
  SIZE_T read = 0;
  ReadProcessMemory(process, info.lpDebugStringData, raw.data(), raw.size(), &read);
  raw.resize(read);
  if (!info.fUnicode) return raw.substr(0, strnlen(raw.c_str(), read));
  const auto* wide = reinterpret_cast<const wchar_t*>(raw.data());
  return Narrow(wide, wcsnlen(wide, read / unit));
}

}  // namespace

void PrintTo(const AssertionReport& report, std::ostream* os) {
  *os << report.file << "(" << report.line << "): " << report.expression;
}

DebugOutputCapture::DebugOutputCapture() {
  g_active.store(this);
  m_handler = AddVectoredExceptionHandler(1, &DebugOutputCapture::Handler);
}

DebugOutputCapture::~DebugOutputCapture() {
  RemoveVectoredExceptionHandler(m_handler);
  g_active.store(nullptr);
}

LONG CALLBACK DebugOutputCapture::Handler(EXCEPTION_POINTERS* info) {
  const EXCEPTION_RECORD& record = *info->ExceptionRecord;
  if (record.ExceptionCode != kPrintException && record.ExceptionCode != kPrintExceptionWide)
    return EXCEPTION_CONTINUE_SEARCH;
  if (DebugOutputCapture* capture = g_active.load()) {
    std::lock_guard<std::mutex> lock(capture->m_mutex);
    capture->m_lines.push_back(TextOf(record));
  }
  // Handled here: the call returns without falling back to the narrow form.
  return EXCEPTION_CONTINUE_EXECUTION;
}

std::vector<std::string> DebugOutputCapture::Lines() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_lines;
}

std::string DebugOutputCapture::Text() const {
  std::string all;
  for (const std::string& line : Lines()) all += line;
  return all;
}

std::vector<AssertionReport> DebugOutputCapture::Assertions() const {
  std::vector<AssertionReport> reports;
  AssertionReport report;
  for (const std::string& line : Lines())
    if (ParseAssertion(line, &report)) reports.push_back(report);
  return reports;
}

void DebugOutputCapture::Clear() {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.clear();
}

DebuggeeRun RunUnderDebugger(std::wstring commandLine, DWORD timeoutMs) {
  DebuggeeRun run;
  STARTUPINFOW startup = {sizeof startup};
  PROCESS_INFORMATION process = {};
  if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, FALSE, DEBUG_ONLY_THIS_PROCESS,
                      nullptr, nullptr, &startup, &process))
    return run;

  const ULONGLONG deadline = GetTickCount64() + timeoutMs;
  DEBUG_EVENT event;
  while (!run.finished && GetTickCount64() < deadline) {
    if (!WaitForDebugEvent(&event, 250)) continue;
    DWORD status = DBG_CONTINUE;
    switch (event.dwDebugEventCode) {
      case OUTPUT_DEBUG_STRING_EVENT:
        run.output.push_back(ReadDebuggeeString(process.hProcess, event.u.DebugString));
        break;
      case EXCEPTION_DEBUG_EVENT:
        if (event.u.Exception.ExceptionRecord.ExceptionCode != EXCEPTION_BREAKPOINT)
          status = DBG_EXCEPTION_NOT_HANDLED;
        break;
      case EXIT_PROCESS_DEBUG_EVENT:
        run.exitCode = event.u.ExitProcess.dwExitCode;
        run.finished = true;
        break;
      case CREATE_PROCESS_DEBUG_EVENT:  // the debugger owns these file handles
        CloseHandle(event.u.CreateProcessInfo.hFile);
        break;
      case LOAD_DLL_DEBUG_EVENT:
        CloseHandle(event.u.LoadDll.hFile);
        break;
    }
    ContinueDebugEvent(event.dwProcessId, event.dwThreadId, status);
  }
  if (!run.finished) TerminateProcess(process.hProcess, 1);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return run;
}

DWORD RunToEnd(std::string commandLine, DWORD timeoutMs) {
  STARTUPINFOA startup = {sizeof startup};
  PROCESS_INFORMATION process = {};
  if (!CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                      &startup, &process))
    return kNotRun;
  DWORD exitCode = kNotRun;
  if (WaitForSingleObject(process.hProcess, timeoutMs) == WAIT_OBJECT_0)
    GetExitCodeProcess(process.hProcess, &exitCode);
  else
    TerminateProcess(process.hProcess, 1);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return exitCode;
}

std::wstring ExecutableDirectoryW() {
  wchar_t path[MAX_PATH];
  const std::wstring file(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
  return file.substr(0, file.find_last_of(L"\\/"));
}

// The same directory in the ANSI code page, as the narrow system functions take it.
std::string ExecutableDirectoryA() {
  const std::wstring directory = ExecutableDirectoryW();
  return Narrow(directory.c_str(), directory.size(), CP_ACP);
}

}  // namespace xktest
