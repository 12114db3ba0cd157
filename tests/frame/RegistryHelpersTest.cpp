// The library's registry helpers, in both character widths from their one body,
// against a private key of this suite under HKEY_CURRENT_USER.
#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "RegistryProbe.h"
#include "frame/RegistryValues.h"

using ::testing::ElementsAre;
using ::testing::Optional;
namespace reg = xk::registry;

namespace {

constexpr char kBase[] = "Software\\XKComBsD Tests\\Registry";
std::string Path(const std::string& below) { return std::string(kBase) + "\\" + below; }
// An ASCII text in the width of the helpers under test.
template <class Api>
std::basic_string<typename Api::Char> Text(const std::string& text) {
  return {text.begin(), text.end()};
}

// The registry functions of one width with every key deletion recorded.
template <class Api>
struct RecordingApi : Api {
  static LONG WINAPI DeleteKey(HKEY key, const typename Api::Char* subKey) {
    const std::basic_string<typename Api::Char> name(subKey);
    deleted.emplace_back(name.begin(), name.end());
    return Api::DeleteKey(key, subKey);
  }
  static inline std::vector<std::string> deleted;
};

template <class Api>
class RegistryHelpers : public ::testing::Test {
 protected:
  xktest::KeyTreeCleanup m_cleanup{HKEY_CURRENT_USER, {"Software\\XKComBsD Tests"}};
};
using Widths = ::testing::Types<reg::Narrow, reg::Wide>;
TYPED_TEST_SUITE(RegistryHelpers, Widths);

}  // namespace

TYPED_TEST(RegistryHelpers, DeletingATreeRemovesTheInnermostKeysFirstAndTheNamedKeyLast) {
  for (const char* key : {"Tree\\Middle\\Inner", "Tree\\Middle\\Inner2", "Tree\\Side"})
    xktest::WriteString(HKEY_CURRENT_USER, Path(key), nullptr, key);
  RecordingApi<TypeParam>::deleted.clear();
  EXPECT_EQ(ERROR_SUCCESS,
            reg::DeleteKeyTree<RecordingApi<TypeParam>>(HKEY_CURRENT_USER, Text<TypeParam>(Path("Tree")).c_str()));
  EXPECT_THAT(RecordingApi<TypeParam>::deleted, ElementsAre("Inner", "Inner2", "Middle", "Side", Path("Tree")));
  EXPECT_FALSE(xktest::KeyExists(HKEY_CURRENT_USER, Path("Tree")));
  EXPECT_TRUE(xktest::KeyExists(HKEY_CURRENT_USER, kBase));
}

TYPED_TEST(RegistryHelpers, PathsThatNameARootAreRefusedAndAMissingKeyIsPassedOn) {
  using Api = TypeParam;
  xktest::WriteString(HKEY_CURRENT_USER, Path("Kept"), nullptr, "kept");
  HKEY base, key;
  ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExA(HKEY_CURRENT_USER, kBase, 0, KEY_ALL_ACCESS, &base));
  const auto empty = Text<Api>(""), missing = Text<Api>(Path("Missing"));
  const auto name = Text<Api>("Name"), text = Text<Api>("text");
  DWORD cb = 0;
  const struct { const char* what; LONG expected; bool handsOutKey; std::function<LONG()> call; } rows[] = {
      {"tree: empty path", ERROR_INVALID_PARAMETER, false, [&] { return reg::DeleteKeyTree<Api>(base, empty.c_str()); }},
      {"tree: no path", ERROR_INVALID_PARAMETER, false, [&] { return reg::DeleteKeyTree<Api>(base, nullptr); }},
      {"tree: missing", ERROR_FILE_NOT_FOUND, false,
       [&] { return reg::DeleteKeyTree<Api>(HKEY_CURRENT_USER, missing.c_str()); }},
      {"set: no root, no sub-key", ERROR_INVALID_HANDLE, false, [&] {
         return reg::SetStringValue<Api>(nullptr, nullptr, name.c_str(), text.c_str(), KEY_SET_VALUE, nullptr,
                                         nullptr, nullptr); }},
      {"set: a root handed out", ERROR_INVALID_HANDLE, true, [&] {
         return reg::SetStringValue<Api>(HKEY_CURRENT_USER, nullptr, name.c_str(), text.c_str(), KEY_SET_VALUE,
                                         nullptr, &key, nullptr); }},
      {"query: missing", ERROR_FILE_NOT_FOUND, false, [&] {
         return reg::QueryValue<Api>(HKEY_CURRENT_USER, missing.c_str(), nullptr, nullptr, nullptr, &cb,
                                     KEY_QUERY_VALUE, nullptr); }},
      {"query: no root, no sub-key", ERROR_INVALID_HANDLE, false, [&] {
         return reg::QueryValue<Api>(nullptr, nullptr, name.c_str(), nullptr, nullptr, &cb, KEY_QUERY_VALUE,
                                     nullptr); }},
      {"query: a root handed out", ERROR_INVALID_HANDLE, true, [&] {
         return reg::QueryValue<Api>(HKEY_CURRENT_USER, nullptr, name.c_str(), nullptr, nullptr, &cb,
                                     KEY_QUERY_VALUE, &key); }},
  };
  for (const auto& row : rows) {
    key = reinterpret_cast<HKEY>(0xDEADBEEF);
    EXPECT_EQ(row.expected, row.call()) << row.what;
    if (row.handsOutKey) EXPECT_EQ(nullptr, key) << row.what;
  }
  RegCloseKey(base);
  EXPECT_TRUE(xktest::KeyExists(HKEY_CURRENT_USER, Path("Kept")));
  EXPECT_EQ(ERROR_SUCCESS, reg::DeleteKeyTree<Api>(HKEY_CURRENT_USER, Text<Api>(Path("Kept")).c_str()));
  EXPECT_FALSE(xktest::KeyExists(HKEY_CURRENT_USER, Path("Kept")));
}

