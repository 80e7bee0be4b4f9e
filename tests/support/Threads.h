// Threads that set out together.
#ifndef OPL_TESTS_SUPPORT_THREADS_H
#define OPL_TESTS_SUPPORT_THREADS_H

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

}  // namespace opltest

#endif
