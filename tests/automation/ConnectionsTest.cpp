// Connections made and broken on a small connectable object, with the sink's
// references counted exactly; and property-page lists grown in the task
// allocator.
#include <gmock/gmock.h>
#include <olectl.h>
#include <xkcombsd/Connections.h>
#include <xkcombsd/PropertyPages.h>

#include <utility>

#include "ComTest.h"
#include "DebugOutput.h"
#include "FakeUnknown.h"

namespace {

using testing::ElementsAre;
using xktest::AssertionReport;

// {0E7E0000-0000-0000-C000-000000000046}: the one event interface the source offers.
constexpr IID kEvents = {0x0E7E0000, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr DWORD kCookie = 0x5EED;

// One point for kEvents, holding its one sink as a connection point does.
class Source : public IConnectionPointContainer, public IConnectionPoint {
 public:
  STDMETHODIMP QueryInterface(REFIID iid, void** ppv) override {
    *ppv = iid == IID_IConnectionPointContainer ? this : nullptr;
    return *ppv ? (AddRef(), S_OK) : E_NOINTERFACE;
  }
  STDMETHODIMP_(ULONG) AddRef() override { return ++refs; }
  STDMETHODIMP_(ULONG) Release() override { return --refs; }
  STDMETHODIMP EnumConnectionPoints(IEnumConnectionPoints**) override { return E_NOTIMPL; }
  STDMETHODIMP FindConnectionPoint(REFIID iid, IConnectionPoint** point) override {
    *point = iid == kEvents ? this : nullptr;
    return *point ? (AddRef(), S_OK) : CONNECT_E_NOCONNECTION;
  }
  STDMETHODIMP GetConnectionInterface(IID*) override { return E_NOTIMPL; }
  STDMETHODIMP GetConnectionPointContainer(IConnectionPointContainer**) override {
    return E_NOTIMPL;
  }
  STDMETHODIMP Advise(IUnknown* sink, DWORD* cookie) override {
    (m_sink = sink)->AddRef();
    *cookie = kCookie;
    return S_OK;
  }
  STDMETHODIMP Unadvise(DWORD cookie) override {
    if (cookie != kCookie || !m_sink) return CONNECT_E_NOCONNECTION;
    std::exchange(m_sink, nullptr)->Release();
    return S_OK;
  }
  STDMETHODIMP EnumConnections(IEnumConnections**) override { return E_NOTIMPL; }
  IUnknown* unknown() { return static_cast<IConnectionPointContainer*>(this); }
  long refs = 1;

 private:
  IUnknown* m_sink = nullptr;
};

using ConnectionsTest = xktest::ComTest<>;

// The sink's count, from 1, after advising, unadvising, and an unadvise the
// point refuses (weak: the reference added for the point's release stays).
TEST_F(ConnectionsTest, StrongConnectionsHoldTheSinkAndWeakOnesDoNot) {
  for (auto [strong, advised, unadvised, refused] : {std::tuple{TRUE, 2, 1, 1}, {FALSE, 1, 2, 3}}) {
    Source source;
    xktest::FakeUnknown sink;
    DWORD cookie = 0;
    EXPECT_HR(S_OK, AdviseConnection(source.unknown(), kEvents, &sink, &cookie, strong));
    EXPECT_EQ(kCookie, cookie);
    EXPECT_EQ(advised, sink.refs) << strong;
    EXPECT_HR(S_OK, UnadviseConnection(source.unknown(), kEvents, &sink, cookie, strong));
    EXPECT_EQ(unadvised, sink.refs) << strong;
    EXPECT_HR(CONNECT_E_NOCONNECTION,
              UnadviseConnection(source.unknown(), kEvents, &sink, cookie, strong));
    EXPECT_EQ(refused, sink.refs) << strong;
    EXPECT_EQ(1, source.refs);
  }
}

TEST_F(ConnectionsTest, SourcesWithoutThePointAndNullArgumentsAreRefused) {
  Source source;
  xktest::FakeUnknown sink, plain;
  DWORD cookie = 0;
  EXPECT_HR(E_NOINTERFACE, AdviseConnection(&plain, kEvents, &sink, &cookie, TRUE));
  EXPECT_HR(CONNECT_E_NOCONNECTION,
            AdviseConnection(source.unknown(), IID_IUnknown, &sink, &cookie, TRUE));
  EXPECT_HR(E_NOINTERFACE, UnadviseConnection(&plain, kEvents, &sink, cookie, FALSE));
  EXPECT_EQ(1, source.refs);

  xktest::DebugOutputCapture capture;
  sink.queries = 0;
  EXPECT_HR(E_POINTER, AdviseConnection(source.unknown(), kEvents, &sink, nullptr, TRUE));
  EXPECT_HR(E_POINTER, AdviseConnection(nullptr, kEvents, &sink, &cookie, TRUE));
  EXPECT_HR(E_POINTER, UnadviseConnection(source.unknown(), kEvents, nullptr, cookie, TRUE));
  const char kAdvise[] = "AdviseConnection: source, sink or key pointers null!\n";
  EXPECT_THAT(capture.Lines(),
              ElementsAre(kAdvise, testing::_, kAdvise, testing::_,
                          "UnadviseConnection: source or sink pointers null!\n", testing::_));
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOConnPt", 39, "0"},
                                                AssertionReport{"MOConnPt", 39, "0"},
                                                AssertionReport{"MOConnPt", 90, "0"}));
  EXPECT_EQ(0, sink.queries);
  EXPECT_EQ(1, sink.refs);
  EXPECT_EQ(1, source.refs);
}

