// ISaveToFile on real files in a private temporary folder: what is written,
// which errors come back, and that a failed save deletes only a file it made.
#include <cstdio>
#include <string>

#include "StoreTestSupport.h"

using namespace storetest;

namespace {

// What is saved: a store whose fixed memory cannot be read opens its file and
// then fails to write; a stream forwards to its store, which for the platform's
// store cannot save.
enum Source { kHello, kEmpty, kUnreadable, kBlockList, kStreamAbc, kStreamOverPlatform };
constexpr const char* kAbsent = nullptr;
const wchar_t kNoSuchFolder[] = L"no such folder\\file.bin";
struct Save {
  Source source;
  const wchar_t* leaf;         // in the test's folder; NULL is no name at all
  const char *before, *after;  // the file's contents before and after, kAbsent for none
  bool heldOpen;               // by a handle that shares nothing
  DWORD disposition;
  HRESULT expected;
};
constexpr HRESULT kExists = HRESULT_FROM_WIN32(ERROR_FILE_EXISTS),
                  kNoPath = HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND),
                  kShared = HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION),
                  kBadBuffer = HRESULT_FROM_WIN32(ERROR_INVALID_USER_BUFFER);
const Save kSaves[] = {
    {kHello, L"a.bin", kAbsent, "hello", false, CREATE_NEW, S_OK},
    {kHello, L"a.bin", "was here", "was here", false, CREATE_NEW, kExists},
    {kHello, nullptr, kAbsent, kAbsent, false, CREATE_ALWAYS, E_INVALIDARG},
    {kHello, L"", kAbsent, kAbsent, false, CREATE_ALWAYS, E_INVALIDARG},
    {kEmpty, L"a.bin", "old contents", "", false, CREATE_ALWAYS, S_OK},
    {kHello, kNoSuchFolder, kAbsent, kAbsent, false, CREATE_ALWAYS, kNoPath},
    {kHello, L"a.bin", "keep me", "keep me", true, CREATE_ALWAYS, kShared},
    {kUnreadable, L"a.bin", kAbsent, kAbsent, false, CREATE_NEW, kBadBuffer},
    {kUnreadable, L"a.bin", "was here", "was here", false, OPEN_EXISTING, kBadBuffer},
    {kBlockList, L"a.bin", kAbsent, kAbsent, false, CREATE_ALWAYS, E_NOTIMPL},
    {kStreamAbc, L"a.bin", kAbsent, "abc", false, CREATE_ALWAYS, S_OK},
    {kStreamOverPlatform, L"a.bin", kAbsent, kAbsent, false, CREATE_ALWAYS, E_FAIL},
};

class SaveToFileTest : public LeakCheckedTest {
 protected:
  void SetUp() override {
    wchar_t temp[MAX_PATH];
    ASSERT_NE(0u, GetTempPathW(MAX_PATH, temp));
    m_folder = std::wstring(temp) + L"xkstores-" + std::to_wstring(GetCurrentProcessId()) + L"\\";
    ASSERT_TRUE(CreateDirectoryW(m_folder.c_str(), nullptr) ||
                GetLastError() == ERROR_ALREADY_EXISTS);
    m_unreadable = VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_NOACCESS);
  }
  void TearDown() override {
    VirtualFree(m_unreadable, 0, MEM_RELEASE);
    EXPECT_TRUE(RemoveDirectoryW(m_folder.c_str())) << "a file was left behind";
    LeakCheckedTest::TearDown();
  }
  IUnknown* Make(Source source) {
    IStream* stream = nullptr;
    ILockBytes* lb = nullptr;
    if (source == kStreamOverPlatform) {
      EXPECT_HR(S_OK, CreateILockBytesOnHGlobal(nullptr, TRUE, &lb));
      EXPECT_HR(S_OK, CreateStreamOnLockBytes(lb, 0, &stream));
      return lb->Release(), stream;
    }
    if (source == kStreamAbc) {
      EXPECT_HR(S_OK, CreateStreamOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, &stream));
      return stream->Write("abc", 3, nullptr), stream;
    }
    const DWORD kinds[] = {QVCLBOMF_PRIVATEHEAP, QVCLBOMF_TASKALLOCATOR | QVCLBOMF_NOLOCK,
                           QVCLBOMF_FIXEDBLOCK, QVCLBOMF_BLOCKLIST};
    void* memory[] = {nullptr, nullptr, m_unreadable, m_blocks};
    EXPECT_HR(S_OK, CreateLockBytesOnMemory(memory[source], memory[source] ? 4 : 0, kinds[source],
                                            0, &lb));
    if (source == kHello) WriteBytes(lb, 0, {'h', 'e', 'l', 'l', 'o'});
    return lb;
  }
  static void Put(const std::wstring& name, const char* contents) {
    FILE* file = _wfopen(name.c_str(), L"wb");
    fputs(contents, file);
    fclose(file);
  }
  static std::string Contents(const std::wstring& name) {
    FILE* file = name.empty() ? nullptr : _wfopen(name.c_str(), L"rb");
    char bytes[256];
    const size_t read = file ? fread(bytes, 1, sizeof bytes, file) : 0;
    return file ? (fclose(file), std::string(bytes, read)) : "<absent>";
  }

  std::wstring m_folder;
  void* m_unreadable = nullptr;
  BYTE m_bytes[4] = {'a', 'a', 'b', 'b'};
  LOCKBYTESBLOCK m_blocks[2] = {{2, m_bytes}, {2, m_bytes + 2}};
};

}  // namespace

TEST_F(SaveToFileTest, WritesTheBytesOrReportsWhyAndKeepsOnlyFilesItDidNotMake) {
  ASSERT_NE(nullptr, m_unreadable);
  for (const Save& row : kSaves) {
    SCOPED_TRACE(&row - kSaves);
    const std::wstring name = row.leaf && *row.leaf ? m_folder + row.leaf : std::wstring();
    if (row.before) Put(name, row.before);
    HANDLE holder = row.heldOpen ? CreateFileW(name.c_str(), GENERIC_READ, 0, nullptr,
                                               OPEN_EXISTING, 0, nullptr)
                                 : INVALID_HANDLE_VALUE;
    IUnknown* object = Make(row.source);
    ISaveToFile* saver = nullptr;
    ASSERT_HR(S_OK, object->QueryInterface(IID_ISaveToFile, reinterpret_cast<void**>(&saver)));
    EXPECT_HR(row.expected,
              saver->SaveToFile(row.leaf ? name.c_str() : nullptr, row.disposition, 0));
    EXPECT_EQ(1u, saver->Release());
    EXPECT_EQ(0u, object->Release());
    if (holder != INVALID_HANDLE_VALUE) CloseHandle(holder);
    EXPECT_EQ(row.after ? row.after : "<absent>", Contents(name));
    DeleteFileW(name.c_str());
  }
}
