// Shared by the store and stream tests: a fixture that fails any test leaving a
// task-allocator block behind, byte helpers, a caller-supplied IAllocator
// written as a plain function table, and the store kinds the typed contracts
// run over (each of the library's kinds in both forms, and the platform's own).
#pragma once

#include <gmock/gmock.h>
#include <windows.h>
#include <objbase.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Stores.h>

#include <cstring>
#include <type_traits>
#include <vector>

#include "HResult.h"
#include "MallocSpy.h"

namespace storetest {

constexpr ULONG kSentinel = 0xDEADBEEF;
constexpr ULONGLONG k4GiB = 0x100000000ull;
using Bytes = std::vector<BYTE>;

// Offsets and sizes as the interfaces take them.
inline ULARGE_INTEGER U(ULONGLONG value) { ULARGE_INTEGER u; u.QuadPart = value; return u; }
inline LARGE_INTEGER L(LONGLONG value) { LARGE_INTEGER l; l.QuadPart = value; return l; }

// n bytes that differ from their neighbours and from other seeds.
inline Bytes Pattern(size_t n, BYTE seed = 1) {
  Bytes bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<BYTE>(seed + i * 7);
  return bytes;
}

// Every test ends with no task-allocator block of its own still out.
class LeakCheckedTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(0, m_spy.Outstanding()) << "task-allocator blocks leaked"; }
  xktest::MallocSpy m_spy;
};

// The size a store or stream reports through Stat(STATFLAG_NONAME).
template <class T>
ULONGLONG StatSize(T* object) {
  STATSTG stat = {};
  EXPECT_HR(S_OK, object->Stat(&stat, STATFLAG_NONAME));
  return stat.cbSize.QuadPart;
}

// What IThreadingInfo answers, or kSentinel when the object has none.
inline DWORD ThreadingModelOf(IUnknown* object) {
  IThreadingInfo* info = nullptr;
  if (FAILED(object->QueryInterface(IID_IThreadingInfo, reinterpret_cast<void**>(&info)))) return kSentinel;
  DWORD model = kSentinel;
  EXPECT_HR(S_OK, info->GetThreadingModel(&model));
  info->Release();
  return model;
}

inline Bytes ReadAll(ILockBytes* lb, ULONG cb, ULONGLONG offset = 0) {
  Bytes bytes(cb);
  ULONG read = kSentinel;
  EXPECT_HR(S_OK, lb->ReadAt(U(offset), bytes.data(), cb, &read));
  bytes.resize(read == kSentinel ? 0 : read);
  return bytes;
}

inline HRESULT WriteBytes(ILockBytes* lb, ULONGLONG offset, const Bytes& bytes) {
  ULONG written = kSentinel;
  const HRESULT hr = lb->WriteAt(U(offset), bytes.data(), static_cast<ULONG>(bytes.size()), &written);
  EXPECT_EQ(SUCCEEDED(hr) ? bytes.size() : 0u, written);
  return hr;
}

// A caller's IAllocator as a C client would write it: a struct whose first
// member points at a table of seven functions. It allocates from the process
// heap, fills new and grown bytes with 0xCD so a test can see they were not
// cleared, and can be told to refuse sizes above a limit.
struct TestAllocator {
  IAllocator itf{&kTable};
  LONG refs = 1;
  LONG blocks = 0;                  // handed out, not yet freed
  ULONG refuseAbove = 0xFFFFFFFF;   // allocations and resizes above this size fail
  std::vector<ULONG> sizes;         // every size asked for, by Alloc and Realloc

  ULONG_PTR Source() { return reinterpret_cast<ULONG_PTR>(&itf); }
  static TestAllocator* From(IAllocator* p) { return reinterpret_cast<TestAllocator*>(p); }

  static ULONG STDMETHODCALLTYPE AddRef(IAllocator* p) { return ++From(p)->refs; }
  static ULONG STDMETHODCALLTYPE Release(IAllocator* p) { return --From(p)->refs; }
  static void* STDMETHODCALLTYPE Alloc(IAllocator* p, ULONG cb) { return Realloc(p, NULL, cb); }
  static void* STDMETHODCALLTYPE Realloc(IAllocator* p, void* pv, ULONG cb) {
    TestAllocator* self = From(p);
    self->sizes.push_back(cb);
    if (pv && cb == 0) return Free(p, pv), nullptr;
    if (cb > self->refuseAbove) return NULL;
    const SIZE_T old = pv ? HeapSize(GetProcessHeap(), 0, pv) : 0;
    BYTE* block = static_cast<BYTE*>(pv ? HeapReAlloc(GetProcessHeap(), 0, pv, cb)
                                        : HeapAlloc(GetProcessHeap(), 0, cb));
    if (!block) return NULL;
    if (cb > old) std::memset(block + old, 0xCD, cb - old);
    if (!pv) ++self->blocks;
    return block;
  }
  static void STDMETHODCALLTYPE Free(IAllocator* p, void* pv) {
    if (pv && HeapFree(GetProcessHeap(), 0, pv)) --From(p)->blocks;
  }
  static ULONG STDMETHODCALLTYPE GetSize(IAllocator*, void* pv) {
    return pv ? static_cast<ULONG>(HeapSize(GetProcessHeap(), 0, pv)) : 0xFFFFFFFF;
  }
  static void STDMETHODCALLTYPE HeapMinimise(IAllocator*) {}

