// Table-driven registration as a client uses it, against the real registry of the prefix:
// what each flag writes, what is removed, and that a refused or failed record leaves nothing.
#include <gmock/gmock.h>
#include <xkcombsd/Registration.h>

#include <string>

#include "DebugOutput.h"
#include "RegistryProbe.h"

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;
using xktest::ExpectRegistry;
using xktest::GuidText;
using xktest::KeyTreeCleanup;
using xktest::SubKeys;

namespace {

const HKEY kRoot = HKEY_CLASSES_ROOT;

// Identifiers of this suite only, so that nothing of the library's own is touched.
constexpr GUID TestGuid(unsigned short n) { return {0x5A5E7E57, 0x7E57, n, {0x8C, 0x11, 0, 0xC0}}; }
const GUID kClass = TestGuid(1), kOther = TestGuid(2), kInterface = TestGuid(3);
const std::string kClassKey = "CLSID\\" + GuidText(kClass),
                  kOtherKey = "CLSID\\" + GuidText(kOther),
                  kInterfaceKey = "Interface\\" + GuidText(kInterface),
                  kInterfaceClassKey = "CLSID\\" + GuidText(kInterface);
constexpr char kServerPath[] = "C:\\Quorvel\\XKComBsD.dll";

QVREGSVR Record(DWORD flags) {
  QVREGSVR record = {};
  record.flags = QVREGSVRF_CLSID | flags;
  record.clsid = kClass;
  return record;
}
std::string Below(const std::string& sub) { return kClassKey + "\\" + sub; }
void Expect(const std::vector<xktest::RegistryEntry>& entries) { ExpectRegistry(kRoot, entries); }

}  // namespace

TEST(RegisterInprocServer, CutsTheNameAndKeepsOnlyTheThreadingAndUnregisterBitsOfTheFlags) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey});
  const std::string longName = "An in-process class whose name goes on past 38 characters";
  ASSERT_TRUE(RegisterInprocServer(kClass, longName.c_str(), kServerPath, nullptr, 0,
                                   QVREGSVRF_APARTMENT | QVREGSVRF_APPID | QVREGSVRF_CONTROL));
  EXPECT_THAT(SubKeys(kRoot, kClassKey), ElementsAre("InprocServer32"));
  EXPECT_THAT(xktest::ValueNames(kRoot, kClassKey), ElementsAre(""));
  Expect({{kClassKey, nullptr, longName.substr(0, 38)},
          {Below("InprocServer32"), "ThreadingModel", "Apartment"}});
}

TEST(RegisterServer, WritesTheThreadingModelFromTheThreadingBits) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey});
  const std::pair<DWORD, const char*> rows[] = {
      {0x0000, ""}, {0x1000, "Apartment"}, {0x2000, "Free"},    {0x3000, "Both"},
      {0x4000, ""}, {0x5000, "Neutral"},   {0x6000, "Neutral"}, {0x7000, "Neutral"}};
  for (const auto& [bits, expected] : rows) {
    SCOPED_TRACE(bits);
    QVREGSVR record = Record(QVREGSVRF_INPROCSERVER32 | bits);
    record.inprocServer32 = kServerPath;
    record.threadingModel = "Neutral";
    ASSERT_TRUE(RegisterServer(&record));
    Expect({{Below("InprocServer32"), "ThreadingModel", expected}});
  }
}

