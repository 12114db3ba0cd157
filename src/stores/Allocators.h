// The two built-in allocators behind the growable memory stores: one over a
// private heap, one over the process task allocator. Both find their memory
// manager on the first allocation, never earlier, so a store that never grows
// never creates a heap or asks for the task allocator.
#pragma once

#include <objbase.h>
#include <xkcombsd/MLAtor.h>
#include <xkcombsd/MLRelItf.h>

namespace xk::stores {

// Allocates from a heap of its own (created at the first allocation, unless the
// creator handed one in). The heap is not serialised by the system: this
// allocator's lock is the only way in.
class HeapAllocator : public AllocatorBase {
 public:
  // hHeap NULL: the allocator makes and owns a private heap. Otherwise it uses
  // hHeap and destroys it at the end only when adopt is set.
  HeapAllocator(HANDLE hHeap, bool adopt) : m_hHeap(hHeap), m_ownsHeap(hHeap == NULL || adopt) {}
  ~HeapAllocator() override;

  void ReleaseResources() override;

 protected:
  void* do_Alloc(ULONG cb) override;
  void* do_Realloc(void* pv, ULONG cb) override;
  void do_Free(void* pv) override;
  ULONG do_GetSize(void* pv) override;
  void do_HeapMinimise() override;

 private:
  HANDLE Heap();

  HANDLE m_hHeap;         // (lock) NULL until the first allocation when none was handed in
  const bool m_ownsHeap;  // read-only after construction
};

// Adapts the process task allocator (or an IMalloc the creator hands in).
class TaskAllocator : public AllocatorBase {
 public:
  // With adopt the allocator takes over the caller's reference to pMalloc.
  TaskAllocator(IMalloc* pMalloc, bool adopt) : m_malloc(pMalloc, !adopt) {}

  // Finds the task allocator now rather than at the first allocation; true
  // when one is held. A store created over a caller's block asks for its size
  // first, which an allocator holding nothing cannot tell.
  bool Acquire();

  void ReleaseResources() override;

 protected:
  void* do_Alloc(ULONG cb) override;
  void* do_Realloc(void* pv, ULONG cb) override;
  void do_Free(void* pv) override;
  ULONG do_GetSize(void* pv) override;
  void do_HeapMinimise() override;

 private:
  MLRelItf<IMalloc> m_malloc;  // (lock) empty until the first allocation when none was handed in
};

}  // namespace xk::stores
