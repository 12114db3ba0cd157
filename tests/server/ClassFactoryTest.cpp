// The class object and the class-table search, from the library's own objects,
// over rows of this suite (the library's real rows come with their classes).
#include <gmock/gmock.h>

#include <thread>
#include <tuple>
#include <vector>

#include "DebugOutput.h"
#include "FakeUnknown.h"
#include "HResult.h"
#include "server/ClassFactory.h"
#include "server/ModuleState.h"

using ::testing::ElementsAre;
using xk::server::g_module;
using xk::server::GetClassObject;
using xktest::FakeUnknown;

namespace {

void* const kSentinel = reinterpret_cast<void*>(0xDEADBEEF);

// The arguments of the last creation call. A call hands out g_handOut queried
// for riid, or answers g_creationResult when there is none.
struct {
  const GUID* id;
  IUnknown* outer;
  LONG* objectCount;
  IID riid;
  int calls;
} g_call;
IUnknown* g_handOut = nullptr;
HRESULT g_creationResult = S_OK;
HRESULT Create(REFCLSID id, IUnknown* outer, LONG* objectCount, REFIID riid, void** ppv) {
  g_call = {&id, outer, objectCount, riid, g_call.calls + 1};
  return g_handOut ? g_handOut->QueryInterface(riid, ppv) : g_creationResult;
}

constexpr GUID kRefusing = {0x5A5E7E57, 0xFAC7, 0x0001, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID kAggregatable = {0x5A5E7E57, 0xFAC7, 0x0002, {1, 2, 3, 4, 5, 6, 7, 8}};
constexpr GUID kAlmostRefusing = {0x5A5E7E57, 0xFAC7, 0x0001, {1, 2, 3, 4, 5, 6, 7, 9}};
// The third row is never reached: the first match wins.
const xk::server::ClassRow kTable[] = {{&kRefusing, Create, xk::server::kNoAggregation},
                                       {&kAggregatable, Create, 0},
                                       {&kRefusing, Create, 0},
                                       {}};

// A stub whose Connect answers as told and which counts its references.
struct FakeStub : IRpcStubBuffer {
  explicit FakeStub(HRESULT connectResult) : connectResult(connectResult) {}
  STDMETHODIMP QueryInterface(REFIID, void** ppv) override { return *ppv = this, AddRef(), S_OK; }
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

// Every test starts from the class object of an aggregatable row, held once
// through each face, and ends with both released to exactly nothing.
class ClassFactoryTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { InitializeCriticalSection(&g_module.lock); }  // as attach does
  void SetUp() override {
    g_call = {}, g_handOut = nullptr, g_creationResult = S_OK;
    ASSERT_HR(S_OK, GetClassObject(kTable, kAggregatable, IID_PPV_ARGS(&m_factory)));
    ASSERT_HR(S_OK, m_factory->QueryInterface(IID_PPV_ARGS(&m_buffer)));
  }
  void TearDown() override {
    if (!m_buffer) return;
    EXPECT_EQ(1u, m_buffer->Release());
    EXPECT_EQ(0u, m_factory->Release());
    EXPECT_HR(S_OK, xk::server::CanUnloadNow());
  }
  IClassFactory* m_factory = nullptr;
  IPSFactoryBuffer* m_buffer = nullptr;
  FakeUnknown m_outer;
  void* m_object = kSentinel;
};

}  // namespace

TEST_F(ClassFactoryTest, TheSearchMatchesAllSixteenBytesAndLeavesTheOutPointerWhenItFindsNothing) {
  EXPECT_HR(CLASS_E_CLASSNOTAVAILABLE,
            GetClassObject(kTable, kAlmostRefusing, IID_IClassFactory, &m_object));
  EXPECT_EQ(kSentinel, m_object);
  EXPECT_HR(E_NOINTERFACE, GetClassObject(kTable, kRefusing, IID_IMarshal, &m_object));
  EXPECT_EQ(nullptr, m_object);
}

TEST_F(ClassFactoryTest, EveryMethodRefusesAMissingOutPointer) {
  IRpcProxyBuffer* proxy = nullptr;
  const HRESULT answers[] = {GetClassObject(kTable, kRefusing, IID_IClassFactory, nullptr),
                             m_factory->QueryInterface(IID_IUnknown, nullptr),
                             m_factory->CreateInstance(nullptr, IID_IUnknown, nullptr),
                             m_buffer->CreateProxy(nullptr, IID_IUnknown, &proxy, &m_object),
                             m_buffer->CreateProxy(&m_outer, IID_IUnknown, nullptr, &m_object),
                             m_buffer->CreateProxy(&m_outer, IID_IUnknown, &proxy, nullptr),
                             m_buffer->CreateStub(IID_IUnknown, nullptr, nullptr)};
  for (const HRESULT& hr : answers) EXPECT_HR(E_POINTER, hr) << "call " << &hr - answers;
  EXPECT_EQ(0, g_call.calls);
}

TEST_F(ClassFactoryTest, AnswersItsTwoFacesWithOneIdentityAndOneCount) {
  IUnknown *unknown = nullptr, *back = nullptr;
  EXPECT_HR(S_OK, m_factory->QueryInterface(IID_PPV_ARGS(&unknown)));
  EXPECT_HR(S_OK, m_buffer->QueryInterface(IID_PPV_ARGS(&back)));
  EXPECT_THAT((std::vector<void*>{unknown, back, m_buffer}),
              ElementsAre(m_factory, m_factory, ::testing::Ne(m_factory)));
  EXPECT_THAT((std::vector<ULONG>{m_factory->AddRef(), m_buffer->Release(), back->Release(),
                                  unknown->Release()}),
              ElementsAre(5u, 4u, 3u, 2u));
}

TEST_F(ClassFactoryTest, CreateInstanceHandsTheRowAndTheObjectCountOnAndRefusesAnUnwantedOuter) {
  FakeUnknown made;
  g_handOut = &made;
  ASSERT_HR(S_OK, m_factory->CreateInstance(&m_outer, IID_IUnknown, &m_object));
  EXPECT_EQ(std::make_tuple(&kAggregatable, &m_outer, &g_module.objectCount, IID_IUnknown),
            std::make_tuple(g_call.id, g_call.outer, g_call.objectCount, g_call.riid))
      << "the row's own identifier, the outer, the module's object count and the interface";
  EXPECT_EQ(static_cast<void*>(&made), m_object);
  EXPECT_EQ(2, made.refs);
  m_object = kSentinel;
  EXPECT_HR(E_NOINTERFACE, m_factory->CreateInstance(nullptr, IID_IStream, &m_object));
  EXPECT_EQ(nullptr, m_object) << "the creation function's answer is passed on";

  IClassFactory* refusing = nullptr;
  ASSERT_HR(S_OK, GetClassObject(kTable, kRefusing, IID_PPV_ARGS(&refusing)));
  m_object = kSentinel;
  EXPECT_HR(CLASS_E_NOAGGREGATION, refusing->CreateInstance(&m_outer, IID_IUnknown, &m_object));
  EXPECT_EQ(nullptr, m_object);
  EXPECT_EQ(2, g_call.calls) << "the refused outer made nothing";
  EXPECT_EQ(1, m_outer.refs);
  EXPECT_HR(S_OK, refusing->CreateInstance(nullptr, IID_IUnknown, &m_object));
  EXPECT_EQ(3, made.refs);
  EXPECT_EQ(0u, refusing->Release());
}

TEST_F(ClassFactoryTest, LockServerMovesDllCanUnloadNowAndTheLastUnlockAnswersUnexpected) {
  EXPECT_HR(S_OK, m_factory->LockServer(TRUE));
  EXPECT_HR(S_FALSE, xk::server::CanUnloadNow());
  EXPECT_HR(S_OK, m_factory->LockServer(TRUE));
  EXPECT_HR(S_OK, m_factory->LockServer(FALSE));
  EXPECT_HR(S_FALSE, xk::server::CanUnloadNow());
  EXPECT_HR(E_UNEXPECTED, m_factory->LockServer(FALSE));
  EXPECT_EQ(0, g_module.lockCount);
  EXPECT_HR(S_OK, xk::server::CanUnloadNow());
  // An unbalanced unlock still changes the count.
  EXPECT_HR(E_UNEXPECTED, m_factory->LockServer(FALSE));
  EXPECT_EQ(-1, g_module.lockCount);
  EXPECT_HR(E_UNEXPECTED, m_factory->LockServer(TRUE));
  for (BOOL lock : {TRUE, FALSE}) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
      threads.emplace_back([this, lock] {
        for (int i = 0; i < 1000; ++i) m_factory->LockServer(lock);
      });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(lock ? 4000 : 0, g_module.lockCount);
  }
}

