// Reference-count core of the library's objects. The count starts at 1 so the
// creator owns the first reference without an AddRef; the last Release calls
// the final-release hook, then destroys the object.
#pragma once

#include <xkcombsd/GlobalObject.h>
#include <xkcombsd/ThreadModel.h>
#include <xkcombsd/XKAssert.h>

namespace xk {

struct CountClass {
  static constexpr LONG Count = 1;
};

template <class ThreadModel = MultiThreaded>
class MORefCnt : public GlobalObject {
 public:
  ULONG InternalAddRef() { return static_cast<ULONG>(ThreadModel::Increment(&m_cRefs)); }

  ULONG InternalRelease() {
    const LONG remaining = ThreadModel::Decrement(&m_cRefs);
    if (remaining == 0) {
      FinalRelease();
      delete this;
    }
    return static_cast<ULONG>(remaining);
  }

  LONG RefCount() const { return m_cRefs; }

 protected:
  MORefCnt() = default;
  // Destroyed either untouched (count 1) or after its last release (count 0).
  virtual ~MORefCnt() {
    Verify(m_cRefs == CountClass::Count || (m_cRefs + 1) == CountClass::Count,
           {"MORefCnt", 630, "m_cRefs == CountClass::Count || (m_cRefs + 1) == CountClass::Count"});
  }
  virtual void FinalRelease() {}

  LONG m_cRefs = CountClass::Count;  // (atomic in MultiThreaded)
};

}  // namespace xk
