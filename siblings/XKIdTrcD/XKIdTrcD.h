// The family's interface-name library, as XKComBsD reaches it: by ordinal only.
#pragma once

#include <windows.h>
#include <objbase.h>

extern "C" {
// Writes the display name of an interface identifier into buffer (cch characters)
// and returns non-zero; for an identifier without a name it writes the braced
// identifier text and returns 0. kind selects the form of name; only 8 (the
// registered name) is used and every value is treated alike.
BOOL WINAPI XKIdTrcD_InterfaceName(int kind, REFIID iid, char* buffer, int cch);  // ordinal 15
}
