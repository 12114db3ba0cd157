// Stream records as a client sees them: strings (a count, then the bytes with their
// terminator), objects (the class id, then the object's own data), VARIANTs (16
// bytes imaging the VARIANT, then the payload its type calls for), named
// properties, and the VARIANT and time helpers. Hostile records and failed reads
// are the loader fuzz's; here the exact bytes, what loads back and failed writes.
#include <gmock/gmock.h>
#include <xkcombsd/Persist.h>

#include <cstring>
#include <memory>

#include "ComTest.h"
#include "DebugOutput.h"
#include "HResult.h"
#include "RecordLoaders.h"
#include "TestStreams.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xktest::Bytes;
using xktest::Concat;
using xktest::FaultyStream;
using xktest::kNumberClass;
using xktest::LoadVariant;
using xktest::PersistentNumber;

namespace {

const HRESULT kBadType = DISP_E_BADVARTYPE;
const OLECHAR kAbc[] = L"abc";
const Bytes kAbcRecord = {0x08, 0x00, 0x00, 0x00, 0x61, 0x00, 0x62, 0x00, 0x63, 0x00, 0x00, 0x00};
const Bytes kPrefix = {0xEE, 0xEE, 0xEE};  // records stand after it: "where it was" is not 0

template <class T>
Bytes BytesOf(const T& value) {  // as they lie in memory, little-endian
  const auto* raw = reinterpret_cast<const unsigned char*>(&value);
  return Bytes(raw, raw + sizeof value);
}
const Bytes kNumberRecord = Concat(BytesOf(kNumberClass), {0x04, 0x03, 0x02, 0x01});

// Every byte 0xCD but vt, so bytes a record takes from memory are visibly garbage.
VARIANT Filled(VARTYPE vt) {
  VARIANT value;
  std::memset(&value, 0xCD, sizeof value);
  value.vt = vt;
  return value;
}
// A VARIANT record's 16 bytes: vt, then garbage where the value would be.
Bytes Header(VARTYPE vt) { return Concat({BYTE(vt), BYTE(vt >> 8)}, Bytes(14, 0xCC)); }

// A fresh memory stream, released before the leak check.
class Records : public xktest::ComTest<> {
 protected:
  void TearDown() override {
    stream.Reset();
    ComTest::TearDown();
  }
  void Fill(const Bytes& content) { *stream.put() = xktest::NewMemoryStream(content); }
  Bytes Written() const { return xktest::ContentOf(stream.get()); }
  ULONGLONG Position() const { return xktest::PositionOf(stream.get()); }
  void Rewind() { xktest::SeekTo(stream.get(), 0); }

