// Streams on memory, side by side in one run: the library's CreateStreamOnMemory
// (task allocator, locked and unlocked, with and without QVCLBOMF_SPARE)
// against the platform's CreateStreamOnHGlobal and SHCreateMemStream, and
// against memcpy / std::vector doing the same work (the floor).
//
//   1. small calls: Write, Read and Seek of 4 bytes, ns per call
//   2. 1,000,000 appends of 16 bytes into an empty stream
//   3. CopyTo of 32 MiB into an empty stream
//   4. VARIANT records: save + load of a VT_I4 and of a 32-character VT_BSTR,
//      on a presized stream
//   5. 64 MiB written and read back in 64 KiB blocks (over memory already written)
//
// The machine is shared, so every figure runs its candidates interleaved,
// round after round, and reports the median round (and the best). Where a
// platform stream grows quadratically (appends, CopyTo into an empty stream)
// it gets a smaller count, named in its row, and its time per unit is scaled.
//
// Usage: store_bench [rounds]   (default 5)
#include <objbase.h>
#include <shlwapi.h>
#include <windows.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/Stores.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

int g_rounds = 5;

double NowNs() {
  static LARGE_INTEGER frequency = [] {
    LARGE_INTEGER f;
    QueryPerformanceFrequency(&f);
    return f;
  }();
  LARGE_INTEGER count;
  QueryPerformanceCounter(&count);
  return double(count.QuadPart) * 1e9 / double(frequency.QuadPart);
}

void Fail(const char* what, HRESULT hr) {
  std::printf("FAILED: %s (0x%08lX)\n", what, static_cast<unsigned long>(hr));
  std::exit(1);
}

// ---- the streams ----

enum Kind { kLocked, kUnlocked, kLockedSpare, kUnlockedSpare, kHGlobal, kMemStream, kFloor };
const char* const kNames[] = {"library, locked",
                              "library, unlocked",
                              "library, locked, QVCLBOMF_SPARE",
                              "library, unlocked, QVCLBOMF_SPARE",
                              "CreateStreamOnHGlobal (platform)",
                              "SHCreateMemStream (platform)",
                              "memcpy / std::vector"};
bool IsPlatform(int kind) { return kind == kHGlobal || kind == kMemStream; }

IStream* Make(int kind) {
  constexpr DWORD T = QVCLBOMF_TASKALLOCATOR, N = QVCLBOMF_NOLOCK, S = QVCLBOMF_SPARE;
  const DWORD flags[] = {T, T | N, T | S, T | N | S};
  IStream* stream = nullptr;
  HRESULT hr = E_FAIL;
  if (kind <= kUnlockedSpare) hr = CreateStreamOnMemory(nullptr, 0, flags[kind], 0, &stream);
  if (kind == kHGlobal) hr = CreateStreamOnHGlobal(nullptr, TRUE, &stream);
  if (kind == kMemStream) hr = (stream = SHCreateMemStream(nullptr, 0)) ? S_OK : E_OUTOFMEMORY;
  if (FAILED(hr)) Fail(kNames[kind], hr);
  return stream;
}

void Rewind(IStream* stream) {
  LARGE_INTEGER zero = {};
  stream->Seek(zero, STREAM_SEEK_SET, nullptr);
}

// ---- one table per figure ----

// A measurement gives a value per unit (ns per call, ns per append, ...).
struct Column {
  const char* title;
  double (*measure)(int kind);
};

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// Runs every column for every kind, interleaved, g_rounds times; prints median
// (best) and the ratios to the fastest platform stream and to the floor.
void Table(const char* title, const std::vector<int>& kinds, const std::vector<Column>& columns,
           const char* unit, bool perSecond = false) {
  std::vector<std::vector<std::vector<double>>> samples(
      kinds.size(), std::vector<std::vector<double>>(columns.size()));
  for (int r = 0; r < g_rounds; ++r)
    for (size_t c = 0; c < columns.size(); ++c)
      for (size_t k = 0; k < kinds.size(); ++k)
        samples[k][c].push_back(columns[c].measure(kinds[k]));
  std::printf("\n%s (%s; median of %d rounds, best in brackets)\n", title, unit, g_rounds);
  std::printf("%-36s", "");
  for (const Column& column : columns) std::printf(" | %-34s", column.title);
  std::printf("\n%-36s", "");
  for (size_t c = 0; c < columns.size(); ++c)
    std::printf(" | %8s %9s %7s %7s", unit, "(best)", "x plat", "x floor");
  std::printf("\n");
  for (size_t k = 0; k < kinds.size(); ++k) {
    std::printf("%-36s", kNames[kinds[k]]);
    for (size_t c = 0; c < columns.size(); ++c) {
      double platform = 0, floor = 0;
      for (size_t j = 0; j < kinds.size(); ++j) {
        const double m = Median(samples[j][c]);
        if (IsPlatform(kinds[j]) && (platform == 0 || (perSecond ? m > platform : m < platform)))
          platform = m;
        if (kinds[j] == kFloor) floor = m;
      }
      const double median = Median(samples[k][c]);
      const double best = perSecond ? *std::max_element(samples[k][c].begin(), samples[k][c].end())
                                    : *std::min_element(samples[k][c].begin(), samples[k][c].end());
      // Ratios are always "times as long": above 1 is slower.
      auto ratio = [&](double other) {
        return other <= 0 ? 0.0 : perSecond ? other / median : median / other;
      };
      std::printf(" | %8.2f %9.2f %6.2fx %6.2fx", median, best, ratio(platform), ratio(floor));
    }
    std::printf("\n");
  }
  std::fflush(stdout);
}

