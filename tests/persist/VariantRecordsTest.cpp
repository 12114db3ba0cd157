// VARIANT records: 16 bytes imaging the start of the VARIANT, then the payload
// record its type calls for; the helpers beside them; and the array placeholders
// a VARIANT of vt 0x2000 reaches.
#include <cstring>

#include "DebugOutput.h"
#include "PersistentNumber.h"
#include "RecordTest.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::AssertionReport;
using xktest::Bytes;
using xktest::Concat;
using xktest::DebugOutputCapture;
using xktest::FaultyStream;
using xktest::Slice;

namespace persisttest {
namespace {

const Bytes kAbcRecord = {0x08, 0x00, 0x00, 0x00, 0x61, 0x00, 0x62, 0x00, 0x63, 0x00, 0x00, 0x00};
const Bytes kPrefix = {0xEE, 0xEE, 0xEE};
const std::string kUnrecognisedType = "Unrecognised variant type\n";
const std::string kUnrecognisedArray =
    "SAFEARRAY_SaveToStream: Unrecognised SAFEARRAY type. Cannot Write\n";

// A VARIANT whose every byte is 0xCD before vt and the value are set, so the
// bytes a record takes "as memory holds them" are visibly not its business.
VARIANT Filled(VARTYPE vt) {
  VARIANT value;
  std::memset(&value, 0xCD, sizeof value);
  value.vt = vt;
  return value;
}

VARIANT Sentinel() { return Filled(0xBEEF); }

class VariantRecord : public RecordTest {
 protected:
  void FillAfterPrefix(const Bytes& content) {
    Fill(Concat(kPrefix, content));
    xktest::SeekTo(stream.get(), kPrefix.size());
  }
  DebugOutputCapture capture;
};

TEST_F(VariantRecord, WorkedExamplesWriteTheBytesTheRecordDefines) {
  VARIANT number = Filled(VT_I4);
  number.lVal = 42;
  ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &number));
  Bytes record = Written();
  ASSERT_EQ(16u, record.size()) << "16 bytes on every target";
  EXPECT_THAT(Slice(record, 0, 2), ElementsAre(0x03, 0x00));
  EXPECT_THAT(Slice(record, 8, 4), ElementsAre(0x2A, 0x00, 0x00, 0x00));

  Fill({});
  VARIANT text = Filled(VT_BSTR);
  text.bstrVal = SysAllocString(L"abc");
  ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &text));
  SysFreeString(text.bstrVal);
  record = Written();
  ASSERT_EQ(28u, record.size());
  EXPECT_THAT(Slice(record, 0, 2), ElementsAre(0x08, 0x00));
  EXPECT_EQ(kAbcRecord, Slice(record, 16, 12));

  Fill({});
  VARIANT nothing = Filled(VT_UNKNOWN);
  nothing.punkVal = nullptr;
  ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &nothing));
  record = Written();
  ASSERT_EQ(32u, record.size());
  EXPECT_THAT(Slice(record, 0, 2), ElementsAre(0x0D, 0x00));
  EXPECT_EQ(Bytes(4, 0x00), Slice(record, 8, 4));
  EXPECT_EQ(Bytes(16, 0x00), Slice(record, 16, 16)) << "the null object's record";
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(VariantRecord, EveryPlainTypeRoundTripsWithItsValueBytes) {
  const VARTYPE plain[] = {VT_EMPTY, VT_NULL, VT_I2,  VT_I4,  VT_R4,  VT_R8,  VT_CY,  VT_DATE,
                           VT_ERROR, VT_BOOL, VT_I1,  VT_UI1, VT_UI2, VT_UI4, VT_INT, VT_UINT};
  for (VARTYPE vt : plain) {
    VARIANT value = {};
    value.vt = vt;
    value.llVal = 0x0123456789ABCDEFll;
    ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &value)) << "vt " << vt;
  }
  EXPECT_EQ(16u * std::size(plain), Position());
  Rewind();
  for (VARTYPE vt : plain) {
    VARIANT loaded = Sentinel();
    ASSERT_HR(S_OK, VARIANT_LoadFromStream(stream.get(), &loaded)) << "vt " << vt;
    EXPECT_EQ(vt, loaded.vt);
    EXPECT_EQ(0x0123456789ABCDEFll, loaded.llVal) << "vt " << vt;
  }
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(VariantRecord, ABstrRoundTripsAsItsRecordDoes) {
  VARIANT text = {};
  text.vt = VT_BSTR;
  text.bstrVal = SysAllocString(L"abc");
  ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &text));
  VariantClear(&text);
  Rewind();

  VARIANT loaded = Sentinel();
  ASSERT_HR(S_OK, VARIANT_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(VT_BSTR, loaded.vt);
  EXPECT_EQ(4u, SysStringLen(loaded.bstrVal)) << "the saved terminator is the last character";
  EXPECT_STREQ(L"abc", loaded.bstrVal);
  EXPECT_EQ(28u, Position());
  VariantClear(&loaded);
}

