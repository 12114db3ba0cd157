// Table-driven registration. RegisterServer writes, in a fixed order, the keys
// and values a record's flags ask for under HKEY_CLASSES_ROOT, or removes them;
// RegisterInprocServer and RegisterProxyStub fill a record for the two common
// cases. A registration that fails once anything may have been written is
// undone by running the same (already resolved) record as an unregistration.
#include <xkcombsd/Registration.h>
#include <xkcombsd/XKAssert.h>

#include "frame/RegistryValues.h"
#include "strings/GuidKeyPath.h"
#include "frame/RuntimePrimitives.h"

namespace {

using xk::RegKey;

constexpr char kSource[] = "MORegSvr";
constexpr REGSAM kCreateAccess = KEY_SET_VALUE | KEY_CREATE_SUB_KEY;
constexpr REGSAM kValueAccess = KEY_SET_VALUE;
constexpr DWORD kThreadingBits = 0x7000;
constexpr int kNameChars = 39;  // a class name or a ProgID: 38 and the terminator
constexpr int kShortNameChars = 15;
constexpr int kPathChars = 260;
constexpr int kFormattedChars = 1024;  // the most the system formatter writes
constexpr int kProxyStubNameChars = 56;
constexpr char kProxyStubSuffix[] = " ProxyStub Factory";

#ifndef _WIN64
static_assert(sizeof(QVREGSVR) == 152, "the record keeps its 32-bit layout");
#endif

// A string-or-resource field as text. A resource identifier that was not
// loaded is no text at all: it is never read as a pointer.
const char* TextOf(LPCSTR field) { return IS_INTRESOURCE(field) ? nullptr : field; }

struct GuidString {
  explicit GuidString(REFGUID guid) { QvStringFromGUIDA(text, guid); }
  char text[CCH_GUID];
};

// The string-or-resource fields loaded with QVREGSVRF_RESOURCES, in loading
// order, each into a buffer of its own size.
struct ResourceField {
  LPCSTR QVREGSVR::*field;
  DWORD flag;
  DWORD unlessFlag;  // not loaded when this flag is set
  int cch;
};
constexpr ResourceField kResourceFields[] = {
    {&QVREGSVR::name, QVREGSVRF_NAME, 0, kNameChars},
    {&QVREGSVR::auxUserTypeShort, QVREGSVRF_AUXUSERTYPE2, 0, kShortNameChars},
    {&QVREGSVR::auxUserTypeApp, QVREGSVRF_AUXUSERTYPE3, 0, kPathChars},
    {&QVREGSVR::defaultIconPath, QVREGSVRF_DEFAULTICON, 0, kPathChars},
    {&QVREGSVR::inprocHandler32, QVREGSVRF_INPROCHANDLER32, 0, kPathChars},
    {&QVREGSVR::inprocServer32, QVREGSVRF_INPROCSERVER32, 0, kPathChars},
    {&QVREGSVR::threadingModel, QVREGSVRF_THREADINGSTRING, 0, kPathChars},
    {&QVREGSVR::localServer32, QVREGSVRF_LOCALSERVER32, 0, kPathChars},
    {&QVREGSVR::progID, QVREGSVRF_PROGID, QVREGSVRF_VERSION, kNameChars},
    {&QVREGSVR::versionIndependentProgID, QVREGSVRF_VIPROGID, 0, kNameChars},
    {&QVREGSVR::toolboxBitmapPath, QVREGSVRF_TOOLBOXBITMAP32, 0, kPathChars},
};

constexpr int LoadedChars() {
  int total = 0;
  for (const ResourceField& field : kResourceFields) total += field.cch;
  return total;
}

// The record as it is worked on: resource identifiers replaced by their loaded
// text and the composed ProgID in place, so that a roll-back removes exactly
// what the registration wrote.
class WorkingRecord {
 public:
  explicit WorkingRecord(const QVREGSVR& record)
      : m_record(record), m_version(LOWORD(reinterpret_cast<ULONG_PTR>(record.progID))) {}

  // False when a loaded string or the composed ProgID does not fit.
  bool Resolve() { return (!Has(QVREGSVRF_RESOURCES) || LoadResources()) && ComposeProgID(); }

  bool Has(DWORD flags) const { return (m_record.flags & flags) != 0; }
  const QVREGSVR& record() const { return m_record; }
  WORD version() const { return m_version; }

