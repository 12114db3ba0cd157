// The DLL's type library as the platform's reader gives it to a client: every
// type, method, parameter and class as a line of the documented listing, none
// with custom data.
#include <gtest/gtest.h>
#include <objbase.h>
#include <oleauto.h>
#include <xkcombsd/ScopedValue.h>

#include <fstream>
#include <iterator>
#include <string>

#include "RegistryProbe.h"
#include "TestStreams.h"

namespace {

using xktest::ComRef;
using xktest::GuidText;

std::string Narrow(const wchar_t* text) {
  std::string narrow;
  for (; text && *text; ++text) narrow += static_cast<char>(*text);
  return narrow;
}

std::string Hex(unsigned long value) {
  char text[16];
  wsprintfA(text, "%lX", value);
  return text;
}

// "[library.]name" of a referenced type; the library is named only when it is
// not this one, which shows where an imported type resolves.
std::string Referenced(ITypeInfo* from, HREFTYPE href) {
  ComRef<ITypeInfo> target;
  ComRef<ITypeLib> lib;
  UINT index = 0;
  xk::ScopedBstr name, libName;
  if (FAILED(from->GetRefTypeInfo(href, target.put()))) return "?";
  target->GetDocumentation(MEMBERID_NIL, name.put(), nullptr, nullptr, nullptr);
  target->GetContainingTypeLib(lib.put(), &index);
  lib->GetDocumentation(-1, libName.put(), nullptr, nullptr, nullptr);
  const std::string prefix =
      Narrow(libName.get()) == "QuorSoftCOMBaseLib" ? "" : Narrow(libName.get()) + ".";
  return prefix + Narrow(name.get());
}

std::string TypeText(ITypeInfo* info, const TYPEDESC& type) {
  static const std::pair<VARTYPE, const char*> kNames[] = {
      {VT_I4, "long"},   {VT_UI4, "ulong"},       {VT_LPWSTR, "LPWSTR"},
      {VT_BSTR, "BSTR"}, {VT_VARIANT, "VARIANT"}, {VT_UNKNOWN, "IUnknown*"}};
  if (type.vt == VT_PTR) return TypeText(info, *type.lptdesc) + "*";
  if (type.vt == VT_USERDEFINED) return Referenced(info, type.hreftype);
  for (const auto& [vt, name] : kNames) {
    if (vt == type.vt) return name;
  }
  return "vt" + Hex(type.vt);
}

std::string Help(ITypeInfo* info, MEMBERID id) {
  xk::ScopedBstr help;
  info->GetDocumentation(id, nullptr, help.put(), nullptr, nullptr);
  return help.get() ? " \"" + Narrow(help.get()) + "\"" : "";
}

ULONG CustomDataCount(HRESULT hr, CUSTDATA& data) {
  const ULONG count = SUCCEEDED(hr) ? data.cCustData : 1000;
  ClearCustData(&data);
  return count;
}

// One line per method: slot, member id, kind and flags, signature, help text;
// anything but a pure virtual stdcall method returning HRESULT shows as well.
std::string MethodText(ITypeInfo* info, ITypeInfo2* info2, UINT index, int pointerSize) {
  FUNCDESC* f = nullptr;
  if (FAILED(info->GetFuncDesc(index, &f))) return "?";
  BSTR names[16] = {};
  UINT named = 0;
  info->GetNames(f->memid, names, 16, &named);
  std::string line = "  #" + std::to_string(f->oVft / pointerSize) + " " + Hex(f->memid) + " ";
  if (f->invkind == INVOKE_PROPERTYGET) line += "get ";
  if (f->wFuncFlags & FUNCFLAG_FRESTRICTED) line += "restricted ";
  if (f->funckind != FUNC_PUREVIRTUAL || f->callconv != CC_STDCALL ||
      f->elemdescFunc.tdesc.vt != VT_HRESULT || f->cParamsOpt != 0)
    line += "odd ";
  line += Narrow(names[0]) + "(";
  for (SHORT p = 0; p < f->cParams; ++p) {
    const ELEMDESC& param = f->lprgelemdescParam[p];
    const USHORT flags = param.paramdesc.wParamFlags;
    line += std::string(p ? ", " : "") +
            (flags == PARAMFLAG_FIN                          ? "in "
             : flags == PARAMFLAG_FOUT                       ? "out "
             : flags == (PARAMFLAG_FOUT | PARAMFLAG_FRETVAL) ? "out,retval "
                                                             : "flags" + Hex(flags) + " ") +
            TypeText(info, param.tdesc) + " " +
            Narrow(p + 1 < static_cast<SHORT>(named) ? names[p + 1] : L"?");
  }
  line += ")" + Help(info, f->memid);
  CUSTDATA data = {};
  if (CustomDataCount(info2->GetAllFuncCustData(index, &data), data)) line += " custom-data";
  for (SHORT p = 0; p < f->cParams; ++p) {
    if (CustomDataCount(info2->GetAllParamCustData(index, p, &data), data))
      line += " param-custom-data";
  }
  for (UINT n = 0; n < named; ++n) SysFreeString(names[n]);
  info->ReleaseFuncDesc(f);
  return line + "\n";
}

// One line per type, then one per method or implemented interface.
std::string TypeInfoText(ITypeInfo* info, int pointerSize) {
  ComRef<ITypeInfo2> info2;
  TYPEATTR* attr = nullptr;
  xk::ScopedBstr name;
  if (FAILED(info->QueryInterface(IID_ITypeInfo2, reinterpret_cast<void**>(info2.put()))) ||
      FAILED(info->GetTypeAttr(&attr)))
    return "?";
  info->GetDocumentation(MEMBERID_NIL, name.put(), nullptr, nullptr, nullptr);
  std::string text = Narrow(name.get()) + " " + GuidText(attr->guid) +
                     (attr->typekind == TKIND_INTERFACE ? " interface"
                      : attr->typekind == TKIND_COCLASS ? " coclass"
                                                        : " kind" + Hex(attr->typekind)) +
                     " flags=" + Hex(attr->wTypeFlags) + Help(info, MEMBERID_NIL);
  CUSTDATA data = {};
  if (CustomDataCount(info2->GetAllCustData(&data), data)) text += " custom-data";
  for (UINT i = 0; i < attr->cImplTypes; ++i) {
    HREFTYPE href = 0;
    INT flags = 0;
    info->GetRefTypeOfImplType(i, &href);
    info->GetImplTypeFlags(i, &flags);
    text += std::string(i ? ", " : " : ") + (flags == IMPLTYPEFLAG_FDEFAULT ? "default " : "") +
            (flags & ~IMPLTYPEFLAG_FDEFAULT ? "flags" + Hex(flags) + " " : "") +
            Referenced(info, href);
  }
  text += "\n";
  for (UINT i = 0; i < attr->cFuncs; ++i) text += MethodText(info, info2.get(), i, pointerSize);
  if (attr->cVars) text += "  variables\n";
  info->ReleaseTypeAttr(attr);
  return text;
}

// The library's own line. The x86_64 DLL describes 64-bit clients' vtables
// (syskind 3; the i686 one is 1); the reader adds flag 8, read from a file.
std::string LibraryText(ITypeLib* lib) {
  TLIBATTR* attr = nullptr;
  xk::ScopedBstr name, help, helpFile;
  DWORD context = 1;
  ComRef<ITypeLib2> lib2;
  CUSTDATA data = {};
  if (FAILED(lib->GetLibAttr(&attr)) ||
      FAILED(lib->QueryInterface(IID_ITypeLib2, reinterpret_cast<void**>(lib2.put()))))
    return "?";
  lib->GetDocumentation(-1, name.put(), help.put(), &context, helpFile.put());
  const std::string text =
      Narrow(name.get()) + " " + GuidText(attr->guid) + " lcid=" + Hex(attr->lcid) +
      " syskind=" + Hex(attr->syskind) + " version=" + Hex(attr->wMajorVerNum) + "." +
      Hex(attr->wMinorVerNum) + " flags=" + Hex(attr->wLibFlags) + " \"" + Narrow(help.get()) +
      "\" file=\"" + Narrow(helpFile.get()) + "\" context=" + Hex(context) +
      (CustomDataCount(lib2->GetAllCustData(&data), data) ? " custom-data" : "");
  lib->ReleaseTLibAttr(attr);
  return text + "\n";
}

// The DLL beside this program, read as a file: the type library needs no code
// of the library to run.
TEST(TypeLibrary, ResourceOfTheDllReadsBackAsDocumented) {
  CoInitialize(nullptr);
  {
    ComRef<ITypeLib> lib;
    ASSERT_EQ(S_OK, LoadTypeLib(L"XKComBsD.dll", lib.put()));
    std::string text = LibraryText(lib.get());
    for (UINT i = 0; i < lib->GetTypeInfoCount(); ++i) {
      ComRef<ITypeInfo> info;
      ASSERT_EQ(S_OK, lib->GetTypeInfo(i, info.put()));
      text += TypeInfoText(info.get(), sizeof(void*));
    }
    // The documented listing, kept beside this file so that a change reads as a plain diff.
    std::ifstream listing(XK_TYPELIB_LISTING);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(listing), {}), text);
  }
  CoUninitialize();
}

}  // namespace
