// Table-driven registration as a client uses it, against the real registry of
// the prefix: what each flag writes under HKEY_CLASSES_ROOT, what is removed,
// and what a refused or failed record leaves behind (nothing).
#include <gmock/gmock.h>
#include <xkcombsd/Registration.h>

#include <string>

#include "DebugOutput.h"
#include "RegistryProbe.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::UnorderedElementsAre;
using xktest::GuidText;
using xktest::KeyExists;
using xktest::KeyTreeCleanup;
using xktest::StringValue;
using xktest::SubKeys;

namespace {

const HKEY kRoot = HKEY_CLASSES_ROOT;

// Identifiers of this suite only, so that nothing of the library's own is touched.
GUID TestGuid(unsigned short n) {
  return {0x5A5E7E57, 0x7E57, n, {0x8C, 0x11, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}};
}
const GUID kClass = TestGuid(1), kOther = TestGuid(2), kInterface = TestGuid(3);
const std::string kClassKey = "CLSID\\" + GuidText(kClass), kOtherKey = "CLSID\\" + GuidText(kOther);
const std::string kInterfaceKey = "Interface\\" + GuidText(kInterface);
const std::string kInterfaceClassKey = "CLSID\\" + GuidText(kInterface);
constexpr char kServerPath[] = "C:\\Quorvel\\XKComBsD.dll";

QVREGSVR Record(DWORD flags) {
  QVREGSVR record = {};
  record.flags = QVREGSVRF_CLSID | flags;
  record.clsid = kClass;
  return record;
}

// A value below HKEY_CLASSES_ROOT: key, value name (nullptr: the default), text.
struct Value {
  std::string key;
  const char* name;
  std::string text;
};
void ExpectValues(std::initializer_list<Value> values) {
  for (const Value& v : values)
    EXPECT_THAT(StringValue(kRoot, v.key, v.name), Optional(v.text)) << v.key << " " << (v.name ? v.name : "");
}
std::string Below(const std::string& sub) { return kClassKey + "\\" + sub; }

}  // namespace

TEST(RegisterInprocServer, WritesBothProgIDsWithCurVerOnTheVersionedAndRemovesThem) {
  const std::string vi = "QuorvelSoftware.EnumGUID", versioned = vi + ".1";
  KeyTreeCleanup cleanup(kRoot, {kClassKey, vi, versioned});
  ASSERT_TRUE(RegisterInprocServer(kClass, "EnumGUID Class", kServerPath, vi.c_str(), 1, QVREGSVRF_BOTH));
  EXPECT_THAT(SubKeys(kRoot, kClassKey),
              UnorderedElementsAre("InprocServer32", "ProgID", "VersionIndependentProgID"));
  EXPECT_THAT(SubKeys(kRoot, versioned), UnorderedElementsAre("CLSID", "CurVer"));
  EXPECT_THAT(SubKeys(kRoot, vi), ElementsAre("CLSID"));
  ExpectValues({{kClassKey, nullptr, "EnumGUID Class"}, {Below("InprocServer32"), nullptr, kServerPath},
                {Below("InprocServer32"), "ThreadingModel", "Both"}, {Below("ProgID"), nullptr, versioned},
                {Below("VersionIndependentProgID"), nullptr, vi}, {versioned, nullptr, "EnumGUID Class"},
                {versioned + "\\CLSID", nullptr, GuidText(kClass)}, {versioned + "\\CurVer", nullptr, versioned},
                {vi, nullptr, "EnumGUID Class"}, {vi + "\\CLSID", nullptr, GuidText(kClass)}});

  EXPECT_TRUE(RegisterInprocServer(kClass, "EnumGUID Class", kServerPath, vi.c_str(), 1,
                                   QVREGSVRF_UNREGISTER | QVREGSVRF_BOTH));
  for (const std::string& key : {kClassKey, vi, versioned}) EXPECT_FALSE(KeyExists(kRoot, key)) << key;
}

