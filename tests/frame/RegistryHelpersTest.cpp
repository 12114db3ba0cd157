// The library's registry helpers, in both character widths from their one body,
// against a private key of this suite under HKEY_CURRENT_USER.
#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "RegistryProbe.h"
#include "frame/RegistryValues.h"

namespace reg = xk::registry;

namespace {

constexpr char kBase[] = "Software\\XKComBsD Tests\\Registry";
const HKEY kUser = HKEY_CURRENT_USER;
HKEY const kBogusKey = reinterpret_cast<HKEY>(0xDEADBEEF);
std::string Path(const std::string& below) { return std::string(kBase) + "\\" + below; }

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
  using Char = typename Api::Char;
  // An ASCII text in the width of the helpers under test.
  static std::basic_string<Char> T(const std::string& text) { return {text.begin(), text.end()}; }
  xktest::KeyTreeCleanup m_cleanup{kUser, {"Software\\XKComBsD Tests"}};
};
using Widths = ::testing::Types<reg::Narrow, reg::Wide>;
TYPED_TEST_SUITE(RegistryHelpers, Widths);

}  // namespace

TYPED_TEST(RegistryHelpers, WhatIsSetReadsBackAndTheTreeGoesInnermostKeysFirstNamedKeyLast) {
  using Api = TypeParam;
  const auto inner = this->T(Path("Tree\\Middle\\Inner")), name = this->T("Name");
  HKEY key = kBogusKey;
  DWORD disposition = 0xDEADBEEF, cch = 16;
  EXPECT_EQ(ERROR_SUCCESS,
            reg::SetStringValue<Api>(nullptr, inner.c_str(), name.c_str(), this->T("abc").c_str(),
                                     KEY_ALL_ACCESS, nullptr, &key, &disposition))
      << "a NULL root means HKEY_CURRENT_USER";
  EXPECT_EQ(static_cast<DWORD>(REG_CREATED_NEW_KEY), disposition);
  EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
  xktest::ExpectRegistry(kUser, {{Path("Tree\\Middle\\Inner"), "Name", "abc"}});
  typename Api::Char text[16];
  EXPECT_EQ(ERROR_SUCCESS, reg::QueryStringValue<Api>(kUser, inner.c_str(), name.c_str(), text,
                                                      &cch, KEY_QUERY_VALUE, &key));
  EXPECT_EQ(4u, cch);
  EXPECT_EQ(this->T("abc"), text);
  EXPECT_EQ(ERROR_SUCCESS, RegCloseKey(key));
  cch = 2;
  EXPECT_EQ(ERROR_MORE_DATA, reg::QueryStringValue<Api>(kUser, inner.c_str(), name.c_str(), text,
                                                        &cch, KEY_QUERY_VALUE, &key));
  EXPECT_EQ(4u, cch) << "the size needed, in characters";
  EXPECT_EQ(nullptr, key) << "a failed read hands out no key";

  for (const char* other : {"Tree\\Middle\\Inner2", "Tree\\Side"})
    xktest::WriteString(kUser, Path(other), nullptr, other);
  RecordingApi<Api>::deleted.clear();
  EXPECT_EQ(ERROR_SUCCESS,
            reg::DeleteKeyTree<RecordingApi<Api>>(kUser, this->T(Path("Tree")).c_str()));
  EXPECT_THAT(RecordingApi<Api>::deleted,
              ::testing::ElementsAre("Inner", "Inner2", "Middle", "Side", Path("Tree")));
}

TYPED_TEST(RegistryHelpers, PathsThatNameARootAreRefusedAndAMissingKeyIsPassedOn) {
  using Api = TypeParam;
  xktest::WriteString(kUser, Path("Kept"), nullptr, "kept");
  HKEY base;
  ASSERT_EQ(ERROR_SUCCESS, RegOpenKeyExA(kUser, kBase, 0, KEY_ALL_ACCESS, &base));
  const auto empty = this->T(""), missing = this->T(Path("Missing"));
  const auto name = this->T("Name"), text = this->T("text");
  DWORD cb = 0;
  const auto set = [&](HKEY root, HKEY* out) {
    return reg::SetStringValue<Api>(root, nullptr, name.c_str(), text.c_str(), KEY_SET_VALUE,
                                    nullptr, out, nullptr);
  };
  const auto query = [&](HKEY root, const typename Api::Char* subKey, HKEY* out) {
    return reg::QueryValue<Api>(root, subKey, name.c_str(), nullptr, nullptr, &cb, KEY_QUERY_VALUE,
                                out);
  };
  HKEY handedOut[2] = {kBogusKey, kBogusKey};  // a root asked for is handed out as NULL
  const LONG rows[][2] = {{ERROR_INVALID_PARAMETER, reg::DeleteKeyTree<Api>(base, empty.c_str())},
                          {ERROR_INVALID_PARAMETER, reg::DeleteKeyTree<Api>(base, nullptr)},
                          {ERROR_FILE_NOT_FOUND, reg::DeleteKeyTree<Api>(kUser, missing.c_str())},
                          {ERROR_INVALID_HANDLE, set(nullptr, nullptr)},
                          {ERROR_INVALID_HANDLE, set(kUser, &handedOut[0])},
                          {ERROR_FILE_NOT_FOUND, query(kUser, missing.c_str(), nullptr)},
                          {ERROR_INVALID_HANDLE, query(nullptr, nullptr, nullptr)},
                          {ERROR_INVALID_HANDLE, query(kUser, nullptr, &handedOut[1])}};
  for (const auto& row : rows) EXPECT_EQ(row[0], row[1]) << "row " << &row - rows;
  EXPECT_THAT(handedOut, ::testing::Each(nullptr));
  RegCloseKey(base);
  EXPECT_TRUE(xktest::KeyExists(kUser, Path("Kept")));
}
