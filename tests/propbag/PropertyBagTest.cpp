// Both property-bag classes through one typed suite; the free-threaded one
// under eight threads; the whole-bag stream functions.
#include <gmock/gmock.h>
#include <xkcombsd/Collections.h>
#include <xkcombsd/Module.h>
#include <xkcombsd/PropertyBag.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "ComTest.h"
#include "DebugOutput.h"
#include "HResult.h"
#include "StressHarness.h"
#include "TestStreams.h"

extern "C" HRESULT ItemThroughC(IPropertyBagEdit*, LPWSTR, VARIANT*);

namespace {

using testing::ElementsAre;
using xktest::Bytes;
using xktest::ComRef;

const std::wstring kSource = L"Quorvel Software PropertyBag Implementation|";
const HRESULT kInvalid = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
const std::wstring kBadHeader =
    kSource +
    L"_PropData bag could not be loaded from the stream. Header information invalid|persist";

std::wstring Text(BSTR text) { return text ? text : L""; }
std::wstring Take(BSTR text) {
  const std::wstring copy = Text(text);
  return SysFreeString(text), copy;
}

// The thread's error information as "source|description|interface" ("" for none).
std::wstring TakeWarning() {
  ComRef<IErrorInfo> info;
  if (GetErrorInfo(0, info.put()) != S_OK) return L"";
  BSTR source = nullptr, description = nullptr;
  GUID iid;
  info->GetSource(&source), info->GetDescription(&description), info->GetGUID(&iid);
  return Take(source) + L"|" + Take(description) +
         (iid == IID_IPersistStream     ? L"|persist"
          : iid == IID_IPropertyBagEdit ? L"|edit"
                                        : L"|?");
}
std::wstring Warning(const std::wstring& text, const wchar_t* face = L"|edit") {
  return kSource + text + face;
}

VARIANT I4(LONG value) {
  VARIANT v;
  V_VT(&v) = VT_I4, V_I4(&v) = value;
  return v;
}

template <class T>
void** Out(ComRef<T>& ref) {
  return reinterpret_cast<void**>(ref.put());
}

// A new bag through its class object, as a client gets one.
IPropertyBagEdit* NewBag(REFCLSID clsid) {
  ComRef<IClassFactory> factory;
  IPropertyBagEdit* bag = nullptr;
  DllGetClassObject(clsid, IID_IClassFactory, Out(factory));
  factory->CreateInstance(nullptr, IID_IPropertyBagEdit, reinterpret_cast<void**>(&bag));
  return bag;
}

// The classes are registered so that CoCreateInstance (of _NewEnum and the
// whole-bag loader) finds them without the registry.
class BagFixture : public xktest::ComTest<COINIT_MULTITHREADED> {
 protected:
  void SetUp() override {
    ComTest::SetUp();
    for (const CLSID* clsid :
         {&CLSID_QvEnumString, &CLSID_QvPropertyBag, &CLSID_QvPropertyBag_ST}) {
      ComRef<IUnknown> factory;
      DllGetClassObject(*clsid, IID_IUnknown, Out(factory));
      CoRegisterClassObject(*clsid, factory.get(), CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                            &cookies.emplace_back());
    }
  }
  void TearDown() override {
    for (DWORD cookie : cookies) CoRevokeClassObject(cookie);
    ComTest::TearDown();
  }

