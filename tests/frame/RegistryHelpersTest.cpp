// The library's registry helpers, from its own objects, against a private key
// of this suite under HKEY_CURRENT_USER.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "RegistryProbe.h"
#include "frame/RegistryValues.h"

using ::testing::ElementsAre;
using ::testing::Optional;

namespace {

constexpr char kBase[] = "Software\\XKComBsD Tests\\Registry";

class RegistryHelpers : public ::testing::Test {
 protected:
  RegistryHelpers() : m_cleanup(HKEY_CURRENT_USER, {"Software\\XKComBsD Tests"}) {}
  static std::string Path(const std::string& below) { return std::string(kBase) + "\\" + below; }

  xktest::KeyTreeCleanup m_cleanup;
};

// The narrow registry functions with every key deletion recorded.
struct RecordingApi : xk::registry::Narrow {
  static LONG WINAPI DeleteKey(HKEY key, LPCSTR subKey) {
    deleted.push_back(subKey);
    return LB_RegDeleteKeyA(key, subKey);
  }
  static inline std::vector<std::string> deleted;
};

}  // namespace

TEST_F(RegistryHelpers, DeletingATreeRemovesTheInnermostKeysFirstAndTheNamedKeyLast) {
  for (const char* key : {"Tree\\Middle\\Inner", "Tree\\Middle\\Inner2", "Tree\\Side"})
    xktest::WriteString(HKEY_CURRENT_USER, Path(key), nullptr, key);
  RecordingApi::deleted.clear();
  EXPECT_EQ(ERROR_SUCCESS, xk::registry::DeleteKeyTree<RecordingApi>(HKEY_CURRENT_USER,
                                                                     Path("Tree").c_str()));
  EXPECT_THAT(RecordingApi::deleted,
              ElementsAre("Inner", "Inner2", "Middle", "Side", Path("Tree")));
  EXPECT_FALSE(xktest::KeyExists(HKEY_CURRENT_USER, Path("Tree")));
  EXPECT_TRUE(xktest::KeyExists(HKEY_CURRENT_USER, kBase));
}

TEST_F(RegistryHelpers, DeletingATreeNeverEmptiesARootAndPassesOnAMissingKey) {
  xktest::WriteString(HKEY_CURRENT_USER, Path("Kept"), nullptr, "kept");
  HKEY base;
  ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExA(HKEY_CURRENT_USER, kBase, 0, KEY_ALL_ACCESS, &base));
  EXPECT_EQ(ERROR_INVALID_PARAMETER, xk::Reg_DeleteKeyTreeA(base, ""));
  EXPECT_EQ(ERROR_INVALID_PARAMETER, xk::Reg_DeleteKeyTreeW(base, nullptr));
  RegCloseKey(base);
  EXPECT_TRUE(xktest::KeyExists(HKEY_CURRENT_USER, Path("Kept")));
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, xk::Reg_DeleteKeyTreeA(HKEY_CURRENT_USER, Path("Missing").c_str()));

  const std::wstring wide(L"Software\\XKComBsD Tests\\Registry\\Kept");
  EXPECT_EQ(ERROR_SUCCESS, xk::Reg_DeleteKeyTreeW(HKEY_CURRENT_USER, wide.c_str()));
  EXPECT_FALSE(xktest::KeyExists(HKEY_CURRENT_USER, Path("Kept")));
}

