// ISaveToFile on real files in a private temporary folder: what is written,
// which errors come back, and that a failed save deletes only a file it made.
#include <string>

#include "StoreTestSupport.h"

using namespace storetest;

namespace {

class SaveToFileTest : public LeakCheckedTest {
 protected:
  void SetUp() override {
    wchar_t temp[MAX_PATH];
    ASSERT_NE(0u, GetTempPathW(MAX_PATH, temp));
    m_folder = std::wstring(temp) + L"xkstores-" + std::to_wstring(GetCurrentProcessId());
    ASSERT_TRUE(CreateDirectoryW(m_folder.c_str(), nullptr) || GetLastError() == ERROR_ALREADY_EXISTS);
  }
  void TearDown() override {
    ReleaseObject();
    for (const std::wstring& name : m_made) DeleteFileW(name.c_str());
    RemoveDirectoryW(m_folder.c_str());
    LeakCheckedTest::TearDown();
  }

  // Saves through the object's ISaveToFile; the test holds the object until
  // another is saved or the test ends, and then it must go with its last release.
  HRESULT Save(IUnknown* object, const wchar_t* name, DWORD disposition) {
    if (object != m_object) {
      ReleaseObject();
      m_object = object;
      EXPECT_HR(S_OK, object->QueryInterface(IID_ISaveToFile, reinterpret_cast<void**>(&m_saver)));
    }
    return m_saver->SaveToFile(name, disposition, 0);
  }
  void ReleaseObject() {
    if (m_saver) m_saver->Release();
    if (m_object) EXPECT_EQ(0u, m_object->Release());
    m_saver = nullptr;
    m_object = nullptr;
  }
  std::wstring Path(const wchar_t* leaf, const char* contents = nullptr) {
    m_made.push_back(m_folder + L"\\" + leaf);
    if (contents) {
      HANDLE file = CreateFileW(m_made.back().c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
      DWORD written;
      WriteFile(file, contents, static_cast<DWORD>(strlen(contents)), &written, nullptr);
      CloseHandle(file);
    }
    return m_made.back();
  }
  static bool Exists(const std::wstring& name) { return GetFileAttributesW(name.c_str()) != INVALID_FILE_ATTRIBUTES; }
  static std::string Contents(const std::wstring& name) {
    HANDLE file = CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return "<cannot open>";
    char bytes[256];
    DWORD read = 0;
    ReadFile(file, bytes, sizeof bytes, &read, nullptr);
    CloseHandle(file);
    return std::string(bytes, read);
  }
  template <class Out>
  Out* Made(void* pv, ULONG si, DWORD flags) {
    Out* out = nullptr;
    EXPECT_HR(S_OK, CreateOnMemory(pv, si, flags, 0, &out));
    return out;
  }

  std::wstring m_folder;
  std::vector<std::wstring> m_made;
  IUnknown* m_object = nullptr;
  ISaveToFile* m_saver = nullptr;
};

}  // namespace

TEST_F(SaveToFileTest, WritesTheStoresBytesIntoANewFileAndRefusesNoName) {
  ILockBytes* lb = Made<ILockBytes>(nullptr, 0, QVCLBOMF_PRIVATEHEAP);
  ASSERT_HR(S_OK, WriteBytes(lb, 0, {'h', 'e', 'l', 'l', 'o'}));
  const std::wstring name = Path(L"hello.bin");
  EXPECT_HR(S_OK, Save(lb, name.c_str(), CREATE_NEW));
  EXPECT_EQ("hello", Contents(name));
  EXPECT_HR(HRESULT_FROM_WIN32(ERROR_FILE_EXISTS), Save(lb, name.c_str(), CREATE_NEW));
  EXPECT_EQ("hello", Contents(name)) << "a refused open leaves the file alone";
  EXPECT_HR(E_INVALIDARG, Save(lb, nullptr, CREATE_ALWAYS));
  EXPECT_HR(E_INVALIDARG, Save(lb, L"", CREATE_ALWAYS));
}

TEST_F(SaveToFileTest, AnEmptyStoreMakesAnEmptyFile) {
  const std::wstring name = Path(L"empty.bin", "old contents");
  ILockBytes* lb = Made<ILockBytes>(nullptr, 0, QVCLBOMF_TASKALLOCATOR | QVCLBOMF_NOLOCK);
  EXPECT_HR(S_OK, Save(lb, name.c_str(), CREATE_ALWAYS));
  EXPECT_EQ("", Contents(name));
}

TEST_F(SaveToFileTest, OpenFailuresComeBackAsWin32ErrorsAndLeaveNoFile) {
  Bytes buffer(4, 'x');
  ILockBytes* lb = Made<ILockBytes>(buffer.data(), 4, QVCLBOMF_FIXEDBLOCK);
  const std::wstring nowhere = m_folder + L"\\no such folder\\file.bin";
  EXPECT_HR(HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND), Save(lb, nowhere.c_str(), CREATE_ALWAYS));
  EXPECT_FALSE(Exists(nowhere));
  // A file held open without sharing cannot be opened again; it must survive.
  const std::wstring busy = Path(L"busy.bin", "keep me");
  HANDLE holder = CreateFileW(busy.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(INVALID_HANDLE_VALUE, holder);
  EXPECT_HR(HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION), Save(lb, busy.c_str(), CREATE_ALWAYS));
  CloseHandle(holder);
  EXPECT_EQ("keep me", Contents(busy));
}

