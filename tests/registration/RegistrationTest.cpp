// Table-driven registration as a client uses it, against the real registry of
// the prefix: what each record writes under HKEY_CLASSES_ROOT, what it
// removes, and what a refused or failed record leaves behind (nothing).
#include <gmock/gmock.h>
#include <xkcombsd/Registration.h>

#include <string>

#include "DebugOutput.h"
#include "HResult.h"
#include "RegistryProbe.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::UnorderedElementsAre;
using xktest::DebugOutputCapture;
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
const GUID kClass = TestGuid(1);
const GUID kOther = TestGuid(2);
const GUID kInterface = TestGuid(3);
const std::string kClassKey = "CLSID\\" + GuidText(kClass);
const std::string kOtherKey = "CLSID\\" + GuidText(kOther);
const std::string kInterfaceKey = "Interface\\" + GuidText(kInterface);
const std::string kInterfaceClassKey = "CLSID\\" + GuidText(kInterface);

constexpr char kServerPath[] = "C:\\Quorvel\\XKComBsD.dll";

QVREGSVR Record(DWORD flags) {
  QVREGSVR record = {};
  record.flags = QVREGSVRF_CLSID | flags;
  record.clsid = kClass;
  return record;
}

HMODULE Library() { return GetModuleHandleW(L"XKComBsD.dll"); }

}  // namespace

TEST(RegisterInprocServer, WritesTheVersionedAndTheIndependentProgIDWithCurVerOnTheVersioned) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey, "QuorvelSoftware.EnumGUID", "QuorvelSoftware.EnumGUID.1"});
  ASSERT_TRUE(RegisterInprocServer(kClass, "EnumGUID Class", kServerPath, "QuorvelSoftware.EnumGUID",
                                   1, QVREGSVRF_BOTH));

  EXPECT_THAT(StringValue(kRoot, kClassKey), Optional(std::string("EnumGUID Class")));
  EXPECT_THAT(SubKeys(kRoot, kClassKey),
              UnorderedElementsAre("InprocServer32", "ProgID", "VersionIndependentProgID"));
  EXPECT_THAT(StringValue(kRoot, kClassKey + "\\InprocServer32"), Optional(std::string(kServerPath)));
  EXPECT_THAT(StringValue(kRoot, kClassKey + "\\InprocServer32", "ThreadingModel"),
              Optional(std::string("Both")));
  EXPECT_THAT(StringValue(kRoot, kClassKey + "\\ProgID"),
              Optional(std::string("QuorvelSoftware.EnumGUID.1")));
  EXPECT_THAT(StringValue(kRoot, kClassKey + "\\VersionIndependentProgID"),
              Optional(std::string("QuorvelSoftware.EnumGUID")));

  EXPECT_THAT(StringValue(kRoot, "QuorvelSoftware.EnumGUID.1"), Optional(std::string("EnumGUID Class")));
  EXPECT_THAT(SubKeys(kRoot, "QuorvelSoftware.EnumGUID.1"), UnorderedElementsAre("CLSID", "CurVer"));
  EXPECT_THAT(StringValue(kRoot, "QuorvelSoftware.EnumGUID.1\\CLSID"), Optional(GuidText(kClass)));
  EXPECT_THAT(StringValue(kRoot, "QuorvelSoftware.EnumGUID.1\\CurVer"),
              Optional(std::string("QuorvelSoftware.EnumGUID.1")));
  EXPECT_THAT(StringValue(kRoot, "QuorvelSoftware.EnumGUID"), Optional(std::string("EnumGUID Class")));
  EXPECT_THAT(SubKeys(kRoot, "QuorvelSoftware.EnumGUID"), ElementsAre("CLSID"));
  EXPECT_THAT(StringValue(kRoot, "QuorvelSoftware.EnumGUID\\CLSID"), Optional(GuidText(kClass)));

  EXPECT_TRUE(RegisterInprocServer(kClass, "EnumGUID Class", kServerPath, "QuorvelSoftware.EnumGUID",
                                   1, QVREGSVRF_UNREGISTER | QVREGSVRF_BOTH));
  EXPECT_FALSE(KeyExists(kRoot, kClassKey));
  EXPECT_FALSE(KeyExists(kRoot, "QuorvelSoftware.EnumGUID"));
  EXPECT_FALSE(KeyExists(kRoot, "QuorvelSoftware.EnumGUID.1"));
}

