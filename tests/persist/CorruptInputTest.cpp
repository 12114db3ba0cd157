// Truncated and garbage records, fed to every loader: each answers a code,
// hands out nothing on failure (a VARIANT is left VT_EMPTY and safe to clear),
// leaves the stream where it was, leaks nothing and never crashes.
//
// Each record is read twice: from a memory stream, which reports a short read
// as a success (such a read is taken as complete and the missing bytes stay
// zero), and from a stream that reports a short read as STG_E_READFAULT.
#include "DebugOutput.h"
#include "PersistentNumber.h"
#include "RecordTest.h"

using xktest::Bytes;
using xktest::Concat;
using xktest::FaultyStream;
using xktest::LittleEndian32;

namespace persisttest {
namespace {

// Each checks what a loader hands out and frees it; the result is the loader's.
// (The string loaders are LoadBstrRecord and LoadOleStringRecord.)
HRESULT LoadVariant(IStream* stream) {
  VARIANT loaded;
  std::memset(&loaded, 0xCD, sizeof loaded);
  const HRESULT hr = VARIANT_LoadFromStream(stream, &loaded);
  if (FAILED(hr)) EXPECT_EQ(VT_EMPTY, loaded.vt);
  EXPECT_HR(S_OK, VariantClear(&loaded));
  return hr;
}

HRESULT InitNumber(IStream* stream) {
  PersistentNumber number(7);
  const HRESULT hr = OleInitFromStream(stream, static_cast<IDispatch*>(&number));
  EXPECT_EQ(1, number.refs);
  return hr;
}

using Loader = HRESULT (*)(IStream*);

struct Corrupt {
  const char* what;
  Loader load;
  Bytes record;
  HRESULT fromMemory;
  HRESULT fromStrict;
};

// A VARIANT record's 16 bytes: vt, then garbage where the value would be.
Bytes Header(VARTYPE vt) {
  Bytes header(16, 0xCC);
  header[0] = static_cast<unsigned char>(vt);
  header[1] = static_cast<unsigned char>(vt >> 8);
  return header;
}

Bytes ClassBytes(const CLSID& clsid) {
  const auto* raw = reinterpret_cast<const unsigned char*>(&clsid);
  return Bytes(raw, raw + sizeof clsid);
}

const HRESULT kReadFault = STG_E_READFAULT;
const ULONG kJustPastTrust = (1u << 20) + 2;

const Corrupt kCorrupt[] = {
    {"BSTR: nothing", LoadBstrRecord, {}, S_OK, kReadFault},
    {"BSTR: count cut short", LoadBstrRecord, {0x08, 0x00}, S_OK, kReadFault},
    {"BSTR: characters cut short", LoadBstrRecord, Concat(LittleEndian32(8), {'a', 0}), S_OK, kReadFault},
    {"BSTR: garbage count", LoadBstrRecord, LittleEndian32(0xFFFFFFFF), kInvalidRecord, kInvalidRecord},
    {"BSTR: count past trust", LoadBstrRecord, Concat(LittleEndian32(kJustPastTrust), Bytes(10, 'x')),
     kInvalidRecord, kInvalidRecord},
    {"BSTR: odd count", LoadBstrRecord, Concat(LittleEndian32(3), {'a', 0, 0}), S_OK, S_OK},

    {"OLE string: nothing", LoadOleStringRecord, {}, S_OK, kReadFault},
    {"OLE string: count 1", LoadOleStringRecord, Concat(LittleEndian32(1), {0}), kInvalidRecord,
     kInvalidRecord},
    {"OLE string: odd count", LoadOleStringRecord, Concat(LittleEndian32(7), Bytes(7, 'x')),
     kInvalidRecord, kInvalidRecord},
    {"OLE string: no terminator", LoadOleStringRecord,
     Concat(LittleEndian32(6), {'a', 0, 'b', 0, 'c', 0}), kInvalidRecord, kInvalidRecord},
    {"OLE string: characters cut short", LoadOleStringRecord, Concat(LittleEndian32(8), {'a', 0}), S_OK,
     kReadFault},
    {"OLE string: garbage count", LoadOleStringRecord, LittleEndian32(0x80000000), kInvalidRecord,
     kInvalidRecord},

    {"VARIANT: nothing", LoadVariant, {}, S_OK, kReadFault},
    {"VARIANT: header cut short", LoadVariant, {0x03, 0x00}, S_OK, kReadFault},
    {"VARIANT: BSTR without its record", LoadVariant, Header(VT_BSTR), S_OK, kReadFault},
    {"VARIANT: BSTR with a garbage count", LoadVariant,
     Concat(Header(VT_BSTR), LittleEndian32(0xFFFFFFFF)), kInvalidRecord, kInvalidRecord},
    {"VARIANT: BSTR cut short", LoadVariant, Concat(Header(VT_BSTR), LittleEndian32(8)), S_OK,
     kReadFault},
    {"VARIANT: object without its record", LoadVariant, Header(VT_UNKNOWN), kReadFault, kReadFault},
    {"VARIANT: class id cut short", LoadVariant, Concat(Header(VT_DISPATCH), Bytes(10, 0x11)),
     kReadFault, kReadFault},
    {"VARIANT: class nobody registered", LoadVariant,
     Concat(Header(VT_UNKNOWN), ClassBytes(kUnregisteredClass)), S_OK, S_OK},
    {"VARIANT: a whole object", LoadVariant,
     Concat(Concat(Header(VT_DISPATCH), ClassBytes(kNumberClass)), LittleEndian32(9)), S_OK, S_OK},
    {"VARIANT: array without its record", LoadVariant, Header(VT_ARRAY), E_NOTIMPL, E_NOTIMPL},
    {"VARIANT: array with garbage", LoadVariant, Concat(Header(VT_ARRAY), Bytes(40, 0xCC)),
     E_NOTIMPL, E_NOTIMPL},
    {"VARIANT: record type", LoadVariant, Header(VT_RECORD), DISP_E_BADVARTYPE, DISP_E_BADVARTYPE},
    {"VARIANT: by reference", LoadVariant, Header(VT_BYREF | VT_I4), DISP_E_BADVARTYPE,
     DISP_E_BADVARTYPE},
    {"VARIANT: VARIANT type", LoadVariant, Header(VT_VARIANT), DISP_E_BADVARTYPE, DISP_E_BADVARTYPE},
    {"VARIANT: decimal", LoadVariant, Header(VT_DECIMAL), DISP_E_BADVARTYPE, DISP_E_BADVARTYPE},
    {"VARIANT: vt 0xFFFF", LoadVariant, Header(0xFFFF), DISP_E_BADVARTYPE, DISP_E_BADVARTYPE},

    {"object: nothing", InitNumber, {}, kReadFault, kReadFault},
    {"object: class id cut short", InitNumber, Bytes(10, 0x11), kReadFault, kReadFault},
    {"object: a null object's record", InitNumber, Bytes(16, 0x00), TYPE_E_INVALIDID,
     TYPE_E_INVALIDID},
    {"object: garbage class", InitNumber, Bytes(20, 0xCC), TYPE_E_INVALIDID, TYPE_E_INVALIDID},
    {"object: data cut short", InitNumber, Concat(ClassBytes(kNumberClass), {0x01}), kReadFault,
     kReadFault},
};

class CorruptInput : public RecordTest {
 protected:
  void TearDown() override {
    EXPECT_EQ(0, g_liveNumbers.load()) << "objects left alive";
    RecordTest::TearDown();
  }

