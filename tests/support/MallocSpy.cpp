#include "MallocSpy.h"

#include <map>
#include <mutex>
#include <tuple>

namespace xktest {

namespace {

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

  void SetRefusing(bool refusing) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_refusing = refusing;
  }

  // A size of 0 from PreAlloc or PreRealloc makes the allocator fail the request.
  STDMETHODIMP_(SIZE_T) PreAlloc(SIZE_T cbRequest) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.push_back({false, cbRequest});
    return m_refusing ? 0 : cbRequest;
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
    if (m_refusing && cbRequest != 0) return 0;  // the block stays where it was
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
  bool m_refusing = false;                  // (m_mutex)
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

TaskAllocatorRefusal::TaskAllocatorRefusal() { ProcessSpy::Instance().SetRefusing(true); }
TaskAllocatorRefusal::~TaskAllocatorRefusal() { ProcessSpy::Instance().SetRefusing(false); }

}  // namespace xktest
