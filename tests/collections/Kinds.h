// The five element kinds as a client sees them: per kind, its interfaces and
// the identifiers it answers, how a test makes item i, and whether a fetched
// element is the caller's own copy of an item (and how the caller frees it).
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

inline BSTR ItemBstr(int i) { return SysAllocString((L"item " + std::to_wstring(i)).c_str()); }

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

// Defaults a kind overrides: items and copies that need no freeing, no trace.
template <class E, class In, class En, HRESULT(WINAPI* kCreate)(const In*, ULONG, En**), class S,
          const IID* kSeq, const IID*... kOthers>
struct KindOf {
  using Element = E;
  using Input = In;
  using Seq = S;
  using Enum = En;
  static constexpr const IID* kAnswered[] = {kSeq, &IID_IUnknown, kOthers...};
  static constexpr const char* kTraceName = nullptr;
  static HRESULT Create(const In* items, ULONG n, En** e) { return kCreate(items, n, e); }
  static void FreeItem(In&) {}
  static void FreeCopy(E&) {}
};

struct BstrKind : KindOf<BSTR, BSTR, IEnumBSTR, EnumBSTR_Create, ISeqBSTR, &IID_ISeqBSTR,
                         &IID_ICollBSTR, &IID_IEnumBSTR> {
  static BSTR MakeItem(int i) { return ItemBstr(i); }
  static void FreeItem(BSTR& item) { SysFreeString(item); }
  static bool Copies(BSTR e, BSTR item) { return e && e != item && !std::wcscmp(e, item); }
  static void FreeCopy(BSTR& e) { SysFreeString(e); }
};

// GUIDs answer the platform's IEnumGUID beside their own.
struct GuidKind : KindOf<GUID, GUID, IEnumGUID, EnumGUID_Create, ISeqGUID, &IID_ISeqGUID,
                         &IID_ICollGUID, &IID_IQvEnumGUID, &IID_IEnumGUID> {
  static constexpr const char* kTraceName = "_EnumGUID";
  static GUID MakeItem(int i) { return {0x10000000u + i, 0x2222, 0x3333, {0x44, BYTE(i)}}; }
  static bool Copies(const GUID& e, const GUID& item) { return e == item; }
};

// The caller's strings need not come from the task allocator; the copies must.
struct StringKind : KindOf<LPOLESTR, LPCOLESTR, IEnumString, EnumString_Create, ISeqString,
                           &IID_ISeqString, &IID_ICollString, &IID_IEnumString> {
  static LPCOLESTR MakeItem(int i) {
    static std::wstring texts[kMaxItems];
    return (texts[i] = L"item " + std::to_wstring(i)).c_str();
  }
  static bool Copies(LPOLESTR e, LPCOLESTR item) {
    IMalloc* malloc = nullptr;
    const bool task = SUCCEEDED(CoGetMalloc(1, &malloc)) && malloc->DidAlloc(e) == 1;
    if (malloc) malloc->Release();
    return task && e != item && !std::wcscmp(e, item);
  }
  static void FreeCopy(LPOLESTR& e) { CoTaskMemFree(e); }
};

// Shared, counted objects, held as given (never queried); each reference taken is handed back.
struct UnknownKind : KindOf<IUnknown*, IUnknown*, IEnumUnknown, EnumUnknown_Create, ISeqUnknown,
                            &IID_ISeqUnknown, &IID_ICollUnknown, &IID_IEnumUnknown> {
  static constexpr const char* kTraceName = "_EnumUnknown";
  static IUnknown* MakeItem(int i) {
    static FakeUnknown objects[kMaxItems];
    return &objects[i];
  }
  static void FreeItem(IUnknown*& item) {
    EXPECT_EQ(1, static_cast<FakeUnknown*>(item)->refs);
    EXPECT_EQ(0, static_cast<FakeUnknown*>(item)->queries);
  }
  static bool Copies(IUnknown* e, IUnknown* item) { return e == item; }
  static void FreeCopy(IUnknown*& e) { e->Release(); }
};

// Strings inside, so that ownership of the copies shows.
struct VariantKind : KindOf<VARIANT, VARIANT, IEnumVARIANT, EnumVARIANT_Create, ISeqVARIANT,
                            &IID_ISeqVARIANT, &IID_ICollVARIANT, &IID_IEnumVARIANT> {
  static constexpr const char* kTraceName = "_EnumVARIANT";
  static VARIANT MakeItem(int i) {
    VARIANT v{};
    V_VT(&v) = VT_BSTR;
    V_BSTR(&v) = ItemBstr(i);
    return v;
  }
  static void FreeItem(VARIANT& item) { VariantClear(&item); }
  static bool Copies(const VARIANT& e, const VARIANT& item) {
    return V_VT(&e) == VT_BSTR && BstrKind::Copies(V_BSTR(&e), V_BSTR(&item));
  }
  static void FreeCopy(VARIANT& e) { VariantClear(&e); }
};

using AllKinds = ::testing::Types<BstrKind, GuidKind, StringKind, UnknownKind, VariantKind>;

// Every test ends with nothing left on the task allocator and nothing keeping the library loaded.
class CollectionsTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(0, m_spy.Outstanding()) << "task-allocator blocks left behind";
    EXPECT_HR(S_OK, DllCanUnloadNow());
  }

  MallocSpy m_spy;
};

}  // namespace xktest