TEST(RegisterInprocServer, CutsTheNameAndKeepsOnlyTheThreadingAndUnregisterBitsOfTheFlags) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey});
  const std::string longName = "An in-process class whose name goes on past 38 characters";
  // Every other bit of the caller's flags is dropped: no AppID, no Control key.
  ASSERT_TRUE(RegisterInprocServer(kClass, longName.c_str(), kServerPath, nullptr, 0,
                                   QVREGSVRF_APARTMENT | QVREGSVRF_APPID | QVREGSVRF_CONTROL));
  EXPECT_THAT(StringValue(kRoot, kClassKey), Optional(longName.substr(0, 38)));
  EXPECT_THAT(SubKeys(kRoot, kClassKey), ElementsAre("InprocServer32"));
  EXPECT_THAT(xktest::ValueNames(kRoot, kClassKey), ElementsAre(""));
  EXPECT_THAT(StringValue(kRoot, kClassKey + "\\InprocServer32", "ThreadingModel"),
              Optional(std::string("Apartment")));
}

TEST(RegisterServer, WritesTheThreadingModelFromTheThreadingBits) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey});
  const struct {
    DWORD bits;
    const char* expected;
  } cases[] = {{0x0000, ""},        {0x1000, "Apartment"}, {0x2000, "Free"},   {0x3000, "Both"},
               {0x4000, ""},        {0x5000, "Neutral"},   {0x6000, "Neutral"}, {0x7000, "Neutral"}};
  for (const auto& c : cases) {
    QVREGSVR record = Record(QVREGSVRF_INPROCSERVER32 | c.bits);
    record.inprocServer32 = kServerPath;
    record.threadingModel = "Neutral";
    ASSERT_TRUE(RegisterServer(&record)) << std::hex << c.bits;
    EXPECT_THAT(StringValue(kRoot, kClassKey + "\\InprocServer32", "ThreadingModel"),
                Optional(std::string(c.expected)))
        << std::hex << c.bits;
  }
}