TEST_F(VariantRecord, AValueByReferenceIsSavedAsTheValue) {
  LONG number = 42;
  VARIANT byRef = Filled(VT_BYREF | VT_I4);
  byRef.plVal = &number;
  ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &byRef));
  const Bytes record = Written();
  ASSERT_EQ(16u, record.size());
  EXPECT_THAT(Slice(record, 0, 2), ElementsAre(0x03, 0x00)) << "vt without VT_BYREF";
  EXPECT_THAT(Slice(record, 8, 4), ElementsAre(0x2A, 0x00, 0x00, 0x00));

  Fill({});
  BSTR text = SysAllocString(L"abc");
  VARIANT bstrByRef = Filled(VT_BYREF | VT_BSTR);
  bstrByRef.pbstrVal = &text;
  ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &bstrByRef));
  EXPECT_EQ(kAbcRecord, Slice(Written(), 16, 12));
  SysFreeString(text);  // the caller's string stays the caller's; the copy is gone
}

TEST_F(VariantRecord, AnArrayByReferenceIsRefusedBeforeAnythingIsWritten) {
  SAFEARRAY* array = nullptr;
  VARIANT byRef = Filled(VT_BYREF | VT_ARRAY | VT_I4);
  byRef.pparray = &array;
  EXPECT_HR(E_INVALIDARG, VARIANT_SaveToStream(stream.get(), &byRef));
  EXPECT_THAT(Written(), IsEmpty());
  EXPECT_THAT(capture.Lines(),
              ElementsAre("Cannot load a variant with VT_BYREF|VT_ARRAY, so save operation is "
                          "prohibited\n"));
}

TEST_F(VariantRecord, TypesOutsideTheTableAreRefusedOnSaveAndOnLoad) {
  const VARTYPE refused[] = {VT_DECIMAL, VT_I8,     VT_UI8, VT_ARRAY | VT_I4,
                             VT_VARIANT, 15,        VT_RECORD, VT_ARRAY | VT_BSTR};
  for (VARTYPE vt : refused) {
    capture.Clear();
    FillAfterPrefix({});
    VARIANT value = {};
    value.vt = vt;
    EXPECT_HR(DISP_E_BADVARTYPE, VARIANT_SaveToStream(stream.get(), &value)) << "vt " << vt;
    EXPECT_EQ(kPrefix.size(), Position()) << "vt " << vt;
    EXPECT_THAT(capture.Lines(), ElementsAre(kUnrecognisedType));

    capture.Clear();
    Bytes record(16, 0xCC);
    record[0] = static_cast<unsigned char>(vt);
    record[1] = static_cast<unsigned char>(vt >> 8);
    FillAfterPrefix(record);
    VARIANT loaded = Sentinel();
    EXPECT_HR(DISP_E_BADVARTYPE, VARIANT_LoadFromStream(stream.get(), &loaded)) << "vt " << vt;
    EXPECT_EQ(VT_EMPTY, loaded.vt) << "a failed load leaves a VARIANT safe to clear";
    EXPECT_HR(S_OK, VariantClear(&loaded));
    EXPECT_EQ(kPrefix.size(), Position());
    EXPECT_THAT(capture.Lines(), ElementsAre(kUnrecognisedType));
  }
}

