// The GUID collections' own proxy/stub pair: byte for byte against a recording
// channel, and for real between two apartments. The pair and the EnumGUID class
// are registered with the runtime in each apartment (CoRegisterClassObject,
// CoRegisterPSClsid), so the prefix's registry is never touched.
#include <gmock/gmock.h>
#include <xkcombsd/Collections.h>

#include <condition_variable>
#include <optional>
#include <thread>
#include <vector>

#include "ComTest.h"
#include "DebugOutput.h"
#include "FakeUnknown.h"

namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using xktest::AssertionReport;
using Bytes = std::vector<BYTE>;

GUID G(int i) { return {0x1000u + i, 0x22, 0x33, {BYTE(i), 5, 6, 7, 8, 9, 10, 11}}; }
const GUID kGuids[4] = {G(0), G(1), G(2), G(3)};

// A message: the header with flag, then 32-bit words and GUIDs as given.
struct Msg {
  explicit Msg(BYTE flag = 0) : bytes{flag, 1, 0, 0} {}
  Msg& U32(ULONG v) { return Raw(&v, 4); }
  Msg& Guids(int from, int n) { return Raw(&kGuids[from], n * sizeof(GUID)); }
  Msg& Raw(const void* p, size_t n) {
    bytes.insert(bytes.end(), static_cast<const BYTE*>(p), static_cast<const BYTE*>(p) + n);
    return *this;
  }
  Bytes bytes;
};

// Records every request and reply buffer; SendReceive answers with `reply`.
class RecordingChannel : public IRpcChannelBuffer {
 public:
  STDMETHODIMP QueryInterface(REFIID, void** ppv) override { return *ppv = nullptr, E_NOINTERFACE; }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP GetBuffer(RPCOLEMESSAGE* msg, REFIID iid) override {
    sizes.push_back(msg->cbBuffer);
    iids.push_back(iid);
    msg->Buffer = Hold(Bytes(msg->cbBuffer, 0xCC));
    return S_OK;
  }
  STDMETHODIMP SendReceive(RPCOLEMESSAGE* msg, ULONG* status) override {
    sent = Of(*msg);
    slots.push_back(msg->iMethod);
    *status = 0;
    msg->Buffer = Hold(reply);
    msg->cbBuffer = static_cast<ULONG>(reply.size());
    return S_OK;
  }
  STDMETHODIMP FreeBuffer(RPCOLEMESSAGE*) override { return ++freed, S_OK; }
  STDMETHODIMP GetDestCtx(DWORD* context, void** reserved) override {
    if (reserved) *reserved = nullptr;
    return *context = MSHCTX_INPROC, S_OK;
  }
  STDMETHODIMP IsConnected() override { return S_OK; }

  // The bytes of the buffer msg now points at.
  static Bytes Of(const RPCOLEMESSAGE& msg) {
    return Bytes(static_cast<BYTE*>(msg.Buffer), static_cast<BYTE*>(msg.Buffer) + msg.cbBuffer);
  }

  ULONG refs = 1;
  int freed = 0;
  Bytes sent, reply;
  std::vector<ULONG> sizes, slots;
  std::vector<IID> iids;

 private:
  void* Hold(Bytes b) { return held.emplace_back(std::move(b)).data(); }
  std::vector<Bytes> held;
};

template <class T>
void** Out(T** p) {
  return reinterpret_cast<void**>(p);
}

IPSFactoryBuffer* FactoryFor(REFIID iid) {
  IPSFactoryBuffer* factory = nullptr;
  DllGetClassObject(iid, IID_IPSFactoryBuffer, Out(&factory));
  return factory;
}

// Registers the pair and EnumGUID with the runtime for the calling apartment.
class Registrations {
 public:
  Registrations() {
    for (const IID* id : {&CLSID_QvEnumGUID, &IID_IQvEnumGUID, &IID_ISeqGUID, &IID_ICollGUID}) {
      IUnknown* factory = nullptr;
      DllGetClassObject(*id, IID_IUnknown, Out(&factory));
      CoRegisterClassObject(*id, factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE,
                            &m_cookies.emplace_back());
      factory->Release();
      if (id != &CLSID_QvEnumGUID) CoRegisterPSClsid(*id, *id);
    }
  }
  ~Registrations() {
    for (DWORD cookie : m_cookies) CoRevokeClassObject(cookie);
  }