TEST(RegisterServer, WritesEveryEntryItsFlagsAskForAndRemovesThemAll) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey, "QuorvelTest.Everything", "QuorvelTest.Everything.7"});
  const QVREGSVR_INTERFACE interfaces[] = {{kInterface, "IEverything"}, {kOther, "IOther"}};
  QVREGSVR record = Record(0x03FFFFFC & ~(QVREGSVRF_RESOURCES | QVREGSVRF_THREADINGSTRING));
  record.name = "Everything Class";
  record.appid = kOther;
  record.autoConvertTo = kOther;
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
  record.versionIndependentProgID = "QuorvelTest.Everything";
  record.toolboxBitmapPath = "C:\\Quorvel\\Everything.bmp";
  record.toolboxBitmapIndex = -2;
  record.treatAs = kOther;
  ASSERT_TRUE(RegisterServer(&record));

  EXPECT_THAT(StringValue(kRoot, kClassKey), Optional(std::string("Everything Class")));
  EXPECT_THAT(StringValue(kRoot, kClassKey, "AppID"), Optional(GuidText(kOther)));
  EXPECT_THAT(SubKeys(kRoot, kClassKey),
              UnorderedElementsAre("AutoConvertTo", "AutoTreatAs", "AuxUserType", "Control",
                                   "DefaultIcon", "InprocHandler32", "InprocServer32", "Insertable",
                                   "LocalServer32", "Interface", "Programmable", "ProgID",
                                   "VersionIndependentProgID", "ToolboxBitmap32", "TreatAs",
                                   "Version"));
  const auto value = [&](const std::string& sub) { return StringValue(kRoot, kClassKey + "\\" + sub); };
  EXPECT_THAT(value("AutoConvertTo"), Optional(GuidText(kOther)));
  EXPECT_THAT(value("AutoTreatAs"), Optional(GuidText(kInterface)));
  EXPECT_THAT(value("AuxUserType\\2"), Optional(std::string("Everything")));
  EXPECT_THAT(value("AuxUserType\\3"), Optional(std::string("Quorvel Everything Application")));
  EXPECT_THAT(xktest::ValueNames(kRoot, kClassKey + "\\Control"), IsEmpty());
  EXPECT_THAT(value("DefaultIcon"), Optional(std::string("C:\\Quorvel\\Everything.ico,3")));
  EXPECT_THAT(value("InprocHandler32"), Optional(std::string("ole32.dll")));
  EXPECT_THAT(value("InprocServer32"), Optional(std::string(kServerPath)));
  EXPECT_THAT(StringValue(kRoot, kClassKey + "\\InprocServer32", "ThreadingModel"),
              Optional(std::string("Both")));
  EXPECT_THAT(xktest::ValueNames(kRoot, kClassKey + "\\Insertable"), IsEmpty());
  EXPECT_THAT(value("LocalServer32"), Optional(std::string("C:\\Quorvel\\Everything.exe")));
  // Wine lets the entries be created under "Interface" opened to set values only.
  EXPECT_THAT(SubKeys(kRoot, kClassKey + "\\Interface"),
              UnorderedElementsAre(GuidText(kInterface), GuidText(kOther)));
  EXPECT_THAT(value("Interface\\" + GuidText(kInterface)), Optional(std::string("IEverything")));
  EXPECT_THAT(value("Interface\\" + GuidText(kOther)), Optional(std::string("IOther")));
  EXPECT_THAT(xktest::ValueNames(kRoot, kClassKey + "\\Programmable"), IsEmpty());
  EXPECT_THAT(value("ProgID"), Optional(std::string("QuorvelTest.Everything.7")));
  EXPECT_THAT(value("VersionIndependentProgID"), Optional(std::string("QuorvelTest.Everything")));
  EXPECT_THAT(value("ToolboxBitmap32"), Optional(std::string("C:\\Quorvel\\Everything.bmp,-2")));
  EXPECT_THAT(value("TreatAs"), Optional(GuidText(kOther)));
  EXPECT_THAT(value("Version"), Optional(std::string("7")));
  EXPECT_THAT(SubKeys(kRoot, "QuorvelTest.Everything.7"), UnorderedElementsAre("CLSID", "CurVer"));
  EXPECT_THAT(SubKeys(kRoot, "QuorvelTest.Everything"), ElementsAre("CLSID"));

  record.flags |= QVREGSVRF_UNREGISTER;
  EXPECT_TRUE(RegisterServer(&record));
  EXPECT_FALSE(KeyExists(kRoot, kClassKey));
  EXPECT_FALSE(KeyExists(kRoot, "QuorvelTest.Everything"));
  EXPECT_FALSE(KeyExists(kRoot, "QuorvelTest.Everything.7"));
}

