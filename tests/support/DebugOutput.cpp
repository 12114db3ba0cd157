#include "DebugOutput.h"

#include <XKCmnBaD.h>

#include <atomic>
#include <cstring>

namespace xktest {

namespace {

constexpr DWORD kPrintException = 0x40010006;      // DBG_PRINTEXCEPTION_C
constexpr DWORD kPrintExceptionWide = 0x4001000A;  // DBG_PRINTEXCEPTION_WIDE_C

std::atomic<DebugOutputCapture*> g_active{nullptr};

std::string Utf8(const wchar_t* text, size_t length) {
  if (!length) return {};
  const int n = WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), nullptr, 0,
                                    nullptr, nullptr);
  std::string out(n, '\0');
  WideCharToMultiByte(CP_UTF8, 0, text, static_cast<int>(length), out.data(), n, nullptr, nullptr);
  return out;
}

// The exception carries the length including the terminator, then the text.
std::string TextOf(const EXCEPTION_RECORD& record) {
  const size_t length = record.ExceptionInformation[0];
  const ULONG_PTR text = record.ExceptionInformation[1];
  if (!text || !length) return {};
  if (record.ExceptionCode == kPrintExceptionWide)
    return Utf8(reinterpret_cast<const wchar_t*>(text), length - 1);
  return std::string(reinterpret_cast<const char*>(text), length - 1);
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
  if (DebugOutputCapture* capture = g_active.load()) capture->Record(TextOf(record));
  // Handled here: the call returns without falling back to the narrow form.
  return EXCEPTION_CONTINUE_EXECUTION;
}

void DebugOutputCapture::Record(std::string text) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lines.push_back(std::move(text));
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

bool ParseAssertion(const std::string& line, AssertionReport* report) {
  const size_t marker = line.find(xkcmnbad::kAssertionMarker);
  if (marker == std::string::npos || line.empty() || line.back() != '\n') return false;
  const size_t open = line.rfind('(', marker);
  if (open == std::string::npos) return false;
  report->file = line.substr(0, open);
  report->line = std::atoi(line.c_str() + open + 1);
  const size_t text = marker + std::strlen(xkcmnbad::kAssertionMarker);
  report->expression = line.substr(text, line.size() - 1 - text);
  return true;
}

namespace {

std::string ReadDebuggeeString(HANDLE process, const OUTPUT_DEBUG_STRING_INFO& info) {
  const size_t length = info.nDebugStringLength;
  if (!length) return {};
  if (info.fUnicode) {
    std::wstring text(length, L'\0');
    SIZE_T read = 0;
    ReadProcessMemory(process, info.lpDebugStringData, text.data(), length * sizeof(wchar_t), &read);
    text.resize(wcsnlen(text.c_str(), read / sizeof(wchar_t)));
    return Utf8(text.c_str(), text.size());
  }
  std::string text(length, '\0');
  SIZE_T read = 0;
  ReadProcessMemory(process, info.lpDebugStringData, text.data(), length, &read);
  text.resize(strnlen(text.c_str(), read));
  return text;
}

void CloseEventHandles(const DEBUG_EVENT& event) {
  if (event.dwDebugEventCode == CREATE_PROCESS_DEBUG_EVENT && event.u.CreateProcessInfo.hFile)
    CloseHandle(event.u.CreateProcessInfo.hFile);
  if (event.dwDebugEventCode == LOAD_DLL_DEBUG_EVENT && event.u.LoadDll.hFile)
    CloseHandle(event.u.LoadDll.hFile);
}

}  // namespace

DebuggeeRun RunUnderDebugger(const std::wstring& commandLine, DWORD timeoutMs) {
  DebuggeeRun run;
  STARTUPINFOW startup = {sizeof startup};
  PROCESS_INFORMATION process = {};
  std::wstring mutableLine = commandLine;
  if (!CreateProcessW(nullptr, mutableLine.data(), nullptr, nullptr, FALSE,
                      DEBUG_ONLY_THIS_PROCESS, nullptr, nullptr, &startup, &process))
    return run;

  const ULONGLONG deadline = GetTickCount64() + timeoutMs;
  DEBUG_EVENT event;
  while (GetTickCount64() < deadline) {
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
      default:
        CloseEventHandles(event);
        break;
    }
    ContinueDebugEvent(event.dwProcessId, event.dwThreadId, status);
    if (run.finished) break;
  }
  if (!run.finished) TerminateProcess(process.hProcess, 1);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return run;
}

DWORD RunToEnd(const std::string& commandLine, DWORD timeoutMs) {
  STARTUPINFOA startup = {sizeof startup};
  PROCESS_INFORMATION process = {};
  std::string mutableLine = commandLine;
  if (!CreateProcessA(nullptr, mutableLine.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
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
  const DWORD n = GetModuleFileNameW(nullptr, path, MAX_PATH);
  std::wstring dir(path, n);
  return dir.substr(0, dir.find_last_of(L"\\/"));
}

std::string ExecutableDirectoryA() {
  char path[MAX_PATH];
  const DWORD n = GetModuleFileNameA(nullptr, path, MAX_PATH);
  std::string dir(path, n);
  return dir.substr(0, dir.find_last_of("\\/"));
}

}  // namespace xktest
