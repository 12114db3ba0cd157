// Mutation fuzzing of every record loader. Valid records of each kind the
// library writes are bent by seeded mutations and fed to each loader that reads
// that kind. Every case must answer a code, hand nothing out on failure, leave
// the stream where the loader promises, and leave no task memory, no object and
// no stream reference behind and nothing keeping the library loaded.
//
// The suite runs a bounded slice; "persist_fuzz --cases=N" runs N cases and
// prints the figures (scripts/fuzz.sh). Each case's mutations come from a
// generator seeded by its own number, so a failing case is reproduced alone.
#include <gtest/gtest.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/PropertyBag.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "ComTest.h"
#include "HResult.h"
#include "TestStreams.h"

namespace {

using xktest::Bytes;
using xktest::ComRef;
using xktest::Concat;

// ---- A persistent number, registered in-process under a class id of its own

constexpr CLSID kNumberClass = {
    0x6B1D0C52, 0x3E0A, 0x4F5B, {0x9C, 0x11, 0x2D, 0x7A, 0x5E, 0x40, 0xB0, 0x03}};
constexpr LONG kRefusedNumber = 0x0BADBAD0;  // a number whose Load fails
const HRESULT kRefusedLoad = STG_E_DOCFILECORRUPT;
std::atomic<long> g_liveNumbers{0};

class Number : public IPersistStream {
 public:
  explicit Number(LONG value = 0) : value(value) { ++g_liveNumbers; }
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    const bool known = iid == IID_IUnknown || iid == IID_IPersist || iid == IID_IPersistStream;
    *ppv = known ? this : nullptr;
    if (known) AddRef();
    return known ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++m_refs); }
  STDMETHODIMP_(ULONG) Release() override {
    const long left = --m_refs;
    if (left == 0) delete this;
    return static_cast<ULONG>(left);
  }
  STDMETHODIMP GetClassID(CLSID* clsid) override {
    *clsid = kNumberClass;
    return S_OK;
  }
  STDMETHODIMP IsDirty() override { return S_FALSE; }
  STDMETHODIMP Load(IStream* stream) override {
    LONG read = 0;
    ULONG got = 0;
    const HRESULT hr = stream->Read(&read, sizeof read, &got);
    if (FAILED(hr)) return hr;
    if (got < sizeof read) return STG_E_READFAULT;
    if (read == kRefusedNumber) return kRefusedLoad;
    value = read;
    return S_OK;
  }
  STDMETHODIMP Save(IStream* stream, BOOL) override {
    return stream->Write(&value, sizeof value, nullptr);
  }
  STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override {
    size->QuadPart = sizeof value;
    return S_OK;
  }

  LONG value;

 private:
  ~Number() { --g_liveNumbers; }
  std::atomic<long> m_refs{1};
};

class NumberFactory : public IClassFactory {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    const bool known = iid == IID_IUnknown || iid == IID_IClassFactory;
    *ppv = known ? this : nullptr;
    return known ? S_OK : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }  // lives as long as the program
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** ppv) override {
    *ppv = nullptr;
    if (outer) return CLASS_E_NOAGGREGATION;
    ComRef<Number> number(new Number);
    return number->QueryInterface(iid, ppv);
  }
  STDMETHODIMP LockServer(BOOL) override { return S_OK; }
} g_numberFactory;

// ---- Seeds: records the library writes, with the offsets of their 32-bit counts

struct Seed {
  Bytes bytes;
  std::vector<size_t> counts;
};

Seed Cat(Seed first, const Seed& second) {
  for (size_t count : second.counts) first.counts.push_back(first.bytes.size() + count);
  first.bytes = Concat(first.bytes, second.bytes);
  return first;
}

template <class Save>
Bytes Saved(Save save) {
  ComRef<IStream> stream(xktest::NewMemoryStream());
  EXPECT_HR(S_OK, save(stream.get()));
  return xktest::ContentOf(stream.get());
}

Seed BstrSeed(const char* bytes, UINT length) {
  BSTR text = bytes ? SysAllocStringByteLen(bytes, length) : nullptr;
  Seed seed{Saved([&](IStream* s) { return BSTR_SaveToStream(s, text); }), {0}};
  SysFreeString(text);
  return seed;
}

