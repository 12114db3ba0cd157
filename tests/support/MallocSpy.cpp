#include "MallocSpy.h"

#include <map>
#include <mutex>

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
      StopCachingBstrs();
      return created;
    }();
    return *spy;
  }

  // The automation library keeps freed BSTRs for reuse instead of returning them
  // to the task allocator; without that cache every BSTR is a task block the
  // spy sees allocated and freed, so a leaked BSTR shows as outstanding.
  static void StopCachingBstrs() {
    if (HMODULE oleaut32 =
            LoadLibraryW(L"oleaut32.dll"))  // kept: BSTRs live as long as the process
      if (auto stop = reinterpret_cast<void(WINAPI*)()>(
              reinterpret_cast<void*>(GetProcAddress(oleaut32, "SetOaNoCache"))))
        stop();
  }

  bool registered() const { return m_registered; }

  std::uint64_t NextBlockSerial() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_nextBlock;
  }
  std::uint64_t NextRequestSerial() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests.size();
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

  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    if (!ppv) return E_POINTER;
    if (iid == IID_IUnknown || iid == IID_IMallocSpy) {
      *ppv = static_cast<IMallocSpy*>(this);
      return S_OK;
    }
    *ppv = nullptr;
    return E_NOINTERFACE;
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
    // Success moves the block; failure leaves it where it was.
    if (pActual) {
      auto found = m_blocks.find(m_reallocSource);
      const std::uint64_t serial = found != m_blocks.end() ? found->second : m_nextBlock++;
      if (found != m_blocks.end()) m_blocks.erase(found);
      m_blocks[pActual] = serial;
    }
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

MallocSpy::MallocSpy()
    : m_blockStart(ProcessSpy::Instance().NextBlockSerial()),
      m_requestStart(ProcessSpy::Instance().NextRequestSerial()) {}

bool MallocSpy::Registered() const { return ProcessSpy::Instance().registered(); }

long MallocSpy::Outstanding() const { return ProcessSpy::Instance().BlocksSince(m_blockStart); }

std::vector<SIZE_T> MallocSpy::AllocRequests() const {
  return ProcessSpy::Instance().RequestsSince(m_requestStart, false);
}

std::vector<SIZE_T> MallocSpy::ReallocRequests() const {
  return ProcessSpy::Instance().RequestsSince(m_requestStart, true);
}

void MallocSpy::ClearRequests() { m_requestStart = ProcessSpy::Instance().NextRequestSerial(); }

TaskAllocatorRefusal::TaskAllocatorRefusal() { ProcessSpy::Instance().SetRefusing(true); }
TaskAllocatorRefusal::~TaskAllocatorRefusal() { ProcessSpy::Instance().SetRefusing(false); }

}  // namespace xktest
