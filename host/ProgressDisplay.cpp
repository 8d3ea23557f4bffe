// A thread that redraws one line of the terminal.
#include "host/ProgressDisplay.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <system_error>

#include "host/console/Output.h"
#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);
constexpr std::size_t kWidestBar = 30;
// Before that the measure says little.
constexpr auto kTimeToMeasure = std::chrono::seconds(1);
constexpr const char* kClearLine = "\r\x1b[K";

std::string Percent(float progress) {
  const std::string digits = std::to_string(static_cast<int>(std::floor(progress * 100.0F)));
  return std::string(3 - std::min<std::size_t>(3, digits.size()), ' ') + digits + "%";
}

}  // namespace

ProgressDisplay::ProgressDisplay(const MigratorPlugin& plugin, const RunAccount& account,
                                 Terminal terminal)
    : plugin_(plugin), account_(account), terminal_(terminal) {
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error&) {
    // No thread to be had: the migration matters, its display does not.
  }
}

void ProgressDisplay::stop() {
  if (!thread_.joinable()) return;
  {
    const std::scoped_lock lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  thread_.join();
  if (terminal_.isTerminal) (void)WriteWhole(STDERR_FILENO, kClearLine);
}

// Drawn without the lock: a terminal that is stopped blocks the write, and stop() has to be able to
// say that it waits.
void ProgressDisplay::run() {
  std::unique_lock lock(mutex_);
  do {
    lock.unlock();
    draw();
    lock.lock();
  } while (!wake_.wait_for(lock, kRedrawInterval, [this] { return stopping_; }));
  lock.unlock();
  draw();  // a short migration's only sign of life
}

void ProgressDisplay::draw() {
  const float read = plugin_.migrationProgress();
  const float progress = read >= 0.0F ? std::min(read, 1.0F) : 0.0F;  // also for a NaN
  const std::string app = Printable(account_.current());
  std::string line;
  if (terminal_.isTerminal) {
    line = kClearLine + bar(progress, app);
  } else {
    line = Percent(progress) + counted(progress) + (app.empty() ? "" : " migrating " + app) + "\n";
  }
  if (line == shown_) return;
  (void)WriteWhole(STDERR_FILENO, line);
  shown_ = std::move(line);
}

// " 22 of 55".
std::string ProgressDisplay::counted(float progress) const {
  const std::size_t items = account_.items();
  const auto done = std::lround(progress * static_cast<float>(items));
  return items == 0 ? std::string() : " " + std::to_string(done) + " of " + std::to_string(items);
}

// ", 3 s left", as the time so far has it; nothing before it can be told.
std::string ProgressDisplay::remaining(float progress) const {
  const std::chrono::duration<float> passed = std::chrono::steady_clock::now() - start_;
  if (passed < kTimeToMeasure || progress <= 0.0F || progress >= 1.0F) return {};
  const float left = passed.count() / progress * (1.0F - progress);
  return ", " + std::to_string(std::lround(std::ceil(left))) + " s left";
}

// Never wider than the terminal less one column: a full line would wrap, and stay.
std::string ProgressDisplay::bar(float progress, const std::string& app) const {
  const std::size_t columns = std::max<std::size_t>(TerminalColumns(STDERR_FILENO), 12) - 1;
  const std::size_t cells = std::min(kWidestBar, columns / 3);
  const auto full = static_cast<std::size_t>(progress * static_cast<float>(cells));
  const std::string percent = Percent(progress);
  std::string line = "[";
  if (terminal_.colors) line += "\x1b[32m";
  line.append(full, '#');
  if (terminal_.colors) line += "\x1b[0m";
  line.append(cells - full, '-');
  line += "] " + percent;
  const std::string rest = counted(progress) + remaining(progress) + (app.empty() ? "" : " " + app);
  line += CutEnd(rest, columns - (cells + 3 + percent.size()));
  return line;
}

}  // namespace quorvel::host
