// The proxy/stub pair of an enumerator interface, and what the pairs of this
// folder share: the proxy's two faces and channel, the stub's connection, and
// the message format. Written once over an element kind; Kind names the item
// type, the interfaces and their identifiers, the class that rebuilds a clone
// sent by value, and the report sites of the instantiation.
//
// A message is a four-byte header (flag, format 1, two zero bytes), in a reply
// the server's HRESULT, then the arguments or results laid out flat. Items
// travel as raw blocks of sizeof(Item) bytes, so a kind's items must be plain
// values. Every length read from a message is checked against the buffer's
// size first: the other side may be another process.
//
// Connect and Disconnect hold the object's lock; calls take none of their own,
// the platform disconnecting a proxy or stub only once its calls are over.
#pragma once

#include <objbase.h>
#include <xkcombsd/MLLock.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/MORefCnt.h>

#include "frame/HandOut.h"
#include "frame/RuntimePrimitives.h"
#include "marshal/MOStmFix.h"

namespace xk::marshal {

// {00517663-0003-0001-0001-00C0DFE64A64}: the library's own name for a proxy buffer.
constexpr IID kIID_QvProxyBuffer = {
    0x00517663, 0x0003, 0x0001, {0x00, 0x01, 0x00, 0xC0, 0xDF, 0xE6, 0x4A, 0x64}};

constexpr ULONG kHeader = 4;      // request arguments start here
constexpr ULONG kResults = 8;     // reply results start here
constexpr BYTE kByReference = 0;  // flag of every message but a by-value Clone
constexpr BYTE kByValue = 1;

inline ULONG LoadU32(const BYTE* at) {
  ULONG value;
  MemCopy(&value, at, sizeof value);
  return value;
}
inline void StoreU32(BYTE* at, ULONG value) { MemCopy(at, &value, sizeof value); }
inline void StoreHeader(BYTE* at, BYTE flag) {
  const BYTE header[kHeader] = {flag, 1, 0, 0};
  MemCopy(at, header, kHeader);
}

// ---- Proxy side ------------------------------------------------------------

// One proxy call: the request buffer, then the reply until FreeBuffer.
class ProxyCall {
 public:
  ProxyCall(IRpcChannelBuffer* channel, REFIID iid, ULONG slot) : m_channel(channel), m_iid(iid) {
    MemFill(&m_msg, 0, sizeof m_msg);
    m_msg.iMethod = slot;
  }
  ~ProxyCall() {
    if (m_replied) m_channel->FreeBuffer(&m_msg);
  }
  ProxyCall(const ProxyCall&) = delete;
  ProxyCall& operator=(const ProxyCall&) = delete;

  // Sends the header, then word (when given), then cbBlock bytes of block.
  HRESULT Send(BYTE flag, const ULONG* word = nullptr, const void* block = nullptr,
               ULONG cbBlock = 0) {
    // Left open by the format: without a channel there is nobody to send to.
    if (!m_channel) return CO_E_OBJNOTCONNECTED;
    const ULONG cbWord = word ? sizeof *word : 0;
    if (cbBlock > 0xFFFFFFFFul - kResults) return E_OUTOFMEMORY;
    m_msg.cbBuffer = kHeader + cbWord + cbBlock;
    HRESULT hr = m_channel->GetBuffer(&m_msg, m_iid);
    if (FAILED(hr)) return hr;
    BYTE* request = Bytes();
    StoreHeader(request, flag);
    if (word) StoreU32(request + kHeader, *word);
    if (cbBlock) MemCopy(request + kHeader + cbWord, block, cbBlock);
    ULONG status = 0;
    hr = m_channel->SendReceive(&m_msg, &status);
    m_replied = SUCCEEDED(hr);
    return hr;
  }

  // The reply's parts; a reply too short for a part reads as nothing there.
  BYTE Flag() const { return m_msg.cbBuffer ? Bytes()[0] : 0xFF; }
  HRESULT Result() const {
    return Has(kResults) ? static_cast<HRESULT>(LoadU32(Bytes() + 4)) : RPC_E_INVALID_DATAPACKET;
  }
  ULONG U32(ULONG offset) const { return Has(offset + 4) ? LoadU32(Bytes() + offset) : 0; }
  ULONG BytesFrom(ULONG offset) const { return Has(offset) ? m_msg.cbBuffer - offset : 0; }
  BYTE* At(ULONG offset) const { return Bytes() + offset; }