  std::vector<DWORD> cookies;
};

template <class Kind>
class PropertyBagTest : public BagFixture {
 protected:
  static IPropertyBagEdit* Make() { return NewBag(*Kind::clsid); }
};

struct FreeThreaded {
  static constexpr const CLSID* clsid = &CLSID_QvPropertyBag;
};
struct SingleThreaded {
  static constexpr const CLSID* clsid = &CLSID_QvPropertyBag_ST;
};
using Kinds = testing::Types<FreeThreaded, SingleThreaded>;
TYPED_TEST_SUITE(PropertyBagTest, Kinds);

TYPED_TEST(PropertyBagTest, EditsAnswerExactlyAndLeaveTheirWarnings) {
  IPropertyBagEdit* bag = this->Make();
  ComRef<IPersistStream> persist;
  ASSERT_HR(S_OK, bag->QueryInterface(IID_IPersistStream, Out(persist)));
  VARIANT one = I4(1), two = I4(2), value, other;
  LONG count = -1;
  LPWSTR A = const_cast<LPWSTR>(L"A"), a = const_cast<LPWSTR>(L"a"), B = const_cast<LPWSTR>(L"B");
  LPWSTR none = const_cast<LPWSTR>(L"");
  const std::wstring exists = L"The property already exists (warning only)";
  const std::wstring noName =
      L"Did not add a property, as the name was empty or unspecified (warning only)";
  const std::wstring empty = L"_PropData bag is already empty (warning only)";
  struct Step {
    std::function<HRESULT()> call;
    HRESULT expected;
    std::wstring warning;
  } steps[] = {
      {[&] { return persist->IsDirty(); }, S_FALSE},
      {[&] { return bag->Add(A, &one); }, S_OK},
      {[&] { return bag->Add(a, &two); }, S_OK},
      {[&] { return bag->Add(A, &two); }, S_FALSE, exists},
      {[&] { return bag->Add(nullptr, &one); }, S_FALSE, noName},
      {[&] { return bag->Add(none, &one); }, S_FALSE, noName},
      {[&] { return bag->Add(B, nullptr); }, E_POINTER},
      {[&] { return bag->Count(&count); }, S_OK},
      {[&] { return bag->Count(nullptr); }, E_POINTER},
      {[&] { return ItemThroughC(bag, A, &value); }, S_OK},  // as a C client calls it
      {[&] { return bag->Item(B, &other); }, E_INVALIDARG},
      {[&] { return bag->Item(A, nullptr); }, E_POINTER},
      {[&] { return bag->Remove(B); }, E_FAIL},
      {[&] { return bag->Remove(none); }, S_FALSE},
      {[&] { return bag->Remove(nullptr); }, S_FALSE},
      {[&] { return bag->Remove(a); }, S_OK},
      {[&] { return persist->IsDirty(); }, S_OK},
      {[&] { return bag->Empty(); }, S_OK},
      {[&] { return persist->IsDirty(); }, S_OK},
      {[&] { return bag->Empty(); }, S_FALSE, empty},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(&step - steps);
    SetErrorInfo(0, nullptr);
    EXPECT_HR(step.expected, step.call());
    EXPECT_EQ(step.warning.empty() ? L"" : Warning(step.warning), TakeWarning());
  }
  EXPECT_EQ(2, count) << "names are case-sensitive";
  EXPECT_EQ(2, V_I4(&value)) << "an existing name has its value replaced";
  persist.Reset();
  EXPECT_EQ(0u, bag->Release());
  EXPECT_EQ(Warning(empty), TakeWarning()) << "the last release empties the bag again";
}

struct RecordingLog : IErrorLog {
  STDMETHODIMP QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return 2; }
  STDMETHODIMP_(ULONG) Release() override { return 1; }
  STDMETHODIMP AddError(LPCOLESTR name, EXCEPINFO* e) override {
    entries.push_back(name + (L"|" + Text(e->bstrSource)) + L"|" + Text(e->bstrDescription) + L"|" +
                      std::to_wstring(e->wCode) + L"|" + std::to_wstring(e->scode) + L"|" +
                      Text(e->bstrHelpFile) + std::to_wstring(e->dwHelpContext));
    return S_OK;
  }
  std::vector<std::wstring> entries;
};

TYPED_TEST(PropertyBagTest, ReadsCopyOrCoerceAndTellTheErrorLogWhatFailed) {
  ComRef<IPropertyBagEdit> edit(this->Make());
  ComRef<IPropertyBag> bag;
  ASSERT_HR(S_OK, edit->QueryInterface(IID_IPropertyBag, Out(bag)));
  VARIANT n = I4(42), text, copy, number = I4(0), abc;
  V_VT(&abc) = VT_BSTR, V_BSTR(&abc) = SysAllocString(L"abc");
  V_VT(&text) = VT_BSTR, V_BSTR(&text) = SysAllocString(L"old");
  VariantInit(&copy);
  EXPECT_HR(S_OK, bag->Write(L"n", &n));
  EXPECT_HR(S_OK, bag->Write(L"n", &n)) << "a replaced value is no failure of Write";
  EXPECT_HR(S_OK, bag->Write(L"s", &abc));
  EXPECT_HR(E_POINTER, bag->Write(nullptr, &n));
  EXPECT_HR(S_OK, bag->Read(L"n", &text, nullptr));
  EXPECT_EQ(L"42", std::wstring(V_BSTR(&text)));
  EXPECT_HR(S_OK, bag->Read(L"n", &copy, nullptr));
  EXPECT_EQ(42, V_I4(&copy));
  RecordingLog log;
  EXPECT_HR(E_INVALIDARG, bag->Read(L"absent", &copy, &log));
  EXPECT_HR(DISP_E_TYPEMISMATCH, bag->Read(L"s", &number, &log));
  EXPECT_THAT(log.entries,
              ElementsAre(L"absent|" + kSource + L"The property could not be found|0|-2147024809|0",
                          L"s|" + kSource +
                              L"The property could not be coerced to the type requested|0|"
                              L"-2147352571|0"));
  VariantClear(&text), VariantClear(&abc);
}

