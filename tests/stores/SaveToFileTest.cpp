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
    ASSERT_TRUE(CreateDirectoryW(m_folder.c_str(), nullptr) ||
                GetLastError() == ERROR_ALREADY_EXISTS);
  }
  void TearDown() override {
    for (const std::wstring& name : m_made) DeleteFileW(name.c_str());
    RemoveDirectoryW(m_folder.c_str());
    LeakCheckedTest::TearDown();
  }

  std::wstring Path(const wchar_t* leaf) {
    m_made.push_back(m_folder + L"\\" + leaf);
    return m_made.back();
  }
  static bool Exists(const std::wstring& name) {
    return GetFileAttributesW(name.c_str()) != INVALID_FILE_ATTRIBUTES;
  }
  static std::string Contents(const std::wstring& name) {
    HANDLE file = CreateFileW(name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                              0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return "<cannot open>";
    char bytes[256];
    DWORD read = 0;
    ReadFile(file, bytes, sizeof bytes, &read, nullptr);
    CloseHandle(file);
    return std::string(bytes, read);
  }
  static void MakeFile(const std::wstring& name, const char* text) {
    HANDLE file = CreateFileW(name.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
    DWORD written;
    WriteFile(file, text, static_cast<DWORD>(strlen(text)), &written, nullptr);
    CloseHandle(file);
  }

  static ISaveToFile* SaverOf(IUnknown* object) {
    ISaveToFile* saver = nullptr;
    EXPECT_HR(S_OK, object->QueryInterface(IID_ISaveToFile, reinterpret_cast<void**>(&saver)));
    return saver;
  }

  std::wstring m_folder;
  std::vector<std::wstring> m_made;
};

}  // namespace

TEST_F(SaveToFileTest, WritesTheStoresBytesIntoANewFile) {
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, QVCLBOMF_PRIVATEHEAP, 0, &lb));
  ASSERT_HR(S_OK, WriteBytes(lb, 0, {'h', 'e', 'l', 'l', 'o'}));
  ISaveToFile* saver = SaverOf(lb);
  const std::wstring name = Path(L"hello.bin");
  EXPECT_HR(S_OK, saver->SaveToFile(name.c_str(), CREATE_NEW, 0xFFFF));
  EXPECT_EQ("hello", Contents(name));

  EXPECT_HR(HRESULT_FROM_WIN32(ERROR_FILE_EXISTS), saver->SaveToFile(name.c_str(), CREATE_NEW, 0));
  EXPECT_EQ("hello", Contents(name)) << "a refused open leaves the file alone";
  EXPECT_HR(E_INVALIDARG, saver->SaveToFile(nullptr, CREATE_ALWAYS, 0));
  EXPECT_HR(E_INVALIDARG, saver->SaveToFile(L"", CREATE_ALWAYS, 0));
  saver->Release();
  EXPECT_EQ(0u, lb->Release());
}

TEST_F(SaveToFileTest, AnEmptyStoreMakesAnEmptyFile) {
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR | QVCLBOMF_NOLOCK, 0, &lb));
  ISaveToFile* saver = SaverOf(lb);
  const std::wstring name = Path(L"empty.bin");
  MakeFile(name, "old contents");
  EXPECT_HR(S_OK, saver->SaveToFile(name.c_str(), CREATE_ALWAYS, 0));
  EXPECT_TRUE(Exists(name));
  EXPECT_EQ("", Contents(name));
  saver->Release();
  EXPECT_EQ(0u, lb->Release());
}