TEST_F(ClassFactoryTest, CreateProxyAndCreateStubHandOutWhatWasMadeOrNothingAndHoldNoModule) {
  FakeUnknown made(IID_IRpcProxyBuffer), wrongIid(IID_IRpcProxyBuffer), noProxy(IID_IStream);
  FakeStub stub(S_OK), refusing(E_ACCESSDENIED), unconnected(E_ACCESSDENIED);
  // The server is a proxy's outer unknown; the count is the made object's references after.
  const struct {
    bool isStub;
    IUnknown *handOut, *server;
    HRESULT creation, expected;
    IID riid;
    ULONG refsAfter;
  } rows[] = {{false, &made, &m_outer, S_OK, S_OK, IID_IUnknown, 3},
              {false, &wrongIid, &m_outer, S_OK, E_NOINTERFACE, IID_IStream, 1},
              {false, &noProxy, &m_outer, S_OK, E_NOINTERFACE, IID_IStream, 1},
              {false, nullptr, &m_outer, E_OUTOFMEMORY, E_OUTOFMEMORY, IID_IStream, 0},
              {true, &stub, &m_outer, S_OK, S_OK, IID_IRpcStubBuffer, 2},
              {true, &refusing, &m_outer, S_OK, E_ACCESSDENIED, IID_IRpcStubBuffer, 1},
              {true, &unconnected, nullptr, S_OK, S_OK, IID_IRpcStubBuffer, 2}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    g_handOut = row.handOut, g_creationResult = row.creation, g_call = {};
    void* out[2] = {kSentinel, kSentinel};
    EXPECT_HR(
        row.expected,
        row.isStub
            ? m_buffer->CreateStub(row.riid, row.server, reinterpret_cast<IRpcStubBuffer**>(out))
            : m_buffer->CreateProxy(row.server, row.riid, reinterpret_cast<IRpcProxyBuffer**>(out),
                                    &out[1]));
    const void* expected = row.expected == S_OK ? static_cast<void*>(row.handOut) : nullptr;
    EXPECT_EQ(expected, out[0]);
    if (!row.isStub) EXPECT_EQ(expected, out[1]);
    EXPECT_EQ(row.isStub ? nullptr : row.server, g_call.outer);
    EXPECT_EQ(nullptr, g_call.objectCount);
    EXPECT_EQ(row.isStub ? row.riid : IID_IUnknown, g_call.riid)
        << "a proxy is made as an inner object";
    if (row.handOut) EXPECT_EQ(row.refsAfter, (row.handOut->AddRef(), row.handOut->Release()));
  }
  EXPECT_THAT(
      (std::vector<IUnknown*>{stub.connectedTo, refusing.connectedTo, unconnected.connectedTo}),
      ElementsAre(&m_outer, &m_outer, nullptr));
  EXPECT_EQ(1, m_outer.refs);
}

TEST_F(ClassFactoryTest, AClassObjectWithoutARowReportsItAndAnswersUnexpected) {
  xk::server::ClassFactory* factory = xk::server::ClassFactory::Create(nullptr);
  ASSERT_NE(nullptr, factory);
  xktest::DebugOutputCapture capture;
  IRpcProxyBuffer* proxy = nullptr;
  IRpcStubBuffer* stub = static_cast<IRpcStubBuffer*>(kSentinel);
  EXPECT_HR(E_UNEXPECTED, factory->CreateInstance(nullptr, IID_IUnknown, &m_object));
  EXPECT_HR(E_UNEXPECTED, factory->CreateProxy(&m_outer, IID_IUnknown, &proxy, &m_object));
  EXPECT_HR(E_UNEXPECTED, factory->CreateStub(IID_IUnknown, &m_outer, &stub));
  EXPECT_EQ(nullptr, m_object);
  EXPECT_EQ(nullptr, stub);
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(xktest::AssertionReport{"MOFactry", 248, "m_pItem"},
                          xktest::AssertionReport{"MOFactry", 299, "m_pItem"},
                          xktest::AssertionReport{"MOFactry", 346, "m_pItem"}));
  EXPECT_EQ(0u, factory->Release());
}
