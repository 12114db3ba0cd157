// Shared by the store tests: a fixture failing any test that leaks task memory,
// byte helpers, a caller's IAllocator, and the kinds the typed contracts run over.
#pragma once

#include <gmock/gmock.h>
#include <objbase.h>
#include <windows.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Stores.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

#include "HResult.h"
#include "MallocSpy.h"

namespace storetest {

constexpr ULONG kSentinel = 0xDEADBEEF;
using Bytes = std::vector<BYTE>;

inline ULARGE_INTEGER U(ULONGLONG v) { return ULARGE_INTEGER{{ULONG(v), ULONG(v >> 32)}}; }
inline LARGE_INTEGER L(LONGLONG v) { return LARGE_INTEGER{{ULONG(v), LONG(v >> 32)}}; }

// n bytes that differ from their neighbours and from other seeds.
inline Bytes Pattern(size_t n, BYTE seed = 1) {
  Bytes bytes(n);
  for (size_t i = 0; i < n; ++i) bytes[i] = static_cast<BYTE>(seed + i * 7);
  return bytes;
}

class LeakCheckedTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(0, m_spy.Outstanding()) << "task-allocator blocks leaked"; }
  xktest::MallocSpy m_spy;
};

template <class T>
ULONGLONG StatSize(T* object) {
  STATSTG stat = {};
  EXPECT_HR(S_OK, object->Stat(&stat, STATFLAG_NONAME));
  return stat.cbSize.QuadPart;
}

// What IThreadingInfo answers, or kSentinel when the object has none.
inline DWORD ThreadingModelOf(IUnknown* object) {
  IThreadingInfo* info = nullptr;
  DWORD model = kSentinel;
  if (SUCCEEDED(object->QueryInterface(IID_IThreadingInfo, reinterpret_cast<void**>(&info))))
    info->GetThreadingModel(&model), info->Release();
  return model;
}

inline Bytes ReadAll(ILockBytes* lb, ULONG cb, ULONGLONG offset = 0) {
  Bytes bytes(cb);
  ULONG read = 0;
  EXPECT_HR(S_OK, lb->ReadAt(U(offset), bytes.data(), cb, &read));
  return bytes.resize(read), bytes;
}

inline HRESULT WriteBytes(ILockBytes* lb, ULONGLONG offset, const Bytes& bytes) {
  ULONG written = kSentinel;
  const HRESULT hr = lb->WriteAt(U(offset), bytes.data(), ULONG(bytes.size()), &written);
  EXPECT_EQ(SUCCEEDED(hr) ? bytes.size() : 0u, written);
  return hr;
}

// A caller's IAllocator as a C client writes it, on the process heap.
struct TestAllocator {
  IAllocator itf{&kTable};
  LONG refs = 1, blocks = 0;

  static TestAllocator& Of(IAllocator* p) { return *reinterpret_cast<TestAllocator*>(p); }
  static ULONG STDMETHODCALLTYPE AddRef(IAllocator* p) { return ++Of(p).refs; }
  static ULONG STDMETHODCALLTYPE Release(IAllocator* p) { return --Of(p).refs; }
  static void* STDMETHODCALLTYPE Alloc(IAllocator* p, ULONG cb) { return Realloc(p, NULL, cb); }
  static void* STDMETHODCALLTYPE Realloc(IAllocator* p, void* pv, ULONG cb) {
    if (pv && cb == 0) return Free(p, pv), nullptr;
    void* block =
        pv ? HeapReAlloc(GetProcessHeap(), 0, pv, cb) : HeapAlloc(GetProcessHeap(), 0, cb);
    return Of(p).blocks += block && !pv, block;
  }
  static void STDMETHODCALLTYPE Free(IAllocator* p, void* pv) {
    Of(p).blocks -= pv && HeapFree(GetProcessHeap(), 0, pv);
  }
  static ULONG STDMETHODCALLTYPE GetSize(IAllocator*, void* pv) {
    return pv ? ULONG(HeapSize(GetProcessHeap(), 0, pv)) : 0xFFFFFFFF;
  }
  static void STDMETHODCALLTYPE HeapMinimise(IAllocator*) {}
  static constexpr IAllocatorVtbl kTable = {&AddRef, &Release, &Alloc,       &Realloc,
                                            &Free,   &GetSize, &HeapMinimise};
};

