// The limit a loader puts on counts read from a stream.
#include "persist/RecordIO.h"

namespace xk::persist {

HRESULT CheckStreamCanHold(IStream* stream, ULONG count) {
  if (count <= kCountTakenOnTrust) return S_OK;
  STATSTG stat = {};
  ULARGE_INTEGER here = {};
  LARGE_INTEGER zero = {};
  if (FAILED(stream->Stat(&stat, STATFLAG_NONAME))) return kInvalidRecord;
  if (FAILED(stream->Seek(zero, STREAM_SEEK_CUR, &here))) return kInvalidRecord;
  const ULONGLONG size = stat.cbSize.QuadPart;
  return (here.QuadPart <= size && size - here.QuadPart >= count) ? S_OK : kInvalidRecord;
}

}  // namespace xk::persist