TEST(RegisterInprocServer, CutsTheNameAndKeepsOnlyTheThreadingAndUnregisterBitsOfTheFlags) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey});
  const std::string longName = "An in-process class whose name goes on past 38 characters";
  // Every other bit of the caller's flags is dropped: no AppID, no Control key.
  ASSERT_TRUE(RegisterInprocServer(kClass, longName.c_str(), kServerPath, nullptr, 0,
                                   QVREGSVRF_APARTMENT | QVREGSVRF_APPID | QVREGSVRF_CONTROL));
  EXPECT_THAT(SubKeys(kRoot, kClassKey), ElementsAre("InprocServer32"));
  EXPECT_THAT(xktest::ValueNames(kRoot, kClassKey), ElementsAre(""));
  ExpectValues({{kClassKey, nullptr, longName.substr(0, 38)},
                {Below("InprocServer32"), "ThreadingModel", "Apartment"}});
}

TEST(RegisterServer, WritesTheThreadingModelFromTheThreadingBits) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey});
  const struct { DWORD bits; const char* expected; } rows[] = {
      {0x0000, ""}, {0x1000, "Apartment"}, {0x2000, "Free"}, {0x3000, "Both"},
      {0x4000, ""}, {0x5000, "Neutral"},   {0x6000, "Neutral"}, {0x7000, "Neutral"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.bits);
    QVREGSVR record = Record(QVREGSVRF_INPROCSERVER32 | row.bits);
    record.inprocServer32 = kServerPath;
    record.threadingModel = "Neutral";
    ASSERT_TRUE(RegisterServer(&record));
    ExpectValues({{Below("InprocServer32"), "ThreadingModel", row.expected}});
  }
}

