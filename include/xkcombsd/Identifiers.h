// Class and interface identifiers of the library's own family:
// classes {00517663-0002-00nn-0001-00C0DFE64A64},
// interfaces {00517663-0003-00nn-0001-00C0DFE64A64}.
// Define INITGUID in one source file of a client (or link xkcombsd_identifiers)
// to give them storage.
#pragma once

// DEFINE_GUID needs the platform's base declarations before it, whatever the
// platform headers in use.
#include <xkcombsd/XKApi.h>

#define QV_DEFINE_CLSID(name, nn) \
  DEFINE_GUID(name, 0x00517663, 0x0002, nn, 0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64)
#define QV_DEFINE_IID(name, nn) \
  DEFINE_GUID(name, 0x00517663, 0x0003, nn, 0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64)

// The type library the DLL carries as its resource TYPELIB 1 (version 1.4).
DEFINE_GUID(LIBID_QuorSoftCOMBaseLib, 0x00517663, 0x0001, 0x0001, 0x00, 0x01, 0x00, 0xC0, 0xDF,
            0xE6, 0x4A, 0x64);

QV_DEFINE_CLSID(CLSID_QvEnumGUID, 0x0011);
QV_DEFINE_CLSID(CLSID_QvEnumUnknown, 0x0012);
QV_DEFINE_CLSID(CLSID_QvEnumString, 0x0013);
QV_DEFINE_CLSID(CLSID_QvPropertyBag, 0x0014);
QV_DEFINE_CLSID(CLSID_QvPropertyBag_ST, 0x0015);
QV_DEFINE_CLSID(CLSID_QvEnumBSTR, 0x0016);
QV_DEFINE_CLSID(CLSID_QvEnumVARIANT, 0x0017);

// Collection, sequence and enumerator interfaces of the five element kinds, and
// the property bag's editing interface. The library's own IEnumGUID has the
// platform IEnumGUID's methods, so that declaration serves for both; only the
// identifier differs, and the platform already names its own IID_IEnumGUID.
QV_DEFINE_IID(IID_ICollGUID, 0x0011);
QV_DEFINE_IID(IID_ISeqGUID, 0x0012);
QV_DEFINE_IID(IID_IQvEnumGUID, 0x0013);
QV_DEFINE_IID(IID_ICollUnknown, 0x0014);
QV_DEFINE_IID(IID_ISeqUnknown, 0x0015);
QV_DEFINE_IID(IID_ICollString, 0x0016);
QV_DEFINE_IID(IID_ISeqString, 0x0017);
QV_DEFINE_IID(IID_ICollBSTR, 0x0019);
QV_DEFINE_IID(IID_ISeqBSTR, 0x001A);
QV_DEFINE_IID(IID_IEnumBSTR, 0x001B);
QV_DEFINE_IID(IID_ICollVARIANT, 0x001D);
// No number was ever given to this one; 1E follows ICollVARIANT as every other
// kind's sequence interface follows its collection interface. It is never
// registered and has no proxy.
QV_DEFINE_IID(IID_ISeqVARIANT, 0x001E);
QV_DEFINE_IID(IID_IPropertyBagEdit, 0x0018);
// Registered with no name.
QV_DEFINE_IID(IID_QvInterface0002, 0x0002);

// The free-threaded unmarshaler and marshaler classes.
DEFINE_GUID(CLSID_QvFreeThreadedUnmarshaler, 0xFC24FA77, 0x2192, 0x11D3, 0x99, 0x13, 0xA7, 0x0C,
            0x13, 0x5B, 0x48, 0x53);
DEFINE_GUID(CLSID_QvFreeThreadedMarshaler, 0xFC24FA78, 0x2192, 0x11D3, 0x99, 0x13, 0xA7, 0x0C,
            0x13, 0x5B, 0x48, 0x53);

// Interfaces of the byte stores and their streams. Their fourth field is 0102,
// not the 0001 of the rows above, so they are spelled out in full.
// IThreadingInfo {00517663-0003-0001-0102-00C0DFE64A64}
DEFINE_GUID(IID_IThreadingInfo, 0x00517663, 0x0003, 0x0001, 0x01, 0x02, 0x00, 0xC0, 0xDF, 0xE6,
            0x4A, 0x64);
// ISaveToFile {00517663-0003-0003-0102-00C0DFE64A64}
DEFINE_GUID(IID_ISaveToFile, 0x00517663, 0x0003, 0x0003, 0x01, 0x02, 0x00, 0xC0, 0xDF, 0xE6, 0x4A,
            0x64);
