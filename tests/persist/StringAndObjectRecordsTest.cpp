// String and object records. BSTR and OLE strings: the exact bytes, the two size
// rules and round trips, one row per string for both kinds, and how far a count
// is believed. Objects: the class id, then the object's own data, saved through
// the platform's OleSaveToStream and loaded into an existing object of that class.
#include "FakeUnknown.h"
#include "RecordTest.h"

using xktest::FakeUnknown;

namespace persisttest {
namespace {

struct StringCase {
  const char* what;
  const void* text;  // null for a null string
  UINT bytes;
  Bytes record;
  bool bstrOnly;  // an odd byte length is no OLE string
} const kStrings[] = {
    {"abc", kAbc, 6, kAbcRecord, false},
    {"empty", L"", 0, {0x02, 0x00, 0x00, 0x00, 0x00, 0x00}, false},
    {"null", nullptr, 0, {0x00, 0x00, 0x00, 0x00}, false},
    {"odd byte length", "xyz", 3, {0x05, 0x00, 0x00, 0x00, 'x', 'y', 'z', 0x00, 0x00}, true},
};

using StringRecord = RecordTest;

TEST_F(StringRecord, BstrWritesTheCountThenTheBytesWithTheirTerminatorAndLoadsThemBack) {
  for (const StringCase& c : kStrings) {
    SCOPED_TRACE(c.what);
    Fill({});
    const ULONG count = static_cast<ULONG>(c.record.size() - 4);
    BSTR text = c.text ? SysAllocStringByteLen(static_cast<const char*>(c.text), c.bytes) : nullptr;
    ULONG size = 0xDEADBEEF;
    EXPECT_HR(S_OK, BSTR_GetSizeMax(text, &size));
    EXPECT_EQ(count, size) << "the count field itself is not counted";
    EXPECT_HR(S_OK, BSTR_SaveToStream(stream.get(), text));
    SysFreeString(text);
    EXPECT_EQ(c.record, Written());

    Rewind();
    BSTR loaded = reinterpret_cast<BSTR>(0xDEADBEEF);
    EXPECT_HR(S_OK, BSTR_LoadFromStream(stream.get(), &loaded));
    EXPECT_EQ(c.record.size(), Position());
    EXPECT_EQ(c.text == nullptr, loaded == nullptr) << "count 0 is a null BSTR";
    EXPECT_EQ(count, SysStringByteLen(loaded)) << "the saved terminator is the last character";
    if (loaded) EXPECT_EQ(0, std::memcmp(loaded, c.record.data() + 4, count));
    SysFreeString(loaded);
  }
}

TEST_F(StringRecord, OleStringWritesTheSameRecordAndLoadsOneBlockOfCountBytes) {
  for (const StringCase& c : kStrings) {
    if (c.bstrOnly) continue;
    SCOPED_TRACE(c.what);
    Fill({});
    const auto* text = static_cast<LPCOLESTR>(c.text);
    ULONG size = 0xDEADBEEF;
    EXPECT_HR(S_OK, OleString_GetSizeMax(text, &size));
    EXPECT_EQ(c.record.size(), size) << "the whole record";
    EXPECT_HR(S_OK, OleString_SaveToStream(stream.get(), text));
    EXPECT_EQ(c.record, Written());

    Rewind();
    spy.ClearRequests();
    LPOLESTR loaded = reinterpret_cast<LPOLESTR>(0xDEADBEEF);
    EXPECT_HR(S_OK, OleString_LoadFromStream(stream.get(), &loaded));
    EXPECT_EQ(c.record.size(), Position());
    EXPECT_STREQ(text, loaded);
    if (text) EXPECT_THAT(spy.AllocRequests(), ElementsAre(c.record.size() - 4));
    if (!text) EXPECT_THAT(spy.AllocRequests(), IsEmpty());
    CoTaskMemFree(loaded);
  }
}

TEST_F(StringRecord, ABstrCountLongerThanTheStreamLoadsWhatIsThereAndZeros) {
  // The memory stream reports the short read as a success, so the record is complete.
  Fill(Concat(LittleEndian32(10), {'a', 0, 'b', 0}));
  BSTR loaded = nullptr;
  EXPECT_HR(S_OK, BSTR_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(10u, SysStringByteLen(loaded));
  EXPECT_EQ(0, std::memcmp(loaded, L"ab\0\0\0", 10));
  SysFreeString(loaded);
}

TEST_F(StringRecord, AHugeCountIsBelievedOnlyWhenTheStreamHoldsThatMuch) {
  const ULONG large = (2u << 20) + 2;  // past what is taken on trust
  Bytes record = Concat(LittleEndian32(large), Bytes(large - 2, 'x'));
  record.resize(4 + large, 0);
  Fill(record);
  LPOLESTR text = nullptr;
  EXPECT_HR(S_OK, OleString_LoadFromStream(stream.get(), &text));
  EXPECT_EQ((large - 2) / 2, static_cast<ULONG>(lstrlenW(text)));
  CoTaskMemFree(text);
  Rewind();
  BSTR bstr = nullptr;
  EXPECT_HR(S_OK, BSTR_LoadFromStream(stream.get(), &bstr));
  EXPECT_EQ(large, SysStringByteLen(bstr));
  SysFreeString(bstr);

  // One byte short, or a stream that cannot say how long it is: refused.
  record.pop_back();
  FaultyStream shortOne(record);
  EXPECT_HR(kInvalidRecord, BSTR_LoadFromStream(&shortOne, &bstr));
  EXPECT_EQ(nullptr, bstr);
  EXPECT_EQ(0u, shortOne.Position());
  FaultyStream mute(LittleEndian32(large));
  mute.FailNth(FaultyStream::kStat, 1, E_NOTIMPL);
  EXPECT_HR(kInvalidRecord, OleString_LoadFromStream(&mute, &text));
  EXPECT_EQ(0u, mute.Position());
}

TEST_F(StringRecord, NullArgumentsOfEveryRecordAreRefusedBeforeAnythingIsTouched) {
  BSTR bstr = reinterpret_cast<BSTR>(0xDEADBEEF);
  LPOLESTR text = reinterpret_cast<LPOLESTR>(0xDEADBEEF);
  VARIANT value = Filled(0xBEEF);
  PersistentNumber number;
  EXPECT_HR(E_POINTER, BSTR_GetSizeMax(nullptr, nullptr));
  EXPECT_HR(E_POINTER, OleString_GetSizeMax(kAbc, nullptr));
  EXPECT_HR(E_POINTER, BSTR_SaveToStream(nullptr, nullptr));
  EXPECT_HR(E_POINTER, BSTR_LoadFromStream(nullptr, &bstr));
  EXPECT_HR(E_POINTER, BSTR_LoadFromStream(stream.get(), nullptr));
  EXPECT_HR(E_POINTER, OleString_SaveToStream(nullptr, kAbc));
  EXPECT_HR(E_POINTER, OleString_LoadFromStream(nullptr, &text));
  EXPECT_HR(E_POINTER, OleString_LoadFromStream(stream.get(), nullptr));
  EXPECT_HR(E_POINTER, VARIANT_SaveToStream(nullptr, &value));
  EXPECT_HR(E_POINTER, VARIANT_SaveToStream(stream.get(), nullptr));
  EXPECT_HR(E_POINTER, VARIANT_LoadFromStream(nullptr, &value));
  EXPECT_HR(E_POINTER, VARIANT_LoadFromStream(stream.get(), nullptr));
  EXPECT_HR(E_POINTER, OleSaveUnknownToStream(nullptr, nullptr));
  EXPECT_HR(E_POINTER, OleInitFromStream(nullptr, number.Unknown()));
  EXPECT_HR(E_POINTER, OleInitFromStream(stream.get(), nullptr));
  EXPECT_EQ(reinterpret_cast<BSTR>(0xDEADBEEF), bstr);
  EXPECT_EQ(reinterpret_cast<LPOLESTR>(0xDEADBEEF), text);
  EXPECT_EQ(0xBEEF, value.vt);
  EXPECT_EQ(1, number.refs);
  EXPECT_THAT(Written(), IsEmpty());
}

using ObjectRecord = RecordTest;

TEST_F(ObjectRecord, SavesAndInitsThroughEitherPersistenceInterface) {
  for (int offers : {PersistentNumber::kStream, PersistentNumber::kStreamInit}) {
    SCOPED_TRACE(offers);
    Fill({});
    PersistentNumber saved(0x01020304, offers);
    EXPECT_HR(S_OK, OleSaveUnknownToStream(stream.get(), saved.Unknown()));
    EXPECT_EQ(kNumberRecord, Written());
    EXPECT_EQ(1, saved.refs);

    FillAfterPrefix(Concat(kNumberRecord, {0xAA}));
    PersistentNumber loaded(0, offers);
    EXPECT_HR(S_OK, OleInitFromStream(stream.get(), loaded.Unknown()));
    EXPECT_EQ(0x01020304, loaded.value);
    EXPECT_EQ(kPrefix.size() + kNumberRecord.size(), Position());
    EXPECT_EQ(1, loaded.refs);
  }
}

TEST_F(ObjectRecord, AnObjectThatCannotPersistIsRefused) {
  // Saving passes on the second refusal, whatever code the object likes.
  const HRESULT refusal = static_cast<HRESULT>(0x80004021);
  FakeUnknown unknown(IID_IUnknown, refusal);
  EXPECT_HR(refusal, OleSaveUnknownToStream(stream.get(), &unknown));
  EXPECT_EQ(2, unknown.queries);
  EXPECT_EQ(1, unknown.refs);
  EXPECT_THAT(Written(), IsEmpty());

  // Loading answers E_NOINTERFACE, whatever the object said.
  FakeUnknown stubborn(IID_IUnknown, E_FAIL);
  Fill(kNumberRecord);
  EXPECT_HR(E_NOINTERFACE, OleInitFromStream(stream.get(), &stubborn));
  EXPECT_EQ(1, stubborn.refs);
  EXPECT_EQ(0u, Position());
}

TEST_F(ObjectRecord, AnObjectThatFailsItsPartLeavesThePositionWhereItWas) {
  // Records of the wrong class or cut short are in the corrupt-input table.
  struct Case {
    HRESULT classIdResult, loadResult, expected;
  } const cases[] = {{E_UNEXPECTED, S_OK, TYPE_E_INVALIDID}, {S_OK, STG_E_READFAULT, STG_E_READFAULT}};
  for (const Case& c : cases) {
    FillAfterPrefix(kNumberRecord);
    PersistentNumber number(7);
    number.classIdResult = c.classIdResult;
    number.loadResult = c.loadResult;
    EXPECT_HR(c.expected, OleInitFromStream(stream.get(), number.Unknown()));
    EXPECT_EQ(kPrefix.size(), Position());
    EXPECT_EQ(7, number.value);
    EXPECT_EQ(1, number.refs);
  }
}

TEST_F(ObjectRecord, ASaveHasNoGuardOfItsOwnButPassesOnTheFailure) {
  // Failing loads are in the failing-stream table.
  FaultyStream faulty;
  faulty.FailNth(FaultyStream::kWrite, 2, STG_E_MEDIUMFULL);
  PersistentNumber number;
  EXPECT_HR(STG_E_MEDIUMFULL, OleSaveUnknownToStream(&faulty, number.Unknown()));
  EXPECT_EQ(1, faulty.References());
  EXPECT_EQ(1, number.refs);
}

}  // namespace
}  // namespace persisttest
