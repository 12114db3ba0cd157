// Records that fail: a stream whose write or read fails part way, and truncated
// or garbage records fed to every loader. Each answers a code, hands out nothing
// on failure, leaves the stream where it was, leaks nothing and never crashes.
#include "RecordTest.h"

namespace persisttest {
namespace {

HRESULT SaveBstr(IStream* stream) {
  BSTR abc = SysAllocString(kAbc);
  const HRESULT hr = BSTR_SaveToStream(stream, abc);
  SysFreeString(abc);
  return hr;
}
HRESULT SaveOleString(IStream* stream) { return OleString_SaveToStream(stream, kAbc); }
HRESULT SaveVariant(IStream* stream) {
  VARIANT text = {};
  text.vt = VT_BSTR;
  text.bstrVal = SysAllocString(kAbc);
  const HRESULT hr = VARIANT_SaveToStream(stream, &text);
  VariantClear(&text);
  return hr;
}

struct Kind {
  const char* name;
  HRESULT (*save)(IStream*);  // null where saving has no guard of its own
  Loader load;
  Bytes record;
  std::vector<size_t> chunks;  // one write or read each
};
const Kind kKinds[] = {
    {"BSTR", SaveBstr, LoadBstr, kAbcRecord, {4, 8}},
    {"OLE string", SaveOleString, LoadOleString, kAbcRecord, {4, 8}},
    {"VARIANT", SaveVariant, LoadVariant, Concat(Header(VT_BSTR), kAbcRecord), {16, 4, 8}},
    {"object", nullptr, InitNumber, kNumberRecord, {16, 4}},
};
const Kind* const kStringKinds[] = {&kKinds[0], &kKinds[1]};

// A stream holding the prefix and content, standing after the prefix.
struct AfterPrefix : FaultyStream {
  explicit AfterPrefix(const Bytes& content = {}) : FaultyStream(Concat(kPrefix, content)) {
    xktest::SeekTo(Inner(), kPrefix.size());
  }
};

using FailingStream = RecordTest;

TEST_F(FailingStream, AnyFailedWriteOrReadLeavesThePositionWhereItWas) {
  for (const Kind& kind : kKinds) {
    size_t before = 0;  // the bytes written ahead of the failing write
    for (int failing = 1; failing <= static_cast<int>(kind.chunks.size()); ++failing) {
      SCOPED_TRACE(testing::Message() << kind.name << ", failing call " << failing);
      if (kind.save) {
        AfterPrefix faulty;
        faulty.FailNth(FaultyStream::kWrite, failing, STG_E_MEDIUMFULL);
        EXPECT_HR(STG_E_MEDIUMFULL, kind.save(&faulty));
        EXPECT_EQ(kPrefix.size(), faulty.Position());
        EXPECT_EQ(1, faulty.References());
        EXPECT_EQ(kPrefix.size() + before, faulty.Content().size()) << "written bytes stay";
      }
      AfterPrefix faulty(kind.record);
      faulty.FailNth(FaultyStream::kRead, failing, STG_E_READFAULT);
      bool handedOut = true;
      EXPECT_HR(STG_E_READFAULT, kind.load(&faulty, &handedOut));
      EXPECT_FALSE(handedOut);
      EXPECT_EQ(kPrefix.size(), faulty.Position());
      EXPECT_EQ(1, faulty.References());
      before += kind.chunks[failing - 1];
    }
  }
}

TEST_F(FailingStream, StringRecordsTakeTheStreamsWordOnSeeksAndShortReads) {
  for (const Kind* kind : kStringKinds) {
    SCOPED_TRACE(kind->name);
    // The recording seek fails: the record goes on, but a later failure cannot
    // restore a position that was never found.
    FaultyStream disarmed;
    disarmed.FailNth(FaultyStream::kSeek, 1, E_FAIL);
    disarmed.FailNth(FaultyStream::kWrite, 2, STG_E_MEDIUMFULL);
    EXPECT_HR(STG_E_MEDIUMFULL, kind->save(&disarmed));
    EXPECT_EQ(4u, disarmed.Position());
    EXPECT_EQ(1, disarmed.Calls(FaultyStream::kSeek)) << "no restoring seek";

    // A short read reported as success is complete; otherwise its code is the load's.
    for (HRESULT reported : {S_OK, S_FALSE}) {
      FaultyStream cut(kind->record);
      cut.CutReads(4, reported);
      bool handedOut = false;
      EXPECT_HR(reported, kind->load(&cut, &handedOut));
      EXPECT_TRUE(handedOut);
      EXPECT_EQ(8u, cut.Position());
    }
  }
}

// Each record is read from a memory stream, which reports a short read as a
// success (the missing bytes stay zero), and from a strict one, which reports it
// as STG_E_READFAULT.
const HRESULT kFault = STG_E_READFAULT, kBad = kInvalidRecord, kBadType = DISP_E_BADVARTYPE;
const Bytes kAb = {'a', 0};
struct Corrupt {
  const char* what;
  Loader load;
  Bytes record;
  HRESULT fromMemory, fromStrict;
} const kCorrupt[] = {
    {"BSTR: nothing", LoadBstr, {}, S_OK, kFault},
    {"BSTR: count cut short", LoadBstr, {0x08, 0x00}, S_OK, kFault},
    {"BSTR: characters cut short", LoadBstr, Concat(LittleEndian32(8), kAb), S_OK, kFault},
    {"BSTR: garbage count", LoadBstr, LittleEndian32(0xFFFFFFFF), kBad, kBad},
    {"BSTR: count past trust", LoadBstr, Concat(LittleEndian32((1u << 20) + 2), Bytes(10, 'x')), kBad, kBad},
    {"OLE string: nothing", LoadOleString, {}, S_OK, kFault},
    {"OLE string: count 1", LoadOleString, Concat(LittleEndian32(1), {0}), kBad, kBad},
    {"OLE string: half a character", LoadOleString, Concat(LittleEndian32(3), {'a', 0, 0}), kBad, kBad},
    {"OLE string: no terminator", LoadOleString, Concat(LittleEndian32(4), {'a', 0, 'b', 0}), kBad, kBad},
    {"OLE string: characters cut short", LoadOleString, Concat(LittleEndian32(8), kAb), S_OK, kFault},
    {"OLE string: garbage count", LoadOleString, LittleEndian32(0x80000000), kBad, kBad},
    {"VARIANT: nothing", LoadVariant, {}, S_OK, kFault},
    {"VARIANT: header cut short", LoadVariant, {0x03, 0x00}, S_OK, kFault},
    {"VARIANT: BSTR without its record", LoadVariant, Header(VT_BSTR), S_OK, kFault},
    {"VARIANT: BSTR garbage count", LoadVariant, Concat(Header(VT_BSTR), LittleEndian32(~0u)), kBad, kBad},
    {"VARIANT: BSTR cut short", LoadVariant, Concat(Header(VT_BSTR), LittleEndian32(8)), S_OK, kFault},
    {"VARIANT: object without its record", LoadVariant, Header(VT_UNKNOWN), kFault, kFault},
    {"VARIANT: class id cut short", LoadVariant, Concat(Header(VT_DISPATCH), Bytes(10, 0x11)), kFault, kFault},
    {"VARIANT: class nobody registered", LoadVariant, Concat(Header(VT_UNKNOWN), BytesOf(kUnregisteredClass)),
     S_OK, S_OK},
    {"VARIANT: array without its record", LoadVariant, Header(VT_ARRAY), E_NOTIMPL, E_NOTIMPL},
    {"VARIANT: array with garbage", LoadVariant, Concat(Header(VT_ARRAY), Bytes(40, 0xCC)), E_NOTIMPL, E_NOTIMPL},
    {"VARIANT: by reference", LoadVariant, Header(VT_BYREF | VT_I4), kBadType, kBadType},
    {"VARIANT: vt 0xFFFF", LoadVariant, Header(0xFFFF), kBadType, kBadType},
    {"object: nothing", InitNumber, {}, kFault, kFault},
    {"object: class id cut short", InitNumber, Bytes(10, 0x11), kFault, kFault},
    {"object: a null object's record", InitNumber, Bytes(16, 0x00), TYPE_E_INVALIDID, TYPE_E_INVALIDID},
    {"object: garbage class", InitNumber, Bytes(20, 0xCC), TYPE_E_INVALIDID, TYPE_E_INVALIDID},
    {"object: data cut short", InitNumber, Concat(BytesOf(kNumberClass), {0x01}), kFault, kFault},
};

class CorruptInput : public RecordTest {
 protected:
  // The record stands after one byte, so "where it was" is not the start.
  void Feed(Loader load, const Bytes& record, bool strict, HRESULT expected = kAnyResult) {
    SCOPED_TRACE(strict ? "strict" : "memory");
    FaultyStream faulty(Concat({0xEE}, record));
    xktest::SeekTo(faulty.Inner(), 1);
    if (strict) faulty.FailShortReads(kFault);
    spy.ClearRequests();
    const HRESULT hr = load(&faulty, nullptr);
    if (expected != kAnyResult) EXPECT_HR(expected, hr);
    if (FAILED(hr)) EXPECT_EQ(1u, faulty.Position());
    EXPECT_EQ(1, faulty.References());
    // Nothing is reserved on the word of a count that is then refused.
    if (hr == kBad) for (SIZE_T size : spy.AllocRequests()) EXPECT_LE(size, record.size());
  }
  static constexpr HRESULT kAnyResult = 0x7FFFFFFF;
};

TEST_F(CorruptInput, EveryLoaderAnswersACodeAndKeepsTheStreamWhereItWas) {
  for (const Corrupt& c : kCorrupt) {
    SCOPED_TRACE(c.what);
    Feed(c.load, c.record, false, c.fromMemory);
    Feed(c.load, c.record, true, c.fromStrict);
  }
}

TEST_F(CorruptInput, RandomGarbageNeverCrashesOrLeaks) {
  const VARTYPE interesting[] = {VT_BSTR, VT_UNKNOWN, VT_DISPATCH, VT_ARRAY, VT_I4, VT_RECORD};
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
    if (record.size() >= 2 && next() % 2)
      std::copy_n(Header(interesting[next() % std::size(interesting)]).begin(), 2, record.begin());
    for (Loader load : {LoadBstr, LoadOleString, LoadVariant, InitNumber}) {
      Feed(load, record, false);
      Feed(load, record, true);
    }
  }
}

}  // namespace
}  // namespace persisttest