// ---- 1. small calls ----

constexpr int kSmallCalls = 20000;
BYTE g_small[4 * kSmallCalls];

double SmallWrite(int kind) {
  if (kind == kFloor) {
    static std::vector<BYTE> buffer(sizeof g_small);
    BYTE* volatile out = buffer.data();
    const ULONG four = 0x01020304;
    const double start = NowNs();
    for (int i = 0; i < kSmallCalls; ++i) std::memcpy(out + 4 * i, &four, 4);
    return (NowNs() - start) / kSmallCalls;
  }
  IStream* stream = Make(kind);
  stream->Write(g_small, sizeof g_small, nullptr);  // sized, so no call below grows it
  Rewind(stream);
  const ULONG four = 0x01020304;
  const double start = NowNs();
  for (int i = 0; i < kSmallCalls; ++i) stream->Write(&four, 4, nullptr);
  const double ns = (NowNs() - start) / kSmallCalls;
  stream->Release();
  return ns;
}

double SmallRead(int kind) {
  if (kind == kFloor) {
    BYTE* volatile in = g_small;
    ULONG four, sum = 0;
    const double start = NowNs();
    for (int i = 0; i < kSmallCalls; ++i) std::memcpy(&four, in + 4 * i, 4), sum += four;
    const double ns = (NowNs() - start) / kSmallCalls;
    return sum == 1 ? 0 : ns;
  }
  IStream* stream = Make(kind);
  stream->Write(g_small, sizeof g_small, nullptr);
  Rewind(stream);
  ULONG four, sum = 0;
  const double start = NowNs();
  for (int i = 0; i < kSmallCalls; ++i) stream->Read(&four, 4, nullptr), sum += four;
  const double ns = (NowNs() - start) / kSmallCalls;
  stream->Release();
  return sum == 1 ? 0 : ns;
}

double SmallSeek(int kind) {
  if (kind == kFloor) return 0;
  IStream* stream = Make(kind);
  LARGE_INTEGER four;
  four.QuadPart = 4;
  const double start = NowNs();
  for (int i = 0; i < kSmallCalls; ++i) stream->Seek(four, STREAM_SEEK_CUR, nullptr);
  const double ns = (NowNs() - start) / kSmallCalls;
  stream->Release();
  return ns;
}

// ---- 2. appends ----

constexpr ULONG kAppends = 1000000, kSlowAppends = 100000;
constexpr ULONG kRecordBytes = 16;

ULONG AppendsFor(int kind) {
  return IsPlatform(kind) || kind == kLocked || kind == kUnlocked ? kSlowAppends : kAppends;
}

double Appends(int kind) {
  BYTE record[kRecordBytes];
  for (ULONG i = 0; i < kRecordBytes; ++i) record[i] = BYTE(i);
  const ULONG count = AppendsFor(kind);
  if (kind == kFloor) {
    const double start = NowNs();
    std::vector<BYTE> vector;
    for (ULONG i = 0; i < count; ++i) {
      record[0] = BYTE(i);
      vector.insert(vector.end(), record, record + kRecordBytes);
    }
    const double ms = (NowNs() - start) / 1e6;
    if (vector.size() != size_t(count) * kRecordBytes) Fail("vector", E_FAIL);
    return ms * kAppends / count;
  }
  IStream* stream = Make(kind);
  const double start = NowNs();
  for (ULONG i = 0; i < count; ++i) {
    record[0] = BYTE(i);
    ULONG written = 0;
    const HRESULT hr = stream->Write(record, kRecordBytes, &written);
    if (hr != S_OK || written != kRecordBytes) Fail(kNames[kind], hr);
  }
  const double ms = (NowNs() - start) / 1e6;
  STATSTG stat = {};
  stream->Stat(&stat, STATFLAG_NONAME);
  if (stat.cbSize.QuadPart != ULONGLONG(count) * kRecordBytes) Fail("appended size", E_FAIL);
  stream->Release();
  return ms * kAppends / count;
}

