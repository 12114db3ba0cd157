// Reading and writing the fixed parts of a record, and the checks a loader
// makes before it believes a count taken from the stream.
#pragma once

#include <objidl.h>

namespace xk::persist {

// The answer to a record that no saver of this library writes (an OLE-string
// count that cannot hold whole characters and a terminator, an OLE string that
// does not end in its terminator, a count the stream cannot back): the data is
// invalid, whatever the stream itself reports.
constexpr HRESULT kInvalidRecord = static_cast<HRESULT>(0x80070000u | ERROR_INVALID_DATA);

// Loaders never ask Read how many bytes it gave: a read the stream reports as a
// success is taken as complete. They zero their buffers first, so bytes a short
// read did not supply read as zero rather than as whatever memory held.
inline HRESULT ReadRecordBytes(IStream* stream, void* buffer, ULONG count) {
  return stream->Read(buffer, count, nullptr);
}

inline HRESULT WriteRecordBytes(IStream* stream, const void* buffer, ULONG count) {
  return stream->Write(buffer, count, nullptr);
}

// Record integers are little-endian, as memory holds them on every target this
// library is built for.
inline HRESULT ReadUInt32(IStream* stream, ULONG* value) {
  *value = 0;
  return ReadRecordBytes(stream, value, sizeof *value);
}

inline HRESULT WriteUInt32(IStream* stream, ULONG value) {
  return WriteRecordBytes(stream, &value, sizeof value);
}

// A count is believed without asking up to this many bytes. A larger one is
// allocated only when the stream shows (Stat) that many bytes after the current
// position, so a garbage count never makes a loader reserve gigabytes; a stream
// that cannot say is refused such a count.
constexpr ULONG kCountTakenOnTrust = 1u << 20;

HRESULT CheckStreamCanHold(IStream* stream, ULONG count);

// The BSTR record inside a record whose own position guard already covers it:
// BSTR_SaveToStream and BSTR_LoadFromStream without a second guard.
HRESULT SaveBstrRecord(IStream* stream, BSTR text);
HRESULT LoadBstrRecord(IStream* stream, BSTR* loaded);

}  // namespace xk::persist
