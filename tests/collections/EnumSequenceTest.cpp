// The collection template from inside: the object count it is handed, and the
// contracts it reports broken when its state is not what its methods expect.
#include <gmock/gmock.h>

#include "DebugOutput.h"
#include "HResult.h"
#include "MallocSpy.h"
#include "collections/CollectionRows.h"
#include "collections/EnumKinds.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using xk::collections::EnumGUID;
using xktest::AssertionReport;

namespace {

// A GUID collection whose storage pointers a test may set, and whose CreateNew
// may be made to fail.
class Probe : public EnumGUID {
 public:
  explicit Probe(LONG* objectCount = nullptr) : EnumGUID(objectCount) {}
  void PretendStorage(GUID* first, size_t count) {
    m_start = m_iter = first;
    m_end = first + count;
  }
  void Destroy() { delete this; }
  bool refuseCreateNew = false;

 protected:
  EnumGUID* CreateNew() const override { return refuseCreateNew ? nullptr : EnumGUID::CreateNew(); }
};

class EnumSequenceTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(0, m_spy.Outstanding()); }
  xktest::MallocSpy m_spy;
  LONG m_count = 0;
};

TEST_F(EnumSequenceTest, TheObjectCountFollowsEveryObjectAndItsClones) {
  IEnumGUID* e = nullptr;
  ASSERT_HR(S_OK, xk::collections::CreateEnumGUID(CLSID_QvEnumGUID, nullptr, &m_count,
                                                  IID_IEnumGUID, reinterpret_cast<void**>(&e)));
  IEnumGUID* clone = nullptr;
  ASSERT_HR(S_OK, e->Clone(&clone));
  EXPECT_EQ(2, m_count) << "a clone is counted in the same count";
  EXPECT_EQ(0u, clone->Release());
  EXPECT_EQ(0u, e->Release());
  EXPECT_EQ(0, m_count);
  auto* probe = new Probe(&m_count);
  probe->refuseCreateNew = true;
  clone = reinterpret_cast<IEnumGUID*>(0xDEADBEEF);
  EXPECT_HR(E_OUTOFMEMORY, probe->Clone(&clone)) << "no memory for the new object";
  EXPECT_EQ(nullptr, clone);
  EXPECT_EQ(0u, probe->Release());
  EXPECT_EQ(0, m_count);
}

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
  capture.Clear();
  EXPECT_EQ(0u, probe->Release());
  EXPECT_THAT(capture.Assertions(), IsEmpty());
  probe = new Probe;
  probe->PretendStorage(slots, 2);
  probe->Destroy();  // without the final release that would have emptied it
  EXPECT_THAT(capture.Assertions(), ElementsAre(AssertionReport{"MOEnXXXX", 212, "cItems == 0"}));
}

}  // namespace