 private:
  BYTE* Bytes() const { return static_cast<BYTE*>(m_msg.Buffer); }
  bool Has(ULONG end) const { return m_msg.Buffer && m_msg.cbBuffer >= end; }

  IRpcChannelBuffer* const m_channel;
  REFIID m_iid;
  RPCOLEMESSAGE m_msg;
  bool m_replied = false;
};

// A by-reference Clone reply: the marshalled enumerator from offset 8 to the end.
template <class Enum>
HRESULT UnmarshalClone(const ProxyCall& call, REFIID iid, Enum** ppenum) {
  const HRESULT hr = call.Result();
  if (FAILED(hr)) return hr;
  FixedMemoryStream stream(call.At(kResults), call.BytesFrom(kResults));
  if (FAILED(CoUnmarshalInterface(&stream, iid, reinterpret_cast<void**>(ppenum))))
    return RPC_E_CLIENT_CANTUNMARSHAL_DATA;
  return hr;
}

// The proxy of Iface: the interface face is the object itself, its IUnknown
// delegating to the outer unknown; the proxy buffer is a member whose
// IUnknown is the object's own.
template <class Iface>
class ProxyBase : public Iface, public MORefCnt<MultiThreaded> {
  using Guard = MLLock<CriticalSectionLock>;

 public:
  IRpcProxyBuffer* Buffer() { return &m_buffer; }

  // ---- IUnknown of the interface face
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    return m_outer->QueryInterface(iid, ppv);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return m_outer->AddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return m_outer->Release(); }

 protected:
  ProxyBase(IUnknown* outer, REFIID iid) : m_outer(outer), m_iid(iid), m_buffer(this) {}

  ProxyCall Call(ULONG slot) { return ProxyCall(m_channel.raw(), m_iid, slot); }
  REFIID Iid() const { return m_iid; }

  // A call with at most one 32-bit argument and no results.
  HRESULT Command(ULONG slot, const ULONG* word = nullptr) {
    ProxyCall call = Call(slot);
    const HRESULT hr = call.Send(kByReference, word);
    return FAILED(hr) ? hr : call.Result();
  }

  // A call without arguments whose reply carries one 32-bit result.
  HRESULT Fetch(ULONG slot, ULONG* value) {
    ProxyCall call = Call(slot);
    HRESULT hr = call.Send(kByReference);
    if (FAILED(hr)) return hr;
    hr = call.Result();
    if (SUCCEEDED(hr)) *value = call.U32(kResults);
    return hr;
  }

 private:
  class ProxyBuffer final : public IRpcProxyBuffer {
   public:
    explicit ProxyBuffer(ProxyBase* owner) : m_owner(owner) {}
    STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
      if (!ppv) return E_POINTER;
      IUnknown* face = nullptr;
      if (iid == IID_IUnknown || iid == IID_IRpcProxyBuffer || iid == kIID_QvProxyBuffer)
        face = this;
      else if (iid == m_owner->m_iid)
        face = static_cast<Iface*>(m_owner);
      *ppv = face;
      if (!face) return E_NOINTERFACE;
      face->AddRef();
      return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return m_owner->InternalAddRef(); }
    STDMETHODIMP_(ULONG) Release() override { return m_owner->InternalRelease(); }
    STDMETHODIMP Connect(IRpcChannelBuffer* channel) override {
      Guard guard(&m_owner->m_lock);
      if (m_owner->m_channel) return E_UNEXPECTED;
      *m_owner->m_channel.put() = channel;
      if (channel) channel->AddRef();
      return S_OK;
    }
    STDMETHODIMP_(void) Disconnect() override {
      Guard guard(&m_owner->m_lock);
      m_owner->m_channel.Reset();
    }

   private:
    ProxyBase* const m_owner;  // read-only; the buffer is part of it
  };

  IUnknown* const m_outer;  // read-only, not counted: the outer unknown owns the proxy
  const IID& m_iid;         // read-only: the proxied interface
  CriticalSectionLock m_lock;
  MLRelItf<IRpcChannelBuffer> m_channel;  // (object lock); NULL while disconnected
  ProxyBuffer m_buffer;
};

// ---- Stub side -------------------------------------------------------------

