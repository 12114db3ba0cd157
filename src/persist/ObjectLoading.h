// Making the object an object record names: the class id, then the object's
// own data, loaded through its IPersistStream (or IPersistStreamInit).
#pragma once

#include <objidl.h>

namespace xk::persist {

// Reads the class id, creates that class, loads it from the rest of the record
// and queries it for riid. The steps are the library's own rather than the
// platform's OleLoadFromStream, which on some systems leaves a failed object
// in its output unreleased: here every failure releases what was made and
// leaves *ppv NULL. Like the platform's, it keeps no position guard.
HRESULT LoadObject(IStream* stream, REFIID riid, void** ppv);

}  // namespace xk::persist