TEST_F(VariantRecord, AnArrayReachesTheArrayPlaceholders) {
  SAFEARRAY* strings = SafeArrayCreateVector(VT_BSTR, 0, 2);
  VARIANT array = {};
  array.vt = VT_ARRAY;
  array.parray = strings;
  FillAfterPrefix({});
  EXPECT_HR(E_NOTIMPL, VARIANT_SaveToStream(stream.get(), &array));
  EXPECT_EQ(kPrefix.size(), Position());
  EXPECT_THAT(capture.Lines(), IsEmpty()) << "an array of BSTRs is a kind a record could carry";

  SAFEARRAY* numbers = SafeArrayCreateVector(VT_I4, 0, 2);
  array.parray = numbers;
  EXPECT_HR(E_NOTIMPL, VARIANT_SaveToStream(stream.get(), &array));
  EXPECT_EQ(kPrefix.size(), Position());
  EXPECT_THAT(capture.Lines(), ElementsAre(kUnrecognisedArray));
  SafeArrayDestroy(strings);
  SafeArrayDestroy(numbers);

  capture.Clear();
  Bytes record(16, 0xCC);
  record[0] = 0x00;
  record[1] = 0x20;
  FillAfterPrefix(Concat(record, {0x00, 0x01, 0x00, 0x00}));  // kind FADF_BSTR
  VARIANT loaded = Sentinel();
  EXPECT_HR(E_NOTIMPL, VARIANT_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(VT_EMPTY, loaded.vt);
  EXPECT_EQ(nullptr, loaded.parray) << "no pointer read from the stream survives";
  EXPECT_EQ(kPrefix.size(), Position());
  EXPECT_THAT(capture.Lines(), IsEmpty());

  FillAfterPrefix(Concat(record, {0x80, 0x00, 0x00, 0x00}));  // no kind a record carries
  EXPECT_HR(E_NOTIMPL, VARIANT_LoadFromStream(stream.get(), &loaded));
  EXPECT_THAT(capture.Lines(), ElementsAre(kUnrecognisedArray));
}

TEST_F(VariantRecord, NullArgumentsAreRefused) {
  VARIANT value = Sentinel();
  EXPECT_HR(E_POINTER, VARIANT_SaveToStream(nullptr, &value));
  EXPECT_HR(E_POINTER, VARIANT_SaveToStream(stream.get(), nullptr));
  EXPECT_HR(E_POINTER, VARIANT_LoadFromStream(nullptr, &value));
  EXPECT_HR(E_POINTER, VARIANT_LoadFromStream(stream.get(), nullptr));
  EXPECT_EQ(0xBEEF, value.vt);
  EXPECT_THAT(Written(), IsEmpty());
}

TEST_F(VariantRecord, AFailureAnywhereLeavesThePositionWhereItWas) {
  VARIANT text = {};
  text.vt = VT_BSTR;
  text.bstrVal = SysAllocString(L"abc");
  for (int failing = 1; failing <= 3; ++failing) {  // the 16 bytes, the count, the characters
    FaultyStream faulty(kPrefix);
    xktest::SeekTo(faulty.Inner(), kPrefix.size());
    faulty.FailNth(FaultyStream::kWrite, failing, STG_E_MEDIUMFULL);
    EXPECT_HR(STG_E_MEDIUMFULL, VARIANT_SaveToStream(&faulty, &text)) << "write " << failing;
    EXPECT_EQ(kPrefix.size(), faulty.Position()) << "write " << failing;
    EXPECT_EQ(1, faulty.References());
  }

  FaultyStream saved;
  ASSERT_HR(S_OK, VARIANT_SaveToStream(&saved, &text));
  VariantClear(&text);
  for (int failing = 1; failing <= 3; ++failing) {
    FaultyStream faulty(Concat(kPrefix, saved.Content()));
    xktest::SeekTo(faulty.Inner(), kPrefix.size());
    faulty.FailNth(FaultyStream::kRead, failing, STG_E_READFAULT);
    VARIANT loaded = Sentinel();
    EXPECT_HR(STG_E_READFAULT, VARIANT_LoadFromStream(&faulty, &loaded)) << "read " << failing;
    EXPECT_EQ(VT_EMPTY, loaded.vt);
    EXPECT_EQ(kPrefix.size(), faulty.Position()) << "read " << failing;
    EXPECT_EQ(1, faulty.References());
  }
}

class ObjectInVariant : public VariantRecord {
 protected:
  void SetUp() override {
    VariantRecord::SetUp();
    ASSERT_TRUE(m_registration.registered);
  }
  void TearDown() override {
    EXPECT_EQ(0, g_liveNumbers.load()) << "objects left alive";
    VariantRecord::TearDown();
  }
  NumberFactory& factory() { return m_registration.factory; }

 private:
  NumberClassRegistration m_registration;
};

TEST_F(ObjectInVariant, ObjectsRoundTripThroughThePlatformSaveAndLoad) {
  for (VARTYPE vt : {VT_UNKNOWN, VT_DISPATCH}) {
    Fill({});
    PersistentNumber number(123, PersistentNumber::kStream);
    VARIANT value = {};
    value.vt = vt;
    value.pdispVal = &number;
    ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &value)) << "vt " << vt;
    EXPECT_EQ(1, number.refs);
    EXPECT_EQ(16u + 16u + 4u, Written().size());
    Rewind();

    VARIANT loaded = Sentinel();
    ASSERT_HR(S_OK, VARIANT_LoadFromStream(stream.get(), &loaded)) << "vt " << vt;
    EXPECT_EQ(vt, loaded.vt);
    ASSERT_NE(nullptr, loaded.punkVal);
    auto* copy = static_cast<PersistentNumber*>(static_cast<IDispatch*>(loaded.pdispVal));
    EXPECT_NE(&number, copy) << "a new object, made by the class object";
    EXPECT_EQ(123, copy->value);
    EXPECT_EQ(1, copy->refs) << "the VARIANT holds the only reference";
    EXPECT_EQ(36u, Position());
    VariantClear(&loaded);
  }
}