 private:
  bool LoadResources() {
    char* buffer = m_loaded;
    for (const ResourceField& resource : kResourceFields) {
      LPCSTR& field = m_record.*resource.field;
      if (Has(resource.flag) && !Has(resource.unlessFlag) && IS_INTRESOURCE(field)) {
        buffer[0] = '\0';  // a string that cannot be loaded is empty
        if (LB_LoadStringA(m_record.hinst, LOWORD(field), buffer, resource.cch) >= resource.cch)
          return false;
        field = buffer;
      }
      buffer += resource.cch;
    }
    return true;
  }

  // "<version-independent ProgID>.<version>", which must fit a ProgID.
  bool ComposeProgID() {
    if (!Has(QVREGSVRF_PROGID) || !Has(QVREGSVRF_VERSION)) return true;
    const char* independent = TextOf(m_record.versionIndependentProgID);
    if (!independent) return false;
    char composed[kFormattedChars];
    if (LB_wsprintfA(composed, "%s.%d", independent, m_version) >= kNameChars) return false;
    xk::CopyCut(m_progID, composed, kNameChars - 1);
    m_record.progID = m_progID;
    return true;
  }

  QVREGSVR m_record;
  WORD m_version;  // the lower 16 bits of progID as given
  char m_loaded[LoadedChars()];
  char m_progID[kNameChars];
};

LONG SetDefaultKeeping(HKEY parent, const char* subKey, const char* text, REGSAM access,
                       RegKey* key) {
  return xk::Reg_SetStringValueA(parent, subKey, nullptr, text, access, nullptr, key->put(),
                                 nullptr);
}

// Optional entries: their failures are not reported.
void SetDefault(HKEY parent, const char* subKey, const char* text) {
  xk::Reg_SetStringValueA(parent, subKey, nullptr, text, kValueAccess, nullptr, nullptr, nullptr);
}

void SetDefaultGuid(HKEY parent, const char* subKey, REFGUID guid) {
  SetDefault(parent, subKey, GuidString(guid).text);
}

// "<path>,<index>", as icon and bitmap locations are written.
void SetDefaultLocation(HKEY parent, const char* subKey, LPCSTR path, LONG index) {
  char text[kFormattedChars];
  const char* pathText = TextOf(path);
  LB_wsprintfA(text, "%s,%d", pathText ? pathText : "", index);
  SetDefault(parent, subKey, text);
}

const char* ThreadingModelOf(const QVREGSVR& record) {
  switch (record.flags & kThreadingBits) {
    case QVREGSVRF_APARTMENT: return "Apartment";
    case QVREGSVRF_FREE: return "Free";
    case QVREGSVRF_BOTH: return "Both";
    case 0:
    case QVREGSVRF_THREADINGSTRING: return "";
    default: return TextOf(record.threadingModel);
  }
}

void WriteAuxUserTypes(HKEY classKey, const WorkingRecord& work) {
  RegKey aux;
  if (SetDefaultKeeping(classKey, "AuxUserType", nullptr, kCreateAccess, &aux) != ERROR_SUCCESS)
    return;
  if (work.Has(QVREGSVRF_AUXUSERTYPE2))
    SetDefault(aux.get(), "2", TextOf(work.record().auxUserTypeShort));
  if (work.Has(QVREGSVRF_AUXUSERTYPE3))
    SetDefault(aux.get(), "3", TextOf(work.record().auxUserTypeApp));
}

void WriteInprocServer(HKEY classKey, const QVREGSVR& record) {
  RegKey server;
  SetDefaultKeeping(classKey, "InprocServer32", TextOf(record.inprocServer32), kValueAccess,
                    &server);
  if (server.get())
    xk::Reg_SetStringValueA(server.get(), nullptr, "ThreadingModel", ThreadingModelOf(record),
                            kValueAccess, nullptr, nullptr, nullptr);
}

void WriteInterfaces(HKEY classKey, const QVREGSVR& record) {
  RegKey interfaces;
  SetDefaultKeeping(classKey, "Interface", nullptr, kValueAccess, &interfaces);
  if (!interfaces.get() || !record.interfaces) return;
  for (ULONG i = 0; i < record.cInterfaces; ++i)
    SetDefault(interfaces.get(), GuidString(record.interfaces[i].iid).text,
               record.interfaces[i].name);
}

// Everything below the class key, in its fixed order.
void WriteClassEntries(HKEY classKey, const WorkingRecord& work) {
  const QVREGSVR& r = work.record();
  if (work.Has(QVREGSVRF_APPID))
    xk::Reg_SetStringValueA(classKey, nullptr, "AppID", GuidString(r.appid).text, kValueAccess,
                            nullptr, nullptr, nullptr);
  if (work.Has(QVREGSVRF_AUTOCONVERTTO)) SetDefaultGuid(classKey, "AutoConvertTo", r.autoConvertTo);
  if (work.Has(QVREGSVRF_AUTOTREATAS)) SetDefaultGuid(classKey, "AutoTreatAs", r.autoTreatAs);
  if (work.Has(QVREGSVRF_AUXUSERTYPE2 | QVREGSVRF_AUXUSERTYPE3)) WriteAuxUserTypes(classKey, work);
  if (work.Has(QVREGSVRF_CONTROL)) SetDefault(classKey, "Control", nullptr);
  if (work.Has(QVREGSVRF_DEFAULTICON))
    SetDefaultLocation(classKey, "DefaultIcon", r.defaultIconPath, r.defaultIconIndex);
  if (work.Has(QVREGSVRF_INPROCHANDLER32))
    SetDefault(classKey, "InprocHandler32", TextOf(r.inprocHandler32));
  if (work.Has(QVREGSVRF_INPROCSERVER32)) WriteInprocServer(classKey, r);
  if (work.Has(QVREGSVRF_INSERTABLE)) SetDefault(classKey, "Insertable", nullptr);
  if (work.Has(QVREGSVRF_LOCALSERVER32))
    SetDefault(classKey, "LocalServer32", TextOf(r.localServer32));
  if (work.Has(QVREGSVRF_INTERFACE)) WriteInterfaces(classKey, r);
  if (work.Has(QVREGSVRF_AUTOMATION)) SetDefault(classKey, "Programmable", nullptr);
  if (work.Has(QVREGSVRF_PROGID)) SetDefault(classKey, "ProgID", TextOf(r.progID));
  if (work.Has(QVREGSVRF_VIPROGID))
    SetDefault(classKey, "VersionIndependentProgID", TextOf(r.versionIndependentProgID));
  if (work.Has(QVREGSVRF_TOOLBOXBITMAP32))
    SetDefaultLocation(classKey, "ToolboxBitmap32", r.toolboxBitmapPath, r.toolboxBitmapIndex);
  if (work.Has(QVREGSVRF_TREATAS)) SetDefaultGuid(classKey, "TreatAs", r.treatAs);
  if (work.Has(QVREGSVRF_VERSIONKEY) && work.Has(QVREGSVRF_VERSION)) {
    char version[16];
    LB_wsprintfA(version, "%d", work.version());
    SetDefault(classKey, "Version", version);
  }
}

// A ProgID's own key; "CurVer" only for the versioned one. A missing or empty
// ProgID would name the root itself, so it counts as a key that cannot be made.
bool RegisterProgID(const char* progID, const QVREGSVR& record, bool withCurVer) {
  if (!progID || !*progID) return false;
  RegKey key;
  if (SetDefaultKeeping(HKEY_CLASSES_ROOT, progID, TextOf(record.name), kCreateAccess, &key) !=
      ERROR_SUCCESS)
    return false;
  SetDefaultGuid(key.get(), "CLSID", record.clsid);
  if (withCurVer) SetDefault(key.get(), "CurVer", progID);
  return true;
}

bool Register(const WorkingRecord& work, const char* classPath) {
  const QVREGSVR& r = work.record();
  {
    RegKey classKey;
    if (SetDefaultKeeping(HKEY_CLASSES_ROOT, classPath, TextOf(r.name), kCreateAccess,
                          &classKey) != ERROR_SUCCESS)
      return false;
    WriteClassEntries(classKey.get(), work);
  }
  if (work.Has(QVREGSVRF_PROGID) && !RegisterProgID(TextOf(r.progID), r, true)) return false;
  if (work.Has(QVREGSVRF_VIPROGID) && !RegisterProgID(TextOf(r.versionIndependentProgID), r, false))
    return false;
  return true;
}

// Removes the class key tree and the ProgID trees; what is already missing is
// no failure.
void Unregister(const WorkingRecord& work, const char* classPath) {
  const QVREGSVR& r = work.record();
  xk::Reg_DeleteKeyTreeA(HKEY_CLASSES_ROOT, classPath);
  if (work.Has(QVREGSVRF_PROGID)) xk::Reg_DeleteKeyTreeA(HKEY_CLASSES_ROOT, TextOf(r.progID));
  if (work.Has(QVREGSVRF_VIPROGID))
    xk::Reg_DeleteKeyTreeA(HKEY_CLASSES_ROOT, TextOf(r.versionIndependentProgID));
}

bool RefusedAsWide(DWORD flags, const char* message) {
  if (!(flags & QVREGSVRF_UNICODE)) return false;
  OutputDebugStringA(message);
  return true;
}

}  // namespace

