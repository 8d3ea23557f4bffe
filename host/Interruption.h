// Ends a run that the user or the system wants to end: Ctrl-C, SIGTERM, SIGHUP.
#pragma once

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace quorvel::host {

// While it lives the three signals do not end the process by themselves, unless they were ignored
// from the start and stay so. The first one is handed to `end` on a thread of its own, which is to
// say what was done and end the process; later ones change nothing. Made before any other thread
// whose signals it must keep away.
// Threads that are made later inherit the blocked signals, so that only the one that waits for them
// is given any.
class Interruption {
 public:
  explicit Interruption(std::function<void(int signal)> end);
  // Waits for an `end` that has begun, and so does not return.
  // Without one the signals' former mask is restored in the calling thread, which must be the one
  // that made this.
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

 private:
  // The thread: waits for one of the signals, or for the end of this.
  void watch();

  const std::function<void(int)> end_;
  sigset_t signals_{};
  // The mask to restore.
  sigset_t before_{};
  std::atomic<bool> over_ = false;
  std::thread watcher_;
};

}  // namespace quorvel::host
