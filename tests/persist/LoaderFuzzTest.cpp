// Mutation fuzzing of every record loader. Valid records of each kind the
// library writes are bent by seeded mutations and fed to each loader that reads
// that kind. Every case must answer a code, hand nothing out on failure, leave
// the stream where the loader promises, and leave no task memory, no global
// block, no object, no stream reference and nothing keeping the library loaded.
//
// The suite runs a bounded slice; "persist_fuzz --cases=N" runs N cases and
// prints the figures (scripts/fuzz.sh). Each case's mutations come from a
// generator seeded by its own number, so a failing case is reproduced alone.
#include <gtest/gtest.h>
#include <xkcombsd/Module.h>
#include <xkcombsd/Stores.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "ComTest.h"
#include "HResult.h"
#include "RecordLoaders.h"
#include "RegistryProbe.h"
#include "TestStreams.h"

namespace {

using namespace xktest;  // NOLINT: the records and loaders are the suite's vocabulary

struct Row {
  std::string name;
  Seed seed;
  const Loader* loader;
  HRESULT expected;     // for the seed itself
  bool strict = false;  // whether the seed is read from a stream that refuses short reads
};

Seed Counted(ULONG count, const Bytes& rest = {}) {
  return {Concat(LittleEndian32(count), rest), {0}};
}
Seed Header(VARTYPE vt) { return {Concat({BYTE(vt), BYTE(vt >> 8)}, Bytes(14, 0xCC)), {}}; }

// Records as the registry store keeps them: saved through a stream on a
// store over the test's own key, read back from the value its flush wrote.
template <class Save>
Bytes KeptInTheRegistry(Save save) {
  const char kKey[] = "Software\\XKComBsD tests\\fuzz seed";
  xktest::KeyTreeCleanup cleanup(HKEY_CURRENT_USER, {kKey});
  HKEY key = nullptr;
  EXPECT_EQ(0, RegCreateKeyA(HKEY_CURRENT_USER, kKey, &key));
  {
    ComRef<ILockBytes> store;
    ComRef<IStream> stream;
    EXPECT_HR(S_OK, CreateLockBytesOnRegKey(key, nullptr, 0, store.put()));
    RegCloseKey(key);
    if (!store.get()) return {};
    EXPECT_HR(S_OK, CreateStreamOnLockBytes(store.get(), 0, stream.put()));
    EXPECT_HR(S_OK, save(stream.get()));
    EXPECT_HR(S_OK, store->Flush());
  }
  Bytes value(4096);
  DWORD cb = static_cast<DWORD>(value.size());
  EXPECT_EQ(0, RegGetValueA(HKEY_CURRENT_USER, kKey, nullptr, RRF_RT_REG_BINARY, nullptr,
                            value.data(), &cb));
  value.resize(cb);
  return value;
}

// A BSTR VARIANT and a property, as one value of the registry.
Seed RegistrySeed() {
  VARIANT text;
  VARIANT_InitBSTRW(&text, L"kept");
  const Bytes bytes = KeptInTheRegistry([&](IStream* s) {
    const HRESULT hr = VARIANT_SaveToStream(s, &text);
    return FAILED(hr) ? hr : Property_SaveToStream(s, L"name", &text);
  });
  VariantClear(&text);
  const size_t name = 28;  // after the VARIANT's header, count and 4 characters
  return {bytes, {16, name, name + 4 + (bytes.size() > name ? bytes[name] : 0) + 16}};
}

std::vector<Row> Rows() {
  const HRESULT kBad = HRESULT_FROM_WIN32(ERROR_INVALID_DATA), kFault = STG_E_READFAULT;
  const Seed number = ObjectSeed(kNumberClass, {{4, 3, 2, 1}, {}});
  std::vector<Row> rows = {
      // Hostile records pinned to their codes, read as a strict stream reads
      {"BSTR count cut short", {{8, 0}, {}}, &kBstr, kFault, true},
      {"BSTR text cut short", Counted(8, {'a', 0}), &kBstr, kFault, true},
      {"BSTR garbage count", Counted(~0u), &kBstr, kBad, true},
      {"BSTR count past the stream", Counted((1u << 20) + 64, Bytes(10, 'x')), &kBstr, kBad, true},
      {"OLE odd count", Counted(3, {'a', 0, 0}), &kOle, kBad, true},
      {"OLE no terminator", Counted(4, {'a', 0, 'b', 0}), &kOle, kBad, true},
      {"OLE garbage count", Counted(0x80000000), &kOle, kBad, true},
      {"VARIANT cut short", {{3, 0}, {}}, &kVariant, kFault, true},
      {"VARIANT BSTR garbage count", Cat(Header(VT_BSTR), Counted(~0u)), &kVariant, kBad, true},
      {"VARIANT vt 0xFFFF", Header(0xFFFF), &kVariant, DISP_E_BADVARTYPE, true},
      {"class id cut short", {Bytes(10, 0x11), {}}, &kInitNumber, kFault, true},
      {"number cut short",
       {Bytes(number.bytes.begin(), number.bytes.end() - 3), {}},
       &kInitNumber,
       kFault,
       true},
      // and as a lenient stream reads them, which pads a short read with nothing
      {"name length 0", Counted(0, Bytes(16, 0)), &kProperty, kBad},
      {"name length odd", Counted(5, Bytes(21, 0)), &kProperty, kBad},
      {"name length past the stream", Counted(0x7FFFFFF0, Bytes(8, 'x')), &kProperty, kBad},
      {"name length 0xFFFFFFFE", Counted(0xFFFFFFFE), &kProperty, kBad},
      {"name length cut short", {{1, 0}, {0}}, &kProperty, kBad},
      // Records the library writes
      {"BSTR abc", BstrSeed("a\0b\0c\0", 6), &kBstr, S_OK},
      {"BSTR abc", BstrSeed("a\0b\0c\0", 6), &kOle, S_OK},
      {"BSTR null", BstrSeed(nullptr, 0), &kBstr, S_OK},
      {"BSTR null", BstrSeed(nullptr, 0), &kOle, S_OK},
      {"BSTR xyz", BstrSeed("xyz", 3), &kBstr, S_OK},
      {"BSTR xyz", BstrSeed("xyz", 3), &kOle, kBad},
      {"number", number, &kInitNumber, S_OK},
      {"number", number, &kLoadBag, E_NOINTERFACE},
      {"number", number, &kInitBag, TYPE_E_INVALIDID},
      {"property abc", PropertySeed(L"abc", VT_I4), &kProperty, S_OK},
      {"property n", PropertySeed(L"n", VT_BSTR), &kProperty, S_OK},
      {"bag data", BagData(), &kBagLoad, S_OK},
      {"bag", ObjectSeed(CLSID_QvPropertyBag, BagData()), &kLoadBag, S_OK},
      {"bag", ObjectSeed(CLSID_QvPropertyBag, BagData()), &kInitBag, S_OK},
      {"bag", ObjectSeed(CLSID_QvPropertyBag, BagData()), &kInitNumber, TYPE_E_INVALIDID},
      {"VARIANT 0x2000",
       {{0x00, 0x20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {}},
       &kVariant,
       E_NOTIMPL},
      {"SAFEARRAY", {{1, 0, 0, 0}, {0}}, &kArray, E_NOTIMPL},
      {"VARIANT null object", VariantSeed(VT_UNKNOWN, 0, true), &kVariant, S_OK},
      {"VARIANT object failing Load", VariantSeed(VT_UNKNOWN, kRefusedNumber), &kVariant,
       kRefusedLoad},
      {"VARIANT dispatch", VariantSeed(VT_DISPATCH), &kVariant, E_NOINTERFACE},
      {"VARIANT dispatch by reference", VariantSeed(VT_BYREF | VT_DISPATCH), &kVariant,
       E_NOINTERFACE},
      {"registry value", RegistrySeed(), &kVariant, S_OK},
      {"VARIANT bag",
       Cat({Bytes{VT_UNKNOWN, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {}},
           ObjectSeed(CLSID_QvPropertyBag_ST, BagData())),
       &kVariant, S_OK},
  };
  for (VARTYPE vt : {VT_EMPTY, VT_NULL, VT_I2, VT_I4, VT_R4, VT_R8, VT_CY, VT_DATE, VT_ERROR,
                     VT_BOOL, VT_I1, VT_UI1, VT_UI2, VT_UI4, VT_INT, VT_UINT, VT_BSTR, VT_UNKNOWN})
    for (VARTYPE byRef : {VARTYPE(0), VARTYPE(VT_BYREF)})
      if (!byRef || vt > VT_NULL)  // nothing to refer to
        rows.push_back(
            {"VARIANT vt " + std::to_string(vt | byRef), VariantSeed(vt | byRef), &kVariant, S_OK});
  return rows;
}

// ---- The engine

const Bytes kPrefix = {0xEE, 0xEE, 0xEE};  // where the record starts is not 0
// Counts up to 1 MiB are believed without asking the stream; a larger one only
// when the stream holds that much.
const SIZE_T kMostReserved = (1u << 20) + 32;

struct Figures {
  unsigned cases = 0, failures = 0;
  double slowestMs = 0;
  std::string slowest;
};

std::atomic<unsigned> g_currentCase{0};
LONG WINAPI ReportCrash(EXCEPTION_POINTERS* info) {
  std::fprintf(stderr, "crash 0x%08lX in case %u\n",
               static_cast<unsigned long>(info->ExceptionRecord->ExceptionCode),
               g_currentCase.load());
  std::fflush(stderr);
  return EXCEPTION_CONTINUE_SEARCH;
}

// One case: what went wrong, or "" when nothing did.
std::string RunCase(const Row& row, const Bytes& mutant, bool strict, HRESULT expected) {
  xktest::FaultyStream stream(Concat(kPrefix, mutant));
  if (strict) stream.FailShortReads(STG_E_READFAULT);
  xktest::SeekTo(stream.Inner(), kPrefix.size());
  const ULONGLONG start = kPrefix.size(), end = start + mutant.size();
  xktest::MallocSpy spy;
  xktest::AllocationFailure globals;  // counts the library's global blocks; fails nothing
  const bool unloadable = DllCanUnloadNow() == S_OK;  // one leak is reported once
  const HRESULT hr = row.loader->load(&stream);
  const ULONGLONG position = stream.Position();
  std::string wrong;
  if (hr == xktest::kBrokenOutput) wrong += " broke a promise about its output;";
  if (expected != S_FALSE && hr != expected) wrong += " answered " + xktest::HexOf(hr) + ";";
  if ((FAILED(hr) && row.loader->guarded) ? position != start
                                          : (position < start || position > end))
    wrong += " left the stream at " + std::to_string(position) + ";";
  for (SIZE_T request : spy.AllocRequests())
    if (request > kMostReserved) wrong += " asked for " + std::to_string(request) + ";";
  if (spy.Outstanding()) wrong += " leaked " + std::to_string(spy.Outstanding()) + " blocks;";
  if (globals.LiveGlobalBlocks())
    wrong += " left " + std::to_string(globals.LiveGlobalBlocks()) + " global blocks;";
  if (long& live = PersistentNumber::Live()) {
    wrong += " left " + std::to_string(live) + " objects;";
    live = 0;
  }
  if (stream.References() != 1) wrong += " kept the stream;";
  if (unloadable && DllCanUnloadNow() != S_OK) wrong += " kept the library loaded;";
  return wrong;
}

Figures Fuzz(const std::vector<Row>& rows, unsigned cases) {
  Figures figures;
  for (unsigned i = 0; i < cases; ++i, ++figures.cases) {
    g_currentCase = i;
    const Row& row = rows[i % rows.size()];
    const unsigned caseNumber = static_cast<unsigned>(i / rows.size());
    const auto started = std::chrono::steady_clock::now();
    const std::string wrong = RunCase(row, Mutant(row.seed, caseNumber),
                                      caseNumber == 0 ? row.strict : caseNumber % 2 == 1,
                                      caseNumber == 0 ? row.expected : S_FALSE);
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started)
            .count();
    const std::string where = "case " + std::to_string(i) + " (" + row.name + " into " +
                              row.loader->name + ", mutant " + std::to_string(caseNumber) + ")";
    if (ms > figures.slowestMs) figures.slowestMs = ms, figures.slowest = where;
    if (wrong.empty()) continue;
    if (++figures.failures <= 20) ADD_FAILURE() << where << ":" << wrong;
  }
  return figures;
}

// The number of cases asked for on the command line (--cases=N), or the slice.
unsigned CasesAsked(unsigned slice) {
  const char* asked = std::strstr(GetCommandLineA(), "--cases=");
  return asked ? static_cast<unsigned>(std::strtoul(asked + 8, nullptr, 10)) : slice;
}

class LoaderFuzz : public xktest::ComTest<COINIT_MULTITHREADED> {
 protected:
  void SetUp() override {
    ComTest::SetUp();
    m_classes.emplace();
  }
  void TearDown() override {
    m_classes.reset();
    EXPECT_EQ(0, PersistentNumber::Live());
    ComTest::TearDown();
  }

 private:
  std::optional<xktest::LoaderClasses> m_classes;
};

TEST_F(LoaderFuzz, AVariantObjectRoundTripsThroughItsRegisteredClass) {
  const Seed seed = VariantSeed(VT_UNKNOWN, 0x01020304);
  ComRef<IStream> stream(xktest::NewMemoryStream(seed.bytes));
  VARIANT loaded;
  ASSERT_HR(S_OK, VARIANT_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(VT_UNKNOWN, loaded.vt);
  EXPECT_EQ(seed.bytes.size(), xktest::PositionOf(stream.get()));
  ComRef<IPersistStream> persist;
  ASSERT_HR(S_OK, loaded.punkVal->QueryInterface(IID_IPersistStream,
                                                 reinterpret_cast<void**>(persist.put())));
  EXPECT_EQ(0x01020304, static_cast<PersistentNumber*>(persist.get())->value);
  persist.Reset();
  EXPECT_EQ(1, PersistentNumber::Live());
  VariantClear(&loaded);
}

TEST_F(LoaderFuzz, EveryLoaderSurvivesEveryMutantOfEveryRecordItReads) {
  const std::vector<Row> rows = Rows();
  SetUnhandledExceptionFilter(ReportCrash);
  const Figures figures = Fuzz(rows, CasesAsked(static_cast<unsigned>(rows.size()) * 100));
  std::printf("cases %u, failures %u, slowest %.3f ms: %s\n", figures.cases, figures.failures,
              figures.slowestMs, figures.slowest.c_str());
  EXPECT_EQ(0u, figures.failures);
}

}  // namespace
