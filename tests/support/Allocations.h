// Watches the library's allocations while it lives, and makes one fail on request.
#ifndef OPL_TESTS_SUPPORT_ALLOCATIONS_H
#define OPL_TESTS_SUPPORT_ALLOCATIONS_H

struct OPL_MemContext;

namespace opltest {

class Allocations {
 public:
  Allocations();
  ~Allocations();
  Allocations(const Allocations&) = delete;
  Allocations& operator=(const Allocations&) = delete;

  // Fails the n-th allocation from now on, counted from 1, with ENOMEM.
  void Fail(int nth);
  bool HasFailed() const { return failIn_ == 0; }

  // Allocations made and not yet released.
  int Live() const { return live_; }

  // For the callbacks: whether the allocation that is asked for is to succeed.
  bool Allow();
  void Forget() { --live_; }

 private:
  OPL_MemContext* context_ = nullptr;
  int live_ = 0;
  int failIn_ = -1;
};

}  // namespace opltest

#endif
