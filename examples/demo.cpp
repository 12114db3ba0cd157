// A client of XKComBsD, end to end, calling every function by name through an
// import library: it loads the library, asks for its version,
// takes a BSTR through the string functions and back, registers the library
// with regsvr32, reads a class name back from the registry, uses an enumerator
// and a property bag made by their ProgIDs, unregisters it again, drives an
// automation object and a data object through the library's helpers, keeps a
// VARIANT in a registry value, and shows the trace lines the library and its
// base library write to the debugger output while it is loaded and unloaded.
#include <xkcombsd/Collections.h>
#include <xkcombsd/DataObject.h>
#include <xkcombsd/Dispatch.h>
#include <xkcombsd/Guids.h>
#include <xkcombsd/Identifiers.h>
#include <xkcombsd/Module.h>
#include <xkcombsd/Persist.h>
#include <xkcombsd/PropertyBag.h>
#include <xkcombsd/PropertyPages.h>
#include <xkcombsd/Stores.h>
#include <xkcombsd/Strings.h>

#include <cstdio>
#include <string>

#include "DebugOutput.h"

namespace {

void ShowTrace(const xktest::DebugOutputCapture& capture, size_t* shown) {
  const std::vector<std::string> lines = capture.Lines();
  for (; *shown < lines.size(); ++*shown) std::printf("    | %s", lines[*shown].c_str());
}

std::string Utf8(BSTR text) {
  if (!text) return "(none)";
  const int length = static_cast<int>(SysStringLen(text));
  std::string out(WideCharToMultiByte(CP_UTF8, 0, text, length, nullptr, 0, nullptr, nullptr),
                  '\0');
  WideCharToMultiByte(CP_UTF8, 0, text, length, &out[0], static_cast<int>(out.size()), nullptr,
                      nullptr);
  return out;
}

// A BSTR made from narrow text, extended with wide text, copied, compared and freed.
void BstrRoundTrip() {
  BSTR text = BSTR_CreateA("Round trip", -1);
  text = BSTR_AppendW(text, L" through XKComBsD", -1);
  BSTR copy = BSTR_Dup(text);
  std::printf("BSTR_CreateA + BSTR_AppendW: \"%s\" (%u characters)\n", Utf8(text).c_str(),
              SysStringLen(text));
  std::printf("BSTR_Dup: \"%s\", BSTR_Cmp with the original: %d\n", Utf8(copy).c_str(),
              BSTR_Cmp(text, copy));
  BSTR_Destroy(&copy);
  BSTR_Destroy(&text);
  std::printf("BSTR_Destroy: both freed, pointers now %s\n", !text && !copy ? "NULL" : "still set");

  BSTR message = BSTR_FromWin32Error(ERROR_FILE_NOT_FOUND);
  std::printf("BSTR_FromWin32Error(2): \"%s\"\n", Utf8(message).c_str());
  BSTR_Destroy(&message);
}

// EnumGUID, one of the classes the library registers.
constexpr CLSID kEnumGUID = {
    0x00517663, 0x0002, 0x0011, {0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}};

void Regsvr32(const char* options, const std::string& library) {
  const std::string command = std::string("regsvr32.exe /s ") + options + "\"" + library + "\"";
  std::printf("%s: exit code %lu\n", command.c_str(), xktest::RunToEnd(command, 60000));
}

void ShowClassName() {
  char name[64] = "";
  DWORD cch = sizeof name;
  const HRESULT hr = CoReg_GetClassNameA(kEnumGUID, name, &cch);
  std::printf(
      "CoReg_GetClassNameA(EnumGUID): 0x%08lX, \"%s\", %lu characters with the terminator\n", hr,
      name, cch);
}

// A GUID to its registry text and back.
void GuidRoundTrip() {
  char text[39] = "";
  GUID back = {};
  const HRESULT written = QvStringFromGUIDA(text, kEnumGUID);
  const HRESULT parsed = QvGUIDFromStringA(&back, text);
  std::printf("QvStringFromGUIDA: 0x%08lX \"%s\"; QvGUIDFromStringA: 0x%08lX, %s\n", written, text,
              parsed, IsEqualGUID(back, kEnumGUID) ? "the same GUID" : "a different GUID");
}

// An object of a registered class made by its ProgID, as any COM client makes one.
template <class T>
HRESULT CreateByProgID(const wchar_t* progID, REFIID iid, T** object) {
  CLSID clsid;
  HRESULT hr = CLSIDFromProgID(progID, &clsid);
  if (SUCCEEDED(hr))
    hr = CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, iid,
                          reinterpret_cast<void**>(object));
  std::printf("CoCreateInstance(\"%ls\"): 0x%08lX\n", progID, hr);
  return hr;
}

