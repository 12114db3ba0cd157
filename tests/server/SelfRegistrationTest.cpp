// The library registering itself: DllRegisterServer and DllUnregisterServer
// called in this process, and regsvr32 run as a child process, against the
// real registry of the prefix.
#include <gmock/gmock.h>
#include <aclapi.h>
#include <olectl.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>

#include <fstream>
#include <sstream>
#include <string>

#include "DebugOutput.h"
#include "HResult.h"
#include "RegistryProbe.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Optional;
using ::testing::UnorderedElementsAre;
using xktest::GuidText;
using xktest::KeyExists;
using xktest::StringValue;
using xktest::SubKeys;

namespace {

const HKEY kRoot = HKEY_CLASSES_ROOT;
constexpr char kKnownLibraries[] = "SYSTEM\\CurrentControlSet\\Control\\Session Manager\\KnownDlls";

struct ClassStep {
  const GUID* id;
  const char* name;
  const char* progID;
  const char* threadingModel;
};
const ClassStep kClasses[] = {
    {&CLSID_QvEnumGUID, "EnumGUID Class", "QuorvelSoftware.EnumGUID", "Both"},
    {&CLSID_QvEnumUnknown, "EnumUnknown Class", "QuorvelSoftware.EnumUnknown", "Both"},
    {&CLSID_QvEnumString, "EnumString Class", "QuorvelSoftware.EnumString", "Both"},
    {&CLSID_QvPropertyBag, "PropertyBag Class", "QuorvelSoftware.PropertyBag", "Both"},
    {&CLSID_QvPropertyBag_ST, "PropertyBag Class (single threaded)",
     "QuorvelSoftware.PropertyBag_ST", "Apartment"},
    {&CLSID_QvFreeThreadedUnmarshaler, "FTP", nullptr, "Both"},
    {&CLSID_QvFreeThreadedMarshaler, "FTM", nullptr, "Both"},
};

struct InterfaceStep {
  const GUID* id;
  const char* name;
};
const InterfaceStep kInterfaces[] = {
    {&IID_IQvEnumGUID, "IEnumGUID"},       {&IID_ICollGUID, "ICollGUID"},
    {&IID_ISeqGUID, "ISeqGUID"},           {&IID_ICollUnknown, "ICollUnknown"},
    {&IID_ISeqUnknown, "ISeqUnknown"},     {&IID_ICollString, "ICollString"},
    {&IID_ISeqString, "ISeqString"},       {&IID_IPropertyBagEdit, "IPropertyBagEdit"},
    {&IID_QvInterface0002, nullptr},
};

std::string LibraryPath() { return xktest::ExecutableDirectoryA() + "\\XKComBsD.dll"; }

void ExpectInprocServer(const std::string& classKey, const std::string& path, const char* model) {
  EXPECT_THAT(StringValue(kRoot, classKey + "\\InprocServer32"), Optional(path)) << classKey;
  EXPECT_THAT(StringValue(kRoot, classKey + "\\InprocServer32", "ThreadingModel"),
              Optional(std::string(model)))
      << classKey;
}

// Every key and value of the library's registration, with its exact text.
void ExpectRegistered(const std::string& path) {
  for (const ClassStep& step : kClasses) {
    SCOPED_TRACE(step.name);
    const std::string classKey = "CLSID\\" + GuidText(*step.id);
    EXPECT_THAT(StringValue(kRoot, classKey), Optional(std::string(step.name)));
    ExpectInprocServer(classKey, path, step.threadingModel);
    if (!step.progID) {
      EXPECT_THAT(SubKeys(kRoot, classKey), ElementsAre("InprocServer32"));
      continue;
    }
    const std::string independent = step.progID;
    const std::string versioned = independent + ".1";
    EXPECT_THAT(SubKeys(kRoot, classKey),
                UnorderedElementsAre("InprocServer32", "ProgID", "VersionIndependentProgID"));
    EXPECT_THAT(StringValue(kRoot, classKey + "\\ProgID"), Optional(versioned));
    EXPECT_THAT(StringValue(kRoot, classKey + "\\VersionIndependentProgID"), Optional(independent));
    EXPECT_THAT(StringValue(kRoot, versioned), Optional(std::string(step.name)));
    EXPECT_THAT(StringValue(kRoot, versioned + "\\CLSID"), Optional(GuidText(*step.id)));
    EXPECT_THAT(StringValue(kRoot, versioned + "\\CurVer"), Optional(versioned));
    EXPECT_THAT(StringValue(kRoot, independent), Optional(std::string(step.name)));
    EXPECT_THAT(SubKeys(kRoot, independent), ElementsAre("CLSID"));
    EXPECT_THAT(StringValue(kRoot, independent + "\\CLSID"), Optional(GuidText(*step.id)));
  }
  for (const InterfaceStep& step : kInterfaces) {
    const std::string text = GuidText(*step.id);
    SCOPED_TRACE(text);
    const std::string factoryName = step.name ? std::string(step.name) + " ProxyStub Factory" : "";
    EXPECT_THAT(StringValue(kRoot, "CLSID\\" + text), Optional(factoryName));
    ExpectInprocServer("CLSID\\" + text, path, "Both");
    if (step.name)
      EXPECT_THAT(StringValue(kRoot, "Interface\\" + text), Optional(std::string(step.name)));
    else
      EXPECT_THAT(xktest::ValueNames(kRoot, "Interface\\" + text), IsEmpty());
    EXPECT_THAT(StringValue(kRoot, "Interface\\" + text + "\\ProxyStubClsid32"), Optional(text));
  }
}

void ExpectUnregistered() {
  for (const ClassStep& step : kClasses) {
    EXPECT_FALSE(KeyExists(kRoot, "CLSID\\" + GuidText(*step.id))) << step.name;
    if (step.progID) {
      EXPECT_FALSE(KeyExists(kRoot, step.progID)) << step.progID;
      EXPECT_FALSE(KeyExists(kRoot, std::string(step.progID) + ".1")) << step.progID;
    }
  }
  for (const InterfaceStep& step : kInterfaces) {
    EXPECT_FALSE(KeyExists(kRoot, "CLSID\\" + GuidText(*step.id)));
    EXPECT_FALSE(KeyExists(kRoot, "Interface\\" + GuidText(*step.id)));
  }
}

// Runs a program of the prefix to its end; its exit code.
DWORD RunToEnd(const std::string& commandLine) { return xktest::RunToEnd(commandLine, 120000); }

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

// HKEY_CLASSES_ROOT exported whole by the prefix's own registry tool.
std::string ExportClassesRoot(const std::string& file) {
  DeleteFileA(file.c_str());
  EXPECT_EQ(0u, RunToEnd("reg.exe export HKEY_CLASSES_ROOT \"" + file + "\" /y"));
  const std::string text = ReadFile(file);
  DeleteFileA(file.c_str());
  return text;
}

// A key made for one test whose access is then denied to everyone; its owner
// may still give the access back, and does so before removing it.
class DeniedKey {
 public:
  explicit DeniedKey(const std::string& path) : m_path(path) {
    RegCreateKeyExA(kRoot, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &m_key, nullptr);
    SetDacl(&m_denyAll);
  }
  ~DeniedKey() {
    SetDacl(nullptr);  // no DACL: everyone may again
    RegCloseKey(m_key);
    RegDeleteTreeA(kRoot, m_path.c_str());
  }

