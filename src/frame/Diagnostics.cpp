// Debug traces, formatted through the late-bound formatters of the user-interface
// library and written to the debugger output.
#include "frame/Diagnostics.h"

#include <XKIdTrcD.h>
#include <stdarg.h>
#include <xkcombsd/LateBound.h>

namespace xk {

namespace {
constexpr int kTraceChars = 1024;
constexpr int kInterfaceNameChars = 256;
constexpr int kInterfaceNameKind = 8;
}  // namespace

void DebugTraceA(const char* format, ...) {
  char buffer[kTraceChars];
  buffer[0] = '\0';  // stays a valid (empty) line if the formatter is unavailable
  va_list args;
  va_start(args, format);
  LB_wvsprintfA(buffer, format, args);
  va_end(args);
  OutputDebugStringA(buffer);
}

void DebugTraceW(const OLECHAR* format, ...) {
  WCHAR buffer[kTraceChars];
  buffer[0] = L'\0';
  va_list args;
  va_start(args, format);
  LB_wvsprintfW(buffer, format, args);
  va_end(args);
  OutputDebugStringW(buffer);
}

void TraceQueryInterface(REFIID iid, bool succeeded) {
  char name[kInterfaceNameChars];
  name[0] = '\0';
  const BOOL named = XKIdTrcD_InterfaceName(kInterfaceNameKind, iid, name, kInterfaceNameChars);
  OutputDebugStringA("IID: ");
  OutputDebugStringA(name);
  if (named) OutputDebugStringA(succeeded ? " - succeeded" : " - failed");
  OutputDebugStringA("\r\n");
}

}  // namespace xk
