// Keeps a stream consistent when a record cannot be written or read in full:
// the seek position found on entry is restored on the way out unless the
// record function committed. Bytes already written stay beyond that position.
#pragma once

#include <objidl.h>

namespace xk::persist {

class StreamPositionGuard {
 public:
  explicit StreamPositionGuard(IStream* stream) : m_stream(stream) {
    // The array placeholders arm a guard on whatever stream they are given.
    if (!stream) return;
    LARGE_INTEGER zero = {};
    ULARGE_INTEGER here = {};
    m_state = stream->Seek(zero, STREAM_SEEK_CUR, &here);
    m_position = here.QuadPart;
  }

  ~StreamPositionGuard() {
    if (!Armed()) return;
    LARGE_INTEGER back;
    back.QuadPart = static_cast<LONGLONG>(m_position);
    m_stream->Seek(back, STREAM_SEEK_SET, nullptr);  // nothing better to do if it fails
  }

  StreamPositionGuard(const StreamPositionGuard&) = delete;
  StreamPositionGuard& operator=(const StreamPositionGuard&) = delete;

  // The record is complete: the stream stays where the record left it.
  void Commit() { m_state = E_ABORT; }
  bool Armed() const { return SUCCEEDED(m_state); }

 private:
  // read-only after construction; the caller's reference outlives the record,
  // so the guard takes none of its own (a record is a handful of calls)
  IStream* m_stream;
  ULONGLONG m_position = 0;  // read-only after construction
  // The recording seek's result; a failed recording never arms the guard.
  HRESULT m_state = E_POINTER;
};

}  // namespace xk::persist
