// Streams on memory, side by side: the library's CreateStreamOnMemory on the
// task allocator and on a private heap, each locked and unlocked, against the
// platform's CreateStreamOnHGlobal and SHCreateMemStream, and against a plain
// memcpy into a preallocated buffer (the physical floor).
//
//   (a) append 1,000,000 records of 16 bytes
//   (b) write 64 MiB in 64 KiB blocks into a stream sized to 64 MiB first,
//       then read it back
//   (c) save 100,000 VT_BSTR VARIANT records, then load them back
//
// The library's growable stores keep exactly as many bytes as they hold, so
// (a) makes 1,000,000 reallocations by design; the table shows what that costs.
// (b) measures moving bytes, not growing: under the test platform every
// stream, the platform's own included, pays far more than linearly for
// growing a large block step by step (64 MiB in 64 KiB steps would take many
// minutes per stream), and growth is what (a) already measures.
//
// Usage: store_bench [runs [records [MiB]]]. By default (a) runs once and (b)
// takes the best of three; a number of runs given applies to both.
#include <windows.h>
#include <objbase.h>
#include <shlwapi.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/Stores.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

ULONG kRecords = 1000000;  // a second argument scales it down for quick looks
constexpr ULONG kRecordBytes = 16;
constexpr ULONG kBlockBytes = 64 * 1024;
ULONG kTotalBytes = 64 * 1024 * 1024;  // a third argument (MiB) scales it down
ULONG kBlocks = kTotalBytes / kBlockBytes;

double Now() {
  static LARGE_INTEGER frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return f;
  }();
  LARGE_INTEGER count;
  QueryPerformanceCounter(&count);
  return double(count.QuadPart) * 1000.0 / double(frequency.QuadPart);
}

struct Candidate {
  const char* name;
  bool platform;
  HRESULT (*make)(IStream** stream);  // NULL: the memcpy floor
};

template <DWORD Flags>
HRESULT OnMemory(IStream** stream) {
  return CreateStreamOnMemory(nullptr, 0, Flags, 0, stream);
}
HRESULT OnHGlobal(IStream** stream) { return CreateStreamOnHGlobal(nullptr, TRUE, stream); }
HRESULT MemStream(IStream** stream) {
  *stream = SHCreateMemStream(nullptr, 0);
  return *stream ? S_OK : E_OUTOFMEMORY;
}

const Candidate kCandidates[] = {
    {"CreateStreamOnMemory, task allocator, locked", false, &OnMemory<QVCLBOMF_TASKALLOCATOR>},
    {"CreateStreamOnMemory, task allocator, unlocked", false,
     &OnMemory<QVCLBOMF_TASKALLOCATOR | QVCLBOMF_NOLOCK>},
    {"CreateStreamOnMemory, private heap, locked", false, &OnMemory<QVCLBOMF_PRIVATEHEAP>},
    {"CreateStreamOnMemory, private heap, unlocked", false,
     &OnMemory<QVCLBOMF_PRIVATEHEAP | QVCLBOMF_NOLOCK>},
    {"CreateStreamOnHGlobal (platform)", true, &OnHGlobal},
    {"SHCreateMemStream (platform)", true, &MemStream},
    {"memcpy into a preallocated buffer", false, nullptr},
};
constexpr int kCandidateCount = sizeof kCandidates / sizeof kCandidates[0];

void Fail(const char* what, HRESULT hr) {
  std::printf("FAILED: %s (0x%08lX)\n", what, static_cast<unsigned long>(hr));
  std::exit(1);
}

// ---- (a) 1,000,000 appends of 16 bytes ----

