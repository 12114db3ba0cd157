// Table-driven registration of COM servers. A record describes one class (or
// one proxy/stub factory); its flag word decides what RegisterServer writes
// under HKEY_CLASSES_ROOT, or removes. All text is narrow (ANSI); records that
// ask for wide text are refused.
#pragma once

#include <xkcombsd/XKApi.h>

#define QVREGSVRF_UNREGISTER       0x00000001u  // remove instead of write
#define QVREGSVRF_RESOURCES        0x00000002u  // resource identifiers are loaded from hinst
#define QVREGSVRF_NAME             0x00000004u  // name may be a resource identifier
#define QVREGSVRF_CLSID            0x00000008u  // clsid is valid (required)
#define QVREGSVRF_APPID            0x00000010u  // value "AppID"
#define QVREGSVRF_AUTOCONVERTTO    0x00000020u  // key "AutoConvertTo"
#define QVREGSVRF_AUTOTREATAS      0x00000040u  // key "AutoTreatAs"
#define QVREGSVRF_AUXUSERTYPE2     0x00000080u  // key "AuxUserType\2"
#define QVREGSVRF_AUXUSERTYPE3     0x00000100u  // key "AuxUserType\3"
#define QVREGSVRF_CONTROL          0x00000200u  // key "Control"
#define QVREGSVRF_DEFAULTICON      0x00000400u  // key "DefaultIcon"
#define QVREGSVRF_INPROCHANDLER32  0x00000800u  // key "InprocHandler32"
#define QVREGSVRF_APARTMENT        0x00001000u  // "ThreadingModel" = "Apartment"
#define QVREGSVRF_FREE             0x00002000u  // "ThreadingModel" = "Free"
#define QVREGSVRF_BOTH             0x00003000u  // "ThreadingModel" = "Both"
#define QVREGSVRF_THREADINGSTRING  0x00004000u  // 0x5000-0x7000: threadingModel's text
#define QVREGSVRF_INPROCSERVER32   0x00008000u  // key "InprocServer32" and "ThreadingModel"
#define QVREGSVRF_INSERTABLE       0x00010000u  // key "Insertable"
#define QVREGSVRF_LOCALSERVER32    0x00020000u  // key "LocalServer32"
#define QVREGSVRF_INTERFACE        0x00040000u  // key "Interface", one sub-key per entry
#define QVREGSVRF_AUTOMATION       0x00080000u  // key "Programmable"
#define QVREGSVRF_PROGID           0x00100000u  // key "ProgID" and the ProgID's own key
#define QVREGSVRF_VERSION          0x00200000u  // progID holds a version number
#define QVREGSVRF_VIPROGID         0x00400000u  // key "VersionIndependentProgID" and its own key
#define QVREGSVRF_TOOLBOXBITMAP32  0x00800000u  // key "ToolboxBitmap32"
#define QVREGSVRF_TREATAS          0x01000000u  // key "TreatAs"
#define QVREGSVRF_VERSIONKEY       0x02000000u  // key "Version" (with QVREGSVRF_VERSION)
#define QVREGSVRF_UNICODE          0x80000000u  // wide strings: refused

// One entry of the "Interface" key.
typedef struct tagQVREGSVR_INTERFACE {
  IID iid;
  LPCSTR name;
} QVREGSVR_INTERFACE;

// String-or-resource fields (LPCSTR) hold a pointer to narrow text or, when the
// value is below 0x10000, a string-resource identifier (MAKEINTRESOURCEA(id)).
typedef struct tagQVREGSVR {
  DWORD flags;                            // QVREGSVRF_*
  HINSTANCE hinst;                        // where resource identifiers are loaded from
  LPCSTR name;                            // class description (at most 38 from a resource)
  DWORD reserved;                         // not read
  CLSID clsid;
  GUID appid;
  CLSID autoConvertTo;
  CLSID autoTreatAs;
  LPCSTR auxUserTypeShort;                // at most 14 from a resource
  LPCSTR auxUserTypeApp;                  // the paths and texts below: at most 259
  LPCSTR defaultIconPath;
  LONG defaultIconIndex;
  LPCSTR inprocHandler32;
  LPCSTR inprocServer32;
  LPCSTR threadingModel;                  // threading bits 0x5000-0x7000
  LPCSTR localServer32;
  const QVREGSVR_INTERFACE* interfaces;
  ULONG cInterfaces;
  LPCSTR progID;                          // or with QVREGSVRF_VERSION: MAKEINTRESOURCEA(version)
  LPCSTR versionIndependentProgID;        // the ProgIDs: at most 38
  LPCSTR toolboxBitmapPath;
  LONG toolboxBitmapIndex;
  CLSID treatAs;
} QVREGSVR;

// TRUE when everything asked for was written (or removed); FALSE when the
// record was refused, a composed ProgID did not fit, or the class key or a
// ProgID key could not be made (what was written is then removed again).
XK_EXTERN_C BOOL XKAPI RegisterServer(const QVREGSVR* pcreg);

// An in-process server: "InprocServer32" = path with the threading bits of
// flags (0x3000) and, with a progID, the ProgID "<progID>.<version>" and the
// version-independent progID. QVREGSVRF_UNREGISTER in flags removes instead.
XK_EXTERN_C BOOL XKAPI RegisterInprocServer(REFCLSID clsid, LPCSTR name, LPCSTR path,
                                            LPCSTR progID, WORD version, DWORD flags);

// A proxy/stub factory for iid (class clsidProxyStub, or iid itself when that is
// the null GUID) and the interface's "ProxyStubClsid32" pointing at it.
XK_EXTERN_C BOOL XKAPI RegisterProxyStub(REFIID iid, REFCLSID clsidProxyStub, LPCSTR name,
                                         LPCSTR path, DWORD flags);
