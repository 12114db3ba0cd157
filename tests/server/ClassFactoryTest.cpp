// The class object and the class-table search, from the library's own objects,
// over rows of this suite (the library's real rows come with their classes).
#include <gmock/gmock.h>

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
using xk::module::GetClassObject;
using xk::module::kNoAggregation;
using xktest::AssertionReport;
using xktest::DebugOutputCapture;
using xktest::FakeUnknown;

namespace {

// What the process attach would have set up.
class ModuleEnvironment : public ::testing::Environment {
 public:
  void SetUp() override { InitializeCriticalSection(&xk::module::g_module.lock); }
};
const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new ModuleEnvironment);

// An object of a test class: it holds the module object count while it lives.
class CountedObject : public IUnknown {
 public:
  explicit CountedObject(LONG* objectCount) : m_objectCount(objectCount) {
    if (m_objectCount) InterlockedIncrement(m_objectCount);
  }
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    if (riid != IID_IUnknown) return *ppv = nullptr, E_NOINTERFACE;
    *ppv = this;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_refs; }
  STDMETHODIMP_(ULONG) Release() override {
    if (--m_refs) return m_refs;
    if (m_objectCount) InterlockedDecrement(m_objectCount);
    delete this;
    return 0;
  }

 private:
  LONG* m_objectCount;
  ULONG m_refs = 1;
};

// The arguments of the last creation call, and what the next one hands out.
struct CreationCall {
  const GUID* id = nullptr;
  IUnknown* outer = nullptr;
  LONG* objectCount = nullptr;
  IID riid = GUID_NULL;
  int calls = 0;
};
CreationCall g_call;
IUnknown* g_handOut = nullptr;       // queried for riid when set
HRESULT g_creationResult = S_OK;     // returned when nothing is handed out

HRESULT Record(REFCLSID id, IUnknown* outer, LONG* objectCount, REFIID riid) {
  g_call.id = &id;
  g_call.outer = outer;
  g_call.objectCount = objectCount;
  g_call.riid = riid;
  ++g_call.calls;
  return S_OK;
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
  if (!g_handOut) return g_creationResult;
  return g_handOut->QueryInterface(riid, ppv);
}

constexpr GUID kRefusing = {0x5A5E7E57, 0xFAC7, 0x0001, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID kAggregatable = {0x5A5E7E57, 0xFAC7, 0x0002, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID kProxyStub = {0x5A5E7E57, 0xFAC7, 0x0003, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID kAlmostRefusing = {0x5A5E7E57, 0xFAC7, 0x0001, {1, 2, 3, 4, 5, 6, 7, 9}};

const ClassRow kTable[] = {
    {&kRefusing, CreateCounted, kNoAggregation},
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
class FakeStub : public IRpcStubBuffer {
 public:
  explicit FakeStub(HRESULT connectResult) : m_connectResult(connectResult) {}
  STDMETHODIMP QueryInterface(REFIID riid, void** ppv) override {
    if (riid != IID_IUnknown && riid != IID_IRpcStubBuffer) return *ppv = nullptr, E_NOINTERFACE;
    *ppv = static_cast<IRpcStubBuffer*>(this);
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++refs); }
  STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--refs); }
  STDMETHODIMP Connect(IUnknown* server) override {
    connectedTo = server;
    return m_connectResult;
  }
  STDMETHODIMP_(void) Disconnect() override {}
  STDMETHODIMP Invoke(RPCOLEMESSAGE*, IRpcChannelBuffer*) override { return E_NOTIMPL; }
  STDMETHODIMP_(IRpcStubBuffer*) IsIIDSupported(REFIID) override { return nullptr; }
  STDMETHODIMP_(ULONG) CountRefs() override { return 0; }
  STDMETHODIMP DebugServerQueryInterface(void**) override { return E_NOTIMPL; }
  STDMETHODIMP_(void) DebugServerRelease(void*) override {}

  long refs = 1;
  IUnknown* connectedTo = nullptr;

 private:
  HRESULT m_connectResult;
};

class ClassFactoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_call = {};
    g_handOut = nullptr;
    g_creationResult = S_OK;
    ASSERT_HR(S_OK, xk::module::CanUnloadNow());
  }
  void TearDown() override { EXPECT_HR(S_OK, xk::module::CanUnloadNow()); }
};

}  // namespace

