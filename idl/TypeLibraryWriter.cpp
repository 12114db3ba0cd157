// Writes the library's type library with the platform's own type-library
// writer, run under Wine at build time:
//   TypeLibraryWriter <system kind> <output.tlb>
// The platform writer adds nothing of its own, and the types of the standard
// type library are referenced as imports, as a reader on any machine expects.
#include <windows.h>

#include <oleauto.h>

#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <map>
#include <string>
#include <vector>

#include "TypeLibraryDefinition.h"

namespace xk::typelib {
namespace {

template <typename T>
struct Ref {
  T* p = nullptr;
  ~Ref() {
    if (p) p->Release();
  }
  T* operator->() const { return p; }
  T** operator&() { return &p; }
};

void Check(HRESULT hr, const char* step, const wchar_t* what = L"") {
  if (FAILED(hr)) {
    std::fprintf(stderr, "TypeLibraryWriter: %s %ls failed: 0x%08lX\n", step, what,
                 static_cast<unsigned long>(hr));
    std::exit(1);
  }
}

class Writer {
 public:
  Writer(ICreateTypeLib2* lib, ITypeLib* stdole, int pointerSize)
      : lib_(lib), stdole_(stdole), pointerSize_(pointerSize) {}

  void Write(const Library& def) {
    Check(lib_->SetName(const_cast<LPOLESTR>(def.name)), "SetName");
    Check(lib_->SetGuid(def.libid), "SetGuid");
    Check(lib_->SetVersion(def.major, def.minor), "SetVersion");
    Check(lib_->SetLcid(def.lcid), "SetLcid");
    Check(lib_->SetDocString(const_cast<LPOLESTR>(def.help)), "SetDocString");
    Check(lib_->SetLibFlags(0), "SetLibFlags");
    // Every interface is made before any method, since methods refer to
    // interfaces defined after them (ICollBSTR hands out IEnumBSTR).
    for (const Interface& i : def.interfaces) {
      ICreateTypeInfo* info = Create(i.name, TKIND_INTERFACE, i.iid, i.help, 0);
      Check(info->AddImplType(0, Reference(info, L"IUnknown")), "AddImplType", i.name);
    }
    for (const Interface& i : def.interfaces) AddMethods(i);
    for (const CoClass& c : def.classes) AddClass(c);
    for (auto& [name, info] : local_) Check(info->LayOut(), "LayOut", name.c_str());
    Check(lib_->SaveAllChanges(), "SaveAllChanges");
    for (auto& [name, info] : local_) info->Release();
  }

 private:
  ICreateTypeInfo* Create(const wchar_t* name, TYPEKIND kind, const GUID& guid, const wchar_t* help,
                          UINT flags) {
    ICreateTypeInfo* info = nullptr;
    Check(lib_->CreateTypeInfo(const_cast<LPOLESTR>(name), kind, &info), "CreateTypeInfo", name);
    Check(info->SetGuid(guid), "SetGuid", name);
    Check(info->SetTypeFlags(flags), "SetTypeFlags", name);
    if (help) Check(info->SetDocString(const_cast<LPOLESTR>(help)), "SetDocString", name);
    local_[name] = info;
    return info;
  }

  // A reference from `from` to a type of this library or of the standard one.
  HREFTYPE Reference(ICreateTypeInfo* from, const wchar_t* name) {
    Ref<ITypeInfo> target;
    auto local = local_.find(name);
    if (local != local_.end()) {
      Check(local->second->QueryInterface(IID_ITypeInfo, reinterpret_cast<void**>(&target)),
            "QueryInterface(ITypeInfo)", name);
    } else {
      MEMBERID id;
      USHORT found = 1;
      Check(stdole_->FindName(const_cast<LPOLESTR>(name), 0, &target, &id, &found), "FindName",
            name);
      if (!found) Check(TYPE_E_ELEMENTNOTFOUND, "FindName", name);
    }
    HREFTYPE href = 0;
    Check(from->AddRefTypeInfo(target.p, &href), "AddRefTypeInfo", name);
    return href;
  }

