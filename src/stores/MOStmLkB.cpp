// Streams over any ILockBytes. A stream keeps only a seek position and its own
// idea of where the stream ends; every byte lives in the lock-bytes, so clones
// and other streams on the same lock-bytes see each other's writes at once.
// Positions are 64-bit and wrap; the lock-bytes decides what it can address.
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/Stores.h>

#include "frame/HandOut.h"
#include "stores/StoreObject.h"

namespace xk::stores {

namespace {

// CopyTo moves its whole count through one buffer: small counts use one inside
// the call, larger ones one from the task allocator.
class CopyBuffer {
 public:
  static constexpr ULONG kInside = 512;

  explicit CopyBuffer(ULONG cb)
      : m_bytes(cb <= kInside ? m_inside : static_cast<BYTE*>(CoTaskMemAlloc(cb))) {}
  ~CopyBuffer() {
    if (m_bytes != m_inside) CoTaskMemFree(m_bytes);
  }
  CopyBuffer(const CopyBuffer&) = delete;
  CopyBuffer& operator=(const CopyBuffer&) = delete;

  BYTE* get() const { return m_bytes; }

 private:
  BYTE m_inside[kInside];
  BYTE* m_bytes;
};

// The lock-bytes' size as its Stat reports it, or 0 when it cannot say.
ULONGLONG SizeOf(ILockBytes* lockBytes) {
  STATSTG stat = {};
  if (FAILED(lockBytes->Stat(&stat, STATFLAG_NONAME))) return 0;
  CoTaskMemFree(stat.pwcsName);  // a foreign lock-bytes may name itself all the same
  return stat.cbSize.QuadPart;
}

template <class ThreadModel>
HRESULT MakeStream(ILockBytes* lockBytes, DWORD flags, ULONGLONG position, ULONGLONG size,
                   IStream** ppstm);

template <class ThreadModel>
class StreamOnLockBytes final : public StoreObject<IStream, ThreadModel, &IID_IStream> {
  using Base = StoreObject<IStream, ThreadModel, &IID_IStream>;

 public:
  StreamOnLockBytes(DWORD flags, ILockBytes* lockBytes, ULONGLONG position, ULONGLONG size)
      : Base(flags), m_lockBytes(lockBytes, true), m_position(position), m_size(size) {
    void* direct = nullptr;
    if (SUCCEEDED(lockBytes->QueryInterface(kIidContiguousBytes, &direct))) {
      m_direct = static_cast<ContiguousBytes*>(direct);
      lockBytes->Release();  // m_lockBytes keeps the store alive
    }
    m_lock =
        ChosenLock(m_direct && m_direct->StoreLock() ? m_direct->StoreLock() : this->OwnLock());
  }

  // What the lock-bytes returns is read: the stream's own end is not consulted.
  STDMETHODIMP Read(void* pv, ULONG cb, ULONG* pcbRead) override {
    MLLock<ChosenLock> guard(&m_lock);
    ULONG n = 0;
    const HRESULT hr =
        m_direct ? ReadInPlace(pv, cb, &n) : m_lockBytes->ReadAt(At(m_position), pv, cb, &n);
    if (SUCCEEDED(hr)) m_position += n;
    if (pcbRead) *pcbRead = SUCCEEDED(hr) ? n : 0;
    return hr;
  }

  STDMETHODIMP Write(const void* pv, ULONG cb, ULONG* pcbWritten) override {
    if (pcbWritten) *pcbWritten = 0;
    MLLock<ChosenLock> guard(&m_lock);
    // Writing past the end extends the stream to the position first.
    if (pv && m_position > m_size) {
      const HRESULT hr = SetSize(At(m_position));
      if (FAILED(hr)) return hr;
    }
    ULONG n = 0;
    const HRESULT hr = WriteAt(pv, cb, &n);
    if (FAILED(hr)) return hr;
    m_position += n;
    if (pv && m_position > m_size) m_size = m_position;
    if (pcbWritten) *pcbWritten = n;
    return S_OK;
  }

  // No check for a position before the start or past the end: the next read
  // or write finds out what the lock-bytes can address.
  STDMETHODIMP Seek(LARGE_INTEGER dlibMove, DWORD dwOrigin,
                    ULARGE_INTEGER* plibNewPosition) override {
    if (plibNewPosition) plibNewPosition->QuadPart = 0;
    MLLock<ChosenLock> guard(&m_lock);
    ULONGLONG origin;
    switch (dwOrigin) {
      case STREAM_SEEK_SET:
        origin = 0;
        break;
      case STREAM_SEEK_CUR:
        origin = m_position;
        break;
      case STREAM_SEEK_END:
        origin = m_size;
        break;
      default:
        return STG_E_INVALIDFUNCTION;
    }
    m_position = origin + static_cast<ULONGLONG>(dlibMove.QuadPart);
    if (plibNewPosition) plibNewPosition->QuadPart = m_position;
    return S_OK;
  }

