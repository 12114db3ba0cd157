// The record inspector, run as a process: it decodes records the library's own
// writers made, line for line, and names the first corrupt byte of broken ones.
#include <gmock/gmock.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/PropertyBag.h>

#include <fstream>
#include <string>
#include <tuple>
#include <utility>

#include "ComTest.h"
#include "TestStreams.h"

namespace {

using xktest::Bytes;
using xktest::Concat;

struct Inspection {
  int exitCode;
  std::string output;  // text mode: lines end in "\n"
};

// The suite runs in the folder of the programs, where the shell finds the inspector.
Inspection Inspect(const std::string& kinds, const Bytes& bytes) {
  std::ofstream("xkinspect_test.bin", std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  FILE* pipe = _popen(("xkinspect.exe --as " + kinds + " xkinspect_test.bin").c_str(), "r");
  Inspection run = {-1, ""};
  if (!pipe) return run;
  char line[512];
  while (std::fgets(line, sizeof line, pipe)) run.output += line;
  run.exitCode = _pclose(pipe);
  return run;
}

// The bag header has no writer in the library; the loader fuzz loads one made so.
Bytes BagHeader(unsigned long count) {
  return Concat(Concat({1, 0, 0, 0}, xktest::LittleEndian32(count)), Bytes(8, 0));
}

VARIANT Value(VARTYPE vt, LONGLONG bits) {
  VARIANT value = {};
  V_VT(&value) = vt;
  V_I8(&value) = bits;
  return value;
}

using RecordInspectorTest = xktest::ComTest<>;

TEST_F(RecordInspectorTest, DecodesOneRecordOfEveryKindAsTheLibraryWroteIt) {
  xktest::ComRef<IStream> stream(xktest::NewMemoryStream());
  IStream* out = stream.get();
  BSTR text = SysAllocString(L"a\"b");
  ASSERT_HR(S_OK, BSTR_SaveToStream(out, text));
  ASSERT_HR(S_OK, OleString_SaveToStream(out, L"Hi\x00e9"));
  const VARIANT money = Value(VT_CY, -25000);
  ASSERT_HR(S_OK, VARIANT_SaveToStream(out, &money));
  ASSERT_HR(S_OK, Property_SaveToStream(out, L"abc", nullptr));
  ASSERT_HR(S_OK, out->Write(BagHeader(0).data(), 16, nullptr));
  xktest::ComRef<IPropertyBag> bag;
  ASSERT_HR(S_OK, PropertyBag_LoadFromStream(nullptr, bag.put()));
  EXPECT_HR(E_NOTIMPL, PropertyBag_SaveToStream(out, bag.get()));  // the class id only
  ASSERT_HR(S_OK, out->Write(BagHeader(5).data(), 16, nullptr));
  const std::pair<const wchar_t*, VARIANT> properties[] = {
      {L"Count", Value(VT_I4, -7)},
      {L"Name", Value(VT_BSTR, reinterpret_cast<LONGLONG>(text))},
      {L"On", Value(VT_BOOL, VARIANT_TRUE)},
      {L"Why", Value(VT_ERROR, E_FAIL)},
      {L"Peer", Value(VT_UNKNOWN, 0)}};
  for (const auto& [name, value] : properties)
    ASSERT_HR(S_OK, Property_SaveToStream(out, name, &value));
  SysFreeString(text);

  const Inspection run =
      Inspect("bstr,olestr,variant,property,header,object,bag", xktest::ContentOf(out));
  EXPECT_EQ(0, run.exitCode);
  EXPECT_EQ(
      "     0  bstr           12  \"a\\\"b\"\n"
      "    12  olestr         12  \"Hi\\u00E9\"\n"
      "    24  variant        16  VT_CY -2.5000\n"
      "    40  property       28  \"abc\" = VT_EMPTY\n"
      "    68  header         16  version 1, 0 properties\n"
      "    84  object         16  {00517663-0002-0014-0001-00C0DFE64A64} property bag (no data of "
      "its own)\n"
      "   100  bag           184  5 properties\n"
      "   100    header       16  version 1, 5 properties\n"
      "   116    property     32  \"Count\" = VT_I4 -7\n"
      "   148    property     40  \"Name\" = VT_BSTR \"a\\\"b\"\n"
      "   188    property     24  \"On\" = VT_BOOL true\n"
      "   212    property     28  \"Why\" = VT_ERROR 0x80004005\n"
      "   240    property     44  \"Peer\" = VT_UNKNOWN null\n",
      run.output);
}

TEST_F(RecordInspectorTest, NamesTheFirstByteThatDoesNotFit) {
  const std::tuple<const char*, Bytes, size_t, const char*> rows[] = {
      {"variant", {3, 0, 0, 0, 0, 0, 0, 0, 42, 0}, 10, "input ends inside the VARIANT"},
      {"bstr", {16, 0, 0, 0, 'a', 0, 0, 0}, 0, "BSTR count 16 runs past the end"},
      {"bstr", {4, 0, 0, 0, 'a', 0, 'b', 0}, 6, "BSTR does not end in a NUL"},
      {"olestr", {3, 0, 0, 0, 'a', 0, 0}, 0, "odd OLE-string byte count 3"},
      {"olestr", {6, 0, 0, 0, 'a', 0, 0, 0, 'b', 0}, 6, "NUL character before the end"},
      {"bstr,variant", Concat({0, 0, 0, 0, 20, 0}, Bytes(14, 0)), 4, "unknown VARIANT type 0x0014"},
      {"variant", Concat({0, 0x20}, Bytes(14, 0)), 0, "VT_ARRAY"},
      {"property", {6, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0}, 0, "name length 6 is not a positive"},
      {"property", {4, 0, 0, 0, 0, 0, 'a', 0}, 4, "empty property name"},
      {"property", {8, 0, 0, 0, 'a', 0, 0, 0, 0, 0, 0, 0}, 0, "name length 8 does not fit"},
      {"bag", Concat({2}, Bytes(15, 0)), 0, "property-bag header version 2"},
      {"bag", BagHeader(9), 4, "9 properties need at least 216 bytes"},
      {"object,bag", Bytes(17, 0), 17, "input ends inside the property-bag header"},
  };
  for (const auto& [kinds, bytes, offset, reason] : rows) {
    const Inspection run = Inspect(kinds, bytes);
    EXPECT_EQ(2, run.exitCode) << reason;
    EXPECT_THAT(run.output,
                testing::HasSubstr("corrupt at offset " + std::to_string(offset) + ": " + reason));
  }
  EXPECT_EQ(1, Inspect("varient", {}).exitCode);
}

}  // namespace
