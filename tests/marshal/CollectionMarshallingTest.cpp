// The GUID collections' own proxy/stub pair, through a recording channel and
// between two apartments. The library is registered only while the program
// runs, so that the prefix's registry is left as it was found.
#include <gmock/gmock.h>
#include <xkcombsd/Collections.h>

#include <functional>
#include <thread>
#include <tuple>
#include <vector>

#include "ComTest.h"
#include "DebugOutput.h"
#include "FakeUnknown.h"
#include "Mutations.h"
#include "TestStreams.h"

namespace {

using testing::ElementsAre;
using xktest::AssertionReport;
using Bytes = std::vector<BYTE>;
using Reports = std::vector<AssertionReport>;
constexpr auto Out = [](auto** p) { return reinterpret_cast<void**>(p); };

GUID G(int i) { return {0x1000u + i, 0x22, 0x33, {BYTE(i), 5, 6, 7, 8, 9, 10, 11}}; }
const GUID kGuids[4] = {G(0), G(1), G(2), G(3)};
const IID* const kIids[2] = {&IID_IQvEnumGUID, &IID_ISeqGUID};

class Registered : public testing::Environment {
  void SetUp() override { ASSERT_HR(S_OK, DllRegisterServer()); }
  void TearDown() override { EXPECT_HR(S_OK, DllUnregisterServer()); }
};
testing::Environment* const kRegistered = testing::AddGlobalTestEnvironment(new Registered);

// A message: the header with flag, then 32-bit words and GUIDs as given.
struct Msg {
  explicit Msg(BYTE flag = 0) : bytes{flag, 1, 0, 0} {}
  Msg& U32(ULONG v) { return Raw(&v, 4); }
  Msg& Guids(int from, int n) { return Raw(&kGuids[from], n * sizeof(GUID)); }
  Msg& Raw(const void* p, size_t n) {
    bytes.insert(bytes.end(), static_cast<const BYTE*>(p), static_cast<const BYTE*>(p) + n);
    return *this;
  }
  Msg& Cut() { return bytes.clear(), *this; }
  Bytes bytes;
};

Bytes Of(const RPCOLEMESSAGE& msg) {
  return Bytes(static_cast<BYTE*>(msg.Buffer), static_cast<BYTE*>(msg.Buffer) + msg.cbBuffer);
}

// Carries each request to the stub of the interface it was sent for and
// records both messages; a canned reply, when set, answers instead.
class RecordingChannel : public IRpcChannelBuffer {
 public:
  STDMETHODIMP QueryInterface(REFIID, void** ppv) override { return *ppv = nullptr, E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  // A buffer larger than any of these tests sends is refused, as a channel
  // short of memory would: a hostile count must not cost gigabytes here.
  STDMETHODIMP GetBuffer(RPCOLEMESSAGE* msg, REFIID iid) override {
    if (msg->cbBuffer > 1u << 20) return E_OUTOFMEMORY;
    m_iid = iid;
    msg->Buffer = m_held.emplace_back(msg->cbBuffer, 0xCC).data();
    return S_OK;
  }
  STDMETHODIMP SendReceive(RPCOLEMESSAGE* msg, ULONG* status) override {
    *status = 0;
    if (canned.empty()) return Deliver(m_iid == IID_ISeqGUID ? stubs[1] : stubs[0], msg);
    sent = Of(*msg);
    replied = canned;
    msg->Buffer = guarded.Place(canned);
    msg->cbBuffer = static_cast<ULONG>(canned.size());
    return S_OK;
  }
  STDMETHODIMP FreeBuffer(RPCOLEMESSAGE*) override { return ++freed, S_OK; }
  STDMETHODIMP GetDestCtx(DWORD*, void**) override { return E_NOTIMPL; }
  STDMETHODIMP IsConnected() override { return S_OK; }

  HRESULT Deliver(IRpcStubBuffer* stub, RPCOLEMESSAGE* msg) {
    sent = Of(*msg);
    const IID requested = stub == stubs[1] ? IID_ISeqGUID : IID_IQvEnumGUID;
    const void* request = msg->Buffer;
    const HRESULT hr = stub->Invoke(msg, this);
    replied = msg->Buffer == request ? Bytes() : Of(*msg);
    if (!replied.empty()) EXPECT_EQ(requested, m_iid) << "the reply's interface";
    return hr;
  }

  // Canned replies, and requests the test hands to a stub, end where a page
  // nobody may touch begins, so that reading one byte past one faults.
  struct GuardedPages {
    static constexpr SIZE_T kRoom = 1 << 16, kPage = 4096;
    GuardedPages()
        : base(static_cast<BYTE*>(
              VirtualAlloc(nullptr, kRoom + kPage, MEM_COMMIT, PAGE_READWRITE))) {
      DWORD was;
      VirtualProtect(base + kRoom, kPage, PAGE_NOACCESS, &was);
    }
    ~GuardedPages() { VirtualFree(base, 0, MEM_RELEASE); }
    BYTE* Place(const Bytes& bytes) const {
      return std::copy(bytes.begin(), bytes.end(), base + kRoom - bytes.size()) - bytes.size();
    }
    BYTE* const base;
  } guarded;
  IRpcStubBuffer* stubs[2] = {};
  ULONG refs = 1;
  int freed = 0;
  Bytes sent, replied, canned;

 private:
  IID m_iid = GUID_NULL;
  std::vector<Bytes> m_held;
};

// Both proxies, with their faces aggregated into `outer`, connected through
// the channel to both stubs over one EnumGUID of four GUIDs.
class PairTest : public xktest::ComTest<COINIT_MULTITHREADED> {
 protected:
  void SetUp() override {
    ComTest::SetUp();
    ASSERT_HR(S_OK, EnumGUID_Create(kGuids, 4, &server));
    for (int i = 0; i < 2; ++i) {
      IPSFactoryBuffer* factory = nullptr;
      ASSERT_HR(S_OK, DllGetClassObject(*kIids[i], IID_IPSFactoryBuffer, Out(&factory)));
      EXPECT_HR(S_OK, factory->CreateStub(*kIids[i], server, &channel.stubs[i]));
      EXPECT_HR(S_OK, factory->CreateProxy(&outer, *kIids[i], &proxies[i], &faces[i]));
      factory->Release();
      EXPECT_HR(S_OK, proxies[i]->Connect(&channel));
    }
  }
  void TearDown() override {
    for (int i = 0; i < 2; ++i) {
      static_cast<IUnknown*>(faces[i])->Release();
      EXPECT_EQ(0u, proxies[i]->Release());
      EXPECT_EQ(0u, channel.stubs[i]->Release());
    }
    EXPECT_EQ(1, outer.refs);
    EXPECT_EQ(1u, channel.refs);
    EXPECT_EQ(0u, server->Release());
    ComTest::TearDown();
  }
  IEnumGUID* Enum() { return static_cast<IEnumGUID*>(faces[0]); }
  ISeqGUID* Seq() { return static_cast<ISeqGUID*>(faces[1]); }
  // Hands a request for slot straight to a stub, as the platform would.
  HRESULT Invoke(int stub, ULONG slot, Msg request) {
    RPCOLEMESSAGE msg = {nullptr, 0, request.bytes.data(), ULONG(request.bytes.size()), slot};
    return channel.Deliver(channel.stubs[stub], &msg);
  }

