#include "MallocSpy.h"

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <tuple>
#include <vector>

namespace xktest {

namespace {

// What is refused, on one count for every source.
std::atomic<bool> g_refuseTask{false};
std::atomic<unsigned long> g_failAt{AllocationFailure::kNone};
std::atomic<unsigned long> g_counted{0};
std::atomic<bool> g_injected{false};
std::atomic<long> g_liveGlobal{0};

bool Refused(bool task) {
  if (task && g_refuseTask) return true;
  const unsigned long at = g_failAt;
  if (at == AllocationFailure::kNone || ++g_counted != at) return false;
  g_injected = true;
  return true;
}

struct Request {
  bool realloc;
  SIZE_T size;
};

// The process-wide spy. Blocks are tracked by address rather than by the
// platform's "spyed" flag, which not every task allocator keeps across Realloc.
class ProcessSpy : public IMallocSpy {
 public:
  static ProcessSpy& Instance() {
    static ProcessSpy* spy = [] {
      auto* created = new ProcessSpy;  // never freed: the platform may keep calling it
      created->m_registered = SUCCEEDED(CoRegisterMallocSpy(created));
      // Off with the BSTR cache (see the header); the library stays loaded.
      if (auto stop = reinterpret_cast<void(WINAPI*)()>(reinterpret_cast<void*>(
              GetProcAddress(LoadLibraryW(L"oleaut32.dll"), "SetOaNoCache"))))
        stop();
      return created;
    }();
    return *spy;
  }

  bool registered() const { return m_registered; }

  // The serials the next block and the next request will get.
  std::pair<std::uint64_t, std::uint64_t> NextSerials() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return {m_nextBlock, m_requests.size()};
  }
  long BlocksSince(std::uint64_t serial) {
    std::lock_guard<std::mutex> lock(m_mutex);
    long count = 0;
    for (const auto& block : m_blocks) count += block.second >= serial;
    return count;
  }
  std::vector<SIZE_T> RequestsSince(std::uint64_t serial, bool realloc) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<SIZE_T> sizes;
    for (std::uint64_t i = serial; i < m_requests.size(); ++i)
      if (m_requests[i].realloc == realloc) sizes.push_back(m_requests[i].size);
    return sizes;
  }

  // Never freed, so references are not counted.
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = iid == IID_IUnknown || iid == IID_IMallocSpy ? static_cast<IMallocSpy*>(this) : nullptr;
    return *ppv ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }

  // A size of 0 from PreAlloc or PreRealloc makes the allocator fail the request.
  STDMETHODIMP_(SIZE_T) PreAlloc(SIZE_T cbRequest) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.push_back({false, cbRequest});
    return cbRequest != 0 && Refused(true) ? 0 : cbRequest;
  }
  STDMETHODIMP_(void*) PostAlloc(void* pActual) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (pActual) m_blocks[pActual] = m_nextBlock++;
    return pActual;
  }
  STDMETHODIMP_(void*) PreFree(void* pRequest, BOOL) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_blocks.erase(pRequest);
    return pRequest;
  }
  STDMETHODIMP_(void) PostFree(BOOL) override {}
  STDMETHODIMP_(SIZE_T)
  PreRealloc(void* pRequest, SIZE_T cbRequest, void** ppNewRequest, BOOL) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.push_back({true, cbRequest});
    *ppNewRequest = pRequest;
    if (cbRequest != 0 && Refused(true)) return 0;  // the block stays where it was
    m_reallocSource = pRequest;
    // Resizing to 0 frees; not every allocator reports back after it.
    if (cbRequest == 0) m_blocks.erase(pRequest);
    return cbRequest;
  }
  STDMETHODIMP_(void*) PostRealloc(void* pActual, BOOL) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!pActual) return pActual;                    // failure leaves the block where it was
    auto moved = m_blocks.extract(m_reallocSource);  // empty for a Realloc of NULL
    m_blocks[pActual] = moved ? moved.mapped() : m_nextBlock++;
    return pActual;
  }
  STDMETHODIMP_(void*) PreGetSize(void* pRequest, BOOL) override { return pRequest; }
  STDMETHODIMP_(SIZE_T) PostGetSize(SIZE_T cbActual, BOOL) override { return cbActual; }
  STDMETHODIMP_(void*) PreDidAlloc(void* pRequest, BOOL) override { return pRequest; }
  STDMETHODIMP_(int) PostDidAlloc(void*, BOOL, int fActual) override { return fActual; }
  STDMETHODIMP_(void) PreHeapMinimize() override {}
  STDMETHODIMP_(void) PostHeapMinimize() override {}

 private:
  std::mutex m_mutex;
  bool m_registered = false;
  std::map<void*, std::uint64_t> m_blocks;  // (m_mutex) live block -> serial
  std::uint64_t m_nextBlock = 0;            // (m_mutex)
  std::vector<Request> m_requests;          // (m_mutex)
  void* m_reallocSource = nullptr;          // (m_mutex) block of the pending Realloc
};

}  // namespace

MallocSpy::MallocSpy() {
  std::tie(m_blockStart, m_requestStart) = ProcessSpy::Instance().NextSerials();
}

