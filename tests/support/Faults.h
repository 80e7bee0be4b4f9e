// Makes system functions fail, or end the process, at a call of the test's choice.
//
//   Fault fault("open64", 2, EMFILE);      // the second call from now on fails with EMFILE, those after work
//   Fault fault("open64", 1, EIO, Fault::kForGood);
//   Fault fault("semop", 3, Fault::Kill{}); // the process dies by SIGKILL instead of making the call
//   Fault fault("flock", 1, [] { ... });    // something happens just before the call, which is then made
//
// The functions are defined in the test program, which the loader searches before libc: the library under
// test is the one that ships. Which functions can fail is listed in Faults.cpp. A Fault is taken back at the
// end of its scope; one may be in force at a time for each function. Calls of all threads are counted.
#ifndef OPL_TESTS_SUPPORT_FAULTS_H
#define OPL_TESTS_SUPPORT_FAULTS_H

#include <functional>
#include <string>

namespace opltest {

class Fault {
 public:
  enum Duration { kOnce, kForGood };
  struct Kill {};

  // Fails the n-th call, counted from 1, with the error number. Functions that return their error number
  // return it; errno then holds kDecoy, so that a test sees which of the two was reported.
  Fault(const char* function, int nth, int error, Duration duration = kOnce);
  Fault(const char* function, int nth, Kill);
  Fault(const char* function, int nth, std::function<void()> action);
  ~Fault();
  Fault(const Fault&) = delete;
  Fault& operator=(const Fault&) = delete;

  // Whether the call came.
  bool Fired() const;
  // Calls so far, failed ones included.
  int Calls() const;

  static constexpr int kDecoy = 95;  // EOPNOTSUPP: no call of the library fails with it by itself

 private:
  std::string function_;
  std::function<void()> action_;
};

// Lets a function of the test answer the calls of one of those functions, where the test wants to see the
// arguments, or an answer that the system would give too late or never:
//
//   Replacement sleep("select", +[](int, fd_set*, fd_set*, fd_set*, timeval*) { return 0; });
//
// The stand-in has the function's own signature. It is taken back at the end of the scope.
class Replacement {
 public:
  template <typename Function>
  Replacement(const char* function, Function* standIn) : function_(function) {
    Put(function, reinterpret_cast<void*>(standIn));
  }
  ~Replacement() { Put(function_.c_str(), nullptr); }
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;

 private:
  static void Put(const char* function, void* standIn);

  std::string function_;
};

}  // namespace opltest

#endif
