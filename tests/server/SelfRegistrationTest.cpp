// The library registering itself: DllRegisterServer and DllUnregisterServer
// called in this process, and regsvr32 run as a child process, against the
// real registry of the prefix.
#include <aclapi.h>
#include <gmock/gmock.h>
#include <olectl.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>

#include <fstream>
#include <sstream>

#include "DebugOutput.h"
#include "HResult.h"
#include "RegistryProbe.h"

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;
using xktest::GuidText;
using xktest::KeyExists;
using xktest::RegistryEntry;
using xktest::SubKeys;

namespace {

const HKEY kRoot = HKEY_CLASSES_ROOT;
constexpr char kKnownLibraries[] = "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\KnownDlls";

// The library's classes and interfaces in their registration order.
const struct {
  const GUID* id;
  const char *name, *progID, *threading;
} kClasses[] = {
    {&CLSID_QvEnumGUID, "EnumGUID Class", "QuorvelSoftware.EnumGUID", "Both"},
    {&CLSID_QvEnumUnknown, "EnumUnknown Class", "QuorvelSoftware.EnumUnknown", "Both"},
    {&CLSID_QvEnumString, "EnumString Class", "QuorvelSoftware.EnumString", "Both"},
    {&CLSID_QvPropertyBag, "PropertyBag Class", "QuorvelSoftware.PropertyBag", "Both"},
    {&CLSID_QvPropertyBag_ST, "PropertyBag Class (single threaded)",
     "QuorvelSoftware.PropertyBag_ST", "Apartment"},
    {&CLSID_QvFreeThreadedUnmarshaler, "FTP", nullptr, "Both"},
    {&CLSID_QvFreeThreadedMarshaler, "FTM", nullptr, "Both"},
};
const struct {
  const GUID* id;
  const char* name;
} kInterfaces[] = {
    {&IID_IQvEnumGUID, "IEnumGUID"},   {&IID_ICollGUID, "ICollGUID"},
    {&IID_ISeqGUID, "ISeqGUID"},       {&IID_ICollUnknown, "ICollUnknown"},
    {&IID_ISeqUnknown, "ISeqUnknown"}, {&IID_ICollString, "ICollString"},
    {&IID_ISeqString, "ISeqString"},   {&IID_IPropertyBagEdit, "IPropertyBagEdit"},
    {&IID_QvInterface0002, nullptr},
};

std::string LibraryPath() { return xktest::ExecutableDirectoryA() + "\\XKComBsD.dll"; }

// Every key and value of the library's registration with its exact text.
void ExpectRegistered() {
  std::vector<RegistryEntry> entries;
  for (const auto& c : kClasses) {
    const std::string id = GuidText(*c.id), key = "CLSID\\" + id, server = key + "\\InprocServer32";
    entries.insert(entries.end(), {{key, nullptr, c.name},
                                   {server, nullptr, LibraryPath()},
                                   {server, "ThreadingModel", c.threading}});
    if (!c.progID) EXPECT_THAT(SubKeys(kRoot, key), ElementsAre("InprocServer32"));
    if (!c.progID) continue;
    const std::string vi = c.progID, versioned = vi + ".1";
    EXPECT_THAT(SubKeys(kRoot, key),
                UnorderedElementsAre("InprocServer32", "ProgID", "VersionIndependentProgID"));
    EXPECT_THAT(SubKeys(kRoot, vi), ElementsAre("CLSID"));
    entries.insert(entries.end(), {{key + "\\ProgID", nullptr, versioned},
                                   {key + "\\VersionIndependentProgID", nullptr, vi},
                                   {versioned, nullptr, c.name},
                                   {versioned + "\\CLSID", nullptr, id},
                                   {versioned + "\\CurVer", nullptr, versioned},
                                   {vi, nullptr, c.name},
                                   {vi + "\\CLSID", nullptr, id}});
  }
  for (const auto& i : kInterfaces) {
    const std::string id = GuidText(*i.id), server = "CLSID\\" + id + "\\InprocServer32";
    const std::string name = i.name ? i.name : "";
    entries.insert(entries.end(),
                   {{"CLSID\\" + id, nullptr, i.name ? name + " ProxyStub Factory" : ""},
                    {server, nullptr, LibraryPath()},
                    {server, "ThreadingModel", "Both"},
                    {"Interface\\" + id, nullptr, i.name ? name : xktest::kNoValues},
                    {"Interface\\" + id + "\\ProxyStubClsid32", nullptr, id}});
  }
  xktest::ExpectRegistry(kRoot, entries);
}

// HKEY_CLASSES_ROOT exported whole by the prefix's own registry tool.
std::string ExportClassesRoot(const std::string& file) {
  DeleteFileA(file.c_str());
  EXPECT_EQ(0u, xktest::RunToEnd("reg.exe export HKEY_CLASSES_ROOT \"" + file + "\" /y", 120000));
  std::ostringstream text;
  text << std::ifstream(file, std::ios::binary).rdbuf();
  DeleteFileA(file.c_str());
  return text.str();
}

class SelfRegistration : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_HR(S_OK, DllUnregisterServer()); }
  void TearDown() override {
    EXPECT_HR(S_OK, DllUnregisterServer());
    EXPECT_HR(S_OK, DllCanUnloadNow());
  }
};

}  // namespace

