// Class and interface identifiers of the library's own family:
// classes {00517663-0002-00nn-0001-00C0DFE64A64},
// interfaces {00517663-0003-00nn-0001-00C0DFE64A64}.
// Define INITGUID in one source file of a client (or link xkcombsd_identifiers)
// to give them storage.
#pragma once

#include <guiddef.h>

#define QV_DEFINE_CLSID(name, nn) \
  DEFINE_GUID(name, 0x00517663, 0x0002, nn, 0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64)
#define QV_DEFINE_IID(name, nn) \
  DEFINE_GUID(name, 0x00517663, 0x0003, nn, 0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64)

QV_DEFINE_CLSID(CLSID_QvEnumGUID, 0x0011);
QV_DEFINE_CLSID(CLSID_QvEnumUnknown, 0x0012);
QV_DEFINE_CLSID(CLSID_QvEnumString, 0x0013);
QV_DEFINE_CLSID(CLSID_QvPropertyBag, 0x0014);
QV_DEFINE_CLSID(CLSID_QvPropertyBag_ST, 0x0015);
QV_DEFINE_CLSID(CLSID_QvEnumBSTR, 0x0016);
QV_DEFINE_CLSID(CLSID_QvEnumVARIANT, 0x0017);

// Interfaces of the byte stores and their streams. Their fourth field is 0102,
// not the 0001 of the rows above, so they are spelled out in full.
// IThreadingInfo {00517663-0003-0001-0102-00C0DFE64A64}
DEFINE_GUID(IID_IThreadingInfo, 0x00517663, 0x0003, 0x0001, 0x01, 0x02, 0x00, 0xC0, 0xDF, 0xE6,
            0x4A, 0x64);
// ISaveToFile {00517663-0003-0003-0102-00C0DFE64A64}
DEFINE_GUID(IID_ISaveToFile, 0x00517663, 0x0003, 0x0003, 0x01, 0x02, 0x00, 0xC0, 0xDF, 0xE6, 0x4A,
            0x64);
