// The class object and the class-table search, from the library's own objects,
// over rows of this suite (the library's real rows come with their classes).
#include <gmock/gmock.h>

#include <functional>
#include <thread>
#include <vector>

#include "DebugOutput.h"
#include "FakeUnknown.h"
#include "HResult.h"
#include "server/ClassFactory.h"
#include "server/ModuleState.h"

using ::testing::ElementsAre;
using xk::module::ClassFactory;
using xk::module::ClassRow;
using xk::module::g_module;
using xk::module::GetClassObject;
using xktest::FakeUnknown;

namespace {

// What the process attach would have set up.
class ModuleEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { InitializeCriticalSection(&g_module.lock); }
};
const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new ModuleEnvironment);

void* const kSentinel = reinterpret_cast<void*>(0xDEADBEEF);

// An object of a test class: it holds the module object count while it lives.
class CountedObject : public IUnknown {
 public:
  explicit CountedObject(LONG* count) : m_count(count) { if (m_count) InterlockedIncrement(m_count); }
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    if (riid != IID_IUnknown) return *ppv = nullptr, E_NOINTERFACE;
    return *ppv = this, AddRef(), S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_refs; }
  STDMETHODIMP_(ULONG) Release() override {
    if (--m_refs) return m_refs;
    if (m_count) InterlockedDecrement(m_count);
    return delete this, 0;
  }

 private:
  LONG* m_count;
  ULONG m_refs = 1;
};

// The arguments of the last creation call, and what the next one hands out.
struct CreationCall {
  const GUID* id = nullptr;
  IUnknown* outer = nullptr;
  LONG* objectCount = nullptr;
  IID riid = GUID_NULL;
  int calls = 0;
} g_call;
IUnknown* g_handOut = nullptr;    // queried for riid when set
HRESULT g_creationResult = S_OK;  // returned when nothing is handed out

void Record(REFCLSID id, IUnknown* outer, LONG* objectCount, REFIID riid) {
  g_call = {&id, outer, objectCount, riid, g_call.calls + 1};
}
HRESULT CreateCounted(REFCLSID id, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv) {
  Record(id, outer, objectCount, riid);
  CountedObject* object = new CountedObject(objectCount);
  const HRESULT hr = object->QueryInterface(riid, ppv);
  object->Release();
  return hr;
}
HRESULT CreateHandOut(REFCLSID id, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv) {
  Record(id, outer, objectCount, riid);
  return g_handOut ? g_handOut->QueryInterface(riid, ppv) : g_creationResult;
}

constexpr GUID kRefusing = {0x5A5E7E57, 0xFAC7, 0x0001, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID kAggregatable = {0x5A5E7E57, 0xFAC7, 0x0002, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID kProxyStub = {0x5A5E7E57, 0xFAC7, 0x0003, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID kAlmostRefusing = {0x5A5E7E57, 0xFAC7, 0x0001, {1, 2, 3, 4, 5, 6, 7, 9}};
const ClassRow kTable[] = {
    {&kRefusing, CreateCounted, xk::module::kNoAggregation},
    {&kAggregatable, CreateCounted, 0},
    {&kProxyStub, CreateHandOut, 0},
    {&kRefusing, CreateHandOut, 0},  // never reached: the first match wins
    {nullptr, nullptr, 0},
};

template <class T>
T* ClassObject(REFCLSID clsid, REFIID riid) {
  void* out = nullptr;
  EXPECT_HR(S_OK, GetClassObject(kTable, clsid, riid, &out));
  return static_cast<T*>(out);
}

// A stub whose Connect answers as told and which counts its references.
struct FakeStub : IRpcStubBuffer {
  explicit FakeStub(HRESULT connectResult) : connectResult(connectResult) {}
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    if (riid != IID_IUnknown && riid != IID_IRpcStubBuffer) return *ppv = nullptr, E_NOINTERFACE;
    return *ppv = static_cast<IRpcStubBuffer*>(this), AddRef(), S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
  STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--refs); }
  STDMETHODIMP Connect(IUnknown* server) override { return connectedTo = server, connectResult; }
  STDMETHODIMP_(void) Disconnect() override {}
  STDMETHODIMP Invoke(RPCOLEMESSAGE*, IRpcChannelBuffer*) override { return E_NOTIMPL; }
  STDMETHODIMP_(IRpcStubBuffer*) IsIIDSupported(REFIID) override { return nullptr; }
  STDMETHODIMP_(ULONG) CountRefs() override { return 0; }
  STDMETHODIMP DebugServerQueryInterface(void**) override { return E_NOTIMPL; }
  STDMETHODIMP_(void) DebugServerRelease(void*) override {}
  HRESULT connectResult;
  long refs = 1;
  IUnknown* connectedTo = nullptr;
};

// Calls LockServer(lock) 1000 times from each of four threads at once.
void LockFromFourThreads(IClassFactory* factory, BOOL lock) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([factory, lock] {
      for (int i = 0; i < 1000; ++i) factory->LockServer(lock);
    });
  for (std::thread& thread : threads) thread.join();
}