TEST_F(RegistryHelpers, SettingCreatesTheKeyHandsItOutOnlyWhenAskedAndDeletesWithoutData) {
  HKEY key = reinterpret_cast<HKEY>(0xDEADBEEF);
  DWORD disposition = 0xDEADBEEF;
  EXPECT_EQ(ERROR_SUCCESS, xk::Reg_SetStringValueA(nullptr, Path("Set").c_str(), "Name", "text",
                                                   KEY_ALL_ACCESS, nullptr, &key, &disposition))
      << "a NULL root means HKEY_CURRENT_USER";
  EXPECT_EQ(static_cast<DWORD>(REG_CREATED_NEW_KEY), disposition);
  ASSERT_NE(nullptr, key);
  EXPECT_EQ(ERROR_SUCCESS, xk::Reg_SetStringValueW(key, nullptr, L"Wide", L"wide text", KEY_SET_VALUE,
                                                   nullptr, nullptr, nullptr))
      << "no sub-key: the root itself";
  RegCloseKey(key);
  EXPECT_THAT(xktest::StringValue(HKEY_CURRENT_USER, Path("Set"), "Name"), Optional(std::string("text")));
  EXPECT_THAT(xktest::StringValue(HKEY_CURRENT_USER, Path("Set"), "Wide"),
              Optional(std::string("wide text")));

  EXPECT_EQ(ERROR_SUCCESS, xk::Reg_SetStringValueA(HKEY_CURRENT_USER, Path("Set").c_str(), "Name",
                                                   nullptr, KEY_SET_VALUE, nullptr, nullptr,
                                                   &disposition));
  EXPECT_EQ(static_cast<DWORD>(REG_OPENED_EXISTING_KEY), disposition);
  EXPECT_FALSE(xktest::StringValue(HKEY_CURRENT_USER, Path("Set"), "Name").has_value());

  key = reinterpret_cast<HKEY>(0xDEADBEEF);
  EXPECT_EQ(ERROR_INVALID_HANDLE, xk::Reg_SetStringValueA(nullptr, nullptr, "Name", "text",
                                                          KEY_SET_VALUE, nullptr, nullptr, nullptr));
  EXPECT_EQ(ERROR_INVALID_HANDLE, xk::Reg_SetStringValueA(HKEY_CURRENT_USER, nullptr, "Name", "text",
                                                          KEY_SET_VALUE, nullptr, &key, nullptr));
  EXPECT_EQ(nullptr, key);
}

TEST_F(RegistryHelpers, QueryingHandsOutTheOpenedKeyOnlyAfterASuccessfulRead) {
  xktest::WriteString(HKEY_CURRENT_USER, Path("Query"), "Name", "abc");
  char text[16];
  DWORD cch = sizeof text;
  HKEY key = reinterpret_cast<HKEY>(0xDEADBEEF);
  EXPECT_EQ(ERROR_SUCCESS, xk::Reg_QueryStringValueA(HKEY_CURRENT_USER, Path("Query").c_str(), "Name",
                                                     text, &cch, KEY_QUERY_VALUE, &key));
  EXPECT_EQ(4u, cch);
  EXPECT_STREQ("abc", text);
  ASSERT_NE(nullptr, key);
  EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));

  WCHAR wide[16];
  cch = 2;
  EXPECT_EQ(ERROR_MORE_DATA, xk::Reg_QueryStringValueW(HKEY_CURRENT_USER, L"Software\\XKComBsD Tests\\Registry\\Query",
                                                       L"Name", wide, &cch, KEY_QUERY_VALUE, &key));
  EXPECT_EQ(4u, cch) << "the size needed, in characters";
  EXPECT_EQ(nullptr, key) << "a failed read hands out no key";

  DWORD type = 0;
  DWORD cb = 0;
  EXPECT_EQ(ERROR_SUCCESS, xk::Reg_QueryValueA(nullptr, Path("Query").c_str(), "Name", &type, nullptr,
                                               &cb, KEY_QUERY_VALUE, nullptr));
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), type);
  EXPECT_EQ(4u, cb);
  EXPECT_EQ(ERROR_FILE_NOT_FOUND, xk::Reg_QueryValueA(HKEY_CURRENT_USER, Path("Missing").c_str(),
                                                      nullptr, nullptr, nullptr, &cb, KEY_QUERY_VALUE,
                                                      nullptr));
  EXPECT_EQ(ERROR_INVALID_HANDLE, xk::Reg_QueryValueA(nullptr, nullptr, "Name", nullptr, nullptr, &cb,
                                                      KEY_QUERY_VALUE, nullptr));
  EXPECT_EQ(ERROR_INVALID_HANDLE, xk::Reg_QueryValueW(HKEY_CURRENT_USER, nullptr, L"Name", nullptr,
                                                      nullptr, &cb, KEY_QUERY_VALUE, &key));
}