// The request's 32-bit argument at offset 4, when the request holds one.
inline bool RequestWord(const RPCOLEMESSAGE* msg, ULONG* value) {
  if (!msg->Buffer || msg->cbBuffer < kHeader + 4) return false;
  *value = LoadU32(static_cast<const BYTE*>(msg->Buffer) + kHeader);
  return true;
}
inline BYTE RequestFlag(const RPCOLEMESSAGE* msg) {
  return msg->Buffer && msg->cbBuffer ? static_cast<const BYTE*>(msg->Buffer)[0] : 0xFF;
}
inline BYTE* ReplyResults(RPCOLEMESSAGE* msg) { return static_cast<BYTE*>(msg->Buffer) + kResults; }

// Replaces the request with a reply carrying hr and room for cbResults bytes of
// results, zeroed so that no stale bytes travel. The request is gone after this.
inline HRESULT Reply(IRpcChannelBuffer* channel, RPCOLEMESSAGE* msg, REFIID iid, HRESULT hr,
                     ULONG cbResults, BYTE flag = kByReference) {
  msg->cbBuffer = kResults + cbResults;
  const HRESULT got = channel->GetBuffer(msg, iid);
  if (FAILED(got)) return got;
  BYTE* reply = static_cast<BYTE*>(msg->Buffer);
  StoreHeader(reply, flag);
  StoreU32(reply + 4, static_cast<ULONG>(hr));
  MemFill(reply + kResults, 0, cbResults);
  return got;
}

template <class Iface>
using MethodStubOf = HRESULT (*)(Iface* server, REFIID iid, RPCOLEMESSAGE* msg,
                                 IRpcChannelBuffer* channel);

// The stub of Iface. Derived gives the method stubs as a table from slot 3 on
// and the site that reports any other slot.
template <class Derived, class Iface>
class StubBase : public IRpcStubBuffer, public MORefCnt<MultiThreaded> {
  using Guard = MLLock<CriticalSectionLock>;

 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    return xk::QueryFace(static_cast<IRpcStubBuffer*>(this), iid, ppv, IID_IRpcStubBuffer);
  }
  STDMETHODIMP_(ULONG) AddRef() override { return InternalAddRef(); }
  STDMETHODIMP_(ULONG) Release() override { return InternalRelease(); }

  STDMETHODIMP Connect(IUnknown* server) override {
    if (!server) return E_POINTER;
    Guard guard(&m_lock);
    if (m_server) return E_UNEXPECTED;
    const HRESULT hr = server->QueryInterface(Derived::Iid(), m_server.put_void());
    if (SUCCEEDED(hr)) ++m_connections;
    return hr;
  }
  STDMETHODIMP_(void) Disconnect() override {
    Guard guard(&m_lock);
    if (!m_server) return;
    --m_connections;
    m_server.Reset();
  }

  STDMETHODIMP Invoke(RPCOLEMESSAGE* msg, IRpcChannelBuffer* channel) override {
    constexpr ULONG kSlots = sizeof Derived::kMethods / sizeof Derived::kMethods[0];
    const ULONG slot = msg->iMethod;
    if (slot < 3 || slot >= 3 + kSlots) {
      Verify(false, Derived::kUnknownSlot);
      return E_UNEXPECTED;
    }
    // Left open by the format: a stub without a server has nobody to ask.
    if (!m_server) return CO_E_OBJNOTCONNECTED;
    return Derived::kMethods[slot - 3](m_server.raw(), Derived::Iid(), msg, channel);
  }

  STDMETHODIMP_(IRpcStubBuffer*) IsIIDSupported(REFIID iid) override {
    return iid == Derived::Iid() ? this : nullptr;
  }
  STDMETHODIMP_(ULONG) CountRefs() override { return m_connections; }
  STDMETHODIMP DebugServerQueryInterface(void**) override { return E_NOTIMPL; }
  STDMETHODIMP_(void) DebugServerRelease(void*) override {}

 private:
  CriticalSectionLock m_lock;
  MLRelItf<Iface> m_server;  // (object lock); NULL while disconnected
  ULONG m_connections = 0;   // (object lock)
};

// ---- The enumerator pair ---------------------------------------------------

template <class Kind>
class EnumProxy final : public ProxyBase<typename Kind::Enum> {
  using Base = ProxyBase<typename Kind::Enum>;
  using Item = typename Kind::Item;
  using Enum = typename Kind::Enum;

 public:
  explicit EnumProxy(IUnknown* outer) : Base(outer, *Kind::kEnumIid) {}

