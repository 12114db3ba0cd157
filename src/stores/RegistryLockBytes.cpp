// Registry lock-bytes: an ILockBytes whose bytes live in one global-memory
// block of exactly their size until Flush writes all of them, as one REG_BINARY
// default value, into the key the store opened. The key's current value is
// never read, and nothing reaches the registry unless asked: the store closes
// its key without a flush when it goes. A maximum size makes writes short and
// clamps SetSize instead of refusing them whole.
#include <xkcombsd/RegKey.h>
#include <xkcombsd/ScopedValue.h>
#include <xkcombsd/Stores.h>
#include <xkcombsd/Strings.h>

#include "frame/HandOut.h"
#include "frame/RuntimePrimitives.h"
#include "stores/StoreObject.h"

namespace xk::stores {

namespace {

// The subkey is opened by its ANSI form, terminator included in these bytes.
constexpr int kSubKeyBytes = 360;

// The prefix of a store's name: which root its key hangs from.
const WCHAR* PrefixOf(HKEY root) {
  static constexpr const WCHAR* kPredefined[] = {L"[HKCR]", L"[HKCU]", L"[HKLM]", L"[HKUSERS]",
                                                 L"[HKPD]", L"[HKCC]", L"[HKDD]"};
  const ULONG_PTR index =
      reinterpret_cast<ULONG_PTR>(root) - reinterpret_cast<ULONG_PTR>(HKEY_CLASSES_ROOT);
  return index < ARRAYSIZE(kPredefined) ? kPredefined[index] : L"[UNKNOWN KEY]";
}

// "prefix\subkey" from the task allocator; NULL when there is no memory for it,
// and a store without a name works all the same.
LPWSTR NameOf(HKEY root, const char* subKey) {
  const WCHAR* prefix = PrefixOf(root);
  const size_t prefixChars = TextLength(prefix);
  // One ANSI byte never widens to more than one character.
  const size_t subKeyChars = subKey ? TextLength(subKey) : 0;
  const size_t room = prefixChars + subKeyChars + 5;
  auto* name = static_cast<LPWSTR>(CoTaskMemAlloc(room * sizeof(WCHAR)));
  if (!name) return nullptr;
  WCHAR* at = CopyCut(name, prefix, prefixChars);
  *at++ = L'\\';
  *at = 0;
  if (subKey)
    MultiByteToWideChar(CP_ACP, 0, subKey, -1, at, static_cast<int>(room - prefixChars - 1));
  return name;
}

template <class ThreadModel>
class RegistryLockBytes final : public LockBytesWithoutRegions, public StoreCore<ThreadModel> {
 public:
  explicit RegistryLockBytes(ULONG cbMax) : m_max(cbMax) {}

  // A subkey whose ANSI form does not fit its 360 bytes could only be opened
  // cut short, as some other key: nothing is opened and the name is refused.
  HRESULT Open(HKEY root, LPCWSTR subKey) {
    char ansi[kSubKeyBytes];
    if (subKey && !WideCharToMultiByte(CP_ACP, 0, subKey, -1, ansi, sizeof ansi, nullptr, nullptr))
      return STG_E_INVALIDNAME;
    const char* narrow = subKey ? ansi : nullptr;
    if (!root) return STG_E_INVALIDHANDLE;
    switch (LB_RegOpenKeyExA(root, narrow, 0, KEY_ALL_ACCESS, m_key.put())) {
      case ERROR_SUCCESS:
        break;
      case ERROR_INVALID_HANDLE:
        return STG_E_INVALIDHANDLE;
      default:
        return E_FAIL;
    }
    m_name.get() = NameOf(root, narrow);
    return S_OK;
  }

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    return xk::QueryFace(static_cast<ILockBytes*>(this), iid, ppv, IID_ILockBytes);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return this->InternalAddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return this->InternalRelease(); }

  STDMETHODIMP ReadAt(ULARGE_INTEGER ulOffset, void* pv, ULONG cb, ULONG* pcbRead) override {
    if (!pv) return E_POINTER;
    if (ulOffset.HighPart) return STG_E_MEDIUMFULL;
    auto guard = this->Locked();
    const ULONG offset = ulOffset.LowPart;
    const ULONG n = offset >= m_size ? 0 : Smaller(cb, m_size - offset);
    if (n) memcpy(pv, m_buffer.get() + offset, n);
    if (pcbRead) *pcbRead = n;
    return S_OK;
  }

