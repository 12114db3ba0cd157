// The lock face of an object: generic code holds an object's own lock through
// it (MLLock<MILock>) without knowing what lock, if any, the object has.
#pragma once

namespace xk {

class MILock {
 public:
  virtual void Lock() = 0;
  virtual void Unlock() = 0;

 protected:
  ~MILock() = default;  // never deleted through this face
};

}  // namespace xk
