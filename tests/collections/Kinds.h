// The five element kinds as a client sees them: per kind, its interfaces,
// identifiers and creator, how a test makes items, whether an element is the
// caller's own copy of an item, and how the caller frees that copy.
#pragma once

#include <gmock/gmock.h>
#include <xkcombsd/Collections.h>
#include <xkcombsd/Module.h>

#include <cstring>
#include <string>

#include "FakeUnknown.h"
#include "HResult.h"
#include "MallocSpy.h"

namespace xktest {

constexpr int kMaxItems = 40;

inline std::wstring ItemText(int i) { return L"item " + std::to_wstring(i); }

// Fills an output slot with a byte pattern no call writes, to see whether one did.
template <class T>
void FillSentinel(T* slot, size_t count = 1) {
  std::memset(static_cast<void*>(slot), 0xDE, sizeof(T) * count);
}
template <class T>
bool IsSentinel(const T& slot) {
  T pattern;
  FillSentinel(&pattern);
  return std::memcmp(&pattern, &slot, sizeof(T)) == 0;
}

inline bool TaskAllocated(void* block) {
  IMalloc* malloc = nullptr;
  const bool allocated = SUCCEEDED(CoGetMalloc(1, &malloc)) && malloc->DidAlloc(block) == 1;
  if (malloc) malloc->Release();
  return allocated;
}

template <class E, class In, class S, class En, const CLSID* kClsid, const IID* kColl,
          const IID* kSeq, const IID* kEnum, HRESULT(WINAPI* kCreate)(const In*, ULONG, En**)>
struct KindOf {
  using Element = E;
  using Input = In;
  using Seq = S;
  using Enum = En;
  static const CLSID& Clsid() { return *kClsid; }
  static const IID& CollIid() { return *kColl; }
  static const IID& SeqIid() { return *kSeq; }
  static const IID& EnumIid() { return *kEnum; }
  static HRESULT Create(const In* items, ULONG n, En** e) { return kCreate(items, n, e); }
};

struct BstrKind : KindOf<BSTR, BSTR, ISeqBSTR, IEnumBSTR, &CLSID_QvEnumBSTR, &IID_ICollBSTR,
                         &IID_ISeqBSTR, &IID_IEnumBSTR, EnumBSTR_Create> {
  static constexpr const char* kTraceName = nullptr;
  static Input MakeItem(int i) { return SysAllocString(ItemText(i).c_str()); }
  static void FreeItem(Input& item) { SysFreeString(item); }
  static bool Copies(BSTR e, BSTR item) { return e && e != item && !std::wcscmp(e, item); }
  static void FreeCopy(Element& e) { SysFreeString(e); }
};

struct GuidKind : KindOf<GUID, GUID, ISeqGUID, IEnumGUID, &CLSID_QvEnumGUID, &IID_ICollGUID,
                         &IID_ISeqGUID, &IID_IQvEnumGUID, EnumGUID_Create> {
  static constexpr const char* kTraceName = "_EnumGUID";
  static Input MakeItem(int i) {
    return {0x10000000u + i, 0x2222, 0x3333, {0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, BYTE(i)}};
  }
  static void FreeItem(Input&) {}
  static bool Copies(const GUID& e, const GUID& item) { return e == item; }
  static void FreeCopy(Element&) {}
};

// The caller's strings need not come from the task allocator; the copies must.
struct StringKind : KindOf<LPOLESTR, LPCOLESTR, ISeqString, IEnumString, &CLSID_QvEnumString,
                           &IID_ICollString, &IID_ISeqString, &IID_IEnumString, EnumString_Create> {
  static constexpr const char* kTraceName = nullptr;
  static Input MakeItem(int i) {
    static std::wstring texts[kMaxItems];
    return (texts[i] = ItemText(i)).c_str();
  }
  static void FreeItem(Input&) {}
  static bool Copies(LPOLESTR e, LPCOLESTR item) {
    return e && e != item && TaskAllocated(e) && !std::wcscmp(e, item);
  }
  static void FreeCopy(Element& e) { CoTaskMemFree(e); }
};

// Shared, counted objects, held as given (never queried); every test hands
// back each reference it took.
struct UnknownKind
    : KindOf<LPUNKNOWN, LPUNKNOWN, ISeqUnknown, IEnumUnknown, &CLSID_QvEnumUnknown,
             &IID_ICollUnknown, &IID_ISeqUnknown, &IID_IEnumUnknown, EnumUnknown_Create> {
  static constexpr const char* kTraceName = "_EnumUnknown";
  static Input MakeItem(int i) {
    static FakeUnknown objects[kMaxItems];
    return &objects[i];
  }
  static void FreeItem(Input& item) {
    EXPECT_EQ(1, static_cast<FakeUnknown*>(item)->refs);
    EXPECT_EQ(0, static_cast<FakeUnknown*>(item)->queries);
  }
  static bool Copies(IUnknown* e, IUnknown* item) { return e == item; }
  static void FreeCopy(Element& e) { e->Release(); }
};

// Strings inside, so that ownership of the copies shows.
struct VariantKind
    : KindOf<VARIANT, VARIANT, ISeqVARIANT, IEnumVARIANT, &CLSID_QvEnumVARIANT, &IID_ICollVARIANT,
             &IID_ISeqVARIANT, &IID_IEnumVARIANT, EnumVARIANT_Create> {
  static constexpr const char* kTraceName = "_EnumVARIANT";
  static Input MakeItem(int i) {
    VARIANT v;
    V_VT(&v) = VT_BSTR;
    V_BSTR(&v) = SysAllocString(ItemText(i).c_str());
    return v;
  }
  static void FreeItem(Input& item) { VariantClear(&item); }
  static bool Copies(const VARIANT& e, const VARIANT& item) {
    return V_VT(&e) == VT_BSTR && BstrKind::Copies(V_BSTR(&e), V_BSTR(&item));
  }
  static void FreeCopy(Element& e) { VariantClear(&e); }
};

using AllKinds = ::testing::Types<BstrKind, GuidKind, StringKind, UnknownKind, VariantKind>;

// Every test of the suite ends with nothing left on the task allocator and no
// object keeping the library loaded.
class CollectionsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(0, m_spy.Outstanding()) << "task-allocator blocks left behind";
    EXPECT_HR(S_OK, DllCanUnloadNow());
  }

  MallocSpy m_spy;
};

// The IUnknown of an interface, for identity comparisons; adds no reference.
inline IUnknown* Identity(IUnknown* object) {
  IUnknown* identity = nullptr;
  if (FAILED(object->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&identity))))
    return nullptr;
  identity->Release();
  return identity;
}

}  // namespace xktest