// The names a bag lists in order, and "?" when listing fails; the list is released to 0.
std::vector<std::wstring> NamesIn(IPropertyBagEdit* bag) {
  IEnumString* list = nullptr;
  if (bag->_NewEnum(&list) != S_OK) return {L"?"};
  std::vector<std::wstring> names;
  for (LPOLESTR name = nullptr; list->Next(1, &name, nullptr) == S_OK; CoTaskMemFree(name))
    names.push_back(name);
  if (list->Release() != 0) names.push_back(L"?");
  return names;
}

TYPED_TEST(PropertyBagTest, RemovalKeepsTheOrderTheEnumeratorLists) {
  ComRef<IPropertyBagEdit> bag(this->Make());
  std::vector<std::wstring> expected;
  VARIANT v = I4(0);
  for (int i = 0; i < 20; ++i) {
    std::wstring name = L"p" + std::to_wstring(i);
    ASSERT_HR(S_OK, bag->Add(name.data(), &v));
    if (i != 2) expected.push_back(name);
  }
  ASSERT_HR(S_OK, bag->Remove(const_cast<LPWSTR>(L"p2")));
  EXPECT_EQ(expected, NamesIn(bag.get()));
}

TYPED_TEST(PropertyBagTest, GrowsBySixteenThenExactlyAndOnlyAnEmptyBagHasASize) {
  const SIZE_T slot = sizeof(BSTR) + sizeof(VARIANT);
  this->spy.ClearRequests();
  ComRef<IPropertyBagEdit> bag(this->Make());
  ComRef<IPersistStream> persist;
  bag->QueryInterface(IID_IPersistStream, Out(persist));
  ULARGE_INTEGER size;
  ULONG cb = 0;
  EXPECT_HR(S_OK, persist->GetSizeMax(&size));
  EXPECT_HR(S_OK, PropertyBag_GetSizeMax(bag.get(), &cb));
  EXPECT_EQ(16u, size.QuadPart);
  EXPECT_EQ(16u, cb);
  VARIANT v = I4(0);
  for (int i = 0; i < 17; ++i) bag->Add((L"p" + std::to_wstring(i)).data(), &v);
  EXPECT_THAT(this->spy.ReallocRequests(), ElementsAre(16 * slot, 16 * slot, 17 * slot));
  EXPECT_HR(E_NOTIMPL, persist->GetSizeMax(&size));
  EXPECT_EQ(0u, size.QuadPart);
  EXPECT_EQ(Warning(L"Could not determine size of one or more properties", L"|persist"),
            TakeWarning());
  EXPECT_HR(E_NOTIMPL, PropertyBag_GetSizeMax(bag.get(), &cb));
  EXPECT_EQ(0u, cb);
}

