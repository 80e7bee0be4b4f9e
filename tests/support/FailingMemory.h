// Makes the library's allocations fail, through the callbacks of a default context of its own:
//
//   FailingMemory memory(2);                    // the second allocation from now on fails, those after work
//   FailingMemory memory(1, Fault::kForGood);
//
// All four allocating functions are counted together; what succeeds comes from the system, so it may be
// released after the end of the scope, which takes the context back. To fail each allocation of a call in
// turn, go on with a larger number until Fired() is false.
#ifndef OPL_TESTS_SUPPORT_FAILING_MEMORY_H
#define OPL_TESTS_SUPPORT_FAILING_MEMORY_H

#include <cerrno>

#include "OPL_Mem.h"
#include "tests/support/Faults.h"

namespace opltest {

class FailingMemory {
 public:
  // The error number is what a failing allocation leaves in errno, as the system's does; 0 leaves errno
  // alone.
  explicit FailingMemory(int nth, Fault::Duration duration = Fault::kOnce, int error = ENOMEM);
  ~FailingMemory();
  FailingMemory(const FailingMemory&) = delete;
  FailingMemory& operator=(const FailingMemory&) = delete;

  // Whether the allocation came.
  bool Fired() const;
  // Allocations so far, failed ones included.
  int Calls() const;

 private:
  OPL_MemContext* context_ = nullptr;
};

}  // namespace opltest

#endif