  // Nested pointer descriptions live in `store` until the method is added.
  TYPEDESC Describe(ICreateTypeInfo* from, const TypeRef& type, std::vector<TYPEDESC>& store) {
    TYPEDESC desc{};
    desc.vt = type.base;
    if (type.user) desc.hreftype = Reference(from, type.user);
    for (int i = 0; i < type.pointers; ++i) {
      store.push_back(desc);
      desc = {};
      desc.vt = VT_PTR;
      desc.lptdesc = &store.back();
    }
    return desc;
  }

  void AddMethods(const Interface& i) {
    ICreateTypeInfo* info = local_[i.name];
    for (UINT slot = 0; slot < i.methods.size(); ++slot) {
      const Method& m = i.methods[slot];
      std::vector<TYPEDESC> store;
      store.reserve(8 * (m.params.size() + 1));  // pointers into it must stay put
      std::vector<ELEMDESC> params(m.params.size());
      std::vector<LPOLESTR> names{const_cast<LPOLESTR>(m.name)};
      for (size_t p = 0; p < m.params.size(); ++p) {
        params[p].tdesc = Describe(info, m.params[p].type, store);
        params[p].paramdesc.wParamFlags = m.params[p].flags;
        names.push_back(const_cast<LPOLESTR>(m.params[p].name));
      }
      FUNCDESC f{};
      f.memid = m.id;
      f.lprgelemdescParam = params.data();
      f.funckind = FUNC_PUREVIRTUAL;
      f.invkind = m.kind;
      f.callconv = CC_STDCALL;
      f.cParams = static_cast<SHORT>(params.size());
      // IUnknown's three methods come first in every vtable.
      f.oVft = static_cast<SHORT>((3 + slot) * pointerSize_);
      f.elemdescFunc.tdesc.vt = VT_HRESULT;
      f.wFuncFlags = m.flags;
      Check(info->AddFuncDesc(slot, &f), "AddFuncDesc", m.name);
      Check(info->SetFuncAndParamNames(slot, names.data(), static_cast<UINT>(names.size())),
            "SetFuncAndParamNames", m.name);
      if (m.help) {
        Check(info->SetFuncDocString(slot, const_cast<LPOLESTR>(m.help)), "SetFuncDocString",
              m.name);
      }
    }
  }

  void AddClass(const CoClass& c) {
    ICreateTypeInfo* info = Create(c.name, TKIND_COCLASS, c.clsid, c.help, TYPEFLAG_FCANCREATE);
    for (UINT slot = 0; slot < c.interfaces.size(); ++slot) {
      Check(info->AddImplType(slot, Reference(info, c.interfaces[slot])), "AddImplType", c.name);
      Check(info->SetImplTypeFlags(slot, slot == 0 ? IMPLTYPEFLAG_FDEFAULT : 0), "SetImplTypeFlags",
            c.name);
    }
  }

  ICreateTypeLib2* lib_;
  ITypeLib* stdole_;
  int pointerSize_;
  std::map<std::wstring, ICreateTypeInfo*> local_;
};

}  // namespace
}  // namespace xk::typelib

int wmain(int argc, wchar_t** argv) {
  using namespace xk::typelib;
  if (argc != 3 || (argv[1][0] != L'1' && argv[1][0] != L'3')) {
    std::fprintf(stderr, "usage: TypeLibraryWriter 1|3 output.tlb\n");
    return 2;
  }
  const SYSKIND kind = argv[1][0] == L'3' ? SYS_WIN64 : SYS_WIN32;
  Check(CoInitialize(nullptr), "CoInitialize");
  {
    DeleteFileW(argv[2]);
    Ref<ICreateTypeLib2> lib;
    Check(CreateTypeLib2(kind, argv[2], &lib), "CreateTypeLib2", argv[2]);
    Ref<ITypeLib> stdole;
    Check(LoadTypeLib(L"stdole2.tlb", &stdole), "LoadTypeLib", L"stdole2.tlb");
    Writer(lib.p, stdole.p, kind == SYS_WIN64 ? 8 : 4).Write(Definition());
  }
  CoUninitialize();
  return 0;
}
