// Each main path run with its 1st, 2nd, 3rd ... allocation failing (task memory,
// BSTRs, the library's global and heap memory on one count) until one needs no
// more: a failed run answers out of memory, hands nothing out, changes nothing
// and leaves nothing behind; the run that fails nothing must be right.
#include <xkcombsd/Collections.h>
#include <xkcombsd/ScopedValue.h>
#include <xkcombsd/Stores.h>

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

// A fixed block or a list of two blocks when the flags say so.
template <DWORD kFlags>
HRESULT Store(Attempt& run) {
  char block[64];
  LOCKBYTESBLOCK blocks[] = {{16, block}, {16, block + 16}};
  const bool list = kFlags == QVCLBOMF_BLOCKLIST;
  void* const pv = list                            ? static_cast<void*>(blocks)
                   : kFlags == QVCLBOMF_FIXEDBLOCK ? block
                                                   : nullptr;
  return Made<ILockBytes>(run, [&](ILockBytes** out) {
    return CreateLockBytesOnMemory(pv, list ? 2 : 64, kFlags, 0, out);
  });
}

const Bytes kOld(16, 'o');

ILockBytes* OldStore(DWORD flags) {
  ILockBytes* store = nullptr;
  CreateLockBytesOnMemory(nullptr, 0, flags, 0, &store);
  store->WriteAt({}, kOld.data(), 16, nullptr);
  return store;
}

