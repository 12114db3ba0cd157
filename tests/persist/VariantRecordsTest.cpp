// VARIANT records: 16 bytes imaging the start of the VARIANT, then the payload
// record its type calls for; the array placeholders a VARIANT of vt 0x2000
// reaches; and the VARIANT and time helpers beside them.
#include "RecordTest.h"

using xktest::AssertionReport;

namespace persisttest {
namespace {

const std::string kUnrecognisedType = "Unrecognised variant type\n";
const std::string kUnrecognisedArray =
    "SAFEARRAY_SaveToStream: Unrecognised SAFEARRAY type. Cannot Write\n";

using VariantRecord = RecordTest;

struct VariantCase {
  VARTYPE vt;  // the value is 42, "abc", a null object or a number holding 0x01020304
  Bytes vtBytes;
  Bytes valueBytes;  // bytes 8 to 11 where they are the value's on every target
  Bytes payload;
} const kVariants[] = {
    {VT_I4, {0x03, 0x00}, {0x2A, 0x00, 0x00, 0x00}, {}},
    {VT_BYREF | VT_I4, {0x03, 0x00}, {0x2A, 0x00, 0x00, 0x00}, {}},
    {VT_BSTR, {0x08, 0x00}, {}, kAbcRecord},
    {VT_BYREF | VT_BSTR, {0x08, 0x00}, {}, kAbcRecord},
    {VT_UNKNOWN, {0x0D, 0x00}, Bytes(4, 0x00), Bytes(16, 0x00)},
    {VT_DISPATCH, {0x09, 0x00}, Bytes(4, 0x00), Bytes(16, 0x00)},
    {VT_UNKNOWN, {0x0D, 0x00}, {}, kNumberRecord},
    {VT_DISPATCH, {0x09, 0x00}, {}, kNumberRecord},
};

TEST_F(VariantRecord, WritesTheVariantThenItsPayloadAndLoadsItBackByValue) {
  for (const VariantCase& c : kVariants) {
    SCOPED_TRACE(testing::Message() << "vt " << c.vt << ", " << c.payload.size() << "-byte payload");
    Fill({});
    const VARTYPE type = c.vt & VT_TYPEMASK;
    const bool isNumber = c.payload == kNumberRecord;
    LONG fortyTwo = 42;
    BSTR text = SysAllocString(kAbc);
    PersistentNumber number(0x01020304, PersistentNumber::kStream);
    VARIANT value = Filled(c.vt);
    if (c.vt & VT_BYREF) value.byref = type == VT_I4 ? static_cast<void*>(&fortyTwo) : &text;
    else if (type == VT_I4) value.lVal = fortyTwo;
    else if (type == VT_BSTR) value.bstrVal = text;
    else value.punkVal = isNumber ? number.Unknown() : nullptr;
    ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &value));
    SysFreeString(text);  // a by-reference string stays the caller's; the copy is gone
    EXPECT_EQ(1, number.refs);
    const Bytes record = Written();
    ASSERT_EQ(16u + c.payload.size(), record.size()) << "16 bytes on every target";
    EXPECT_EQ(c.vtBytes, Slice(record, 0, 2)) << "vt without VT_BYREF";
    if (!c.valueBytes.empty()) EXPECT_EQ(c.valueBytes, Slice(record, 8, 4));
    EXPECT_EQ(c.payload, Slice(record, 16, c.payload.size()));

