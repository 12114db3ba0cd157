// FixedMemoryStream: an IStream over a caller's block of fixed size, through
// which the proxy/stub pair marshals and unmarshals interface references inside
// a message buffer. It lives on the caller's stack for one step and is never
// freed through Release; its count only proves that whoever borrowed it gave
// every reference back. One thread at a time.
//
// A transfer that meets the end is short, not failed: only one that starts at
// or past the end answers STG_E_MEDIUMFULL, which is what tells the stub's
// reply loop to try a larger buffer.
#pragma once

#include <objbase.h>
#include <xkcombsd/XKAssert.h>

#include "frame/HandOut.h"
#include "frame/RuntimePrimitives.h"

namespace xk::marshal {

class FixedMemoryStream final : public IStream {
 public:
  FixedMemoryStream(void* block, ULONG cb)
      : m_base(static_cast<BYTE*>(block)), m_end(m_base + cb), m_position(m_base) {}
  ~FixedMemoryStream() { Verify(m_refs == 1, {"MOStmFix", 207, "m_refs == 1"}); }
  FixedMemoryStream(const FixedMemoryStream&) = delete;
  FixedMemoryStream& operator=(const FixedMemoryStream&) = delete;

  // ---- IUnknown
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    return xk::QueryFace(static_cast<IStream*>(this), iid, ppv, IID_IStream, IID_ISequentialStream);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_refs; }
  STDMETHODIMP_(ULONG) Release() override { return --m_refs; }  // the stack owns the memory

  // ---- ISequentialStream
  STDMETHODIMP Read(void* pv, ULONG cb, ULONG* pcbRead) override {
    return Transfer(pv, cb, pcbRead, [&](ULONG n) { MemCopy(pv, m_position, n); });
  }

  STDMETHODIMP Write(const void* pv, ULONG cb, ULONG* pcbWritten) override {
    return Transfer(pv, cb, pcbWritten, [&](ULONG n) { MemCopy(m_position, pv, n); });
  }

  // ---- IStream
  STDMETHODIMP Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* newPosition) override {
    if (newPosition) newPosition->QuadPart = 0;
    ULONGLONG from;
    switch (origin) {
      case STREAM_SEEK_SET:
        from = 0;
        break;
      case STREAM_SEEK_CUR:
        from = static_cast<ULONGLONG>(m_position - m_base);
        break;
      case STREAM_SEEK_END:
        from = Size();
        break;
      default:
        return STG_E_INVALIDFUNCTION;
    }
    // Unsigned arithmetic: a target before the start wraps to a huge offset.
    const ULONGLONG target = from + static_cast<ULONGLONG>(move.QuadPart);
    if (target > 0xFFFFFFFFull || target > Size()) return STG_E_MEDIUMFULL;
    m_position = m_base + target;
    if (newPosition) newPosition->QuadPart = target;
    return S_OK;
  }

  STDMETHODIMP SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
  STDMETHODIMP CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override {
    return E_NOTIMPL;
  }
  STDMETHODIMP Commit(DWORD) override { return E_NOTIMPL; }
  STDMETHODIMP Revert() override { return E_NOTIMPL; }
  STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override {
    return STG_E_INVALIDFUNCTION;
  }
  STDMETHODIMP Clone(IStream**) override { return E_NOTIMPL; }

  // The times are left zero: a block in a message buffer has no history.
  STDMETHODIMP Stat(STATSTG* stat, DWORD flag) override {
    if (!stat) return E_POINTER;
    if (flag != STATFLAG_DEFAULT && flag != STATFLAG_NONAME) return E_INVALIDARG;
    MemFill(stat, 0, sizeof *stat);
    if (flag == STATFLAG_DEFAULT) {
      stat->pwcsName = static_cast<LPOLESTR>(CoTaskMemAlloc(sizeof(OLECHAR)));
      if (!stat->pwcsName) return E_OUTOFMEMORY;
      stat->pwcsName[0] = 0;
    }
    stat->type = STGTY_STREAM;
    stat->cbSize.QuadPart = Size();
    return S_OK;
  }

  ULONG RefCount() const { return m_refs; }

 private:
  ULONGLONG Size() const { return static_cast<ULONGLONG>(m_end - m_base); }

  // Either direction: copy(n) moves n bytes at the position, at most what is left.
  template <class Copy>
  HRESULT Transfer(const void* pv, ULONG cb, ULONG* pcbDone, Copy copy) {
    if (pcbDone) *pcbDone = 0;
    if (!pv) return E_POINTER;
    if (m_position >= m_end) return STG_E_MEDIUMFULL;
    const size_t left = static_cast<size_t>(m_end - m_position);
    const ULONG n = cb < left ? cb : static_cast<ULONG>(left);
    copy(n);
    m_position += n;
    if (pcbDone) *pcbDone = n;
    return S_OK;
  }

  // All read-only but m_position and m_refs, which only the owning thread changes.
  BYTE* const m_base;
  BYTE* const m_end;
  BYTE* m_position;
  ULONG m_refs = 1;
};

}  // namespace xk::marshal