bool MallocSpy::Registered() const { return ProcessSpy::Instance().registered(); }

long MallocSpy::Outstanding() const { return ProcessSpy::Instance().BlocksSince(m_blockStart); }

std::vector<SIZE_T> MallocSpy::AllocRequests() const {
  return ProcessSpy::Instance().RequestsSince(m_requestStart, false);
}

std::vector<SIZE_T> MallocSpy::ReallocRequests() const {
  return ProcessSpy::Instance().RequestsSince(m_requestStart, true);
}

void MallocSpy::ClearRequests() { m_requestStart = ProcessSpy::Instance().NextSerials().second; }

TaskAllocatorRefusal::TaskAllocatorRefusal() {
  ProcessSpy::Instance();
  g_refuseTask = true;
}
TaskAllocatorRefusal::~TaskAllocatorRefusal() { g_refuseTask = false; }

// ---- The library's own memory, through its import slots

namespace {

HGLOBAL WINAPI CountedGlobalAlloc(UINT flags, SIZE_T bytes) {
  HGLOBAL block = Refused(false) ? NULL : GlobalAlloc(flags, bytes);
  if (block) ++g_liveGlobal;
  return block;
}
HGLOBAL WINAPI CountedGlobalReAlloc(HGLOBAL block, SIZE_T bytes, UINT flags) {
  return !(flags & GMEM_MODIFY) && Refused(false) ? NULL : GlobalReAlloc(block, bytes, flags);
}
HGLOBAL WINAPI CountedGlobalFree(HGLOBAL block) {
  HGLOBAL left = GlobalFree(block);
  if (block && !left) --g_liveGlobal;
  return left;
}
HANDLE WINAPI CountedHeapCreate(DWORD flags, SIZE_T initial, SIZE_T most) {
  return Refused(false) ? NULL : HeapCreate(flags, initial, most);
}
LPVOID WINAPI CountedHeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
  return Refused(false) ? NULL : HeapAlloc(heap, flags, bytes);
}
LPVOID WINAPI CountedHeapReAlloc(HANDLE heap, DWORD flags, LPVOID block, SIZE_T bytes) {
  return Refused(false) ? NULL : HeapReAlloc(heap, flags, block, bytes);
}

const struct {
  const char* name;
  void* wrapper;
} kWrappers[] = {
    {"GlobalAlloc", reinterpret_cast<void*>(CountedGlobalAlloc)},
    {"GlobalReAlloc", reinterpret_cast<void*>(CountedGlobalReAlloc)},
    {"GlobalFree", reinterpret_cast<void*>(CountedGlobalFree)},
    {"HeapCreate", reinterpret_cast<void*>(CountedHeapCreate)},
    {"HeapAlloc", reinterpret_cast<void*>(CountedHeapAlloc)},
    {"HeapReAlloc", reinterpret_cast<void*>(CountedHeapReAlloc)},
};

// The module's import slot for KERNEL32's function of that name, or null.
void** ImportSlot(HMODULE module, const char* name) {
  auto* base = reinterpret_cast<BYTE*>(module);
  const auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(
      base + reinterpret_cast<IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const auto& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  auto* from = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
  for (; imports.VirtualAddress && from->Name; ++from) {
    if (lstrcmpiA(reinterpret_cast<char*>(base + from->Name), "KERNEL32.dll") ||
        !from->OriginalFirstThunk)
      continue;
    auto* names = reinterpret_cast<IMAGE_THUNK_DATA*>(base + from->OriginalFirstThunk);
    auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + from->FirstThunk);
    for (; names->u1.AddressOfData; ++names, ++slots)
      if (!IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal) &&
          !std::strcmp(
              reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData)->Name, name))
        return reinterpret_cast<void**>(&slots->u1.Function);
  }
  return nullptr;
}

void* Swap(void** slot, void* with) {
  DWORD was;
  VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &was);
  void* before = *slot;
  *slot = with;
  VirtualProtect(slot, sizeof *slot, was, &was);
  return before;
}

std::vector<std::pair<void**, void*>> g_swapped;  // slot -> the function it held

}  // namespace

AllocationFailure::AllocationFailure() {
  ProcessSpy::Instance();
  g_liveGlobal = 0;
  g_injected = false;
  if (HMODULE library = GetModuleHandleW(L"XKComBsD.dll"))
    for (const auto& wrapper : kWrappers)
      if (void** slot = ImportSlot(library, wrapper.name))
        g_swapped.emplace_back(slot, Swap(slot, wrapper.wrapper));
}

AllocationFailure::~AllocationFailure() {
  Arm(kNone);
  for (const auto& swapped : g_swapped) Swap(swapped.first, swapped.second);
  g_swapped.clear();
}

void AllocationFailure::Arm(unsigned long nth) {
  g_failAt = kNone;
  g_counted = 0;
  if (nth != kNone) g_injected = false;
  g_failAt = nth;
}

bool AllocationFailure::Injected() const { return g_injected; }

long AllocationFailure::LiveGlobalBlocks() const { return g_liveGlobal; }

}  // namespace xktest