TEST_F(SaveToFileTest, AFailedWriteDeletesOnlyAFileThisCallMade) {
  // A fixed store over memory that cannot be read: the file opens, the write fails
  // with the platform's own error for an unreadable buffer.
  void* unreadable = VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_NOACCESS);
  ASSERT_NE(nullptr, unreadable);
  ILockBytes* lb = Made<ILockBytes>(unreadable, 4096, QVCLBOMF_FIXEDBLOCK);
  const std::wstring made = Path(L"made.bin"), existing = Path(L"existing.bin", "was here");
  EXPECT_HR(HRESULT_FROM_WIN32(ERROR_INVALID_USER_BUFFER), Save(lb, made.c_str(), CREATE_NEW));
  EXPECT_FALSE(Exists(made)) << "the file this call created is gone again";
  EXPECT_HR(HRESULT_FROM_WIN32(ERROR_INVALID_USER_BUFFER), Save(lb, existing.c_str(), OPEN_EXISTING));
  EXPECT_TRUE(Exists(existing)) << "a file that was there before stays";
  ReleaseObject();
  VirtualFree(unreadable, 0, MEM_RELEASE);
}

TEST_F(SaveToFileTest, BlockListsCannotSaveAndStreamsForwardToTheirStore) {
  Bytes a(2, 'a'), b(2, 'b');
  LOCKBYTESBLOCK blocks[] = {{2, a.data()}, {2, b.data()}};
  const std::wstring name = Path(L"list.bin");
  EXPECT_HR(E_NOTIMPL, Save(Made<ILockBytes>(blocks, 4, QVCLBOMF_BLOCKLIST), name.c_str(), CREATE_ALWAYS));
  EXPECT_FALSE(Exists(name));

  IStream* stream = Made<IStream>(nullptr, 0, QVCLBOMF_TASKALLOCATOR);
  ASSERT_HR(S_OK, stream->Write("abc", 3, nullptr));
  EXPECT_HR(S_OK, Save(stream, name.c_str(), CREATE_ALWAYS));
  EXPECT_EQ("abc", Contents(name));

  // A stream over a store that cannot save answers E_FAIL.
  ILockBytes* platform = nullptr;
  ASSERT_HR(S_OK, CreateILockBytesOnHGlobal(nullptr, TRUE, &platform));
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(platform, 0, &stream));
  EXPECT_HR(E_FAIL, Save(stream, name.c_str(), CREATE_ALWAYS));
  EXPECT_EQ(1u, platform->Release()) << "the stream holds the other reference";
}
