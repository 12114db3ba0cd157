// The five element kinds of EnumSequence: per kind, the interfaces and
// identifiers it answers, whether it traces its lifetime, and how one element
// is made empty, copied and let go. The first enumerator identifier of a kind
// is the one its creator hands out.
#pragma once

#include <xkcombsd/Collections.h>

#include <xkcombsd/Strings.h>

#include "collections/MOEnXXXX.h"

namespace xk::collections {

struct BstrPolicy {
  using Input = BSTR;
  using Coll = ICollBSTR;
  using Seq = ISeqBSTR;
  using Enum = IEnumBSTR;
  static constexpr const CLSID* kClsid = &CLSID_QvEnumBSTR;
  static constexpr const IID* kCollIid = &IID_ICollBSTR;
  static constexpr const IID* kSeqIid = &IID_ISeqBSTR;
  static constexpr const IID* kEnumIids[] = {&IID_IEnumBSTR};
  static constexpr const char* kBornTrace = nullptr;
  static constexpr const char* kDiedTrace = nullptr;

  static void InitElement(BSTR* p) { *p = nullptr; }
  static void CopyElement(BSTR* dest, const BSTR* src) { *dest = BSTR_Dup(*src); }
  static void DestroyElement(BSTR* p) { BSTR_Destroy(p); }
};

struct GuidPolicy {
  using Input = GUID;
  using Coll = ICollGUID;
  using Seq = ISeqGUID;
  using Enum = IEnumGUID;
  static constexpr const CLSID* kClsid = &CLSID_QvEnumGUID;
  static constexpr const IID* kCollIid = &IID_ICollGUID;
  static constexpr const IID* kSeqIid = &IID_ISeqGUID;
  // The library's own IEnumGUID and the platform's: one method layout.
  static constexpr const IID* kEnumIids[] = {&IID_IQvEnumGUID, &IID_IEnumGUID};
  static constexpr const char* kBornTrace = "_EnumGUID(%08x), th %0x\n";
  static constexpr const char* kDiedTrace = "~_EnumGUID(%08x), th %0x\n";

  static void InitElement(GUID*) {}
  static void CopyElement(GUID* dest, const GUID* src) { *dest = *src; }
  static void DestroyElement(GUID*) {}
};

struct StringPolicy {
  using Input = LPCOLESTR;  // only read: the element is a copy
  using Coll = ICollString;
  using Seq = ISeqString;
  using Enum = IEnumString;
  static constexpr const CLSID* kClsid = &CLSID_QvEnumString;
  static constexpr const IID* kCollIid = &IID_ICollString;
  static constexpr const IID* kSeqIid = &IID_ISeqString;
  static constexpr const IID* kEnumIids[] = {&IID_IEnumString};
  static constexpr const char* kBornTrace = nullptr;
  static constexpr const char* kDiedTrace = nullptr;

  static void InitElement(LPOLESTR* p) { *p = nullptr; }
  static void CopyElement(LPOLESTR* dest, const LPCOLESTR* src) { *dest = OleString_Dup(*src); }
  static void DestroyElement(LPOLESTR* p) { OleString_Destroy(p); }
};

struct UnknownPolicy {
  using Input = LPUNKNOWN;
  using Coll = ICollUnknown;
  using Seq = ISeqUnknown;
  using Enum = IEnumUnknown;
  static constexpr const CLSID* kClsid = &CLSID_QvEnumUnknown;
  static constexpr const IID* kCollIid = &IID_ICollUnknown;
  static constexpr const IID* kSeqIid = &IID_ISeqUnknown;
  static constexpr const IID* kEnumIids[] = {&IID_IEnumUnknown};
  static constexpr const char* kBornTrace = "_EnumUnknown(%08x), th %0x\n";
  static constexpr const char* kDiedTrace = "~_EnumUnknown(%08x), th %0x\n";

  static void InitElement(LPUNKNOWN* p) { *p = nullptr; }
  static void CopyElement(LPUNKNOWN* dest, const LPUNKNOWN* src) {
    *dest = *src;
    if (*dest) (*dest)->AddRef();
  }
  static void DestroyElement(LPUNKNOWN* p) {
    if (*p) (*p)->Release();
    *p = nullptr;
  }
};

struct VariantPolicy {
  using Input = VARIANT;
  using Coll = ICollVARIANT;
  using Seq = ISeqVARIANT;
  using Enum = IEnumVARIANT;
  static constexpr const CLSID* kClsid = &CLSID_QvEnumVARIANT;
  static constexpr const IID* kCollIid = &IID_ICollVARIANT;
  static constexpr const IID* kSeqIid = &IID_ISeqVARIANT;
  static constexpr const IID* kEnumIids[] = {&IID_IEnumVARIANT};
  static constexpr const char* kBornTrace = "_EnumVARIANT(%08x), th %0x\n";
  static constexpr const char* kDiedTrace = "~_EnumVARIANT(%08x), th %0x\n";

  static void InitElement(VARIANT* p) { VariantInit(p); }
  static void CopyElement(VARIANT* dest, const VARIANT* src) {
    VariantInit(dest);
    VariantCopy(dest, const_cast<VARIANT*>(src));  // declared without const; only read
  }
  static void DestroyElement(VARIANT* p) { VariantClear(p); }
};

using EnumBSTR = EnumSequence<BSTR, BstrPolicy>;
using EnumGUID = EnumSequence<GUID, GuidPolicy>;
using EnumString = EnumSequence<LPOLESTR, StringPolicy>;
using EnumUnknown = EnumSequence<LPUNKNOWN, UnknownPolicy>;
using EnumVARIANT = EnumSequence<VARIANT, VariantPolicy>;

}  // namespace xk::collections
