// Property records: exact bytes, refusals, and hostile name lengths.
#include <gmock/gmock.h>
#include <xkcombsd/Persist.h>

#include "ComTest.h"
#include "HResult.h"
#include "TestStreams.h"

namespace {

using xktest::Bytes;
using xktest::ComRef;
using xktest::Concat;
using xktest::LittleEndian32;

const Bytes kEmptyVariant(16, 0);

using PropertyRecordsTest = xktest::ComTest<>;

TEST_F(PropertyRecordsTest, NamesArePaddedToFourBytesAndLoadBack) {
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
    ComRef<IStream> stream(xktest::NewMemoryStream());
    ASSERT_HR(S_OK, Property_SaveToStream(stream.get(), row.name, row.value));
    const Bytes expected = Concat(row.record, row.value ? i4Record : kEmptyVariant);
    EXPECT_EQ(expected, xktest::ContentOf(stream.get()));

    xktest::SeekTo(stream.get(), 0);
    LPOLESTR name = nullptr;
    VARIANT value = {};
    ASSERT_HR(S_OK, Property_LoadFromStream(stream.get(), &name, &value));
    EXPECT_EQ(std::wstring(row.name), name);
    EXPECT_EQ(row.value ? VT_I4 : VT_EMPTY, V_VT(&value));
    EXPECT_EQ(expected.size(), xktest::PositionOf(stream.get()));
    CoTaskMemFree(name);

    ULONG size = 99;
    EXPECT_HR(E_NOTIMPL, Property_GetSizeMax(row.name, row.value, &size));
    EXPECT_EQ(0u, size);
  }
}

TEST_F(PropertyRecordsTest, AFailedWritePutsThePositionBack) {
  for (int n = 1; n <= 4; ++n) {  // the length, the name, the padding, the VARIANT record
    SCOPED_TRACE(n);
    xktest::FaultyStream stream;
    stream.FailNth(xktest::FaultyStream::kWrite, n, STG_E_MEDIUMFULL);
    EXPECT_HR(STG_E_MEDIUMFULL, Property_SaveToStream(&stream, L"a", nullptr));
    EXPECT_EQ(0u, stream.Position());
  }
}

}  // namespace