// ---- RegisterServer ----------------------------------------------------------
extern "C" BOOL WINAPI RegisterServer(const QVREGSVR* pcreg) {
  if (!xk::Verify(pcreg != nullptr, {kSource, 64, "pcreg"})) return FALSE;
  xk::Verify((pcreg->flags & QVREGSVRF_CLSID) != 0,
             {kSource, 65, "pcreg->flags & QVREGSVRF_CLSID"});
  WorkingRecord work(*pcreg);
  if (RefusedAsWide(pcreg->flags,
                    "RegisterServer error: QVREGSVRF_UNICODE flag not currently supported!\n"))
    return FALSE;

  char classPath[xk::kClassKeyChars];
  xk::KeyPathOf(classPath, xk::kClassKeyPrefix, work.record().clsid);
  const bool resolved = work.Resolve();
  if (work.Has(QVREGSVRF_UNREGISTER)) {
    Unregister(work, classPath);
    return TRUE;
  }
  if (!resolved) return FALSE;
  if (Register(work, classPath)) return TRUE;
  Unregister(work, classPath);  // the roll-back: the result stays FALSE
  return FALSE;
}

// ---- RegisterInprocServer ----------------------------------------------------
extern "C" BOOL WINAPI RegisterInprocServer(REFCLSID clsid, LPCSTR name, LPCSTR path, LPCSTR progID,
                                            WORD version, DWORD flags) {
  if (RefusedAsWide(flags,
                    "RegisterInprocServer error: QVREGSVRF_UNICODE flag not currently supported!\n"))
    return FALSE;
  QVREGSVR record = {};
  record.flags = QVREGSVRF_INPROCSERVER32 | QVREGSVRF_CLSID | QVREGSVRF_NAME |
                 (flags & (QVREGSVRF_UNREGISTER | QVREGSVRF_BOTH));
  record.clsid = clsid;
  char cutName[kNameChars];
  if (name) {
    xk::CopyCut(cutName, name, kNameChars - 1);
    record.name = cutName;
  }
  record.inprocServer32 = path;
  if (progID) {
    record.flags |= QVREGSVRF_PROGID | QVREGSVRF_VERSION | QVREGSVRF_VIPROGID;
    record.versionIndependentProgID = progID;
    record.progID = MAKEINTRESOURCEA(version);
  }
  return RegisterServer(&record);
}