  STDMETHODIMP Next(ULONG celt, Item* rgelt, ULONG* pceltFetched) override {
    if (!rgelt) return E_POINTER;
    if (celt != 1 && !pceltFetched) return E_INVALIDARG;
    if (pceltFetched) *pceltFetched = 0;
    ProxyCall call = this->Call(3);
    HRESULT hr = call.Send(kByReference, &celt);
    if (FAILED(hr)) return hr;
    hr = call.Result();
    if (SUCCEEDED(hr)) {
      ULONG n = call.U32(kResults);
      if (n > celt) n = celt;
      const ULONG fit = call.BytesFrom(kResults + 4) / sizeof(Item);
      if (n > fit) n = fit;
      MemCopy(rgelt, call.At(kResults + 4), n * sizeof(Item));
      if (pceltFetched) *pceltFetched = n;
    }
    return hr;
  }

  STDMETHODIMP Skip(ULONG celt) override { return this->Command(4, &celt); }
  STDMETHODIMP Reset() override { return this->Command(5); }

  // Asks for the clone by value; the server decides how it comes back.
  STDMETHODIMP Clone(Enum** ppenum) override {
    if (!ppenum) return E_POINTER;
    *ppenum = nullptr;
    ProxyCall call = this->Call(6);
    const HRESULT hr = call.Send(kByValue);
    if (FAILED(hr)) return hr;
    switch (call.Flag()) {
      case kByValue:
        return Rebuild(call, ppenum);
      case kByReference:
        return UnmarshalClone(call, this->Iid(), ppenum);
      default:
        return RPC_E_SERVER_CANTUNMARSHAL_DATA;
    }
  }

 private:
  // A new local enumerator with the reply's items and position; the reply's
  // HRESULT is not consulted, the items being all that counts.
  static HRESULT Rebuild(const ProxyCall& call, Enum** ppenum) {
    constexpr ULONG kItems = kResults + 8;
    ULONG count = call.U32(kResults);
    const ULONG fit = call.BytesFrom(kItems) / sizeof(Item);
    if (count > fit) count = fit;
    MLRelItf<typename Kind::Seq> seq;
    HRESULT hr = CoCreateInstance(*Kind::kClsid, nullptr, CLSCTX_INPROC_SERVER, *Kind::kSeqIid,
                                  seq.put_void());
    if (SUCCEEDED(hr)) hr = seq->InsertAt(0, reinterpret_cast<const Item*>(call.At(kItems)), count);
    if (SUCCEEDED(hr)) hr = seq->SetPosition(static_cast<long>(call.U32(kResults + 4)));
    if (SUCCEEDED(hr)) hr = seq->QueryInterface(*Kind::kEnumIid, reinterpret_cast<void**>(ppenum));
    return hr;
  }
};

template <class Kind>
class EnumStub final : public StubBase<EnumStub<Kind>, typename Kind::Enum> {
  using Item = typename Kind::Item;
  using Enum = typename Kind::Enum;
  using Seq = typename Kind::Seq;

 public:
  static REFIID Iid() { return *Kind::kEnumIid; }

  // The server fetches straight into a reply sized for celt items, which is
  // then cut to the items fetched: the reply buffer takes the place of a block
  // of task memory and of a second copy, so failing to get it is the result.
  static HRESULT Next(Enum* server, REFIID iid, RPCOLEMESSAGE* msg, IRpcChannelBuffer* channel) {
    ULONG celt = 0;
    if (!RequestWord(msg, &celt)) return RPC_E_INVALID_DATAPACKET;
    if (celt > (0xFFFFFFFFul - kResults - 4) / sizeof(Item)) return E_OUTOFMEMORY;
    const HRESULT replied = Reply(channel, msg, iid, S_OK, celt * sizeof(Item) + 4);
    if (FAILED(replied)) return replied;
    BYTE* results = ReplyResults(msg);
    ULONG fetched = 0;
    const HRESULT hr = server->Next(celt, reinterpret_cast<Item*>(results + 4), &fetched);
    if (fetched > celt) fetched = celt;  // never trust a count to size a reply
    StoreU32(results - 4, static_cast<ULONG>(hr));
    if (SUCCEEDED(hr))
      StoreU32(results, fetched);
    else
      MemFill(results + 4, 0, fetched * sizeof(Item));  // a failure's items do not travel
    msg->cbBuffer = kResults + 4 + fetched * sizeof(Item);
    return replied;
  }

