// Storage size queries: what a structured storage's contents need, counted as
// whole 512-byte sectors per stream through every sub-storage, and beside it
// the size a compound file takes on disk, so a caller can judge how much a
// rewrite would save. Sizes are 32-bit: a total that reaches 2^31 stops the
// walk and reads as a failure.
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/Stores.h>
#include <xkcombsd/Strings.h>
#include <xkcombsd/XKAssert.h>

namespace xk::stores {

namespace {

constexpr char kSource[] = "MOStorge";
constexpr ULONG kSectorMask = 511;
constexpr DWORD kSubStorageMode = STGM_SHARE_EXCLUSIVE | STGM_READ;
constexpr DWORD kFileMode = STGM_SHARE_DENY_WRITE | STGM_READ;

// total plus what one element needs; negative when a sub-storage cannot be sized.
LONG AddElement(IStorage* storage, const STATSTG& element, LONG total) {
  switch (element.type) {
    case STGTY_STORAGE: {
      MLRelItf<IStorage> sub;
      // A sub-storage that will not open counts nothing.
      if (FAILED(storage->OpenStorage(element.pwcsName, nullptr, kSubStorageMode, nullptr, 0,
                                      sub.put())))
        return total;
      const LONG size = Stg_GetSize(sub.get());
      return size < 0 ? -1 : static_cast<LONG>(static_cast<ULONG>(total) + size);
    }
    case STGTY_STREAM: {
      const ULONG sectors = (element.cbSize.LowPart + kSectorMask) & ~kSectorMask;
      return static_cast<LONG>(static_cast<ULONG>(total) + sectors);
    }
    case STGTY_LOCKBYTES:
    case STGTY_PROPERTY:
      return total;
    default:
      OutputDebugStringA("Stg_GetSize: Unrecognised STATSTG.type!\n");
      ReportAssertion({kSource, 60, "0"});
      return total;
  }
}

// The ANSI form the file search needs, or false when the code page cannot
// hold the name whole: a replacement '?' would be a wildcard to the search,
// and a name cut to MAX_PATH would be another file's.
bool AnsiFileName(LPCWSTR name, char (&ansi)[MAX_PATH]) {
  BOOL lossy = FALSE;
  // The UTF-8 code page represents every name and takes no default character.
  BOOL* usedDefault = GetACP() == CP_UTF8 ? nullptr : &lossy;
  return WideCharToMultiByte(CP_ACP, 0, name, -1, ansi, MAX_PATH, nullptr, usedDefault) != 0 &&
         !lossy;
}

}  // namespace

}  // namespace xk::stores

using namespace xk::stores;

// ---- Stg_GetSize -------------------------------------------------------------
// No storage has no size: -1, as for one that cannot list its elements.
extern "C" LONG WINAPI Stg_GetSize(IStorage* pstg) {
  xk::MLRelItf<IEnumSTATSTG> elements;
  if (!pstg || FAILED(pstg->EnumElements(0, nullptr, 0, elements.put()))) return -1;
  LONG total = 0;
  elements->Reset();
  STATSTG element;
  while (total >= 0 && elements->Next(1, &element, nullptr) == S_OK) {
    total = AddElement(pstg, element, total);
    OleString_Destroy(&element.pwcsName);
  }
  return total;
}

// ---- Stg_FileGetSizes --------------------------------------------------------
extern "C" HRESULT WINAPI Stg_FileGetSizes(LPCWSTR fileName, ULONG* pcbFile, LONG* pcbStorage) {
  if (pcbFile) *pcbFile = 0;
  if (pcbStorage) *pcbStorage = 0;
  xk::MLRelItf<IStorage> storage;
  const HRESULT hr = StgOpenStorage(fileName, nullptr, kFileMode, nullptr, 0, storage.put());
  if (FAILED(hr)) return hr;

  char ansi[MAX_PATH];
  WIN32_FIND_DATAA found;
  const HANDLE search =
      AnsiFileName(fileName, ansi) ? FindFirstFileA(ansi, &found) : INVALID_HANDLE_VALUE;
  if (search == INVALID_HANDLE_VALUE) return STG_E_FILENOTFOUND;
  FindClose(search);  // only the entry found is needed
  if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) return STG_E_INVALIDNAME;

  const LONG storageSize = Stg_GetSize(storage.get());
  if (storageSize < 0) return STG_E_UNKNOWN;
  if (pcbFile) *pcbFile = found.nFileSizeLow;  // files of 4 GiB and more: the low 32 bits
  if (pcbStorage) *pcbStorage = storageSize;
  return S_OK;
}