// ---- RegisterProxyStub -------------------------------------------------------
extern "C" BOOL WINAPI RegisterProxyStub(REFIID iid, REFCLSID clsidProxyStub, LPCSTR name,
                                         LPCSTR path, DWORD flags) {
  if (RefusedAsWide(flags,
                    "RegisterProxyStub error: QVREGSVRF_UNICODE flag not currently supported!\n"))
    return FALSE;
  const bool unregister = (flags & QVREGSVRF_UNREGISTER) != 0;
  constexpr GUID kNullGuid = {};
  QVREGSVR record = {};
  record.flags = QVREGSVRF_INPROCSERVER32 | QVREGSVRF_BOTH | QVREGSVRF_CLSID | QVREGSVRF_NAME |
                 (flags & QVREGSVRF_UNREGISTER);
  record.clsid = clsidProxyStub == kNullGuid ? iid : clsidProxyStub;
  char factoryName[kProxyStubNameChars + sizeof kProxyStubSuffix] = "";
  if (name && *name)
    xk::CopyCut(xk::CopyCut(factoryName, name, kProxyStubNameChars), kProxyStubSuffix,
                sizeof kProxyStubSuffix - 1);
  record.name = factoryName;
  record.inprocServer32 = path;

  const BOOL registered = RegisterServer(&record);
  if (!registered && !unregister) return FALSE;
  char interfacePath[10 + CCH_GUID];
  xk::KeyPathOf(interfacePath, "Interface\\", iid);
  if (unregister) {
    xk::Reg_DeleteKeyTreeA(HKEY_CLASSES_ROOT, interfacePath);
  } else {
    RegKey key;
    if (SetDefaultKeeping(HKEY_CLASSES_ROOT, interfacePath, name, kCreateAccess, &key) ==
        ERROR_SUCCESS)
      SetDefaultGuid(key.get(), "ProxyStubClsid32", record.clsid);
  }
  return registered;
}
