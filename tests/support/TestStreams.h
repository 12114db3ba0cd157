// Streams for record tests: the platform's memory stream with helpers to fill
// and inspect it, and FaultyStream, which wraps one and fails on demand (the Nth
// Read or Write) or fails a short read, so that every failure path of a record
// function can be reached. Header-only.
#pragma once

#include <objbase.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace xktest {

using Bytes = std::vector<unsigned char>;

// Owns one reference.
template <class T>
class ComRef {
 public:
  ComRef() = default;
  explicit ComRef(T* adopted) : m_p(adopted) {}
  ~ComRef() { Reset(); }
  ComRef(const ComRef&) = delete;
  ComRef& operator=(const ComRef&) = delete;
  T* get() const { return m_p; }
  T* operator->() const { return m_p; }
  T** put() {
    Reset();
    return &m_p;
  }
  void Reset() {
    if (m_p) m_p->Release();
    m_p = nullptr;
  }

 private:
  T* m_p = nullptr;
};

inline ULONGLONG PositionOf(IStream* stream) {
  LARGE_INTEGER zero = {};
  ULARGE_INTEGER here = {};
  stream->Seek(zero, STREAM_SEEK_CUR, &here);
  return here.QuadPart;
}

inline void SeekTo(IStream* stream, ULONGLONG position) {
  LARGE_INTEGER to;
  to.QuadPart = static_cast<LONGLONG>(position);
  stream->Seek(to, STREAM_SEEK_SET, nullptr);
}

// A platform memory stream holding content, positioned at its start.
inline IStream* NewMemoryStream(const Bytes& content = {}) {
  IStream* stream = nullptr;
  if (FAILED(CreateStreamOnHGlobal(nullptr, TRUE, &stream))) return nullptr;
  if (!content.empty()) stream->Write(content.data(), static_cast<ULONG>(content.size()), nullptr);
  SeekTo(stream, 0);
  return stream;
}

// Everything a memory stream holds, whatever its position.
inline Bytes ContentOf(IStream* stream) {
  STATSTG stat = {};
  HGLOBAL memory = nullptr;
  if (FAILED(stream->Stat(&stat, STATFLAG_NONAME)) || FAILED(GetHGlobalFromStream(stream, &memory)))
    return {};
  const auto* data = static_cast<const unsigned char*>(GlobalLock(memory));
  Bytes content(data, data + stat.cbSize.QuadPart);
  GlobalUnlock(memory);
  return content;
}

inline Bytes Concat(Bytes first, const Bytes& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

// The little-endian bytes of a 32-bit value, as records carry their counts.
inline Bytes LittleEndian32(unsigned long value) {
  return {static_cast<unsigned char>(value), static_cast<unsigned char>(value >> 8),
          static_cast<unsigned char>(value >> 16), static_cast<unsigned char>(value >> 24)};
}

class FaultyStream : public IStream {
 public:
  enum Op { kRead, kWrite, kOps };

  explicit FaultyStream(const Bytes& content = {}) : m_inner(NewMemoryStream(content)) {}

  // The nth call of op from now on (1 = the next) answers failure without
  // reaching the memory stream.
  void FailNth(Op op, int n, HRESULT failure) {
    m_failAt[op] = m_calls[op] + n;
    m_failure[op] = failure;
  }
  // From now on a Read that finds fewer bytes than asked answers failure, as a
  // stream that reports truncation does.
  void FailShortReads(HRESULT failure) { m_shortReadFailure = failure; }

  IStream* Inner() const { return m_inner.get(); }
  ULONGLONG Position() const { return PositionOf(Inner()); }
  LONG References() const { return m_refs; }

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (iid == IID_IUnknown || iid == IID_ISequentialStream || iid == IID_IStream) {
      *ppv = static_cast<IStream*>(this);
      AddRef();
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_refs); }
  STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--m_refs); }

  STDMETHODIMP Read(void* pv, ULONG cb, ULONG* pcbRead) override {
    if (const HRESULT failure = Failure(kRead); FAILED(failure)) return failure;
    ULONG got = 0;
    const HRESULT hr = m_inner->Read(pv, cb, &got);
    if (pcbRead) *pcbRead = got;
    if (FAILED(hr)) return hr;
    return got < cb && FAILED(m_shortReadFailure) ? m_shortReadFailure : hr;
  }
  STDMETHODIMP Write(const void* pv, ULONG cb, ULONG* pcbWritten) override {
    if (const HRESULT failure = Failure(kWrite); FAILED(failure)) return failure;
    return m_inner->Write(pv, cb, pcbWritten);
  }
  STDMETHODIMP Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* newPosition) override {
    return m_inner->Seek(move, origin, newPosition);
  }
  STDMETHODIMP Stat(STATSTG* stat, DWORD flags) override { return m_inner->Stat(stat, flags); }
  STDMETHODIMP SetSize(ULARGE_INTEGER size) override { return m_inner->SetSize(size); }
  STDMETHODIMP CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override {
    return E_NOTIMPL;
  }
  STDMETHODIMP Commit(DWORD) override { return S_OK; }
  STDMETHODIMP Revert() override { return E_NOTIMPL; }
  STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP Clone(IStream** clone) override {
    *clone = nullptr;
    return E_NOTIMPL;
  }

 private:
  // Counts the call; the failure it is to answer, or S_OK.
  HRESULT Failure(Op op) { return ++m_calls[op] == m_failAt[op] ? m_failure[op] : S_OK; }

  ComRef<IStream> m_inner;
  LONG m_refs = 1;
  int m_calls[kOps] = {};
  int m_failAt[kOps] = {};
  HRESULT m_failure[kOps] = {};
  HRESULT m_shortReadFailure = S_OK;
};

}  // namespace xktest