// A call and the code it must answer.
struct Call {
  const char* what;
  HRESULT expected;
  std::function<HRESULT()> call;
};
void ExpectAnswers(const std::vector<Call>& calls) {
  for (const Call& c : calls) EXPECT_HR(c.expected, c.call()) << c.what;
}

class ClassFactoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_call = {}, g_handOut = nullptr, g_creationResult = S_OK;
    ASSERT_HR(S_OK, xk::module::CanUnloadNow());
  }
  void TearDown() override { EXPECT_HR(S_OK, xk::module::CanUnloadNow()); }
};

}  // namespace

TEST_F(ClassFactoryTest, TheSearchComparesAllSixteenBytesAndLeavesTheOutPointerWhenItFindsNothing) {
  void* out = kSentinel;
  EXPECT_HR(CLASS_E_CLASSNOTAVAILABLE, GetClassObject(kTable, kAlmostRefusing, IID_IClassFactory, &out));
  EXPECT_EQ(kSentinel, out);
  EXPECT_EQ(&kTable[0], xk::module::FindClassRow(kTable, kRefusing)) << "the first match wins";
  EXPECT_EQ(nullptr, xk::module::FindClassRow(kTable, kAlmostRefusing));
  EXPECT_HR(E_NOINTERFACE, GetClassObject(kTable, kRefusing, IID_IMarshal, &out));
  EXPECT_EQ(nullptr, out);
}

TEST_F(ClassFactoryTest, EveryMethodRefusesAMissingOutPointer) {
  IClassFactory* factory = ClassObject<IClassFactory>(kProxyStub, IID_IClassFactory);
  ASSERT_NE(nullptr, factory);
  IPSFactoryBuffer* buffer = nullptr;
  ASSERT_HR(S_OK, factory->QueryInterface(IID_IPSFactoryBuffer, reinterpret_cast<void**>(&buffer)));
  FakeUnknown outer;
  IRpcProxyBuffer* proxy = nullptr;
  void* object = nullptr;
  ExpectAnswers({
      {"GetClassObject", E_POINTER, [] { return GetClassObject(kTable, kRefusing, IID_IClassFactory, nullptr); }},
      {"QueryInterface", E_POINTER, [&] { return factory->QueryInterface(IID_IUnknown, nullptr); }},
      {"CreateInstance", E_POINTER, [&] { return factory->CreateInstance(nullptr, IID_IUnknown, nullptr); }},
      {"CreateProxy outer", E_POINTER, [&] { return buffer->CreateProxy(nullptr, IID_IUnknown, &proxy, &object); }},
      {"CreateProxy proxy", E_POINTER, [&] { return buffer->CreateProxy(&outer, IID_IUnknown, nullptr, &object); }},
      {"CreateProxy object", E_POINTER, [&] { return buffer->CreateProxy(&outer, IID_IUnknown, &proxy, nullptr); }},
      {"CreateStub", E_POINTER, [&] { return buffer->CreateStub(IID_IUnknown, nullptr, nullptr); }},
  });
  EXPECT_EQ(0, g_call.calls);
  EXPECT_EQ(1u, buffer->Release());
  EXPECT_EQ(0u, factory->Release());
}

TEST_F(ClassFactoryTest, AnswersItsTwoFacesWithOneIdentityAndExactCounts) {
  IClassFactory* factory = ClassObject<IClassFactory>(kRefusing, IID_IClassFactory);
  ASSERT_NE(nullptr, factory);
  void *unknown = nullptr, *buffer = nullptr, *back = nullptr, *refused = kSentinel;
  EXPECT_HR(S_OK, factory->QueryInterface(IID_IUnknown, &unknown));
  EXPECT_EQ(static_cast<void*>(factory), unknown) << "IUnknown is the IClassFactory face";
  EXPECT_HR(S_OK, factory->QueryInterface(IID_IPSFactoryBuffer, &buffer));
  ASSERT_NE(nullptr, buffer);
  EXPECT_NE(static_cast<void*>(factory), buffer);
  EXPECT_HR(S_OK, static_cast<IPSFactoryBuffer*>(buffer)->QueryInterface(IID_IUnknown, &back));
  EXPECT_EQ(unknown, back);
  EXPECT_HR(E_NOINTERFACE, factory->QueryInterface(IID_IMarshal, &refused));
  EXPECT_EQ(nullptr, refused);
  EXPECT_HR(E_NOINTERFACE, factory->QueryInterface(IID_IRpcProxyBuffer, &refused));

  EXPECT_THAT((std::vector<ULONG>{factory->AddRef(), static_cast<IPSFactoryBuffer*>(buffer)->Release(),
                                   static_cast<IUnknown*>(back)->Release(), static_cast<IUnknown*>(buffer)->Release(),
                                   static_cast<IUnknown*>(unknown)->Release()}),
              ElementsAre(5u, 4u, 3u, 2u, 1u));
  EXPECT_HR(S_OK, xk::module::CanUnloadNow()) << "a class object is no module object";
  EXPECT_EQ(0u, factory->Release());
  // Every row answers as a proxy-stub factory too, straight from the search.
  IPSFactoryBuffer* direct = ClassObject<IPSFactoryBuffer>(kRefusing, IID_IPSFactoryBuffer);
  ASSERT_NE(nullptr, direct);
  EXPECT_EQ(0u, direct->Release());
}

