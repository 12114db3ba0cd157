// The registered classes as any COM client makes them: after regsvr32, by
// ProgID through CoCreateInstance, they behave as the creators' objects do.
#include <string>

#include "DebugOutput.h"
#include "Kinds.h"

namespace {

std::string Regsvr32(const char* options) {
  return std::string("regsvr32.exe ") + options + " \"" + xktest::ExecutableDirectoryA() +
         "\\XKComBsD.dll\"";
}

class RegisteredClassTest : public xktest::CollectionsTest {
 protected:
  static void SetUpTestSuite() { ASSERT_EQ(0u, xktest::RunToEnd(Regsvr32("/s"), 60000)); }
  static void TearDownTestSuite() { EXPECT_EQ(0u, xktest::RunToEnd(Regsvr32("/s /u"), 60000)); }
};

// What a short fetch, a skip to the end, a reset and a full fetch answer and yield.
std::vector<HRESULT> Walk(IEnumGUID* e, std::vector<GUID>* seen) {
  GUID buffer[4] = {};
  ULONG n = 0;
  std::vector<HRESULT> results = {e->Next(1, buffer, &n)};
  seen->assign(buffer, buffer + n);
  results.insert(results.end(), {e->Skip(5), e->Next(1, buffer, &n), e->Reset()});
  results.push_back(e->Next(4, buffer, &n));
  seen->insert(seen->end(), buffer, buffer + n);
  return results;
}

TEST_F(RegisteredClassTest, EnumGUIDByProgIDBehavesAsTheCreatorsObject) {
  const GUID items[] = {IID_IStream, IID_IUnknown, IID_IMarshal};
  CLSID clsid = {};
  ASSERT_HR(S_OK, CLSIDFromProgID(L"QuorvelSoftware.EnumGUID", &clsid));
  EXPECT_EQ(CLSID_QvEnumGUID, clsid);
  ICollGUID* collection = nullptr;
  ASSERT_HR(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_ICollGUID,
                                   reinterpret_cast<void**>(&collection)));
  ASSERT_HR(S_OK, collection->Add(items, 3));
  IEnumGUID* made = nullptr;
  ASSERT_HR(S_OK, collection->_NewEnum(&made));
  EXPECT_EQ(1u, collection->Release());
  EXPECT_EQ(static_cast<IUnknown*>(made), xktest::Identity(made)) << "IUnknown is the enumerator";
  IEnumGUID* created = nullptr;
  ASSERT_HR(S_OK, EnumGUID_Create(items, 3, &created));

  std::vector<GUID> fromClass, fromCreator;
  EXPECT_EQ(Walk(created, &fromCreator), Walk(made, &fromClass));
  EXPECT_EQ(fromCreator, fromClass);
  EXPECT_EQ(4u, fromClass.size());
  EXPECT_HR(S_FALSE, DllCanUnloadNow()) << "both objects keep the library loaded";
  EXPECT_EQ(0u, made->Release());
  EXPECT_EQ(0u, created->Release());
}

TEST_F(RegisteredClassTest, EveryRegisteredCollectionClassIsCreatableByProgIDAlone) {
  for (const wchar_t* progID : {L"QuorvelSoftware.EnumGUID", L"QuorvelSoftware.EnumUnknown",
                                L"QuorvelSoftware.EnumString", L"QuorvelSoftware.EnumGUID.1"}) {
    CLSID clsid = {};
    ASSERT_HR(S_OK, CLSIDFromProgID(progID, &clsid)) << progID;
    IUnknown* object = nullptr;
    ASSERT_HR(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                                     reinterpret_cast<void**>(&object)))
        << progID;
    EXPECT_EQ(0u, object->Release()) << progID;
    xktest::FakeUnknown outer;
    EXPECT_HR(CLASS_E_NOAGGREGATION,
              CoCreateInstance(clsid, &outer, CLSCTX_INPROC_SERVER, IID_IUnknown,
                               reinterpret_cast<void**>(&object)))
        << progID;
  }
}

}  // namespace
