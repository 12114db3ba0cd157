// BSTR and OLE-string records: the exact bytes, the two size rules, round trips,
// and a stream left where it was by every failure.
#include "RecordTest.h"

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using xktest::Bytes;
using xktest::Concat;
using xktest::FaultyStream;
using xktest::LittleEndian32;
using xktest::Slice;

namespace persisttest {
namespace {

const Bytes kAbcRecord = {0x08, 0x00, 0x00, 0x00, 0x61, 0x00, 0x62, 0x00, 0x63, 0x00, 0x00, 0x00};
const OLECHAR kAbc[] = L"abc";

class BstrRecord : public RecordTest {};
class OleStringRecord : public RecordTest {};

TEST_F(BstrRecord, WritesTheCountThenTheBytesWithTheirTerminator) {
  BSTR abc = SysAllocString(kAbc);
  EXPECT_HR(S_OK, BSTR_SaveToStream(stream.get(), abc));
  EXPECT_EQ(kAbcRecord, Written());
  EXPECT_EQ(12u, Position());
  SysFreeString(abc);

  Fill({});
  BSTR empty = SysAllocString(L"");
  EXPECT_HR(S_OK, BSTR_SaveToStream(stream.get(), empty));
  EXPECT_THAT(Written(), ElementsAre(0x02, 0x00, 0x00, 0x00, 0x00, 0x00));
  SysFreeString(empty);

  Fill({});
  EXPECT_HR(S_OK, BSTR_SaveToStream(stream.get(), nullptr));
  EXPECT_THAT(Written(), ElementsAre(0x00, 0x00, 0x00, 0x00));
}

TEST_F(BstrRecord, AnOddByteLengthIsCountedAsItIs) {
  BSTR bytes = SysAllocStringByteLen("xyz", 3);
  EXPECT_HR(S_OK, BSTR_SaveToStream(stream.get(), bytes));
  EXPECT_THAT(Written(), ElementsAre(0x05, 0x00, 0x00, 0x00, 'x', 'y', 'z', 0x00, 0x00));
  SysFreeString(bytes);

  Rewind();
  BSTR loaded = reinterpret_cast<BSTR>(0xDEADBEEF);
  EXPECT_HR(S_OK, BSTR_LoadFromStream(stream.get(), &loaded));
  ASSERT_NE(nullptr, loaded);
  EXPECT_EQ(5u, SysStringByteLen(loaded));
  EXPECT_EQ(0, std::memcmp(loaded, "xyz\0", 5));
  SysFreeString(loaded);
}

TEST_F(BstrRecord, SizeQueryCountsTheBytesAfterTheCountField) {
  ULONG size = 0xDEADBEEF;
  BSTR abc = SysAllocString(kAbc);
  EXPECT_HR(S_OK, BSTR_GetSizeMax(abc, &size));
  EXPECT_EQ(8u, size);
  SysFreeString(abc);

  BSTR empty = SysAllocString(L"");
  EXPECT_HR(S_OK, BSTR_GetSizeMax(empty, &size));
  EXPECT_EQ(2u, size);
  SysFreeString(empty);

  EXPECT_HR(S_OK, BSTR_GetSizeMax(nullptr, &size));
  EXPECT_EQ(0u, size);
  EXPECT_HR(E_POINTER, BSTR_GetSizeMax(nullptr, nullptr));
}

TEST_F(OleStringRecord, SizeQueryCountsTheWholeRecord) {
  ULONG size = 0xDEADBEEF;
  EXPECT_HR(S_OK, OleString_GetSizeMax(kAbc, &size));
  EXPECT_EQ(12u, size);
  EXPECT_HR(S_OK, OleString_GetSizeMax(L"", &size));
  EXPECT_EQ(6u, size);
  EXPECT_HR(S_OK, OleString_GetSizeMax(nullptr, &size));
  EXPECT_EQ(4u, size);
  EXPECT_HR(E_POINTER, OleString_GetSizeMax(kAbc, nullptr));
}

TEST_F(BstrRecord, RoundTripKeepsTheTerminatorAsTheLastCharacter) {
  BSTR abc = SysAllocString(kAbc);
  ASSERT_HR(S_OK, BSTR_SaveToStream(stream.get(), abc));
  SysFreeString(abc);
  ASSERT_HR(S_OK, BSTR_SaveToStream(stream.get(), nullptr));
  Rewind();

  BSTR loaded = reinterpret_cast<BSTR>(0xDEADBEEF);
  EXPECT_HR(S_OK, BSTR_LoadFromStream(stream.get(), &loaded));
  ASSERT_NE(nullptr, loaded);
  EXPECT_EQ(4u, SysStringLen(loaded));
  EXPECT_EQ(0, std::memcmp(loaded, L"abc\0", 8));
  SysFreeString(loaded);
  EXPECT_EQ(12u, Position());

  loaded = reinterpret_cast<BSTR>(0xDEADBEEF);
  EXPECT_HR(S_OK, BSTR_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(nullptr, loaded) << "count 0 is a null BSTR";
  EXPECT_EQ(16u, Position());
}

TEST_F(OleStringRecord, WritesAndLoadsTheCharactersWithTheirTerminator) {
  EXPECT_HR(S_OK, OleString_SaveToStream(stream.get(), kAbc));
  EXPECT_HR(S_OK, OleString_SaveToStream(stream.get(), nullptr));
  EXPECT_EQ(Concat(kAbcRecord, {0x00, 0x00, 0x00, 0x00}), Written());
  Rewind();

  LPOLESTR loaded = reinterpret_cast<LPOLESTR>(0xDEADBEEF);
  EXPECT_HR(S_OK, OleString_LoadFromStream(stream.get(), &loaded));
  ASSERT_NE(nullptr, loaded);
  EXPECT_STREQ(kAbc, loaded);
  EXPECT_THAT(spy.AllocRequests(), ElementsAre(8u)) << "one task-allocator block of count bytes";
  CoTaskMemFree(loaded);
  spy.ClearRequests();

  // A saved null pointer loads as null and asks the allocator for nothing.
  loaded = reinterpret_cast<LPOLESTR>(0xDEADBEEF);
  EXPECT_HR(S_OK, OleString_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(nullptr, loaded);
  EXPECT_THAT(spy.AllocRequests(), IsEmpty());
  EXPECT_EQ(16u, Position());
}

TEST_F(RecordTest, NullArgumentsAreRefusedBeforeAnythingIsTouched) {
  BSTR bstr = reinterpret_cast<BSTR>(0xDEADBEEF);
  LPOLESTR text = reinterpret_cast<LPOLESTR>(0xDEADBEEF);
  EXPECT_HR(E_POINTER, BSTR_SaveToStream(nullptr, nullptr));
  EXPECT_HR(E_POINTER, BSTR_LoadFromStream(nullptr, &bstr));
  EXPECT_HR(E_POINTER, BSTR_LoadFromStream(stream.get(), nullptr));
  EXPECT_HR(E_POINTER, OleString_SaveToStream(nullptr, kAbc));
  EXPECT_HR(E_POINTER, OleString_LoadFromStream(nullptr, &text));
  EXPECT_HR(E_POINTER, OleString_LoadFromStream(stream.get(), nullptr));
  EXPECT_EQ(reinterpret_cast<BSTR>(0xDEADBEEF), bstr);
  EXPECT_EQ(reinterpret_cast<LPOLESTR>(0xDEADBEEF), text);
  EXPECT_THAT(Written(), IsEmpty());
}

// Both kinds, through one set of failure cases.
struct StringKind {
  const char* name;
  HRESULT (*save)(IStream*);
  HRESULT (*load)(IStream*, bool* handedOut);
};

HRESULT SaveBstrAbc(IStream* stream) {
  BSTR abc = SysAllocString(kAbc);
  const HRESULT hr = BSTR_SaveToStream(stream, abc);
  SysFreeString(abc);
  return hr;
}
HRESULT SaveOleAbc(IStream* stream) { return OleString_SaveToStream(stream, kAbc); }

class StringRecordFailures : public RecordTest, public ::testing::WithParamInterface<StringKind> {};

// The stream starts at 3 (after a 3-byte prefix) so "where it was" is not 0.
const Bytes kPrefix = {0xEE, 0xEE, 0xEE};

TEST_P(StringRecordFailures, AFailedWriteLeavesThePositionWhereItWas) {
  for (int failing = 1; failing <= 2; ++failing) {
    FaultyStream faulty(kPrefix);
    xktest::SeekTo(faulty.Inner(), 3);
    faulty.FailNth(FaultyStream::kWrite, failing, STG_E_MEDIUMFULL);
    EXPECT_HR(STG_E_MEDIUMFULL, GetParam().save(&faulty)) << "write " << failing;
    EXPECT_EQ(3u, faulty.Position()) << "write " << failing;
    EXPECT_EQ(1, faulty.References());
    // A failing second write leaves the count written beyond the position.
    EXPECT_EQ(failing == 1 ? kPrefix : Concat(kPrefix, LittleEndian32(8)), faulty.Content());
  }
}

TEST_P(StringRecordFailures, AFailedReadLeavesThePositionWhereItWasAndHandsOutNothing) {
  for (int failing = 1; failing <= 2; ++failing) {
    FaultyStream faulty(Concat(kPrefix, kAbcRecord));
    xktest::SeekTo(faulty.Inner(), 3);
    faulty.FailNth(FaultyStream::kRead, failing, STG_E_READFAULT);
    bool handedOut = true;
    EXPECT_HR(STG_E_READFAULT, GetParam().load(&faulty, &handedOut)) << "read " << failing;
    EXPECT_FALSE(handedOut);
    EXPECT_EQ(3u, faulty.Position()) << "read " << failing;
    EXPECT_EQ(1, faulty.References());
  }
}

TEST_P(StringRecordFailures, ADisarmedGuardDoesNotMoveTheStreamBack) {
  // The recording seek fails: the record goes on, but a later failure cannot
  // restore a position that was never found.
  FaultyStream faulty;
  faulty.FailNth(FaultyStream::kSeek, 1, E_FAIL);
  faulty.FailNth(FaultyStream::kWrite, 2, STG_E_MEDIUMFULL);
  EXPECT_HR(STG_E_MEDIUMFULL, GetParam().save(&faulty));
  EXPECT_EQ(4u, faulty.Position());
  EXPECT_EQ(1, faulty.Calls(FaultyStream::kSeek)) << "no restoring seek";
}

TEST_P(StringRecordFailures, AShortReadReportedAsSuccessIsTakenAsComplete) {
  FaultyStream faulty(kAbcRecord);
  faulty.CutReads(4);
  bool handedOut = false;
  EXPECT_HR(S_OK, GetParam().load(&faulty, &handedOut));
  EXPECT_TRUE(handedOut);
  EXPECT_EQ(8u, faulty.Position());

  // The stream's own answer to a short read is what the load reports.
  FaultyStream partial(kAbcRecord);
  partial.CutReads(4, S_FALSE);
  EXPECT_HR(S_FALSE, GetParam().load(&partial, &handedOut));
  FaultyStream strict(Slice(kAbcRecord, 0, 8));
  strict.FailShortReads(STG_E_READFAULT);
  EXPECT_HR(STG_E_READFAULT, GetParam().load(&strict, &handedOut));
  EXPECT_FALSE(handedOut);
  EXPECT_EQ(0u, strict.Position());
}

INSTANTIATE_TEST_SUITE_P(Kinds, StringRecordFailures,
                         ::testing::Values(StringKind{"Bstr", SaveBstrAbc, LoadBstrRecord},
                                           StringKind{"OleString", SaveOleAbc, LoadOleStringRecord}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(BstrRecord, ACountLongerThanTheStreamLoadsWhatIsThereAndZeros) {
  // Count 10 with 4 bytes behind it: the memory stream reports the short read
  // as a success, so the record is complete; the missing bytes are zero.
  Fill(Concat(LittleEndian32(10), {'a', 0, 'b', 0}));
  BSTR loaded = nullptr;
  EXPECT_HR(S_OK, BSTR_LoadFromStream(stream.get(), &loaded));
  ASSERT_NE(nullptr, loaded);
  EXPECT_EQ(10u, SysStringByteLen(loaded));
  EXPECT_EQ(0, std::memcmp(loaded, L"ab\0\0\0", 10));
  SysFreeString(loaded);
}

TEST_F(OleStringRecord, RecordsNoSaverWritesAreRefusedWithoutMovingOrAllocating) {
  const Bytes refused[] = {
      LittleEndian32(1),                                  // not even a terminator
      Concat(LittleEndian32(3), {'a', 0, 0}),            // half a character
      Concat(LittleEndian32(4), {'a', 0, 'b', 0}),       // no terminator
      LittleEndian32(0xFFFFFFF0),                         // more than the stream holds
  };
  for (const Bytes& record : refused) {
    Fill(Concat({0xEE}, record));
    xktest::SeekTo(stream.get(), 1);
    LPOLESTR loaded = reinterpret_cast<LPOLESTR>(0xDEADBEEF);
    EXPECT_HR(kInvalidRecord, OleString_LoadFromStream(stream.get(), &loaded));
    EXPECT_EQ(nullptr, loaded);
    EXPECT_EQ(1u, Position());
  }
  EXPECT_EQ(0, spy.Outstanding());
  for (SIZE_T size : spy.AllocRequests()) EXPECT_LE(size, 4u) << "only the unterminated record allocates";
}

TEST_F(RecordTest, AHugeCountIsBelievedOnlyWhenTheStreamHoldsThatMuch) {
  const ULONG large = (2u << 20) + 2;  // past what is taken on trust
  Bytes record = LittleEndian32(large);
  record.resize(4 + large, 'x');
  record[record.size() - 2] = record[record.size() - 1] = 0;
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

  spy.ClearRequests();
  Fill(LittleEndian32(0xFFFFFFFF));
  EXPECT_HR(kInvalidRecord, BSTR_LoadFromStream(stream.get(), &bstr));
  EXPECT_THAT(spy.AllocRequests(), IsEmpty()) << "nothing is reserved for a garbage count";
}

}  // namespace
}  // namespace persisttest
