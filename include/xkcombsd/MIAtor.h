// IAllocator: the allocator a growable memory store obtains, resizes, sizes and
// frees its one buffer through. It is a plain table of seven functions, each
// taking the interface pointer first and using the platform's calling
// convention for interface methods, so that a caller who knows nothing of
// classes can supply one. It is reference counted but has no QueryInterface.
//
// Contract of the slots: Realloc of NULL allocates; Realloc to 0 frees and
// returns NULL; a failed resize returns NULL and leaves the block valid;
// Free(NULL) does nothing; GetSize answers 0xFFFFFFFF when the size cannot be
// told. No operation clears the bytes of a block.
#pragma once

#include <windows.h>

#ifdef __cplusplus
#include <xkcombsd/XKAssert.h>
#endif

typedef struct IAllocator IAllocator;

typedef struct IAllocatorVtbl {
  ULONG(STDMETHODCALLTYPE* AddRef)(IAllocator* This);
  ULONG(STDMETHODCALLTYPE* Release)(IAllocator* This);
  void*(STDMETHODCALLTYPE* Alloc)(IAllocator* This, ULONG cb);
  void*(STDMETHODCALLTYPE* Realloc)(IAllocator* This, void* pv, ULONG cb);
  void(STDMETHODCALLTYPE* Free)(IAllocator* This, void* pv);
  ULONG(STDMETHODCALLTYPE* GetSize)(IAllocator* This, void* pv);
  void(STDMETHODCALLTYPE* HeapMinimise)(IAllocator* This);
} IAllocatorVtbl;

// The size GetSize answers when it cannot tell.
#define QV_ALLOCATOR_UNKNOWN_SIZE 0xFFFFFFFFu

struct IAllocator {
  const IAllocatorVtbl* lpVtbl;

#ifdef __cplusplus
  // Class-side calls. A missing table is a broken contract: it is reported and
  // the call answers as an allocator that can do nothing would.
  const IAllocatorVtbl* get_vtable_() const { return lpVtbl; }

  ULONG AddRef() {
    return HasTable(144) ? lpVtbl->AddRef(this) : 0;
  }
  ULONG Release() {
    return HasTable(149) ? lpVtbl->Release(this) : 0;
  }
  void* Alloc(ULONG cb) {
    return HasTable(154) ? lpVtbl->Alloc(this, cb) : NULL;
  }
  void* Realloc(void* pv, ULONG cb) {
    return HasTable(160) ? lpVtbl->Realloc(this, pv, cb) : NULL;
  }
  void Free(void* pv) {
    if (HasTable(165)) lpVtbl->Free(this, pv);
  }
  ULONG GetSize(void* pv) {
    return HasTable(170) ? lpVtbl->GetSize(this, pv) : QV_ALLOCATOR_UNKNOWN_SIZE;
  }
  void HeapMinimise() {
    if (HasTable(175)) lpVtbl->HeapMinimise(this);
  }

 private:
  // The report names the line of the wrapper that found no table (Alloc and
  // HeapMinimise take the lines between and after their neighbours').
  bool HasTable(int line) const {
    return xk::Verify(NULL != get_vtable_(), {"MIAtor", line, "NULL != get_vtable_()"});
  }
#endif
};
