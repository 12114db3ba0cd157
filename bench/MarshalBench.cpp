// Enumerating 10,000 GUIDs across apartments: the library's own proxy/stub pair
// (the library's IEnumGUID) against the platform's standard proxy for its own
// IEnumGUID, each over an EnumGUID of its own served by an STA thread, read by
// an MTA client in batches of 256 and of 1.
//
// The machine may be busy with other work, so the two proxies are timed in
// rounds, one run of each per round in alternating order, and compared by
// medians: the median run of each, and the median of the rounds' own ratios,
// whose two runs met the same load.
#include <windows.h>
#include <xkcombsd/Collections.h>
#include <xkcombsd/Module.h>

#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

namespace {

constexpr ULONG kItems = 10000;

// The library's pair and EnumGUID, registered for the calling apartment only.
std::vector<DWORD> RegisterPair() {
  std::vector<DWORD> cookies;
  for (const IID* id : {&CLSID_QvEnumGUID, &IID_IQvEnumGUID, &IID_ISeqGUID, &IID_ICollGUID}) {
    IUnknown* factory = nullptr;
    if (FAILED(DllGetClassObject(*id, IID_IUnknown, reinterpret_cast<void**>(&factory)))) continue;
    CoRegisterClassObject(*id, factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                          &cookies.emplace_back());
    factory->Release();
    if (id != &CLSID_QvEnumGUID) CoRegisterPSClsid(*id, *id);
  }
  return cookies;
}

void Revoke(const std::vector<DWORD>& cookies) {
  for (DWORD cookie : cookies) CoRevokeClassObject(cookie);
}

// Milliseconds to read the whole enumerator in batches of `batch`; -1 on failure.
double Enumerate(IEnumGUID* e, ULONG batch) {
  std::vector<GUID> items(batch);
  LARGE_INTEGER start, end, frequency;
  QueryPerformanceFrequency(&frequency);
  if (!e || FAILED(e->Reset())) return -1;
  QueryPerformanceCounter(&start);
  ULONG total = 0, fetched = 0;
  HRESULT hr;
  do {
    hr = e->Next(batch, items.data(), &fetched);
    if (FAILED(hr)) return -1;
    total += fetched;
  } while (hr == S_OK);
  QueryPerformanceCounter(&end);
  if (total != kItems) return -1;
  return 1000.0 * double(end.QuadPart - start.QuadPart) / double(frequency.QuadPart);
}

double Median(std::vector<double> values) {
  if (values.empty()) return -1;
  std::sort(values.begin(), values.end());
  const size_t half = values.size() / 2;
  return values.size() % 2 ? values[half] : (values[half - 1] + values[half]) / 2;
}

struct Timing {
  double library, platform, ratio;  // medians; ratio: platform time / library time
  int libraryFaster, rounds;
};

// `rounds` rounds of one run each, the proxy that goes first alternating from
// round to round.
Timing Compare(IEnumGUID* const proxies[2], ULONG batch, int rounds) {
  std::vector<double> ms[2], ratios;
  Timing timing = {-1, -1, 0, 0, 0};
  for (int round = 0; round < rounds; ++round) {
    double t[2];
    for (int k = 0; k < 2; ++k) {
      const int i = (round + k) % 2;
      t[i] = Enumerate(proxies[i], batch);
    }
    for (int i = 0; i < 2; ++i)
      if (t[i] >= 0) ms[i].push_back(t[i]);
    if (t[0] <= 0 || t[1] <= 0) continue;
    ratios.push_back(t[1] / t[0]);
    timing.libraryFaster += t[0] <= t[1];
    ++timing.rounds;
  }
  timing.library = Median(ms[0]);
  timing.platform = Median(ms[1]);
  timing.ratio = ratios.empty() ? 0 : Median(ratios);
  return timing;
}

}  // namespace

int main() {
  std::vector<GUID> guids(kItems);
  for (ULONG i = 0; i < kItems; ++i) guids[i] = {i, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};

  IStream* streams[2] = {};
  const IID* iids[2] = {&IID_IQvEnumGUID, &IID_IEnumGUID};
  DWORD serverThread = 0;
  HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  std::thread server([&] {
    CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
    std::vector<DWORD> cookies = RegisterPair();
    for (int i = 0; i < 2; ++i) {
      IEnumGUID* e = nullptr;
      if (SUCCEEDED(EnumGUID_Create(guids.data(), kItems, &e))) {
        CoMarshalInterThreadInterfaceInStream(*iids[i], e, &streams[i]);
        e->Release();
      }
    }
    serverThread = GetCurrentThreadId();
    SetEvent(ready);
    MSG message;
    while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
    Revoke(cookies);
    CoUninitialize();
  });
  WaitForSingleObject(ready, INFINITE);

  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  std::vector<DWORD> cookies = RegisterPair();
  IEnumGUID* proxies[2] = {};
  for (int i = 0; i < 2; ++i)
    if (streams[i])
      CoGetInterfaceAndReleaseStream(streams[i], *iids[i], reinterpret_cast<void**>(&proxies[i]));
  // A run of Next(256) is 40 calls, one of Next(1) 10,000: the short one gets
  // many rounds for little time. One unmeasured run of each proxy first, so
  // that neither pays for the first call's set-up.
  const struct {
    ULONG batch;
    int rounds;
  } kBatches[] = {{256, 101}, {1, 3}};
  for (IEnumGUID* proxy : proxies) Enumerate(proxy, 256);
  Timing timings[2];
  for (int b = 0; b < 2; ++b) timings[b] = Compare(proxies, kBatches[b].batch, kBatches[b].rounds);
  for (IEnumGUID* proxy : proxies)
    if (proxy) proxy->Release();
  Revoke(cookies);
  CoUninitialize();
  PostThreadMessageW(serverThread, WM_QUIT, 0, 0);
  server.join();
  CloseHandle(ready);

  std::printf(
      "%u GUIDs, STA server, MTA client   library proxy  platform proxy  ratio  library faster\n",
      static_cast<unsigned>(kItems));
  for (int b = 0; b < 2; ++b) {
    const Timing& t = timings[b];
    std::printf("Next(%3u), median of %3d rounds    %8.2f ms     %8.2f ms  %5.2f   in %3d of %3d\n",
                static_cast<unsigned>(kBatches[b].batch), kBatches[b].rounds, t.library, t.platform,
                t.ratio, t.libraryFaster, t.rounds);
  }
  std::printf(
      "(ratio: the median over rounds of platform time / library time; -1 ms: that proxy was not "
      "available)\n");
  return 0;
}