  xktest::FakeUnknown outer;
  RecordingChannel channel;
  IEnumGUID* server = nullptr;
  IRpcProxyBuffer* proxies[2] = {};
  void* faces[2] = {};
};

// One call each, in order over the same server: what the proxy sends, what
// the stub answers (kNone: nothing sent, or no reply) and the line of the
// report "0" made, if any. A canned row is answered with its reply instead
// of the stub.
struct Exchange {
  std::function<HRESULT()> call;
  HRESULT hr;
  Msg request, reply;
  bool canned = false;
  int reportLine = 0;
  const char* reportFile = "MOPSGuid";
};

TEST_F(PairTest, EveryMethodSendsAndRepliesExactBytes) {
  IEnumGUID* const e = Enum();
  ISeqGUID* const s = Seq();
  GUID got[5] = {};
  ULONG n = 0xDEADBEEF, position = 0xDEADBEEF;
  long count = -1;
  IEnumGUID *clone = nullptr, *refused = nullptr;
  const auto next = [&](ULONG celt, ULONG expected) {
    const HRESULT hr = e->Next(celt, got, &n);
    EXPECT_EQ(expected, n);
    return hr;
  };
  const Msg kNone = Msg().Cut();
  const Exchange exchanges[] = {
      {[&] { return e->Skip(1); }, S_OK, Msg().U32(1), Msg().U32(S_OK)},
      {[&] { return e->Next(2, got, nullptr); }, E_INVALIDARG, kNone, kNone},
      {[&] { return next(5, 3); }, S_FALSE, Msg().U32(5), Msg().U32(S_FALSE).U32(3).Guids(1, 3)},
      {[&] { return e->Reset(); }, S_OK, Msg(), Msg().U32(S_OK)},
      {[&] { return e->Skip(2); }, S_OK, Msg().U32(2), Msg().U32(S_OK)},
      {[&] { return e->Clone(&clone); }, S_OK, Msg(1), Msg(1).U32(S_OK).U32(4).U32(2).Guids(0, 4)},
      {[&] { return s->Count(&count); }, S_OK, Msg(), Msg().U32(S_OK).U32(4)},
      {[&] { return s->Add(kGuids, 2); }, S_OK, Msg().U32(2).Guids(0, 2), Msg().U32(S_OK)},
      {[&] { return s->GetPosition(&position); }, S_OK, Msg(), Msg().U32(S_OK).U32(2)},
      {[&] { return s->SetPosition(-1); }, E_INVALIDARG, Msg().U32(~0u), Msg().U32(E_INVALIDARG)},
      {[&] { return s->RemoveAt(0); }, S_OK, Msg().U32(0), Msg().U32(S_OK)},
      {[&] { return s->Empty(); }, S_OK, Msg(), Msg().U32(S_OK)},
      {[&] { return s->_NewEnum(&refused); }, E_NOTIMPL, Msg(), kNone, false, 501},
      {[&] { return s->InsertAt(0, kGuids, 1); }, E_NOTIMPL, kNone, kNone, false, 473},
      {[&] { return s->SetAt(0, kGuids); }, E_NOTIMPL, kNone, kNone, false, 494},
      {[&] { return Invoke(1, 10, Msg()); }, E_UNEXPECTED, Msg(), kNone, false, 457},
      {[&] { return Invoke(1, 11, Msg()); }, E_NOTIMPL, Msg(), kNone, false, 480},
      {[&] { return Invoke(1, 12, Msg()); }, E_UNEXPECTED, Msg(), kNone, false, 269, "MOPSSqXX"},
      {[&] { return Invoke(0, 7, Msg()); }, E_UNEXPECTED, Msg(), kNone, false, 252, "MOPSEnXX"},
      {[&] { return Invoke(0, 6, Msg(2)); }, E_UNEXPECTED, Msg(2), kNone},
      {[&] { return next(2, 2); }, S_FALSE, Msg().U32(2), Msg().U32(S_FALSE).U32(5).Guids(0, 3),
       true},
      {[&] { return next(1, 0); }, E_FAIL, Msg().U32(1), Msg().U32(E_FAIL).U32(1).Guids(2, 1),
       true},
      {[&] { return e->Clone(&refused); }, RPC_E_CLIENT_CANTUNMARSHAL_DATA, Msg(1),
       Msg(0).U32(S_OK).U32(0), true},
      {[&] { return e->Clone(&refused); }, RPC_E_SERVER_CANTUNMARSHAL_DATA, Msg(1),
       Msg(2).U32(S_OK), true},
  };
  for (const Exchange& x : exchanges) {
    SCOPED_TRACE(&x - exchanges);
    xktest::DebugOutputCapture capture;
    channel.sent.clear(), channel.replied.clear(), channel.freed = 0;
    channel.canned = x.canned ? x.reply.bytes : Bytes();
    EXPECT_HR(x.hr, x.call());
    EXPECT_EQ(x.request.bytes, channel.sent);
    EXPECT_EQ(x.reply.bytes, channel.replied);
    EXPECT_EQ(x.reply.bytes.empty() ? 0 : 1, channel.freed);
    const Reports reports = {{x.reportFile, x.reportLine, "0"}};
    EXPECT_EQ(x.reportLine ? reports : Reports(), capture.Assertions());
    EXPECT_EQ(nullptr, refused);
  }
  EXPECT_THAT(got, ElementsAre(kGuids[0], kGuids[1], kGuids[3], GUID{}, GUID{}))
      << "a failure's results are not read; only the items asked for are";
  ASSERT_NE(nullptr, clone);
  EXPECT_EQ(0u, clone->Release());
}

// The other side may be another process: mutants of the replies the proxies
// read and of the requests the stubs read must each get a code, fill no more
// than was asked, hand out nothing on failure, free every reply once and leave
// the server's references as they were.
TEST_F(PairTest, MutatedRepliesAndRequestsAnswerACodeAndLeakNothing) {
  GUID got[6];
  const auto next = [&]() -> std::string {
    ULONG n = 0xDEADBEEF;
    got[5] = G(99);
    const HRESULT hr = Enum()->Next(5, got, &n);
    if (got[5] != G(99)) return "wrote past the items";
    return (FAILED(hr) ? n != 0 : n > 5) ? "counted " + std::to_string(n) : "";
  };
  const auto clone = [&]() -> std::string {
    IEnumGUID* clone = reinterpret_cast<IEnumGUID*>(1);
    const HRESULT hr = Enum()->Clone(&clone);
    if (FAILED(hr)) return clone ? "handed out a clone" : "";
    return clone && clone->Release() == 0 ? "" : "handed out a clone it keeps";
  };
  const auto count = [&]() -> std::string {
    long n = -1;
    return FAILED(Seq()->Count(&n)) && n != 0 ? "left a failed count" : "";
  };
  const std::tuple<Msg, std::vector<size_t>, std::function<std::string()>> replies[] = {
      {Msg().U32(S_FALSE).U32(3).Guids(1, 3), {8}, next},
      {Msg(1).U32(S_OK).U32(4).U32(2).Guids(0, 4), {8, 12}, clone},
      {Msg().U32(S_OK).U32(4), {4, 8}, count},
  };
  const std::tuple<Msg, std::vector<size_t>, int, ULONG> requests[] = {
      {Msg().U32(5), {4}, 0, 3}, {Msg().U32(1), {4}, 0, 4},
      {Msg(1), {}, 0, 6},        {Msg().U32(2).Guids(0, 2), {4}, 1, 4},
      {Msg().U32(1), {4}, 1, 8},
  };
  const ULONG serverRefs = (server->AddRef(), server->Release());
  unsigned failures = 0;
  for (unsigned i = 0; i < 3000; ++i) {
    std::string wrong;
    const unsigned mutant = i / 2 / 15;  // 15 = 3 replies x 5 requests
    if (i % 2 == 0) {
      const auto& [seed, counts, call] = replies[i / 2 % std::size(replies)];
      channel.canned = xktest::Mutant({seed.bytes, counts}, mutant);
      if (channel.canned.empty()) channel.canned.push_back(0);  // empty means "no canned reply"
      channel.freed = 0;
      wrong = call();
      if (channel.freed != 1)
        wrong += " freed the reply " + std::to_string(channel.freed) + " times";
    } else {
      const auto& [seed, counts, stub, slot] = requests[i / 2 % std::size(requests)];
      channel.canned.clear();
      const Bytes request = xktest::Mutant({seed.bytes, counts}, mutant);
      RPCOLEMESSAGE msg = {nullptr, 0, channel.guarded.Place(request), ULONG(request.size()), slot};
      channel.Deliver(channel.stubs[stub], &msg);
    }
    if (!wrong.empty() && ++failures <= 10) ADD_FAILURE() << "case " << i << ": " << wrong;
  }
  channel.canned.clear();
  EXPECT_EQ(0u, failures);
  EXPECT_EQ(serverRefs, (server->AddRef(), server->Release()));
}

TEST_F(PairTest, ConnectsOnceAndWithoutAPeerAnswersNotConnected) {
  EXPECT_EQ(3, outer.refs) << "each face's reference is the outer unknown's";
  for (int i = 0; i < 2; ++i) {
    EXPECT_HR(E_UNEXPECTED, proxies[i]->Connect(&channel));
    EXPECT_HR(E_UNEXPECTED, channel.stubs[i]->Connect(server));
    proxies[i]->Disconnect(), channel.stubs[i]->Disconnect();
  }
  EXPECT_HR(CO_E_OBJNOTCONNECTED, Enum()->Reset());
  EXPECT_HR(CO_E_OBJNOTCONNECTED, Seq()->Empty());
  EXPECT_HR(CO_E_OBJNOTCONNECTED, Invoke(0, 5, Msg()));
}

// An IEnumGUID without ISeqGUID, so that its clones must travel by reference.
struct EnumOnly : IEnumGUID {
  explicit EnumOnly(IEnumGUID* adopted) : inner(adopted) {}
  ~EnumOnly() { inner->Release(); }
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = iid == IID_IUnknown || iid == IID_IQvEnumGUID ? this : nullptr;
    return *ppv ? (AddRef(), S_OK) : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs ? refs : (delete this, 0); }
  STDMETHODIMP Next(ULONG c, GUID* g, ULONG* n) override { return inner->Next(c, g, n); }
  STDMETHODIMP Skip(ULONG c) override { return inner->Skip(c); }
  STDMETHODIMP Reset() override { return inner->Reset(); }
  STDMETHODIMP Clone(IEnumGUID** pp) override { return inner->Clone(pp); }
  ULONG refs = 1;  // counted on the server thread only
  IEnumGUID* const inner;
};

// An STA thread serving two EnumGUIDs of four GUIDs, the second behind
// EnumOnly, until the test ends; the test thread, in the MTA, holds a proxy of
// each, unmarshalled through the library's registration.
class ApartmentTest : public xktest::ComTest<COINIT_MULTITHREADED> {
 protected:
  void SetUp() override {
    ComTest::SetUp();
    IStream* streams[2] = {};
    HANDLE ready = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    m_server = std::thread([&] {
      CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
      for (int i = 0; i < 2; ++i) {
        IEnumGUID* e = nullptr;
        EnumGUID_Create(kGuids, 4, &e);
        e->QueryInterface(IID_ISeqGUID, Out(&serverSeqs[i]));
        IEnumGUID* served = i ? new EnumOnly(e) : e;
        CoMarshalInterThreadInterfaceInStream(IID_IQvEnumGUID, served, &streams[i]);
        served->Release();
      }
      m_threadId = GetCurrentThreadId();
      SetEvent(ready);
      MSG message;
      while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
      for (ISeqGUID* seq : serverSeqs) seq->Release();
      CoUninitialize();
    });
    WaitForSingleObject(ready, INFINITE);
    CloseHandle(ready);
    for (int i = 0; i < 2; ++i)
      ASSERT_HR(S_OK,
                CoGetInterfaceAndReleaseStream(streams[i], IID_IQvEnumGUID, Out(&proxies[i])));
  }
  void TearDown() override {
    for (IEnumGUID* proxy : proxies)
      if (proxy) EXPECT_EQ(0u, proxy->Release());
    PostThreadMessageW(m_threadId, WM_QUIT, 0, 0);
    m_server.join();
    ComTest::TearDown();
  }
  // The servers are free-threaded: asked from here, not through the proxies.
  ULONG ServerPosition(int i) {
    ULONG position = 0xDEADBEEF;
    serverSeqs[i]->GetPosition(&position);
    return position;
  }
  static bool IsProxy(IUnknown* object) {
    IUnknown* remote = nullptr;
    if (FAILED(object->QueryInterface(IID_IMultiQI, Out(&remote)))) return false;
    return remote->Release(), true;
  }

