// A thread that makes pairs of names change places until it is stopped.
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/UniqueDescriptor.h"

namespace quorvel::races {

// Two names in one directory, which is held by descriptor and so is followed when it is moved.
struct Pair {
  UniqueDescriptor directory;
  std::string one;
  std::string other;

  Pair(const std::string& path, std::string first, std::string second)
      : directory(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)),
        one(std::move(first)),
        other(std::move(second)) {}
};

class Exchanger {
 public:
  // Returns once the thread is at work.
  explicit Exchanger(std::vector<Pair> pairs) : pairs_(std::move(pairs)) {
    thread_ = std::thread([this] { exchange(); });
    while (count_ == 0 && !gaveUp_) std::this_thread::yield();
    before_ = count_;
  }
  Exchanger(const Exchanger&) = delete;
  Exchanger& operator=(const Exchanger&) = delete;
  ~Exchanger() { stop(); }

  // How many exchanges happened since it was made.
  long stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    return count_ - before_;
  }

 private:
  void exchange() {
    constexpr long kMostFailures = 1'000'000;  // then there is nothing to exchange
    long failures = 0;
    for (std::size_t i = 0; !stop_; i = (i + 1) % pairs_.size()) {
      const Pair& pair = pairs_[i];
      const bool done = ::renameat2(pair.directory.get(), pair.one.c_str(), pair.directory.get(),
                                    pair.other.c_str(), RENAME_EXCHANGE) == 0;
      if (done) ++count_;
      if (!done && ++failures == kMostFailures) gaveUp_ = true;
    }
  }

  const std::vector<Pair> pairs_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> gaveUp_{false};
  std::atomic<long> count_{0};
  long before_ = 0;
  std::thread thread_;
};

}  // namespace quorvel::races