TYPED_TEST(PropertyBagTest, AnswersFourFacesTracesEveryLookupAndNeverSaves) {
  ComRef<IPropertyBagEdit> bag(this->Make());
  ComRef<ISupportErrorInfo> support;
  ComRef<IUnknown> unknown, face;
  bag->QueryInterface(IID_ISupportErrorInfo, Out(support));
  xktest::DebugOutputCapture capture;
  EXPECT_HR(S_OK, bag->QueryInterface(IID_IUnknown, Out(unknown)));
  for (const IID* iid : {&IID_IUnknown, &IID_IPropertyBag, &IID_IPropertyBagEdit,
                         &IID_ISupportErrorInfo, &IID_IPersistStream})
    EXPECT_HR(S_OK, support->InterfaceSupportsErrorInfo(*iid));
  for (const IID* iid : {&IID_IPersist, &IID_IPersistStreamInit, &IID_IMarshal}) {
    EXPECT_HR(E_NOINTERFACE, bag->QueryInterface(*iid, Out(face)));
    EXPECT_HR(S_FALSE, support->InterfaceSupportsErrorInfo(*iid));
  }
  EXPECT_HR(S_OK, bag->QueryInterface(IID_IPropertyBag, Out(face)));
  EXPECT_EQ(unknown.get(), face.get()) << "IUnknown is the IPropertyBag face";
  const std::string traces = capture.Text();
  // One "IID: name - result" line per lookup, the only colons in the capture.
  EXPECT_EQ(1 + 5 + 3 * 2 + 1, std::count(traces.begin(), traces.end(), ':')) << traces;

  ComRef<IPersistStream> persist;
  bag->QueryInterface(IID_IPersistStream, Out(persist));
  CLSID clsid;
  EXPECT_HR(S_OK, persist->GetClassID(&clsid));
  EXPECT_TRUE(IsEqualCLSID(*TypeParam::clsid, clsid));
  ComRef<IStream> stream(xktest::NewMemoryStream());
  EXPECT_HR(E_NOTIMPL, persist->Save(stream.get(), TRUE));
  EXPECT_HR(E_NOTIMPL, PropertyBag_SaveToStream(stream.get(), bag.get()));
  EXPECT_EQ(16u, xktest::ContentOf(stream.get()).size()) << "only the class id reaches the stream";
}

// A bag's persisted form: a 16-byte header (version, count), then records.
Bytes BagData(BYTE version, ULONG count, const Bytes& records) {
  Bytes header(16, 0);
  header[0] = version;
  const Bytes n = xktest::LittleEndian32(count);
  std::copy(n.begin(), n.end(), header.begin() + 4);
  return xktest::Concat(header, records);
}
const Bytes kRecordB7 = {4, 0, 0, 0, 'b', 0, 0, 0, VT_I4, 0, 0, 0, 0, 0,
                         0, 0, 7, 0, 0,   0, 0, 0, 0,     0, 0, 0, 0, 0};

