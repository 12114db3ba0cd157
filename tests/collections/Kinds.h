// The five element kinds as a client sees them: per kind, its interfaces and
// identifiers, its creator, and how a test makes items, recognises copies of
// them and frees the copies it owns. Typed tests run every case over all five.
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
  if (FAILED(CoGetMalloc(1, &malloc))) return false;
  const bool allocated = malloc->DidAlloc(block) == 1;
  malloc->Release();
  return allocated;
}

struct BstrKind {
  using Element = BSTR;
  using Input = BSTR;
  using Coll = ICollBSTR;
  using Seq = ISeqBSTR;
  using Enum = IEnumBSTR;
  static constexpr const char* kName = "BSTR";
  static constexpr const char* kTraceName = nullptr;
  static const CLSID& Clsid() { return CLSID_QvEnumBSTR; }
  static const IID& CollIid() { return IID_ICollBSTR; }
  static const IID& SeqIid() { return IID_ISeqBSTR; }
  static const IID& EnumIid() { return IID_IEnumBSTR; }
  static HRESULT Create(const Input* items, ULONG n, Enum** e) {
    return EnumBSTR_Create(items, n, e);
  }

  static Input MakeItem(int i) { return SysAllocString(ItemText(i).c_str()); }
  static void FreeItem(Input& item) { SysFreeString(item); }
  static bool Holds(const Element& e, int i) { return e && ItemText(i) == e; }
  static bool IsOwnCopy(const Element& e, const Input& item) { return e && e != item; }
  static void FreeCopy(Element& e) { SysFreeString(e); }
};

struct GuidKind {
  using Element = GUID;
  using Input = GUID;
  using Coll = ICollGUID;
  using Seq = ISeqGUID;
  using Enum = IEnumGUID;
  static constexpr const char* kName = "GUID";
  static constexpr const char* kTraceName = "_EnumGUID";
  static const CLSID& Clsid() { return CLSID_QvEnumGUID; }
  static const IID& CollIid() { return IID_ICollGUID; }
  static const IID& SeqIid() { return IID_ISeqGUID; }
  static const IID& EnumIid() { return IID_IQvEnumGUID; }
  static HRESULT Create(const Input* items, ULONG n, Enum** e) {
    return EnumGUID_Create(items, n, e);
  }

  static Input MakeItem(int i) {
    GUID id = {0x10000000u + i, 0x2222, 0x3333, {0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0}};
    id.Data4[7] = static_cast<BYTE>(i);
    return id;
  }
  static void FreeItem(Input&) {}
  static bool Holds(const Element& e, int i) { return e == MakeItem(i); }
  static bool IsOwnCopy(const Element&, const Input&) { return true; }  // by value
  static void FreeCopy(Element&) {}
};

struct StringKind {
  using Element = LPOLESTR;
  using Input = LPCOLESTR;
  using Coll = ICollString;
  using Seq = ISeqString;
  using Enum = IEnumString;
  static constexpr const char* kName = "String";
  static constexpr const char* kTraceName = nullptr;
  static const CLSID& Clsid() { return CLSID_QvEnumString; }
  static const IID& CollIid() { return IID_ICollString; }
  static const IID& SeqIid() { return IID_ISeqString; }
  static const IID& EnumIid() { return IID_IEnumString; }
  static HRESULT Create(const Input* items, ULONG n, Enum** e) {
    return EnumString_Create(items, n, e);
  }

  // The caller's strings need not come from the task allocator.
  static Input MakeItem(int i) {
    static std::wstring texts[kMaxItems];
    texts[i] = ItemText(i);
    return texts[i].c_str();
  }
  static void FreeItem(Input&) {}
  static bool Holds(const Element& e, int i) { return e && ItemText(i) == e; }
  static bool IsOwnCopy(const Element& e, const Input& item) {
    return e && e != item && TaskAllocated(e);
  }
  static void FreeCopy(Element& e) { CoTaskMemFree(e); }
};

struct UnknownKind {
  using Element = LPUNKNOWN;
  using Input = LPUNKNOWN;
  using Coll = ICollUnknown;
  using Seq = ISeqUnknown;
  using Enum = IEnumUnknown;
  static constexpr const char* kName = "Unknown";
  static constexpr const char* kTraceName = "_EnumUnknown";
  static const CLSID& Clsid() { return CLSID_QvEnumUnknown; }
  static const IID& CollIid() { return IID_ICollUnknown; }
  static const IID& SeqIid() { return IID_ISeqUnknown; }
  static const IID& EnumIid() { return IID_IEnumUnknown; }
  static HRESULT Create(const Input* items, ULONG n, Enum** e) {
    return EnumUnknown_Create(items, n, e);
  }

  // Shared, counted objects; every test hands back each reference it took.
  static FakeUnknown* Objects() {
    static FakeUnknown objects[kMaxItems];
    return objects;
  }
  static Input MakeItem(int i) { return &Objects()[i]; }
  static void FreeItem(Input& item) { EXPECT_EQ(1, static_cast<FakeUnknown*>(item)->refs); }
  static bool Holds(const Element& e, int i) { return e == &Objects()[i]; }
  static bool IsOwnCopy(const Element& e, const Input& item) { return e == item; }
  static void FreeCopy(Element& e) { e->Release(); }
};

struct VariantKind {
  using Element = VARIANT;
  using Input = VARIANT;
  using Coll = ICollVARIANT;
  using Seq = ISeqVARIANT;
  using Enum = IEnumVARIANT;
  static constexpr const char* kName = "VARIANT";
  static constexpr const char* kTraceName = "_EnumVARIANT";
  static const CLSID& Clsid() { return CLSID_QvEnumVARIANT; }
  static const IID& CollIid() { return IID_ICollVARIANT; }
  static const IID& SeqIid() { return IID_ISeqVARIANT; }
  static const IID& EnumIid() { return IID_IEnumVARIANT; }
  static HRESULT Create(const Input* items, ULONG n, Enum** e) {
    return EnumVARIANT_Create(items, n, e);
  }

  // Strings inside, so that ownership of the copies shows.
  static Input MakeItem(int i) {
    VARIANT v;
    VariantInit(&v);
    V_VT(&v) = VT_BSTR;
    V_BSTR(&v) = SysAllocString(ItemText(i).c_str());
    return v;
  }
  static void FreeItem(Input& item) { VariantClear(&item); }
  static bool Holds(const Element& e, int i) {
    return V_VT(&e) == VT_BSTR && V_BSTR(&e) && ItemText(i) == V_BSTR(&e);
  }
  static bool IsOwnCopy(const Element& e, const Input& item) {
    return V_VT(&e) == VT_BSTR && V_BSTR(&e) != V_BSTR(&item);
  }
  static void FreeCopy(Element& e) { VariantClear(&e); }
};

using AllKinds = ::testing::Types<BstrKind, GuidKind, StringKind, UnknownKind, VariantKind>;

struct KindNames {
  template <class Kind>
  static std::string GetName(int) {
    return Kind::kName;
  }
};

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

// The reference count of an object, read through AddRef and Release.
inline ULONG RefCount(IUnknown* object) {
  object->AddRef();
  return object->Release();
}

}  // namespace xktest