 private:
  std::vector<DWORD> m_cookies;
};

class PairTest : public xktest::ComTest<COINIT_MULTITHREADED> {
 protected:
  void TearDown() override {
    EXPECT_EQ(1u, channel.refs);
    registrations.reset();
    ComTest::TearDown();
  }
  // A proxy of iid connected to the recording channel; *face its interface face.
  IRpcProxyBuffer* Proxy(REFIID iid, void** face) {
    IPSFactoryBuffer* factory = FactoryFor(iid);
    IRpcProxyBuffer* proxy = nullptr;
    EXPECT_HR(S_OK, factory->CreateProxy(&outer, iid, &proxy, face));
    factory->Release();
    EXPECT_HR(S_OK, proxy->Connect(&channel));
    return proxy;
  }
  void SetUp() override {
    ComTest::SetUp();
    registrations.emplace();  // rebuilds clones sent by value, marshals those sent by reference
  }
  // Calls the stub's method slot with request; the reply is left in msg.
  HRESULT Invoke(IRpcStubBuffer* stub, ULONG slot, const Msg& request) {
    request_ = request.bytes;
    msg = {};
    msg.iMethod = slot;
    msg.Buffer = request_.data();
    msg.cbBuffer = static_cast<ULONG>(request_.size());
    return stub->Invoke(&msg, &channel);
  }

  xktest::FakeUnknown outer;
  RecordingChannel channel;
  RPCOLEMESSAGE msg = {};
  Bytes request_;
  std::optional<Registrations> registrations;
};

TEST_F(PairTest, EnumProxySendsAndReadsExactBytes) {
  IEnumGUID* e = nullptr;
  IRpcProxyBuffer* proxy = Proxy(IID_IQvEnumGUID, Out(&e));
  EXPECT_EQ(2, outer.refs) << "the face's reference is the outer unknown's";
  EXPECT_HR(E_UNEXPECTED, proxy->Connect(&channel));
  GUID got[3] = {};
  ULONG n = 0xDEADBEEF;

  channel.reply = Msg().U32(S_FALSE).U32(5).Guids(1, 3).bytes;  // more than asked: 2 kept
  EXPECT_HR(S_FALSE, e->Next(2, got, &n));
  EXPECT_EQ(Msg().U32(2).bytes, channel.sent);
  EXPECT_EQ(2u, n);
  EXPECT_THAT(got, ElementsAre(kGuids[1], kGuids[2], GUID{}));
  channel.reply = Msg().U32(E_FAIL).U32(1).Guids(0, 1).bytes;
  EXPECT_HR(E_FAIL, e->Next(1, got, nullptr));
  EXPECT_EQ(kGuids[1], got[0]) << "results of a failure are not read";

  channel.reply = Msg().U32(S_FALSE).bytes;
  EXPECT_HR(S_FALSE, e->Skip(7));
  EXPECT_EQ(Msg().U32(7).bytes, channel.sent);
  channel.reply = Msg().U32(E_ABORT).bytes;
  EXPECT_HR(E_ABORT, e->Reset());
  EXPECT_EQ(Msg().bytes, channel.sent);

  IEnumGUID* clone = reinterpret_cast<IEnumGUID*>(1);
  channel.reply = Msg(1).U32(E_FAIL).U32(4).U32(2).Guids(0, 4).bytes;  // HRESULT not consulted
  ASSERT_HR(S_OK, e->Clone(&clone));
  EXPECT_EQ(Msg(1).bytes, channel.sent);
  ULONG position = 9;
  ISeqGUID* seq = nullptr;
  ASSERT_HR(S_OK, clone->QueryInterface(IID_ISeqGUID, Out(&seq)));
  EXPECT_HR(S_OK, seq->GetPosition(&position));
  EXPECT_EQ(2u, position);
  EXPECT_HR(S_OK, seq->SetPosition(0));
  EXPECT_HR(S_OK, clone->Next(3, got, &n));
  EXPECT_THAT(got, ElementsAre(kGuids[0], kGuids[1], kGuids[2]));
  EXPECT_EQ(1u, seq->Release());
  EXPECT_EQ(0u, clone->Release());

  const struct {
    Bytes reply;
    HRESULT hr;
  } clones[] = {{Msg(0).U32(E_FAIL).bytes, E_FAIL},
                {Msg(0).U32(S_OK).U32(0).bytes, RPC_E_CLIENT_CANTUNMARSHAL_DATA},
                {Msg(2).U32(S_OK).bytes, RPC_E_SERVER_CANTUNMARSHAL_DATA}};
  for (const auto& c : clones) {
    channel.reply = c.reply;
    EXPECT_HR(c.hr, e->Clone(&clone));
    EXPECT_EQ(nullptr, clone);
  }
  EXPECT_THAT(channel.slots, ElementsAre(3, 3, 4, 5, 6, 6, 6, 6));
  EXPECT_EQ(8, channel.freed);
  for (const IID& iid : channel.iids) EXPECT_EQ(IID_IQvEnumGUID, iid);

  EXPECT_HR(E_INVALIDARG, e->Next(2, got, nullptr));
  EXPECT_HR(E_POINTER, e->Next(1, nullptr, &n));
  EXPECT_HR(E_POINTER, e->Clone(nullptr));
  proxy->Disconnect();
  EXPECT_HR(CO_E_OBJNOTCONNECTED, e->Skip(1));
  EXPECT_EQ(8u, channel.slots.size()) << "refused calls send nothing";
  e->Release();
  EXPECT_EQ(0u, proxy->Release());
  EXPECT_EQ(1, outer.refs);
}