// ---- 3. CopyTo ----

constexpr ULONG kCopyBytes = 32u << 20, kSlowCopyBytes = 1u << 20;

double CopyTo(int kind, bool warm) {
  const ULONG bytes = IsPlatform(kind) ? kSlowCopyBytes : kCopyBytes;
  std::vector<BYTE> pattern(bytes);
  for (ULONG i = 0; i < bytes; i += 4096) pattern[i] = BYTE(i >> 12);
  double seconds;
  if (kind == kFloor) {
    std::vector<BYTE> over(warm ? bytes : 0);
    const double start = NowNs();
    std::vector<BYTE> copy(warm ? 0 : bytes);
    std::memcpy(warm ? over.data() : copy.data(), pattern.data(), bytes);
    seconds = (NowNs() - start) / 1e9;
    if ((warm ? over : copy)[4096] != 1) Fail("memcpy", E_FAIL);
  } else {
    IStream* from = Make(kind);
    IStream* to = Make(kind);
    from->Write(pattern.data(), bytes, nullptr);
    Rewind(from);
    if (warm) to->Write(pattern.data(), bytes, nullptr), Rewind(to);
    ULARGE_INTEGER cb, read, written;
    cb.QuadPart = bytes;
    const double start = NowNs();
    const HRESULT hr = from->CopyTo(to, cb, &read, &written);
    seconds = (NowNs() - start) / 1e9;
    if (hr != S_OK || written.QuadPart != bytes) Fail(kNames[kind], hr);
    from->Release();
    to->Release();
  }
  return bytes / seconds / 1e9;
}
double CopyToEmpty(int kind) { return CopyTo(kind, false); }
double CopyToWarm(int kind) { return CopyTo(kind, true); }

// ---- 4. VARIANT records ----

constexpr int kVariants = 20000;

// The record image a saver writes, copied out and back, and for a string the
// BSTR a load must allocate and the caller free: the floor.
double RecordFloor(ULONG recordBytes, ULONG stringBytes) {
  static std::vector<BYTE> buffer(size_t(kVariants) * 100);
  BYTE record[100] = {3}, back[100];
  BYTE* volatile out = buffer.data();
  const double start = NowNs();
  for (int i = 0; i < kVariants; ++i)
    std::memcpy(out + size_t(i) * recordBytes, record, recordBytes);
  for (int i = 0; i < kVariants; ++i) {
    std::memcpy(back, out + size_t(i) * recordBytes, recordBytes);
    if (stringBytes)
      SysFreeString(SysAllocStringByteLen(reinterpret_cast<char*>(back), stringBytes));
  }
  return (NowNs() - start) / kVariants;
}

double Records(int kind, const VARIANT& value, ULONG recordBytes) {
  if (kind == kFloor) return RecordFloor(recordBytes, value.vt == VT_BSTR ? recordBytes - 22 : 0);
  IStream* stream = Make(kind);
  // Written over once first: the records are measured, not the growth of the
  // stream nor the first touch of its memory (which costs microseconds a page here).
  std::vector<BYTE> zeros(size_t(kVariants) * recordBytes);
  stream->Write(zeros.data(), ULONG(zeros.size()), nullptr);
  Rewind(stream);
  HRESULT hr;
  const double start = NowNs();
  for (int i = 0; i < kVariants; ++i)
    if ((hr = VARIANT_SaveToStream(stream, &value)) != S_OK) Fail(kNames[kind], hr);
  Rewind(stream);
  for (int i = 0; i < kVariants; ++i) {
    VARIANT loaded;
    if ((hr = VARIANT_LoadFromStream(stream, &loaded)) != S_OK) Fail(kNames[kind], hr);
    if (loaded.vt != value.vt) Fail("loaded record", E_FAIL);
    VariantClear(&loaded);
  }
  const double ns = (NowNs() - start) / kVariants;
  stream->Release();
  return ns;
}