// A failed growth leaves the old size and bytes and reports nothing written; a
// success has the new size.
template <DWORD kFlags, bool kWrite>
HRESULT Grows(Attempt& run) {
  ComRef<ILockBytes> store(OldStore(kFlags));
  const Bytes data(3000, 'n');
  ULONG written = kWrite;  // a size set writes nothing
  run.Arm();
  const HRESULT hr = kWrite ? store->WriteAt({{5000, 0}}, data.data(), 3000, &written)
                            : store->SetSize({{9000, 0}});
  run.Disarm();
  STATSTG stat = {};
  store->Stat(&stat, STATFLAG_NONAME);
  Bytes bytes(16);
  store->ReadAt({}, bytes.data(), 16, nullptr);
  const ULONGLONG size = FAILED(hr) ? 16 : kWrite ? 8000 : 9000;
  const bool right = bytes == kOld && stat.cbSize.QuadPart == size && (SUCCEEDED(hr) || !written);
  return right ? hr : kBrokenOutput;
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

template <class E, class Item, size_t N>
HRESULT Creating(Attempt& r, HRESULT(XKAPI* create)(const Item*, ULONG, E**),
                 const Item (&items)[N]) {
  return Made<E>(r, [&](E** e) { return create(items, N, e); });
}

// A row whose path is one call handing out a T through `out`.
#define MADE(T, ...) [](Attempt& r) { return Made<T>(r, [&](T** out) { return __VA_ARGS__; }); }
#define CLASS(name, ...) \
  { "class_" #name, ByClass<&CLSID_Qv##name, ##__VA_ARGS__> }
#define LOADING(name, loader, ...)                                   \
  {                                                                  \
    name, [](Attempt& r) { return Loading(r, __VA_ARGS__, loader); } \
  }

const Row kRows[] = {
    // Creating each class, through its creator and through its class object
    {"EnumBSTR_Create",
     [](Attempt& r) {
       xk::ScopedBstr a(SysAllocString(L"a")), bc(SysAllocString(L"bc"));
       const BSTR items[] = {a.get(), bc.get()};
       return Creating(r, EnumBSTR_Create, items);
     }},
    {"EnumGUID_Create", [](Attempt& r) { return Creating(r, EnumGUID_Create, kGuids); }},
    {"EnumString_Create",
     [](Attempt& r) {
       const LPCOLESTR items[] = {L"a", L"bc"};
       return Creating(r, EnumString_Create, items);
     }},
    {"EnumUnknown_Create",
     [](Attempt& r) {
       FakeUnknown item;
       IUnknown* const items[] = {&item, &item};
       const HRESULT hr = Creating(r, EnumUnknown_Create, items);
       return item.refs == 1 ? hr : kBrokenOutput;
     }},
    {"EnumVARIANT_Create",
     [](Attempt& r) {
       xk::ScopedVariant abc;
       VARIANT_InitBSTRW(abc.put(), L"abc");
       const VARIANT items[] = {abc.get(), VARIANT{}};
       return Creating(r, EnumVARIANT_Create, items);
     }},
    {"EnumUnknown_FromUnknown_over_VARIANTs",
     [](Attempt& r) {
       ComRef<IEnumVARIANT> variants;
       EnumVARIANT_Create(nullptr, 0, variants.put());
       return Made<IEnumUnknown>(
           r, [&](IEnumUnknown** e) { return EnumUnknown_FromUnknown(variants.get(), e); });
     }},
    CLASS(EnumBSTR),
    CLASS(EnumGUID),
    CLASS(EnumString),
    CLASS(EnumUnknown),
    CLASS(EnumVARIANT),
    CLASS(PropertyBag),
    CLASS(PropertyBag_ST),
    CLASS(FreeThreadedUnmarshaler),
    CLASS(FreeThreadedMarshaler, true),
    {"PropertyBag_LoadFromStream_without_a_stream",
     MADE(IPropertyBag, PropertyBag_LoadFromStream(nullptr, out))},
    {"memory_store__task_allocator", Store<QVCLBOMF_TASKALLOCATOR>},
    {"memory_store__task_allocator__unlocked", Store<QVCLBOMF_TASKALLOCATOR | QVCLBOMF_NOLOCK>},
    {"memory_store__private_heap", Store<QVCLBOMF_PRIVATEHEAP>},
    {"memory_store__fixed_block", Store<QVCLBOMF_FIXEDBLOCK>},
    {"memory_store__block_list", Store<QVCLBOMF_BLOCKLIST>},
    {"CreateStreamOnMemory",
     MADE(IStream, CreateStreamOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, out))},
    {"CreateStreamOnLockBytes",
     [](Attempt& r) {
       ComRef<ILockBytes> store(OldStore(QVCLBOMF_TASKALLOCATOR));
       return Made<IStream>(
           r, [&](IStream** s) { return CreateStreamOnLockBytes(store.get(), 0, s); });
     }},
    {"CreateLockBytesOnRegKey",
     MADE(ILockBytes, CreateLockBytesOnRegKey(HKEY_CURRENT_USER, L"Software", 4096, out))},
    // Growing stores and collections
    {"task_store_written_past_its_end", Grows<QVCLBOMF_TASKALLOCATOR, true>, STG_E_MEDIUMFULL},
    {"heap_store_written_past_its_end", Grows<QVCLBOMF_PRIVATEHEAP, true>, STG_E_MEDIUMFULL},
    {"spare_task_store_written_past_its_end", Grows<QVCLBOMF_TASKALLOCATOR | QVCLBOMF_SPARE, true>,
     STG_E_MEDIUMFULL},
    {"task_store_SetSize", Grows<QVCLBOMF_TASKALLOCATOR, false>, STG_E_MEDIUMFULL},
    {"heap_store_SetSize", Grows<QVCLBOMF_PRIVATEHEAP | QVCLBOMF_NOLOCK, false>, STG_E_MEDIUMFULL},
    {"BSTR_collection_Add",
     [](Attempt& r) {
       xk::ScopedBstr item(SysAllocString(L"abc"));
       return Adds<ISeqBSTR>(r, EnumBSTR_Create, IID_ISeqBSTR, item.get());
     }},
    {"GUID_collection_Add",
     [](Attempt& r) { return Adds<ISeqGUID>(r, EnumGUID_Create, IID_ISeqGUID, kGuids[0]); }},
    {"VARIANT_collection_Add",
     [](Attempt& r) {
       xk::ScopedVariant item;
       VARIANT_InitBSTRW(item.put(), L"abc");
       return Adds<ISeqVARIANT>(r, EnumVARIANT_Create, IID_ISeqVARIANT, item.get());
     }},
    // Loading records and bags the library wrote
    LOADING("BSTR_record", kBstr, BstrSeed("a\0b\0c\0", 6)),
    LOADING("OLE_string_record", kOle, BstrSeed("a\0b\0c\0", 6)),
    LOADING("VARIANT_BSTR_record", kVariant, VariantSeed(VT_BSTR)),
    LOADING("VARIANT_BSTR_by_reference_record", kVariant, VariantSeed(VT_BYREF | VT_BSTR)),
    LOADING("VARIANT_bag_record", kVariant,
            Cat(Seed{Bytes{VT_UNKNOWN, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, {}},
                ObjectSeed(CLSID_QvPropertyBag_ST, BagData()))),
    LOADING("property_record", kProperty, PropertySeed(L"n", VT_BSTR)),
    {"bag_data_into_a_bag", IntoBag<false>},
    LOADING("bag_record_loaded", kLoadBag, ObjectSeed(CLSID_QvPropertyBag, BagData())),
    {"bag_record_into_a_bag", IntoBag<true>},
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
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