  // The record stands after one byte, so "where it was" is not the start.
  void Feed(Loader load, const Bytes& record, bool strict, HRESULT expected, const char* what) {
    FaultyStream faulty(Concat({0xEE}, record));
    xktest::SeekTo(faulty.Inner(), 1);
    if (strict) faulty.FailShortReads(kReadFault);
    const HRESULT hr = load(&faulty);
    if (expected != kAnyResult) EXPECT_HR(expected, hr) << what << (strict ? " (strict)" : "");
    if (FAILED(hr)) EXPECT_EQ(1u, faulty.Position()) << what << (strict ? " (strict)" : "");
    EXPECT_EQ(1, faulty.References()) << what;
  }

  static constexpr HRESULT kAnyResult = 0x7FFFFFFF;
  NumberClassRegistration registration;
  xktest::DebugOutputCapture quiet;  // the loaders' debug lines are not this test's subject
};

TEST_F(CorruptInput, EveryLoaderAnswersACodeAndKeepsTheStreamWhereItWas) {
  ASSERT_TRUE(registration.registered);
  for (const Corrupt& c : kCorrupt) {
    Feed(c.load, c.record, false, c.fromMemory, c.what);
    Feed(c.load, c.record, true, c.fromStrict, c.what);
  }
}

TEST_F(CorruptInput, RandomGarbageNeverCrashesOrLeaks) {
  ASSERT_TRUE(registration.registered);
  const VARTYPE interesting[] = {VT_BSTR, VT_UNKNOWN, VT_DISPATCH, VT_ARRAY, VT_I4, VT_RECORD};
  const Loader loaders[] = {LoadBstrRecord, LoadOleStringRecord, LoadVariant, InitNumber};
  unsigned int seed = 0x5EED;
  auto next = [&seed] {
    seed = seed * 1103515245u + 12345u;
    return (seed >> 16) & 0x7FFF;
  };
  for (int round = 0; round < 200; ++round) {
    Bytes record(next() % 48);
    for (unsigned char& byte : record) byte = static_cast<unsigned char>(next());
    // Small counts and types a payload follows, so the loaders get past their first field.
    if (record.size() >= 4 && next() % 2) record[2] = record[3] = 0;
    if (record.size() >= 2 && next() % 2) {
      const VARTYPE vt = interesting[next() % std::size(interesting)];
      record[0] = static_cast<unsigned char>(vt);
      record[1] = static_cast<unsigned char>(vt >> 8);
    }
    for (Loader load : loaders) {
      Feed(load, record, false, kAnyResult, "random");
      Feed(load, record, true, kAnyResult, "random");
    }
  }
}

}  // namespace
}  // namespace persisttest
