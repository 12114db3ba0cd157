// Every export of the library called as a careless or hostile client calls it:
// NULL for each pointer, counts of -1, 0 and the largest values, garbage flags,
// handles and reasons, and objects that answer nothing but IUnknown. Each row
// pins the documented answer; a row whose comment says "silent" only demands a
// failure. One row per export, checked against the export list, so a new
// export cannot go without one.
#include <gmock/gmock.h>
#include <xkcombsd/xkcombsd.h>

#include <cstdarg>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "ComTest.h"
#include "FakeUnknown.h"
#include "TestStreams.h"

namespace {

using xktest::Bytes;
using xktest::ComRef;
using xktest::FakeUnknown;

constexpr int kHuge = 0x7fffffff;
constexpr UINT kAll = ~0u;
const GUID kSomeGuid = {0x0bad0bad, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};

// Where the documentation names no code, any failure will do.
bool Failed(HRESULT hr) { return FAILED(hr); }

// Out-parameters start as this, so that clearing them shows.
template <class T>
T Bad() {
  return reinterpret_cast<T>(static_cast<UINT_PTR>(0xBAADF00D));
}

// ASCII text as narrow or wide characters, for rows shared by twins.
template <class C>
const C* S(const char* ascii) {
  static std::basic_string<C> ring[8];
  static unsigned next;
  auto& text = ring[next++ % 8];
  text.assign(ascii, ascii + std::strlen(ascii));
  return text.c_str();
}

// What every row may use; the fakes must end with the one reference they began with.
struct Kit {
  ComRef<IStream> stream{xktest::NewMemoryStream()};
  FakeUnknown plain;                                    // IUnknown and nothing else
  FakeUnknown refusing{IID_IUnknown, E_FAIL};           // refuses with an odd code
  ComRef<IStream> held;
  IStream* Holding(const Bytes& bytes) {
    *held.put() = xktest::NewMemoryStream(bytes);
    return held.get();
  }
};

// A stream whose first count field says "all of memory": a count the stream
// cannot hold is refused before anything is allocated for it.
const HRESULT kNoSuchRecord = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
IStream* HugeCount(Kit& k) { return k.Holding({0xFF, 0xFF, 0xFF, 0xFF}); }

// BSTRs and OLE strings are both wchar_t*: the kind says how one is made and freed.
struct Bstrs {
  static BSTR Make(const wchar_t* s) { return SysAllocString(s); }
  static void Free(wchar_t* s) { SysFreeString(s); }
};
struct OleStrings {
  static LPOLESTR Make(const wchar_t* s) { return OleString_Dup(s); }
  static void Free(wchar_t* s) { CoTaskMemFree(s); }
};
template <class Kind>
void ExpectNone(wchar_t* made) {
  EXPECT_EQ(nullptr, made);
  Kind::Free(made);
}

// A string maker asked for more characters than memory holds, or from nothing.
template <class Kind, class C>
void RefusesHugeAndNull(wchar_t*(WINAPI* make)(const C*, int)) {
  ExpectNone<Kind>(make(nullptr, -1));
  ExpectNone<Kind>(make(S<C>("x"), kHuge));
}

// A string replacer: a huge count fails and leaves the caller's string alone.
template <class Kind, class C>
void ReplaceRefusesHuge(wchar_t*(WINAPI* replace)(wchar_t*, const C*, int)) {
  wchar_t* old = Kind::Make(L"ab");
  ExpectNone<Kind>(replace(old, S<C>("x"), kHuge));
  EXPECT_STREQ(L"ab", old);
  Kind::Free(old);
  ExpectNone<Kind>(replace(nullptr, nullptr, -1));
}

// A resource loader asked for no resource of a module that is no module.
template <class Kind>
void NoResource(wchar_t*(WINAPI* load)(HINSTANCE, UINT)) {
  ExpectNone<Kind>(load(nullptr, kAll));
  ExpectNone<Kind>(load(Bad<HINSTANCE>(), 1));
}

template <class C>
void GuidFromText(HRESULT(WINAPI* parse)(GUID*, const C*)) {
  GUID guid = kSomeGuid;
  EXPECT_HR(CO_E_CLASSSTRING, parse(&guid, S<C>("{not a guid}")));
  EXPECT_HR(E_INVALIDARG, parse(nullptr, S<C>("{00000000-0000-0000-C000-000000000046}")));  // silent
}

template <class C>
void GuidToText(HRESULT(WINAPI* format)(C*, REFGUID)) {
  EXPECT_HR(E_POINTER, format(nullptr, kSomeGuid));
}

template <class C>
void ClassName(HRESULT(WINAPI* lookUp)(REFCLSID, C*, DWORD*)) {
  C name[4];
  DWORD cch = kAll;
  EXPECT_HR(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), lookUp(kSomeGuid, name, &cch));
  EXPECT_EQ(0u, cch);
  EXPECT_HR(E_POINTER, lookUp(IID_IUnknown, name, nullptr));  // silent
}

template <class C>
void NoCommandLine(HRESULT(WINAPI* parse)(const C*, IEnumString**)) {
  EXPECT_HR(E_NOTIMPL, parse(nullptr, nullptr));
}

