// Every export of the library called as a careless or hostile client calls it:
// NULL for each pointer, counts of -1, 0 and the largest values, garbage flags,
// handles and reasons, and objects that answer nothing but IUnknown. Each row
// pins the documented answer; where the documentation is silent a row only
// demands a failure (EXPECT_SILENT_FAILURE). One row per export, checked
// against the export list, so a new export cannot go without one.
#include <gmock/gmock.h>
#include <xkcombsd/ScopedValue.h>
#include <xkcombsd/xkcombsd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "ComTest.h"
#include "FakeUnknown.h"
#include "TestStreams.h"

namespace {

using xktest::ComRef;
using xktest::FakeUnknown;

constexpr int kHuge = 0x7fffffff;
constexpr UINT kAll = ~0u;
constexpr DWORD kTask = QVCLBOMF_TASKALLOCATOR;
const IID& kAny = IID_IUnknown;
const GUID kSomeGuid = {0x0bad0bad, 1, 2, {3, 4, 5, 6, 7, 8, 9, 10}};

// Where the documentation names no code for a refusal, any failure will do.
bool Failed(HRESULT hr) { return FAILED(hr); }
#define EXPECT_SILENT_FAILURE(call) EXPECT_PRED1(Failed, call)

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
  FakeUnknown plain;                           // IUnknown and nothing else
  FakeUnknown refusing{IID_IUnknown, E_FAIL};  // refuses with an odd code
  FakeUnknown untouched;                       // refusals come before it is asked anything
};

// A string maker asked for more characters than memory holds, or from nothing.
template <class C>
void RefusesHugeAndNull(wchar_t*(WINAPI* make)(const C*, int)) {
  EXPECT_EQ(nullptr, make(nullptr, -1));
  EXPECT_EQ(nullptr, make(S<C>("x"), kHuge));
}

// A string replacer: a huge count fails and leaves the caller's "ab" alone.
template <class C>
void ReplaceRefusesHuge(wchar_t*(WINAPI* replace)(wchar_t*, const C*, int), wchar_t* ab) {
  EXPECT_EQ(nullptr, replace(ab, S<C>("x"), kHuge));
  EXPECT_STREQ(L"ab", ab);
  EXPECT_EQ(nullptr, replace(nullptr, nullptr, -1));
}
#define BSTR_AB xk::ScopedBstr(SysAllocString(L"ab")).get()
#define OLESTR_AB xk::ScopedTaskMemory<wchar_t>(OleString_Dup(L"ab")).get()

// A resource loader asked for no resource of a module that is no module.
void NoResource(wchar_t*(WINAPI* load)(HINSTANCE, UINT)) {
  EXPECT_EQ(nullptr, load(nullptr, kAll));
  EXPECT_EQ(nullptr, load(Bad<HINSTANCE>(), 1));
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
void ExcepInit(HRESULT(WINAPI* init)(EXCEPINFO*, WORD, HRESULT, const C*, const C*, const C*,
                                     DWORD)) {
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

// Arguments for the va_list forms.
void* const kNullArgument[] = {nullptr};
const va_list kNullArguments = reinterpret_cast<va_list>(const_cast<void**>(kNullArgument));

// The late-bound registry and user-interface entries answer exactly as the
// system functions they stand for; a NULL key makes them touch nothing.
#define SAME(system, entry, ...) EXPECT_EQ(system(__VA_ARGS__), entry(__VA_ARGS__))

// A row is keyed by the export's own name, its body a few statements. TWINS makes
// the rows of a narrow/wide pair from one body, which sees C (char or wchar_t) and
// f (the export of that width); LB_TWINS compares a late-bound pair with the system's.
// clang-format off
#define ROW(name, ...) {#name, [](Kit& k) { auto f = name; (void)k, (void)f; __VA_ARGS__; }}
#define TWIN(export, name, Char, ...) {name, [](Kit& k) { \
  using C = Char; auto f = export; (void)k, (void)f; __VA_ARGS__; }}
#define TWINS(stem, ...) \
  TWIN(stem##A, #stem "A", char, __VA_ARGS__), TWIN(stem##W, #stem "W", wchar_t, __VA_ARGS__)
#define LB_TWIN(system, entry, name, Char, ...) {name, [](Kit&) { \
  using C = Char; C room[64]; (void)room; SAME(system, entry, __VA_ARGS__); }}