double I4Records(int kind) {
  VARIANT value;
  value.vt = VT_I4;
  value.lVal = 42;
  return Records(kind, value, 16);
}

double BstrRecords(int kind) {
  static const wchar_t kText[] = L"0123456789abcdefghijklmnopqrstuv";  // 32 characters
  VARIANT value;
  value.vt = VT_BSTR;
  value.bstrVal = SysAllocString(kText);
  const double ns = Records(kind, value, 16 + 4 + sizeof kText);
  SysFreeString(value.bstrVal);
  return ns;
}

// ---- 5. bulk transfer ----

constexpr ULONG kBlockBytes = 64 * 1024, kBulkBytes = 64u << 20;

double WriteThenRead(int kind) {
  std::vector<BYTE> block(kBlockBytes), back(kBlockBytes);
  for (ULONG i = 0; i < kBlockBytes; ++i) block[i] = BYTE(i * 13);
  constexpr ULONG kBlocks = kBulkBytes / kBlockBytes;
  double start;
  if (kind == kFloor) {
    std::vector<BYTE> buffer(kBulkBytes);
    start = NowNs();
    for (ULONG b = 0; b < kBlocks; ++b)
      std::memcpy(&buffer[size_t(b) * kBlockBytes], block.data(), kBlockBytes);
    for (ULONG b = 0; b < kBlocks; ++b)
      std::memcpy(back.data(), &buffer[size_t(b) * kBlockBytes], kBlockBytes);
  } else {
    IStream* stream = Make(kind);
    // Sized (growing block by block would be quadratic for the platform's
    // streams), then written over once, as the floor's buffer is: the copies
    // are measured, not the first touch of new memory.
    ULARGE_INTEGER size;
    size.QuadPart = kBulkBytes;
    stream->SetSize(size);
    for (ULONG b = 0; b < kBlocks; ++b) stream->Write(back.data(), kBlockBytes, nullptr);
    Rewind(stream);
    start = NowNs();
    for (ULONG b = 0; b < kBlocks; ++b) stream->Write(block.data(), kBlockBytes, nullptr);
    Rewind(stream);
    for (ULONG b = 0; b < kBlocks; ++b) stream->Read(back.data(), kBlockBytes, nullptr);
    const double ms = (NowNs() - start) / 1e6;
    stream->Release();
    if (back[7] != block[7]) Fail("read back", E_FAIL);
    return ms;
  }
  return (NowNs() - start) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) g_rounds = std::max(1, std::atoi(argv[1]));
  CoInitializeEx(nullptr, COINIT_MULTITHREADED);
  const std::vector<int> streams = {kLocked, kUnlocked, kHGlobal, kMemStream, kFloor};
  const std::vector<int> growing = {kLockedSpare, kUnlockedSpare, kLocked, kUnlocked,
                                    kHGlobal,     kMemStream,     kFloor};

  Table("1. Small calls of 4 bytes (goals: unlocked <= 4 ns, locked <= 29 ns)", streams,
        {{"Write", &SmallWrite}, {"Read", &SmallRead}, {"Seek", &SmallSeek}}, "ns/call");
  std::printf(
      "(platform streams and the library without SPARE: %lu appends, scaled linearly,\n"
      " which flatters their quadratic growth; floor: std::vector::insert)\n",
      static_cast<unsigned long>(kSlowAppends));
  Table("2. 1,000,000 appends of 16 bytes (goal: SPARE within 2x std::vector)", growing,
        {{"appends", &Appends}}, "ms");
  std::printf(
      "(platform streams: %lu MiB; floor: a std::vector copy, or a memcpy over one;\n"
      " a page of new memory costs microseconds to touch first here)\n",
      static_cast<unsigned long>(kSlowCopyBytes >> 20));
  Table("3. CopyTo of 32 MiB into an empty stream (goal: >= 1 GB/s)", growing,
        {{"into an empty stream", &CopyToEmpty}, {"over 32 MiB already written", &CopyToWarm}},
        "GB/s", true);
  std::printf(
      "\n(floor: memcpy of the record; for VT_BSTR also SysAllocStringByteLen + SysFreeString)");
  Table("4. VARIANT record, save + load (goals: VT_I4 <= 100 ns, VT_BSTR <= 300 ns)", streams,
        {{"VT_I4", &I4Records}, {"VT_BSTR, 32 characters", &BstrRecords}}, "ns/rec");
  Table("5. 64 MiB in 64 KiB blocks, written + read over bytes already written", streams,
        {{"write + read", &WriteThenRead}}, "ms");
  CoUninitialize();
  return 0;
}