 private:
  void SetDacl(ACL* dacl) {
    if (dacl) InitializeAcl(dacl, sizeof(ACL), ACL_REVISION);
    SetSecurityInfo(m_key, SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION, nullptr, nullptr, dacl,
                    nullptr);
  }
  std::string m_path;
  HKEY m_key = nullptr;
  ACL m_denyAll;
};

class SelfRegistration : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_HR(S_OK, DllUnregisterServer()); }
  void TearDown() override {
    EXPECT_HR(S_OK, DllUnregisterServer());
    EXPECT_HR(S_OK, DllCanUnloadNow());
  }
};

}  // namespace

TEST_F(SelfRegistration, WritesEveryStepWithTheLibrarysOwnPathAndRemovesThemAll) {
  ASSERT_HR(S_OK, DllRegisterServer());
  ExpectRegistered(LibraryPath());
  EXPECT_HR(S_OK, DllRegisterServer()) << "registering again rewrites the same entries";
  ExpectRegistered(LibraryPath());

  EXPECT_HR(S_OK, DllUnregisterServer());
  ExpectUnregistered();
  EXPECT_HR(S_OK, DllUnregisterServer()) << "nothing left to remove is no failure";
}

TEST_F(SelfRegistration, RecordsItselfAmongTheKnownLibrariesOnlyWhereTheSystemKeepsThem) {
  ASSERT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kKnownLibraries)) << "Wine keeps no such key";
  ASSERT_HR(S_OK, DllRegisterServer());
  EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kKnownLibraries)) << "and none is made";

  xktest::KeyTreeCleanup cleanup(HKEY_LOCAL_MACHINE, {kKnownLibraries});
  xktest::WriteString(HKEY_LOCAL_MACHINE, kKnownLibraries, "Other", "other.dll");
  ASSERT_HR(S_OK, DllRegisterServer());
  EXPECT_THAT(StringValue(HKEY_LOCAL_MACHINE, kKnownLibraries, "XKComBsc"), Optional(LibraryPath()));
  EXPECT_HR(S_OK, DllUnregisterServer());
  EXPECT_THAT(xktest::ValueNames(HKEY_LOCAL_MACHINE, kKnownLibraries), ElementsAre("Other"));
}

