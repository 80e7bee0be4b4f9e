// How much is left of a time: for waits that signals interrupt and that must end all the same.
#ifndef OPL_BASE_DEADLINE_H
#define OPL_BASE_DEADLINE_H

#include <cstdint>
#include <ctime>

namespace opl {

class Deadline {
 public:
  explicit Deadline(uint32_t milliseconds) : endNs_(NowNs() + milliseconds * kNsPerMs) {}

  // Never below 0.
  timespec Left() const {
    const int64_t leftNs = LeftNs();
    timespec left{};
    left.tv_sec = static_cast<time_t>(leftNs / kNsPerSecond);
    left.tv_nsec = static_cast<long>(leftNs % kNsPerSecond);
    return left;
  }
  // Rounded up, so that a wait of that length does not end before its time.
  int LeftMs() const { return static_cast<int>((LeftNs() + kNsPerMs - 1) / kNsPerMs); }

 private:
  static constexpr int64_t kNsPerMs = 1000000;
  static constexpr int64_t kNsPerSecond = 1000 * kNsPerMs;

  static int64_t NowNs() {
    timespec now{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNsPerSecond + now.tv_nsec;
  }
  int64_t LeftNs() const {
    const int64_t leftNs = endNs_ - NowNs();
    return leftNs > 0 ? leftNs : 0;
  }

  const int64_t endNs_;
};

}  // namespace opl

#endif