TEST_F(PairTest, SeqProxySendsAndReadsExactBytesAndRefusesICollGUIDAlone) {
  IPSFactoryBuffer* factory = FactoryFor(IID_ICollGUID);
  IRpcProxyBuffer* refused = nullptr;
  void* face = nullptr;
  EXPECT_HR(E_NOINTERFACE, factory->CreateProxy(&outer, IID_ICollGUID, &refused, &face));
  if (refused) EXPECT_EQ(0u, refused->Release());
  factory->Release();

  ISeqGUID* s = nullptr;
  IRpcProxyBuffer* proxy = Proxy(IID_ISeqGUID, Out(&s));
  long count = -1;
  ULONG position = 0xDEADBEEF;
  channel.reply = Msg().U32(S_OK).U32(5).bytes;
  EXPECT_HR(S_OK, s->Count(&count));
  EXPECT_EQ(5, count);
  EXPECT_EQ(Msg().bytes, channel.sent);
  channel.reply = Msg().U32(S_OK).U32(3).bytes;
  EXPECT_HR(S_OK, s->GetPosition(&position));
  EXPECT_EQ(3u, position);
  channel.reply = Msg().U32(S_OK).bytes;
  EXPECT_HR(S_OK, s->Add(kGuids + 1, 2));
  EXPECT_EQ(Msg().U32(2).Guids(1, 2).bytes, channel.sent);
  EXPECT_HR(S_OK, s->Empty());
  EXPECT_EQ(Msg().bytes, channel.sent);
  channel.reply = Msg().U32(E_INVALIDARG).bytes;
  EXPECT_HR(E_INVALIDARG, s->SetPosition(-1));
  EXPECT_EQ(Msg().U32(0xFFFFFFFF).bytes, channel.sent);
  EXPECT_HR(E_INVALIDARG, s->RemoveAt(3));
  EXPECT_EQ(Msg().U32(3).bytes, channel.sent);
  IEnumGUID* e = nullptr;
  channel.reply = Msg().U32(E_NOTIMPL).bytes;
  EXPECT_HR(E_NOTIMPL, s->_NewEnum(&e));
  EXPECT_THAT(channel.slots, ElementsAre(3, 7, 4, 5, 8, 9, 6));
  for (const IID& iid : channel.iids) EXPECT_EQ(IID_ISeqGUID, iid);

  xktest::DebugOutputCapture capture;
  EXPECT_HR(E_NOTIMPL, s->InsertAt(0, kGuids, 1));
  EXPECT_HR(E_NOTIMPL, s->SetAt(0, kGuids));
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOPSGuid", 473, "0"},
                                                AssertionReport{"MOPSGuid", 494, "0"}));
  EXPECT_EQ(7u, channel.slots.size());
  s->Release();
  EXPECT_EQ(0u, proxy->Release());
}

