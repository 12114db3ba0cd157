// String resources, loaded through the late-bound loaders into a buffer of a
// fixed size: the BSTR and OLE-string makers share this one way in.
#include <xkcombsd/LateBound.h>

#include "strings/StringsInternal.h"

namespace xk::strings {

bool LoadResourceText(HINSTANCE hinst, UINT id, char (&text)[kResourceChars]) {
  return LB_LoadStringA(hinst, id, text, kResourceChars) != 0;
}

bool LoadResourceText(HINSTANCE hinst, UINT id, OLECHAR (&text)[kResourceChars]) {
  return LB_LoadStringW(hinst, id, text, kResourceChars) != 0;
}

}  // namespace xk::strings