TEST_F(SaveToFileTest, OpenFailuresComeBackAsWin32ErrorsAndLeaveNoFile) {
  std::vector<BYTE> buffer(4, 'x');
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(buffer.data(), 4, QVCLBOMF_FIXEDBLOCK, 0, &lb));
  ISaveToFile* saver = SaverOf(lb);

  const std::wstring nowhere = m_folder + L"\\no such folder\\file.bin";
  EXPECT_HR(HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND), saver->SaveToFile(nowhere.c_str(), CREATE_ALWAYS, 0));
  EXPECT_FALSE(Exists(nowhere));

  // A file held open without sharing cannot be opened again; it must survive.
  const std::wstring busy = Path(L"busy.bin");
  MakeFile(busy, "keep me");
  HANDLE holder = CreateFileW(busy.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  ASSERT_NE(INVALID_HANDLE_VALUE, holder);
  EXPECT_HR(HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION), saver->SaveToFile(busy.c_str(), CREATE_ALWAYS, 0));
  CloseHandle(holder);
  EXPECT_EQ("keep me", Contents(busy));
  saver->Release();
  EXPECT_EQ(0u, lb->Release());
}

TEST_F(SaveToFileTest, AFailedWriteDeletesOnlyAFileThisCallMade) {
  // A fixed store over memory that cannot be read: the file opens, the write fails.
  const ULONG size = 4096;
  void* unreadable = VirtualAlloc(nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_NOACCESS);
  ASSERT_NE(nullptr, unreadable);
  ILockBytes* lb = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(unreadable, size, QVCLBOMF_FIXEDBLOCK, 0, &lb));
  ISaveToFile* saver = SaverOf(lb);

  // The platform's own error for an unreadable buffer comes back unchanged.
  const HRESULT unreadableBuffer = HRESULT_FROM_WIN32(ERROR_INVALID_USER_BUFFER);
  const std::wstring made = Path(L"made.bin");
  EXPECT_HR(unreadableBuffer, saver->SaveToFile(made.c_str(), CREATE_NEW, 0));
  EXPECT_FALSE(Exists(made)) << "the file this call created is gone again";

  const std::wstring existing = Path(L"existing.bin");
  MakeFile(existing, "was here");
  EXPECT_HR(unreadableBuffer, saver->SaveToFile(existing.c_str(), OPEN_EXISTING, 0));
  EXPECT_TRUE(Exists(existing)) << "a file that was there before stays";

  saver->Release();
  EXPECT_EQ(0u, lb->Release());
  VirtualFree(unreadable, 0, MEM_RELEASE);
}

TEST_F(SaveToFileTest, BlockListsCannotSaveAndStreamsForwardToTheirStore) {
  std::vector<BYTE> a(2, 'a'), b(2, 'b');
  LOCKBYTESBLOCK blocks[] = {{2, a.data()}, {2, b.data()}};
  ILockBytes* list = nullptr;
  ASSERT_HR(S_OK, CreateLockBytesOnMemory(blocks, 4, QVCLBOMF_BLOCKLIST, 0, &list));
  ISaveToFile* saver = SaverOf(list);
  const std::wstring name = Path(L"list.bin");
  EXPECT_HR(E_NOTIMPL, saver->SaveToFile(name.c_str(), CREATE_ALWAYS, 0));
  EXPECT_FALSE(Exists(name));
  saver->Release();
  EXPECT_EQ(0u, list->Release());

  IStream* stream = nullptr;
  ASSERT_HR(S_OK, CreateStreamOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, &stream));
  ASSERT_HR(S_OK, stream->Write("abc", 3, nullptr));
  saver = SaverOf(stream);
  EXPECT_HR(S_OK, saver->SaveToFile(name.c_str(), CREATE_ALWAYS, 0));
  EXPECT_EQ("abc", Contents(name));
  saver->Release();
  EXPECT_EQ(0u, stream->Release());

  // A stream over a store that cannot save answers E_FAIL.
  ILockBytes* platform = nullptr;
  ASSERT_HR(S_OK, CreateILockBytesOnHGlobal(nullptr, TRUE, &platform));
  ASSERT_HR(S_OK, CreateStreamOnLockBytes(platform, 0, &stream));
  saver = SaverOf(stream);
  EXPECT_HR(E_FAIL, saver->SaveToFile(name.c_str(), CREATE_ALWAYS, 0));
  saver->Release();
  EXPECT_EQ(0u, stream->Release());
  EXPECT_EQ(0u, platform->Release());
}