  xktest::ComRef<IStream> stream{xktest::NewMemoryStream()};
  xktest::DebugOutputCapture capture;
};

const struct StringCase {
  const char* what;
  const void* text;  // null for a null string
  UINT bytes;
  Bytes record;
} kStrings[] = {
    {"abc", kAbc, 6, kAbcRecord},
    {"empty", L"", 0, {0x02, 0x00, 0x00, 0x00, 0x00, 0x00}},
    {"null", nullptr, 0, {0x00, 0x00, 0x00, 0x00}},
    {"odd byte length", "xyz", 3, {0x05, 0x00, 0x00, 0x00, 'x', 'y', 'z', 0x00, 0x00}},
};

TEST_F(Records, StringsWriteTheCountThenTheBytesWithTheirTerminatorAndLoadThemBack) {
  for (const StringCase& c : kStrings) {
    SCOPED_TRACE(c.what);
    const ULONG count = static_cast<ULONG>(c.record.size() - 4);
    Fill({});
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
    if (c.bytes % 2) continue;  // an odd byte length is no OLE string

    // An OLE string writes the same record but counts all of it.
    Fill({});
    const auto* ole = static_cast<LPCOLESTR>(c.text);
    EXPECT_HR(S_OK, OleString_GetSizeMax(ole, &size));
    EXPECT_EQ(c.record.size(), size);
    EXPECT_HR(S_OK, OleString_SaveToStream(stream.get(), ole));
    EXPECT_EQ(c.record, Written());
    Rewind();
    LPOLESTR oleLoaded = reinterpret_cast<LPOLESTR>(0xDEADBEEF);
    EXPECT_HR(S_OK, OleString_LoadFromStream(stream.get(), &oleLoaded));
    EXPECT_EQ(c.record.size(), Position());
    EXPECT_STREQ(ole, oleLoaded);
    CoTaskMemFree(oleLoaded);
  }
}

TEST_F(Records, ObjectsSaveTheirClassThenTheirDataAndInitBack) {
  PersistentNumber number(0x01020304);
  EXPECT_HR(S_OK, OleSaveUnknownToStream(stream.get(), &number));
  EXPECT_EQ(kNumberRecord, Written());
  Rewind();
  number.value = 7;
  EXPECT_HR(S_OK, OleInitFromStream(stream.get(), &number));
  EXPECT_EQ(0x01020304, number.value);
  EXPECT_EQ(1, number.refs);
  Fill({});
  EXPECT_HR(S_OK, OleSaveUnknownToStream(stream.get(), nullptr));
  EXPECT_EQ(Bytes(16, 0x00), Written()) << "a null object is CLSID_NULL and nothing more";
}

const struct VariantCase {
  const char* what;
  VARTYPE vt;
  Bytes payload;
} kVariants[] = {
    {"empty", VT_EMPTY, {}},
    {"42", VT_I4, {}},
    {"\"abc\"", VT_BSTR, kAbcRecord},
    {"42 by reference", VT_BYREF | VT_I4, {}},
    {"null object", VT_UNKNOWN, Bytes(16, 0x00)},
};

TEST_F(Records, VariantsWriteTheVariantThenItsPayloadAndLoadBackByValue) {
  for (const VariantCase& c : kVariants) {
    SCOPED_TRACE(c.what);
    Fill({});
    LONG fortyTwo = 42;
    BSTR text = SysAllocString(kAbc);
    VARIANT value = {};
    value.vt = c.vt;
    if (c.vt == VT_I4) value.lVal = fortyTwo;
    if (c.vt == VT_BSTR) value.bstrVal = text;
    if (c.vt & VT_BYREF) value.plVal = &fortyTwo;
    // The record is always by value: vt without VT_BYREF, the reserved words, the value.
    const VARTYPE type = c.vt & ~VT_BYREF;
    const LONGLONG bits = c.vt & VT_BYREF ? fortyTwo : value.llVal;
    ASSERT_HR(S_OK, VARIANT_SaveToStream(stream.get(), &value));
    EXPECT_EQ(Concat(Concat({BYTE(type), 0, 0, 0, 0, 0, 0, 0}, BytesOf(bits)), c.payload),
              Written());
    SysFreeString(text);
    Rewind();
    VARIANT loaded = Filled(0xBEEF);
    ASSERT_HR(S_OK, VARIANT_LoadFromStream(stream.get(), &loaded));
    EXPECT_EQ(type, loaded.vt);
    EXPECT_EQ(16u + c.payload.size(), Position());
    if (type == VT_BSTR)
      EXPECT_EQ(std::wstring(L"abc", 4),
                std::wstring(loaded.bstrVal, SysStringLen(loaded.bstrVal)));
    else
      EXPECT_EQ(c.vt == VT_EMPTY || c.vt == VT_UNKNOWN ? 0 : 42, loaded.llVal);
    VariantClear(&loaded);
  }
  EXPECT_THAT(capture.Lines(), IsEmpty());
}

TEST_F(Records, VariantTypesOutsideTheTableAreRefusedWithTheirReports) {
  const std::string unrecognised = "Unrecognised variant type\n";
  SAFEARRAY* array = nullptr;
  VARIANT byRefArray = {}, decimal = {};
  byRefArray.vt = VT_BYREF | VT_ARRAY | VT_I4, byRefArray.pparray = &array;
  decimal.vt = VT_DECIMAL;
  EXPECT_HR(E_INVALIDARG, VARIANT_SaveToStream(stream.get(), &byRefArray));
  EXPECT_HR(kBadType, VARIANT_SaveToStream(stream.get(), &decimal));
  for (VARTYPE vt : {byRefArray.vt, decimal.vt}) {
    Fill(Header(vt));
    EXPECT_HR(kBadType, LoadVariant(stream.get())) << vt;
  }
  EXPECT_THAT(capture.Lines(),
              ElementsAre("Cannot load a variant with VT_BYREF|VT_ARRAY, so save operation is "
                          "prohibited\n",
                          unrecognised, unrecognised, unrecognised));
}

TEST_F(Records, VariantInitFillsWithoutReleasingWhatItHeld) {
  VARIANT value = Filled(0xBEEF);
  VARIANT_InitI4(&value, -5);
  EXPECT_EQ(VT_I4, value.vt);
  EXPECT_EQ(-5, value.lVal);
  // Each init with the string it makes; null where the string cannot be made.
  const std::pair<void (*)(VARIANT*), const wchar_t*> cases[] = {
      {[](VARIANT* v) { VARIANT_InitBSTRA(v, "abc"); }, L"abc"},
      {[](VARIANT* v) { VARIANT_InitBSTRW(v, L"wide"); }, L"wide"},
      {[](VARIANT* v) { VARIANT_InitBSTRA(v, ""); }, nullptr},
  };
  for (const auto& [init, expected] : cases) {
    value = Filled(0xBEEF);
    init(&value);
    EXPECT_EQ(VT_BSTR, value.vt);
    EXPECT_STREQ(expected, value.bstrVal);
    VariantClear(&value);
  }
}

TEST_F(Records, FileTimeToVariantTimeConvertsThroughTheBrokenDownTimeOrRefuses) {
  const ULONGLONG noonOfTheMillennium = 125911584000000000ull + 12ull * 3600 * 10000000;
  const struct {
    ULONGLONG ticks;
    HRESULT expected;
    DATE date;  // 1234: left alone
  } cases[] = {
      {noonOfTheMillennium, S_OK, 36526.5},
      {0x8000000000000000ull, HRESULT_FROM_WIN32(ERROR_INVALID_PARAMETER), 1234.0},
      {0x7FFFFFFFFFFFFFFFull, DISP_E_OVERFLOW, 1234.0},  // the year 30828
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.ticks);
    const FILETIME time = {static_cast<DWORD>(c.ticks), static_cast<DWORD>(c.ticks >> 32)};
    DATE date = 1234.0;
    EXPECT_HR(c.expected, FileTimeToVariantTime(&time, &date));
    EXPECT_DOUBLE_EQ(c.date, date);
  }
}