TEST_F(PairTest, EnumStubRepliesWithExactBytes) {
  IEnumGUID* server = nullptr;
  ASSERT_HR(S_OK, EnumGUID_Create(kGuids, 4, &server));
  ISeqGUID* seq = nullptr;
  server->QueryInterface(IID_ISeqGUID, Out(&seq));
  IPSFactoryBuffer* factory = FactoryFor(IID_IQvEnumGUID);
  IRpcStubBuffer* stub = nullptr;
  ASSERT_HR(S_OK, factory->CreateStub(IID_IQvEnumGUID, server, &stub));
  factory->Release();
  EXPECT_HR(E_UNEXPECTED, stub->Connect(server));
  EXPECT_EQ(1u, stub->CountRefs());
  EXPECT_EQ(stub, stub->IsIIDSupported(IID_IQvEnumGUID));
  EXPECT_EQ(nullptr, stub->IsIIDSupported(IID_IEnumGUID));

  ULONG position = 0;
  seq->SetPosition(1);
  EXPECT_HR(S_OK, Invoke(stub, 3, Msg().U32(5)));
  EXPECT_EQ(Msg().U32(S_FALSE).U32(3).Guids(1, 3).bytes, RecordingChannel::Of(msg));
  EXPECT_HR(S_OK, Invoke(stub, 4, Msg().U32(1)));
  EXPECT_EQ(Msg().U32(S_FALSE).bytes, RecordingChannel::Of(msg));
  EXPECT_HR(S_OK, Invoke(stub, 5, Msg()));
  EXPECT_EQ(Msg().U32(S_OK).bytes, RecordingChannel::Of(msg));

  seq->SetPosition(2);
  EXPECT_HR(S_OK, Invoke(stub, 6, Msg(1)));
  EXPECT_EQ(Msg(1).U32(S_OK).U32(4).U32(2).Guids(0, 4).bytes, RecordingChannel::Of(msg));
  seq->GetPosition(&position);
  EXPECT_EQ(2u, position);

  // By reference: 32 result bytes, doubled until the reference fits (the
  // sizes the platform's own bound rules out are skipped).
  channel.sizes.clear();
  EXPECT_HR(S_OK, Invoke(stub, 6, Msg(0)));
  ASSERT_EQ(1u, channel.sizes.size());
  const ULONG size = channel.sizes[0] - 8;
  EXPECT_TRUE(size >= 32 && (size & (size - 1)) == 0) << size;
  EXPECT_EQ(0, channel.freed);
  Bytes reply = RecordingChannel::Of(msg);
  EXPECT_EQ(Msg(0).U32(S_OK).bytes, Bytes(reply.begin(), reply.begin() + 8));
  IStream* stream = nullptr;
  CreateStreamOnHGlobal(nullptr, TRUE, &stream);
  stream->Write(reply.data() + 8, static_cast<ULONG>(reply.size() - 8), nullptr);
  stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr);
  IEnumGUID* clone = nullptr;
  ASSERT_HR(S_OK, CoUnmarshalInterface(stream, IID_IQvEnumGUID, Out(&clone)));
  stream->Release();
  GUID got[4] = {};
  ULONG n = 0;
  EXPECT_HR(S_FALSE, clone->Next(4, got, &n));
  EXPECT_THAT(got, ElementsAre(kGuids[2], kGuids[3], GUID{}, GUID{}));
  EXPECT_EQ(0u, clone->Release());

  xktest::DebugOutputCapture capture;
  const int gets = static_cast<int>(channel.sizes.size());
  EXPECT_HR(E_UNEXPECTED, Invoke(stub, 6, Msg(2)));
  EXPECT_HR(E_UNEXPECTED, Invoke(stub, 7, Msg()));
  EXPECT_HR(E_UNEXPECTED, Invoke(stub, 2, Msg()));
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOPSEnXX", 252, "0"},
                                                AssertionReport{"MOPSEnXX", 252, "0"}));
  EXPECT_EQ(gets, static_cast<int>(channel.sizes.size())) << "no reply";
  stub->Disconnect();
  EXPECT_EQ(0u, stub->CountRefs());
  EXPECT_HR(CO_E_OBJNOTCONNECTED, Invoke(stub, 5, Msg()));
  EXPECT_EQ(0u, stub->Release());
  seq->Release();
  EXPECT_EQ(0u, server->Release());
}

