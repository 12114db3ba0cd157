// The private-heap and task allocators. Every heap call passes
// HEAP_NO_SERIALIZE: AllocatorBase already holds its lock around each
// primitive, so the system's own serialisation would only cost time.
#include "stores/Allocators.h"

namespace xk::stores {

namespace {
constexpr DWORD kHeapFlags = HEAP_NO_SERIALIZE;
constexpr SIZE_T kInitialHeapBytes = 2048;

ULONG SizeOrUnknown(SIZE_T size) {
  return size == static_cast<SIZE_T>(-1) ? QV_ALLOCATOR_UNKNOWN_SIZE : static_cast<ULONG>(size);
}
}  // namespace

// ---- HeapAllocator ---------------------------------------------------------

HeapAllocator::~HeapAllocator() {
  if (m_ownsHeap && m_hHeap) HeapDestroy(m_hHeap);
}

HANDLE HeapAllocator::Heap() {
  if (!m_hHeap) m_hHeap = HeapCreate(kHeapFlags, kInitialHeapBytes, 0);
  return m_hHeap;
}

void* HeapAllocator::do_Alloc(ULONG cb) {
  HANDLE heap = Heap();
  return heap ? HeapAlloc(heap, kHeapFlags, cb) : NULL;
}

void* HeapAllocator::do_Realloc(void* pv, ULONG cb) {
  if (!pv) return do_Alloc(cb);
  if (!m_hHeap) return NULL;  // pv cannot be a block of a heap that does not exist yet
  if (cb == 0) {
    HeapFree(m_hHeap, kHeapFlags, pv);
    return NULL;
  }
  return HeapReAlloc(m_hHeap, kHeapFlags, pv, cb);
}

void HeapAllocator::do_Free(void* pv) {
  if (m_hHeap && pv) HeapFree(m_hHeap, kHeapFlags, pv);
}

ULONG HeapAllocator::do_GetSize(void* pv) {
  if (!m_hHeap || !pv) return QV_ALLOCATOR_UNKNOWN_SIZE;
  return SizeOrUnknown(HeapSize(m_hHeap, kHeapFlags, pv));
}

void HeapAllocator::do_HeapMinimise() {
  if (m_hHeap) HeapCompact(m_hHeap, kHeapFlags);
}

void HeapAllocator::ReleaseResources() {
  if (m_hHeap) {
    HeapDestroy(m_hHeap);
    m_hHeap = NULL;
  }
}

// ---- TaskAllocator ---------------------------------------------------------

bool TaskAllocator::Acquire() {
  if (!m_malloc && FAILED(CoGetMalloc(MEMCTX_TASK, m_malloc.put()))) m_malloc.Reset();
  return static_cast<bool>(m_malloc);
}

void* TaskAllocator::do_Alloc(ULONG cb) { return Acquire() ? m_malloc->Alloc(cb) : NULL; }

void* TaskAllocator::do_Realloc(void* pv, ULONG cb) {
  return Acquire() ? m_malloc->Realloc(pv, cb) : NULL;
}

void TaskAllocator::do_Free(void* pv) {
  if (pv && m_malloc) m_malloc->Free(pv);
}

ULONG TaskAllocator::do_GetSize(void* pv) {
  if (!m_malloc || !pv) return QV_ALLOCATOR_UNKNOWN_SIZE;
  return SizeOrUnknown(m_malloc->GetSize(pv));
}

void TaskAllocator::do_HeapMinimise() {
  if (m_malloc) m_malloc->HeapMinimize();
}

void TaskAllocator::ReleaseResources() { m_malloc.Reset(); }

}  // namespace xk::stores