TEST(RegisterServer, EachFlagWritesItsOwnEntryAndAllOfThemTogetherWriteAll) {
  const std::string vi = "QuorvelTest.Everything", versioned = vi + ".7";
  KeyTreeCleanup cleanup(kRoot, {kClassKey, vi, versioned});
  const QVREGSVR_INTERFACE interfaces[] = {{kInterface, "IEverything"}, {kOther, "IOther"}};
  QVREGSVR record = Record(0);
  record.name = "Everything Class";
  record.appid = record.autoConvertTo = record.treatAs = kOther;
  record.autoTreatAs = kInterface;
  record.auxUserTypeShort = "Everything";
  record.auxUserTypeApp = "Quorvel Everything Application";
  record.defaultIconPath = "C:\\Quorvel\\Everything.ico";
  record.defaultIconIndex = 3;
  record.inprocHandler32 = "ole32.dll";
  record.inprocServer32 = kServerPath;
  record.localServer32 = "C:\\Quorvel\\Everything.exe";
  record.interfaces = interfaces;
  record.cInterfaces = 2;
  record.progID = MAKEINTRESOURCEA(7);
  record.versionIndependentProgID = vi.c_str();
  record.toolboxBitmapPath = "C:\\Quorvel\\Everything.bmp";
  record.toolboxBitmapIndex = -2;
  // The flags a value needs, and the value; a null text is a key without values.
  const struct { DWORD flags; std::string key; const char* name; const char* text; } rows[] = {
      {QVREGSVRF_APPID, kClassKey, "AppID", "{5A5E7E57-7E57-0002-8C11-00C0DFE64A64}"},
      {QVREGSVRF_AUTOCONVERTTO, Below("AutoConvertTo"), nullptr, "{5A5E7E57-7E57-0002-8C11-00C0DFE64A64}"},
      {QVREGSVRF_AUTOTREATAS, Below("AutoTreatAs"), nullptr, "{5A5E7E57-7E57-0003-8C11-00C0DFE64A64}"},
      {QVREGSVRF_AUXUSERTYPE2, Below("AuxUserType\\2"), nullptr, "Everything"},
      {QVREGSVRF_AUXUSERTYPE3, Below("AuxUserType\\3"), nullptr, "Quorvel Everything Application"},
      {QVREGSVRF_CONTROL, Below("Control"), nullptr, nullptr},
      {QVREGSVRF_DEFAULTICON, Below("DefaultIcon"), nullptr, "C:\\Quorvel\\Everything.ico,3"},
      {QVREGSVRF_INPROCHANDLER32, Below("InprocHandler32"), nullptr, "ole32.dll"},
      {QVREGSVRF_INPROCSERVER32 | QVREGSVRF_BOTH, Below("InprocServer32"), nullptr, kServerPath},
      {QVREGSVRF_INPROCSERVER32 | QVREGSVRF_BOTH, Below("InprocServer32"), "ThreadingModel", "Both"},
      {QVREGSVRF_INSERTABLE, Below("Insertable"), nullptr, nullptr},
      {QVREGSVRF_LOCALSERVER32, Below("LocalServer32"), nullptr, "C:\\Quorvel\\Everything.exe"},
      // Wine lets the entries be created under "Interface" opened to set values only.
      {QVREGSVRF_INTERFACE, Below("Interface\\" + GuidText(kInterface)), nullptr, "IEverything"},
      {QVREGSVRF_INTERFACE, Below("Interface\\" + GuidText(kOther)), nullptr, "IOther"},
      {QVREGSVRF_AUTOMATION, Below("Programmable"), nullptr, nullptr},
      {QVREGSVRF_PROGID | QVREGSVRF_VERSION | QVREGSVRF_VIPROGID, Below("ProgID"), nullptr, "QuorvelTest.Everything.7"},
      {QVREGSVRF_PROGID | QVREGSVRF_VERSION | QVREGSVRF_VIPROGID, versioned + "\\CurVer", nullptr, "QuorvelTest.Everything.7"},
      {QVREGSVRF_VIPROGID, Below("VersionIndependentProgID"), nullptr, "QuorvelTest.Everything"},
      {QVREGSVRF_VIPROGID, vi + "\\CLSID", nullptr, "{5A5E7E57-7E57-0001-8C11-00C0DFE64A64}"},
      {QVREGSVRF_TOOLBOXBITMAP32, Below("ToolboxBitmap32"), nullptr, "C:\\Quorvel\\Everything.bmp,-2"},
      {QVREGSVRF_TREATAS, Below("TreatAs"), nullptr, "{5A5E7E57-7E57-0002-8C11-00C0DFE64A64}"},
      {QVREGSVRF_VERSIONKEY | QVREGSVRF_VERSION, Below("Version"), nullptr, "7"},
  };
  // Registers with these flags; every row whose flags are all among them is written, no other.
  const auto expectWritten = [&](DWORD flags) {
    record.flags = QVREGSVRF_CLSID | flags;
    ASSERT_TRUE(RegisterServer(&record));
    EXPECT_THAT(StringValue(kRoot, kClassKey), Optional(std::string("Everything Class")));
    for (const auto& row : rows) {
      SCOPED_TRACE(row.key + " " + (row.name ? row.name : ""));
      if ((row.flags & flags) != row.flags)
        EXPECT_FALSE(row.name ? StringValue(kRoot, row.key, row.name).has_value() : KeyExists(kRoot, row.key));
      else if (row.text)
        EXPECT_THAT(StringValue(kRoot, row.key, row.name), Optional(std::string(row.text)));
      else
        EXPECT_THAT(xktest::ValueNames(kRoot, row.key), IsEmpty());
    }
    record.flags |= QVREGSVRF_UNREGISTER;
    EXPECT_TRUE(RegisterServer(&record));
    for (const std::string& key : {kClassKey, vi, versioned}) EXPECT_FALSE(KeyExists(kRoot, key)) << key;
  };
  for (const auto& row : rows) expectWritten(row.flags);

  const DWORD all = 0x03FFFFFC & ~(QVREGSVRF_RESOURCES | QVREGSVRF_THREADINGSTRING);
  record.flags = QVREGSVRF_CLSID | all;
  ASSERT_TRUE(RegisterServer(&record));
  EXPECT_THAT(SubKeys(kRoot, kClassKey),
              UnorderedElementsAre("AutoConvertTo", "AutoTreatAs", "AuxUserType", "Control", "DefaultIcon",
                                   "InprocHandler32", "InprocServer32", "Insertable", "LocalServer32",
                                   "Interface", "Programmable", "ProgID", "VersionIndependentProgID",
                                   "ToolboxBitmap32", "TreatAs", "Version"));
  EXPECT_THAT(SubKeys(kRoot, Below("Interface")), UnorderedElementsAre(GuidText(kInterface), GuidText(kOther)));
  EXPECT_THAT(SubKeys(kRoot, versioned), UnorderedElementsAre("CLSID", "CurVer"));
  EXPECT_THAT(SubKeys(kRoot, vi), ElementsAre("CLSID"));
  expectWritten(all);
}