  STDMETHODIMP SetSize(ULARGE_INTEGER libNewSize) override {
    MLLock<ChosenLock> guard(&m_lock);
    const HRESULT hr = m_lockBytes->SetSize(libNewSize);
    if (SUCCEEDED(hr)) m_size = libNewSize.QuadPart;
    return hr;
  }

  STDMETHODIMP CopyTo(IStream* pstm, ULARGE_INTEGER cb, ULARGE_INTEGER* pcbRead,
                      ULARGE_INTEGER* pcbWritten) override {
    if (pcbRead) pcbRead->QuadPart = 0;
    if (pcbWritten) pcbWritten->QuadPart = 0;
    if (!pstm) return E_POINTER;
    // The whole count goes through memory at once; "copy everything" idioms fail here.
    if (cb.QuadPart >= kAddressLimit) return STG_E_MEDIUMFULL;
    if (cb.LowPart > CopyBuffer::kInside && CopiesInPlaceTo(pstm))
      return CopyInPlace(pstm, cb.LowPart, pcbRead, pcbWritten);
    CopyBuffer buffer(cb.LowPart);
    if (!buffer.get()) return E_OUTOFMEMORY;

    MLLock<ChosenLock> guard(&m_lock);
    ULONG read = 0;
    HRESULT hr = Read(buffer.get(), cb.LowPart, &read);
    if (pcbRead) pcbRead->LowPart = read;
    if (FAILED(hr)) return hr;
    ULONG written = 0;
    hr = pstm->Write(buffer.get(), read, &written);
    if (pcbWritten) pcbWritten->LowPart = written;
    return hr;
  }

  // Committing merely to the disk cache is taken as done without a word to the lock-bytes.
  STDMETHODIMP Commit(DWORD grfCommitFlags) override {
    if (!(grfCommitFlags & STGC_DANGEROUSLYCOMMITMERELYTODISKCACHE)) m_lockBytes->Flush();
    return S_OK;
  }

  STDMETHODIMP Revert() override { return S_OK; }

  STDMETHODIMP LockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb, DWORD dwLockType) override {
    MLLock<ChosenLock> guard(&m_lock);
    return m_lockBytes->LockRegion(libOffset, cb, dwLockType);
  }

  STDMETHODIMP UnlockRegion(ULARGE_INTEGER libOffset, ULARGE_INTEGER cb,
                            DWORD dwLockType) override {
    MLLock<ChosenLock> guard(&m_lock);
    return m_lockBytes->UnlockRegion(libOffset, cb, dwLockType);
  }

  STDMETHODIMP Stat(STATSTG* pstatstg, DWORD grfStatFlag) override {
    MLLock<ChosenLock> guard(&m_lock);
    const HRESULT hr = m_lockBytes->Stat(pstatstg, grfStatFlag);
    if (SUCCEEDED(hr)) pstatstg->type = STGTY_STREAM;
    return hr;
  }

  // A clone is always of the locked form, whatever this stream's form.
  STDMETHODIMP Clone(IStream** ppstm) override {
    if (!ppstm) return E_POINTER;
    *ppstm = NULL;
    MLLock<ChosenLock> guard(&m_lock);
    return MakeStream<MultiThreaded>(m_lockBytes.get(), this->m_flags, m_position, m_size, ppstm);
  }

  STDMETHODIMP SaveToFile(LPCWSTR fileName, DWORD creationDisposition, DWORD reserved) override {
    MLRelItf<ISaveToFile> saver;
    if (FAILED(m_lockBytes->QueryInterface(IID_ISaveToFile, saver.put_void()))) return E_FAIL;
    return saver->SaveToFile(fileName, creationDisposition, reserved);
  }

 private:
  static ULARGE_INTEGER At(ULONGLONG offset) {
    ULARGE_INTEGER at;
    at.QuadPart = offset;
    return at;
  }

  ContiguousBytes* Contiguous() override { return m_direct; }

  // A target that is another of the library's streams, over another store,
  // cannot move or free this stream's buffer while it writes, so it is given
  // the bytes where they lie instead of a copy of the whole count.
  bool CopiesInPlaceTo(IStream* pstm) {
    void* target = nullptr;
    if (!m_direct || FAILED(pstm->QueryInterface(kIidContiguousBytes, &target))) return false;
    pstm->Release();
    return target != m_direct;
  }

