// The record inspector, run as a process: it decodes records the library's own
// writers made, line for line, and names the first corrupt byte of broken ones.
#include <gmock/gmock.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/PropertyBag.h>

#include <algorithm>
#include <fstream>
#include <string>

#include "ComTest.h"
#include "HResult.h"
#include "TestStreams.h"

namespace {

using xktest::Bytes;
using xktest::ComRef;

struct Inspection {
  DWORD exitCode = ~DWORD{0};
  std::string output;
};

// CreateProcess looks for the inspector beside this program first.
Inspection Inspect(const std::string& kinds, const Bytes& bytes) {
  const char* file = "xkinspect_test.bin";
  std::ofstream(file, std::ios::binary)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
  std::string command = "xkinspect.exe --as " + kinds + " " + file;
  SECURITY_ATTRIBUTES inherit = {sizeof inherit, nullptr, TRUE};
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  CreatePipe(&readEnd, &writeEnd, &inherit, 0);
  STARTUPINFOA startup = {};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdOutput = startup.hStdError = writeEnd;
  PROCESS_INFORMATION process = {};
  Inspection run;
  const BOOL started = CreateProcessA(nullptr, &command[0], nullptr, nullptr, TRUE, 0, nullptr,
                                      nullptr, &startup, &process);
  CloseHandle(writeEnd);
  char chunk[512];
  DWORD got = 0;
  while (started && ReadFile(readEnd, chunk, sizeof chunk, &got, nullptr) && got)
    run.output.append(chunk, got);
  if (started && WaitForSingleObject(process.hProcess, INFINITE) == WAIT_OBJECT_0)
    GetExitCodeProcess(process.hProcess, &run.exitCode);
  CloseHandle(process.hProcess);
  CloseHandle(process.hThread);
  CloseHandle(readEnd);
  run.output.erase(std::remove(run.output.begin(), run.output.end(), '\r'), run.output.end());
  return run;
}

// The bag header has no writer in the library; the bag's own Load checks it below.
Bytes BagHeader(unsigned long count) {
  return xktest::Concat(xktest::Concat({1, 0, 0, 0}, xktest::LittleEndian32(count)), Bytes(8, 0));
}

using RecordInspectorTest = xktest::ComTest<>;

TEST_F(RecordInspectorTest, DecodesOneRecordOfEveryKindAsTheLibraryWroteIt) {
  ComRef<IStream> stream(xktest::NewMemoryStream());
  IStream* out = stream.get();
  BSTR text = SysAllocString(L"a\"b");
  ASSERT_HR(S_OK, BSTR_SaveToStream(out, text));
  ASSERT_HR(S_OK, OleString_SaveToStream(out, L"Hi\x00e9"));
  VARIANT value = {};
  V_VT(&value) = VT_R8;
  V_R8(&value) = -2.5;
  ASSERT_HR(S_OK, VARIANT_SaveToStream(out, &value));
  ASSERT_HR(S_OK, Property_SaveToStream(out, L"abc", nullptr));
  const Bytes header = BagHeader(0);
  ASSERT_HR(S_OK, out->Write(header.data(), 16, nullptr));
  ComRef<IPropertyBag> bag;
  ASSERT_HR(S_OK, PropertyBag_LoadFromStream(nullptr, bag.put()));
  const ULONGLONG objectAt = xktest::PositionOf(out);
  EXPECT_HR(E_NOTIMPL, PropertyBag_SaveToStream(out, bag.get()));  // the class id only
  const Bytes bagHeader = BagHeader(5);
  ASSERT_HR(S_OK, out->Write(bagHeader.data(), 16, nullptr));
  VARIANT_InitI4(&value, -7);
  ASSERT_HR(S_OK, Property_SaveToStream(out, L"Count", &value));
  V_VT(&value) = VT_BSTR;
  V_BSTR(&value) = text;
  ASSERT_HR(S_OK, Property_SaveToStream(out, L"Name", &value));
  V_VT(&value) = VT_BOOL;
  V_BOOL(&value) = VARIANT_TRUE;
  ASSERT_HR(S_OK, Property_SaveToStream(out, L"On", &value));
  V_VT(&value) = VT_ERROR;
  V_ERROR(&value) = E_FAIL;
  ASSERT_HR(S_OK, Property_SaveToStream(out, L"Why", &value));
  V_VT(&value) = VT_UNKNOWN;
  V_UNKNOWN(&value) = nullptr;
  ASSERT_HR(S_OK, Property_SaveToStream(out, L"Peer", &value));
  SysFreeString(text);

  // The library's own bag takes the hand-made header and the records after it.
  xktest::SeekTo(out, objectAt + 16);
  ComRef<IPersistStream> persist;
  ASSERT_HR(S_OK, bag->QueryInterface(IID_IPersistStream, reinterpret_cast<void**>(persist.put())));
  ASSERT_HR(S_OK, persist->Load(out));
  EXPECT_EQ(xktest::ContentOf(out).size(), xktest::PositionOf(out));

  const Inspection run =
      Inspect("bstr,olestr,variant,property,header,object,bag", xktest::ContentOf(out));
  EXPECT_EQ(0u, run.exitCode);
  EXPECT_EQ(
      "     0  bstr           12  \"a\\\"b\"\n"
      "    12  olestr         12  \"Hi\\u00E9\"\n"
      "    24  variant        16  VT_R8 -2.5\n"
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
  const Bytes zeros14(14, 0);
  const struct {
    const char* kinds;
    Bytes bytes;
    size_t offset;
    const char* reason;
  } rows[] = {
      {"variant", {3, 0, 0, 0, 0, 0, 0, 0, 42, 0}, 10, "input ends inside the VARIANT"},
      {"bstr", {16, 0, 0, 0, 'a', 0, 0, 0}, 0, "BSTR count 16 runs past the end"},
      {"bstr", {4, 0, 0, 0, 'a', 0, 'b', 0}, 6, "BSTR does not end in a NUL"},
      {"olestr", {3, 0, 0, 0, 'a', 0, 0}, 0, "odd OLE-string byte count 3"},
      {"olestr", {6, 0, 0, 0, 'a', 0, 0, 0, 'b', 0}, 6, "NUL character before the end"},
      {"bstr,variant", xktest::Concat({0, 0, 0, 0, 20, 0}, zeros14), 4, "VARIANT type 0x0014"},
      {"variant", xktest::Concat({0, 0x20}, zeros14), 0, "VT_ARRAY"},
      {"property", {6, 0, 0, 0, 'a', 0, 'b', 0, 'c', 0}, 0, "6 is not a positive multiple of 4"},
      {"property", {4, 0, 0, 0, 0, 0, 'a', 0}, 4, "empty property name"},
      {"property", {8, 0, 0, 0, 'a', 0, 0, 0, 0, 0, 0, 0}, 0, "does not fit the 1-character"},
      {"bag", xktest::Concat({2}, Bytes(15, 0)), 0, "header version 2"},
      {"bag", BagHeader(9), 4, "9 properties need at least 216 bytes"},
      {"object,bag", Bytes(17, 0), 17, "input ends inside the property-bag header"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.reason);
    const Inspection run = Inspect(row.kinds, row.bytes);
    EXPECT_EQ(2u, run.exitCode);
    EXPECT_THAT(run.output,
                testing::HasSubstr("corrupt at offset " + std::to_string(row.offset) + ": "));
    EXPECT_THAT(run.output, testing::HasSubstr(row.reason));
  }
  EXPECT_EQ(1u, Inspect("varient", {}).exitCode);
}

}  // namespace
