// The registered classes as any COM client makes them: after regsvr32, by
// ProgID through CoCreateInstance, they behave as the creators' objects do.
#include <string>

#include "DebugOutput.h"
#include "Kinds.h"

using xktest::CollectionsTest;

namespace {

std::string LibraryPath() { return xktest::ExecutableDirectoryA() + "\\XKComBsD.dll"; }

class RegisteredClassTest : public CollectionsTest {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(0u, xktest::RunToEnd("regsvr32.exe /s \"" + LibraryPath() + "\"", 60000));
  }
  static void TearDownTestSuite() {
    EXPECT_EQ(0u, xktest::RunToEnd("regsvr32.exe /s /u \"" + LibraryPath() + "\"", 60000));
  }
};

const GUID kItems[] = {
    {0x11111111, 0x1111, 0x1111, {1, 1, 1, 1, 1, 1, 1, 1}},
    {0x22222222, 0x2222, 0x2222, {2, 2, 2, 2, 2, 2, 2, 2}},
    {0x33333333, 0x3333, 0x3333, {3, 3, 3, 3, 3, 3, 3, 3}},
};

// Walks an enumerator the same way whatever made it: a short fetch, a skip to
// the end, a reset and a full fetch.
std::vector<HRESULT> Walk(IEnumGUID* e, std::vector<GUID>* seen) {
  std::vector<HRESULT> results;
  GUID buffer[4] = {};
  ULONG n = 0;
  results.push_back(e->Next(1, buffer, &n));
  seen->insert(seen->end(), buffer, buffer + n);
  results.push_back(e->Skip(5));
  results.push_back(e->Next(1, buffer, &n));
  results.push_back(e->Reset());
  results.push_back(e->Next(4, buffer, &n));
  seen->insert(seen->end(), buffer, buffer + n);
  return results;
}

}  // namespace

TEST_F(RegisteredClassTest, EnumGUIDByProgIDBehavesAsTheCreatorsObject) {
  CLSID clsid = {};
  ASSERT_HR(S_OK, CLSIDFromProgID(L"QuorvelSoftware.EnumGUID", &clsid));
  EXPECT_TRUE(IsEqualCLSID(CLSID_QvEnumGUID, clsid));

  ICollGUID* collection = nullptr;
  ASSERT_HR(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_ICollGUID,
                                   reinterpret_cast<void**>(&collection)));
  ASSERT_HR(S_OK, collection->Add(kItems, 3));
  IEnumGUID* made = nullptr;
  ASSERT_HR(S_OK, collection->_NewEnum(&made));
  EXPECT_EQ(1u, collection->Release());

  IEnumGUID* created = nullptr;
  ASSERT_HR(S_OK, EnumGUID_Create(kItems, 3, &created));

  std::vector<GUID> fromClass, fromCreator;
  EXPECT_EQ(Walk(created, &fromCreator), Walk(made, &fromClass));
  ASSERT_EQ(fromCreator.size(), fromClass.size());
  for (size_t i = 0; i < fromClass.size(); ++i) EXPECT_TRUE(IsEqualGUID(fromCreator[i], fromClass[i]));

  // The same identity rules: IUnknown is the enumerator face.
  IUnknown* identity = nullptr;
  ASSERT_HR(S_OK, made->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity)));
  EXPECT_EQ(static_cast<IUnknown*>(made), identity);
  identity->Release();

  EXPECT_HR(S_FALSE, DllCanUnloadNow()) << "both objects keep the library loaded";
  EXPECT_EQ(0u, made->Release());
  EXPECT_EQ(0u, created->Release());
}

TEST_F(RegisteredClassTest, EveryRegisteredCollectionClassIsCreatableByProgID) {
  for (const wchar_t* progID : {L"QuorvelSoftware.EnumGUID", L"QuorvelSoftware.EnumUnknown",
                                L"QuorvelSoftware.EnumString", L"QuorvelSoftware.EnumGUID.1"}) {
    CLSID clsid = {};
    ASSERT_HR(S_OK, CLSIDFromProgID(progID, &clsid)) << progID;
    IUnknown* object = nullptr;
    EXPECT_HR(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                                     reinterpret_cast<void**>(&object)))
        << progID;
    if (object) EXPECT_EQ(0u, object->Release()) << progID;
    // Aggregation is refused through the registered class object too.
    xktest::FakeUnknown outer;
    object = reinterpret_cast<IUnknown*>(0xDEADBEEF);
    EXPECT_HR(CLASS_E_NOAGGREGATION, CoCreateInstance(clsid, &outer, CLSCTX_INPROC_SERVER,
                                                      IID_IUnknown, reinterpret_cast<void**>(&object)))
        << progID;
  }
}
