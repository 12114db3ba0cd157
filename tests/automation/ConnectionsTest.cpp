// Connections made and broken on the platform's own connectable object, with
// the sink's references counted exactly; and property-page lists grown in the
// task allocator.
#include <gmock/gmock.h>
#include <olectl.h>
#include <xkcombsd/Connections.h>
#include <xkcombsd/PropertyPages.h>

#include "ComTest.h"
#include "DebugOutput.h"
#include "FakeUnknown.h"

namespace {

using testing::ElementsAre;
using xktest::AssertionReport;

// The platform's XML document is a connectable object: its point for
// IPropertyNotifySink holds each sink by the reference it queries for.
class Source {
 public:
  Source() {
    CLSID clsid = {};
    CLSIDFromProgID(L"Msxml2.DOMDocument.3.0", &clsid);
    EXPECT_HR(S_OK, CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                                     reinterpret_cast<void**>(&m_document)));
  }
  ~Source() {
    if (m_document) EXPECT_EQ(0u, m_document->Release());
  }
  IUnknown* unknown() { return m_document; }

 private:
  IUnknown* m_document = nullptr;
};
const IID& kEvents = IID_IPropertyNotifySink;

using ConnectionsTest = xktest::ComTest<>;

// The sink's count, from 1, after advising, unadvising, and an unadvise the
// point refuses (weak: the reference added for the point's release stays).
TEST_F(ConnectionsTest, StrongConnectionsHoldTheSinkAndWeakOnesDoNot) {
  for (auto [strong, advised, unadvised, refused] : {std::tuple{TRUE, 2, 1, 1}, {FALSE, 1, 2, 3}}) {
    Source source;
    xktest::FakeUnknown sink(kEvents);
    DWORD cookie = 0;
    EXPECT_HR(S_OK, AdviseConnection(source.unknown(), kEvents, &sink, &cookie, strong));
    EXPECT_NE(0u, cookie);
    EXPECT_EQ(advised, sink.refs) << strong;
    EXPECT_HR(S_OK, UnadviseConnection(source.unknown(), kEvents, &sink, cookie, strong));
    EXPECT_EQ(unadvised, sink.refs) << strong;
    EXPECT_HR(CONNECT_E_NOCONNECTION,
              UnadviseConnection(source.unknown(), kEvents, &sink, cookie, strong));
    EXPECT_EQ(refused, sink.refs) << strong;
  }
}

// The codes of NULL arguments are pinned with every export's; here, what is reported.
TEST_F(ConnectionsTest, SourcesWithoutThePointAndNullArgumentsAreRefused) {
  Source source;
  xktest::FakeUnknown sink(kEvents);
  DWORD cookie = 0;
  EXPECT_HR(CONNECT_E_NOCONNECTION,
            AdviseConnection(source.unknown(), IID_IUnknown, &sink, &cookie, TRUE));
  xktest::DebugOutputCapture capture;
  AdviseConnection(source.unknown(), kEvents, &sink, nullptr, TRUE);
  AdviseConnection(nullptr, kEvents, &sink, &cookie, TRUE);
  UnadviseConnection(source.unknown(), kEvents, nullptr, cookie, TRUE);
  const char kAdvise[] = "AdviseConnection: source, sink or key pointers null!\n";
  EXPECT_THAT(capture.Lines(),
              ElementsAre(kAdvise, testing::_, kAdvise, testing::_,
                          "UnadviseConnection: source or sink pointers null!\n", testing::_));
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOConnPt", 39, "0"},
                                                AssertionReport{"MOConnPt", 39, "0"},
                                                AssertionReport{"MOConnPt", 90, "0"}));
  EXPECT_EQ(1, sink.refs);
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