  // CopyTo's read and write, with the read done in place.
  HRESULT CopyInPlace(IStream* pstm, ULONG cb, ULARGE_INTEGER* pcbRead,
                      ULARGE_INTEGER* pcbWritten) {
    MLLock<ChosenLock> guard(&m_lock);
    ULONG read = 0;
    // With no buffer of its own and cb above 512, only the range can be refused.
    HRESULT hr = CheckTransfer(m_position, pstm, cb, &read);
    if (FAILED(hr)) return hr;
    const BYTE* from = m_direct->ReadableAt(static_cast<ULONG>(m_position), cb, &read);
    m_position += read;
    if (pcbRead) pcbRead->LowPart = read;
    ULONG written = 0;
    hr = pstm->Write(from, read, &written);
    if (pcbWritten) pcbWritten->LowPart = written;
    return hr;
  }

  // ReadAt at the position on the library's own buffer, with ReadAt's results.
  HRESULT ReadInPlace(void* pv, ULONG cb, ULONG* pcbRead) {
    const HRESULT checked = CheckTransfer(m_position, pv, cb, pcbRead);
    if (checked != S_OK) return checked == kNothingToDo ? S_OK : checked;
    *pcbRead = m_direct->ReadInPlace(static_cast<ULONG>(m_position), pv, cb);
    return S_OK;
  }

  // WriteAt at the position; in place when the buffer already holds the range.
  HRESULT WriteAt(const void* pv, ULONG cb, ULONG* pcbWritten) {
    if (m_direct && CheckTransfer(m_position, pv, cb, pcbWritten) == S_OK &&
        m_direct->WriteInPlace(static_cast<ULONG>(m_position), pv, cb)) {
      *pcbWritten = cb;
      return S_OK;
    }
    return m_lockBytes->WriteAt(At(m_position), pv, cb, pcbWritten);
  }

  // The last reference flushes the lock-bytes once, whether or not anything was written.
  void FinalRelease() override { m_lockBytes->Flush(); }

  MLRelItf<ILockBytes> m_lockBytes;  // read-only after construction
  // read-only after construction: the store itself when it is one of the
  // library's contiguous stores, whose buffer the stream then reads and writes
  ContiguousBytes* m_direct = nullptr;
  // read-only after construction: what guards the fields below. A stream in a
  // locking store's buffer takes the store's lock instead of its own, so a
  // transfer costs one lock round trip rather than two; otherwise its own lock
  // (none in the unlocked form).
  ChosenLock m_lock;
  ULONGLONG m_position;  // (lock)
  ULONGLONG m_size;      // (lock) the stream's end, for STREAM_SEEK_END and Write
};

template <class ThreadModel>
HRESULT MakeStream(ILockBytes* lockBytes, DWORD flags, ULONGLONG position, ULONGLONG size,
                   IStream** ppstm) {
  return HandOut(new StreamOnLockBytes<ThreadModel>(flags, lockBytes, position, size), IID_IStream,
                 reinterpret_cast<void**>(ppstm));
}

HRESULT CreateStream(ILockBytes* plkbyt, DWORD flags, IStream** ppstm) {
  if (!plkbyt || !ppstm) return E_POINTER;
  *ppstm = NULL;
  return WithThreadModel(flags, [&](auto model) {
    return MakeStream<decltype(model)>(plkbyt, flags, 0, SizeOf(plkbyt), ppstm);
  });
}

}  // namespace

}  // namespace xk::stores

using namespace xk::stores;

// ---- CreateStreamOnLockBytes -------------------------------------------------
extern "C" HRESULT WINAPI CreateStreamOnLockBytes(ILockBytes* plkbyt, DWORD flags,
                                                  IStream** ppstm) {
  if (flags & ~static_cast<DWORD>(QVCLBOMF_NOLOCK)) return E_INVALIDARG;
  if (!plkbyt) return E_POINTER;
  // The lock-bytes is asked how it locks, but the caller's flags alone choose
  // the stream's form: a locked stream over an unlocked store is the caller's call.
  xk::MLRelItf<IThreadingInfo> info;
  if (SUCCEEDED(plkbyt->QueryInterface(IID_IThreadingInfo, info.put_void()))) {
    DWORD model;
    info->GetThreadingModel(&model);
  }
  return CreateStream(plkbyt, flags, ppstm);
}

// ---- CreateStreamOnMemory ----------------------------------------------------
extern "C" HRESULT WINAPI CreateStreamOnMemory(void* pv, ULONG si, DWORD flags,
                                               ULONG_PTR allocSource, IStream** ppstm) {
  if (!ppstm) return E_POINTER;
  *ppstm = NULL;
  xk::MLRelItf<ILockBytes> store;
  const HRESULT hr = CreateLockBytesOnMemory(pv, si, flags, allocSource, store.put());
  if (FAILED(hr)) return hr;
  return CreateStream(store.get(), flags, ppstm);  // the stream now holds the only reference
}