TYPED_TEST(RegistryHelpers, SettingCreatesTheKeyHandsItOutOnlyWhenAskedAndDeletesWithoutData) {
  using Api = TypeParam;
  const auto set = Text<Api>(Path("Set")), name = Text<Api>("Name"), wide = Text<Api>("Wide");
  HKEY key = reinterpret_cast<HKEY>(0xDEADBEEF);
  DWORD disposition = 0xDEADBEEF;
  EXPECT_EQ(ERROR_SUCCESS, reg::SetStringValue<Api>(nullptr, set.c_str(), name.c_str(), Text<Api>("text").c_str(),
                                                    KEY_ALL_ACCESS, nullptr, &key, &disposition))
      << "a NULL root means HKEY_CURRENT_USER";
  EXPECT_EQ(static_cast<DWORD>(REG_CREATED_NEW_KEY), disposition);
  ASSERT_NE(nullptr, key);
  EXPECT_EQ(ERROR_SUCCESS, reg::SetStringValue<Api>(key, nullptr, wide.c_str(), Text<Api>("wide text").c_str(),
                                                    KEY_SET_VALUE, nullptr, nullptr, nullptr))
      << "no sub-key: the root itself";
  RegCloseKey(key);
  EXPECT_THAT(xktest::StringValue(HKEY_CURRENT_USER, Path("Set"), "Name"), Optional(std::string("text")));
  EXPECT_THAT(xktest::StringValue(HKEY_CURRENT_USER, Path("Set"), "Wide"), Optional(std::string("wide text")));

  EXPECT_EQ(ERROR_SUCCESS, reg::SetStringValue<Api>(HKEY_CURRENT_USER, set.c_str(), name.c_str(), nullptr,
                                                    KEY_SET_VALUE, nullptr, nullptr, &disposition));
  EXPECT_EQ(static_cast<DWORD>(REG_OPENED_EXISTING_KEY), disposition);
  EXPECT_FALSE(xktest::StringValue(HKEY_CURRENT_USER, Path("Set"), "Name").has_value());
}

TYPED_TEST(RegistryHelpers, QueryingHandsOutTheOpenedKeyOnlyAfterASuccessfulRead) {
  using Api = TypeParam;
  xktest::WriteString(HKEY_CURRENT_USER, Path("Query"), "Name", "abc");
  const auto query = Text<Api>(Path("Query")), name = Text<Api>("Name");
  typename Api::Char text[16];
  DWORD cch = 16;
  HKEY key = reinterpret_cast<HKEY>(0xDEADBEEF);
  EXPECT_EQ(ERROR_SUCCESS,
            reg::QueryStringValue<Api>(HKEY_CURRENT_USER, query.c_str(), name.c_str(), text, &cch, KEY_QUERY_VALUE, &key));
  EXPECT_EQ(4u, cch);
  EXPECT_EQ(Text<Api>("abc"), text);
  ASSERT_NE(nullptr, key);
  EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));

  cch = 2;
  EXPECT_EQ(ERROR_MORE_DATA,
            reg::QueryStringValue<Api>(HKEY_CURRENT_USER, query.c_str(), name.c_str(), text, &cch, KEY_QUERY_VALUE, &key));
  EXPECT_EQ(4u, cch) << "the size needed, in characters";
  EXPECT_EQ(nullptr, key) << "a failed read hands out no key";

  DWORD type = 0, cb = 0;
  EXPECT_EQ(ERROR_SUCCESS, reg::QueryValue<Api>(nullptr, query.c_str(), name.c_str(), &type, nullptr, &cb,
                                                KEY_QUERY_VALUE, nullptr));
  EXPECT_EQ(static_cast<DWORD>(REG_SZ), type);
  EXPECT_EQ(4u * sizeof(typename Api::Char), cb);
}
