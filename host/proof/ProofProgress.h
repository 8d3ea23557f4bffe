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
  // Draws nothing yet: what is over at once shows no line at all.
  ProofProgress(std::string label, std::size_t sections);
  // Clears the line where one was drawn, so that results begin on an empty one.
  ~ProofProgress();
  ProofProgress(const ProofProgress&) = delete;
  ProofProgress& operator=(const ProofProgress&) = delete;

  // After each item; cheap, and draws rarely.
  // `section` counts from zero, `items` is how many were read in all.
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