TEST_F(ClassFactoryTest, TheSearchComparesAllSixteenBytesAndLeavesTheOutPointerWhenItFindsNothing) {
  void* sentinel = reinterpret_cast<void*>(0xDEADBEEF);
  void* out = sentinel;
  EXPECT_HR(CLASS_E_CLASSNOTAVAILABLE, GetClassObject(kTable, kAlmostRefusing, IID_IClassFactory, &out));
  EXPECT_EQ(sentinel, out);
  EXPECT_HR(E_POINTER, GetClassObject(kTable, kRefusing, IID_IClassFactory, nullptr));

  EXPECT_EQ(&kTable[0], xk::module::FindClassRow(kTable, kRefusing)) << "the first match wins";
  EXPECT_EQ(nullptr, xk::module::FindClassRow(kTable, kAlmostRefusing));

  out = sentinel;
  EXPECT_HR(E_NOINTERFACE, GetClassObject(kTable, kRefusing, IID_IMarshal, &out));
  EXPECT_EQ(nullptr, out);
}

TEST_F(ClassFactoryTest, AnswersItsTwoFacesWithOneIdentityAndExactCounts) {
  IClassFactory* factory = ClassObject<IClassFactory>(kRefusing, IID_IClassFactory);
  ASSERT_NE(nullptr, factory);

  void* unknown = nullptr;
  EXPECT_HR(S_OK, factory->QueryInterface(IID_IUnknown, &unknown));
  EXPECT_EQ(static_cast<void*>(factory), unknown) << "IUnknown is the IClassFactory face";
  void* buffer = nullptr;
  EXPECT_HR(S_OK, factory->QueryInterface(IID_IPSFactoryBuffer, &buffer));
  ASSERT_NE(nullptr, buffer);
  EXPECT_NE(static_cast<void*>(factory), buffer);
  void* back = nullptr;
  EXPECT_HR(S_OK, static_cast<IPSFactoryBuffer*>(buffer)->QueryInterface(IID_IUnknown, &back));
  EXPECT_EQ(unknown, back);

  void* refused = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(E_NOINTERFACE, factory->QueryInterface(IID_IMarshal, &refused));
  EXPECT_EQ(nullptr, refused);
  EXPECT_HR(E_NOINTERFACE, factory->QueryInterface(IID_IRpcProxyBuffer, &refused));
  EXPECT_HR(E_POINTER, factory->QueryInterface(IID_IUnknown, nullptr));

  EXPECT_EQ(5u, factory->AddRef());
  EXPECT_EQ(4u, static_cast<IPSFactoryBuffer*>(buffer)->Release());
  EXPECT_EQ(3u, static_cast<IUnknown*>(back)->Release());
  EXPECT_EQ(2u, static_cast<IUnknown*>(buffer)->Release());
  EXPECT_EQ(1u, static_cast<IUnknown*>(unknown)->Release());
  EXPECT_HR(S_OK, xk::module::CanUnloadNow()) << "a class object is no module object";
  EXPECT_EQ(0u, factory->Release());
}