  static constexpr IAllocatorVtbl kTable = {&AddRef, &Release, &Alloc, &Realloc, &Free, &GetSize, &HeapMinimise};
};

// ---- store kinds for the typed contracts ----
//
// Each kind makes a store, or a stream over one, of at least `capacity`
// addressable bytes that starts empty (growable kinds) or at its full size
// (fixed kinds, whose memory is the caller's: Contents() shows all of it).

// The library's factories for stores and streams take the same arguments.
template <class Out>
HRESULT CreateOnMemory(void* pv, ULONG si, DWORD flags, ULONG_PTR allocSource, Out** out) {
  if constexpr (std::is_same_v<Out, IStream>)
    return CreateStreamOnMemory(pv, si, flags, allocSource, out);
  else
    return CreateLockBytesOnMemory(pv, si, flags, allocSource, out);
}

template <DWORD Kind, bool Growable = true>
struct KindBase {
  static constexpr DWORD kKind = Kind;
  static constexpr bool kGrowable = Growable, kPlatform = false;
};
template <DWORD Kind>
struct GrowableKind : KindBase<Kind> {
  template <class Out>
  HRESULT MakeWith(DWORD flags, ULONG, Out** out) { return CreateOnMemory(nullptr, 0, flags, 0, out); }
};
using TaskKind = GrowableKind<QVCLBOMF_TASKALLOCATOR>;
using HeapKind = GrowableKind<QVCLBOMF_PRIVATEHEAP>;
struct CallerAllocatorKind : KindBase<QVCLBOMF_ALLOCATOR> {
  TestAllocator allocator;
  template <class Out>
  HRESULT MakeWith(DWORD flags, ULONG, Out** out) {
    return CreateOnMemory(nullptr, 0, flags, allocator.Source(), out);
  }
  ~CallerAllocatorKind() {
    EXPECT_EQ(1, allocator.refs) << "the store must give back its reference";
    EXPECT_EQ(0, allocator.blocks) << "the store must free its buffer";
  }
};
struct FixedKind : KindBase<QVCLBOMF_FIXEDBLOCK, false> {
  Bytes buffer;
  Bytes Contents() const { return buffer; }
  template <class Out>
  HRESULT MakeWith(DWORD flags, ULONG capacity, Out** out) {
    buffer.assign(capacity, 0);
    return CreateOnMemory(buffer.data(), capacity, flags, 0, out);
  }
};
// Blocks of 1, 2, 3, ... bytes, so most transfers cross several boundaries.
struct BlockListKind : KindBase<QVCLBOMF_BLOCKLIST, false> {
  std::vector<Bytes> blocks;
  std::vector<LOCKBYTESBLOCK> table;
  Bytes Contents() const {
    Bytes all;
    for (const Bytes& block : blocks) all.insert(all.end(), block.begin(), block.end());
    return all;
  }
  template <class Out>
  HRESULT MakeWith(DWORD flags, ULONG capacity, Out** out) {
    for (ULONG cb = 1, total = 0; total < capacity; total += cb++) blocks.emplace_back(cb, 0);
    for (auto& block : blocks) table.push_back({static_cast<ULONG>(block.size()), block.data()});
    return CreateOnMemory(table.data(), capacity, flags, 0, out);
  }
};
// The platform's store and stream on global memory, run against the same contract.
struct PlatformKind {
  static constexpr DWORD kKind = 0;
  static constexpr bool kGrowable = true, kPlatform = true;
  HRESULT MakeWith(DWORD, ULONG, ILockBytes** out) { return CreateILockBytesOnHGlobal(NULL, TRUE, out); }
  HRESULT MakeWith(DWORD, ULONG, IStream** out) { return CreateStreamOnHGlobal(NULL, TRUE, out); }
};

template <class Kind, DWORD Form>
struct StoreOf : Kind {
  static constexpr DWORD kFlags = Kind::kKind | Form;
  static constexpr DWORD kThreadingModel = (Form & QVCLBOMF_NOLOCK) ? 0 : 3;
  template <class Out>
  HRESULT Make(ULONG capacity, Out** out) { return this->MakeWith(kFlags, capacity, out); }
};
template <class Kind>
using Locked = StoreOf<Kind, 0>;
template <class Kind>
using Unlocked = StoreOf<Kind, QVCLBOMF_NOLOCK>;

// Every kind in both forms, and the platform's.
using AllKinds = ::testing::Types<
    Locked<TaskKind>, Unlocked<TaskKind>, Locked<HeapKind>, Unlocked<HeapKind>,
    Locked<CallerAllocatorKind>, Unlocked<CallerAllocatorKind>, Locked<FixedKind>,
    Unlocked<FixedKind>, Locked<BlockListKind>, Unlocked<BlockListKind>, StoreOf<PlatformKind, 0>>;

}  // namespace storetest