TEST_F(SelfRegistration, AFailedStepStopsTheRegistrationWithSelfRegClassError) {
  {
    // The ProgID key of the first class cannot be opened for writing, so its
    // registration fails and rolls itself back; nothing after it is written.
    DeniedKey denied("QuorvelSoftware.EnumGUID.1");
    EXPECT_HR(SELFREG_E_CLASS, DllRegisterServer());
    EXPECT_FALSE(KeyExists(kRoot, "CLSID\\" + GuidText(CLSID_QvEnumGUID)));
    EXPECT_FALSE(KeyExists(kRoot, "Interface\\" + GuidText(IID_IQvEnumGUID)));
    EXPECT_FALSE(KeyExists(kRoot, "CLSID\\" + GuidText(CLSID_QvFreeThreadedMarshaler)));
  }
  EXPECT_FALSE(KeyExists(kRoot, "QuorvelSoftware.EnumGUID.1"));
}

TEST(Regsvr32, RegisteringAndUnregisteringLeavesTheClassesRootAsItWas) {
  const std::string dir = xktest::ExecutableDirectoryA();
  const std::string library = LibraryPath();
  const std::string before = ExportClassesRoot(dir + "\\hkcr-before.reg");
  ASSERT_GT(before.size(), 1000u);

  ASSERT_EQ(0u, RunToEnd("regsvr32.exe /s \"" + library + "\""));
  ExpectRegistered(library);
  EXPECT_FALSE(KeyExists(HKEY_LOCAL_MACHINE, kKnownLibraries));

  ASSERT_EQ(0u, RunToEnd("regsvr32.exe /s /u \"" + library + "\""));
  ExpectUnregistered();
  const std::string after = ExportClassesRoot(dir + "\\hkcr-after.reg");
  EXPECT_TRUE(before == after) << "HKEY_CLASSES_ROOT differs after regsvr32 and regsvr32 /u ("
                               << before.size() << " and " << after.size() << " bytes)";
}
