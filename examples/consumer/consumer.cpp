// A client as a user writes one: the umbrella header, the import library, and
// every call by name, the ordinal-only exports (EnumGUID_Create,
// LB_CharUpperW) included. Prints what it did; exits 0 only if all of it
// worked.
#define INITGUID  // storage for the library's identifiers, in this one file
#include <xkcombsd/xkcombsd.h>

#include <cstdio>

namespace {

int failures = 0;

void Expect(bool ok, const char* what) {
  std::printf("%s %s\n", ok ? "ok  " : "FAIL", what);
  failures += ok ? 0 : 1;
}

void Strings() {
  BSTR text = BSTR_CreateA("consumer", -1);
  Expect(text && SysStringLen(text) == 8, "BSTR_CreateA made an 8-character BSTR");
  BSTR_Destroy(&text);
  Expect(text == nullptr, "BSTR_Destroy cleared the caller's pointer");

  wchar_t upper[] = L"ordinal only";
  LB_CharUpperW(upper);
  Expect(lstrcmpW(upper, L"ORDINAL ONLY") == 0, "LB_CharUpperW, imported by ordinal");
}

void Collection() {
  const GUID items[] = {CLSID_QvEnumGUID, CLSID_QvPropertyBag};
  IEnumGUID* enumerator = nullptr;
  Expect(EnumGUID_Create(items, 2, &enumerator) == S_OK, "EnumGUID_Create, imported by ordinal");
  if (!enumerator) return;
  GUID fetched[3] = {};
  ULONG count = 0;
  Expect(enumerator->Next(3, fetched, &count) == S_FALSE && count == 2 &&
             IsEqualGUID(fetched[1], CLSID_QvPropertyBag),
         "Next(3) over two GUIDs gave S_FALSE and both");
  wchar_t text[CCH_GUID];
  Expect(QvStringFromGUIDW(text, fetched[0]) == S_OK, "QvStringFromGUIDW");
  std::printf("     first: %ls\n", text);
  enumerator->Release();
}

void VariantRecord() {
  IStream* stream = nullptr;
  Expect(CreateStreamOnMemory(nullptr, 0, QVCLBOMF_TASKALLOCATOR, 0, &stream) == S_OK,
         "CreateStreamOnMemory");
  if (!stream) return;
  VARIANT saved, loaded;
  VariantInit(&saved);
  VariantInit(&loaded);
  V_VT(&saved) = VT_I4;
  V_I4(&saved) = 1427;
  Expect(VARIANT_SaveToStream(stream, &saved) == S_OK, "VARIANT_SaveToStream");
  LARGE_INTEGER start = {};
  stream->Seek(start, STREAM_SEEK_SET, nullptr);
  Expect(VARIANT_LoadFromStream(stream, &loaded) == S_OK && V_VT(&loaded) == VT_I4 &&
             V_I4(&loaded) == 1427,
         "VARIANT_LoadFromStream read 1427 back");
  stream->Release();
}

}  // namespace

int main() {
  CoInitialize(nullptr);
  Strings();
  Collection();
  VariantRecord();
  CoUninitialize();
  std::printf("%d failures\n", failures);
  return failures ? 1 : 0;
}