inline HRESULT CreateOnMemory(void* pv, ULONG si, DWORD flags, ULONG_PTR source, ILockBytes** out) {
  return CreateLockBytesOnMemory(pv, si, flags, source, out);
}
inline HRESULT CreateOnMemory(void* pv, ULONG si, DWORD flags, ULONG_PTR source, IStream** out) {
  return CreateStreamOnMemory(pv, si, flags, source, out);
}

inline HRESULT CreatePlatform(ILockBytes** out) { return CreateILockBytesOnHGlobal(NULL, 1, out); }
inline HRESULT CreatePlatform(IStream** out) { return CreateStreamOnHGlobal(NULL, TRUE, out); }

// One kind of store (Kind 0: the platform's on global memory) in one form. Make
// gives a store, or a stream over one, of `capacity` addressable bytes: empty
// when growable, all of the caller's memory when fixed (Contents() shows it).
// Block lists get blocks of 1, 2, 3, ... bytes, so transfers cross boundaries.
template <DWORD Kind, DWORD Form = 0>
struct Store {
  static constexpr bool kPlatform = Kind == 0,
                        kGrowable = Kind != QVCLBOMF_FIXEDBLOCK && Kind != QVCLBOMF_BLOCKLIST;
  static constexpr DWORD kThreadingModel = (Form & QVCLBOMF_NOLOCK) ? 0 : 3;
  TestAllocator allocator;
  std::vector<Bytes> blocks;
  std::vector<LOCKBYTESBLOCK> table;

  template <class Out>
  HRESULT Make(ULONG capacity, Out** out) {
    if (kPlatform) return CreatePlatform(out);
    if (Kind == QVCLBOMF_FIXEDBLOCK) blocks.emplace_back(capacity, 0);
    for (ULONG cb = 1, total = 0; Kind == QVCLBOMF_BLOCKLIST && total < capacity; total += cb++)
      blocks.emplace_back(std::min(cb, capacity - total), 0);
    for (auto& block : blocks) table.push_back({ULONG(block.size()), block.data()});
    void* pv = Kind == QVCLBOMF_FIXEDBLOCK ? table[0].pv : kGrowable ? nullptr : table.data();
    const ULONG_PTR source = Kind == QVCLBOMF_ALLOCATOR ? ULONG_PTR(&allocator.itf) : 0;
    return CreateOnMemory(pv, kGrowable ? 0 : capacity, Kind | Form, source, out);
  }
  Bytes Contents() const {
    Bytes all;
    for (const Bytes& block : blocks) all.insert(all.end(), block.begin(), block.end());
    return all;
  }
  ~Store() {
    EXPECT_EQ(1, allocator.refs) << "the store must give back its reference";
    EXPECT_EQ(0, allocator.blocks) << "the store must free its buffer";
  }
};

constexpr DWORD kNoLock = QVCLBOMF_NOLOCK, kSpare = QVCLBOMF_SPARE;
using AllKinds =
    ::testing::Types<Store<QVCLBOMF_TASKALLOCATOR>, Store<QVCLBOMF_TASKALLOCATOR, kNoLock>,
                     Store<QVCLBOMF_TASKALLOCATOR, kSpare>,
                     Store<QVCLBOMF_ALLOCATOR, kNoLock | kSpare>, Store<QVCLBOMF_PRIVATEHEAP>,
                     Store<QVCLBOMF_PRIVATEHEAP, kNoLock>, Store<QVCLBOMF_ALLOCATOR>,
                     Store<QVCLBOMF_ALLOCATOR, kNoLock>, Store<QVCLBOMF_FIXEDBLOCK>,
                     Store<QVCLBOMF_FIXEDBLOCK, kNoLock>, Store<QVCLBOMF_BLOCKLIST>,
                     Store<QVCLBOMF_BLOCKLIST, kNoLock>, Store<0>>;

}  // namespace storetest