#define LB_TWINS(stem, ...) \
  LB_TWIN(stem##A, LB_##stem##A, "LB_" #stem "A", char, __VA_ARGS__), \
  LB_TWIN(stem##W, LB_##stem##W, "LB_" #stem "W", wchar_t, __VA_ARGS__)
// clang-format on

struct Row {
  const char* name;
  void (*run)(Kit&);
};

const Row kRows[] = {
    // Module: nothing to pass DllCanUnloadNow, and self-registration takes nothing either.
    ROW(DllCanUnloadNow, EXPECT_HR(S_OK, f())),
    ROW(DllRegisterServer, EXPECT_HR(S_OK, f())),
    ROW(DllUnregisterServer, EXPECT_HR(S_OK, f())),
    ROW(DllGetClassObject, void* out = Bad<void*>();
        EXPECT_HR(E_POINTER, f(CLSID_QvEnumGUID, IID_IClassFactory, nullptr));
        EXPECT_HR(CLASS_E_CLASSNOTAVAILABLE, f(kSomeGuid, IID_IClassFactory, &out));
        EXPECT_EQ(Bad<void*>(), out)),  // left as it was, as documented
    ROW(DllGetVersion, DLLVERSIONINFO info = {kAll, 7}; EXPECT_HR(E_POINTER, f(nullptr));
        EXPECT_HR(E_INVALIDARG, f(&info)); EXPECT_EQ(7u, info.dwMajorVersion)),
    ROW(QvDllGetVersion, EXPECT_EQ(0x0001001Bu, f(nullptr))),
    ROW(InterfaceIsImplemented, EXPECT_HR(E_POINTER, f(nullptr, IID_IUnknown));
        EXPECT_HR(E_NOINTERFACE, f(&k.refusing, IID_IStream))),
    ROW(DllMain,  // a reason it does not know is only traced
        EXPECT_TRUE(f(GetModuleHandleA("XKComBsD.dll"), 0xBAD, Bad<void*>()))),
    ROW(RegisterServer, QVREGSVR wide = {QVREGSVRF_UNICODE | QVREGSVRF_CLSID};
        EXPECT_FALSE(f(nullptr)); EXPECT_FALSE(f(&wide))),
    // Every flag includes the wide one, which is refused before anything is written.
    ROW(RegisterInprocServer, EXPECT_FALSE(f(kSomeGuid, nullptr, nullptr, nullptr, 0, kAll))),
    ROW(RegisterProxyStub, EXPECT_FALSE(f(kSomeGuid, GUID_NULL, nullptr, nullptr, kAll))),
    ROW(CreateFTM, EXPECT_HR(E_POINTER, f(&k.untouched, nullptr))),

    // Records.
    ROW(OleInitFromStream, EXPECT_HR(E_POINTER, f(nullptr, &k.untouched));
        EXPECT_HR(E_POINTER, f(k.stream.get(), nullptr));
        EXPECT_HR(E_NOINTERFACE, f(k.stream.get(), &k.plain))),
    ROW(OleSaveUnknownToStream, EXPECT_SILENT_FAILURE(f(nullptr, nullptr));
        EXPECT_HR(E_NOINTERFACE, f(k.stream.get(), &k.plain))),
    ROW(OleString_GetSizeMax, EXPECT_HR(E_POINTER, f(L"x", nullptr))),
    ROW(OleString_SaveToStream, EXPECT_HR(E_POINTER, f(nullptr, L"x"))),
    ROW(OleString_LoadFromStream, LPOLESTR out = Bad<LPOLESTR>();
        EXPECT_HR(E_POINTER, f(nullptr, &out)); EXPECT_HR(E_POINTER, f(k.stream.get(), nullptr))),
    ROW(BSTR_GetSizeMax, EXPECT_HR(E_POINTER, f(nullptr, nullptr))),
    ROW(BSTR_SaveToStream, EXPECT_HR(E_POINTER, f(nullptr, nullptr))),
    ROW(BSTR_LoadFromStream, BSTR out = Bad<BSTR>(); EXPECT_HR(E_POINTER, f(nullptr, &out));
        EXPECT_HR(E_POINTER, f(k.stream.get(), nullptr))),
    ROW(VARIANT_GetSizeMax, EXPECT_HR(E_NOTIMPL, f(nullptr, nullptr))),
    ROW(VARIANT_SaveToStream, VARIANT v = {}; EXPECT_HR(E_POINTER, f(nullptr, &v));
        EXPECT_HR(E_POINTER, f(k.stream.get(), nullptr));
        V_VT(&v) = 0xFFFF;  // by reference and an array: refused before anything is written
        EXPECT_HR(E_INVALIDARG, f(k.stream.get(), &v)); V_VT(&v) = 0x0FFF;
        EXPECT_HR(DISP_E_BADVARTYPE, f(k.stream.get(), &v));
        V_VT(&v) = VT_BYREF | VT_I4;  // a reference to nothing
        EXPECT_SILENT_FAILURE(f(k.stream.get(), &v))),
    ROW(VARIANT_LoadFromStream, VARIANT v; EXPECT_HR(E_POINTER, f(nullptr, &v));
        EXPECT_HR(E_POINTER, f(k.stream.get(), nullptr))),
    ROW(VARIANT_InitI4, f(nullptr, kHuge)),  // reported, not written
    TWINS(VARIANT_InitBSTR, InitBstr<C>(f)),
    ROW(FileTimeToVariantTime, FILETIME never = {kAll, kAll}; DATE date = 0;
        EXPECT_SILENT_FAILURE(f(nullptr, &date)); EXPECT_SILENT_FAILURE(f(&never, nullptr));
        EXPECT_SILENT_FAILURE(f(&never, &date))),
    ROW(VariantTimeToFileTime, EXPECT_HR(E_NOTIMPL, f(-1e308, nullptr))),
    ROW(SAFEARRAY_GetSizeMax, EXPECT_HR(E_NOTIMPL, f(nullptr, nullptr))),
    ROW(SAFEARRAY_SaveToStream, EXPECT_HR(E_NOTIMPL, f(nullptr, nullptr))),
    ROW(SAFEARRAY_LoadFromStream, SAFEARRAY* out = Bad<SAFEARRAY*>();
        EXPECT_HR(E_NOTIMPL, f(k.stream.get(), &out));
        EXPECT_EQ(Bad<SAFEARRAY*>(), out)),  // not written, as documented
    ROW(Property_GetSizeMax, ULONG size = kAll; EXPECT_HR(E_POINTER, f(nullptr, nullptr, &size));
        EXPECT_HR(E_INVALIDARG, f(L"", nullptr, &size));
        EXPECT_HR(E_POINTER, f(L"a", nullptr, nullptr))),
    ROW(Property_SaveToStream, EXPECT_HR(E_POINTER, f(nullptr, L"a", nullptr));
        EXPECT_HR(E_POINTER, f(k.stream.get(), nullptr, nullptr));
        EXPECT_HR(E_INVALIDARG, f(k.stream.get(), L"", nullptr))),
    ROW(Property_LoadFromStream, LPOLESTR name = Bad<LPOLESTR>(); VARIANT v;
        EXPECT_HR(E_POINTER, f(nullptr, &name, &v));
        EXPECT_HR(E_POINTER, f(k.stream.get(), nullptr, &v));
        EXPECT_HR(E_POINTER, f(k.stream.get(), &name, nullptr))),
    ROW(PropertyBag_GetSizeMax, ULONG size = kAll; EXPECT_HR(E_POINTER, f(nullptr, &size));
        EXPECT_HR(E_POINTER, f(&k.untouched, nullptr));
        EXPECT_HR(E_NOINTERFACE, f(&k.plain, &size))),
    // An empty stream holds no object: what the platform's load says.
    ROW(PropertyBag_LoadFromStream, IPropertyBag* bag = Bad<IPropertyBag*>();
        EXPECT_HR(E_POINTER, f(nullptr, nullptr));
        EXPECT_SILENT_FAILURE(f(ComRef<IStream>(xktest::NewMemoryStream()).get(), &bag));
        EXPECT_EQ(nullptr, bag)),
    ROW(PropertyBag_InitFromStream, EXPECT_HR(E_POINTER, f(nullptr, &k.untouched));
        EXPECT_HR(E_POINTER, f(k.stream.get(), nullptr));
        EXPECT_HR(E_NOINTERFACE, f(k.stream.get(), &k.plain))),
    ROW(PropertyBag_SaveToStream, EXPECT_HR(E_NOINTERFACE, f(k.stream.get(), &k.plain))),
    ROW(PropertyBag_SaveToStreamAndRelease, EXPECT_HR(E_NOINTERFACE, f(k.stream.get(), &k.plain));
        EXPECT_EQ(1, k.plain.refs)),  // a failed save keeps the caller's reference

    // Strings.
    ROW(CoTaskMemDidAlloc, EXPECT_EQ(-1, f(nullptr))),  // can't tell
    ROW(CoTaskMemGetSize, EXPECT_EQ(kAll, f(nullptr))),
    ROW(CoTaskMemHeapMinimise, EXPECT_HR(S_OK, f())),  // no args
    TWINS(OleString_Create, RefusesHugeAndNull<C>(f)),
    TWINS(BSTR_Create, RefusesHugeAndNull<C>(f)),
    TWINS(BSTR_Recreate, ReplaceRefusesHuge<C>(f, BSTR_AB)),
    TWINS(OleString_Recreate, ReplaceRefusesHuge<C>(f, OLESTR_AB)),
    TWINS(BSTR_Append, ReplaceRefusesHuge<C>(f, BSTR_AB)),
    TWINS(BSTR_FromResource, NoResource(f)),
    TWINS(OleString_FromResource, NoResource(f)),
    ROW(BSTR_Destroy, BSTR none = nullptr; f(nullptr); f(&none); EXPECT_EQ(nullptr, none)),
    ROW(BSTR_Dup, EXPECT_EQ(nullptr, f(nullptr))),
    ROW(BSTR_Redup, EXPECT_EQ(nullptr, f(nullptr, nullptr))),
    ROW(BSTR_Cmp, EXPECT_EQ(-1, f(nullptr, nullptr))),
    ROW(BSTR_FromWin32Error, EXPECT_EQ(nullptr, f(kAll))),
    ROW(SysReallocStringByteLen, BSTR b = nullptr; EXPECT_FALSE(f(nullptr, "x", 1));
        EXPECT_FALSE(f(&b, "x", kAll)); EXPECT_EQ(nullptr, b)),
    ROW(OleString_Dup, EXPECT_EQ(nullptr, f(nullptr))),
    ROW(OleString_Destroy,
        LPOLESTR none = nullptr;
        f(nullptr);  // reported, and nothing freed
        f(&none); EXPECT_EQ(nullptr, none)),
    // The primitives take NULL as an empty source and never write through it.
    ROW(StrLenO, EXPECT_EQ(0, f(nullptr))),
    ROW(StrCpyO, OLECHAR to[] = L"ab"; EXPECT_EQ(nullptr, f(nullptr, L"x"));
        EXPECT_STREQ(L"", f(to, nullptr))),
    ROW(StrNCpyO, OLECHAR to[] = L"ab"; EXPECT_EQ(nullptr, f(nullptr, L"x", kHuge));
        EXPECT_STREQ(L"ab", f(to, L"xy", -1))),
    ROW(StrCmpO, EXPECT_EQ(0, f(nullptr, nullptr))),
    ROW(MemMove, char to[] = "ab"; EXPECT_EQ(nullptr, f(nullptr, "x", kAll));
        EXPECT_EQ(to, f(to, nullptr, kAll)); EXPECT_STREQ("ab", to)),
    TWINS(QvGUIDFromString, GUID g; EXPECT_HR(CO_E_CLASSSTRING, f(&g, S<C>("{not a guid}")));
          EXPECT_SILENT_FAILURE(f(nullptr, S<C>("{00000000-0000-0000-C000-000000000046}")))),
    TWINS(QvStringFromGUID, EXPECT_HR(E_POINTER, f(nullptr, kSomeGuid))),
    TWINS(CoReg_GetClassName, C name[4]; DWORD cch = kAll;  // an unknown class names nothing
          EXPECT_HR(HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND), f(kSomeGuid, name, &cch));
          EXPECT_EQ(0u, cch); EXPECT_SILENT_FAILURE(f(IID_IUnknown, name, nullptr))),
    TWINS(ParseCommandLineAsEnumString, EXPECT_HR(E_NOTIMPL, f(nullptr, nullptr))),

    // Stores.
    ROW(CreateLockBytesOnMemory, ILockBytes* lb = Bad<ILockBytes*>();
        EXPECT_HR(E_POINTER, f(nullptr, 0, kTask, 0, nullptr));
        EXPECT_HR(E_INVALIDARG, f(nullptr, kAll, kAll, ~ULONG_PTR(0), &lb));
        EXPECT_EQ(Bad<ILockBytes*>(), lb);  // flag clashes are refused before it is cleared
        EXPECT_HR(E_INVALIDARG, f(nullptr, kAll, QVCLBOMF_TYPEMASK, 0, &lb));
        EXPECT_EQ(nullptr, lb)),
    ROW(CreateStreamOnMemory, IStream* s = Bad<IStream*>();
        EXPECT_HR(E_POINTER, f(nullptr, 0, kTask, 0, nullptr));
        EXPECT_HR(E_INVALIDARG, f(nullptr, kAll, kAll, ~ULONG_PTR(0), &s)); EXPECT_EQ(nullptr, s)),
    ROW(CreateStreamOnLockBytes,  // refusals leave the out-pointer alone
        IStream* s = Bad<IStream*>();
        ComRef<ILockBytes> lb;
        ASSERT_HR(S_OK, CreateLockBytesOnMemory(nullptr, 0, kTask, 0, lb.put()));
        EXPECT_HR(E_POINTER, f(nullptr, 0, &s)); EXPECT_HR(E_POINTER, f(lb.get(), 0, nullptr));
        EXPECT_HR(E_INVALIDARG, f(lb.get(), kAll, &s))),
    ROW(CreateLockBytesOnRegKey, ILockBytes* lb = Bad<ILockBytes*>();
        EXPECT_HR(E_INVALIDARG, f(nullptr, nullptr, kAll, &lb));
        EXPECT_HR(E_POINTER, f(HKEY_CURRENT_USER, L"Software", 0, nullptr));
        EXPECT_HR(STG_E_INVALIDHANDLE, f(nullptr, L"Software", 0, &lb));
        EXPECT_EQ(Bad<ILockBytes*>(), lb)),       // written only on success
    ROW(Stg_GetSize, EXPECT_EQ(-1, f(nullptr))),  // its one failure value
    // No file by that name: what StgOpenStorage says.
    ROW(Stg_FileGetSizes, ULONG file = kAll; LONG storage = -1;
        EXPECT_SILENT_FAILURE(f(nullptr, &file, &storage)); EXPECT_EQ(0u, file);
        EXPECT_EQ(0, storage); EXPECT_SILENT_FAILURE(f(L"", nullptr, nullptr))),

    // Late-bound entries.
    ROW(LB_RegCloseKey, SAME(RegCloseKey, LB_RegCloseKey, Bad<HKEY>())),
    LB_TWINS(RegDeleteKey, nullptr, S<C>("x")),
    LB_TWINS(RegDeleteValue, nullptr, nullptr),
    LB_TWINS(RegEnumKeyEx, nullptr, kAll, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
    LB_TWINS(RegOpenKeyEx, nullptr, nullptr, kAll, kAll, nullptr),
    LB_TWINS(RegSetValueEx, nullptr, nullptr, kAll, kAll, nullptr, kAll),
    LB_TWINS(RegCreateKeyEx, nullptr, S<C>("x"), 0, nullptr, kAll, kAll, nullptr, nullptr, nullptr),
    LB_TWINS(RegQueryValueEx, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
    LB_TWINS(RegQueryInfoKey, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
             nullptr, nullptr, nullptr, nullptr, nullptr),
    // A pointer below 0x10000 is one character, not text.
    LB_TWINS(CharLower, reinterpret_cast<C*>(UINT_PTR('A'))),
    LB_TWINS(CharUpper, reinterpret_cast<C*>(UINT_PTR('a'))),
    LB_TWINS(LoadString, nullptr, kAll, nullptr, 0),
    // The formatters write "(null)" for a NULL text, as the system's own do.
    LB_TWINS(wsprintf, room, S<C>("%s%"), nullptr),
    LB_TWINS(wvsprintf, room, S<C>("%s%"), kNullArguments),

    // Collections.
    ROW(EnumString_Create, Creator(EnumString_Create)),
    ROW(EnumUnknown_Create, Creator(EnumUnknown_Create)),
    ROW(EnumGUID_Create, Creator(EnumGUID_Create)),
    ROW(EnumBSTR_Create, Creator(EnumBSTR_Create)),
    ROW(EnumVARIANT_Create, Creator(EnumVARIANT_Create)),
    ROW(EnumUnknown_FromUnknown, IEnumUnknown* e = Bad<IEnumUnknown*>();
        EXPECT_HR(E_POINTER, f(nullptr, &e)); EXPECT_HR(E_POINTER, f(&k.untouched, nullptr));
        EXPECT_HR(E_NOINTERFACE, f(&k.refusing, &e)); EXPECT_EQ(nullptr, e)),
    ROW(Enum_QueryNextItem, void* item = Bad<void*>();
        EXPECT_HR(E_POINTER, f(nullptr, IID_IUnknown, &item));
        EXPECT_HR(E_POINTER, f(&k.untouched, IID_IUnknown, nullptr));
        EXPECT_HR(E_FAIL, f(&k.refusing, IID_IUnknown, &item));
        EXPECT_EQ(Bad<void*>(), item)),  // written only by the item's own query

    // Automation.
    TWINS(ErrorInfo_SetDesc, ErrorInfoTakes(f(nullptr))),
    TWINS(ErrorInfo_Set, ErrorInfoTakes(f(nullptr, nullptr, GUID_NULL))),
    TWINS(ErrorInfo_SetHelp, ErrorInfoTakes(f(nullptr, nullptr, GUID_NULL, nullptr, kAll))),
    TWINS(EXCEPINFO_Init, ExcepInit<C>(f)),
    ROW(EXCEPINFO_InitCallback, EXCEPINFO info = {};
        EXPECT_HR(E_POINTER, f(nullptr, 0, 0, nullptr));
        EXPECT_HR(E_INVALIDARG, f(&info, 0, 0, nullptr))),
    ROW(EXCEPINFO_Clear, EXPECT_HR(E_POINTER, f(nullptr))),
    ROW(Dispatch_GetMethodIDs, LPOLESTR names[1] = {}; DISPID ids[1];
        EXPECT_HR(E_POINTER, f(nullptr, IID_NULL, names, 1, 0, ids));
        EXPECT_HR(E_POINTER, f(&k.untouched, IID_NULL, nullptr, 1, 0, ids));
        EXPECT_HR(E_POINTER, f(&k.untouched, IID_NULL, names, 1, 0, nullptr));
        EXPECT_HR(E_INVALIDARG, f(&k.untouched, IID_NULL, names, 0, 0, ids));
        EXPECT_HR(E_NOINTERFACE, f(&k.plain, IID_NULL, names, kAll, 0, ids))),
    ROW(Dispatch_Invoke, EXPECT_HR(E_POINTER, f(nullptr, 1, 1, 0, nullptr, nullptr));
        EXPECT_HR(E_INVALIDARG, f(&k.untouched, 1, 1, kAll, nullptr, nullptr));
        EXPECT_HR(E_NOINTERFACE, f(&k.plain, -1, 0xFFFF, 0, nullptr, nullptr))),
    ROW(_Dispatch_Invoke_old, EXPECT_HR(E_POINTER, f(nullptr, 1, 1, 0, nullptr));
        EXPECT_HR(E_INVALIDARG, f(&k.untouched, 1, 1, kAll, nullptr))),
    ROW(Dispatch_NamedInvoke, OLECHAR name[] = L"x";
        EXPECT_HR(E_POINTER, f(nullptr, name, 1, 0, nullptr, nullptr));
        EXPECT_HR(E_INVALIDARG, f(&k.untouched, nullptr, 1, 0, nullptr, nullptr));
        EXPECT_HR(E_INVALIDARG, f(&k.untouched, name, 1, kAll, nullptr, nullptr));
        EXPECT_HR(E_NOINTERFACE, f(&k.plain, name, 0xFFFF, 0, nullptr, nullptr))),
    ROW(_Dispatch_NamedInvoke_old, EXPECT_HR(E_POINTER, f(nullptr, nullptr, 1, 0, nullptr));
        EXPECT_HR(E_INVALIDARG, f(&k.untouched, nullptr, 1, 0, nullptr))),
    ROW(Dispatch_GetProperty, VARIANT v; EXPECT_HR(E_POINTER, f(nullptr, 1, &v));
        EXPECT_HR(E_POINTER, f(&k.untouched, 1, nullptr));
        EXPECT_HR(E_NOINTERFACE, f(&k.plain, -1, &v))),
    ROW(Dispatch_GetNamedProperty, OLECHAR name[] = L"x"; VARIANT v;
        EXPECT_HR(E_POINTER, f(nullptr, name, &v));
        EXPECT_HR(E_POINTER, f(&k.untouched, name, nullptr));
        EXPECT_HR(E_INVALIDARG, f(&k.untouched, nullptr, &v));
        EXPECT_HR(E_NOINTERFACE, f(&k.plain, name, &v))),
    ROW(InitialiseQvDataObject,  // takes nothing: the second call finds the tables made
        f();
        EXPECT_EQ(1, f())),
    ROW(GetDataObjectFromHGlobal, IDataObject* o = Bad<IDataObject*>();
        EXPECT_HR(E_POINTER, f(nullptr, nullptr, TRUE)); EXPECT_HR(E_HANDLE, f(nullptr, &o, kAll));
        EXPECT_EQ(nullptr, o); EXPECT_HR(E_HANDLE, f(Bad<HGLOBAL>(), &o, FALSE))),
    ROW(GetDataObjectFromMemory, EXPECT_HR(E_POINTER, f("x", 1, nullptr, CF_TEXT))),
    ROW(DataObject_GetHDrop, HGLOBAL drop = Bad<HGLOBAL>(); ComRef<IDataObject> text;
        ASSERT_HR(S_OK, GetDataObjectFromMemory("x", 1, text.put(), CF_TEXT));
        EXPECT_HR(E_INVALIDARG, f(nullptr, &drop)); EXPECT_HR(E_INVALIDARG, f(text.get(), nullptr));
        EXPECT_HR(DV_E_FORMATETC, f(text.get(), &drop)); EXPECT_EQ(nullptr, drop)),
    ROW(AddPropPageIDs, CAUUID pages = {}; EXPECT_HR(E_POINTER, f(nullptr, &kSomeGuid, 1));
        EXPECT_HR(E_POINTER, f(&pages, nullptr, 1));
        EXPECT_SILENT_FAILURE(f(&pages, &kSomeGuid, kAll)); EXPECT_EQ(0u, pages.cElems)),
    ROW(AddPropPages, CAUUID pages = {}; EXPECT_HR(E_POINTER, f(&pages, nullptr));
        EXPECT_HR(E_POINTER, f(nullptr, &pages))),
    ROW(AdviseConnection, DWORD cookie = kAll;
        EXPECT_HR(E_POINTER, f(nullptr, kAny, &k.untouched, &cookie, TRUE));
        EXPECT_HR(E_POINTER, f(&k.untouched, kAny, nullptr, &cookie, TRUE));
        EXPECT_HR(E_POINTER, f(&k.untouched, kAny, &k.untouched, nullptr, TRUE));
        EXPECT_HR(E_NOINTERFACE, f(&k.plain, kAny, &k.plain, &cookie, FALSE))),
    ROW(UnadviseConnection, EXPECT_HR(E_POINTER, f(nullptr, kAny, &k.untouched, kAll, TRUE));
        EXPECT_HR(E_POINTER, f(&k.untouched, kAny, nullptr, kAll, TRUE));
        EXPECT_HR(E_NOINTERFACE, f(&k.plain, kAny, &k.plain, kAll, FALSE))),
};

class HostileArguments : public xktest::ComTest<> {};

TEST_F(HostileArguments, EveryExportAnswersAsDocumented) {
  Kit kit;
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    row.run(kit);
  }
  for (const FakeUnknown* fake : {&kit.plain, &kit.refusing, &kit.untouched})
    EXPECT_EQ(1, fake->refs) << "no reference kept or lost";
  EXPECT_EQ(0, kit.untouched.queries);
  EXPECT_EQ(0u, xktest::PositionOf(kit.stream.get())) << "refusals leave the stream where it was";
}

// Both ways: an export without a row, and a row of no export (or twice).
TEST(HostileArgumentsCoverage, EveryListedExportHasExactlyOneRow) {
  std::ifstream list(XK_EXPORTS_LIST);
  ASSERT_TRUE(list) << XK_EXPORTS_LIST;
  std::multiset<std::string> listed, rows;
  for (std::string keyword, ordinal, name; std::getline(list, keyword);)
    if (std::istringstream(keyword) >> keyword >> ordinal >> name && keyword == "export")
      listed.insert(name);
  for (const Row& row : kRows) rows.insert(row.name);
  std::vector<std::string> missing, unknown;
  std::set_difference(listed.begin(), listed.end(), rows.begin(), rows.end(),
                      std::back_inserter(missing));
  std::set_difference(rows.begin(), rows.end(), listed.begin(), listed.end(),
                      std::back_inserter(unknown));
  EXPECT_THAT(missing, ::testing::IsEmpty()) << "exports without a row";
  EXPECT_THAT(unknown, ::testing::IsEmpty()) << "rows of no export, or twice";
}

}  // namespace