TEST(RegisterServer, LoadsResourceFieldsIntoBuffersOfTheirOwnSize) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey, "QuorvelTest.ResourceClass", "QuorvelTest.ResourceClass.7"});
  QVREGSVR record = Record(QVREGSVRF_RESOURCES | QVREGSVRF_NAME | QVREGSVRF_AUXUSERTYPE2 |
                           QVREGSVRF_AUXUSERTYPE3 | QVREGSVRF_DEFAULTICON | QVREGSVRF_INPROCHANDLER32 |
                           QVREGSVRF_INPROCSERVER32 | 0x6000 | QVREGSVRF_LOCALSERVER32 | QVREGSVRF_PROGID |
                           QVREGSVRF_VIPROGID | QVREGSVRF_TOOLBOXBITMAP32);
  record.hinst = GetModuleHandleW(L"XKComBsD.dll");
  record.name = MAKEINTRESOURCEA(211);
  record.auxUserTypeShort = MAKEINTRESOURCEA(201);
  record.auxUserTypeApp = MAKEINTRESOURCEA(202);
  record.defaultIconPath = MAKEINTRESOURCEA(203);
  record.defaultIconIndex = 1;
  record.inprocHandler32 = MAKEINTRESOURCEA(204);
  record.inprocServer32 = MAKEINTRESOURCEA(205);
  record.threadingModel = MAKEINTRESOURCEA(206);
  record.localServer32 = MAKEINTRESOURCEA(207);
  record.progID = MAKEINTRESOURCEA(208);
  record.versionIndependentProgID = MAKEINTRESOURCEA(209);
  record.toolboxBitmapPath = MAKEINTRESOURCEA(299);  // not in the table: loads as empty text
  record.toolboxBitmapIndex = 4;
  ASSERT_TRUE(RegisterServer(&record));
  ExpectValues({{kClassKey, nullptr, std::string("Resource Test Class Named Longer Than Thirty-Eight").substr(0, 38)},
                {Below("AuxUserType\\2"), nullptr, "ResTest Short "},  // 14 characters
                {Below("AuxUserType\\3"), nullptr, "Resource Test Application"},
                {Below("DefaultIcon"), nullptr, "C:\\Quorvel\\Icons\\ResTest.ico,1"},
                {Below("InprocHandler32"), nullptr, "C:\\Quorvel\\ResTestHandler.dll"},
                {Below("InprocServer32"), nullptr, "C:\\Quorvel\\ResTestServer.dll"},
                {Below("InprocServer32"), "ThreadingModel", "Neutral"},
                {Below("LocalServer32"), nullptr, "C:\\Quorvel\\ResTest.exe /automation"},
                {Below("ProgID"), nullptr, "QuorvelTest.ResourceClass.7"},
                {Below("VersionIndependentProgID"), nullptr, "QuorvelTest.ResourceClass"},
                {Below("ToolboxBitmap32"), nullptr, ",4"},
                {"QuorvelTest.ResourceClass.7\\CurVer", nullptr, "QuorvelTest.ResourceClass.7"}});

  // With QVREGSVRF_VERSION the ProgID is composed from the loaded independent one.
  record.flags = QVREGSVRF_CLSID | QVREGSVRF_RESOURCES | QVREGSVRF_PROGID | QVREGSVRF_VERSION |
                 QVREGSVRF_VIPROGID | QVREGSVRF_NAME;
  record.name = MAKEINTRESOURCEA(200);
  record.progID = MAKEINTRESOURCEA(7);
  ASSERT_TRUE(RegisterServer(&record));
  ExpectValues({{kClassKey, nullptr, "Resource Test Class"}, {Below("ProgID"), nullptr, "QuorvelTest.ResourceClass.7"}});

  // Without QVREGSVRF_RESOURCES an identifier is no text: nothing is read through it.
  record.flags = QVREGSVRF_CLSID | QVREGSVRF_NAME | QVREGSVRF_DEFAULTICON;
  RegDeleteTreeA(kRoot, kClassKey.c_str());
  ASSERT_TRUE(RegisterServer(&record));
  EXPECT_THAT(xktest::ValueNames(kRoot, kClassKey), IsEmpty());
  ExpectValues({{Below("DefaultIcon"), nullptr, ",1"}});
}

