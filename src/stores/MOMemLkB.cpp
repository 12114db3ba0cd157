// Memory lock-bytes: the six kinds of CreateLockBytesOnMemory. A growable
// store owns exactly one buffer of exactly m_si bytes (or none) from its
// allocator: growth is exact, with no spare capacity, and grown bytes are not
// cleared. With QVCLBOMF_SPARE the buffer may hold more than m_si bytes, and
// only the allocations change: every answer still follows m_si. A fixed store (one caller buffer,
// or a list of them) only moves its size between 0 and the caller's size. Every store addresses 32
// bits.
#include <xkcombsd/ScopedValue.h>
#include <xkcombsd/Stores.h>

#include <utility>

#include "frame/HandOut.h"
#include "frame/Win32Error.h"
#include "stores/Allocators.h"
#include "stores/StoreObject.h"

namespace xk::stores {

namespace {

constexpr char kSource[] = "MOMemLkB";

// First line of the three size invariants of a fixed store's SetSize.
constexpr int kContiguousSizeChecks = 497;
constexpr int kBlockListSizeChecks = 1048;

// QVCLBOMF_SPARE doubles the buffer, from this many bytes, but never adds more
// than kLargestSpare at once: a store of hundreds of megabytes does not reserve
// as much again. Left to us; these keep the spare below half the buffer once
// it is large and the number of reallocations logarithmic below that.
constexpr ULONG kSmallestBuffer = 64;
constexpr ULONG kLargestSpare = 64u << 20;

// The ILockBytes contract both store classes keep; Derived supplies the bytes
// (CopyOut, CopyIn) and the change of size (Resize), called under the lock
// with every argument already checked.
template <class Derived, class ThreadModel, class Size>
class MemoryStore : public StoreObject<LockBytesWithoutRegions, ThreadModel, &IID_ILockBytes>,
                    public Size {
 public:
  STDMETHODIMP ReadAt(ULARGE_INTEGER ulOffset, void* pv, ULONG cb, ULONG* pcbRead) override {
    const HRESULT checked = CheckTransfer(ulOffset.QuadPart, pv, cb, pcbRead);
    if (checked != S_OK) return checked == kNothingToDo ? S_OK : checked;
    auto guard = this->Locked();
    const ULONG offset = ulOffset.LowPart;
    const ULONG n = offset >= this->m_si ? 0 : Smaller(cb, this->m_si - offset);
    if (n) Self().CopyOut(offset, static_cast<BYTE*>(pv), n);
    if (pcbRead) *pcbRead = n;
    return S_OK;
  }

  STDMETHODIMP WriteAt(ULARGE_INTEGER ulOffset, const void* pv, ULONG cb,
                       ULONG* pcbWritten) override {
    const HRESULT checked = CheckTransfer(ulOffset.QuadPart, pv, cb, pcbWritten);
    if (checked != S_OK) return checked == kNothingToDo ? S_OK : checked;
    auto guard = this->Locked();
    const ULONG offset = ulOffset.LowPart;
    const ULONG end = offset + cb;
    if (end > this->m_si) {
      ULARGE_INTEGER size;
      size.QuadPart = end;
      const HRESULT hr = SetSize(size);
      if (FAILED(hr)) return hr;  // nothing written
    }
    Self().CopyIn(offset, static_cast<const BYTE*>(pv), cb);
    if (pcbWritten) *pcbWritten = cb;
    return S_OK;
  }

  STDMETHODIMP Flush() override { return S_OK; }

  STDMETHODIMP SetSize(ULARGE_INTEGER cb) override {
    if (cb.QuadPart >= kAddressLimit) return STG_E_MEDIUMFULL;
    auto guard = this->Locked();
    if (m_max && cb.LowPart > m_max) return STG_E_MEDIUMFULL;
    if (cb.LowPart == this->m_si) return S_OK;
    return Self().Resize(cb.LowPart);
  }

  // The store has no name to give, so a caller must say it wants none.
  STDMETHODIMP Stat(STATSTG* pstatstg, DWORD grfStatFlag) override {
    if (!pstatstg) return STG_E_INVALIDPOINTER;
    if (!(grfStatFlag & STATFLAG_NONAME)) return STG_E_INVALIDFLAG;
    auto guard = this->Locked();
    *pstatstg = STATSTG{};
    pstatstg->type = STGTY_LOCKBYTES;
    pstatstg->cbSize.QuadPart = this->m_si;
    return S_OK;
  }

 protected:
  using StoreObject<LockBytesWithoutRegions, ThreadModel, &IID_ILockBytes>::StoreObject;

  // The memory is the caller's and fixed: only the size moves, within m_max.
  HRESULT ResizeFixed(ULONG siNew, int firstCheckLine) {
    Verify(m_max > 0, {kSource, firstCheckLine, "m_max > 0"});
    Verify(siNew <= m_max, {kSource, firstCheckLine + 1, "siNew <= m_max"});
    Verify(this->m_si <= m_max, {kSource, firstCheckLine + 2, "m_si <= m_max"});
    this->m_si = siNew;
    return S_OK;
  }

  ULONG m_max = 0;  // read-only after initialisation; 0 = no maximum

 private:
  Derived& Self() { return static_cast<Derived&>(*this); }
};

// ---- one contiguous buffer: growable (kinds 2 to 4) or the caller's (kind 5) ----

template <class ThreadModel>
class MemoryLockBytes final
    : public MemoryStore<MemoryLockBytes<ThreadModel>, ThreadModel, ContiguousBytes> {
  using Base = MemoryStore<MemoryLockBytes<ThreadModel>, ThreadModel, ContiguousBytes>;
  friend Base;

 public:
  // Takes over the creator's reference to allocator (empty for a caller's buffer).
  MemoryLockBytes(DWORD flags, MLRelItf<IAllocator>&& allocator)
      : Base(flags), m_allocator(std::move(allocator)) {
    this->m_storeLock = this->OwnLock();
  }

  ContiguousBytes* Contiguous() override { return this; }

  HRESULT Initialise(void* pv, ULONG siInitial, ULONG siMax) {
    if (!m_allocator && (!pv || siInitial == 0)) return E_INVALIDARG;
    this->m_buffer = static_cast<BYTE*>(pv);
    this->m_max = siMax;
    if (pv || siInitial == 0) {
      this->m_si = siInitial;
      this->m_capacity = m_allocator ? siInitial : siMax;
      return S_OK;
    }
    ULARGE_INTEGER size;
    size.QuadPart = siInitial;
    return this->SetSize(size);  // the first buffer
  }

  // Writes all m_si bytes with one WriteFile. Only a file this call created
  // is deleted when the save fails; a file that was there stays.
  STDMETHODIMP SaveToFile(LPCWSTR fileName, DWORD creationDisposition, DWORD) override {
    if (!fileName || !*fileName) return E_INVALIDARG;
    const bool existed = GetFileAttributesW(fileName) != INVALID_FILE_ATTRIBUTES;
    ScopedFile file(CreateFileW(fileName, GENERIC_WRITE, 0, NULL, creationDisposition, 0, NULL));
    if (file.get() == INVALID_HANDLE_VALUE) return HResultFromLastError();
    HRESULT hr = S_OK;
    {
      auto guard = this->Locked();
      // An empty store has no buffer; WriteFile still wants a readable address.
      BYTE none = 0;
      DWORD written = 0;
      BYTE* bytes = this->m_buffer ? this->m_buffer : &none;
      if (!WriteFile(file.get(), bytes, this->m_si, &written, NULL)) hr = HResultFromLastError();
    }
    file.Reset();  // closed before a failed save may delete it
    if (FAILED(hr) && !existed) DeleteFileW(fileName);
    return hr;
  }

 private:
  ~MemoryLockBytes() override {
    if (m_allocator && this->m_buffer && !(this->m_flags & QVCLBOMF_NOFREE))
      m_allocator->Free(this->m_buffer);
  }

  void CopyOut(ULONG offset, BYTE* to, ULONG n) { MemCopy(to, this->m_buffer + offset, n); }
  void CopyIn(ULONG offset, const BYTE* from, ULONG n) {
    MemCopy(this->m_buffer + offset, from, n);
  }

  HRESULT Resize(ULONG siNew) {
    if (!m_allocator) return this->ResizeFixed(siNew, kContiguousSizeChecks);
    if (siNew == 0) {
      m_allocator->Realloc(this->m_buffer, 0);  // frees
      this->m_buffer = NULL;
      this->m_si = this->m_capacity = 0;
      return S_OK;
    }
    const bool spare = (this->m_flags & QVCLBOMF_SPARE) != 0;
    if (spare && siNew <= this->m_capacity) {
      this->m_si = siNew;  // shrinking keeps the buffer, as growing back will want it
      return S_OK;
    }
    ULONG capacity = spare ? SpareCapacity(siNew) : siNew;
    void* grown = m_allocator->Realloc(this->m_buffer, capacity);
    // Short of memory for the spare bytes, the store still grows exactly.
    if (!grown && capacity != siNew) grown = m_allocator->Realloc(this->m_buffer, capacity = siNew);
    if (!grown) return STG_E_MEDIUMFULL;  // the old buffer is intact
    this->m_buffer = static_cast<BYTE*>(grown);
    this->m_capacity = capacity;
    this->m_si = siNew;
    return S_OK;
  }

  // Room for at least siNew bytes: the buffer doubled, within kLargestSpare,
  // the maximum size and the 32-bit range.
  ULONG SpareCapacity(ULONG siNew) const {
    const ULONGLONG limit = this->m_max ? this->m_max : kAddressLimit - 1;
    const ULONGLONG old = this->m_capacity;
    ULONGLONG capacity = old + (old < kLargestSpare ? old : kLargestSpare);
    if (capacity < kSmallestBuffer) capacity = kSmallestBuffer;
    if (capacity < siNew) capacity = siNew;
    return static_cast<ULONG>(capacity < limit ? capacity : limit);
  }

  MLRelItf<IAllocator> m_allocator;  // read-only after construction; empty for kind 5
};

// ---- a list of caller buffers forming one address space (kind 6) ----

template <class ThreadModel>
class BlockLockBytes final
    : public MemoryStore<BlockLockBytes<ThreadModel>, ThreadModel, StoreSize> {
  using Base = MemoryStore<BlockLockBytes<ThreadModel>, ThreadModel, StoreSize>;
  friend Base;

 public:
  explicit BlockLockBytes(DWORD flags) : Base(flags) {}

  HRESULT Initialise(const LOCKBYTESBLOCK* begin, const LOCKBYTESBLOCK* end, ULONG siInitial,
                     ULONG siMax) {
    Verify(begin != NULL, {kSource, 743, "begin != NULL"});
    Verify(end != NULL, {kSource, 744, "end != NULL"});
    Verify(siMax != 0, {kSource, 745, "siMax != 0"});
    Verify(siInitial <= siMax, {kSource, 746, "siInitial <= siMax"});
    if (!begin || !end || end - begin < 1) return E_INVALIDARG;

    const SIZE_T count = static_cast<SIZE_T>(end - begin);
    m_blocks = static_cast<Block*>(GlobalAlloc(GMEM_FIXED, count * sizeof(Block)));
    if (!m_blocks) return E_OUTOFMEMORY;
    m_blocksEnd = m_blocks + count;
    ULONGLONG total = 0;
    for (SIZE_T i = 0; i < count; ++i) {
      total += begin[i].cb;
      m_blocks[i] = Block{begin[i].cb, static_cast<BYTE*>(begin[i].pv), total};
    }
    this->m_max = siMax;
    this->m_si = siInitial;
    return S_OK;
  }

  STDMETHODIMP SaveToFile(LPCWSTR, DWORD, DWORD) override { return E_NOTIMPL; }

 private:
  struct Block {
    ULONG cb;
    BYTE* pv;
    ULONGLONG end;  // offset one past the block; 64-bit because the last block may reach past 4 GiB
  };

  ~BlockLockBytes() override {
    if (m_blocks) GlobalFree(m_blocks);  // the caller's blocks are never freed
  }

  // Calls copy(block bytes, offset into the caller's buffer, count) for each
  // piece of [offset, offset + cb); returns the bytes covered. A transfer that
  // starts exactly at a block's end takes nothing from that block.
  template <class Copy>
  ULONG Walk(ULONG offset, ULONG cb, Copy copy) {
    const Block* block = m_blocks;
    while (block != m_blocksEnd && block->end < offset) ++block;
    if (block == m_blocksEnd) return 0;
    ULONG inBlock = static_cast<ULONG>(offset - (block->end - block->cb));
    ULONG done = 0;
    for (; block != m_blocksEnd && done < cb; ++block, inBlock = 0) {
      const ULONG n = Smaller(block->cb - inBlock, cb - done);
      copy(block->pv + inBlock, done, n);
      done += n;
    }
    return done;
  }

  void CopyOut(ULONG offset, BYTE* to, ULONG cbToRead) {
    const ULONG cbRead =
        Walk(offset, cbToRead, [to](BYTE* block, ULONG at, ULONG n) { memcpy(to + at, block, n); });
    Verify(cbRead == cbToRead, {kSource, 1214, "cbRead == cbToRead"});
  }

  void CopyIn(ULONG offset, const BYTE* from, ULONG cb) {
    const ULONG cbRead =
        Walk(offset, cb, [from](BYTE* block, ULONG at, ULONG n) { memcpy(block, from + at, n); });
    Verify(cbRead == cb, {kSource, 999, "cbRead == cb"});
  }

  HRESULT Resize(ULONG siNew) { return this->ResizeFixed(siNew, kBlockListSizeChecks); }

  Block* m_blocks = NULL;     // read-only after initialisation (GlobalAlloc)
  Block* m_blocksEnd = NULL;  // read-only after initialisation
};

// ---- creation ----

// A store that cannot be made never ran its constructor, so the allocator is
// still in the holder, which releases it.
HRESULT CreateMemoryLockBytes(MLRelItf<IAllocator> allocator, DWORD flags, void* pv,
                              ULONG siInitial, ULONG siMax, ILockBytes** pplb) {
  return WithThreadModel(flags, [&](auto model) -> HRESULT {
    auto* store = new MemoryLockBytes<decltype(model)>(flags, std::move(allocator));
    if (!store) {
      if (allocator) {
        OutputDebugStringA("Releasing the allocator here!\n");
        Verify(false, {kSource, 1272, "0"});
      }
      return E_OUTOFMEMORY;
    }
    return HandOut(store, IID_ILockBytes, reinterpret_cast<void**>(pplb),
                   store->Initialise(pv, siInitial, siMax));
  });
}

// The allocator a growable store will own, with the reference it owns; empty
// when the allocator object cannot be made. *builtIn is set when it is one of
// the library's own.
MLRelItf<IAllocator> MakeAllocator(DWORD flags, ULONG_PTR allocSource, void* pv,
                                   AllocatorBase** builtIn) {
  const bool adopt = (flags & QVCLBOMF_ADOPT) != 0;
  const DWORD kind = flags & QVCLBOMF_TYPEMASK;
  *builtIn = NULL;
  if (kind == QVCLBOMF_ALLOCATOR && allocSource)
    return MLRelItf<IAllocator>(reinterpret_cast<IAllocator*>(allocSource), !adopt);
  if (kind == QVCLBOMF_PRIVATEHEAP) {
    *builtIn = new HeapAllocator(reinterpret_cast<HANDLE>(allocSource), adopt);
  } else {
    auto* task = new TaskAllocator(reinterpret_cast<IMalloc*>(allocSource), adopt);
    // Holding no task allocator yet it could not tell the size of pv.
    if (task && pv) task->Acquire();
    *builtIn = task;
  }
  return MLRelItf<IAllocator>(*builtIn ? (*builtIn)->Interface() : NULL, false);
}

HRESULT CreateGrowableLockBytes(void* pv, ULONG si, DWORD flags, ULONG_PTR allocSource,
                                ILockBytes** pplb) {
  AllocatorBase* builtIn;
  MLRelItf<IAllocator> allocator = MakeAllocator(flags, allocSource, pv, &builtIn);
  if (!allocator) return E_OUTOFMEMORY;
  const ULONG siInitial = pv ? allocator->GetSize(pv) : (flags & QVCLBOMF_SIINIT) ? si : 0;
  // A block whose size the allocator cannot tell cannot become a store: it
  // would claim 4 GiB of bytes.
  if (siInitial == QV_ALLOCATOR_UNKNOWN_SIZE) return E_INVALIDARG;
  // The store will free pv through this allocator: count it as one of its blocks.
  if (builtIn && pv && !(flags & QVCLBOMF_NOFREE)) builtIn->TakeOverBlock();
  const ULONG siMax = (flags & QVCLBOMF_SIMAX) ? si : 0;
  Verify((flags & QVCLBOMF_SIINIT) == 0 || si == 0,
         {kSource, 1370, "(flags & QVCLBOMF_SIINIT) == 0 || si == 0"});
  return CreateMemoryLockBytes(std::move(allocator), flags, pv, siInitial, siMax, pplb);
}

HRESULT CreateBlockListLockBytes(const LOCKBYTESBLOCK* blocks, ULONG si, DWORD flags,
                                 ILockBytes** pplb) {
  Verify(blocks != NULL, {kSource, 1411, "blocks != NULL"});
  Verify(pplb != NULL, {kSource, 1412, "pplb != NULL"});
  Verify(pplb == NULL || *pplb == NULL, {kSource, 1413, "*pplb == NULL"});
  if (!blocks || !pplb) return E_POINTER;

  // Only the blocks needed to reach si belong to the store.
  const LOCKBYTESBLOCK* end = blocks;
  for (ULONGLONG total = 0; total < si; total += end->cb, ++end)
    if (end->cb == 0 || end->pv == NULL) return E_INVALIDARG;

  return WithThreadModel(flags, [&](auto model) -> HRESULT {
    auto* store = new BlockLockBytes<decltype(model)>(flags);
    if (!store) return E_OUTOFMEMORY;
    return HandOut(store, IID_ILockBytes, reinterpret_cast<void**>(pplb),
                   store->Initialise(blocks, end, si, si));
  });
}

// Kinds 1 to 6 are the valid ones; each wants its own pv, si and allocSource.
// Spare capacity is for the growable buffers: the fixed kinds cannot grow, and
// the HGLOBAL kind is the platform's store, which grows its own way.
HRESULT CheckKindArguments(DWORD flags, void* pv, ULONG si, ULONG_PTR allocSource) {
  const DWORD kind = flags & QVCLBOMF_TYPEMASK;
  const bool growable = kind >= QVCLBOMF_TASKALLOCATOR && kind <= QVCLBOMF_ALLOCATOR;
  if ((flags & QVCLBOMF_SPARE) && !growable) return E_INVALIDARG;
  switch (kind) {
    case QVCLBOMF_HGLOBAL:
      return (allocSource || (flags & QVCLBOMF_ADOPT)) ? E_INVALIDARG : S_OK;
    case QVCLBOMF_TASKALLOCATOR:
    case QVCLBOMF_PRIVATEHEAP:
    case QVCLBOMF_ALLOCATOR:
      return S_OK;
    case QVCLBOMF_FIXEDBLOCK:
    case QVCLBOMF_BLOCKLIST:
      return (!pv || si == 0 || allocSource) ? E_INVALIDARG : S_OK;
    default:
      return E_INVALIDARG;
  }
}

HRESULT CheckFlagCombinations(DWORD flags, ULONG si) {
  if ((flags & QVCLBOMF_NOFREE) && (flags & QVCLBOMF_ADOPT)) return E_INVALIDARG;
  // Of the valid kinds only the HGLOBAL one has neither bit 0x2 nor bit 0x4.
  if (!(flags & 0x6)) {
    if ((flags & QVCLBOMF_SIMAX) && (flags & QVCLBOMF_SIINIT)) return E_INVALIDARG;
    if ((flags & QVCLBOMF_SIINIT) && si != 0) return E_INVALIDARG;
  }
  return S_OK;
}

}  // namespace

}  // namespace xk::stores