const GUID kPages[] = {{1}, {2}, {3}, {4}, {5}};

TEST_F(ConnectionsTest, PageIdsAreAppendedInTheTaskAllocatorInOrder) {
  CAUUID pages = {}, more = {3, const_cast<GUID*>(kPages + 2)};
  EXPECT_HR(S_FALSE, AddPropPageIDs(&pages, kPages, 0));
  EXPECT_HR(S_OK, AddPropPageIDs(&pages, kPages, 2));
  EXPECT_HR(S_OK, AddPropPages(&pages, &more));
  ASSERT_EQ(5u, pages.cElems);
  EXPECT_EQ(0, memcmp(kPages, pages.pElems, sizeof kPages));
  EXPECT_THAT(spy.ReallocRequests(), ElementsAre(32, 80));

  const CAUUID before = pages;
  EXPECT_HR(E_POINTER, AddPropPageIDs(nullptr, kPages, 1));
  EXPECT_HR(E_POINTER, AddPropPageIDs(&pages, nullptr, 1));
  EXPECT_HR(E_POINTER, AddPropPages(&pages, nullptr));
  EXPECT_HR(E_FAIL, AddPropPageIDs(&pages, kPages, 0xFFFFFFFF)) << "more than a count holds";
  {
    xktest::TaskAllocatorRefusal refusal;
    EXPECT_HR(E_FAIL, AddPropPageIDs(&pages, kPages, 1));
  }
  EXPECT_TRUE(pages.cElems == 5 && pages.pElems == before.pElems) << "failures leave it as it was";
  CoTaskMemFree(pages.pElems);

  xktest::DebugOutputCapture capture;
  GUID foreign[2] = {};
  CAUUID notOurs = {2, foreign};
  EXPECT_HR(E_FAIL, AddPropPageIDs(&notOurs, kPages, 1));
  EXPECT_TRUE(notOurs.cElems == 2 && notOurs.pElems == foreign);
  EXPECT_THAT(
      capture.Assertions(),
      ElementsAre(AssertionReport{"MOPrpPgs", 44, "CoTaskMemDidAlloc(pPgInfo->pElems) != 0"}));
}

}  // namespace