// A value of each supported type, a BSTR, an object, and each of those by reference.
VARIANT Value(VARTYPE vt, BSTR* text, Number** number, LONGLONG* bits) {
  VARIANT value = {};
  value.vt = vt;
  value.llVal = *bits;
  const VARTYPE type = vt & ~VT_BYREF;
  if (type == VT_BSTR) value.bstrVal = *text;
  if (type == VT_UNKNOWN || type == VT_DISPATCH) value.punkVal = *number;
  if (vt & VT_BYREF)
    value.byref = type == VT_BSTR                             ? static_cast<void*>(text)
                  : type == VT_UNKNOWN || type == VT_DISPATCH ? static_cast<void*>(number)
                                                              : static_cast<void*>(bits);
  return value;
}

Seed VariantSeed(VARTYPE vt, LONG number = 0x01020304, bool nullObject = false) {
  BSTR text = SysAllocString(L"abc");
  Number* object = nullObject ? nullptr : new Number(number);
  LONGLONG bits = 0x0102030405060708;
  const VARIANT value = Value(vt, &text, &object, &bits);
  Seed seed{Saved([&](IStream* s) { return VARIANT_SaveToStream(s, &value); }), {}};
  if ((vt & ~VT_BYREF) == VT_BSTR) seed.counts.push_back(16);
  SysFreeString(text);
  if (object) object->Release();
  return seed;
}

Seed PropertySeed(const wchar_t* name, VARTYPE vt) {
  VARIANT value;
  VariantInit(&value);
  if (vt == VT_BSTR) VARIANT_InitBSTRW(&value, L"abc");
  if (vt == VT_I4) VARIANT_InitI4(&value, 7);
  Seed seed{Saved([&](IStream* s) { return Property_SaveToStream(s, name, &value); }), {0}};
  VariantClear(&value);
  if (vt == VT_BSTR) seed.counts.push_back(4 + seed.bytes[0] + 16);
  return seed;
}

// The bag's own data: the header (version 1, the count), then its records.
Seed BagData() {
  Seed header{Concat(Concat({1, 0, 0, 0}, xktest::LittleEndian32(2)), Bytes(8, 0)), {4}};
  return Cat(Cat(header, PropertySeed(L"abc", VT_I4)), PropertySeed(L"n", VT_BSTR));
}

Seed ObjectSeed(const CLSID& clsid, const Seed& data) {
  const auto* id = reinterpret_cast<const unsigned char*>(&clsid);
  return Cat({Bytes(id, id + sizeof clsid), {}}, data);
}

// ---- Loaders: each frees what a success hands out; a failure that hands
// something out (or leaves a VARIANT that is not empty) answers kHandedOut.

const HRESULT kHandedOut = static_cast<HRESULT>(0xAFFFFFFF);

template <class Out, class Load, class Free>
HRESULT LoadAndFree(IStream* stream, Load load, Free free) {
  Out out = reinterpret_cast<Out>(0xDEADBEEF);
  const HRESULT hr = load(stream, &out);
  if (SUCCEEDED(hr) && out) free(out);
  return FAILED(hr) && out ? kHandedOut : hr;
}
HRESULT LoadBstr(IStream* s) { return LoadAndFree<BSTR>(s, BSTR_LoadFromStream, SysFreeString); }
HRESULT LoadOle(IStream* s) {
  return LoadAndFree<LPOLESTR>(s, OleString_LoadFromStream, CoTaskMemFree);
}
HRESULT LoadArray(IStream* s) {  // a placeholder: the output is not even written
  SAFEARRAY* kept = nullptr;
  const HRESULT hr = SAFEARRAY_LoadFromStream(s, &kept);
  return kept ? kHandedOut : hr;
}
HRESULT LoadBag(IStream* s) {
  return LoadAndFree<IPropertyBag*>(s, PropertyBag_LoadFromStream,
                                    [](IPropertyBag* bag) { bag->Release(); });
}
HRESULT Cleared(HRESULT hr, VARIANT* value) {
  if (FAILED(hr) && value->vt != VT_EMPTY) return kHandedOut;
  return FAILED(VariantClear(value)) ? kHandedOut : hr;
}
HRESULT LoadVariant(IStream* s) {
  VARIANT value;
  std::memset(&value, 0xCD, sizeof value);
  return Cleared(VARIANT_LoadFromStream(s, &value), &value);
}
HRESULT LoadProperty(IStream* s) {
  LPOLESTR name = nullptr;  // a failure may leave the name's block for the caller
  VARIANT value;
  VariantInit(&value);
  const HRESULT hr = Property_LoadFromStream(s, &name, &value);
  CoTaskMemFree(name);
  return Cleared(hr, &value);
}
HRESULT InitNumber(IStream* s) {
  ComRef<Number> number(new Number(7));
  return OleInitFromStream(s, number.get());
}
ComRef<IPersistStream>* NewBag(ComRef<IPersistStream>* bag) {
  CoCreateInstance(CLSID_QvPropertyBag, nullptr, CLSCTX_INPROC_SERVER, IID_IPersistStream,
                   reinterpret_cast<void**>(bag->put()));
  return bag;
}
HRESULT InitBag(IStream* s) {
  ComRef<IPersistStream> bag;
  return PropertyBag_InitFromStream(s, NewBag(&bag)->get());
}
HRESULT LoadIntoBag(IStream* s) {
  ComRef<IPersistStream> bag;
  return (*NewBag(&bag))->Load(s);
}