  // Up to a maximum a write is cut short rather than refused; only one that
  // starts at or past the maximum fails.
  STDMETHODIMP WriteAt(ULARGE_INTEGER ulOffset, const void* pv, ULONG cb,
                       ULONG* pcbWritten) override {
    if (!pv) return E_POINTER;
    if (ulOffset.HighPart) return STG_E_MEDIUMFULL;
    auto guard = this->Locked();
    const ULONG offset = ulOffset.LowPart;
    ULONG n = cb;
    if (ULONGLONG(offset) + cb > m_size && m_max) {
      if (offset >= m_max) return STG_E_MEDIUMFULL;
      if (ULONGLONG(offset) + cb > m_max) n = m_max - offset;
    }
    const ULONGLONG end = ULONGLONG(offset) + n;
    // With no maximum the 32-bit address space is the limit.
    if (end >= kAddressLimit) return STG_E_MEDIUMFULL;
    if (end > m_size) {
      const HRESULT hr = Resize(static_cast<ULONG>(end));
      if (FAILED(hr)) return hr;  // nothing written
    }
    if (n) memcpy(m_buffer.get() + offset, pv, n);
    if (pcbWritten) *pcbWritten = n;
    return S_OK;
  }

  // The whole content replaces the key's default value; an empty store
  // leaves the key alone.
  STDMETHODIMP Flush() override {
    auto guard = this->Locked();
    if (!m_key.get()) return E_FAIL;
    if (m_size == 0) return S_FALSE;
    switch (LB_RegSetValueExA(m_key.get(), nullptr, 0, REG_BINARY, m_buffer.get(), m_size)) {
      case ERROR_SUCCESS:
        return S_OK;
      case ERROR_ACCESS_DENIED:
        return STG_E_ACCESSDENIED;
      default:
        return E_UNEXPECTED;
    }
  }

  // Above the maximum the store still goes as far as it may, and says it
  // could not go further.
  STDMETHODIMP SetSize(ULARGE_INTEGER cb) override {
    if (cb.HighPart) return STG_E_MEDIUMFULL;
    auto guard = this->Locked();
    if (m_max && cb.LowPart > m_max) {
      const HRESULT hr = Resize(m_max);
      return FAILED(hr) ? hr : STG_E_MEDIUMFULL;
    }
    return Resize(cb.LowPart);
  }

  STDMETHODIMP Stat(STATSTG* pstatstg, DWORD grfStatFlag) override {
    if (!pstatstg) return S_OK;
    if (grfStatFlag & ~static_cast<DWORD>(STATFLAG_NONAME)) return STG_E_INVALIDFLAG;
    auto guard = this->Locked();
    *pstatstg = STATSTG{};
    if (!(grfStatFlag & STATFLAG_NONAME)) pstatstg->pwcsName = OleString_Dup(m_name.get());
    pstatstg->type = STGTY_LOCKBYTES;
    pstatstg->cbSize.QuadPart = m_size;
    FILETIME written;
    if (LB_RegQueryInfoKeyA(m_key.get(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr, nullptr, &written) == ERROR_SUCCESS)
      pstatstg->mtime = written;
    return S_OK;
  }

 private:
  // The members let go of the key, the name and the buffer; nothing is flushed.
  ~RegistryLockBytes() override = default;

  // The buffer holds exactly m_size bytes (none at size 0). A block that
  // cannot be had leaves the store as it was; E_OUTOFMEMORY is our choice of
  // code for that.
  HRESULT Resize(ULONG cb) {
    if (cb == m_size) return S_OK;
    if (cb == 0) {
      m_buffer.Reset();
    } else {
      void* resized = m_buffer.get() ? GlobalReAlloc(m_buffer.get(), cb, GMEM_MOVEABLE)
                                     : GlobalAlloc(GMEM_FIXED, cb);
      if (!resized) return E_OUTOFMEMORY;
      m_buffer.get() = static_cast<BYTE*>(resized);
    }
    m_size = cb;
    return S_OK;
  }

  RegKey m_key;                       // read-only after opening
  ScopedTaskMemory<WCHAR> m_name;     // read-only after opening; empty when there was no memory
  ScopedGlobalMemory<BYTE> m_buffer;  // (lock) exactly m_size bytes, or NULL
  const ULONG m_max;                  // 0 = no maximum
  ULONG m_size = 0;                   // (lock)
};

}  // namespace

}  // namespace xk::stores

using namespace xk::stores;

// ---- CreateLockBytesOnRegKey -------------------------------------------------
// The store is always of the locked form: there are no flags to ask for another.
extern "C" HRESULT WINAPI CreateLockBytesOnRegKey(HKEY hkeyRoot, LPCWSTR subKey, ULONG cbMax,
                                                  ILockBytes** pplb) {
  if (!hkeyRoot && (!subKey || !*subKey)) return E_INVALIDARG;
  auto* store = new RegistryLockBytes<xk::MultiThreaded>(cbMax);
  if (!store) {
    if (pplb) *pplb = nullptr;  // as every other creator leaves it
    return E_OUTOFMEMORY;
  }
  return xk::HandOut(store, IID_ILockBytes, reinterpret_cast<void**>(pplb),
                     store->Open(hkeyRoot, subKey));
}