TEST_F(ClassFactoryTest, CreateInstanceHandsTheRowAndTheObjectCountOnAndRefusesAnUnwantedOuter) {
  g_module.objectCount = 0;
  IClassFactory* factory = ClassObject<IClassFactory>(kAggregatable, IID_IClassFactory);
  ASSERT_NE(nullptr, factory);
  IUnknown* object = static_cast<IUnknown*>(kSentinel);
  FakeUnknown outer;
  ASSERT_HR(S_OK, factory->CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&object)));
  EXPECT_EQ(&kAggregatable, g_call.id) << "the row's own identifier";
  EXPECT_EQ(&outer, g_call.outer);
  EXPECT_EQ(&g_module.objectCount, g_call.objectCount);
  EXPECT_EQ(IID_IUnknown, g_call.riid);
  EXPECT_HR(S_FALSE, xk::module::CanUnloadNow()) << "the object holds the module";
  EXPECT_EQ(0u, object->Release());
  EXPECT_HR(S_OK, xk::module::CanUnloadNow());
  object = static_cast<IUnknown*>(kSentinel);
  EXPECT_HR(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IStream, reinterpret_cast<void**>(&object)));
  EXPECT_EQ(nullptr, object) << "the creation function's answer is passed on";
  EXPECT_EQ(0u, factory->Release());

  factory = ClassObject<IClassFactory>(kRefusing, IID_IClassFactory);
  ASSERT_NE(nullptr, factory);
  g_call = {};
  void* refused = kSentinel;
  EXPECT_HR(CLASS_E_NOAGGREGATION, factory->CreateInstance(&outer, IID_IUnknown, &refused));
  EXPECT_EQ(nullptr, refused);
  EXPECT_EQ(0, g_call.calls);
  EXPECT_EQ(1, outer.refs);
  ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&object)));
  EXPECT_EQ(0u, object->Release());
  EXPECT_EQ(0u, factory->Release());
}

TEST_F(ClassFactoryTest, LockServerMovesDllCanUnloadNowAndTheLastUnlockAnswersUnexpected) {
  IClassFactory* factory = ClassObject<IClassFactory>(kRefusing, IID_IClassFactory);
  ASSERT_NE(nullptr, factory);
  EXPECT_HR(S_OK, factory->LockServer(TRUE));
  EXPECT_HR(S_FALSE, xk::module::CanUnloadNow());
  EXPECT_HR(S_OK, factory->LockServer(TRUE));
  EXPECT_HR(S_OK, factory->LockServer(FALSE));
  EXPECT_HR(S_FALSE, xk::module::CanUnloadNow());
  EXPECT_HR(E_UNEXPECTED, factory->LockServer(FALSE));
  EXPECT_EQ(0, g_module.lockCount);
  EXPECT_HR(S_OK, xk::module::CanUnloadNow());
  // An unbalanced unlock still changes the count.
  EXPECT_HR(E_UNEXPECTED, factory->LockServer(FALSE));
  EXPECT_EQ(-1, g_module.lockCount);
  EXPECT_HR(E_UNEXPECTED, factory->LockServer(TRUE));
  EXPECT_EQ(0, g_module.lockCount);

  LockFromFourThreads(factory, TRUE);
  EXPECT_EQ(4000, g_module.lockCount);
  LockFromFourThreads(factory, FALSE);
  EXPECT_EQ(0, g_module.lockCount);
  EXPECT_EQ(0u, factory->Release());
}