  IEnumGUID* proxies[2] = {};
  ISeqGUID* serverSeqs[2] = {};

 private:
  std::thread m_server;
  DWORD m_threadId = 0;
};

// What the pair test pins of every method holds between real apartments: a
// clone by value is a local enumerator, and the sequence face is reachable.
TEST_F(ApartmentTest, ClonesByValueAndReachesTheSequence) {
  IEnumGUID* clone = nullptr;
  IUnknown* coll = nullptr;
  xktest::ComRef<ISeqGUID> seq;
  GUID got[3] = {};
  ULONG n = 0;
  long count = 0;
  EXPECT_HR(S_OK, proxies[0]->Skip(2));
  ASSERT_HR(S_OK, proxies[0]->Clone(&clone));
  EXPECT_FALSE(IsProxy(clone));
  EXPECT_HR(S_FALSE, clone->Next(3, got, &n));
  EXPECT_THAT(got, ElementsAre(kGuids[2], kGuids[3], GUID{}));
  EXPECT_EQ(0u, clone->Release());
  EXPECT_HR(E_NOINTERFACE, proxies[0]->QueryInterface(IID_ICollGUID, Out(&coll)));
  ASSERT_HR(S_OK, proxies[0]->QueryInterface(IID_ISeqGUID, Out(seq.put())));
  EXPECT_HR(S_OK, seq->Add(kGuids, 2));
  EXPECT_HR(S_OK, seq->Count(&count));
  EXPECT_EQ(6, count);
  EXPECT_EQ(2u, ServerPosition(0));
}

TEST_F(ApartmentTest, ClonesByReferenceAsAWorkingProxy) {
  xktest::DebugOutputCapture capture;
  EXPECT_HR(S_OK, proxies[1]->Skip(3));
  IEnumGUID* clone = nullptr;
  ASSERT_HR(S_OK, proxies[1]->Clone(&clone));
  EXPECT_THAT(
      capture.Assertions(),
      ElementsAre(AssertionReport{"MOPSGuid", 354, "_cannot_remember_whether_this_is_valid"}));
  EXPECT_TRUE(IsProxy(clone));
  GUID got[2] = {};
  ULONG n = 0;
  EXPECT_HR(S_FALSE, clone->Next(2, got, &n));
  EXPECT_THAT(got, ElementsAre(kGuids[3], GUID{}));
  EXPECT_HR(S_OK, clone->Reset());
  EXPECT_EQ(3u, ServerPosition(1)) << "the clone is a server object of its own";
  EXPECT_EQ(0u, clone->Release());
}

}  // namespace