TEST_F(ClassFactoryTest, CreateInstanceHandsTheRowAndTheObjectCountToTheCreationFunction) {
  xk::module::g_module.objectCount = 0;
  IClassFactory* factory = ClassObject<IClassFactory>(kAggregatable, IID_IClassFactory);
  ASSERT_NE(nullptr, factory);

  EXPECT_HR(E_POINTER, factory->CreateInstance(nullptr, IID_IUnknown, nullptr));
  IUnknown* object = reinterpret_cast<IUnknown*>(0xDEADBEEF);
  FakeUnknown outer;
  ASSERT_HR(S_OK, factory->CreateInstance(&outer, IID_IUnknown, reinterpret_cast<void**>(&object)));
  EXPECT_EQ(&kAggregatable, g_call.id) << "the row's own identifier";
  EXPECT_EQ(&outer, g_call.outer);
  EXPECT_EQ(&xk::module::g_module.objectCount, g_call.objectCount);
  EXPECT_EQ(IID_IUnknown, g_call.riid);
  EXPECT_HR(S_FALSE, xk::module::CanUnloadNow()) << "the object holds the module";
  EXPECT_EQ(0u, object->Release());
  EXPECT_HR(S_OK, xk::module::CanUnloadNow());

  object = reinterpret_cast<IUnknown*>(0xDEADBEEF);
  EXPECT_HR(E_NOINTERFACE, factory->CreateInstance(nullptr, IID_IStream, reinterpret_cast<void**>(&object)));
  EXPECT_EQ(nullptr, object) << "the creation function's answer is passed on";
  EXPECT_EQ(0u, factory->Release());
}