double AppendRecords(const Candidate& candidate) {
  BYTE record[kRecordBytes];
  for (ULONG i = 0; i < kRecordBytes; ++i) record[i] = BYTE(i);
  if (!candidate.make) {
    std::vector<BYTE> buffer(size_t(kRecords) * kRecordBytes);
    BYTE* volatile out = buffer.data();  // keeps the copies from being folded away
    const double start = Now();
    for (ULONG i = 0; i < kRecords; ++i) {
      record[0] = BYTE(i);
      std::memcpy(out + size_t(i) * kRecordBytes, record, kRecordBytes);
    }
    const double elapsed = Now() - start;
    if (buffer[kRecordBytes * 7] != 7) Fail("memcpy floor", E_FAIL);
    return elapsed;
  }
  IStream* stream = nullptr;
  HRESULT hr = candidate.make(&stream);
  if (FAILED(hr)) Fail(candidate.name, hr);
  const double start = Now();
  for (ULONG i = 0; i < kRecords; ++i) {
    record[0] = BYTE(i);
    ULONG written = 0;
    hr = stream->Write(record, kRecordBytes, &written);
    if (hr != S_OK || written != kRecordBytes) Fail(candidate.name, hr);
  }
  const double elapsed = Now() - start;
  STATSTG stat = {};
  stream->Stat(&stat, STATFLAG_NONAME);
  if (stat.cbSize.QuadPart != ULONGLONG(kRecords) * kRecordBytes) Fail("appended size", E_FAIL);
  stream->Release();
  return elapsed;
}

// ---- (b) 64 MiB in 64 KiB blocks, written then read back ----

double WriteThenRead(const Candidate& candidate) {
  std::vector<BYTE> block(kBlockBytes), back(kBlockBytes);
  for (ULONG i = 0; i < kBlockBytes; ++i) block[i] = BYTE(i * 13);
  ULONGLONG sum = 0;
  double elapsed;
  if (!candidate.make) {
    std::vector<BYTE> buffer(kTotalBytes);
    const double start = Now();
    for (ULONG b = 0; b < kBlocks; ++b) std::memcpy(&buffer[size_t(b) * kBlockBytes], block.data(), kBlockBytes);
    for (ULONG b = 0; b < kBlocks; ++b) {
      std::memcpy(back.data(), &buffer[size_t(b) * kBlockBytes], kBlockBytes);
      sum += back[b % kBlockBytes];
    }
    elapsed = Now() - start;
  } else {
    IStream* stream = nullptr;
    HRESULT hr = candidate.make(&stream);
    if (FAILED(hr)) Fail(candidate.name, hr);
    ULARGE_INTEGER size;
    size.QuadPart = kTotalBytes;
    hr = stream->SetSize(size);
    if (FAILED(hr)) Fail(candidate.name, hr);
    const double start = Now();
    for (ULONG b = 0; b < kBlocks; ++b) {
      ULONG written = 0;
      hr = stream->Write(block.data(), kBlockBytes, &written);
      if (hr != S_OK || written != kBlockBytes) Fail(candidate.name, hr);
    }
    LARGE_INTEGER zero = {};
    stream->Seek(zero, STREAM_SEEK_SET, nullptr);
    for (ULONG b = 0; b < kBlocks; ++b) {
      ULONG read = 0;
      hr = stream->Read(back.data(), kBlockBytes, &read);
      if (hr != S_OK || read != kBlockBytes) Fail(candidate.name, hr);
      sum += back[b % kBlockBytes];
    }
    elapsed = Now() - start;
    stream->Release();
  }
  ULONGLONG expected = 0;
  for (ULONG b = 0; b < kBlocks; ++b) expected += block[b % kBlockBytes];
  if (sum != expected) Fail("read back", E_FAIL);
  return elapsed;
}

// ---- (c) 100,000 VT_BSTR VARIANT records, saved then loaded ----

constexpr ULONG kVariantRecords = 100000;
constexpr wchar_t kVariantText[] = L"benchmark";
// The record: the 16-byte VARIANT image, the 4-byte count, the characters and
// their terminator.
constexpr ULONG kVariantRecordBytes = 16 + 4 + sizeof kVariantText;

