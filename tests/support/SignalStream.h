// Interrupts a thread by signals that its calls are not restarted after.
//
//   SignalStream signals;                              // aims at the calling thread
//   signals.Start(100, [&] { end the wait... });       // as many signals at least, then the action
//   wait...
//   signals.Stop();
//
// Start without a number goes on until Stop.
#ifndef OPL_TESTS_SUPPORT_SIGNAL_STREAM_H
#define OPL_TESTS_SUPPORT_SIGNAL_STREAM_H

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <functional>
#include <thread>

namespace opltest {

class SignalStream {
 public:
  SignalStream() {
    struct sigaction counting {};
    counting.sa_handler = Count;
    EXPECT_EQ(0, ::sigaction(SIGUSR1, &counting, &before_));
  }
  ~SignalStream() {
    Stop();
    EXPECT_EQ(0, ::sigaction(SIGUSR1, &before_, nullptr));
  }
  SignalStream(const SignalStream&) = delete;
  SignalStream& operator=(const SignalStream&) = delete;

  // A sanitizer may hold a signal back until the thread's next call: so one more is sent while none is
  // handled.
  void Start(
      int count = INT_MAX, const std::function<void()>& then = [] {}) {
    thread_ = std::thread([this, count, then] {
      while (Handled() < count && !stopped_) {
        (void)::pthread_kill(target_, SIGUSR1);
        std::this_thread::yield();
      }
      then();
    });
  }
  void Stop() {
    stopped_ = true;
    if (thread_.joinable()) thread_.join();
  }

  static int Handled() { return __atomic_load_n(&handled_, __ATOMIC_SEQ_CST); }

 private:
  // The thread sanitizer of GCC 12 must not see the counting: when it looks for pending signals at an atomic
  // operation in a handler that it calls itself, and there is one, it leaves all signals blocked for good.
  [[gnu::no_sanitize("thread")]] static void Count(int) {
    (void)__atomic_fetch_add(&handled_, 1, __ATOMIC_SEQ_CST);
  }

  static inline int handled_ = 0;

  const pthread_t target_ = ::pthread_self();
  std::atomic<bool> stopped_{false};
  std::thread thread_;
  struct sigaction before_ {};
};

}  // namespace opltest

#endif