TEST_F(PairTest, SeqStubRepliesWithExactBytesAndServesNoEnumeratorOrInsertion) {
  IEnumGUID* e = nullptr;
  ASSERT_HR(S_OK, EnumGUID_Create(kGuids, 2, &e));
  IPSFactoryBuffer* factory = FactoryFor(IID_ISeqGUID);
  IRpcStubBuffer* stub = nullptr;
  ASSERT_HR(S_OK, factory->CreateStub(IID_ISeqGUID, e, &stub));
  factory->Release();
  EXPECT_EQ(stub, stub->IsIIDSupported(IID_ISeqGUID));
  EXPECT_EQ(nullptr, stub->IsIIDSupported(IID_ICollGUID));
  const struct {
    ULONG slot;
    Msg request, reply;
  } calls[] = {{3, Msg(), Msg().U32(S_OK).U32(2)},
               {4, Msg().U32(2).Guids(2, 2), Msg().U32(S_OK)},
               {3, Msg(), Msg().U32(S_OK).U32(4)},
               {8, Msg().U32(3), Msg().U32(S_OK)},
               {7, Msg(), Msg().U32(S_OK).U32(3)},
               {9, Msg().U32(0), Msg().U32(S_OK)},
               {7, Msg(), Msg().U32(S_OK).U32(3)},
               {9, Msg().U32(4), Msg().U32(E_INVALIDARG)},
               {8, Msg().U32(~0u), Msg().U32(E_INVALIDARG)},
               {5, Msg(), Msg().U32(S_OK)},
               {5, Msg(), Msg().U32(S_FALSE)},
               {3, Msg(), Msg().U32(S_OK).U32(0)}};
  for (const auto& call : calls) {
    EXPECT_HR(S_OK, Invoke(stub, call.slot, call.request)) << call.slot;
    EXPECT_EQ(call.reply.bytes, RecordingChannel::Of(msg)) << call.slot;
  }
  xktest::DebugOutputCapture capture;
  const size_t gets = channel.sizes.size();
  const HRESULT refused[] = {Invoke(stub, 6, Msg()), Invoke(stub, 10, Msg()),
                             Invoke(stub, 11, Msg()), Invoke(stub, 12, Msg())};
  EXPECT_THAT(refused, ElementsAre(E_NOTIMPL, E_UNEXPECTED, E_NOTIMPL, E_UNEXPECTED));
  EXPECT_THAT(
      capture.Assertions(),
      ElementsAre(AssertionReport{"MOPSGuid", 501, "0"}, AssertionReport{"MOPSGuid", 457, "0"},
                  AssertionReport{"MOPSGuid", 480, "0"}, AssertionReport{"MOPSSqXX", 269, "0"}));
  EXPECT_EQ(gets, channel.sizes.size()) << "no reply";
  EXPECT_EQ(0u, stub->Release());
  EXPECT_EQ(0u, e->Release());
}

// ---- Between apartments -----------------------------------------------------

