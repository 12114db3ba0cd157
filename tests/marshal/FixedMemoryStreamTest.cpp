// The fixed-memory stream the proxy/stub pair marshals references through: short
// transfers at the end, STG_E_MEDIUMFULL past it, seeks bounded by the block,
// Stat with both flags, and the count that must be back at 1 when it goes.
#include <gmock/gmock.h>

#include <tuple>

#include "DebugOutput.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "marshal/MOStmFix.h"

namespace {

using testing::ElementsAre;
using xk::marshal::FixedMemoryStream;

// The stream is no COM object of the module: only the task allocator is watched.
class FixedMemoryStreamTest : public ::testing::Test {
 protected:
  void SetUp() override { CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
  void TearDown() override {
    EXPECT_EQ(0, spy.Outstanding());
    CoUninitialize();
  }
  xktest::MallocSpy spy;
  BYTE block[8] = {};
  FixedMemoryStream stream{block, sizeof block};
};

TEST_F(FixedMemoryStreamTest, WritesShortAtTheEndThenRefusesAndSeeksWithinTheBlock) {
  const BYTE ten[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  ULONG n = 0xDEADBEEF;
  EXPECT_HR(S_OK, stream.Write(ten, 10, &n));
  EXPECT_EQ(8u, n);
  EXPECT_THAT(block, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
  EXPECT_HR(STG_E_MEDIUMFULL, stream.Write(ten, 1, &n));
  EXPECT_EQ(0u, n);
  for (auto [offset, origin, hr, at] :
       {std::tuple<LONGLONG, DWORD, HRESULT, ULONGLONG>{9, STREAM_SEEK_SET, STG_E_MEDIUMFULL, 0},
        {8, STREAM_SEEK_SET, S_OK, 8},
        {-9, STREAM_SEEK_END, STG_E_MEDIUMFULL, 0},
        {-6, STREAM_SEEK_CUR, S_OK, 2},
        {0, 3, STG_E_INVALIDFUNCTION, 0},
        {-8, STREAM_SEEK_END, S_OK, 0}}) {
    ULARGE_INTEGER reached = {{0xDEADBEEF, 0xDEADBEEF}};
    LARGE_INTEGER move = {};
    move.QuadPart = offset;
    EXPECT_HR(hr, stream.Seek(move, origin, &reached)) << offset << " from " << origin;
    EXPECT_EQ(at, reached.QuadPart);
  }
  BYTE read[10] = {};
  EXPECT_HR(S_OK, stream.Read(read, 10, &n));
  EXPECT_THAT(read, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 0, 0));
  EXPECT_HR(STG_E_MEDIUMFULL, stream.Read(read, 1, &n));
}

TEST_F(FixedMemoryStreamTest, StatsWithAndWithoutAName) {
  for (DWORD flag : {STATFLAG_DEFAULT, STATFLAG_NONAME}) {
    STATSTG stat;
    memset(&stat, 0xCC, sizeof stat);
    ASSERT_HR(S_OK, stream.Stat(&stat, flag));
    const bool named = flag == STATFLAG_DEFAULT;
    EXPECT_EQ(named, stat.pwcsName && !stat.pwcsName[0] && spy.AllocRequests().back() == 2);
    CoTaskMemFree(stat.pwcsName);
    EXPECT_EQ(static_cast<DWORD>(STGTY_STREAM), stat.type);
    EXPECT_EQ(8u, stat.cbSize.QuadPart);
    EXPECT_EQ(0u, stat.grfMode | stat.grfLocksSupported | stat.grfStateBits | stat.reserved);
    EXPECT_EQ(GUID_NULL, stat.clsid);
  }
}

TEST(FixedMemoryStream, ReportsAReferenceLeftBehindWhenItGoes) {
  xktest::DebugOutputCapture capture;
  {
    BYTE block[4];
    FixedMemoryStream stream(block, sizeof block);
    for (const IID* iid : {&IID_ISequentialStream, &IID_IStream}) {
      void* face = nullptr;
      ASSERT_HR(S_OK, stream.QueryInterface(*iid, &face));
      EXPECT_EQ(static_cast<IStream*>(&stream), face);
    }
    EXPECT_EQ(2u, stream.Release());
    EXPECT_EQ(0u, capture.Assertions().size()) << "nothing is reported before it goes";
  }
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(xktest::AssertionReport{"MOStmFix", 207, "m_refs == 1"}));
}

}  // namespace
