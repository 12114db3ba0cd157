// The fixed-memory stream the proxy/stub pair marshals references through: short
// transfers at the end, STG_E_MEDIUMFULL past it, seeks bounded by the block,
// Stat with both flags, and the count that must be back at 1 when it goes.
#include <gmock/gmock.h>

#include "DebugOutput.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "marshal/MOStmFix.h"

namespace {

using testing::ElementsAre;
using xk::marshal::FixedMemoryStream;
using xktest::AssertionReport;

constexpr ULONG kSentinel = 0xDEADBEEF;

// The stream is no COM object of the module: only the task allocator is watched.
class FixedMemoryStreamTest : public ::testing::Test {
 protected:
  void SetUp() override { CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
  void TearDown() override {
    EXPECT_EQ(0, spy.Outstanding());
    CoUninitialize();
  }
  xktest::MallocSpy spy;
};

TEST_F(FixedMemoryStreamTest, WritesShortAtTheEndThenRefusesAndReadsBack) {
  BYTE block[8] = {};
  const BYTE ten[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  FixedMemoryStream stream(block, sizeof block);
  ULONG n = kSentinel;
  EXPECT_HR(S_OK, stream.Write(ten, 10, &n));
  EXPECT_EQ(8u, n);
  EXPECT_THAT(block, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
  n = kSentinel;
  EXPECT_HR(STG_E_MEDIUMFULL, stream.Write(ten, 1, &n));
  EXPECT_EQ(0u, n);
  EXPECT_HR(E_POINTER, stream.Write(nullptr, 1, &n));

  ULARGE_INTEGER at = {{kSentinel, kSentinel}};
  LARGE_INTEGER move = {};
  const struct {
    LONGLONG move;
    DWORD origin;
    HRESULT hr;
    ULONGLONG at;
  } seeks[] = {{9, STREAM_SEEK_SET, STG_E_MEDIUMFULL, 0},
               {8, STREAM_SEEK_SET, S_OK, 8},
               {-9, STREAM_SEEK_END, STG_E_MEDIUMFULL, 0},
               {-6, STREAM_SEEK_CUR, S_OK, 2},
               {1, STREAM_SEEK_CUR, S_OK, 3},
               {0, 3, STG_E_INVALIDFUNCTION, 0},
               {-8, STREAM_SEEK_END, S_OK, 0}};
  for (const auto& seek : seeks) {
    move.QuadPart = seek.move;
    EXPECT_HR(seek.hr, stream.Seek(move, seek.origin, &at)) << seek.move << " from " << seek.origin;
    EXPECT_EQ(seek.at, at.QuadPart);
  }
  BYTE read[10] = {};
  EXPECT_HR(S_OK, stream.Read(read, 10, &n));
  EXPECT_EQ(8u, n);
  EXPECT_HR(STG_E_MEDIUMFULL, stream.Read(read, 1, &n));
  EXPECT_EQ(0u, n);
  EXPECT_THAT(read, ElementsAre(1, 2, 3, 4, 5, 6, 7, 8, 0, 0));
}

TEST_F(FixedMemoryStreamTest, StatsBothWaysAndRefusesTheRest) {
  BYTE block[8];
  FixedMemoryStream stream(block, sizeof block);
  for (DWORD flag : {STATFLAG_DEFAULT, STATFLAG_NONAME}) {
    STATSTG stat;
    memset(&stat, 0xCC, sizeof stat);
    ASSERT_HR(S_OK, stream.Stat(&stat, flag));
    EXPECT_EQ(flag == STATFLAG_NONAME, stat.pwcsName == nullptr);
    if (stat.pwcsName) EXPECT_EQ(0, stat.pwcsName[0]);
    if (stat.pwcsName) EXPECT_EQ(2u, spy.AllocRequests().back());
    CoTaskMemFree(stat.pwcsName);
    EXPECT_EQ(static_cast<DWORD>(STGTY_STREAM), stat.type);
    EXPECT_EQ(8u, stat.cbSize.QuadPart);
    EXPECT_EQ(0u, stat.grfMode | stat.grfLocksSupported | stat.grfStateBits | stat.reserved);
    EXPECT_EQ(GUID_NULL, stat.clsid);
  }
  STATSTG stat;
  EXPECT_HR(E_INVALIDARG, stream.Stat(&stat, 2));
  EXPECT_HR(E_POINTER, stream.Stat(nullptr, STATFLAG_NONAME));
  const ULARGE_INTEGER zero = {};
  const HRESULT refused[] = {stream.SetSize(zero), stream.CopyTo(nullptr, zero, nullptr, nullptr),
                             stream.Commit(0), stream.Revert(), stream.Clone(nullptr)};
  for (HRESULT hr : refused) EXPECT_HR(E_NOTIMPL, hr);
  EXPECT_HR(STG_E_INVALIDFUNCTION, stream.LockRegion(zero, zero, 0));
  EXPECT_HR(STG_E_INVALIDFUNCTION, stream.UnlockRegion(zero, zero, 0));
}

TEST_F(FixedMemoryStreamTest, AnswersItsInterfacesAndReportsAReferenceLeftBehind) {
  xktest::DebugOutputCapture capture;
  {
    BYTE block[4];
    FixedMemoryStream stream(block, sizeof block);
    void* face = nullptr;
    for (const IID* iid : {&IID_IUnknown, &IID_ISequentialStream, &IID_IStream}) {
      ASSERT_HR(S_OK, stream.QueryInterface(*iid, &face));
      EXPECT_EQ(static_cast<IStream*>(&stream), face);
    }
    EXPECT_EQ(4u, stream.RefCount());
    EXPECT_HR(E_NOINTERFACE, stream.QueryInterface(IID_IStorage, &face));
    EXPECT_EQ(nullptr, face);
    EXPECT_HR(E_POINTER, stream.QueryInterface(IID_IStream, nullptr));
    EXPECT_EQ(3u, stream.Release());
    EXPECT_EQ(2u, stream.Release());
    EXPECT_EQ(0u, capture.Assertions().size()) << "nothing is reported before it goes";
  }
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOStmFix", 207, "m_refs == 1"}));
}

}  // namespace
