// Memory running out at every allocation of the main paths in turn: each path
// runs with its 1st, 2nd, 3rd ... allocation failing (task memory, BSTRs, and
// the library's own global and heap memory on one count) until a run needs no
// more. Every failed run must answer out of memory, hand nothing out, leave a
// store or a collection as it was and leave nothing behind; the run that fails
// nothing must be right.
#include <xkcombsd/Collections.h>
#include <xkcombsd/Stores.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "../persist/RecordLoaders.h"
#include "ComTest.h"
#include "FakeUnknown.h"

namespace {

using namespace xktest;  // NOLINT: the records and loaders are the suite's vocabulary

// One run of a path: it arms the failure just before the calls it sweeps.
struct Attempt {
  AllocationFailure& failure;
  unsigned long nth;
  void Arm() { failure.Arm(nth); }
  void Disarm() { failure.Arm(AllocationFailure::kNone); }
};

// A failure must hand out null; a success a pointer, released here.
template <class T, class Make>
HRESULT Made(Attempt& run, Make make) {
  T* out = reinterpret_cast<T*>(0xDEADBEEF);
  run.Arm();
  const HRESULT hr = make(&out);
  run.Disarm();
  if (FAILED(hr)) return out ? kBrokenOutput : hr;
  if (!out || out == reinterpret_cast<T*>(0xDEADBEEF)) return kBrokenOutput;
  reinterpret_cast<IUnknown*>(out)->Release();
  return hr;
}

// Aggregated when an outer is given (the one class that must be).
template <const CLSID* kClass, bool kOuter = false>
HRESULT ByClass(Attempt& run) {
  static FakeUnknown outer;
  return Made<IUnknown>(run, [](IUnknown** out) {
    ComRef<IClassFactory> factory;
    HRESULT hr =
        DllGetClassObject(*kClass, IID_IClassFactory, reinterpret_cast<void**>(factory.put()));
    *out = nullptr;
    return FAILED(hr) ? hr
                      : factory->CreateInstance(kOuter ? &outer : nullptr, IID_IUnknown,
                                                reinterpret_cast<void**>(out));
  });
}

HRESULT Store(Attempt& run, DWORD flags, void* pv = nullptr, ULONG si = 64) {
  return Made<ILockBytes>(
      run, [&](ILockBytes** out) { return CreateLockBytesOnMemory(pv, si, flags, 0, out); });
}

HRESULT Blocks(Attempt& run) {
  char first[16], second[16];
  LOCKBYTESBLOCK blocks[] = {{16, first}, {16, second}};
  return Store(run, QVCLBOMF_BLOCKLIST, blocks, 2);
}

const Bytes kOld(16, 'o');

ILockBytes* OldStore(DWORD flags) {
  ILockBytes* store = nullptr;
  CreateLockBytesOnMemory(nullptr, 0, flags, 0, &store);
  store->WriteAt({}, kOld.data(), 16, nullptr);
  return store;
}

// A failed growth leaves the old size and bytes; a success has the new size.
HRESULT Unchanged(HRESULT hr, ILockBytes* store, ULONGLONG grown) {
  STATSTG stat = {};
  store->Stat(&stat, STATFLAG_NONAME);
  Bytes bytes(16);
  store->ReadAt({}, bytes.data(), 16, nullptr);
  const bool right = bytes == kOld && stat.cbSize.QuadPart == (FAILED(hr) ? 16 : grown);
  return right ? hr : kBrokenOutput;
}

template <DWORD kFlags>
HRESULT WritePastEnd(Attempt& run) {
  ComRef<ILockBytes> store(OldStore(kFlags));
  const Bytes data(3000, 'n');
  ULONG written = 1;
  run.Arm();
  const HRESULT hr = store->WriteAt({{5000, 0}}, data.data(), 3000, &written);
  run.Disarm();
  return FAILED(hr) && written ? kBrokenOutput : Unchanged(hr, store.get(), 8000);
}

template <DWORD kFlags>
HRESULT SetSize(Attempt& run) {
  ComRef<ILockBytes> store(OldStore(kFlags));
  run.Arm();
  const HRESULT hr = store->SetSize({{9000, 0}});
  run.Disarm();
  return Unchanged(hr, store.get(), 9000);
}

// Adds one at a time until the storage has had to grow more than once; a
// failed Add leaves the count as it was.
template <class Seq, class Enum, class Item>
HRESULT Adds(Attempt& run, HRESULT(XKAPI* create)(const Item*, ULONG, Enum**), REFIID iid,
             const Item& item) {
  ComRef<Enum> made;
  create(nullptr, 0, made.put());
  ComRef<Seq> seq;
  made->QueryInterface(iid, reinterpret_cast<void**>(seq.put()));
  HRESULT hr = S_OK;
  long added = 0, count = -1;
  run.Arm();
  while (added < 40 && SUCCEEDED(hr = seq->Add(&item, 1))) ++added;
  run.Disarm();
  seq->Count(&count);
  return count == added && seq->Add(&item, 1) == S_OK ? hr : kBrokenOutput;
}

// The classes the records name are registered for the run only, so that the
// library is free to unload after it.
HRESULT Loading(Attempt& run, const Seed& seed, const Loader& loader) {
  LoaderClasses classes;
  ComRef<IStream> stream(NewMemoryStream(seed.bytes));
  run.Arm();
  const HRESULT hr = loader.load(stream.get());
  run.Disarm();
  return hr;
}

// Into a bag made before the run, which the bag's loaders do not make themselves.
template <bool kInit>
HRESULT IntoBag(Attempt& run) {
  LoaderClasses classes;
  ComRef<IStream> stream(
      NewMemoryStream(kInit ? ObjectSeed(CLSID_QvPropertyBag, BagData()).bytes : BagData().bytes));
  ComRef<IPersistStream> bag;
  NewBag(&bag);
  run.Arm();
  const HRESULT hr =
      kInit ? PropertyBag_InitFromStream(stream.get(), bag.get()) : bag->Load(stream.get());
  run.Disarm();
  return hr;
}

struct Row {
  const char* name;
  HRESULT (*run)(Attempt&);
  HRESULT failure = E_OUTOFMEMORY;  // a store that cannot grow is full
};

const GUID kGuids[] = {IID_IUnknown, IID_IDispatch};

const Row kRows[] = {
    // Creating each class, through its creator and through its class object
    {"EnumBSTR_Create",
     [](Attempt& r) {
       BSTR items[] = {SysAllocString(L"a"), SysAllocString(L"bc")};
       const HRESULT hr =
           Made<IEnumBSTR>(r, [&](IEnumBSTR** e) { return EnumBSTR_Create(items, 2, e); });
       for (BSTR item : items) SysFreeString(item);
       return hr;
     }},
    {"EnumGUID_Create",
     [](Attempt& r) {
       return Made<IEnumGUID>(r, [](IEnumGUID** e) { return EnumGUID_Create(kGuids, 2, e); });
     }},
    {"EnumString_Create",
     [](Attempt& r) {
       const LPCOLESTR items[] = {L"a", L"bc"};
       return Made<IEnumString>(r, [&](IEnumString** e) { return EnumString_Create(items, 2, e); });
     }},
    {"EnumUnknown_Create",
     [](Attempt& r) {
       FakeUnknown item;
       IUnknown* items[] = {&item, &item};
       const HRESULT hr =
           Made<IEnumUnknown>(r, [&](IEnumUnknown** e) { return EnumUnknown_Create(items, 2, e); });
       return item.refs == 1 ? hr : kBrokenOutput;
     }},
    {"EnumVARIANT_Create",
     [](Attempt& r) {
       VARIANT items[2] = {};
       VARIANT_InitBSTRW(&items[0], L"abc");
       const HRESULT hr =
           Made<IEnumVARIANT>(r, [&](IEnumVARIANT** e) { return EnumVARIANT_Create(items, 2, e); });
       VariantClear(&items[0]);
       return hr;
     }},
    {"EnumUnknown_FromUnknown over VARIANTs",
     [](Attempt& r) {
       ComRef<IEnumVARIANT> variants;
       EnumVARIANT_Create(nullptr, 0, variants.put());
       return Made<IEnumUnknown>(
           r, [&](IEnumUnknown** e) { return EnumUnknown_FromUnknown(variants.get(), e); });
     }},
    {"class EnumBSTR", ByClass<&CLSID_QvEnumBSTR>},
    {"class EnumGUID", ByClass<&CLSID_QvEnumGUID>},
    {"class EnumString", ByClass<&CLSID_QvEnumString>},
    {"class EnumUnknown", ByClass<&CLSID_QvEnumUnknown>},
    {"class EnumVARIANT", ByClass<&CLSID_QvEnumVARIANT>},
    {"class PropertyBag", ByClass<&CLSID_QvPropertyBag>},
    {"class PropertyBag_ST", ByClass<&CLSID_QvPropertyBag_ST>},
    {"class FreeThreadedUnmarshaler", ByClass<&CLSID_QvFreeThreadedUnmarshaler>},
    {"class FreeThreadedMarshaler", ByClass<&CLSID_QvFreeThreadedMarshaler, true>},
    {"PropertyBag_LoadFromStream without a stream",
     [](Attempt& r) {
       return Made<IPropertyBag>(
           r, [](IPropertyBag** bag) { return PropertyBag_LoadFromStream(nullptr, bag); });
     }},
    {"memory store, task allocator", [](Attempt& r) { return Store(r, QVCLBOMF_TASKALLOCATOR); }},
    {"memory store, task allocator, unlocked",
     [](Attempt& r) { return Store(r, QVCLBOMF_TASKALLOCATOR | QVCLBOMF_NOLOCK); }},
    {"memory store, private heap", [](Attempt& r) { return Store(r, QVCLBOMF_PRIVATEHEAP); }},
    {"memory store, fixed block",
     [](Attempt& r) {
       char block[64];
       return Store(r, QVCLBOMF_FIXEDBLOCK, block);
     }},
    {"memory store, block list", Blocks},
    {"CreateStreamOnMemory",
     [](Attempt& r) {
       return Made<IStream>(r, [](IStream** s) {
         return CreateStreamOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, s);
       });
     }},
    {"CreateStreamOnLockBytes",
     [](Attempt& r) {
       ComRef<ILockBytes> store(OldStore(QVCLBOMF_TASKALLOCATOR));
       return Made<IStream>(
           r, [&](IStream** s) { return CreateStreamOnLockBytes(store.get(), 0, s); });
     }},
    {"CreateLockBytesOnRegKey",
     [](Attempt& r) {
       return Made<ILockBytes>(r, [](ILockBytes** store) {
         return CreateLockBytesOnRegKey(HKEY_CURRENT_USER, L"Software", 4096, store);
       });
     }},
    // Growing stores and collections
    {"task store written past its end", WritePastEnd<QVCLBOMF_TASKALLOCATOR>, STG_E_MEDIUMFULL},
    {"heap store written past its end", WritePastEnd<QVCLBOMF_PRIVATEHEAP>, STG_E_MEDIUMFULL},
    {"spare task store written past its end", WritePastEnd<QVCLBOMF_TASKALLOCATOR | QVCLBOMF_SPARE>,
     STG_E_MEDIUMFULL},
    {"task store SetSize", SetSize<QVCLBOMF_TASKALLOCATOR>, STG_E_MEDIUMFULL},
    {"heap store SetSize", SetSize<QVCLBOMF_PRIVATEHEAP | QVCLBOMF_NOLOCK>, STG_E_MEDIUMFULL},
    {"BSTR collection Add",
     [](Attempt& r) {
       BSTR item = SysAllocString(L"abc");
       const HRESULT hr = Adds<ISeqBSTR>(r, EnumBSTR_Create, IID_ISeqBSTR, item);
       SysFreeString(item);
       return hr;
     }},
    {"GUID collection Add",
     [](Attempt& r) { return Adds<ISeqGUID>(r, EnumGUID_Create, IID_ISeqGUID, kGuids[0]); }},
    {"VARIANT collection Add",
     [](Attempt& r) {
       VARIANT item;
       VARIANT_InitBSTRW(&item, L"abc");
       const HRESULT hr = Adds<ISeqVARIANT>(r, EnumVARIANT_Create, IID_ISeqVARIANT, item);
       VariantClear(&item);
       return hr;
     }},
    // Loading records and bags the library wrote
    {"BSTR record", [](Attempt& r) { return Loading(r, BstrSeed("a\0b\0c\0", 6), kBstr); }},
    {"OLE string record", [](Attempt& r) { return Loading(r, BstrSeed("a\0b\0c\0", 6), kOle); }},
    {"VARIANT BSTR record", [](Attempt& r) { return Loading(r, VariantSeed(VT_BSTR), kVariant); }},
    {"VARIANT BSTR by reference record",
     [](Attempt& r) { return Loading(r, VariantSeed(VT_BYREF | VT_BSTR), kVariant); }},
    {"VARIANT bag record",
     [](Attempt& r) {
       const Seed head{Bytes{VT_UNKNOWN, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {}};
       return Loading(r, Cat(head, ObjectSeed(CLSID_QvPropertyBag_ST, BagData())), kVariant);
     }},
    {"property record",
     [](Attempt& r) { return Loading(r, PropertySeed(L"n", VT_BSTR), kProperty); }},
    {"bag data into a bag", IntoBag<false>},
    {"bag record loaded",
     [](Attempt& r) { return Loading(r, ObjectSeed(CLSID_QvPropertyBag, BagData()), kLoadBag); }},
    {"bag record into a bag", IntoBag<true>},
};

class OutOfMemory : public ComTest<COINIT_MULTITHREADED>,
                    public testing::WithParamInterface<Row> {};

TEST_P(OutOfMemory, EveryFailingAllocationIsAnsweredCleanly) {
  unsigned long nth = 1;
  for (bool injected = true; injected && !HasFailure(); ++nth) {
    MallocSpy spy;
    HRESULT hr;
    long globals;
    {
      AllocationFailure failure;
      Attempt run{failure, nth};
      hr = GetParam().run(run);
      injected = failure.Injected();
      globals = failure.LiveGlobalBlocks();
    }
    SCOPED_TRACE("allocation " + std::to_string(nth));
    // A path may get round a failure (a smaller request, no name) and still be right.
    if (!injected || hr != S_OK) EXPECT_HR(injected ? GetParam().failure : S_OK, hr);
    EXPECT_EQ(0, spy.Outstanding());
    EXPECT_EQ(0, globals);
    EXPECT_EQ(0, PersistentNumber::Live());
    EXPECT_HR(S_OK, DllCanUnloadNow());
  }
  EXPECT_GT(nth, 2u) << "no allocation was seen";
  std::printf("%s: %lu allocations\n", GetParam().name, nth - 2);
}

INSTANTIATE_TEST_SUITE_P(MainPaths, OutOfMemory, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<Row>& info) {
                           std::string name = info.param.name;
                           for (char& c : name)
                             if (!isalnum(static_cast<unsigned char>(c))) c = '_';
                           return name;
                         });

}  // namespace
