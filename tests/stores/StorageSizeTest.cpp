// Stg_FileGetSizes (and so Stg_GetSize) on real compound files in the temporary
// folder; Stg_GetSize on a fake storage only for what no real one lists.
#include "DebugOutput.h"
#include "StoreTestSupport.h"

using namespace storetest;

namespace {

// Lists the elements given; the walk frees each name it is handed.
class FakeEnumerator : public IEnumSTATSTG {
 public:
  STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOTIMPL; }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP Next(ULONG, STATSTG* element, ULONG*) override {
    if (next >= elements.size()) return S_FALSE;
    *element = elements[next++];
    element->pwcsName = static_cast<LPOLESTR>(CoTaskMemAlloc(2));
    return element->pwcsName[0] = 0, S_OK;
  }
  STDMETHODIMP Skip(ULONG) override { return E_NOTIMPL; }
  STDMETHODIMP Reset() override { return next = 0, S_OK; }
  STDMETHODIMP Clone(IEnumSTATSTG**) override { return E_NOTIMPL; }

  std::vector<STATSTG> elements;
  size_t next = 7;  // only a Reset starts the list
  ULONG refs = 1;
};

// Stg_GetSize asks a storage that lists no sub-storage for its enumerator and
// nothing else, so the fake storage is a COM object whose method table holds
// only that method, in its slot of IStorage (after IUnknown's three, the ninth).
struct FakeStorage {
  static HRESULT STDMETHODCALLTYPE EnumElements(FakeStorage* self, DWORD, void*, DWORD,
                                                IEnumSTATSTG** out) {
    *out = SUCCEEDED(self->refusal) ? (self->enumerator.AddRef(), &self->enumerator) : nullptr;
    return self->refusal;
  }
  static inline const void* const kTable[12] = {nullptr, nullptr, nullptr, nullptr,
                                                nullptr, nullptr, nullptr, nullptr,
                                                nullptr, nullptr, nullptr, (void*)&EnumElements};
  IStorage* get() { return reinterpret_cast<IStorage*>(this); }

  const void* const* table = kTable;
  FakeEnumerator enumerator;
  HRESULT refusal = S_OK;
};

STATSTG Element(DWORD type, ULONG size) { return {nullptr, type, U(size)}; }

using StorageSizeTest = LeakCheckedTest;

}  // namespace

// Streams count in whole 512-byte sectors, also inside a sub-storage; the
// file's own size is the file system's. Every failure leaves both sizes 0.
TEST_F(StorageSizeTest, CountsStreamsInWholeSectorsOrFailsWithBothSizesZero) {
  wchar_t temp[MAX_PATH];
  const std::wstring folder(temp, GetTempPathW(MAX_PATH, temp)),
      file = folder + L"xk-\u00e9.stg", unrepresentable = folder + L"xk-\u03a9.stg",
      missing = folder + L"xk-missing.stg";
  const auto StorageError = [](const std::wstring& name, IStorage* storage = nullptr) {
    return StgOpenStorage(name.c_str(), nullptr, STGM_SHARE_DENY_WRITE | STGM_READ, 0, 0, &storage);
  };
  // Streams of the root, streams of a sub-storage, the name asked for, the result.
  const std::tuple<std::vector<ULONG>, std::vector<ULONG>, std::wstring, HRESULT, LONG> kRows[] = {
      {{}, {}, file, S_OK, 0},
      {{1}, {}, file, S_OK, 512},
      {{512}, {}, file, S_OK, 512},
      {{513}, {}, file, S_OK, 1024},
      {{1, 513}, {0, 1}, file, S_OK, 2048},
      {{1}, {}, missing, StorageError(missing), 0},
      {{1}, {}, folder, StorageError(folder), 0},
      {{1}, {}, unrepresentable, STG_E_FILENOTFOUND, 0}};  // its '?' must not match as a wildcard
  for (const auto& row : kRows) {
    const auto& [streams, nested, name, expected, size] = row;
    SCOPED_TRACE(&row - kRows);
    const DWORD mode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    IStorage *root = nullptr, *sub = nullptr;
    ASSERT_HR(S_OK, StgCreateDocfile(file.c_str(), mode | STGM_CREATE, 0, &root));
    if (!nested.empty()) ASSERT_HR(S_OK, root->CreateStorage(L"sub", mode, 0, 0, &sub));
    for (auto [storage, sizes] : {std::pair(root, streams), std::pair(sub, nested)})
      for (ULONG cb : sizes) {
        IStream* stream = nullptr;
        ASSERT_HR(S_OK,
                  storage->CreateStream((L"s" + std::to_wstring(cb)).c_str(), mode, 0, 0, &stream));
        EXPECT_HR(S_OK, stream->Write(Pattern(cb + 1).data(), cb, nullptr));
        stream->Release();
      }
    if (sub) sub->Release();
    EXPECT_EQ(0u, root->Release());
    CopyFileW(file.c_str(), unrepresentable.c_str(), FALSE);
    ULONG cbFile = kSentinel;
    LONG cbStorage = LONG(kSentinel);
    EXPECT_HR(expected, Stg_FileGetSizes(name.c_str(), &cbFile, &cbStorage));
    WIN32_FILE_ATTRIBUTE_DATA data = {};
    GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &data);
    EXPECT_EQ(SUCCEEDED(expected) ? data.nFileSizeLow : 0, cbFile);
    EXPECT_EQ(size, cbStorage);
  }
  DeleteFileW(file.c_str()), DeleteFileW(unrepresentable.c_str());
}

// An element of no known type counts nothing and is reported; lock-bytes and
// property elements count nothing; the walk stops once the total turns negative.
TEST_F(StorageSizeTest, WalksAFakeStorageToItsRules) {
  xktest::DebugOutputCapture capture;
  FakeStorage fake;
  fake.enumerator.elements = {Element(99, 1),
                              Element(STGTY_STREAM, 1),
                              Element(STGTY_LOCKBYTES, 7),
                              Element(STGTY_PROPERTY, 7),
                              Element(STGTY_STREAM, 0x7FFFFE00),
                              Element(STGTY_STREAM, 1)};
  EXPECT_EQ(LONG(0x80000000), Stg_GetSize(fake.get()));
  EXPECT_EQ(5u, fake.enumerator.next) << "from the start, and not past the negative total";
  EXPECT_EQ(1u, fake.enumerator.refs) << "the enumerator is released";
  const std::vector<std::string> lines = capture.Lines();
  EXPECT_EQ(1, std::count(lines.begin(), lines.end(), "Stg_GetSize: Unrecognised STATSTG.type!\n"));
  EXPECT_EQ(std::vector<xktest::AssertionReport>({{"MOStorge", 60, "0"}}), capture.Assertions());
  fake.refusal = E_FAIL;
  EXPECT_EQ(-1, Stg_GetSize(fake.get()));
}
