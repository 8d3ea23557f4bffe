// Shows how far the reading of a device tree is.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "host/console/Terminal.h"

namespace quorvel::host {

// One line on standard error, redrawn in place; nothing where that is no terminal. One thread.
class ProofProgress {
 public:
  ProofProgress(std::string label, std::size_t sections);
  ~ProofProgress();
  ProofProgress(const ProofProgress&) = delete;
  ProofProgress& operator=(const ProofProgress&) = delete;

  // After each item; cheap, and draws rarely.
  void at(std::size_t section, std::uint64_t items);

 private:
  const std::string label_;
  // The whole of which at() tells the part.
  const std::size_t sections_;
  const Terminal terminal_;
  // When the line was drawn last: at most a few times a second.
  std::chrono::steady_clock::time_point drawn_{};
  bool shown_ = false;
};

}  // namespace quorvel::host
