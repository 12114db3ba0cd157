// The class table: one row per COM class or proxy/stub factory the library
// serves, searched in order by DllGetClassObject. A row names its identifier
// (for a proxy/stub row the interface identifier itself), the function that
// creates its objects and its flags.
#pragma once

#include <windows.h>
#include <ole2.h>

namespace xk::server {

// Creates one object of the row's class. With an objectCount, the new object
// holds the module object count for its lifetime.
using CreateFunction = HRESULT (*)(REFCLSID id, IUnknown* outer, LONG* objectCount, REFIID riid,
                                   void** ppv);

constexpr DWORD kNoAggregation = 0x1;  // CreateInstance refuses an outer unknown

struct ClassRow {
  const GUID* id;  // NULL ends a table
  CreateFunction create;
  DWORD flags;
};

// The first row whose identifier equals rclsid byte for byte; NULL if none.
const ClassRow* FindClassRow(const ClassRow* table, REFCLSID rclsid);

// DllGetClassObject over a table: a fresh class object bound to the row of
// rclsid, queried for riid, under the module critical section.
HRESULT GetClassObject(const ClassRow* table, REFCLSID rclsid, REFIID riid, void** ppv);

}  // namespace xk::server