TEST(RegisterServer, EachFlagWritesItsOwnEntryAndAllOfThemTogetherWriteAll) {
  const std::string vi = "QuorvelTest.Everything", versioned = vi + ".7", other = GuidText(kOther);
  KeyTreeCleanup cleanup(kRoot, {kClassKey, vi, versioned});
  const QVREGSVR_INTERFACE interfaces[] = {{kInterface, "IEverything"}, {kOther, "IOther"}};
  QVREGSVR record = Record(0);
  record.name = "Everything Class", record.autoTreatAs = kInterface;
  record.appid = record.autoConvertTo = record.treatAs = kOther;
  record.auxUserTypeShort = "Everything", record.auxUserTypeApp = "Quorvel Everything Application";
  record.defaultIconPath = "C:\\Quorvel\\Everything.ico", record.defaultIconIndex = 3;
  record.inprocHandler32 = "ole32.dll", record.inprocServer32 = kServerPath;
  record.localServer32 = "C:\\Quorvel\\Everything.exe";
  record.interfaces = interfaces, record.cInterfaces = 2;
  record.progID = MAKEINTRESOURCEA(7), record.versionIndependentProgID = vi.c_str();
  record.toolboxBitmapPath = "C:\\Quorvel\\Everything.bmp", record.toolboxBitmapIndex = -2;
  const DWORD kProgIDs = QVREGSVRF_PROGID | QVREGSVRF_VERSION | QVREGSVRF_VIPROGID;
  const DWORD kServer = QVREGSVRF_INPROCSERVER32 | QVREGSVRF_BOTH;
  // The flags an entry needs, and the entry. Wine lets the entries be created
  // under "Interface" opened to set values only.
  const std::pair<DWORD, xktest::RegistryEntry> rows[] = {
      {QVREGSVRF_APPID, {kClassKey, "AppID", other}},
      {QVREGSVRF_AUTOCONVERTTO, {Below("AutoConvertTo"), nullptr, other}},
      {QVREGSVRF_AUTOTREATAS, {Below("AutoTreatAs"), nullptr, GuidText(kInterface)}},
      {QVREGSVRF_AUXUSERTYPE2, {Below("AuxUserType\\2"), nullptr, "Everything"}},
      {QVREGSVRF_AUXUSERTYPE3, {Below("AuxUserType\\3"), nullptr, record.auxUserTypeApp}},
      {QVREGSVRF_CONTROL, {Below("Control"), nullptr, xktest::kNoValues}},
      {QVREGSVRF_DEFAULTICON, {Below("DefaultIcon"), nullptr, "C:\\Quorvel\\Everything.ico,3"}},
      {QVREGSVRF_INPROCHANDLER32, {Below("InprocHandler32"), nullptr, "ole32.dll"}},
      {kServer, {Below("InprocServer32"), nullptr, kServerPath}},
      {kServer, {Below("InprocServer32"), "ThreadingModel", "Both"}},
      {QVREGSVRF_INSERTABLE, {Below("Insertable"), nullptr, xktest::kNoValues}},
      {QVREGSVRF_LOCALSERVER32, {Below("LocalServer32"), nullptr, record.localServer32}},
      {QVREGSVRF_INTERFACE, {Below("Interface\\" + GuidText(kInterface)), nullptr, "IEverything"}},
      {QVREGSVRF_INTERFACE, {Below("Interface\\" + other), nullptr, "IOther"}},
      {QVREGSVRF_AUTOMATION, {Below("Programmable"), nullptr, xktest::kNoValues}},
      {kProgIDs, {Below("ProgID"), nullptr, versioned}},
      {kProgIDs, {versioned + "\\CurVer", nullptr, versioned}},
      {QVREGSVRF_VIPROGID, {Below("VersionIndependentProgID"), nullptr, vi}},
      {QVREGSVRF_VIPROGID, {vi + "\\CLSID", nullptr, GuidText(kClass)}},
      {QVREGSVRF_TOOLBOXBITMAP32,
       {Below("ToolboxBitmap32"), nullptr, "C:\\Quorvel\\Everything.bmp,-2"}},
      {QVREGSVRF_TREATAS, {Below("TreatAs"), nullptr, other}},
      {QVREGSVRF_VERSIONKEY | QVREGSVRF_VERSION, {Below("Version"), nullptr, "7"}},
  };
  // Registers with these flags: every row whose flags are all among them is
  // written, no other; then unregisters, which leaves none of the keys.
  const auto expectWritten = [&](DWORD flags) {
    record.flags = QVREGSVRF_CLSID | flags;
    ASSERT_TRUE(RegisterServer(&record));
    std::vector<xktest::RegistryEntry> expected = {{kClassKey, nullptr, "Everything Class"}};
    for (const auto& [needs, entry] : rows)
      expected.push_back(
          (needs & flags) == needs ? entry : xktest::RegistryEntry{entry.key, entry.name, {}});
    Expect(expected);
    record.flags |= QVREGSVRF_UNREGISTER;
    EXPECT_TRUE(RegisterServer(&record));
    Expect({{kClassKey, nullptr, {}}, {vi, nullptr, {}}, {versioned, nullptr, {}}});
  };
  for (const auto& row : rows) expectWritten(row.first);
  const DWORD all = 0x03FFFFFC & ~(QVREGSVRF_RESOURCES | QVREGSVRF_THREADINGSTRING);
  record.flags = QVREGSVRF_CLSID | all;
  ASSERT_TRUE(RegisterServer(&record));
  EXPECT_THAT(
      SubKeys(kRoot, kClassKey),
      UnorderedElementsAre("AutoConvertTo", "AutoTreatAs", "AuxUserType", "Control", "DefaultIcon",
                           "InprocHandler32", "InprocServer32", "Insertable", "LocalServer32",
                           "Interface", "Programmable", "ProgID", "VersionIndependentProgID",
                           "ToolboxBitmap32", "TreatAs", "Version"));
  expectWritten(all);
}

