// Threads that set out together.
#ifndef OPL_TESTS_SUPPORT_THREADS_H
#define OPL_TESTS_SUPPORT_THREADS_H

#include <semaphore.h>

#include <barrier>
#include <thread>
#include <vector>

namespace opltest {

// Runs body(0) to body(count - 1), each in a thread of its own, and returns when all have returned. None
// starts before all threads are there.
template <typename Body>
void RunAtOnce(int count, const Body& body) {
  std::barrier start(count);
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      body(i);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// Runs the body in a thread of its own and returns when it has returned: for what a thread finds that has
// not met a failure yet, as the thread that began the library may have.
template <typename Body>
void InNewThread(const Body& body) {
  std::thread(body).join();
}

// A thread that its end of scope waits for although it is detached: for a test that forks meanwhile, whose
// child has not got the thread and could not join it.
class DetachedThread {
 public:
  template <typename Body>
  explicit DetachedThread(const Body& body) {
    (void)::sem_init(&ended_, 0, 0);
    std::thread([this, body] {
      body();
      (void)::sem_post(&ended_);
    }).detach();
  }
  ~DetachedThread() {
    while (::sem_wait(&ended_) == -1) {
    }
    (void)::sem_destroy(&ended_);
  }
  DetachedThread(const DetachedThread&) = delete;
  DetachedThread& operator=(const DetachedThread&) = delete;

 private:
  sem_t ended_;
};

}  // namespace opltest

#endif