TEST(RegisterServer, LoadsResourceFieldsIntoBuffersOfTheirOwnSize) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey, "QuorvelTest.ResourceClass", "QuorvelTest.ResourceClass.7"});
  QVREGSVR record = Record(QVREGSVRF_RESOURCES | QVREGSVRF_NAME | QVREGSVRF_AUXUSERTYPE2 |
                           QVREGSVRF_AUXUSERTYPE3 | QVREGSVRF_DEFAULTICON |
                           QVREGSVRF_INPROCHANDLER32 | QVREGSVRF_INPROCSERVER32 | 0x6000 |
                           QVREGSVRF_LOCALSERVER32 | QVREGSVRF_PROGID | QVREGSVRF_VIPROGID |
                           QVREGSVRF_TOOLBOXBITMAP32);
  record.hinst = Library();
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

  const auto value = [&](const std::string& sub) { return StringValue(kRoot, kClassKey + "\\" + sub); };
  EXPECT_THAT(StringValue(kRoot, kClassKey),
              Optional(std::string("Resource Test Class Named Longer Than Thirty-Eight").substr(0, 38)));
  EXPECT_THAT(value("AuxUserType\\2"), Optional(std::string("ResTest Short ")));  // 14
  EXPECT_THAT(value("AuxUserType\\3"), Optional(std::string("Resource Test Application")));
  EXPECT_THAT(value("DefaultIcon"), Optional(std::string("C:\\Quorvel\\Icons\\ResTest.ico,1")));
  EXPECT_THAT(value("InprocHandler32"), Optional(std::string("C:\\Quorvel\\ResTestHandler.dll")));
  EXPECT_THAT(value("InprocServer32"), Optional(std::string("C:\\Quorvel\\ResTestServer.dll")));
  EXPECT_THAT(StringValue(kRoot, kClassKey + "\\InprocServer32", "ThreadingModel"),
              Optional(std::string("Neutral")));
  EXPECT_THAT(value("LocalServer32"), Optional(std::string("C:\\Quorvel\\ResTest.exe /automation")));
  EXPECT_THAT(value("ProgID"), Optional(std::string("QuorvelTest.ResourceClass.7")));
  EXPECT_THAT(value("VersionIndependentProgID"), Optional(std::string("QuorvelTest.ResourceClass")));
  EXPECT_THAT(value("ToolboxBitmap32"), Optional(std::string(",4")));
  EXPECT_THAT(StringValue(kRoot, "QuorvelTest.ResourceClass.7\\CurVer"),
              Optional(std::string("QuorvelTest.ResourceClass.7")));

  // With QVREGSVRF_VERSION the ProgID is composed from the loaded independent one.
  record.flags = QVREGSVRF_CLSID | QVREGSVRF_RESOURCES | QVREGSVRF_PROGID | QVREGSVRF_VERSION |
                 QVREGSVRF_VIPROGID | QVREGSVRF_NAME;
  record.name = MAKEINTRESOURCEA(200);
  record.progID = MAKEINTRESOURCEA(7);
  ASSERT_TRUE(RegisterServer(&record));
  EXPECT_THAT(StringValue(kRoot, kClassKey), Optional(std::string("Resource Test Class")));
  EXPECT_THAT(value("ProgID"), Optional(std::string("QuorvelTest.ResourceClass.7")));

  // Without QVREGSVRF_RESOURCES an identifier is no text: nothing is read through it.
  record.flags = QVREGSVRF_CLSID | QVREGSVRF_NAME | QVREGSVRF_DEFAULTICON;
  RegDeleteTreeA(kRoot, kClassKey.c_str());
  ASSERT_TRUE(RegisterServer(&record));
  EXPECT_THAT(xktest::ValueNames(kRoot, kClassKey), IsEmpty());
  EXPECT_THAT(value("DefaultIcon"), Optional(std::string(",1")));
}

TEST(RegisterServer, AComposedProgIDMustFitThirtyEightCharacters) {
  const std::string fits(36, 'F');  // and ".1": 38
  const std::string tooLong(37, 'L');
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
  EXPECT_THAT(StringValue(kRoot, kClassKey + "\\ProgID"), Optional(fits + ".1"));
  EXPECT_TRUE(KeyExists(kRoot, fits + ".1"));
}

TEST(RegisterServer, AProgIDKeyThatCannotBeMadeRollsBackEverythingWritten) {
  // A key name longer than the registry allows cannot be created.
  const std::string impossible(300, 'X');
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
  const std::string name70 =
      "IAnInterfaceWithAVeryLongNameThatGoesOnAndOnForSeventyCharactersInAll.";
  ASSERT_EQ(70u, name70.size());
  ASSERT_TRUE(RegisterProxyStub(kInterface, kOther, name70.c_str(), kServerPath, 0));

  EXPECT_THAT(StringValue(kRoot, kOtherKey), Optional(name70.substr(0, 56) + " ProxyStub Factory"));
  EXPECT_THAT(StringValue(kRoot, kOtherKey + "\\InprocServer32"), Optional(std::string(kServerPath)));
  EXPECT_THAT(StringValue(kRoot, kOtherKey + "\\InprocServer32", "ThreadingModel"),
              Optional(std::string("Both")));
  EXPECT_THAT(StringValue(kRoot, kInterfaceKey), Optional(name70));
  EXPECT_THAT(SubKeys(kRoot, kInterfaceKey), ElementsAre("ProxyStubClsid32"));
  EXPECT_THAT(StringValue(kRoot, kInterfaceKey + "\\ProxyStubClsid32"), Optional(GuidText(kOther)));

  EXPECT_TRUE(RegisterProxyStub(kInterface, kOther, name70.c_str(), kServerPath, QVREGSVRF_UNREGISTER));
  EXPECT_FALSE(KeyExists(kRoot, kOtherKey));
  EXPECT_FALSE(KeyExists(kRoot, kInterfaceKey));
}