TEST_F(ObjectInVariant, ASavedNullObjectLoadsAsNull) {
  VARIANT value = {};
  value.vt = VT_DISPATCH;
  ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &value));
  Rewind();
  VARIANT loaded = Sentinel();
  EXPECT_HR(S_OK, VARIANT_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(VT_DISPATCH, loaded.vt);
  EXPECT_EQ(nullptr, loaded.pdispVal);
  EXPECT_EQ(32u, Position());
}

// Saves number as a VT_UNKNOWN record and returns the record's bytes.
Bytes UnknownRecordOf(PersistentNumber& number) {
  xktest::ComRef<IStream> saved(xktest::NewMemoryStream());
  VARIANT value = {};
  value.vt = VT_UNKNOWN;
  value.punkVal = static_cast<IDispatch*>(&number);
  EXPECT_HR(S_OK, VARIANT_SaveToStream(saved.get(), &value));
  return xktest::ContentOf(saved.get());
}

TEST_F(ObjectInVariant, AnObjectThatCannotBeLoadedIsNeverTouchedAfterwards) {
  // The platform releases an object it made but could not ask for IPersistStream,
  // and may still leave its pointer behind: releasing that would free it twice.
  factory().offers = PersistentNumber::kStreamInit;
  PersistentNumber number(5);
  FillAfterPrefix(UnknownRecordOf(number));
  VARIANT loaded = Sentinel();
  EXPECT_HR(E_NOINTERFACE, VARIANT_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(VT_EMPTY, loaded.vt);
  EXPECT_EQ(kPrefix.size(), Position());
}

TEST_F(ObjectInVariant, AnObjectWhoseLoadFailsIsLeftToThePlatform) {
  PersistentNumber number(5);
  Bytes record = UnknownRecordOf(number);
  record.pop_back();  // the object's data cut short: its Load fails
  FillAfterPrefix(record);
  const long liveBefore = g_liveNumbers.load();
  VARIANT loaded = Sentinel();
  EXPECT_HR(STG_E_READFAULT, VARIANT_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(VT_EMPTY, loaded.vt);
  EXPECT_EQ(kPrefix.size(), Position());
  // Wine's OleLoadFromStream keeps the object whose Load failed in its
  // out-pointer; a pointer handed back with a failure is never the library's
  // to release (see above), so that object is the platform's leftover.
  EXPECT_EQ(liveBefore + 1, g_liveNumbers.load())
      << "the library took or dropped a reference it did not own";
  --g_liveNumbers;
}

TEST(VariantPlaceholders, AnswerNotImplementedAndTouchNothing) {
  ULONG size = 0xDEADBEEF;
  VARIANT value = Sentinel();
  EXPECT_HR(E_NOTIMPL, VARIANT_GetSizeMax(&value, &size));
  EXPECT_HR(E_NOTIMPL, VARIANT_GetSizeMax(nullptr, nullptr));
  EXPECT_EQ(0xDEADBEEFu, size);
  EXPECT_EQ(0xBEEF, value.vt);

  FILETIME time = {0xDEADBEEF, 0xDEADBEEF};
  EXPECT_HR(E_NOTIMPL, VariantTimeToFileTime(36526.0, &time));
  EXPECT_HR(E_NOTIMPL, VariantTimeToFileTime(0.0, nullptr));
  EXPECT_EQ(0xDEADBEEFu, time.dwLowDateTime);
  EXPECT_EQ(0xDEADBEEFu, time.dwHighDateTime);
}

TEST(ArrayPlaceholders, AnswerNotImplementedWhateverTheyAreGiven) {
  xktest::ComRef<IStream> stream(xktest::NewMemoryStream({0x00, 0x01, 0x00, 0x00}));
  SAFEARRAY* strings = SafeArrayCreateVector(VT_BSTR, 0, 1);
  ULONG size = 0xDEADBEEF;
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_GetSizeMax(strings, &size));
  EXPECT_EQ(0xDEADBEEFu, size);
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_SaveToStream(nullptr, strings));
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_SaveToStream(stream.get(), nullptr));
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_SaveToStream(stream.get(), strings));
  EXPECT_EQ(0u, xktest::PositionOf(stream.get()));
  EXPECT_EQ(0u, strings->cLocks) << "the array is left as it was";

  SAFEARRAY* kept = strings;
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_LoadFromStream(stream.get(), &kept));
  EXPECT_EQ(strings, kept) << "the caller's pointer is not written";
  EXPECT_EQ(0u, xktest::PositionOf(stream.get()));
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_LoadFromStream(nullptr, nullptr));
  SafeArrayDestroy(strings);
}