    Rewind();
    VARIANT loaded = Filled(0xBEEF);
    ASSERT_HR(S_OK, VARIANT_LoadFromStream(stream.get(), &loaded));
    EXPECT_EQ(type, loaded.vt);
    EXPECT_EQ(record.size(), Position());
    if (type == VT_I4) EXPECT_EQ(42, loaded.lVal);
    if (type == VT_BSTR) {
      EXPECT_EQ(4u, SysStringLen(loaded.bstrVal)) << "the saved terminator is the last character";
      EXPECT_STREQ(kAbc, loaded.bstrVal);
    }
    if (type == VT_UNKNOWN || type == VT_DISPATCH) {
      // A saved null object loads as null; a number is made anew by its class object.
      auto* copy = static_cast<PersistentNumber*>(static_cast<IDispatch*>(loaded.pdispVal));
      ASSERT_EQ(isNumber, copy != nullptr);
      if (copy) {
        EXPECT_NE(&number, copy);
        EXPECT_EQ(0x01020304, copy->value);
        EXPECT_EQ(1, copy->refs) << "the VARIANT holds the only reference";
        EXPECT_EQ(0u, loaded.punkVal->Release());
        loaded.vt = VT_EMPTY;
      }
    }
    VariantClear(&loaded);
  }
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
    VARIANT loaded = Filled(0xBEEF);
    ASSERT_HR(S_OK, VARIANT_LoadFromStream(stream.get(), &loaded)) << "vt " << vt;
    EXPECT_EQ(vt, loaded.vt);
    EXPECT_EQ(0x0123456789ABCDEFll, loaded.llVal) << "vt " << vt;
  }
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(VariantRecord, TypesOutsideTheTableAreRefusedOnSaveAndOnLoad) {
  SAFEARRAY* array = nullptr;
  VARIANT byRef = Filled(VT_BYREF | VT_ARRAY | VT_I4);
  byRef.pparray = &array;
  EXPECT_HR(E_INVALIDARG, VARIANT_SaveToStream(stream.get(), &byRef));
  EXPECT_THAT(Written(), IsEmpty());
  EXPECT_THAT(capture.Lines(), ElementsAre("Cannot load a variant with VT_BYREF|VT_ARRAY, so save "
                                           "operation is prohibited\n"));

  const VARTYPE refused[] = {VT_DECIMAL, VT_I8,     VT_UI8, VT_ARRAY | VT_I4,
                             VT_VARIANT, 15,        VT_RECORD, VT_ARRAY | VT_BSTR};
  for (VARTYPE vt : refused) {
    SCOPED_TRACE(vt);
    capture.Clear();
    FillAfterPrefix({});
    VARIANT value = {};
    value.vt = vt;
    EXPECT_HR(DISP_E_BADVARTYPE, VARIANT_SaveToStream(stream.get(), &value));
    EXPECT_EQ(kPrefix.size(), Position());
    FillAfterPrefix(Header(vt));
    EXPECT_HR(DISP_E_BADVARTYPE, LoadVariant(stream.get(), nullptr));
    EXPECT_EQ(kPrefix.size(), Position());
    EXPECT_THAT(capture.Lines(), ElementsAre(kUnrecognisedType, kUnrecognisedType));
  }
}

TEST_F(VariantRecord, AnArrayReachesTheArrayPlaceholders) {
  // Arrays of a kind a record could carry pass silently; others are reported.
  for (bool carried : {true, false}) {
    SCOPED_TRACE(carried);
    capture.Clear();
    VARIANT array = {};
    array.vt = VT_ARRAY;
    array.parray = SafeArrayCreateVector(carried ? VT_BSTR : VT_I4, 0, 2);
    FillAfterPrefix({});
    EXPECT_HR(E_NOTIMPL, VARIANT_SaveToStream(stream.get(), &array));
    EXPECT_EQ(kPrefix.size(), Position());
    SafeArrayDestroy(array.parray);
    FillAfterPrefix(Concat(Header(VT_ARRAY), LittleEndian32(carried ? 0x100 /* FADF_BSTR */ : 0x80)));
    VARIANT loaded = Filled(0xBEEF);
    EXPECT_HR(E_NOTIMPL, VARIANT_LoadFromStream(stream.get(), &loaded));
    EXPECT_EQ(VT_EMPTY, loaded.vt);
    EXPECT_EQ(nullptr, loaded.parray) << "no pointer read from the stream survives";
    EXPECT_EQ(kPrefix.size(), Position());
    EXPECT_EQ(carried ? std::vector<std::string>{} : std::vector<std::string>(2, kUnrecognisedArray),
              capture.Lines());
  }
}

using ObjectInVariant = RecordTest;

TEST_F(ObjectInVariant, AnObjectThatCannotBeLoadedIsNeverTouchedAfterwards) {
  FillAfterPrefix(Concat(Header(VT_UNKNOWN), BytesOf(kNumberClass)));
  // The platform releases an object it made but could not ask for IPersistStream,
  // and may still leave its pointer behind: releasing that would free it twice.
  numberClass.offers = PersistentNumber::kStreamInit;
  EXPECT_HR(E_NOINTERFACE, LoadVariant(stream.get(), nullptr));
  EXPECT_EQ(kPrefix.size(), Position());

  // The object's data cut short: its Load fails. Wine's OleLoadFromStream keeps
  // that object in its out-pointer; a pointer handed back with a failure is never
  // the library's to release, so the object is the platform's leftover.
  numberClass.offers = PersistentNumber::kStream;
  FillAfterPrefix(Concat(Header(VT_UNKNOWN), Concat(BytesOf(kNumberClass), {1, 2, 3})));
  EXPECT_HR(STG_E_READFAULT, LoadVariant(stream.get(), nullptr));
  EXPECT_EQ(kPrefix.size(), Position());
  EXPECT_EQ(1, g_liveNumbers.load()) << "the library took or dropped a reference it did not own";
  --g_liveNumbers;
}

