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

}  // namespace opltest

#endif