struct Loader {
  const char* name;
  HRESULT (*load)(IStream*);
  bool guarded;  // a failure puts the stream back where it was
};
const Loader kBstr{"BSTR", LoadBstr, true}, kOle{"OLE string", LoadOle, true},
    kVariant{"VARIANT", LoadVariant, true}, kProperty{"property", LoadProperty, true},
    kArray{"SAFEARRAY", LoadArray, true}, kInitNumber{"init object", InitNumber, true},
    kInitBag{"init bag", InitBag, true}, kLoadBag{"load bag", LoadBag, false},
    kBagLoad{"bag's Load", LoadIntoBag, false};

struct Row {
  std::string name;
  Seed seed;
  const Loader* loader;
  HRESULT expected;  // for the seed itself
};

std::vector<Row> Rows() {
  const HRESULT kOddText = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
  std::vector<Row> rows = {
      {"BSTR abc", BstrSeed("a\0b\0c\0", 6), &kBstr, S_OK},
      {"BSTR abc", BstrSeed("a\0b\0c\0", 6), &kOle, S_OK},
      {"BSTR null", BstrSeed(nullptr, 0), &kBstr, S_OK},
      {"BSTR null", BstrSeed(nullptr, 0), &kOle, S_OK},
      {"BSTR xyz", BstrSeed("xyz", 3), &kBstr, S_OK},
      {"BSTR xyz", BstrSeed("xyz", 3), &kOle, kOddText},
      {"number", ObjectSeed(kNumberClass, {{4, 3, 2, 1}, {}}), &kInitNumber, S_OK},
      {"number", ObjectSeed(kNumberClass, {{4, 3, 2, 1}, {}}), &kLoadBag, E_NOINTERFACE},
      {"number", ObjectSeed(kNumberClass, {{4, 3, 2, 1}, {}}), &kInitBag, TYPE_E_INVALIDID},
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

// ---- Mutations

ULONG CountValue(std::mt19937& rng, ULONG original) {
  const ULONG values[] = {0,
                          1,
                          2,
                          3,
                          original - 1,
                          original + 1,
                          original + 2,
                          original | 1,
                          0x7FFFFFFF,
                          0x80000000,
                          0xFFFFFFFF,
                          0xFFFFFFFE,
                          0x00010000,
                          rng() | 1,
                          rng()};
  return values[rng() % (sizeof values / sizeof values[0])];
}

// Case 0 of each row is the seed itself; the others apply one to three mutations.
Bytes Mutant(const Seed& seed, unsigned caseNumber) {
  std::mt19937 rng(caseNumber);
  Bytes bytes = seed.bytes;
  const unsigned mutations = caseNumber == 0 ? 0 : 1 + rng() % 3;
  for (unsigned m = 0; m < mutations; ++m) {
    const size_t at = bytes.empty() ? 0 : rng() % bytes.size();
    switch (rng() % 6) {
      case 0:
        if (!bytes.empty()) bytes[at] ^= static_cast<unsigned char>(1u << rng() % 8);
        break;
      case 1:
        bytes.insert(bytes.begin() + at, static_cast<unsigned char>(rng()));
        break;
      case 2:
        if (!bytes.empty()) bytes.erase(bytes.begin() + at);
        break;
      case 3:
        bytes.resize(at);
        break;
      default:  // counts are the likeliest to matter, so twice as often
        if (seed.counts.empty()) break;
        const size_t field = seed.counts[rng() % seed.counts.size()];
        if (field + 4 > bytes.size()) break;
        ULONG count;
        std::memcpy(&count, &bytes[field], 4);
        count = CountValue(rng, count);
        std::memcpy(&bytes[field], &count, 4);
    }
  }
  return bytes;
}

// ---- The engine

const Bytes kPrefix = {0xEE, 0xEE, 0xEE};  // where the record starts is not 0

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

double Milliseconds(LARGE_INTEGER from) {
  LARGE_INTEGER now, frequency;
  QueryPerformanceCounter(&now);
  QueryPerformanceFrequency(&frequency);
  return 1000.0 * static_cast<double>(now.QuadPart - from.QuadPart) /
         static_cast<double>(frequency.QuadPart);
}

// One case: what went wrong, or "" when nothing did.
std::string RunCase(const Row& row, const Bytes& mutant, bool strict, HRESULT expected) {
  xktest::FaultyStream stream(Concat(kPrefix, mutant));
  if (strict) stream.FailShortReads(STG_E_READFAULT);
  xktest::SeekTo(stream.Inner(), kPrefix.size());
  const ULONGLONG start = kPrefix.size(), end = start + mutant.size();
  xktest::MallocSpy spy;
  const bool unloadable = DllCanUnloadNow() == S_OK;  // one leak is reported once
  const HRESULT hr = row.loader->load(&stream);
  const ULONGLONG position = stream.Position();
  std::string wrong;
  if (hr == kHandedOut) wrong += " a failure handed something out;";
  if (expected != S_FALSE && hr != expected) wrong += " answered " + xktest::HexOf(hr) + ";";
  if ((FAILED(hr) && row.loader->guarded) ? position != start
                                          : (position < start || position > end))
    wrong += " left the stream at " + std::to_string(position) + ";";
  if (spy.Outstanding()) wrong += " leaked " + std::to_string(spy.Outstanding()) + " blocks;";
  if (g_liveNumbers) wrong += " left " + std::to_string(g_liveNumbers.exchange(0)) + " objects;";
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
    LARGE_INTEGER started;
    QueryPerformanceCounter(&started);
    const std::string wrong = RunCase(row, Mutant(row.seed, caseNumber), caseNumber % 2 == 1,
                                      caseNumber == 0 ? row.expected : S_FALSE);
    const double ms = Milliseconds(started);
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
    Register(kNumberClass, &g_numberFactory);
    for (const CLSID* clsid : {&CLSID_QvPropertyBag, &CLSID_QvPropertyBag_ST}) {
      ComRef<IUnknown> factory;
      DllGetClassObject(*clsid, IID_IUnknown, reinterpret_cast<void**>(factory.put()));
      Register(*clsid, factory.get());
    }
  }
  void TearDown() override {
    for (DWORD cookie : m_cookies) CoRevokeClassObject(cookie);
    EXPECT_EQ(0, g_liveNumbers.load());
    ComTest::TearDown();
  }
  void Register(REFCLSID clsid, IUnknown* factory) {
    ASSERT_HR(S_OK, CoRegisterClassObject(clsid, factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                                          &m_cookies.emplace_back()));
  }

 private:
  std::vector<DWORD> m_cookies;
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
  EXPECT_EQ(0x01020304, static_cast<Number*>(persist.get())->value);
  persist.Reset();
  EXPECT_EQ(1, g_liveNumbers.load());
  VariantClear(&loaded);
}

// The platform's own loader returned this failure with the object still in its
// output, where nobody released it.
TEST_F(LoaderFuzz, AVariantObjectWhoseLoadFailsIsReleased) {
  const Seed seed = VariantSeed(VT_UNKNOWN, kRefusedNumber);
  ComRef<IStream> stream(xktest::NewMemoryStream(seed.bytes));
  VARIANT loaded;
  EXPECT_HR(kRefusedLoad, VARIANT_LoadFromStream(stream.get(), &loaded));
  EXPECT_EQ(VT_EMPTY, loaded.vt);
  EXPECT_EQ(0u, xktest::PositionOf(stream.get()));
  EXPECT_EQ(0, g_liveNumbers.load());
}

TEST_F(LoaderFuzz, EveryLoaderSurvivesEveryMutantOfEveryRecordItReads) {
  const std::vector<Row> rows = Rows();
  SetUnhandledExceptionFilter(ReportCrash);
  const Figures figures = Fuzz(rows, CasesAsked(static_cast<unsigned>(rows.size()) * 200));
  std::printf("cases %u, failures %u, slowest %.3f ms: %s\n", figures.cases, figures.failures,
              figures.slowestMs, figures.slowest.c_str());
  EXPECT_EQ(0u, figures.failures);
}

}  // namespace