// A registered class made by its ProgID: an
// EnumString filled through its collection face and listed through its
// enumerator face.
void ListEnumStringByProgID() {
  ICollString* collection = nullptr;
  if (FAILED(CreateByProgID(L"QuorvelSoftware.EnumString", IID_ICollString, &collection))) return;
  const LPCOLESTR items[] = {L"alpha", L"beta", L"gamma"};
  collection->Add(items, 3);
  IEnumString* names = nullptr;
  if (SUCCEEDED(collection->_NewEnum(&names))) {
    LPOLESTR name = nullptr;
    while (names->Next(1, &name, nullptr) == S_OK) {
      std::printf("  listed: %ls\n", name);
      CoTaskMemFree(name);
    }
    names->Release();
  }
  collection->Release();
  // COM loaded the library for this object; let it go again now it is unused.
  CoFreeUnusedLibrariesEx(0, 0);
}

// The warning a bag leaves as the thread's error information.
void ShowWarning() {
  IErrorInfo* info = nullptr;
  if (GetErrorInfo(0, &info) != S_OK) return;
  BSTR description = nullptr;
  info->GetDescription(&description);
  std::printf("  warning: \"%s\"\n", Utf8(description).c_str());
  SysFreeString(description);
  info->Release();
}

// A property bag made by its ProgID: values of three types written, one read
// back as text, the names listed, and the warning a duplicate name leaves.
void UsePropertyBagByProgID() {
  IPropertyBag* bag = nullptr;
  if (FAILED(CreateByProgID(L"QuorvelSoftware.PropertyBag", IID_IPropertyBag, &bag))) return;
  VARIANT width, title, ratio;
  V_VT(&width) = VT_I4, V_I4(&width) = 640;
  V_VT(&title) = VT_BSTR, V_BSTR(&title) = SysAllocString(L"Preview");
  V_VT(&ratio) = VT_R8, V_R8(&ratio) = 1.5;
  bag->Write(L"Width", &width);
  bag->Write(L"Title", &title);
  bag->Write(L"Ratio", &ratio);
  VARIANT asText;
  V_VT(&asText) = VT_BSTR, V_BSTR(&asText) = nullptr;
  const HRESULT hr = bag->Read(L"Width", &asText, nullptr);
  std::printf("  Read(\"Width\") as VT_BSTR: 0x%08lX \"%s\"\n", hr, Utf8(V_BSTR(&asText)).c_str());
  IPropertyBagEdit* edit = nullptr;
  bag->QueryInterface(IID_IPropertyBagEdit, reinterpret_cast<void**>(&edit));
  IEnumString* names = nullptr;
  if (edit && SUCCEEDED(edit->_NewEnum(&names))) {
    LPOLESTR name = nullptr;
    while (names->Next(1, &name, nullptr) == S_OK) {
      std::printf("  property: %ls\n", name);
      CoTaskMemFree(name);
    }
    names->Release();
  }
  if (edit) {
    std::printf("  Add(\"Width\") again: 0x%08lX\n",
                edit->Add(const_cast<LPWSTR>(L"Width"), &width));
    ShowWarning();
    edit->Release();
  }
  VariantClear(&asText);
  VariantClear(&title);
  bag->Release();
  CoFreeUnusedLibrariesEx(0, 0);
}

// One of the platform's automation objects driven late-bound: an entry added
// to a dictionary by name, and its Count property read by name.
void UseDispatchHelpers() {
  IUnknown* dictionary = nullptr;
  if (FAILED(CreateByProgID(L"Scripting.Dictionary", IID_IUnknown, &dictionary))) return;
  VARIANT args[2], count;  // the last argument first: item, then key
  V_VT(&args[0]) = VT_I4, V_I4(&args[0]) = 401;
  V_VT(&args[1]) = VT_BSTR, V_BSTR(&args[1]) = SysAllocString(L"build");
  VariantInit(&count);
  const HRESULT added = Dispatch_NamedInvoke(dictionary, const_cast<LPOLESTR>(L"Add"),
                                             DISPATCH_METHOD, 2, args, nullptr);
  const HRESULT read =
      Dispatch_GetNamedProperty(dictionary, const_cast<LPOLESTR>(L"Count"), &count);
  std::printf(
      "Dispatch_NamedInvoke(\"Add\"): 0x%08lX; Dispatch_GetNamedProperty(\"Count\"): "
      "0x%08lX, %ld\n",
      added, read, V_VT(&count) == VT_I4 ? V_I4(&count) : -1L);
  VariantClear(&args[1]);
  dictionary->Release();
}

