// Conventions shared by every public header of XKComBsD: the calling convention
// of the exported functions and the C linkage they are exported with.
#pragma once

#include <windows.h>
#include <ole2.h>

#ifdef __cplusplus
#define XK_EXTERN_C extern "C"
#else
#define XK_EXTERN_C
#endif

// Every export uses the platform's standard calling convention, as the system
// functions beside them do; only the variadic formatters are cdecl.
#define XKAPI WINAPI
