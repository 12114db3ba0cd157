// The in-process packet of the free-threaded marshaler and its unmarshaler: the
// interface pointer itself, pointer-sized and in native byte order, carrying
// one reference that whoever consumes the packet releases. Both sides read it
// the same way, so it is read here and nowhere else.
#pragma once

#include <objbase.h>
#include <xkcombsd/MLRelItf.h>

namespace xk::marshal {

constexpr ULONG kPacketBytes = sizeof(IUnknown*);

// Only this destination shares the object's address space.
inline bool IsInProcess(DWORD destContext) { return destContext == MSHCTX_INPROC; }

// The packet's pointer, now owned by packet. A short read counts as no packet
// (E_FAIL) as a failed one does: a memory stream answers S_OK with fewer bytes,
// and half a pointer must never be released.
inline HRESULT ReadPacket(IStream* stream, MLRelItf<IUnknown>& packet) {
  IUnknown* p = nullptr;
  ULONG read = 0;
  if (stream->Read(&p, kPacketBytes, &read) != S_OK || read != kPacketBytes) return E_FAIL;
  *packet.put() = p;
  return S_OK;
}

// Both sides' ReleaseMarshalData: the packet's reference goes.
inline HRESULT ReleasePacket(IStream* stream) {
  if (!stream) return E_POINTER;
  MLRelItf<IUnknown> packet;
  return ReadPacket(stream, packet);
}

}  // namespace xk::marshal