// A block of text offered as a data object and read back as any consumer
// reads it; and a property-page list built in the task allocator.
void UseDataObjectAndPages() {
  const char text[] = "Offered through global memory";
  IDataObject* data = nullptr;
  FORMATETC format = {CF_TEXT, nullptr, DVASPECT_CONTENT, -1, TYMED_HGLOBAL};
  STGMEDIUM medium = {};
  HRESULT hr = GetDataObjectFromMemory(text, sizeof text, &data, CF_TEXT);
  if (SUCCEEDED(hr)) hr = data->GetData(&format, &medium);
  std::printf("GetDataObjectFromMemory, GetData(CF_TEXT): 0x%08lX \"%s\"\n", hr,
              SUCCEEDED(hr) ? static_cast<const char*>(medium.hGlobal) : "");
  if (SUCCEEDED(hr)) ReleaseStgMedium(&medium);
  if (data) data->Release();

  const GUID pages[] = {kEnumGUID, kEnumGUID};
  CAUUID list = {};
  hr = AddPropPageIDs(&list, pages, 2);
  std::printf("AddPropPageIDs: 0x%08lX, %lu pages\n", hr, list.cElems);
  CoTaskMemFree(list.pElems);
}

// The library registers itself under regsvr32; the client reads the name of
// one of its classes back from the registry and makes one of its classes by
// ProgID, then unregisters it again.
void ShowRegistration() {
  char path[MAX_PATH];
  const std::string file(path,
                         GetModuleFileNameA(GetModuleHandleW(L"XKComBsD.dll"), path, MAX_PATH));
  Regsvr32("", file);
  ShowClassName();
  ListEnumStringByProgID();
  UsePropertyBagByProgID();
  Regsvr32("/u ", file);
  ShowClassName();
}

// A VARIANT saved into a registry value through a stream over the registry
// store (a commit flushes the store into the key), and loaded back from the
// bytes the registry holds.
void VariantThroughTheRegistry() {
  const wchar_t kKey[] = L"Software\\XKComBsD demo";
  HKEY key;
  if (RegCreateKeyW(HKEY_CURRENT_USER, kKey, &key) != ERROR_SUCCESS) return;
  ILockBytes* store = nullptr;
  IStream *stream = nullptr, *back = nullptr;
  VARIANT saved, loaded;
  V_VT(&saved) = VT_BSTR, V_BSTR(&saved) = SysAllocString(L"Kept in the registry");
  VariantInit(&loaded);
  HRESULT hr = CreateLockBytesOnRegKey(HKEY_CURRENT_USER, kKey, 0, &store);
  if (SUCCEEDED(hr)) hr = CreateStreamOnLockBytes(store, 0, &stream);
  if (SUCCEEDED(hr)) hr = VARIANT_SaveToStream(stream, &saved);
  if (SUCCEEDED(hr)) hr = stream->Commit(STGC_DEFAULT);
  BYTE value[256];
  DWORD cb = sizeof value;
  if (RegQueryValueExW(key, nullptr, nullptr, nullptr, value, &cb) != ERROR_SUCCESS) cb = 0;
  std::printf(
      "VARIANT_SaveToStream into [HKCU]\\Software\\XKComBsD demo: 0x%08lX, value of %lu bytes\n",
      hr, cb);
  if (SUCCEEDED(CreateStreamOnHGlobal(nullptr, TRUE, &back))) {
    back->Write(value, cb, nullptr);
    back->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr);
    hr = VARIANT_LoadFromStream(back, &loaded);
    std::printf("VARIANT_LoadFromStream from those bytes: 0x%08lX \"%s\"\n", hr,
                Utf8(V_BSTR(&loaded)).c_str());
    back->Release();
  }
  if (stream) stream->Release();
  if (store) store->Release();
  VariantClear(&saved);
  VariantClear(&loaded);
  RegCloseKey(key);
  RegDeleteKeyW(HKEY_CURRENT_USER, kKey);
}

}  // namespace

int main() {
  CoInitialize(nullptr);
  xktest::DebugOutputCapture capture;
  size_t shown = 0;

  // The demo links a delay-load import library, so the library loads on the
  // first call into it, after the capture is in place; every call below is
  // by name through the import library.
  std::printf("Loading XKComBsD.dll at the first call into it; its debugger output:\n");
  DLLVERSIONINFO info = {sizeof info};
  const HRESULT versioned = DllGetVersion(&info);
  ShowTrace(capture, &shown);
  if (SUCCEEDED(versioned))
    std::printf("DllGetVersion:   %lu.%lu build %lu (platform %lu)\n", info.dwMajorVersion,
                info.dwMinorVersion, info.dwBuildNumber, info.dwPlatformID);
  DWORD low = 0;
  const DWORD high = QvDllGetVersion(&low);
  std::printf("QvDllGetVersion: 0x%08lX 0x%08lX, file version %lu.%lu.%lu.%lu\n", high, low,
              HIWORD(high), LOWORD(high), HIWORD(low), LOWORD(low));

  BstrRoundTrip();
  GuidRoundTrip();
  UseDispatchHelpers();
  UseDataObjectAndPages();
  ShowRegistration();
  VariantThroughTheRegistry();

  std::printf("Unloading XKComBsD.dll; its debugger output:\n");
  // Let go of the one reference the delay-load helper took.
  FreeLibrary(GetModuleHandleW(L"XKComBsD.dll"));
  ShowTrace(capture, &shown);
  return 0;
}