TYPED_TEST(PropertyBagTest, LoadAddsToTheEntriesAndStopsAtTheFirstBadRecord) {
  struct Row {
    Bytes data;
    HRESULT expected;
    LONG count;  // entries afterwards; "a" is there beforehand
  } rows[] = {
      {BagData(1, 1, kRecordB7), S_OK, 2},
      {BagData(1, 0, {}), S_OK, 1},
      {Bytes(15, 1), E_FAIL, 1},
      {BagData(0, 1, kRecordB7), CONVERT10_E_OLESTREAM_FMT, 1},
      {BagData(2, 1, kRecordB7), CONVERT10_E_OLESTREAM_FMT, 1},
      {BagData(1, 0x7FFFFFFF, kRecordB7), kInvalid, 2},
      {BagData(1, 2, Bytes{5, 0, 0, 0}), kInvalid, 1},
      {BagData(1, 1, Bytes{0xF0, 0xFF, 0xFF, 0x7F}), kInvalid, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    ComRef<IPropertyBagEdit> bag(this->Make());
    VARIANT v = I4(1);
    bag->Add(const_cast<LPWSTR>(L"a"), &v);
    ComRef<IPersistStream> persist;
    bag->QueryInterface(IID_IPersistStream, Out(persist));
    ComRef<IStream> stream(xktest::NewMemoryStream(row.data));
    SetErrorInfo(0, nullptr);
    EXPECT_HR(row.expected, persist->Load(stream.get()));
    EXPECT_EQ(row.expected == CONVERT10_E_OLESTREAM_FMT ? kBadHeader : L"", TakeWarning());
    EXPECT_HR(E_POINTER, persist->Load(nullptr));
    LONG count = 0;
    bag->Count(&count);
    EXPECT_EQ(row.count, count);
  }
}

IStream* ObjectRecord(REFCLSID clsid, const Bytes& data) {
  Bytes id(16);
  memcpy(id.data(), &clsid, 16);
  return xktest::NewMemoryStream(xktest::Concat(id, data));
}

TEST_F(BagFixture, WholeBagsLoadAndSaveAsObjectRecords) {
  ComRef<IPropertyBag> bag;
  ComRef<IPropertyBagEdit> edit;
  LONG count = -1;
  ASSERT_HR(S_OK, PropertyBag_LoadFromStream(nullptr, bag.put()));
  bag->QueryInterface(IID_IPropertyBagEdit, Out(edit));
  EXPECT_HR(S_OK, edit->Count(&count));
  EXPECT_EQ(0, count);

  ComRef<IStream> stream(xktest::NewMemoryStream());
  EXPECT_HR(S_OK, PropertyBag_SaveToStream(stream.get(), nullptr));
  EXPECT_HR(S_OK, PropertyBag_SaveToStreamAndRelease(stream.get(), nullptr));
  EXPECT_EQ(Bytes(32, 0), xktest::ContentOf(stream.get()));

  *stream.put() = ObjectRecord(CLSID_QvPropertyBag_ST, BagData(1, 1, kRecordB7));
  ASSERT_HR(S_OK, PropertyBag_LoadFromStream(stream.get(), bag.put()));
  VARIANT b;
  VariantInit(&b);
  EXPECT_HR(S_OK, bag->Read(L"b", &b, nullptr));
  EXPECT_EQ(7, V_I4(&b));
  xktest::SeekTo(stream.get(), 0);
  EXPECT_HR(TYPE_E_INVALIDID, PropertyBag_InitFromStream(stream.get(), edit.get()));

  *stream.put() = ObjectRecord(CLSID_QvPropertyBag, BagData(1, 3, kRecordB7));
  EXPECT_HR(kInvalid, PropertyBag_LoadFromStream(stream.get(), bag.put()));
  EXPECT_EQ(nullptr, bag.get()) << "a failed load hands out nothing and leaks nothing";
  xktest::SeekTo(stream.get(), 0);
  EXPECT_HR(kInvalid, PropertyBag_InitFromStream(stream.get(), edit.get()));
  edit->Count(&count);
  EXPECT_EQ(1, count) << "records before the bad one stay";
}

// Eight threads write, read, remove and list names of their own ("thread.key"),
// each keeping what its names hold: every read and every list agrees with the
// reader's own record, and the bag ends holding exactly what the threads kept.
TEST_F(BagFixture, TheFreeThreadedBagHoldsExactlyWhatEightThreadsLeftInIt) {
  ComRef<IPropertyBagEdit> bag(NewBag(CLSID_QvPropertyBag));
  ComRef<IPropertyBag> plain;
  ASSERT_HR(S_OK, bag->QueryInterface(IID_IPropertyBag, Out(plain)));
  std::map<std::wstring, LONG> kept[xktest::kStressThreads];
  const long failures = xktest::RunStress(3000, [&](xktest::StressThread& t, int n) {
    auto& mine = kept[t.index];
    const std::wstring prefix = std::to_wstring(t.index) + L".";
    std::wstring name = prefix + std::to_wstring(t.Next(12));
    const auto held = mine.find(name);
    VARIANT value = I4(t.index * 100000 + n), read = I4(0);
    switch (t.Next(6)) {
      case 0:
      case 1:  // writes twice as often as it removes
        return t.Check(plain->Write(name.c_str(), &value) == S_OK), void(mine[name] = V_I4(&value));
      case 2:
        return t.Check(bag->Remove(name.data()) == (held != mine.end() ? S_OK : E_FAIL)),
               void(mine.erase(name));
      case 3:
      case 4:
        return t.Check(held != mine.end()
                           ? bag->Item(name.data(), &read) == S_OK && V_I4(&read) == held->second
                           : FAILED(bag->Item(name.data(), &read)));
      default:
        size_t prefixed = 0, matched = 0;
        for (const std::wstring& listed : NamesIn(bag.get()))
          if (listed.rfind(prefix, 0) == 0) ++prefixed, matched += mine.count(listed);
        return t.Check(prefixed == mine.size() && matched == prefixed);
    }
  });
  EXPECT_EQ(0, failures);
  std::set<std::wstring> names;
  LONG count = -1;
  for (const auto& mine : kept)
    for (const auto& [name, value] : mine) {
      VARIANT read = I4(0);
      EXPECT_HR(S_OK, bag->Item(const_cast<LPWSTR>(name.c_str()), &read));
      EXPECT_EQ(value, V_I4(&read)) << "the last value written";
      names.insert(name);
    }
  const std::vector<std::wstring> listed = NamesIn(bag.get());
  EXPECT_EQ(names, std::set<std::wstring>(listed.begin(), listed.end()));
  EXPECT_HR(S_OK, bag->Count(&count));
  EXPECT_EQ(LONG(names.size()), count);
}

}  // namespace
