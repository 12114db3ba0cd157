// CreateLockBytesOnRegKey on the real registry of the test prefix, below a
// private key of HKEY_CURRENT_USER: which keys open with which code, the names,
// the maximum's short writes, and that only Flush writes, exactly the bytes.
#include <xkcombsd/Persist.h>
#include <xkcombsd/ScopedValue.h>

#include "RegistryProbe.h"
#include "StoreTestSupport.h"

using namespace storetest;

namespace {

const HKEY kUser = HKEY_CURRENT_USER;
const char kKey[] = "Software\\XKComBsD tests";
const wchar_t kKeyW[] = L"Software\\XKComBsD tests";

// The key's REG_BINARY default value; no bytes when there is none.
Bytes DefaultValue() {
  Bytes bytes(256);
  DWORD cb = DWORD(bytes.size());
  if (RegGetValueA(kUser, kKey, nullptr, RRF_RT_REG_BINARY, nullptr, bytes.data(), &cb)) cb = 0;
  return bytes.resize(cb), bytes;
}

class RegistryLockBytesTest : public LeakCheckedTest {
 protected:
  void SetUp() override { ASSERT_EQ(0, RegCreateKeyA(kUser, kKey, &key)); }
  void TearDown() override { RegCloseKey(key), LeakCheckedTest::TearDown(); }
  xktest::KeyTreeCleanup cleanup{kUser, {kKey}};
  HKEY key = nullptr;
  ILockBytes* lb = nullptr;
};

}  // namespace

TEST_F(RegistryLockBytesTest, OpensByTheRulesAndNamesTheStoreAfterItsRoot) {
  const std::wstring tooLong(360, L'k');  // with its terminator, one byte past the ANSI form's room
  const std::tuple<HKEY, const wchar_t*, HRESULT, const wchar_t*> kRows[] = {
      {nullptr, L"", E_INVALIDARG, nullptr},
      {HKEY(ULONG_PTR(0x1234)), L"Software", STG_E_INVALIDHANDLE, nullptr},
      {key, L"missing", E_FAIL, nullptr},
      {key, tooLong.c_str(), STG_E_INVALIDNAME, nullptr},
      {HKEY_CLASSES_ROOT, nullptr, S_OK, L"[HKCR]\\"},
      {kUser, kKeyW, S_OK, L"[HKCU]\\Software\\XKComBsD tests"},
      {HKEY_LOCAL_MACHINE, L"Software", S_OK, L"[HKLM]\\Software"},
      {HKEY_USERS, nullptr, S_OK, L"[HKUSERS]\\"},
      {HKEY_PERFORMANCE_DATA, nullptr, S_OK, L"[HKPD]\\"},
      {HKEY_CURRENT_CONFIG, nullptr, S_OK, L"[HKCC]\\"},
      {HKEY_DYN_DATA, nullptr, S_OK, L"[HKDD]\\"},
      {key, L"", S_OK, L"[UNKNOWN KEY]\\"}};
  for (const auto& [root, subKey, expected, name] : kRows) {
    SCOPED_TRACE(testing::Message() << root << " " << (name ? name : L""));
    ASSERT_HR(expected, CreateLockBytesOnRegKey(root, subKey, 0, &lb));
    if (FAILED(expected)) continue;
    STATSTG stat;
    ASSERT_HR(S_OK, lb->Stat(&stat, STATFLAG_DEFAULT));
    EXPECT_STREQ(name, stat.pwcsName);
    CoTaskMemFree(stat.pwcsName);
    EXPECT_EQ(0u, lb->Release());
  }
}

