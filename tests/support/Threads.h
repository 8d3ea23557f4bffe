// The same work on several threads at once.
#pragma once

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace quorvel::testing {

// Each thread gets its number, from 0; they start together, and have ended when this returns.
inline void OnThreads(int count, const std::function<void(int thread)>& work) {
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      while (!go) std::this_thread::yield();
      work(i);
    });
  }
  go = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace quorvel::testing
