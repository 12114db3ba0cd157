// The type library the DLL carries, read back from the built DLL by the
// platform's reader, as an automation client or type browser reads it: every
// type, method, parameter and class rendered as one line of text and compared
// with what the library documents, and no custom data anywhere.
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

// The listing the library documents, one line per type and member; kept as
// text beside this file so that a change to it reads as a plain diff.
std::string ExpectedListing() {
  std::ifstream file(XK_TYPELIB_LISTING);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

TEST(TypeLibrary, ResourceOfTheDllReadsBackAsDocumented) {
  CoInitialize(nullptr);
  {
    // The DLL beside this program, read as a file: the type library needs no
    // code of the library to run.
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    wchar_t* file = path + length;
    while (file > path && file[-1] != L'\\') --file;
    lstrcpyW(file, L"XKComBsD.dll");
    ComRef<ITypeLib> lib;
    ASSERT_EQ(S_OK, LoadTypeLib(path, lib.put()));

    TLIBATTR* attr = nullptr;
    ASSERT_EQ(S_OK, lib->GetLibAttr(&attr));
    EXPECT_EQ("{00517663-0001-0001-0001-00C0DFE64A64}", GuidText(attr->guid));
    EXPECT_EQ(0x0409u, attr->lcid);
    // The x86_64 DLL describes 64-bit clients' vtables; the i686 one is kind 1.
    EXPECT_EQ(SYS_WIN64, attr->syskind);
    EXPECT_EQ(1, attr->wMajorVerNum);
    EXPECT_EQ(4, attr->wMinorVerNum);
    // The reader adds the flag saying it read the library from a file.
    EXPECT_EQ(LIBFLAG_FHASDISKIMAGE, attr->wLibFlags);
    lib->ReleaseTLibAttr(attr);

    xk::ScopedBstr name, help, helpFile;
    DWORD context = 1;
    ASSERT_EQ(S_OK, lib->GetDocumentation(-1, name.put(), help.put(), &context, helpFile.put()));
    EXPECT_EQ("QuorSoftCOMBaseLib", Narrow(name.get()));
    EXPECT_EQ("Quorvel Software COM Base 1.4 Type Library", Narrow(help.get()));
    EXPECT_EQ(nullptr, helpFile.get());
    EXPECT_EQ(0u, context);

    ComRef<ITypeLib2> lib2;
    ASSERT_EQ(S_OK, lib->QueryInterface(IID_ITypeLib2, reinterpret_cast<void**>(lib2.put())));
    CUSTDATA data = {};
    EXPECT_EQ(0u, CustomDataCount(lib2->GetAllCustData(&data), data));

    std::string text;
    for (UINT i = 0; i < lib->GetTypeInfoCount(); ++i) {
      ComRef<ITypeInfo> info;
      ASSERT_EQ(S_OK, lib->GetTypeInfo(i, info.put()));
      text += TypeInfoText(info.get(), sizeof(void*));
    }
    EXPECT_EQ(ExpectedListing(), text);
  }
  CoUninitialize();
}

}  // namespace