TEST(RecordPlaceholders, AnswerNotImplementedAndTouchNothing) {
  ULONG size = 0xDEADBEEF;
  VARIANT value = Filled(0xBEEF);
  EXPECT_HR(E_NOTIMPL, VARIANT_GetSizeMax(&value, &size));
  EXPECT_HR(E_NOTIMPL, VARIANT_GetSizeMax(nullptr, nullptr));
  EXPECT_EQ(0xBEEF, value.vt);
  FILETIME time = {0xDEADBEEF, 0xDEADBEEF};
  EXPECT_HR(E_NOTIMPL, VariantTimeToFileTime(36526.0, &time));
  EXPECT_HR(E_NOTIMPL, VariantTimeToFileTime(0.0, nullptr));
  EXPECT_EQ(0xDEADBEEFu, time.dwLowDateTime);
  EXPECT_EQ(0xDEADBEEFu, time.dwHighDateTime);

  xktest::ComRef<IStream> stream(xktest::NewMemoryStream({0x00, 0x01, 0x00, 0x00}));
  SAFEARRAY* strings = SafeArrayCreateVector(VT_BSTR, 0, 1);
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_GetSizeMax(strings, &size));
  EXPECT_EQ(0xDEADBEEFu, size);
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_SaveToStream(nullptr, strings));
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_SaveToStream(stream.get(), nullptr));
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_SaveToStream(stream.get(), strings));
  EXPECT_EQ(0u, strings->cLocks) << "the array is left as it was";
  SAFEARRAY* kept = strings;
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_LoadFromStream(stream.get(), &kept));
  EXPECT_EQ(strings, kept) << "the caller's pointer is not written";
  EXPECT_HR(E_NOTIMPL, SAFEARRAY_LoadFromStream(nullptr, nullptr));
  EXPECT_EQ(0u, xktest::PositionOf(stream.get()));
  SafeArrayDestroy(strings);
}

TEST(VariantInit, FillsTheVariantWithoutReleasingWhatItHeldAndReportsANullOne) {
  xktest::DebugOutputCapture capture;
  VARIANT value = Filled(0xBEEF);
  VARIANT_InitI4(&value, -5);
  EXPECT_EQ(VT_I4, value.vt);
  EXPECT_EQ(-5, value.lVal);
  const struct {
    void (*init)(VARIANT*);
    const wchar_t* expected;  // null where the string cannot be made
  } cases[] = {
      {[](VARIANT* v) { VARIANT_InitBSTRA(v, "abc"); }, L"abc"},
      {[](VARIANT* v) { VARIANT_InitBSTRW(v, L"wide"); }, L"wide"},
      {[](VARIANT* v) { VARIANT_InitBSTRW(v, nullptr); }, nullptr},
      {[](VARIANT* v) { VARIANT_InitBSTRA(v, nullptr); }, nullptr},
      {[](VARIANT* v) { VARIANT_InitBSTRA(v, ""); }, nullptr},
  };
  for (const auto& c : cases) {
    value = Filled(0xBEEF);
    c.init(&value);
    EXPECT_EQ(VT_BSTR, value.vt);
    EXPECT_STREQ(c.expected, value.bstrVal);
    EXPECT_EQ(c.expected ? wcslen(c.expected) : 0, SysStringLen(value.bstrVal));
    VariantClear(&value);
  }
  EXPECT_THAT(capture.Assertions(), IsEmpty());

  VARIANT_InitI4(nullptr, 1);
  VARIANT_InitBSTRA(nullptr, "a");
  VARIANT_InitBSTRW(nullptr, L"a");
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOVar", 27, "pvar != NULL"},
                                                AssertionReport{"MOVar", 38, "pvar != NULL"},
                                                AssertionReport{"MOVar", 49, "pvar != NULL"}));
}

TEST(FileTimeToVariantTime, ConvertsThroughTheBrokenDownTimeOrRefuses) {
  const ULONGLONG millennium = 125911584000000000ull;  // 2000-01-01 00:00
  const struct { ULONGLONG ticks; HRESULT expected; DATE date; } cases[] = {  // 1234: left alone
      {millennium, S_OK, 36526.0},
      {millennium + 12ull * 3600 * 10000000, S_OK, 36526.5},
      {0, S_OK, -109205.0},  // 1601-01-01
      {0x8000000000000000ull, HRESULT_FROM_WIN32(ERROR_INVALID_PARAMETER), 1234.0},
      {0x7FFFFFFFFFFFFFFFull, DISP_E_OVERFLOW, 1234.0},  // the year 30828
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.ticks);
    const FILETIME time = {static_cast<DWORD>(c.ticks), static_cast<DWORD>(c.ticks >> 32)};
    DATE date = 1234.0;
    EXPECT_HR(c.expected, FileTimeToVariantTime(&time, &date));
    EXPECT_DOUBLE_EQ(c.date, date);
    EXPECT_HR(E_POINTER, FileTimeToVariantTime(&time, nullptr));
  }
  DATE date = 1234.0;
  EXPECT_HR(E_POINTER, FileTimeToVariantTime(nullptr, &date));
}

}  // namespace
}  // namespace persisttest
