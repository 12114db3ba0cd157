// The family's common base library, as XKComBsD reaches it: by ordinal only.
// Start-up and shut-down of its services, the bracket around the COM work of a
// module's entry point, the assertion reporter and the current thread's identifier.
#pragma once

#include <windows.h>

extern "C" {
void WINAPI XKCmnBaD_StartServices();                       // ordinal 16
void WINAPI XKCmnBaD_StopServices();                        // ordinal 17
void WINAPI XKCmnBaD_BracketComWork(int entering);          // ordinal 18
void WINAPI XKCmnBaD_ReportAssertion(const char* file, int line,
                                     const char* expression);  // ordinal 19
DWORD WINAPI XKCmnBaD_CurrentThreadId();                    // ordinal 329
}

namespace xkcmnbad {
// The debugger-output line of one assertion report. Test harnesses parse it, so
// it has exactly one home.
constexpr const char kAssertionFormat[] = "%s(%d): assertion failed: %s\n";
constexpr const char kAssertionMarker[] = "): assertion failed: ";
}  // namespace xkcmnbad
