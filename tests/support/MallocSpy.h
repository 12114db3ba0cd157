// Watches the COM task allocator: every request the process makes through
// CoTaskMemAlloc/Realloc/Free (and IMalloc) is seen, so a test can assert the
// exact sizes asked for and that nothing it allocated is left behind.
//
// One spy is registered for the whole process on first use and never revoked:
// the platform may refuse to revoke a spy (and then keeps calling it), so a
// spy must outlive every allocation. Tests open a MallocSpy watch instead,
// which sees what happens from its construction on.
//
// BSTRs come from the task allocator too: registering the spy also switches
// off the automation library's cache of freed BSTRs, so a BSTR that is not
// freed stays outstanding and one that is freed does not.
#pragma once

#include <objbase.h>

#include <cstdint>
#include <vector>

namespace xktest {

class MallocSpy {
 public:
  MallocSpy();  // starts watching; registers the process-wide spy if needed
  MallocSpy(const MallocSpy&) = delete;
  MallocSpy& operator=(const MallocSpy&) = delete;

  bool Registered() const;
  // Blocks allocated since the watch started and not yet freed.
  long Outstanding() const;
  // The byte counts asked for since the watch started: by Alloc, and by Realloc
  // (the new size, including Realloc of NULL and resizes to 0), in order.
  std::vector<SIZE_T> AllocRequests() const;
  std::vector<SIZE_T> ReallocRequests() const;
  // Forgets the requests seen so far (blocks still out stay counted).
  void ClearRequests();

 private:
  std::uint64_t m_blockStart;    // first block serial this watch counts
  std::uint64_t m_requestStart;  // first request serial this watch reports
};

// While one lives, the task allocator refuses every allocation and every
// reallocation to a non-zero size, as when memory has run out; frees still
// work. Refused requests are still seen by the watches.
class TaskAllocatorRefusal {
 public:
  TaskAllocatorRefusal();
  ~TaskAllocatorRefusal();
  TaskAllocatorRefusal(const TaskAllocatorRefusal&) = delete;
  TaskAllocatorRefusal& operator=(const TaskAllocatorRefusal&) = delete;
};

// While one lives, every allocation is counted on one count: the task
// allocator's (as the refusal above sees them) and the global, heap and private
// heap memory XKComBsD.dll itself asks KERNEL32 for, which is seen by swapping
// the DLL's import slots for counting wrappers. Once armed with n, the nth
// allocation from then on fails, as when memory has just run out, and later
// ones succeed again. Only one may live at a time.
class AllocationFailure {
 public:
  static constexpr unsigned long kNone = 0;
  AllocationFailure();
  ~AllocationFailure();
  AllocationFailure(const AllocationFailure&) = delete;
  AllocationFailure& operator=(const AllocationFailure&) = delete;

  void Arm(unsigned long nth);  // kNone disarms
  bool Injected() const;        // whether an armed failure has come
  // The library's GlobalAlloc blocks made while this lived, less those freed.
  long LiveGlobalBlocks() const;
};

}  // namespace xktest
