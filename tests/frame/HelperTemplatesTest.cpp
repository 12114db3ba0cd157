// The helper templates every object of the library is built from: reference
// count, lock guard and interface references, with their assertion texts.
#include <gmock/gmock.h>
#include <xkcombsd/MLLock.h>
#include <xkcombsd/MLRelItf.h>
#include <xkcombsd/MORefCnt.h>

#include <vector>

#include "DebugOutput.h"
#include "FakeUnknown.h"

using ::testing::ElementsAre;
using xktest::AssertionReport;

namespace {

struct Events {
  int finalReleases = 0, finalReleasesSeenByDestructor = -1;
};

template <class ThreadModel>
struct Probe : xk::MORefCnt<ThreadModel> {
  explicit Probe(Events* events) : m_events(events) {}
  ~Probe() override { m_events->finalReleasesSeenByDestructor = m_events->finalReleases; }
  void FinalRelease() override { ++m_events->finalReleases; }
  Events* m_events;
};

template <class ThreadModel>
class RefCountTest : public ::testing::Test {};
using ThreadModels = ::testing::Types<xk::MultiThreaded, xk::SingleThreaded>;
TYPED_TEST_SUITE(RefCountTest, ThreadModels);

}  // namespace

TYPED_TEST(RefCountTest, TheLastReleaseDestroysAfterTheHookAndAStillReferencedDestroyIsReported) {
  xktest::DebugOutputCapture capture;
  Events events;
  auto* probe = new Probe<TypeParam>(&events);
  EXPECT_EQ(GMEM_FIXED, GlobalFlags(GlobalHandle(probe)) & GMEM_MOVEABLE) << "fixed global memory";
  EXPECT_GE(GlobalSize(GlobalHandle(probe)), sizeof(Probe<TypeParam>));
  EXPECT_THAT((std::vector<ULONG>{probe->InternalAddRef(), probe->InternalRelease()}),
              ElementsAre(2u, 1u))
      << "the creator holds the first reference";
  EXPECT_EQ(-1, events.finalReleasesSeenByDestructor) << "not destroyed yet";
  EXPECT_EQ(0u, probe->InternalRelease());
  EXPECT_EQ(1, events.finalReleasesSeenByDestructor) << "final release runs before destruction";
  delete new Probe<TypeParam>(&events);  // untouched, so destroyed unreported

  auto* shared = new Probe<TypeParam>(&events);
  shared->InternalAddRef();
  delete shared;
  EXPECT_THAT(
      capture.Assertions(),
      ElementsAre(AssertionReport{
          "MORefCnt", 630, "m_cRefs == CountClass::Count || (m_cRefs + 1) == CountClass::Count"}));
  EXPECT_EQ(1, events.finalReleases) << "destruction without release skips the hook";
}

TEST(MLLock, LocksForItsScopeReportsANullLockableAndReentersACriticalSection) {
  struct CountingLock {
    int locks = 0, unlocks = 0;
    void Lock() { ++locks; }
    void Unlock() { ++unlocks; }
  } lock;
  xktest::DebugOutputCapture capture;
  {
    xk::MLLock<CountingLock> guard(&lock);
    EXPECT_EQ(0, lock.unlocks);
  }
  EXPECT_THAT((std::vector<int>{lock.locks, lock.unlocks}), ElementsAre(1, 1));
  { xk::MLLock<CountingLock> nothing(nullptr); }
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MLLock", 261, "m_pt != NULL"}));

  xk::CriticalSectionLock section;
  xk::MLLock<xk::CriticalSectionLock> outer(&section);
  xk::MLLock<xk::CriticalSectionLock> inner(&section);  // hangs here if not recursive
}

TEST(MLRelItf, AddRefAndReleaseReportNullAndTheHolderReleasesExactlyWhatItTook) {
  xktest::DebugOutputCapture capture;
  xktest::FakeUnknown object;
  xk::AddRefItf<IUnknown>(nullptr);
  xk::ReleaseItf<IUnknown>(nullptr);
  {
    xk::MLRelItf<IUnknown> adding(&object, true);
    EXPECT_EQ(2, object.refs);
  }
  EXPECT_EQ(1, object.refs);
  EXPECT_EQ(nullptr, xk::MLRelItf<IUnknown>().get());
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MLRelItf", 112, "NULL != p"},
                                                AssertionReport{"MLRelItf", 121, "NULL != p"},
                                                AssertionReport{"MLRelItf", 676, "NULL != m_p"}));
}