TEST(RegisterServer, AComposedProgIDMustFitThirtyEightCharacters) {
  const std::string fits(36, 'F'), tooLong(37, 'L');  // with ".1": 38 and 39
  KeyTreeCleanup cleanup(kRoot, {kClassKey, fits, fits + ".1", tooLong, tooLong + ".1"});
  QVREGSVR record = Record(QVREGSVRF_PROGID | QVREGSVRF_VERSION | QVREGSVRF_VIPROGID);
  record.name = "Versioned";
  record.progID = MAKEINTRESOURCEA(1);
  record.versionIndependentProgID = tooLong.c_str();
  EXPECT_FALSE(RegisterServer(&record));
  EXPECT_FALSE(KeyExists(kRoot, kClassKey)) << "a record that does not resolve writes nothing";
  EXPECT_FALSE(KeyExists(kRoot, tooLong));

  record.versionIndependentProgID = fits.c_str();
  EXPECT_TRUE(RegisterServer(&record));
  ExpectValues({{Below("ProgID"), nullptr, fits + ".1"}});
  EXPECT_TRUE(KeyExists(kRoot, fits + ".1"));
}

TEST(RegisterServer, AProgIDKeyThatCannotBeMadeRollsBackEverythingWritten) {
  const std::string impossible(300, 'X');  // longer than a key name may be
  KeyTreeCleanup cleanup(kRoot, {kClassKey, "QuorvelTest.RollBack"});
  QVREGSVR record = Record(QVREGSVRF_INPROCSERVER32 | QVREGSVRF_PROGID | QVREGSVRF_VIPROGID);
  record.name = "Rolled Back";
  record.inprocServer32 = kServerPath;
  record.progID = "QuorvelTest.RollBack";
  record.versionIndependentProgID = impossible.c_str();
  EXPECT_FALSE(RegisterServer(&record));
  EXPECT_FALSE(KeyExists(kRoot, kClassKey));
  EXPECT_FALSE(KeyExists(kRoot, "QuorvelTest.RollBack"));

  // A ProgID with no text would name the root itself: it too fails the record.
  record.flags = QVREGSVRF_CLSID | QVREGSVRF_PROGID;
  record.progID = "";
  EXPECT_FALSE(RegisterServer(&record));
  EXPECT_FALSE(KeyExists(kRoot, kClassKey));
  EXPECT_NE(std::optional<std::string>("Rolled Back"), StringValue(kRoot, ""));
}

TEST(RegisterProxyStub, CutsTheFactoryNameAndPointsTheInterfaceAtItsClass) {
  KeyTreeCleanup cleanup(kRoot, {kOtherKey, kInterfaceKey, kInterfaceClassKey});
  const std::string name70 = "IAnInterfaceWithAVeryLongNameThatGoesOnAndOnForSeventyCharactersInAll.";
  ASSERT_EQ(70u, name70.size());
  ASSERT_TRUE(RegisterProxyStub(kInterface, kOther, name70.c_str(), kServerPath, 0));
  EXPECT_THAT(SubKeys(kRoot, kInterfaceKey), ElementsAre("ProxyStubClsid32"));
  ExpectValues({{kOtherKey, nullptr, name70.substr(0, 56) + " ProxyStub Factory"},
                {kOtherKey + "\\InprocServer32", nullptr, kServerPath},
                {kOtherKey + "\\InprocServer32", "ThreadingModel", "Both"},
                {kInterfaceKey, nullptr, name70},
                {kInterfaceKey + "\\ProxyStubClsid32", nullptr, GuidText(kOther)}});

  EXPECT_TRUE(RegisterProxyStub(kInterface, kOther, name70.c_str(), kServerPath, QVREGSVRF_UNREGISTER));
  EXPECT_FALSE(KeyExists(kRoot, kOtherKey));
  EXPECT_FALSE(KeyExists(kRoot, kInterfaceKey));
}