TEST_F(SelfRegistration, RecordsItselfAmongTheKnownLibrariesOnlyWhereTheSystemKeepsThem) {
  // Wine keeps no such key, and the regsvr32 round trip shows that none is made.
  ASSERT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kKnownLibraries));
  xktest::KeyTreeCleanup cleanup(HKEY_LOCAL_MACHINE, {kKnownLibraries});
  xktest::WriteString(HKEY_LOCAL_MACHINE, kKnownLibraries, "Other", "other.dll");
  ASSERT_HR(S_OK, DllRegisterServer());
  xktest::ExpectRegistry(HKEY_LOCAL_MACHINE, {{kKnownLibraries, "XKComBsc", LibraryPath()}});
  EXPECT_HR(S_OK, DllUnregisterServer());
  EXPECT_THAT(xktest::ValueNames(HKEY_LOCAL_MACHINE, kKnownLibraries), ElementsAre("Other"));
}

TEST_F(SelfRegistration, AFailedStepStopsTheRegistrationWithSelfRegClassError) {
  // The first class's ProgID key denies everyone: that class rolls back, nothing follows.
  HKEY key = nullptr;
  ACL denyAll;
  InitializeAcl(&denyAll, sizeof denyAll, ACL_REVISION);
  RegCreateKeyA(kRoot, "QuorvelSoftware.EnumGUID.1", &key);
  const auto setDacl = [key](ACL* dacl) {
    return SetSecurityInfo(key, SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION, nullptr, nullptr, dacl,
                           nullptr);
  };
  EXPECT_EQ(ERROR_SUCCESS, setDacl(&denyAll));
  EXPECT_HR(SELFREG_E_CLASS, DllRegisterServer());
  xktest::ExpectRegistry(kRoot, {{"CLSID\\" + GuidText(CLSID_QvEnumGUID), nullptr, {}},
                                 {"CLSID\\" + GuidText(CLSID_QvFreeThreadedMarshaler), nullptr, {}},
                                 {"Interface\\" + GuidText(IID_IQvEnumGUID), nullptr, {}}});
  setDacl(nullptr), RegCloseKey(key), RegDeleteTreeA(kRoot, "QuorvelSoftware.EnumGUID.1");
}

TEST(Regsvr32, RegisteringAndUnregisteringLeavesTheClassesRootAsItWas) {
  const std::string dir = xktest::ExecutableDirectoryA(), library = LibraryPath();
  const std::string before = ExportClassesRoot(dir + "\\hkcr-before.reg");
  ASSERT_GT(before.size(), 1000u);
  ASSERT_EQ(0u, xktest::RunToEnd("regsvr32.exe /s \"" + library + "\"", 120000));
  ExpectRegistered();
  EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kKnownLibraries));
  ASSERT_EQ(0u, xktest::RunToEnd("regsvr32.exe /s /u \"" + library + "\"", 120000));
  const std::string after = ExportClassesRoot(dir + "\\hkcr-after.reg");
  EXPECT_TRUE(before == after) << "HKEY_CLASSES_ROOT differs after regsvr32 and regsvr32 /u ("
                               << before.size() << " and " << after.size() << " bytes)";
}