TEST(RegisterProxyStub, TheNullClassRegistersTheInterfaceAsItsOwnProxyStubClass) {
  KeyTreeCleanup cleanup(kRoot, {kInterfaceKey, kInterfaceClassKey});
  ASSERT_TRUE(RegisterProxyStub(kInterface, GUID_NULL, "IThing", kServerPath, 0));
  EXPECT_THAT(StringValue(kRoot, kInterfaceClassKey), Optional(std::string("IThing ProxyStub Factory")));
  EXPECT_THAT(StringValue(kRoot, kInterfaceKey + "\\ProxyStubClsid32"), Optional(GuidText(kInterface)));

  // No name: an empty class description, and no default value on the interface.
  ASSERT_TRUE(RegisterProxyStub(kInterface, GUID_NULL, nullptr, kServerPath, QVREGSVRF_UNREGISTER));
  ASSERT_TRUE(RegisterProxyStub(kInterface, GUID_NULL, nullptr, kServerPath, 0));
  EXPECT_THAT(StringValue(kRoot, kInterfaceClassKey), Optional(std::string()));
  EXPECT_THAT(xktest::ValueNames(kRoot, kInterfaceKey), IsEmpty());
  EXPECT_TRUE(KeyExists(kRoot, kInterfaceKey + "\\ProxyStubClsid32"));
}

TEST(Registration, RefusedRecordsWriteNothing) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey, kInterfaceKey, kInterfaceClassKey, "QuorvelTest.Wide"});
  DebugOutputCapture capture;
  QVREGSVR record = Record(QVREGSVRF_UNICODE | QVREGSVRF_INPROCSERVER32);
  record.inprocServer32 = kServerPath;
  EXPECT_FALSE(RegisterServer(&record));
  EXPECT_FALSE(RegisterInprocServer(kClass, "Wide", kServerPath, "QuorvelTest.Wide", 1,
                                    QVREGSVRF_UNICODE));
  EXPECT_FALSE(RegisterProxyStub(kInterface, GUID_NULL, "IWide", kServerPath, QVREGSVRF_UNICODE));
  EXPECT_FALSE(RegisterServer(nullptr));
  EXPECT_FALSE(KeyExists(kRoot, kClassKey));
  EXPECT_FALSE(KeyExists(kRoot, kInterfaceKey));
  EXPECT_FALSE(KeyExists(kRoot, kInterfaceClassKey));
  EXPECT_FALSE(KeyExists(kRoot, "QuorvelTest.Wide"));
  EXPECT_THAT(capture.Lines(),
              ElementsAre("RegisterServer error: QVREGSVRF_UNICODE flag not currently supported!\n",
                          "RegisterInprocServer error: QVREGSVRF_UNICODE flag not currently supported!\n",
                          "RegisterProxyStub error: QVREGSVRF_UNICODE flag not currently supported!\n",
                          "MORegSvr(64): assertion failed: pcreg\n"));
}

TEST(Registration, ARecordWithoutItsClassFlagIsReportedAndStillProcessed) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey});
  DebugOutputCapture capture;
  QVREGSVR record = Record(0);
  record.flags = 0;
  record.name = "No Class Flag";
  EXPECT_TRUE(RegisterServer(&record));
  EXPECT_THAT(StringValue(kRoot, kClassKey), Optional(std::string("No Class Flag")));
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(xktest::AssertionReport{"MORegSvr", 65, "pcreg->flags & QVREGSVRF_CLSID"}));

  record.flags = QVREGSVRF_UNREGISTER | QVREGSVRF_CLSID;
  EXPECT_TRUE(RegisterServer(&record));
  EXPECT_TRUE(RegisterServer(&record)) << "removing what is not there is no failure";
  EXPECT_FALSE(KeyExists(kRoot, kClassKey));
}
