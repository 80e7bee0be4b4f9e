// Lowers a limit of the process as long as it lives.
#ifndef OPL_TESTS_SUPPORT_LIMIT_H
#define OPL_TESTS_SUPPORT_LIMIT_H

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace opltest {

class Limit {
 public:
  // A resource of getrlimit, such as RLIMIT_NOFILE. Take it back before the test writes its output.
  Limit(__rlimit_resource resource, rlim_t soft) : resource_(resource) {
    EXPECT_EQ(0, ::getrlimit(resource_, &before_));
    rlimit lowered = before_;
    lowered.rlim_cur = soft;
    EXPECT_EQ(0, ::setrlimit(resource_, &lowered));
  }
  ~Limit() { (void)::setrlimit(resource_, &before_); }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  const __rlimit_resource resource_;
  rlimit before_{};
};

}  // namespace opltest

#endif
