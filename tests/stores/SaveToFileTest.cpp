// ISaveToFile on a real file in the temporary folder: what is written, which
// errors come back, and that a failed save deletes a file it made.
#include "StoreTestSupport.h"

using namespace storetest;

namespace {

// The private heaps' stores hold "hello", the task allocator's nothing; the
// fixed store's memory cannot be read, so it opens its file and then fails to write.
struct Save {
  DWORD kind;
  const char *before, *after;  // the file's contents, nullptr for no file
  DWORD disposition;
  HRESULT expected;
};
constexpr DWORD H = QVCLBOMF_PRIVATEHEAP, F = QVCLBOMF_FIXEDBLOCK;
const Save kSaves[] = {
    {H, nullptr, "hello", CREATE_NEW, S_OK},
    {H | QVCLBOMF_SPARE, nullptr, "hello", CREATE_NEW, S_OK},  // the size, not the buffer
    {H, "was here", "was here", CREATE_NEW, HRESULT_FROM_WIN32(ERROR_FILE_EXISTS)},
    {H, nullptr, nullptr, OPEN_EXISTING, HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)},
    {QVCLBOMF_TASKALLOCATOR, "old contents", "", CREATE_ALWAYS, S_OK},
    {QVCLBOMF_BLOCKLIST, nullptr, nullptr, CREATE_ALWAYS, E_NOTIMPL},
    {F, nullptr, nullptr, CREATE_NEW, HRESULT_FROM_WIN32(ERROR_INVALID_USER_BUFFER)},
};

std::string Contents(const std::wstring& name) {
  FILE* file = _wfopen(name.c_str(), L"rb");
  char bytes[64];
  const size_t read = file ? fread(bytes, 1, sizeof bytes, file) : 0;
  return file ? (fclose(file), std::string(bytes, read)) : "<absent>";
}

using SaveToFileTest = LeakCheckedTest;

}  // namespace

TEST_F(SaveToFileTest, WritesTheBytesOrReportsWhyAndDeletesOnlyAFileItMade) {
  wchar_t temp[MAX_PATH];
  ASSERT_NE(0u, GetTempPathW(MAX_PATH, temp));
  const std::wstring name = temp + (L"xkstores-" + std::to_wstring(GetCurrentProcessId()));
  void* unreadable = VirtualAlloc(nullptr, 4096, MEM_COMMIT | MEM_RESERVE, PAGE_NOACCESS);
  BYTE bytes[4] = {};
  LOCKBYTESBLOCK blocks[2] = {{2, bytes}, {2, bytes + 2}};
  for (const Save& row : kSaves) {
    SCOPED_TRACE(&row - kSaves);
    if (FILE* file = row.before ? _wfopen(name.c_str(), L"wb") : nullptr)
      fputs(row.before, file), fclose(file);
    void* pv = row.kind == F ? unreadable : row.kind == QVCLBOMF_BLOCKLIST ? blocks : nullptr;
    ILockBytes* lb = nullptr;
    ASSERT_HR(S_OK, CreateLockBytesOnMemory(pv, pv ? 4 : 0, row.kind, 0, &lb));
    if ((row.kind & QVCLBOMF_TYPEMASK) == H) WriteBytes(lb, 0, {'h', 'e', 'l', 'l', 'o'});
    ISaveToFile* saver = nullptr;
    ASSERT_HR(S_OK, lb->QueryInterface(IID_ISaveToFile, reinterpret_cast<void**>(&saver)));
    EXPECT_HR(row.expected, saver->SaveToFile(name.c_str(), row.disposition, 0));
    EXPECT_EQ(1u, saver->Release());
    EXPECT_EQ(0u, lb->Release());
    EXPECT_EQ(row.after ? row.after : "<absent>", Contents(name));
    DeleteFileW(name.c_str());
  }
  VirtualFree(unreadable, 0, MEM_RELEASE);
}