double VariantRecords(const Candidate& candidate) {
  if (!candidate.make) {
    BYTE record[kVariantRecordBytes] = {8};
    std::memcpy(record + 20, kVariantText, sizeof kVariantText);
    std::vector<BYTE> buffer(size_t(kVariantRecords) * kVariantRecordBytes);
    BYTE* volatile out = buffer.data();
    BYTE back[kVariantRecordBytes];
    const double start = Now();
    for (ULONG i = 0; i < kVariantRecords; ++i)
      std::memcpy(out + size_t(i) * kVariantRecordBytes, record, kVariantRecordBytes);
    for (ULONG i = 0; i < kVariantRecords; ++i)
      std::memcpy(back, out + size_t(i) * kVariantRecordBytes, kVariantRecordBytes);
    const double elapsed = Now() - start;
    if (back[0] != 8) Fail("memcpy floor", E_FAIL);
    return elapsed;
  }
  IStream* stream = nullptr;
  HRESULT hr = candidate.make(&stream);
  if (FAILED(hr)) Fail(candidate.name, hr);
  VARIANT value;
  VariantInit(&value);
  value.vt = VT_BSTR;
  value.bstrVal = SysAllocString(kVariantText);
  const double start = Now();
  for (ULONG i = 0; i < kVariantRecords; ++i)
    if ((hr = VARIANT_SaveToStream(stream, &value)) != S_OK) Fail(candidate.name, hr);
  LARGE_INTEGER zero = {};
  stream->Seek(zero, STREAM_SEEK_SET, nullptr);
  for (ULONG i = 0; i < kVariantRecords; ++i) {
    VARIANT loaded;
    if ((hr = VARIANT_LoadFromStream(stream, &loaded)) != S_OK) Fail(candidate.name, hr);
    if (loaded.vt != VT_BSTR || SysStringByteLen(loaded.bstrVal) != sizeof kVariantText)
      Fail("loaded record", E_FAIL);
    VariantClear(&loaded);
  }
  const double elapsed = Now() - start;
  VariantClear(&value);
  stream->Release();
  return elapsed;
}

struct Workload {
  const char* title;
  double (*run)(const Candidate&);
  int runs;  // by default
};
const Workload kWorkloads[] = {
    {"(a) 1,000,000 appends of 16 bytes", &AppendRecords, 1},
    {"(b) 64 MiB presized, 64 KiB write + read", &WriteThenRead, 3},
    {"(c) 100,000 VT_BSTR VARIANTs, save + load", &VariantRecords, 1},
};
constexpr int kWorkloadCount = sizeof kWorkloads / sizeof kWorkloads[0];

double Best(const Workload& workload, const Candidate& candidate, int runs) {
  double best = 0;
  for (int r = 0; r < runs; ++r) {
    const double t = workload.run(candidate);
    if (r == 0 || t < best) best = t;
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 0;
  if (argc > 2) kRecords = static_cast<ULONG>(std::max(1, std::atoi(argv[2])));
  if (argc > 3) {
    kTotalBytes = static_cast<ULONG>(std::max(1, std::atoi(argv[3]))) << 20;
    kBlocks = kTotalBytes / kBlockBytes;
  }
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);

  double times[kWorkloadCount][kCandidateCount];
  for (int w = 0; w < kWorkloadCount; ++w)
    for (int c = 0; c < kCandidateCount; ++c) {
      times[w][c] = Best(kWorkloads[w], kCandidates[c], runs ? runs : kWorkloads[w].runs);
      std::fprintf(stderr, "%s, %s: %.1f ms\n", kWorkloads[w].title, kCandidates[c].name, times[w][c]);
    }

  std::printf("Streams on memory; times in ms (best of the runs); ratios to the fastest\n"
              "platform stream (x plat) and to memcpy (x memcpy).\n\n");
  std::printf("%-48s", "");
  for (const Workload& workload : kWorkloads) std::printf(" | %-40s", workload.title);
  std::printf("\n%-48s", "");
  for (int w = 0; w < kWorkloadCount; ++w) std::printf(" | %10s %12s %15s ", "ms", "x plat", "x memcpy");
  std::printf("\n");

  for (int c = 0; c < kCandidateCount; ++c) {
    std::printf("%-48s", kCandidates[c].name);
    for (int w = 0; w < kWorkloadCount; ++w) {
      double fastestPlatform = 0, floor = 0;
      for (int k = 0; k < kCandidateCount; ++k) {
        if (kCandidates[k].platform && (fastestPlatform == 0 || times[w][k] < fastestPlatform))
          fastestPlatform = times[w][k];
        if (!kCandidates[k].make) floor = times[w][k];
      }
      std::printf(" | %10.1f %11.2fx %14.1fx ", times[w][c], times[w][c] / fastestPlatform,
                  times[w][c] / (floor > 0 ? floor : 1e-9));
    }
    std::printf("\n");
  }
  CoUninitialize();
  return 0;
}
