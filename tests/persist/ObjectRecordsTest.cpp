// Object records: the class id, then the object's own data, saved through the
// platform's OleSaveToStream and loaded into an existing object of that class.
#include "FakeUnknown.h"
#include "PersistentNumber.h"
#include "RecordTest.h"

using ::testing::IsEmpty;
using xktest::Bytes;
using xktest::Concat;
using xktest::FakeUnknown;
using xktest::FaultyStream;

namespace persisttest {
namespace {

Bytes BytesOf(const CLSID& clsid) {
  const auto* raw = reinterpret_cast<const unsigned char*>(&clsid);
  return Bytes(raw, raw + sizeof clsid);
}

const Bytes kNumberRecord = Concat(BytesOf(kNumberClass), {0x04, 0x03, 0x02, 0x01});
const Bytes kPrefix = {0xEE, 0xEE, 0xEE};

class ObjectRecord : public RecordTest {
 protected:
  // The stream holds a prefix and then content, and stands after the prefix.
  void FillAfterPrefix(const Bytes& content) {
    Fill(Concat(kPrefix, content));
    xktest::SeekTo(stream.get(), kPrefix.size());
  }
};

TEST_F(ObjectRecord, ANullObjectIsSixteenZeroBytes) {
  EXPECT_HR(S_OK, OleSaveUnknownToStream(stream.get(), nullptr));
  EXPECT_EQ(Bytes(16, 0x00), Written());
  EXPECT_HR(E_POINTER, OleSaveUnknownToStream(nullptr, nullptr));
}

TEST_F(ObjectRecord, SavesTheClassIdThenTheObjectsOwnData) {
  for (int offers : {PersistentNumber::kStream, PersistentNumber::kStreamInit}) {
    Fill({});
    PersistentNumber number(0x01020304, offers);
    EXPECT_HR(S_OK, OleSaveUnknownToStream(stream.get(), static_cast<IDispatch*>(&number)))
        << "offers " << offers;
    EXPECT_EQ(kNumberRecord, Written());
    EXPECT_EQ(1, number.saves);
    EXPECT_EQ(1, number.refs);
  }
}

TEST_F(ObjectRecord, AnObjectThatCannotPersistGivesTheSecondRefusal) {
  const HRESULT refusal = static_cast<HRESULT>(0x80004021);  // any code the object likes
  FakeUnknown unknown(IID_IUnknown, refusal);
  EXPECT_HR(refusal, OleSaveUnknownToStream(stream.get(), &unknown));
  EXPECT_EQ(2, unknown.queries);
  EXPECT_EQ(1, unknown.refs);
  EXPECT_THAT(Written(), IsEmpty());
}

TEST_F(ObjectRecord, InitLoadsARecordOfTheObjectsOwnClass) {
  for (int offers : {PersistentNumber::kStream, PersistentNumber::kStreamInit}) {
    FillAfterPrefix(Concat(kNumberRecord, {0xAA}));
    PersistentNumber number(0, offers);
    EXPECT_HR(S_OK, OleInitFromStream(stream.get(), static_cast<IDispatch*>(&number)));
    EXPECT_EQ(0x01020304, number.value);
    EXPECT_EQ(kPrefix.size() + kNumberRecord.size(), Position());
    EXPECT_EQ(1, number.refs);
  }
}

TEST_F(ObjectRecord, InitRefusesArgumentsAndObjectsThatCannotLoad) {
  PersistentNumber number;
  IUnknown* object = static_cast<IDispatch*>(&number);
  EXPECT_HR(E_POINTER, OleInitFromStream(nullptr, object));
  EXPECT_HR(E_POINTER, OleInitFromStream(stream.get(), nullptr));

  // Whatever the object answers, the refusal is E_NOINTERFACE.
  FakeUnknown unknown(IID_IUnknown, E_FAIL);
  Fill(kNumberRecord);
  EXPECT_HR(E_NOINTERFACE, OleInitFromStream(stream.get(), &unknown));
  EXPECT_EQ(1, unknown.refs);
  EXPECT_EQ(0u, Position());
}

TEST_F(ObjectRecord, InitOfAnotherClassOrAFailedStepLeavesThePositionWhereItWas) {
  struct Case {
    const char* what;
    Bytes record;
    HRESULT classIdResult;
    HRESULT loadResult;
    HRESULT expected;
  } cases[] = {
      {"another class", Concat(BytesOf(kUnregisteredClass), {1, 2, 3, 4}), S_OK, S_OK,
       TYPE_E_INVALIDID},
      {"a null object's record", Bytes(16, 0x00), S_OK, S_OK, TYPE_E_INVALIDID},
      {"GetClassID fails", kNumberRecord, E_UNEXPECTED, S_OK, TYPE_E_INVALIDID},
      {"Load fails", kNumberRecord, S_OK, STG_E_READFAULT, STG_E_READFAULT},
      {"data cut short", Bytes(kNumberRecord.begin(), kNumberRecord.end() - 1), S_OK, S_OK,
       STG_E_READFAULT},
      {"class id cut short", Bytes(kNumberRecord.begin(), kNumberRecord.begin() + 15), S_OK, S_OK,
       STG_E_READFAULT},
  };
  for (const Case& c : cases) {
    FillAfterPrefix(c.record);
    PersistentNumber number(7);
    number.classIdResult = c.classIdResult;
    number.loadResult = c.loadResult;
    EXPECT_HR(c.expected, OleInitFromStream(stream.get(), static_cast<IDispatch*>(&number)))
        << c.what;
    EXPECT_EQ(kPrefix.size(), Position()) << c.what;
    EXPECT_EQ(1, number.refs) << c.what;
  }
}

TEST_F(ObjectRecord, AFailingStreamIsReportedAndTheGuardLetsGoOfIt) {
  FaultyStream faulty(Concat(kPrefix, kNumberRecord));
  xktest::SeekTo(faulty.Inner(), kPrefix.size());
  faulty.FailNth(FaultyStream::kRead, 1, STG_E_ACCESSDENIED);
  PersistentNumber number;
  EXPECT_HR(STG_E_ACCESSDENIED, OleInitFromStream(&faulty, static_cast<IDispatch*>(&number)));
  EXPECT_EQ(kPrefix.size(), faulty.Position());
  EXPECT_EQ(1, faulty.References());

  faulty.FailNth(FaultyStream::kWrite, 2, STG_E_MEDIUMFULL);
  EXPECT_HR(STG_E_MEDIUMFULL, OleSaveUnknownToStream(&faulty, static_cast<IDispatch*>(&number)));
  EXPECT_EQ(1, faulty.References());
}

}  // namespace
}  // namespace persisttest
