// Keeps all signals from the calling thread as long as it lives: around what a handler must not interrupt.
#ifndef OPL_SIG_SIGNAL_BLOCK_H
#define OPL_SIG_SIGNAL_BLOCK_H

#include "OPL_Sig.h"

namespace opl {

class SignalBlock {
 public:
  SignalBlock() = default;
  ~SignalBlock() {
    if (saved_ != nullptr) (void)OPL_SigReset(0, &saved_);
  }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

  [[nodiscard]] OPL_Result Take() { return OPL_SigBlock(0, &saved_); }

 private:
  sigset_t* saved_ = nullptr;
};

}  // namespace opl

#endif