TEST(RegisterProxyStub, TheNullClassRegistersTheInterfaceAsItsOwnProxyStubClass) {
  KeyTreeCleanup cleanup(kRoot, {kInterfaceKey, kInterfaceClassKey});
  ASSERT_TRUE(RegisterProxyStub(kInterface, GUID_NULL, "IThing", kServerPath, 0));
  ExpectValues({{kInterfaceClassKey, nullptr, "IThing ProxyStub Factory"},
                {kInterfaceKey + "\\ProxyStubClsid32", nullptr, GuidText(kInterface)}});

  // No name: an empty class description, and no default value on the interface.
  ASSERT_TRUE(RegisterProxyStub(kInterface, GUID_NULL, nullptr, kServerPath, QVREGSVRF_UNREGISTER));
  ASSERT_TRUE(RegisterProxyStub(kInterface, GUID_NULL, nullptr, kServerPath, 0));
  ExpectValues({{kInterfaceClassKey, nullptr, ""}});
  EXPECT_THAT(xktest::ValueNames(kRoot, kInterfaceKey), IsEmpty());
  EXPECT_TRUE(KeyExists(kRoot, kInterfaceKey + "\\ProxyStubClsid32"));
}

TEST(Registration, RefusedRecordsWriteNothing) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey, kInterfaceKey, kInterfaceClassKey, "QuorvelTest.Wide"});
  xktest::DebugOutputCapture capture;
  QVREGSVR record = Record(QVREGSVRF_UNICODE | QVREGSVRF_INPROCSERVER32);
  record.inprocServer32 = kServerPath;
  EXPECT_FALSE(RegisterServer(&record));
  EXPECT_FALSE(RegisterInprocServer(kClass, "Wide", kServerPath, "QuorvelTest.Wide", 1, QVREGSVRF_UNICODE));
  EXPECT_FALSE(RegisterProxyStub(kInterface, GUID_NULL, "IWide", kServerPath, QVREGSVRF_UNICODE));
  EXPECT_FALSE(RegisterServer(nullptr));
  for (const std::string& key : {kClassKey, kInterfaceKey, kInterfaceClassKey, std::string("QuorvelTest.Wide")})
    EXPECT_FALSE(KeyExists(kRoot, key)) << key;
  EXPECT_THAT(capture.Lines(),
              ElementsAre("RegisterServer error: QVREGSVRF_UNICODE flag not currently supported!\n",
                          "RegisterInprocServer error: QVREGSVRF_UNICODE flag not currently supported!\n",
                          "RegisterProxyStub error: QVREGSVRF_UNICODE flag not currently supported!\n",
                          "MORegSvr(64): assertion failed: pcreg\n"));
}

TEST(Registration, ARecordWithoutItsClassFlagIsReportedAndStillProcessed) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey});
  xktest::DebugOutputCapture capture;
  QVREGSVR record = Record(0);
  record.flags = 0;
  record.name = "No Class Flag";
  EXPECT_TRUE(RegisterServer(&record));
  ExpectValues({{kClassKey, nullptr, "No Class Flag"}});
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(xktest::AssertionReport{"MORegSvr", 65, "pcreg->flags & QVREGSVRF_CLSID"}));
  record.flags = QVREGSVRF_UNREGISTER | QVREGSVRF_CLSID;
  EXPECT_TRUE(RegisterServer(&record));
  EXPECT_TRUE(RegisterServer(&record)) << "removing what is not there is no failure";
  EXPECT_FALSE(KeyExists(kRoot, kClassKey));
}