TEST_F(Records, PropertyNamesArePaddedToFourBytesAndLoadBack) {
  VARIANT i4 = {};  // the record carries all 8 value bytes
  VARIANT_InitI4(&i4, 42);
  const Bytes i4Record = {VT_I4, 0, 0, 0, 0, 0, 0, 0, 42, 0, 0, 0, 0, 0, 0, 0};
  const struct {
    const wchar_t* name;
    const VARIANT* value;
    Bytes record;
  } rows[] = {
      {L"a", nullptr, {4, 0, 0, 0, 'a', 0, 0, 0}},
      {L"ab", nullptr, {4, 0, 0, 0, 'a', 0, 'b', 0}},
      {L"abc", &i4, {8, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0, 0, 0}},
      {L"abcd", nullptr, {8, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0, 'd', 0}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(row.name)));
    Fill({});
    ASSERT_HR(S_OK, Property_SaveToStream(stream.get(), row.name, row.value));
    const Bytes expected = Concat(row.record, row.value ? i4Record : Bytes(16, 0));
    EXPECT_EQ(expected, Written());
    Rewind();
    LPOLESTR name = nullptr;
    VARIANT value = {};
    ASSERT_HR(S_OK, Property_LoadFromStream(stream.get(), &name, &value));
    EXPECT_EQ(std::wstring(row.name), name);
    EXPECT_EQ(row.value ? VT_I4 : VT_EMPTY, V_VT(&value));
    EXPECT_EQ(expected.size(), Position());
    CoTaskMemFree(name);
    ULONG size = 99;
    EXPECT_HR(E_NOTIMPL, Property_GetSizeMax(row.name, row.value, &size));
    EXPECT_EQ(0u, size);
  }
}

TEST_F(Records, AFailedWriteAtAnyPartPutsTheStreamBackWhereItWas) {
  const std::pair<const char*, HRESULT (*)(IStream*)> kinds[] = {
      {"BSTR",
       [](IStream* s) {
         const std::unique_ptr<OLECHAR, decltype(&SysFreeString)> abc(SysAllocString(kAbc),
                                                                      SysFreeString);
         return BSTR_SaveToStream(s, abc.get());
       }},
      {"OLE string", [](IStream* s) { return OleString_SaveToStream(s, kAbc); }},
      {"VARIANT",
       [](IStream* s) {
         VARIANT text;
         VARIANT_InitBSTRW(&text, kAbc);
         const HRESULT hr = VARIANT_SaveToStream(s, &text);
         VariantClear(&text);
         return hr;
       }},
      {"property", [](IStream* s) { return Property_SaveToStream(s, L"a", nullptr); }},
  };
  for (const auto& [name, save] : kinds) {
    SCOPED_TRACE(name);
    int n = 1;  // the write that fails, until the record needs no more
    for (; n <= 8; ++n) {
      FaultyStream faulty(kPrefix);
      xktest::SeekTo(faulty.Inner(), kPrefix.size());
      faulty.FailNth(FaultyStream::kWrite, n, STG_E_MEDIUMFULL);
      const HRESULT hr = save(&faulty);
      if (hr == S_OK) break;
      EXPECT_HR(STG_E_MEDIUMFULL, hr) << n;
      EXPECT_EQ(kPrefix.size(), faulty.Position()) << n;
      EXPECT_EQ(1, faulty.References());
    }
    EXPECT_GT(n, 2) << "written in more than one part";
  }
}

}  // namespace
