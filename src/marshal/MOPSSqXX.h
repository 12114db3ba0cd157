// The proxy/stub pair of a sequence interface (ISeqXxx, which extends ICollXxx),
// over the same element kinds and message format as the enumerator pair.
// Counts, positions and indices travel as 32-bit words, added items as one
// block. InsertAt and SetAt are neither sent nor served, and _NewEnum, which
// would hand out the server object itself, is refused by the stub: a shared
// position cannot be kept across apartments.
#pragma once

#include "marshal/MOPSEnXX.h"

namespace xk::marshal {

template <class Kind>
class SeqProxy final : public ProxyBase<typename Kind::Seq> {
  using Base = ProxyBase<typename Kind::Seq>;
  using Item = typename Kind::Item;
  using Enum = typename Kind::Enum;

 public:
  explicit SeqProxy(IUnknown* outer) : Base(outer, *Kind::kSeqIid) {}

  STDMETHODIMP Count(long* rcount) override {
    if (!rcount) return E_POINTER;
    *rcount = 0;
    return this->Fetch(3, reinterpret_cast<ULONG*>(rcount));
  }

  STDMETHODIMP Add(const Item* items, ULONG cItems) override {
    if (!items && cItems) return E_POINTER;  // refused here as the server would, not read
    if (cItems > (0xFFFFFFFFul - kResults - 4) / sizeof(Item)) return E_OUTOFMEMORY;
    ProxyCall call = this->Call(4);
    const HRESULT hr = call.Send(kByReference, &cItems, items, cItems * sizeof(Item));
    return FAILED(hr) ? hr : call.Result();
  }

  STDMETHODIMP Empty() override { return this->Command(5); }

  STDMETHODIMP _NewEnum(Enum** ppenum) override {
    if (!ppenum) return E_POINTER;
    *ppenum = nullptr;
    ProxyCall call = this->Call(6);
    const HRESULT hr = call.Send(kByReference);
    return FAILED(hr) ? hr : UnmarshalClone(call, *Kind::kEnumIid, ppenum);
  }

  STDMETHODIMP GetPosition(ULONG* pIndex) override {
    if (!pIndex) return E_POINTER;
    *pIndex = 0;
    return this->Fetch(7, pIndex);
  }

  STDMETHODIMP SetPosition(long index) override {
    const ULONG word = static_cast<ULONG>(index);
    return this->Command(8, &word);
  }

  STDMETHODIMP RemoveAt(ULONG index) override { return this->Command(9, &index); }

  STDMETHODIMP InsertAt(ULONG, const Item*, ULONG) override {
    Verify(false, Kind::kInsertAtNotSent);
    return E_NOTIMPL;
  }

  STDMETHODIMP SetAt(ULONG, const Item*) override {
    Verify(false, Kind::kSetAtNotSent);
    return E_NOTIMPL;
  }
};

template <class Kind>
class SeqStub final : public StubBase<SeqStub<Kind>, typename Kind::Seq> {
  using Item = typename Kind::Item;
  using Seq = typename Kind::Seq;

 public:
  static REFIID Iid() { return *Kind::kSeqIid; }

  static HRESULT Count(Seq* server, REFIID iid, RPCOLEMESSAGE* msg, IRpcChannelBuffer* channel) {
    long count = 0;
    const HRESULT hr = server->Count(&count);
    return ReplyWord(channel, msg, iid, hr, static_cast<ULONG>(count));
  }

  static HRESULT Add(Seq* server, REFIID iid, RPCOLEMESSAGE* msg, IRpcChannelBuffer* channel) {
    ULONG cItems = 0;
    if (!RequestWord(msg, &cItems)) return RPC_E_INVALID_DATAPACKET;
    if (cItems > (msg->cbBuffer - kHeader - 4) / sizeof(Item)) return RPC_E_INVALID_DATAPACKET;
    const auto* items = reinterpret_cast<const Item*>(static_cast<BYTE*>(msg->Buffer) + 8);
    return Reply(channel, msg, iid, server->Add(items, cItems), 0);
  }

  static HRESULT Empty(Seq* server, REFIID iid, RPCOLEMESSAGE* msg, IRpcChannelBuffer* channel) {
    return Reply(channel, msg, iid, server->Empty(), 0);
  }

  static HRESULT NewEnum(Seq*, REFIID, RPCOLEMESSAGE*, IRpcChannelBuffer*) {
    Verify(false, Kind::kNewEnumNotServed);
    return E_NOTIMPL;
  }

  static HRESULT GetPosition(Seq* server, REFIID iid, RPCOLEMESSAGE* msg,
                             IRpcChannelBuffer* channel) {
    ULONG position = 0;
    const HRESULT hr = server->GetPosition(&position);
    return ReplyWord(channel, msg, iid, hr, position);
  }

  static HRESULT SetPosition(Seq* server, REFIID iid, RPCOLEMESSAGE* msg,
                             IRpcChannelBuffer* channel) {
    ULONG index = 0;
    if (!RequestWord(msg, &index)) return RPC_E_INVALID_DATAPACKET;
    return Reply(channel, msg, iid, server->SetPosition(static_cast<long>(index)), 0);
  }

  static HRESULT RemoveAt(Seq* server, REFIID iid, RPCOLEMESSAGE* msg, IRpcChannelBuffer* channel) {
    ULONG index = 0;
    if (!RequestWord(msg, &index)) return RPC_E_INVALID_DATAPACKET;
    return Reply(channel, msg, iid, server->RemoveAt(index), 0);
  }

  static HRESULT InsertAt(Seq*, REFIID, RPCOLEMESSAGE*, IRpcChannelBuffer*) {
    Verify(false, Kind::kInsertAtNotServed);
    return E_UNEXPECTED;
  }

  static HRESULT SetAt(Seq*, REFIID, RPCOLEMESSAGE*, IRpcChannelBuffer*) {
    Verify(false, Kind::kSetAtNotServed);
    return E_NOTIMPL;
  }

  static constexpr MethodStubOf<Seq> kMethods[] = {
      Count, Add, Empty, NewEnum, GetPosition, SetPosition, RemoveAt, InsertAt, SetAt};
  static constexpr AssertSite kUnknownSlot = {"MOPSSqXX", 269, "0"};

 private:
  static HRESULT ReplyWord(IRpcChannelBuffer* channel, RPCOLEMESSAGE* msg, REFIID iid, HRESULT hr,
                           ULONG value) {
    const HRESULT replied = Reply(channel, msg, iid, hr, 4);
    if (SUCCEEDED(replied) && SUCCEEDED(hr)) StoreU32(ReplyResults(msg), value);
    return replied;
  }
};

}  // namespace xk::marshal
