// Draws the line that shows how far it is.
#include "host/proof/ProofProgress.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "host/console/Output.h"

namespace quorvel::host {

namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);
// Reading the clock for each item would cost more than a small item.
constexpr std::uint64_t kItemsPerLook = 64;
constexpr std::size_t kBarCells = 30;
constexpr const char* kClearLine = "\r\x1b[K";

}  // namespace

ProofProgress::ProofProgress(std::string label, std::size_t sections)
    : label_(std::move(label)),
      sections_(std::max<std::size_t>(sections, 1)),
      terminal_(DescribeTerminal(STDERR_FILENO)) {}

ProofProgress::~ProofProgress() {
  if (shown_) (void)WriteWhole(STDERR_FILENO, kClearLine);
}

void ProofProgress::at(std::size_t section, std::uint64_t items) {
  if (!terminal_.isTerminal || items % kItemsPerLook != 0) return;
  const auto now = std::chrono::steady_clock::now();
  if (now - drawn_ < kRedrawInterval) return;
  drawn_ = now;
  shown_ = true;
  const std::size_t full = std::min(section, sections_) * kBarCells / sections_;
  const std::string line = kClearLine + label_ + " [" + std::string(full, '#') +
                           std::string(kBarCells - full, '-') + "] " + std::to_string(items) +
                           " items";
  (void)WriteWhole(STDERR_FILENO, line);
}

}  // namespace quorvel::host
