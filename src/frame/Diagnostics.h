// Diagnostic output of the library: debug traces and the QueryInterface trace.
// Lines go to the debugger output; callers end their own lines with "\n".
#pragma once

#include <windows.h>
#include <ole2.h>

namespace xk {

// Formats into a 1024-character buffer (longer output is cut by the formatter)
// and writes it to the debugger output as it is: no prefix, no newline added.
void DebugTraceA(const char* format, ...);
void DebugTraceW(const OLECHAR* format, ...);

// "IID: <name>", then " - succeeded" or " - failed" when the name is known, then "\r\n".
void TraceQueryInterface(REFIID iid, bool succeeded);

}  // namespace xk