// An IEnumGUID without ISeqGUID, so that its clones must travel by reference.
class EnumOnly : public IEnumGUID {
 public:
  explicit EnumOnly(IEnumGUID* inner) : m_inner(inner) {}
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = iid == IID_IUnknown || iid == IID_IQvEnumGUID ? this : nullptr;
    if (!*ppv) return E_NOINTERFACE;
    AddRef();
    return S_OK;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++m_refs; }
  STDMETHODIMP_(ULONG) Release() override {
    if (--m_refs) return m_refs;
    m_inner->Release();
    delete this;
    return 0;
  }
  STDMETHODIMP Next(ULONG c, GUID* g, ULONG* n) override { return m_inner->Next(c, g, n); }
  STDMETHODIMP Skip(ULONG c) override { return m_inner->Skip(c); }
  STDMETHODIMP Reset() override { return m_inner->Reset(); }
  STDMETHODIMP Clone(IEnumGUID** pp) override { return m_inner->Clone(pp); }

 private:
  std::atomic<ULONG> m_refs{1};
  IEnumGUID* m_inner;
};

// An STA thread serving an EnumGUID of four GUIDs (wrapped by EnumOnly when
// asked) until the test ends; the test thread, in the MTA, is the client.
class ApartmentTest : public xktest::ComTest<COINIT_MULTITHREADED> {
 protected:
  void Serve(bool enumOnly) {
    m_server = std::thread([this, enumOnly] {
      CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
      {
        Registrations registrations;
        IEnumGUID* e = nullptr;
        EnumGUID_Create(kGuids, 4, &e);
        e->QueryInterface(IID_ISeqGUID, Out(&serverSeq));
        IEnumGUID* served = enumOnly ? new EnumOnly(e) : e;  // EnumOnly adopts e's reference
        CoMarshalInterThreadInterfaceInStream(IID_IQvEnumGUID, served, &m_stream);
        served->Release();
        {
          std::lock_guard<std::mutex> lock(m_mutex);
          m_threadId = GetCurrentThreadId();
        }
        m_ready.notify_one();
        MSG message;
        while (GetMessageW(&message, nullptr, 0, 0) > 0) DispatchMessageW(&message);
        serverSeq->Release();
      }
      CoUninitialize();
    });
    std::unique_lock<std::mutex> lock(m_mutex);
    m_ready.wait(lock, [this] { return m_threadId != 0; });
    ASSERT_HR(S_OK, CoGetInterfaceAndReleaseStream(m_stream, IID_IQvEnumGUID, Out(&proxy)));
  }
  void SetUp() override {
    ComTest::SetUp();
    registrations.emplace();
  }
  void TearDown() override {
    if (proxy) EXPECT_EQ(0u, proxy->Release());
    if (m_threadId) PostThreadMessageW(m_threadId, WM_QUIT, 0, 0);
    if (m_server.joinable()) m_server.join();
    registrations.reset();
    ComTest::TearDown();
  }
  ULONG ServerPosition() {
    ULONG position = 0xDEADBEEF;
    serverSeq->GetPosition(&position);  // free-threaded: callable from here
    return position;
  }

  std::optional<Registrations> registrations;
  IEnumGUID* proxy = nullptr;
  ISeqGUID* serverSeq = nullptr;

 private:
  std::thread m_server;
  std::mutex m_mutex;
  std::condition_variable m_ready;
  DWORD m_threadId = 0;
  IStream* m_stream = nullptr;
};