  static HRESULT Skip(Enum* server, REFIID iid, RPCOLEMESSAGE* msg, IRpcChannelBuffer* channel) {
    ULONG celt = 0;
    if (!RequestWord(msg, &celt)) return RPC_E_INVALID_DATAPACKET;
    return Reply(channel, msg, iid, server->Skip(celt), 0);
  }

  static HRESULT Reset(Enum* server, REFIID iid, RPCOLEMESSAGE* msg, IRpcChannelBuffer* channel) {
    return Reply(channel, msg, iid, server->Reset(), 0);
  }

  static HRESULT Clone(Enum* server, REFIID iid, RPCOLEMESSAGE* msg, IRpcChannelBuffer* channel) {
    switch (RequestFlag(msg)) {
      case kByValue: {
        MLRelItf<Seq> seq;
        if (SUCCEEDED(server->QueryInterface(*Kind::kSeqIid, seq.put_void())))
          return CloneByValue(server, seq.get(), iid, msg, channel);
        Verify(false, Kind::kCloneByValueRefused);
        return CloneByReference(server, iid, msg, channel);
      }
      case kByReference:
        return CloneByReference(server, iid, msg, channel);
      default:
        return E_UNEXPECTED;
    }
  }

  // Reachable from the sequence's stub, whose _NewEnum is answered the same way.
  static HRESULT CloneByReference(Enum* server, REFIID iid, RPCOLEMESSAGE* msg,
                                  IRpcChannelBuffer* channel) {
    // The context data is not used, but asked for all the same: a channel may
    // store it without looking (the one under Wine does).
    DWORD destContext = 0;
    void* destContextData = nullptr;
    HRESULT hr = channel->GetDestCtx(&destContext, &destContextData);
    if (FAILED(hr)) return hr;
    MLRelItf<Enum> clone;
    HRESULT hrClone = server->Clone(clone.put());
    if (SUCCEEDED(hrClone) && !clone) hrClone = E_UNEXPECTED;
    if (FAILED(hrClone)) return Reply(channel, msg, iid, hrClone, 0);
    // The size of a marshalled reference is found by trying, doubling from 32
    // bytes. A marshaler that ignores a short write would leave a cut reference
    // in a buffer too small, so the sizes below its own bound are skipped.
    ULONG bound = 0;
    if (FAILED(CoGetMarshalSizeMax(&bound, *Kind::kEnumIid, clone.get(), destContext, nullptr,
                                   MSHLFLAGS_NORMAL)))
      bound = 0;
    ULONG first = 32;
    while (first < bound && first < 0x10000) first *= 2;
    for (ULONG size = first;; size *= 2) {
      hr = Reply(channel, msg, iid, hrClone, size);
      if (FAILED(hr)) return hr;
      FixedMemoryStream stream(ReplyResults(msg), size);
      hr = CoMarshalInterface(&stream, *Kind::kEnumIid, clone.get(), destContext, nullptr,
                              MSHLFLAGS_NORMAL);
      if (!FAILED(hr) || HRESULT_FACILITY(hr) != FACILITY_STORAGE || size >= 0x10000) return hr;
      channel->FreeBuffer(msg);
    }
  }

  static constexpr MethodStubOf<Enum> kMethods[] = {Next, Skip, Reset, Clone};
  static constexpr AssertSite kUnknownSlot = {"MOPSEnXX", 252, "0"};

 private:
  // The server's items and position, read from its start and then put back.
  static HRESULT CloneByValue(Enum* server, Seq* seq, REFIID iid, RPCOLEMESSAGE* msg,
                              IRpcChannelBuffer* channel) {
    long count = 0;
    ULONG position = 0;
    HRESULT hr = seq->Count(&count);
    if (SUCCEEDED(hr)) hr = seq->GetPosition(&position);
    if (FAILED(hr)) return hr;
    const ULONG c = static_cast<ULONG>(count);
    if (count < 0 || c > (0xFFFFFFFFul - kResults - 8) / sizeof(Item)) return E_OUTOFMEMORY;
    hr = Reply(channel, msg, iid, S_OK, c * sizeof(Item) + 8, kByValue);
    if (FAILED(hr)) return hr;
    server->Reset();
    BYTE* results = ReplyResults(msg);
    ULONG fetched = 0;
    StoreU32(results - 4,
             static_cast<ULONG>(server->Next(c, reinterpret_cast<Item*>(results + 8), &fetched)));
    StoreU32(results, c);
    StoreU32(results + 4, position);
    seq->SetPosition(static_cast<long>(position));
    return hr;
  }
};

}  // namespace xk::marshal
