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
  IEnumGUID* created = nullptr;
  ASSERT_HR(S_OK, EnumGUID_Create(items, 3, &created));
  GUID fromClass[4] = {}, fromCreator[4] = {};
  ULONG n = 0, m = 0;
  EXPECT_HR(S_FALSE, made->Next(4, fromClass, &n));
  EXPECT_HR(S_FALSE, created->Next(4, fromCreator, &m));
  EXPECT_EQ(3u, n);
  EXPECT_EQ(std::vector<GUID>(fromCreator, fromCreator + m),
            std::vector<GUID>(fromClass, fromClass + n));
  EXPECT_EQ(0u, made->Release());
  EXPECT_EQ(0u, created->Release());
}

}  // namespace