TEST_F(ApartmentTest, EnumeratesAndClonesByValueThroughTheLibrarysProxy) {
  ASSERT_NO_FATAL_FAILURE(Serve(false));
  GUID got[5] = {};
  ULONG n = 0;
  EXPECT_HR(S_OK, proxy->Skip(1));
  EXPECT_HR(E_INVALIDARG, proxy->Next(2, got, nullptr));
  EXPECT_EQ(1u, ServerPosition());
  EXPECT_HR(S_FALSE, proxy->Next(5, got, &n));
  EXPECT_EQ(3u, n);
  EXPECT_THAT(got, ElementsAre(kGuids[1], kGuids[2], kGuids[3], GUID{}, GUID{}));
  EXPECT_EQ(4u, ServerPosition());

  EXPECT_HR(S_OK, proxy->Reset());
  EXPECT_HR(S_OK, proxy->Skip(2));
  IEnumGUID* clone = nullptr;
  ASSERT_HR(S_OK, proxy->Clone(&clone));
  EXPECT_EQ(2u, ServerPosition());
  IUnknown* remote = nullptr;
  EXPECT_HR(E_NOINTERFACE, clone->QueryInterface(IID_IMultiQI, Out(&remote))) << "a local object";
  ISeqGUID* seq = nullptr;
  ASSERT_HR(S_OK, clone->QueryInterface(IID_ISeqGUID, Out(&seq)));
  ULONG position = 0;
  long count = 0;
  EXPECT_HR(S_OK, seq->GetPosition(&position));
  EXPECT_HR(S_OK, seq->Count(&count));
  EXPECT_EQ(2u, position);
  EXPECT_EQ(4, count);
  EXPECT_HR(S_OK, clone->Reset());
  EXPECT_HR(S_OK, clone->Next(4, got, &n));
  EXPECT_THAT(got, testing::ElementsAreArray({kGuids[0], kGuids[1], kGuids[2], kGuids[3], GUID{}}));
  seq->Release();
  EXPECT_EQ(0u, clone->Release());
}

TEST_F(ApartmentTest, ClonesByReferenceAsAWorkingProxy) {
  xktest::DebugOutputCapture capture;
  ASSERT_NO_FATAL_FAILURE(Serve(true));
  EXPECT_HR(S_OK, proxy->Skip(3));
  IEnumGUID* clone = nullptr;
  ASSERT_HR(S_OK, proxy->Clone(&clone));
  EXPECT_THAT(
      capture.Assertions(),
      ElementsAre(AssertionReport{"MOPSGuid", 354, "_cannot_remember_whether_this_is_valid"}));
  IUnknown* remote = nullptr;
  ASSERT_HR(S_OK, clone->QueryInterface(IID_IMultiQI, Out(&remote))) << "a proxy";
  remote->Release();
  GUID got[2] = {};
  ULONG n = 0;
  EXPECT_HR(S_FALSE, clone->Next(2, got, &n));
  EXPECT_EQ(1u, n);
  EXPECT_EQ(kGuids[3], got[0]);
  EXPECT_HR(S_OK, clone->Reset());
  EXPECT_EQ(3u, ServerPosition()) << "the clone is a server object of its own";
  EXPECT_EQ(0u, clone->Release());
}

TEST_F(ApartmentTest, SequenceReachesTheServerAndCollectionAloneIsRefused) {
  ASSERT_NO_FATAL_FAILURE(Serve(false));
  IUnknown* coll = nullptr;
  EXPECT_HR(E_NOINTERFACE, proxy->QueryInterface(IID_ICollGUID, Out(&coll)));
  ISeqGUID* seq = nullptr;
  ASSERT_HR(S_OK, proxy->QueryInterface(IID_ISeqGUID, Out(&seq)));
  long count = 0;
  ULONG position = 0;
  EXPECT_HR(S_OK, seq->Add(kGuids, 2));
  EXPECT_HR(S_OK, seq->Count(&count));
  EXPECT_EQ(6, count);
  EXPECT_HR(S_OK, seq->SetPosition(5));
  EXPECT_HR(S_OK, seq->GetPosition(&position));
  EXPECT_EQ(5u, position);
  EXPECT_EQ(5u, ServerPosition());
  EXPECT_HR(E_INVALIDARG, seq->SetPosition(7));
  EXPECT_HR(S_OK, seq->RemoveAt(0));
  serverSeq->Count(&count);
  EXPECT_EQ(5, count);
  EXPECT_HR(S_OK, seq->Empty());
  serverSeq->Count(&count);
  EXPECT_EQ(0, count);
  seq->Release();
}

}  // namespace