// A VARIANT saved through a stream over the store. The key's value is never
// read; only Flush (here the stream's Commit) writes, the store's whole content
// as the default value and nothing else; the last Release does not flush.
TEST_F(RegistryLockBytesTest, OnlyFlushWritesTheKeyAndAVariantRoundTripsThroughIt) {
  ASSERT_EQ(0, RegSetValueExA(key, nullptr, 0, REG_BINARY, Pattern(3).data(), 3));
  ASSERT_HR(S_OK, CreateLockBytesOnRegKey(kUser, kKeyW, 0, &lb));
  EXPECT_EQ(Bytes(), ReadAll(lb, 16));
  EXPECT_HR(S_FALSE, lb->Flush());
  IStream *stream = nullptr, *back = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(lb, 0, &stream));
  xk::ScopedVariant saved, loaded;
  V_VT(&saved.get()) = VT_BSTR, V_BSTR(&saved.get()) = SysAllocString(L"kept in the registry");
  EXPECT_HR(S_OK, VARIANT_SaveToStream(stream, &saved.get()));
  EXPECT_EQ(Pattern(3), DefaultValue()) << "nothing before Flush";
  EXPECT_HR(S_OK, stream->Commit(STGC_DEFAULT));
  Bytes value = DefaultValue();
  EXPECT_EQ(ReadAll(lb, 256), value);
  EXPECT_EQ(std::vector<std::string>{""}, xktest::ValueNames(kUser, kKey));
  ASSERT_HR(S_OK,
            CreateStreamOnMemory(value.data(), ULONG(value.size()), QVCLBOMF_FIXEDBLOCK, 0, &back));
  EXPECT_HR(S_OK, VARIANT_LoadFromStream(back, &loaded.get()));
  EXPECT_HR(VARCMP_EQ, VarCmp(&saved.get(), &loaded.get(), LOCALE_USER_DEFAULT, 0));
  STATSTG stat;
  FILETIME written;
  ASSERT_EQ(0, RegQueryInfoKeyA(key, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, &written));
  ASSERT_HR(S_OK, lb->Stat(&stat, STATFLAG_NONAME));
  EXPECT_TRUE(stat.type == STGTY_LOCKBYTES && stat.cbSize.QuadPart == value.size());
  EXPECT_EQ(0, CompareFileTime(&written, &stat.mtime)) << "the key's last write";
  EXPECT_EQ(0u, back->Release() + stream->Release());
  ASSERT_HR(S_OK, lb->SetSize(U(10)));
  EXPECT_EQ(0u, lb->Release());
  EXPECT_EQ(value, DefaultValue()) << "no flush at the last release";
}

// With a maximum of 10, SetSize(20) stops at 10 and fails, a write from 8 is
// cut to 2 bytes, one from 10 fails; hostile arguments change nothing.
TEST_F(RegistryLockBytesTest, AMaximumCutsWritesShortAndClampsSetSize) {
  ASSERT_HR(S_OK, CreateLockBytesOnRegKey(kUser, kKeyW, 10, &lb));
  const Bytes five = Pattern(5);
  ULONG written = kSentinel;
  void* face = &written;
  EXPECT_HR(STG_E_MEDIUMFULL, lb->SetSize(U(20)));
  EXPECT_EQ(10u, StatSize(lb));
  EXPECT_HR(S_OK, lb->WriteAt(U(8), five.data(), 5, &written));
  EXPECT_EQ(2u, written);
  EXPECT_HR(STG_E_MEDIUMFULL, lb->WriteAt(U(10), five.data(), 1, &written));
  EXPECT_HR(E_POINTER, lb->ReadAt(U(0), nullptr, 1, nullptr));
  EXPECT_HR(E_POINTER, lb->WriteAt(U(0), nullptr, 1, nullptr));
  EXPECT_HR(STG_E_MEDIUMFULL, lb->ReadAt(U(1ull << 32), &written, 1, nullptr));
  EXPECT_HR(STG_E_MEDIUMFULL, lb->SetSize(U(1ull << 32)));
  EXPECT_HR(E_NOINTERFACE, lb->QueryInterface(IID_IThreadingInfo, &face));
  EXPECT_EQ(Pattern(2), ReadAll(lb, 5, 8)) << "nothing above changed the store";
  EXPECT_EQ(0u, lb->Release());
}

// HKEY_CURRENT_USER redirected to a handle that may only read: the store opens
// that key, and its Flush is refused.
TEST_F(RegistryLockBytesTest, FlushOnAKeyWithoutWriteAccessIsDenied) {
  HKEY readOnly;
  ASSERT_EQ(0, RegOpenKeyExA(kUser, kKey, 0, KEY_READ, &readOnly));
  ASSERT_EQ(0, RegOverridePredefKey(kUser, readOnly));
  const HRESULT hr = CreateLockBytesOnRegKey(kUser, nullptr, 0, &lb);
  if (SUCCEEDED(hr)) {
    EXPECT_HR(S_OK, WriteBytes(lb, 0, Pattern(4)));
    EXPECT_HR(STG_E_ACCESSDENIED, lb->Flush());
    EXPECT_EQ(0u, lb->Release());
  }
  RegOverridePredefKey(kUser, nullptr);  // only now: the store's key is the redirected root
  RegCloseKey(readOnly);
  EXPECT_EQ(Bytes(), DefaultValue());
  EXPECT_HR(S_OK, hr);
}
