// Byte stores: ILockBytes over memory (a growable buffer from an allocator, one
// fixed caller buffer, or a list of caller buffers that form one address
// space) and over a registry key, IStream over any ILockBytes, and the sizes
// of structured storages.
//
// A store or stream made with QVCLBOMF_NOLOCK does no locking of its own and
// must be used from one thread at a time; every other one may be shared. When a
// stream calls its store while holding its own lock, the order is always
// stream, then store.
#pragma once

#include <xkcombsd/MIAtor.h>
#include <xkcombsd/XKApi.h>

// Flags of CreateLockBytesOnMemory; the low four bits choose the kind of store.
// QVCLBOMF_SPARE lets a growable store's buffer hold more than its size (it
// doubles, by at most 64 MiB at a time); every answer still follows the size.
// The other kinds refuse it with E_INVALIDARG.
#define QVCLBOMF_TYPEMASK      0x0F
#define QVCLBOMF_HGLOBAL       0x01   // the platform's store on an HGLOBAL
#define QVCLBOMF_TASKALLOCATOR 0x02   // growable buffer from the task allocator
#define QVCLBOMF_PRIVATEHEAP   0x03   // growable buffer from a private heap
#define QVCLBOMF_ALLOCATOR     0x04   // growable buffer from the caller's IAllocator
#define QVCLBOMF_FIXEDBLOCK    0x05   // one fixed caller buffer
#define QVCLBOMF_BLOCKLIST     0x06   // a list of fixed caller buffers (LOCKBYTESBLOCK[])
#define QVCLBOMF_SIMAX         0x10   // si is the maximum size
#define QVCLBOMF_NOFREE        0x20   // the buffer outlives the store
#define QVCLBOMF_ADOPT         0x40   // the store takes over the caller's reference or heap
#define QVCLBOMF_SIINIT        0x80   // si is the initial size
#define QVCLBOMF_NOLOCK        0x100  // no internal locking: one thread at a time
#define QVCLBOMF_SPARE         0x200  // growable kinds: spare capacity, for appends in constant time

// One caller buffer of a block-list store. The array has no terminator: it is
// read only as far as the running total of cb reaches the store's size.
typedef struct LOCKBYTESBLOCK {
  ULONG cb;  // bytes in the block, non-zero
  void* pv;  // the block, not NULL
} LOCKBYTESBLOCK;

// Answered by the stores and streams: whether the object locks internally.
// GetThreadingModel gives 3 for the locked form and 0 for QVCLBOMF_NOLOCK.
#undef INTERFACE
#define INTERFACE IThreadingInfo
DECLARE_INTERFACE_(IThreadingInfo, IUnknown) {
  STDMETHOD(QueryInterface)(THIS_ REFIID riid, void** ppv) PURE;
  STDMETHOD_(ULONG, AddRef)(THIS) PURE;
  STDMETHOD_(ULONG, Release)(THIS) PURE;
  STDMETHOD(GetThreadingModel)(THIS_ DWORD* pModel) PURE;
};
#undef INTERFACE

// Writes a contiguous store's bytes to a file (CreateFileW with the given
// creation disposition). A failed save deletes the file only if it made it.
#define INTERFACE ISaveToFile
DECLARE_INTERFACE_(ISaveToFile, IUnknown) {
  STDMETHOD(QueryInterface)(THIS_ REFIID riid, void** ppv) PURE;
  STDMETHOD_(ULONG, AddRef)(THIS) PURE;
  STDMETHOD_(ULONG, Release)(THIS) PURE;
  STDMETHOD(SaveToFile)(THIS_ LPCWSTR fileName, DWORD creationDisposition, DWORD reserved) PURE;
};
#undef INTERFACE

// allocSource by kind: 2 an IMalloc* or 0 (the process task allocator), 3 a
// heap handle or 0 (a new private heap), 4 the caller's IAllocator*; 0 for the
// other kinds.
XK_EXTERN_C HRESULT XKAPI CreateLockBytesOnMemory(void* pv, ULONG si, DWORD flags,
                                                  ULONG_PTR allocSource, ILockBytes** pplb);
XK_EXTERN_C HRESULT XKAPI CreateStreamOnLockBytes(ILockBytes* plkbyt, DWORD flags,
                                                  IStream** ppstm);
XK_EXTERN_C HRESULT XKAPI CreateStreamOnMemory(void* pv, ULONG si, DWORD flags,
                                               ULONG_PTR allocSource, IStream** ppstm);

// A store whose bytes stay in memory until Flush writes all of them as the
// default REG_BINARY value of root\subKey (opened with KEY_ALL_ACCESS). It
// starts empty, whatever the key holds, and is never flushed implicitly (a
// stream over it flushes it when the stream goes). cbMax 0: no maximum.
XK_EXTERN_C HRESULT XKAPI CreateLockBytesOnRegKey(HKEY hkeyRoot, LPCWSTR subKey, ULONG cbMax,
                                                  ILockBytes** pplb);

// The bytes a storage's streams need, each rounded up to 512, through every
// sub-storage; -1 on failure (and for totals of 2^31 or more: negative).
XK_EXTERN_C LONG XKAPI Stg_GetSize(IStorage* pstg);
// A compound file's size on disk and Stg_GetSize of its contents; both 0 on
// every failure.
XK_EXTERN_C HRESULT XKAPI Stg_FileGetSizes(LPCWSTR fileName, ULONG* pcbFile, LONG* pcbStorage);