TEST_F(ClassFactoryTest, CreateProxyHandsOutTheProxyAndTheInterfaceOrNeither) {
  IPSFactoryBuffer* buffer = ClassObject<IPSFactoryBuffer>(kProxyStub, IID_IPSFactoryBuffer);
  ASSERT_NE(nullptr, buffer);
  FakeUnknown outer, made(IID_IRpcProxyBuffer), noProxy(IID_IStream);
  IRpcProxyBuffer* proxy = nullptr;
  void* object = nullptr;
  g_handOut = &made;
  ASSERT_HR(S_OK, buffer->CreateProxy(&outer, IID_IUnknown, &proxy, &object));
  EXPECT_EQ(&outer, g_call.outer);
  EXPECT_EQ(nullptr, g_call.objectCount) << "a proxy does not hold the module";
  EXPECT_EQ(IID_IUnknown, g_call.riid);
  EXPECT_EQ(static_cast<void*>(&made), static_cast<void*>(proxy));
  EXPECT_EQ(static_cast<void*>(&made), object);
  EXPECT_EQ(3, made.refs) << "one reference each in proxy and object; the creation one released";
  made.refs = 1;

  // Each failure leaves both out pointers null and no reference behind.
  const struct { FakeUnknown* handOut; HRESULT creation; HRESULT expected; } failures[] = {
      {&made, S_OK, E_NOINTERFACE}, {&noProxy, S_OK, E_NOINTERFACE}, {nullptr, E_OUTOFMEMORY, E_OUTOFMEMORY}};
  for (const auto& f : failures) {
    g_handOut = f.handOut;
    g_creationResult = f.creation;
    proxy = static_cast<IRpcProxyBuffer*>(kSentinel);
    object = kSentinel;
    EXPECT_HR(f.expected, buffer->CreateProxy(&outer, IID_IStream, &proxy, &object));
    EXPECT_EQ(nullptr, proxy);
    EXPECT_EQ(nullptr, object);
  }
  EXPECT_EQ(1, made.refs);
  EXPECT_EQ(1, noProxy.refs);
  EXPECT_EQ(1, outer.refs);
  EXPECT_EQ(0u, buffer->Release());
}

TEST_F(ClassFactoryTest, CreateStubConnectsTheServerAndDropsAStubThatRefusesIt) {
  IPSFactoryBuffer* buffer = ClassObject<IPSFactoryBuffer>(kProxyStub, IID_IPSFactoryBuffer);
  ASSERT_NE(nullptr, buffer);
  FakeStub stub(S_OK), refusing(E_ACCESSDENIED);
  FakeUnknown server;
  IRpcStubBuffer* made = nullptr;
  g_handOut = &stub;
  ASSERT_HR(S_OK, buffer->CreateStub(IID_IRpcStubBuffer, &server, &made));
  EXPECT_EQ(&stub, made);
  EXPECT_EQ(&server, stub.connectedTo);
  EXPECT_EQ(nullptr, g_call.outer);
  EXPECT_EQ(nullptr, g_call.objectCount);
  EXPECT_EQ(IID_IRpcStubBuffer, g_call.riid);
  EXPECT_EQ(2, stub.refs);

  g_handOut = &refusing;
  made = static_cast<IRpcStubBuffer*>(kSentinel);
  EXPECT_HR(E_ACCESSDENIED, buffer->CreateStub(IID_IRpcStubBuffer, &server, &made));
  EXPECT_EQ(nullptr, made);
  EXPECT_EQ(1, refusing.refs);
  refusing.connectedTo = nullptr;
  EXPECT_HR(S_OK, buffer->CreateStub(IID_IRpcStubBuffer, nullptr, &made)) << "no server, no Connect";
  EXPECT_EQ(nullptr, refusing.connectedTo);
  EXPECT_EQ(0u, buffer->Release());
}

TEST_F(ClassFactoryTest, AClassObjectWithoutARowReportsItAndAnswersUnexpected) {
  ClassFactory* factory = ClassFactory::Create(nullptr);
  ASSERT_NE(nullptr, factory);
  xktest::DebugOutputCapture capture;
  FakeUnknown outer;
  void* object = kSentinel;
  IRpcProxyBuffer* proxy = nullptr;
  IRpcStubBuffer* stub = static_cast<IRpcStubBuffer*>(kSentinel);
  ExpectAnswers({{"CreateInstance", E_UNEXPECTED, [&] { return factory->CreateInstance(nullptr, IID_IUnknown, &object); }},
                 {"CreateProxy", E_UNEXPECTED, [&] { return factory->CreateProxy(&outer, IID_IUnknown, &proxy, &object); }},
                 {"CreateStub", E_UNEXPECTED, [&] { return factory->CreateStub(IID_IUnknown, &outer, &stub); }}});
  EXPECT_EQ(nullptr, object);
  EXPECT_EQ(nullptr, stub);
  EXPECT_THAT(capture.Assertions(), ElementsAre(xktest::AssertionReport{"MOFactry", 248, "m_pItem"},
                                                xktest::AssertionReport{"MOFactry", 299, "m_pItem"},
                                                xktest::AssertionReport{"MOFactry", 346, "m_pItem"}));
  EXPECT_EQ(0u, factory->Release());
}
