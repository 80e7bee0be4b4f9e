// Keeps all signals, and cancellation, from the calling thread as long as it lives: around what neither a
// handler nor the end of the thread may interrupt.
#ifndef OPL_SIG_SIGNAL_BLOCK_H
#define OPL_SIG_SIGNAL_BLOCK_H

#include "OPL_Sig.h"
#include "opl_base/src/CancellationHold.h"

namespace opl {

// Puts a thread's mask back and releases the saved one, also when the library has ended meanwhile.
OPL_Result RestoreMask(sigset_t** pSaved);

class SignalBlock {
 public:
  SignalBlock() = default;
  ~SignalBlock() {
    if (saved_ != nullptr) (void)RestoreMask(&saved_);
  }
  SignalBlock(const SignalBlock&) = delete;
  SignalBlock& operator=(const SignalBlock&) = delete;

  [[nodiscard]] OPL_Result Take() { return OPL_SigBlock(0, &saved_); }

 private:
  const CancellationHold noCancellation_;
  sigset_t* saved_ = nullptr;
};

}  // namespace opl

#endif