TEST(RegisterServer, ARecordThatDoesNotResolveOrCannotBeWrittenLeavesNothing) {
  const std::string fits(36, 'F'), tooLong(37, 'L');  // with ".1": 38 and 39
  const std::string impossible(300, 'X');             // longer than a key name may be
  KeyTreeCleanup cleanup(
      kRoot, {kClassKey, fits, fits + ".1", tooLong, tooLong + ".1", "QuorvelTest.RollBack"});
  QVREGSVR record = Record(QVREGSVRF_PROGID | QVREGSVRF_VERSION | QVREGSVRF_VIPROGID);
  record.name = "Versioned";
  record.progID = MAKEINTRESOURCEA(1);
  record.versionIndependentProgID = tooLong.c_str();
  EXPECT_FALSE(RegisterServer(&record)) << "a composed ProgID must fit 38 characters";
  Expect({{kClassKey, nullptr, {}}, {tooLong, nullptr, {}}});
  record.versionIndependentProgID = fits.c_str();
  EXPECT_TRUE(RegisterServer(&record));
  Expect(
      {{Below("ProgID"), nullptr, fits + ".1"}, {fits + ".1\\CLSID", nullptr, GuidText(kClass)}});
  EXPECT_TRUE(xktest::KeyExists(kRoot, kClassKey));

  // A ProgID key that cannot be made rolls back everything written.
  record.flags = QVREGSVRF_CLSID | QVREGSVRF_INPROCSERVER32 | QVREGSVRF_PROGID | QVREGSVRF_VIPROGID;
  record.inprocServer32 = kServerPath;
  record.progID = "QuorvelTest.RollBack";
  record.versionIndependentProgID = impossible.c_str();
  RegDeleteTreeA(kRoot, kClassKey.c_str());
  EXPECT_FALSE(RegisterServer(&record));
  Expect({{kClassKey, nullptr, {}}, {"QuorvelTest.RollBack", nullptr, {}}});

  // A ProgID with no text would name the root itself: it too fails the record.
  record.flags = QVREGSVRF_CLSID | QVREGSVRF_PROGID;
  record.progID = "";
  EXPECT_FALSE(RegisterServer(&record));
  EXPECT_FALSE(xktest::KeyExists(kRoot, kClassKey));
  EXPECT_NE(std::optional<std::string>("Versioned"), xktest::StringValue(kRoot, ""));
}

TEST(RegisterProxyStub, CutsTheFactoryNameAndPointsTheInterfaceAtItsClass) {
  KeyTreeCleanup cleanup(kRoot, {kOtherKey, kInterfaceKey, kInterfaceClassKey});
  const std::string name70 =
      "IAnInterfaceWithAVeryLongNameThatGoesOnAndOnForSeventyCharactersInAll.";
  ASSERT_TRUE(RegisterProxyStub(kInterface, kOther, name70.c_str(), kServerPath, 0));
  Expect({{kOtherKey, nullptr, name70.substr(0, 56) + " ProxyStub Factory"},
          {kOtherKey + "\\InprocServer32", nullptr, kServerPath},
          {kOtherKey + "\\InprocServer32", "ThreadingModel", "Both"},
          {kInterfaceKey, nullptr, name70},
          {kInterfaceKey + "\\ProxyStubClsid32", nullptr, GuidText(kOther)},
          {kInterfaceClassKey, nullptr, {}}});
  EXPECT_TRUE(
      RegisterProxyStub(kInterface, kOther, name70.c_str(), kServerPath, QVREGSVRF_UNREGISTER));
  Expect({{kOtherKey, nullptr, {}}, {kInterfaceKey, nullptr, {}}});
}

TEST(Registration, RefusedRecordsWriteNothingAndOneWithoutItsClassFlagIsReportedButProcessed) {
  KeyTreeCleanup cleanup(kRoot, {kClassKey, kInterfaceKey, kInterfaceClassKey, "QuorvelTest.Wide"});
  xktest::DebugOutputCapture capture;
  QVREGSVR record = Record(QVREGSVRF_UNICODE | QVREGSVRF_INPROCSERVER32);
  record.inprocServer32 = kServerPath;
  EXPECT_FALSE(RegisterServer(&record));
  EXPECT_FALSE(
      RegisterInprocServer(kClass, "Wide", kServerPath, "QuorvelTest.Wide", 1, QVREGSVRF_UNICODE));
  EXPECT_FALSE(RegisterProxyStub(kInterface, GUID_NULL, "IWide", kServerPath, QVREGSVRF_UNICODE));
  EXPECT_FALSE(RegisterServer(nullptr));
  Expect({{kClassKey, nullptr, {}},
          {kInterfaceKey, nullptr, {}},
          {kInterfaceClassKey, nullptr, {}},
          {"QuorvelTest.Wide", nullptr, {}}});

  record = Record(0);
  record.flags = 0;
  record.name = "No Class Flag";
  EXPECT_TRUE(RegisterServer(&record));
  Expect({{kClassKey, nullptr, "No Class Flag"}});
  EXPECT_THAT(
      capture.Lines(),
      ElementsAre("RegisterServer error: QVREGSVRF_UNICODE flag not currently supported!\n",
                  "RegisterInprocServer error: QVREGSVRF_UNICODE flag not currently supported!\n",
                  "RegisterProxyStub error: QVREGSVRF_UNICODE flag not currently supported!\n",
                  "MORegSvr(64): assertion failed: pcreg\n",
                  "MORegSvr(65): assertion failed: pcreg->flags & QVREGSVRF_CLSID\n"));
  record.flags = QVREGSVRF_UNREGISTER | QVREGSVRF_CLSID;
  EXPECT_TRUE(RegisterServer(&record));
  EXPECT_TRUE(RegisterServer(&record)) << "removing what is not there is no failure";
  Expect({{kClassKey, nullptr, {}}});
}