TEST_F(ClassFactoryTest, CreateInstanceRefusesAnOuterUnknownOnARowThatCannotBeAggregated) {
  IClassFactory* factory = ClassObject<IClassFactory>(kRefusing, IID_IClassFactory);
  ASSERT_NE(nullptr, factory);
  FakeUnknown outer;
  void* object = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(CLASS_E_NOAGGREGATION, factory->CreateInstance(&outer, IID_IUnknown, &object));
  EXPECT_EQ(nullptr, object);
  EXPECT_EQ(0, g_call.calls);
  EXPECT_EQ(1, outer.refs);

  ASSERT_HR(S_OK, factory->CreateInstance(nullptr, IID_IUnknown, &object));
  EXPECT_EQ(0u, static_cast<IUnknown*>(object)->Release());
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
  EXPECT_EQ(0, xk::module::g_module.lockCount);
  EXPECT_HR(S_OK, xk::module::CanUnloadNow());

  // An unbalanced unlock still changes the count.
  EXPECT_HR(E_UNEXPECTED, factory->LockServer(FALSE));
  EXPECT_EQ(-1, xk::module::g_module.lockCount);
  EXPECT_HR(E_UNEXPECTED, factory->LockServer(TRUE));
  EXPECT_EQ(0, xk::module::g_module.lockCount);

  // Locks from several threads at once are all counted.
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([factory] {
      for (int i = 0; i < 1000; ++i) factory->LockServer(TRUE);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(4000, xk::module::g_module.lockCount);
  threads.clear();
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([factory] {
      for (int i = 0; i < 1000; ++i) factory->LockServer(FALSE);
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(0, xk::module::g_module.lockCount);
  EXPECT_EQ(0u, factory->Release());
}

TEST_F(ClassFactoryTest, EveryRowAnswersAsAProxyStubFactory) {
  IPSFactoryBuffer* buffer = ClassObject<IPSFactoryBuffer>(kRefusing, IID_IPSFactoryBuffer);
  ASSERT_NE(nullptr, buffer);
  EXPECT_EQ(0u, buffer->Release());
}

TEST_F(ClassFactoryTest, CreateProxyHandsOutTheProxyAndTheInterfaceOrNeither) {
  IPSFactoryBuffer* buffer = ClassObject<IPSFactoryBuffer>(kProxyStub, IID_IPSFactoryBuffer);
  ASSERT_NE(nullptr, buffer);
  FakeUnknown outer;
  IRpcProxyBuffer* proxy = nullptr;
  void* object = nullptr;
  EXPECT_HR(E_POINTER, buffer->CreateProxy(nullptr, IID_IUnknown, &proxy, &object));
  EXPECT_HR(E_POINTER, buffer->CreateProxy(&outer, IID_IUnknown, nullptr, &object));
  EXPECT_HR(E_POINTER, buffer->CreateProxy(&outer, IID_IUnknown, &proxy, nullptr));

  FakeUnknown made(IID_IRpcProxyBuffer);
  g_handOut = &made;
  ASSERT_HR(S_OK, buffer->CreateProxy(&outer, IID_IUnknown, &proxy, &object));
  EXPECT_EQ(&outer, g_call.outer);
  EXPECT_EQ(nullptr, g_call.objectCount) << "a proxy does not hold the module";
  EXPECT_EQ(IID_IUnknown, g_call.riid);
  EXPECT_EQ(static_cast<void*>(&made), static_cast<void*>(proxy));
  EXPECT_EQ(static_cast<void*>(&made), object);
  EXPECT_EQ(3, made.refs) << "one reference each in proxy and object; the creation one released";
  made.refs = 1;

  proxy = reinterpret_cast<IRpcProxyBuffer*>(0xDEADBEEF);
  object = reinterpret_cast<void*>(0xDEADBEEF);
  EXPECT_HR(E_NOINTERFACE, buffer->CreateProxy(&outer, IID_IStream, &proxy, &object));
  EXPECT_EQ(nullptr, proxy);
  EXPECT_EQ(nullptr, object);
  EXPECT_EQ(1, made.refs) << "a failed call leaves no reference behind";

  FakeUnknown noProxy(IID_IStream);
  g_handOut = &noProxy;
  EXPECT_HR(E_NOINTERFACE, buffer->CreateProxy(&outer, IID_IStream, &proxy, &object));
  EXPECT_EQ(nullptr, proxy);
  EXPECT_EQ(1, noProxy.refs);

  g_handOut = nullptr;
  g_creationResult = E_OUTOFMEMORY;
  EXPECT_HR(E_OUTOFMEMORY, buffer->CreateProxy(&outer, IID_IUnknown, &proxy, &object));
  EXPECT_EQ(0u, buffer->Release());
}

TEST_F(ClassFactoryTest, CreateStubConnectsTheServerAndDropsAStubThatRefusesIt) {
  IPSFactoryBuffer* buffer = ClassObject<IPSFactoryBuffer>(kProxyStub, IID_IPSFactoryBuffer);
  ASSERT_NE(nullptr, buffer);
  EXPECT_HR(E_POINTER, buffer->CreateStub(IID_IUnknown, nullptr, nullptr));

  FakeStub stub(S_OK);
  g_handOut = &stub;
  FakeUnknown server;
  IRpcStubBuffer* made = nullptr;
  ASSERT_HR(S_OK, buffer->CreateStub(IID_IRpcStubBuffer, &server, &made));
  EXPECT_EQ(&stub, made);
  EXPECT_EQ(&server, stub.connectedTo);
  EXPECT_EQ(nullptr, g_call.outer);
  EXPECT_EQ(nullptr, g_call.objectCount);
  EXPECT_EQ(IID_IRpcStubBuffer, g_call.riid);
  EXPECT_EQ(2, stub.refs);

  FakeStub refusing(E_ACCESSDENIED);
  g_handOut = &refusing;
  made = reinterpret_cast<IRpcStubBuffer*>(0xDEADBEEF);
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
  DebugOutputCapture capture;
  FakeUnknown outer;
  void* object = reinterpret_cast<void*>(0xDEADBEEF);
  IRpcProxyBuffer* proxy = nullptr;
  IRpcStubBuffer* stub = reinterpret_cast<IRpcStubBuffer*>(0xDEADBEEF);
  EXPECT_HR(E_UNEXPECTED, factory->CreateInstance(nullptr, IID_IUnknown, &object));
  EXPECT_EQ(nullptr, object);
  EXPECT_HR(E_UNEXPECTED, factory->CreateProxy(&outer, IID_IUnknown, &proxy, &object));
  EXPECT_HR(E_UNEXPECTED, factory->CreateStub(IID_IUnknown, &outer, &stub));
  EXPECT_EQ(nullptr, stub);
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(AssertionReport{"MOFactry", 248, "m_pItem"},
                          AssertionReport{"MOFactry", 299, "m_pItem"},
                          AssertionReport{"MOFactry", 346, "m_pItem"}));
  EXPECT_EQ(0u, factory->Release());
}