template <class C>
void InitBstr(void(WINAPI* init)(VARIANT*, const C*)) {
  init(nullptr, S<C>("x"));  // reported; the string must not be made and lost
  VARIANT v;
  init(&v, nullptr);
  EXPECT_EQ(VT_BSTR, V_VT(&v));
  EXPECT_EQ(nullptr, V_BSTR(&v));
}

// Error information from NULL texts is empty text, as the platform takes it.
template <class R>
void ErrorInfoTakes(R result) {
  EXPECT_HR(S_OK, result);
  SetErrorInfo(0, nullptr);
}

template <class C>
void ExcepInit(HRESULT(WINAPI* init)(EXCEPINFO*, WORD, HRESULT, const C*, const C*, const C*, DWORD)) {
  EXPECT_HR(E_POINTER, init(nullptr, 0, E_FAIL, nullptr, nullptr, nullptr, 0));
  EXCEPINFO info = {};
  info.bstrSource = Bad<BSTR>();
  EXPECT_HR(E_INVALIDARG, init(&info, 0xFFFF, E_FAIL, S<C>("s"), nullptr, nullptr, kAll));
  EXPECT_EQ(Bad<BSTR>(), info.bstrSource);
}

template <class T, class E>
void Creator(HRESULT(WINAPI* create)(T, ULONG, E**)) {
  E* out = Bad<E*>();
  EXPECT_HR(E_INVALIDARG, create(nullptr, kAll, &out));
  EXPECT_EQ(nullptr, out);
  EXPECT_HR(E_POINTER, create(nullptr, 0, nullptr));
}

// The formatters write what the system's own do, "(null)" for a NULL text included.
int SystemPrint(char* to, const char* spec, const void* arg) { return wsprintfA(to, spec, arg); }
int SystemPrint(wchar_t* to, const wchar_t* spec, const void* arg) { return wsprintfW(to, spec, arg); }
template <class C>
void PrintsAsSystem(int(__cdecl* print)(C*, const C*, ...)) {
  C a[16], b[16];
  EXPECT_EQ(SystemPrint(a, S<C>("%s%"), nullptr), print(b, S<C>("%s%"), nullptr));
  EXPECT_EQ(std::basic_string<C>(a), std::basic_string<C>(b));
}
template <class C>
int Through(int(WINAPI* format)(C*, const C*, va_list), C* to, const C* spec, ...) {
  va_list args;
  va_start(args, spec);
  int n = format(to, spec, args);
  va_end(args);
  return n;
}
template <class C>
void FormatsAsSystem(int(WINAPI* format)(C*, const C*, va_list)) {
  C a[16], b[16];
  int(WINAPI* system)(C*, const C*, va_list) = nullptr;
  if constexpr (sizeof(C) == 1) system = wvsprintfA;
  else system = wvsprintfW;
  EXPECT_EQ(Through(system, a, S<C>("%s%"), nullptr), Through(format, b, S<C>("%s%"), nullptr));
  EXPECT_EQ(std::basic_string<C>(a), std::basic_string<C>(b));
}

// The late-bound registry and user-interface entries answer exactly as the
// system functions they stand for; a NULL key makes them touch nothing.
#define SAME(system, entry, ...) EXPECT_EQ(system(__VA_ARGS__), entry(__VA_ARGS__))

// One row for each of a narrow/wide pair: the body sees C (char or wchar_t) and
// f (the export of that width).
#define TWINS(stem, ...)                                    \
  {#stem "A", [](Kit& k) {                                  \
     using C = char;                                        \
     auto f = stem##A;                                      \
     (void)k, (void)f;                                      \
     __VA_ARGS__;                                           \
   }},                                                      \
  {                                                         \
    #stem "W", [](Kit& k) {                                 \
      using C = wchar_t;                                    \
      auto f = stem##W;                                     \
      (void)k, (void)f;                                     \
      __VA_ARGS__;                                          \
    }                                                       \
  }
// The same for the late-bound pairs, whose system twins have the same stem.
#define LB_TWINS(stem, ...)                                   \
  {"LB_" #stem "A", [](Kit&) {                                \
     using C = char;                                          \
     SAME(stem##A, LB_##stem##A, __VA_ARGS__);                \
   }},                                                        \
  {                                                           \
    "LB_" #stem "W", [](Kit&) {                               \
      using C = wchar_t;                                      \
      SAME(stem##W, LB_##stem##W, __VA_ARGS__);               \
    }                                                         \
  }

struct Row {
  const char* name;
  void (*run)(Kit&);
};