TEST(VariantInit, FillsTheVariantWithoutReleasingWhatItHeld) {
  DebugOutputCapture capture;
  VARIANT value = Sentinel();
  VARIANT_InitI4(&value, -5);
  EXPECT_EQ(VT_I4, value.vt);
  EXPECT_EQ(-5, value.lVal);

  VARIANT_InitBSTRA(&value, "abc");
  EXPECT_EQ(VT_BSTR, value.vt);
  EXPECT_EQ(3u, SysStringLen(value.bstrVal));
  EXPECT_STREQ(L"abc", value.bstrVal);
  VariantClear(&value);

  VARIANT_InitBSTRW(&value, L"wide");
  EXPECT_EQ(VT_BSTR, value.vt);
  EXPECT_STREQ(L"wide", value.bstrVal);
  VariantClear(&value);

  // A string that cannot be made leaves a null BSTR.
  for (auto init : {+[](VARIANT* v) { VARIANT_InitBSTRW(v, nullptr); },
                    +[](VARIANT* v) { VARIANT_InitBSTRA(v, nullptr); },
                    +[](VARIANT* v) { VARIANT_InitBSTRA(v, ""); }}) {
    value = Sentinel();
    init(&value);
    EXPECT_EQ(VT_BSTR, value.vt);
    EXPECT_EQ(nullptr, value.bstrVal);
  }
  EXPECT_THAT(capture.Assertions(), IsEmpty());
}

TEST(VariantInit, ANullVariantIsReported) {
  DebugOutputCapture capture;
  VARIANT_InitI4(nullptr, 1);
  VARIANT_InitBSTRA(nullptr, "a");
  VARIANT_InitBSTRW(nullptr, L"a");
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOVar", 27, "pvar != NULL"},
                                                AssertionReport{"MOVar", 38, "pvar != NULL"},
                                                AssertionReport{"MOVar", 49, "pvar != NULL"}));
}

FILETIME FileTimeOf(ULONGLONG ticks) {
  return {static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

TEST(FileTimeToVariantTime, ConvertsThroughTheBrokenDownTime) {
  DATE date = -1.0;
  const FILETIME millennium = FileTimeOf(125911584000000000ull);  // 2000-01-01 00:00
  EXPECT_HR(S_OK, FileTimeToVariantTime(&millennium, &date));
  EXPECT_DOUBLE_EQ(36526.0, date);
  const FILETIME noon = FileTimeOf(125911584000000000ull + 12ull * 3600 * 10000000);
  EXPECT_HR(S_OK, FileTimeToVariantTime(&noon, &date));
  EXPECT_DOUBLE_EQ(36526.5, date);
  const FILETIME origin = FileTimeOf(0);  // 1601-01-01
  EXPECT_HR(S_OK, FileTimeToVariantTime(&origin, &date));
  EXPECT_DOUBLE_EQ(-109205.0, date);
}

TEST(FileTimeToVariantTime, RefusesWhatCannotBeConverted) {
  DATE date = 1234.0;
  const FILETIME negative = FileTimeOf(0x8000000000000000ull);
  EXPECT_HR(HRESULT_FROM_WIN32(ERROR_INVALID_PARAMETER), FileTimeToVariantTime(&negative, &date));
  EXPECT_DOUBLE_EQ(1234.0, date);
  const FILETIME farFuture = FileTimeOf(0x7FFFFFFFFFFFFFFFull);  // the year 30828
  EXPECT_HR(DISP_E_OVERFLOW, FileTimeToVariantTime(&farFuture, &date));
  EXPECT_HR(E_POINTER, FileTimeToVariantTime(nullptr, &date));
  EXPECT_HR(E_POINTER, FileTimeToVariantTime(&negative, nullptr));
}

}  // namespace
}  // namespace persisttest
