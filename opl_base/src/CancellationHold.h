// Keeps the calling thread from being cancelled: a cancelled thread runs no destructors here, and other
// processes wait for what it holds.
#ifndef OPL_BASE_CANCELLATION_HOLD_H
#define OPL_BASE_CANCELLATION_HOLD_H

#include <pthread.h>

namespace opl {

class CancellationHold {
 public:
  CancellationHold() { (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~CancellationHold() { (void)::pthread_setcancelstate(before_, nullptr); }
  CancellationHold(const CancellationHold&) = delete;
  CancellationHold& operator=(const CancellationHold&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace opl

#endif