using namespace xk::stores;

// ---- CreateLockBytesOnMemory -------------------------------------------------
extern "C" HRESULT WINAPI CreateLockBytesOnMemory(void* pv, ULONG si, DWORD flags,
                                                  ULONG_PTR allocSource, ILockBytes** pplb) {
  if (!pplb) return E_POINTER;
  HRESULT hr = CheckFlagCombinations(flags, si);
  if (FAILED(hr)) return hr;
  *pplb = NULL;
  hr = CheckKindArguments(flags, pv, si, allocSource);
  if (FAILED(hr)) return hr;

  switch (flags & QVCLBOMF_TYPEMASK) {
    case QVCLBOMF_HGLOBAL:
      return CreateILockBytesOnHGlobal(static_cast<HGLOBAL>(pv), !(flags & QVCLBOMF_NOFREE), pplb);
    case QVCLBOMF_FIXEDBLOCK: {
      const bool sizedByMaximumOnly = (flags & QVCLBOMF_SIMAX) && !(flags & QVCLBOMF_SIINIT);
      // An initial size of 0 for a caller's buffer is refused by the store.
      return CreateMemoryLockBytes({}, flags, pv, sizedByMaximumOnly ? 0 : si, si, pplb);
    }
    case QVCLBOMF_BLOCKLIST:
      return CreateBlockListLockBytes(static_cast<const LOCKBYTESBLOCK*>(pv), si, flags, pplb);
    default:
      return CreateGrowableLockBytes(pv, si, flags, allocSource, pplb);
  }
}