const Row kRows[] = {
    // Module: nothing to pass DllCanUnloadNow, and self-registration takes nothing either.
    {"DllCanUnloadNow", [](Kit&) { EXPECT_HR(S_OK, DllCanUnloadNow()); }},
    {"DllRegisterServer", [](Kit&) { EXPECT_HR(S_OK, DllRegisterServer()); }},
    {"DllUnregisterServer", [](Kit&) { EXPECT_HR(S_OK, DllUnregisterServer()); }},
    {"DllGetClassObject", [](Kit&) {
       void* out = Bad<void*>();
       EXPECT_HR(E_POINTER, DllGetClassObject(CLSID_QvEnumGUID, IID_IClassFactory, nullptr));
       EXPECT_HR(CLASS_E_CLASSNOTAVAILABLE, DllGetClassObject(kSomeGuid, IID_IClassFactory, &out));
       EXPECT_EQ(Bad<void*>(), out);  // left as it was, as documented
     }},
    {"DllGetVersion", [](Kit&) {
       DLLVERSIONINFO info = {kAll, 7};
       EXPECT_HR(E_POINTER, DllGetVersion(nullptr));
       EXPECT_HR(E_INVALIDARG, DllGetVersion(&info));
       EXPECT_EQ(7u, info.dwMajorVersion);
     }},
    {"QvDllGetVersion", [](Kit&) { EXPECT_EQ(0x0001001Bu, QvDllGetVersion(nullptr)); }},
    {"InterfaceIsImplemented", [](Kit& k) {
       EXPECT_HR(E_POINTER, InterfaceIsImplemented(nullptr, IID_IUnknown));
       EXPECT_HR(E_NOINTERFACE, InterfaceIsImplemented(&k.refusing, IID_IStream));
     }},
    {"DllMain", [](Kit&) { EXPECT_TRUE(DllMain(GetModuleHandleA("XKComBsD.dll"), 0xBAD, Bad<void*>())); }},
    {"RegisterServer", [](Kit&) {
       QVREGSVR wide = {QVREGSVRF_UNICODE | QVREGSVRF_CLSID};
       EXPECT_FALSE(RegisterServer(nullptr));
       EXPECT_FALSE(RegisterServer(&wide));
     }},
    {"RegisterInprocServer", [](Kit&) { EXPECT_FALSE(RegisterInprocServer(kSomeGuid, nullptr, nullptr, nullptr, 0, kAll)); }},
    {"RegisterProxyStub", [](Kit&) { EXPECT_FALSE(RegisterProxyStub(kSomeGuid, GUID_NULL, nullptr, nullptr, kAll)); }},
    {"CreateFTM", [](Kit& k) { EXPECT_HR(E_POINTER, CreateFTM(&k.plain, nullptr)); }},

    // Records.
    {"OleInitFromStream", [](Kit& k) {
       EXPECT_HR(E_POINTER, OleInitFromStream(nullptr, &k.plain));
       EXPECT_HR(E_POINTER, OleInitFromStream(k.stream.get(), nullptr));
       EXPECT_HR(E_NOINTERFACE, OleInitFromStream(k.stream.get(), &k.plain));
     }},
    {"OleSaveUnknownToStream", [](Kit& k) {
       EXPECT_HR(E_POINTER, OleSaveUnknownToStream(nullptr, nullptr));  // silent: the platform's call
       EXPECT_HR(E_NOINTERFACE, OleSaveUnknownToStream(k.stream.get(), &k.plain));
     }},
    {"OleString_GetSizeMax", [](Kit&) { EXPECT_HR(E_POINTER, OleString_GetSizeMax(L"x", nullptr)); }},
    {"OleString_SaveToStream", [](Kit&) { EXPECT_HR(E_POINTER, OleString_SaveToStream(nullptr, L"x")); }},
    {"OleString_LoadFromStream", [](Kit& k) {
       LPOLESTR out = Bad<LPOLESTR>();
       EXPECT_HR(E_POINTER, OleString_LoadFromStream(nullptr, &out));
       EXPECT_HR(E_POINTER, OleString_LoadFromStream(k.stream.get(), nullptr));
       EXPECT_HR(kNoSuchRecord, OleString_LoadFromStream(HugeCount(k), &out));
       EXPECT_HR(kNoSuchRecord, OleString_LoadFromStream(k.Holding({3, 0, 0, 0, 'a', 0, 0}), &out));
       EXPECT_EQ(nullptr, out);
     }},
    {"BSTR_GetSizeMax", [](Kit&) { EXPECT_HR(E_POINTER, BSTR_GetSizeMax(nullptr, nullptr)); }},
    {"BSTR_SaveToStream", [](Kit&) { EXPECT_HR(E_POINTER, BSTR_SaveToStream(nullptr, nullptr)); }},
    {"BSTR_LoadFromStream", [](Kit& k) {
       BSTR out = Bad<BSTR>();
       EXPECT_HR(E_POINTER, BSTR_LoadFromStream(nullptr, &out));
       EXPECT_HR(E_POINTER, BSTR_LoadFromStream(k.stream.get(), nullptr));
       EXPECT_HR(kNoSuchRecord, BSTR_LoadFromStream(HugeCount(k), &out));
       EXPECT_EQ(nullptr, out);
     }},
    {"VARIANT_GetSizeMax", [](Kit&) { EXPECT_HR(E_NOTIMPL, VARIANT_GetSizeMax(nullptr, nullptr)); }},
    {"VARIANT_SaveToStream", [](Kit& k) {
       VARIANT v = {};
       EXPECT_HR(E_POINTER, VARIANT_SaveToStream(nullptr, &v));
       EXPECT_HR(E_POINTER, VARIANT_SaveToStream(k.stream.get(), nullptr));
       V_VT(&v) = 0xFFFF;  // by reference and an array: refused before anything is written
       EXPECT_HR(E_INVALIDARG, VARIANT_SaveToStream(k.stream.get(), &v));
       V_VT(&v) = 0x0FFF;
       EXPECT_HR(DISP_E_BADVARTYPE, VARIANT_SaveToStream(k.stream.get(), &v));
       V_VT(&v) = VT_BYREF | VT_I4;  // silent: a reference to nothing is a missing value
       EXPECT_HR(E_POINTER, VARIANT_SaveToStream(k.stream.get(), &v));
     }},
    {"VARIANT_LoadFromStream", [](Kit& k) {
       VARIANT v;
       EXPECT_HR(E_POINTER, VARIANT_LoadFromStream(nullptr, &v));
       EXPECT_HR(E_POINTER, VARIANT_LoadFromStream(k.stream.get(), nullptr));
       EXPECT_HR(DISP_E_BADVARTYPE, VARIANT_LoadFromStream(k.Holding(Bytes(16, 0xFF)), &v));
       EXPECT_EQ(VT_EMPTY, V_VT(&v));
     }},
    {"VARIANT_InitI4", [](Kit&) { VARIANT_InitI4(nullptr, kHuge); }},  // reported, and nothing written
    TWINS(VARIANT_InitBSTR, InitBstr<C>(f)),
    {"FileTimeToVariantTime", [](Kit&) {
       FILETIME never = {kAll, kAll};
       DATE date = 0;
       EXPECT_HR(E_POINTER, FileTimeToVariantTime(nullptr, &date));  // silent
       EXPECT_HR(E_POINTER, FileTimeToVariantTime(&never, nullptr));  // silent
       EXPECT_PRED1(Failed, FileTimeToVariantTime(&never, &date));   // silent
     }},
    {"VariantTimeToFileTime", [](Kit&) { EXPECT_HR(E_NOTIMPL, VariantTimeToFileTime(-1e308, nullptr)); }},
    {"SAFEARRAY_GetSizeMax", [](Kit&) { EXPECT_HR(E_NOTIMPL, SAFEARRAY_GetSizeMax(nullptr, nullptr)); }},
    {"SAFEARRAY_SaveToStream", [](Kit&) { EXPECT_HR(E_NOTIMPL, SAFEARRAY_SaveToStream(nullptr, nullptr)); }},
    {"SAFEARRAY_LoadFromStream", [](Kit& k) {
       SAFEARRAY* out = Bad<SAFEARRAY*>();
       EXPECT_HR(E_NOTIMPL, SAFEARRAY_LoadFromStream(k.stream.get(), &out));
       EXPECT_EQ(Bad<SAFEARRAY*>(), out);  // not written, as documented
     }},
    {"Property_GetSizeMax", [](Kit&) {
       ULONG size = kAll;
       EXPECT_HR(E_POINTER, Property_GetSizeMax(nullptr, nullptr, &size));
       EXPECT_HR(E_INVALIDARG, Property_GetSizeMax(L"", nullptr, &size));
       EXPECT_HR(E_POINTER, Property_GetSizeMax(L"a", nullptr, nullptr));
     }},
    {"Property_SaveToStream", [](Kit& k) {
       EXPECT_HR(E_POINTER, Property_SaveToStream(nullptr, L"a", nullptr));
       EXPECT_HR(E_POINTER, Property_SaveToStream(k.stream.get(), nullptr, nullptr));
       EXPECT_HR(E_INVALIDARG, Property_SaveToStream(k.stream.get(), L"", nullptr));
     }},
    {"Property_LoadFromStream", [](Kit& k) {
       LPOLESTR name = Bad<LPOLESTR>();
       VARIANT v;
       EXPECT_HR(E_POINTER, Property_LoadFromStream(nullptr, &name, &v));
       EXPECT_HR(E_POINTER, Property_LoadFromStream(k.stream.get(), nullptr, &v));
       EXPECT_HR(E_POINTER, Property_LoadFromStream(k.stream.get(), &name, nullptr));
       EXPECT_PRED1(Failed, Property_LoadFromStream(HugeCount(k), &name, &v));  // silent
       EXPECT_EQ(nullptr, name);
     }},
    {"PropertyBag_GetSizeMax", [](Kit& k) {
       ULONG size = kAll;
       EXPECT_HR(E_POINTER, PropertyBag_GetSizeMax(nullptr, &size));
       EXPECT_HR(E_POINTER, PropertyBag_GetSizeMax(&k.plain, nullptr));
       EXPECT_HR(E_NOINTERFACE, PropertyBag_GetSizeMax(&k.plain, &size));
     }},
    {"PropertyBag_LoadFromStream", [](Kit& k) {
       IPropertyBag* bag = Bad<IPropertyBag*>();
       EXPECT_HR(E_POINTER, PropertyBag_LoadFromStream(nullptr, nullptr));
       EXPECT_PRED1(Failed, PropertyBag_LoadFromStream(HugeCount(k), &bag));  // the platform's load
       EXPECT_EQ(nullptr, bag);
     }},
    {"PropertyBag_InitFromStream", [](Kit& k) {
       EXPECT_HR(E_POINTER, PropertyBag_InitFromStream(nullptr, &k.plain));
       EXPECT_HR(E_POINTER, PropertyBag_InitFromStream(k.stream.get(), nullptr));
       EXPECT_HR(E_NOINTERFACE, PropertyBag_InitFromStream(k.stream.get(), &k.plain));
     }},
    {"PropertyBag_SaveToStream", [](Kit& k) {
       EXPECT_HR(E_NOINTERFACE, PropertyBag_SaveToStream(k.stream.get(), &k.plain));
     }},
    {"PropertyBag_SaveToStreamAndRelease", [](Kit& k) {
       EXPECT_HR(E_NOINTERFACE, PropertyBag_SaveToStreamAndRelease(k.stream.get(), &k.plain));
       EXPECT_EQ(1, k.plain.refs);  // a failed save keeps the caller's reference
     }},

    // Strings.
    {"CoTaskMemDidAlloc", [](Kit&) { EXPECT_EQ(-1, CoTaskMemDidAlloc(nullptr)); }},  // the allocator's "cannot tell"
    {"CoTaskMemGetSize", [](Kit&) { EXPECT_EQ(kAll, CoTaskMemGetSize(nullptr)); }},
    {"CoTaskMemHeapMinimise", [](Kit&) { EXPECT_HR(S_OK, CoTaskMemHeapMinimise()); }},  // takes nothing
    TWINS(OleString_Create, RefusesHugeAndNull<OleStrings, C>(f)),
    TWINS(BSTR_Create, RefusesHugeAndNull<Bstrs, C>(f)),
    TWINS(BSTR_Recreate, ReplaceRefusesHuge<Bstrs, C>(f)),
    TWINS(OleString_Recreate, ReplaceRefusesHuge<OleStrings, C>(f)),
    TWINS(BSTR_Append, ReplaceRefusesHuge<Bstrs, C>(f)),
    TWINS(BSTR_FromResource, NoResource<Bstrs>(f)),
    TWINS(OleString_FromResource, NoResource<OleStrings>(f)),
    {"BSTR_Destroy", [](Kit&) {
       BSTR none = nullptr;
       BSTR_Destroy(nullptr);
       BSTR_Destroy(&none);
       EXPECT_EQ(nullptr, none);
     }},
    {"BSTR_Dup", [](Kit&) { ExpectNone<Bstrs>(BSTR_Dup(nullptr)); }},
    {"BSTR_Redup", [](Kit&) { ExpectNone<Bstrs>(BSTR_Redup(nullptr, nullptr)); }},
    {"BSTR_Cmp", [](Kit&) { EXPECT_EQ(-1, BSTR_Cmp(nullptr, nullptr)); }},
    {"BSTR_FromWin32Error", [](Kit&) { ExpectNone<Bstrs>(BSTR_FromWin32Error(kAll)); }},
    {"SysReallocStringByteLen", [](Kit&) {
       BSTR b = nullptr;
       EXPECT_FALSE(SysReallocStringByteLen(nullptr, "x", 1));
       EXPECT_FALSE(SysReallocStringByteLen(&b, "x", kAll));
       EXPECT_EQ(nullptr, b);
     }},
    {"OleString_Dup", [](Kit&) { ExpectNone<OleStrings>(OleString_Dup(nullptr)); }},
    {"OleString_Destroy", [](Kit&) {
       LPOLESTR none = nullptr;
       OleString_Destroy(nullptr);  // reported, and nothing freed
       OleString_Destroy(&none);
       EXPECT_EQ(nullptr, none);
     }},
    // The primitives take NULL as an empty source and never write through it.
    {"StrLenO", [](Kit&) { EXPECT_EQ(0, StrLenO(nullptr)); }},
    {"StrCpyO", [](Kit&) {
       OLECHAR to[] = L"ab";
       EXPECT_EQ(nullptr, StrCpyO(nullptr, L"x"));
       EXPECT_STREQ(L"", StrCpyO(to, nullptr));
     }},
    {"StrNCpyO", [](Kit&) {
       OLECHAR to[] = L"ab";
       EXPECT_EQ(nullptr, StrNCpyO(nullptr, L"x", kHuge));
       EXPECT_STREQ(L"ab", StrNCpyO(to, L"xy", -1));
     }},
    {"StrCmpO", [](Kit&) { EXPECT_EQ(0, StrCmpO(nullptr, nullptr)); }},
    {"MemMove", [](Kit&) {
       char to[] = "ab";
       EXPECT_EQ(nullptr, MemMove(nullptr, "x", kAll));
       EXPECT_EQ(to, MemMove(to, nullptr, kAll));
       EXPECT_STREQ("ab", to);
     }},
    TWINS(QvGUIDFromString, GuidFromText<C>(f)),
    TWINS(QvStringFromGUID, GuidToText<C>(f)),
    TWINS(CoReg_GetClassName, ClassName<C>(f)),
    TWINS(ParseCommandLineAsEnumString, NoCommandLine<C>(f)),

    // Stores.
    {"CreateLockBytesOnMemory", [](Kit&) {
       ILockBytes* lb = Bad<ILockBytes*>();
       EXPECT_HR(E_POINTER, CreateLockBytesOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, nullptr));
       EXPECT_HR(E_INVALIDARG, CreateLockBytesOnMemory(nullptr, kAll, kAll, ~ULONG_PTR(0), &lb));
       EXPECT_EQ(Bad<ILockBytes*>(), lb);  // flag clashes are refused before it is cleared
       EXPECT_HR(E_INVALIDARG, CreateLockBytesOnMemory(nullptr, kAll, QVCLBOMF_TYPEMASK, 0, &lb));
       EXPECT_EQ(nullptr, lb);
     }},
    {"CreateStreamOnMemory", [](Kit&) {
       IStream* s = Bad<IStream*>();
       EXPECT_HR(E_POINTER, CreateStreamOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, nullptr));
       EXPECT_HR(E_INVALIDARG, CreateStreamOnMemory(nullptr, kAll, kAll, ~ULONG_PTR(0), &s));
       EXPECT_EQ(nullptr, s);
     }},
    {"CreateStreamOnLockBytes", [](Kit&) {  // refusals leave the out-pointer alone
       IStream* s = Bad<IStream*>();
       ComRef<ILockBytes> lb;
       ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, lb.put()));
       EXPECT_HR(E_POINTER, CreateStreamOnLockBytes(nullptr, 0, &s));
       EXPECT_HR(E_POINTER, CreateStreamOnLockBytes(lb.get(), 0, nullptr));
       EXPECT_HR(E_INVALIDARG, CreateStreamOnLockBytes(lb.get(), kAll, &s));
     }},
    {"CreateLockBytesOnRegKey", [](Kit&) {
       ILockBytes* lb = Bad<ILockBytes*>();
       EXPECT_HR(E_INVALIDARG, CreateLockBytesOnRegKey(nullptr, nullptr, kAll, &lb));
       EXPECT_HR(E_POINTER, CreateLockBytesOnRegKey(HKEY_CURRENT_USER, L"Software", 0, nullptr));
       EXPECT_HR(STG_E_INVALIDHANDLE, CreateLockBytesOnRegKey(nullptr, L"Software", 0, &lb));
       EXPECT_EQ(Bad<ILockBytes*>(), lb);  // written only on success
     }},
    {"Stg_GetSize", [](Kit&) { EXPECT_EQ(-1, Stg_GetSize(nullptr)); }},  // silent: -1 is its failure
    {"Stg_FileGetSizes", [](Kit&) {
       ULONG file = kAll;
       LONG storage = -1;
       EXPECT_PRED1(Failed, Stg_FileGetSizes(nullptr, &file, &storage));  // StgOpenStorage's answer
       EXPECT_EQ(0u, file);
       EXPECT_EQ(0, storage);
       EXPECT_PRED1(Failed, Stg_FileGetSizes(L"", nullptr, nullptr));
     }},

    // Late-bound entries.
    {"LB_RegCloseKey", [](Kit&) { SAME(RegCloseKey, LB_RegCloseKey, Bad<HKEY>()); }},
    LB_TWINS(RegDeleteKey, nullptr, S<C>("x")),
    LB_TWINS(RegDeleteValue, nullptr, nullptr),
    LB_TWINS(RegEnumKeyEx, nullptr, kAll, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
    LB_TWINS(RegOpenKeyEx, nullptr, nullptr, kAll, kAll, nullptr),
    LB_TWINS(RegSetValueEx, nullptr, nullptr, kAll, kAll, nullptr, kAll),
    LB_TWINS(RegCreateKeyEx, nullptr, S<C>("x"), 0, nullptr, kAll, kAll, nullptr, nullptr, nullptr),
    LB_TWINS(RegQueryValueEx, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
    LB_TWINS(RegQueryInfoKey, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
    // A pointer below 0x10000 is one character, not text.
    LB_TWINS(CharLower, reinterpret_cast<C*>(UINT_PTR('A'))),
    LB_TWINS(CharUpper, reinterpret_cast<C*>(UINT_PTR('a'))),
    LB_TWINS(LoadString, nullptr, kAll, nullptr, 0),
    TWINS(LB_wsprintf, PrintsAsSystem<C>(f)),
    TWINS(LB_wvsprintf, FormatsAsSystem<C>(f)),

    // Collections.
    {"EnumString_Create", [](Kit&) { Creator(EnumString_Create); }},
    {"EnumUnknown_Create", [](Kit&) { Creator(EnumUnknown_Create); }},
    {"EnumGUID_Create", [](Kit&) { Creator(EnumGUID_Create); }},
    {"EnumBSTR_Create", [](Kit&) { Creator(EnumBSTR_Create); }},
    {"EnumVARIANT_Create", [](Kit&) { Creator(EnumVARIANT_Create); }},
    {"EnumUnknown_FromUnknown", [](Kit& k) {
       IEnumUnknown* e = Bad<IEnumUnknown*>();
       EXPECT_HR(E_POINTER, EnumUnknown_FromUnknown(nullptr, &e));
       EXPECT_HR(E_POINTER, EnumUnknown_FromUnknown(&k.plain, nullptr));
       EXPECT_HR(E_NOINTERFACE, EnumUnknown_FromUnknown(&k.refusing, &e));
       EXPECT_EQ(nullptr, e);
     }},
    {"Enum_QueryNextItem", [](Kit& k) {
       void* item = Bad<void*>();
       EXPECT_HR(E_POINTER, Enum_QueryNextItem(nullptr, IID_IUnknown, &item));
       EXPECT_HR(E_POINTER, Enum_QueryNextItem(&k.plain, IID_IUnknown, nullptr));
       EXPECT_HR(E_FAIL, Enum_QueryNextItem(&k.refusing, IID_IUnknown, &item));
       EXPECT_EQ(Bad<void*>(), item);  // written only by the item's own query
     }},

    // Automation.
    TWINS(ErrorInfo_SetDesc, ErrorInfoTakes(f(nullptr))),
    TWINS(ErrorInfo_Set, ErrorInfoTakes(f(nullptr, nullptr, GUID_NULL))),
    TWINS(ErrorInfo_SetHelp, ErrorInfoTakes(f(nullptr, nullptr, GUID_NULL, nullptr, kAll))),
    TWINS(EXCEPINFO_Init, ExcepInit<C>(f)),
    {"EXCEPINFO_InitCallback", [](Kit&) {
       EXCEPINFO info = {};
       EXPECT_HR(E_POINTER, EXCEPINFO_InitCallback(nullptr, 0, 0, nullptr));
       EXPECT_HR(E_INVALIDARG, EXCEPINFO_InitCallback(&info, 0, 0, nullptr));
     }},
    {"EXCEPINFO_Clear", [](Kit&) { EXPECT_HR(E_POINTER, EXCEPINFO_Clear(nullptr)); }},
    {"Dispatch_GetMethodIDs", [](Kit& k) {
       LPOLESTR names[1] = {};
       DISPID ids[1];
       EXPECT_HR(E_POINTER, Dispatch_GetMethodIDs(nullptr, IID_NULL, names, 1, 0, ids));
       EXPECT_HR(E_POINTER, Dispatch_GetMethodIDs(&k.plain, IID_NULL, nullptr, 1, 0, ids));
       EXPECT_HR(E_POINTER, Dispatch_GetMethodIDs(&k.plain, IID_NULL, names, 1, 0, nullptr));
       EXPECT_HR(E_INVALIDARG, Dispatch_GetMethodIDs(&k.plain, IID_NULL, names, 0, 0, ids));
       EXPECT_HR(E_NOINTERFACE, Dispatch_GetMethodIDs(&k.plain, IID_NULL, names, kAll, 0, ids));
     }},
    {"Dispatch_Invoke", [](Kit& k) {
       EXPECT_HR(E_POINTER, Dispatch_Invoke(nullptr, 1, 1, 0, nullptr, nullptr));
       EXPECT_HR(E_INVALIDARG, Dispatch_Invoke(&k.plain, 1, 1, kAll, nullptr, nullptr));
       EXPECT_HR(E_NOINTERFACE, Dispatch_Invoke(&k.plain, -1, 0xFFFF, 0, nullptr, nullptr));
     }},
    {"_Dispatch_Invoke_old", [](Kit& k) {
       EXPECT_HR(E_POINTER, _Dispatch_Invoke_old(nullptr, 1, 1, 0, nullptr));
       EXPECT_HR(E_INVALIDARG, _Dispatch_Invoke_old(&k.plain, 1, 1, kAll, nullptr));
     }},
    {"Dispatch_NamedInvoke", [](Kit& k) {
       OLECHAR name[] = L"x";
       EXPECT_HR(E_POINTER, Dispatch_NamedInvoke(nullptr, name, 1, 0, nullptr, nullptr));
       EXPECT_HR(E_INVALIDARG, Dispatch_NamedInvoke(&k.plain, nullptr, 1, 0, nullptr, nullptr));
       EXPECT_HR(E_INVALIDARG, Dispatch_NamedInvoke(&k.plain, name, 1, kAll, nullptr, nullptr));
       EXPECT_HR(E_NOINTERFACE, Dispatch_NamedInvoke(&k.plain, name, 0xFFFF, 0, nullptr, nullptr));
     }},
    {"_Dispatch_NamedInvoke_old", [](Kit& k) {
       EXPECT_HR(E_POINTER, _Dispatch_NamedInvoke_old(nullptr, nullptr, 1, 0, nullptr));
       EXPECT_HR(E_INVALIDARG, _Dispatch_NamedInvoke_old(&k.plain, nullptr, 1, 0, nullptr));
     }},
    {"Dispatch_GetProperty", [](Kit& k) {
       VARIANT v;
       EXPECT_HR(E_POINTER, Dispatch_GetProperty(nullptr, 1, &v));
       EXPECT_HR(E_POINTER, Dispatch_GetProperty(&k.plain, 1, nullptr));
       EXPECT_HR(E_NOINTERFACE, Dispatch_GetProperty(&k.plain, -1, &v));
     }},
    {"Dispatch_GetNamedProperty", [](Kit& k) {
       OLECHAR name[] = L"x";
       VARIANT v;
       EXPECT_HR(E_POINTER, Dispatch_GetNamedProperty(nullptr, name, &v));
       EXPECT_HR(E_POINTER, Dispatch_GetNamedProperty(&k.plain, name, nullptr));
       EXPECT_HR(E_INVALIDARG, Dispatch_GetNamedProperty(&k.plain, nullptr, &v));
       EXPECT_HR(E_NOINTERFACE, Dispatch_GetNamedProperty(&k.plain, name, &v));
     }},
    {"InitialiseQvDataObject", [](Kit&) {  // takes nothing: the second call finds the tables made
       InitialiseQvDataObject();
       EXPECT_EQ(1, InitialiseQvDataObject());
     }},
    {"GetDataObjectFromHGlobal", [](Kit&) {
       IDataObject* o = Bad<IDataObject*>();
       EXPECT_HR(E_POINTER, GetDataObjectFromHGlobal(nullptr, nullptr, TRUE));
       EXPECT_HR(E_HANDLE, GetDataObjectFromHGlobal(nullptr, &o, kAll));
       EXPECT_EQ(nullptr, o);
       EXPECT_HR(E_HANDLE, GetDataObjectFromHGlobal(Bad<HGLOBAL>(), &o, FALSE));
     }},
    {"GetDataObjectFromMemory", [](Kit&) {
       EXPECT_HR(E_POINTER, GetDataObjectFromMemory("x", 1, nullptr, CF_TEXT));
     }},
    {"DataObject_GetHDrop", [](Kit&) {
       HGLOBAL drop = Bad<HGLOBAL>();
       ComRef<IDataObject> text;
       ASSERT_HR(S_OK, GetDataObjectFromMemory("x", 1, text.put(), CF_TEXT));
       EXPECT_HR(E_INVALIDARG, DataObject_GetHDrop(nullptr, &drop));
       EXPECT_HR(E_INVALIDARG, DataObject_GetHDrop(text.get(), nullptr));
       EXPECT_HR(DV_E_FORMATETC, DataObject_GetHDrop(text.get(), &drop));
       EXPECT_EQ(nullptr, drop);
     }},
    {"AddPropPageIDs", [](Kit&) {
       CAUUID pages = {};
       EXPECT_HR(E_POINTER, AddPropPageIDs(nullptr, &kSomeGuid, 1));
       EXPECT_HR(E_POINTER, AddPropPageIDs(&pages, nullptr, 1));
       EXPECT_HR(E_FAIL, AddPropPageIDs(&pages, &kSomeGuid, kAll));  // silent: more than a count holds
       EXPECT_EQ(0u, pages.cElems);
     }},
    {"AddPropPages", [](Kit&) {
       CAUUID pages = {};
       EXPECT_HR(E_POINTER, AddPropPages(&pages, nullptr));
       EXPECT_HR(E_POINTER, AddPropPages(nullptr, &pages));
     }},
    {"AdviseConnection", [](Kit& k) {
       DWORD cookie = kAll;
       EXPECT_HR(E_POINTER, AdviseConnection(nullptr, IID_IUnknown, &k.plain, &cookie, TRUE));
       EXPECT_HR(E_POINTER, AdviseConnection(&k.plain, IID_IUnknown, nullptr, &cookie, TRUE));
       EXPECT_HR(E_POINTER, AdviseConnection(&k.plain, IID_IUnknown, &k.plain, nullptr, TRUE));
       EXPECT_HR(E_NOINTERFACE, AdviseConnection(&k.plain, IID_IUnknown, &k.plain, &cookie, FALSE));
     }},
    {"UnadviseConnection", [](Kit& k) {
       EXPECT_HR(E_POINTER, UnadviseConnection(nullptr, IID_IUnknown, &k.plain, kAll, TRUE));
       EXPECT_HR(E_POINTER, UnadviseConnection(&k.plain, IID_IUnknown, nullptr, kAll, TRUE));
       EXPECT_HR(E_NOINTERFACE, UnadviseConnection(&k.plain, IID_IUnknown, &k.plain, kAll, FALSE));
     }},
};

class HostileArguments : public xktest::ComTest<> {};

TEST_F(HostileArguments, EveryExportAnswersAsDocumented) {
  Kit kit;
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    row.run(kit);
  }
  EXPECT_EQ(1, kit.plain.refs);
  EXPECT_EQ(1, kit.refusing.refs);
}

TEST(HostileArgumentsCoverage, EveryListedExportHasExactlyOneRow) {
  std::ifstream list(XK_EXPORTS_LIST);
  ASSERT_TRUE(list) << XK_EXPORTS_LIST;
  std::set<std::string> listed, rows, twice;
  for (std::string line; std::getline(list, line);) {
    std::istringstream words(line);
    std::string keyword, ordinal, name;
    if (words >> keyword >> ordinal >> name && keyword == "export") listed.insert(name);
  }
  for (const Row& row : kRows)
    if (!rows.insert(row.name).second) twice.insert(row.name);
  std::set<std::string> missing, unknown;
  for (const auto& name : listed)
    if (!rows.count(name)) missing.insert(name);
  for (const auto& name : rows)
    if (!listed.count(name)) unknown.insert(name);
  EXPECT_THAT(missing, ::testing::IsEmpty()) << "exports without a row";
  EXPECT_THAT(unknown, ::testing::IsEmpty()) << "rows of no export";
  EXPECT_THAT(twice, ::testing::IsEmpty()) << "exports with two rows";
}

}  // namespace
