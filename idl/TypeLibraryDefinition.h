// The content of the library's type library, written as data: the library's
// attributes, its interfaces and its classes, in the order clients see them.
// TypeLibraryWriter.cpp turns it into the binary type library the DLLs carry.
//
// Written here rather than in an interface-definition language because the
// compilers for one add entries of their own (custom data, a local copy of an
// imported interface), and the resource must carry exactly this and no more.
#pragma once

#include <oaidl.h>
#include <windows.h>
#include <xkcombsd/Identifiers.h>

#include <vector>

namespace xk::typelib {

// A parameter or result type: a base type and how many pointers lead to it.
// A base named by `user` is one of this library's interfaces, or a type of the
// platform's standard type library (stdole2), which is imported, never copied.
struct TypeRef {
  VARTYPE base;
  int pointers = 0;
  const wchar_t* user = nullptr;
};

inline TypeRef Ptr(TypeRef t, int more = 1) { return {t.base, t.pointers + more, t.user}; }
inline TypeRef User(const wchar_t* name) { return {VT_USERDEFINED, 0, name}; }

struct Param {
  const wchar_t* name;
  TypeRef type;
  USHORT flags;
};

struct Method {
  const wchar_t* name;
  MEMBERID id;
  INVOKEKIND kind;
  WORD flags;
  const wchar_t* help;
  std::vector<Param> params;
};

struct Interface {
  const wchar_t* name;
  GUID iid;
  const wchar_t* help;
  std::vector<Method> methods;
};

struct CoClass {
  const wchar_t* name;
  GUID clsid;
  const wchar_t* help;
  std::vector<const wchar_t*> interfaces;  // the default one first
};

struct Library {
  const wchar_t* name;
  GUID libid;
  const wchar_t* help;
  WORD major, minor;
  LCID lcid;
  std::vector<Interface> interfaces;
  std::vector<CoClass> classes;
};

constexpr USHORT kIn = PARAMFLAG_FIN;
constexpr USHORT kOut = PARAMFLAG_FOUT;
constexpr USHORT kRetval = PARAMFLAG_FOUT | PARAMFLAG_FRETVAL;
constexpr WORD kRestricted = FUNCFLAG_FRESTRICTED;

// Interfaces deriving from IUnknown number their methods from here when the
// definition gives no member ids.
constexpr MEMBERID kFirstEnumeratorId = 0x60010000;

// ICollBSTR, ICollGUID, ICollString, ICollUnknown, ICollVARIANT: one shape.
inline Interface Collection(const wchar_t* name, const GUID& iid, const wchar_t* help,
                            TypeRef items, TypeRef count, const wchar_t* enumerator) {
  return {name,
          iid,
          help,
          {{L"Count",
            1,
            INVOKE_PROPERTYGET,
            0,
            L"Returns the number of items",
            {{L"rcount", Ptr({VT_I4}), kOut}}},
           {L"Add",
            2,
            INVOKE_FUNC,
            0,
            L"Adds one or more items",
            {{L"items", items, kIn}, {L"cItems", count, kIn}}},
           {L"Empty", 3, INVOKE_FUNC, 0, L"Removes all items", {}},
           {L"_NewEnum",
            DISPID_NEWENUM,
            INVOKE_FUNC,
            kRestricted,
            L"Returns an enumerator of the items",
            {{L"ppenum", Ptr(User(enumerator), 2), kRetval}}}}};
}

// IEnumString, IEnumBSTR, IEnumGUID, IEnumUnknown: one shape. Only the
// library's own enumerators carry help strings and hand Clone's result back
// as a return value.
inline Interface Enumerator(const wchar_t* name, const GUID& iid, const wchar_t* help,
                            TypeRef element, bool documented) {
  auto doc = [documented](const wchar_t* text) { return documented ? text : nullptr; };
  return {name,
          iid,
          help,
          {{L"RemoteNext",
            kFirstEnumeratorId,
            INVOKE_FUNC,
            0,
            nullptr,
            {{L"celt", {VT_UI4}, kIn},
             {L"rgelt", Ptr(element), kOut},
             {L"pceltFetched", Ptr({VT_UI4}), kOut}}},
           {L"Skip",
            kFirstEnumeratorId + 1,
            INVOKE_FUNC,
            0,
            doc(L"Skips over the next specified number of elements"),
            {{L"celt", {VT_UI4}, kIn}}},
           {L"Reset",
            kFirstEnumeratorId + 2,
            INVOKE_FUNC,
            0,
            doc(L"Resets the enumeration sequence"),
            {}},
           {L"Clone",
            kFirstEnumeratorId + 3,
            INVOKE_FUNC,
            0,
            doc(L"Creates another enumerator that contains the same enumeration state as the "
                L"current one"),
            {{L"ppenum", Ptr(User(name), 2), documented ? kRetval : kOut}}}}};
}

inline Library Definition() {
  const TypeRef unknownArray = Ptr({VT_UNKNOWN});
  return {
      L"QuorSoftCOMBaseLib",
      LIBID_QuorSoftCOMBaseLib,
      L"Quorvel Software COM Base 1.4 Type Library",
      1,
      4,
      0x0409,
      {
          {L"IPropertyBagEdit",
           IID_IPropertyBagEdit,
           L"IPropertyBagEdit Interface",
           {{L"Count",
             1,
             INVOKE_PROPERTYGET,
             0,
             L"Returns the number of properties",
             {{L"rcount", Ptr({VT_I4}), kOut}}},
            {L"Remove",
             5,
             INVOKE_FUNC,
             0,
             L"Removes a property",
             {{L"propName", {VT_LPWSTR}, kIn}}},
            {L"Empty", 3, INVOKE_FUNC, 0, L"Removes all items", {}},
            {L"Add",
             2,
             INVOKE_FUNC,
             0,
             L"Adds a property",
             {{L"propName", {VT_LPWSTR}, kIn}, {L"prop", Ptr({VT_VARIANT}), kIn}}},
            // The item's help text has always read so; clients may show it.
            {L"Item",
             0,
             INVOKE_FUNC,
             0,
             L"Removes a property",
             {{L"propName", {VT_LPWSTR}, kIn}, {L"prop", Ptr({VT_VARIANT}), kRetval}}},
            {L"_NewEnum",
             DISPID_NEWENUM,
             INVOKE_FUNC,
             kRestricted,
             L"Returns an enumerator of the property names",
             {{L"ppenum", Ptr(User(L"IEnumString"), 2), kRetval}}}}},
          Enumerator(L"IEnumString", IID_IEnumString, nullptr, {VT_LPWSTR}, false),
          Collection(L"ICollBSTR", IID_ICollBSTR, L"ICollBSTR Interface", unknownArray, {VT_UI4},
                     L"IEnumBSTR"),
          Enumerator(L"IEnumBSTR", IID_IEnumBSTR, L"IEnumBSTR Interface", {VT_BSTR}, true),
          Collection(L"ICollGUID", IID_ICollGUID, L"ICollGUID Interface", Ptr(User(L"GUID")),
                     {VT_UI4}, L"IEnumGUID"),
          Enumerator(L"IEnumGUID", IID_IQvEnumGUID, L"IEnumGUID Interface", User(L"GUID"), true),
          Collection(L"ICollString", IID_ICollString, L"ICollString Interface", Ptr({VT_LPWSTR}),
                     {VT_I4}, L"IEnumString"),
          Collection(L"ICollUnknown", IID_ICollUnknown, L"ICollUnknown Interface", unknownArray,
                     {VT_UI4}, L"IEnumUnknown"),
          Enumerator(L"IEnumUnknown", IID_IEnumUnknown, nullptr, {VT_UNKNOWN}, false),
          Collection(L"ICollVARIANT", IID_ICollVARIANT, L"ICollVARIANT Interface", unknownArray,
                     {VT_UI4}, L"IEnumVARIANT"),
      },
      {
          {L"EnumGUID", CLSID_QvEnumGUID, L"EnumGUID Class", {L"IEnumGUID", L"ICollGUID"}},
          {L"EnumUnknown",
           CLSID_QvEnumUnknown,
           L"EnumUnknown Class",
           {L"IEnumUnknown", L"ICollUnknown"}},
          {L"EnumString",
           CLSID_QvEnumString,
           L"EnumString Class",
           {L"IEnumString", L"ICollString"}},
          {L"EnumBSTR", CLSID_QvEnumBSTR, L"EnumBSTR Class", {L"IEnumBSTR", L"ICollBSTR"}},
          {L"EnumVARIANT",
           CLSID_QvEnumVARIANT,
           L"EnumVARIANT Class",
           {L"IEnumVARIANT", L"ICollVARIANT"}},
          {L"PropertyBag", CLSID_QvPropertyBag, L"PropertyBag Class", {L"IPropertyBagEdit"}},
          {L"PropertyBag_ST",
           CLSID_QvPropertyBag_ST,
           L"PropertyBag_ST Class",
           {L"IPropertyBagEdit"}},
      }};
}

}  // namespace xk::typelib
