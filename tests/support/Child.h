// A forked process of a test, in step with it over two pipes.
//
//   Child child([](Steps& steps) {
//     EXPECT_EQ(OPL_OK, OPL_InitBegin(0));
//     steps.Reach();       // the test's Await() returns
//     steps.WaitForGo();   // until the test calls Go()
//   });
//   child.Await();
//   child.Go();
//   child.ExpectSuccess();
//
// Nothing waits for time to pass: a step that is not reached, because the process ended or was killed, fails
// the wait at once. A child that is still there at the end of its scope is killed and reaped.
#ifndef OPL_TESTS_SUPPORT_CHILD_H
#define OPL_TESTS_SUPPORT_CHILD_H

#include <sys/types.h>

#include <csignal>
#include <functional>
#include <string>

namespace opltest {

// The child's side.
class Steps {
 public:
  Steps(int toParent, int fromParent) : toParent_(toParent), fromParent_(fromParent) {}

  void Reach();
  void WaitForGo();
  // A line of text for the test, for numbers and messages.
  void Send(const std::string& line);
  // Waits for the test's Send; the process ends when the test is gone.
  std::string Receive();

  int toParent() const { return toParent_; }
  int fromParent() const { return fromParent_; }

 private:
  int toParent_;
  int fromParent_;
};

// Waits until the process's one thread, or the thread of that id, sleeps in the wait for a lock; fails the
// test when it ends instead. Call it after the last step before the wait.
void AwaitSleepOnLock(pid_t id);

class Child {
 public:
  enum class End {
    kImmediately,  // as with _exit: nothing runs at the process's end
    kOrdinarily    // as with exit: the library's exit function runs
  };

  explicit Child(const std::function<void(Steps&)>& body, End end = End::kImmediately);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }

  // Waits until the child reaches its next step; fails the test when the child ends instead.
  void Await();
  void AwaitSleepOnLock() { opltest::AwaitSleepOnLock(pid_); }
  // Waits for the child's next Send; empty when the child ends instead.
  std::string Receive();
  void Send(const std::string& line);
  void Go();

  // Both wait for the end. Success is an exit status of 0: the body ran and none of its expectations failed.
  void ExpectSuccess();
  void ExpectKilledBy(int signal);
  // For a child that may have been quicker than the signal.
  void ExpectSuccessOrKilledBy(int signal);

  // Sends the signal and returns at once.
  void Kill(int signal = SIGKILL);

 private:
  int WaitForEnd();

  pid_t pid_ = -1;
  int toChild_ = -1;
  int fromChild_ = -1;
};

}  // namespace opltest

#endif
