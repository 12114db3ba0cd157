// The collection template from inside: the contracts it reports broken when
// its state is not what its methods expect.
#include <gmock/gmock.h>

#include "DebugOutput.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "collections/EnumKinds.h"

using ::testing::ElementsAre;
using xk::collections::EnumGUID;
using xktest::AssertionReport;

namespace {

// A GUID collection whose storage pointers a test may set.
class Probe : public EnumGUID {
 public:
  Probe() : EnumGUID(nullptr) {}
  void PretendStorage(GUID* first, size_t count) {
    m_start = m_iter = first;
    m_end = first + count;
  }
  void Destroy() { delete this; }
};

class EnumSequenceTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(0, m_spy.Outstanding()); }
  xktest::MallocSpy m_spy;
};

TEST_F(EnumSequenceTest, StoragePointersLeftOnAnEmptySequenceOrOnDestructionAreReported) {
  auto* probe = new Probe;
  GUID slots[2];
  probe->PretendStorage(slots, 0);
  xktest::DebugOutputCapture capture;
  EXPECT_HR(S_FALSE, probe->Empty());
  EXPECT_THAT(capture.Assertions(),
              ElementsAre(AssertionReport{"MOEnXXXX", 340, "m_start == NULL"},
                          AssertionReport{"MOEnXXXX", 341, "m_end == NULL"},
                          AssertionReport{"MOEnXXXX", 342, "m_iter == NULL"}));
  probe->PretendStorage(nullptr, 0);
  EXPECT_EQ(0u, probe->Release());
  capture.Clear();
  probe = new Probe;
  probe->PretendStorage(slots, 2);
  probe->Destroy();  // without the final release that would have emptied it
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOEnXXXX", 212, "cItems == 0"}));
}

}  // namespace
