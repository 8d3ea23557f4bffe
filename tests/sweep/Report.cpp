// What a sweep tells: a bar while it runs, what was found wrong and how to repeat it, a table.
#include "tests/sweep/Report.h"

#include <unistd.h>

#include <cstdio>
#include <utility>

namespace quorvel::sweep {

namespace {

constexpr long kMostTold = 12;         // points of one sweep
constexpr std::size_t kMostWords = 4;  // lines about one point
constexpr int kBarWidth = 32;

bool IsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

void TellAll(const char* what, const std::vector<std::string>& texts) {
  for (std::size_t i = 0; i < texts.size() && i < kMostWords; ++i) {
    std::printf("    %s: %s\n", what, texts[i].c_str());
  }
  if (texts.size() > kMostWords) std::printf("    ... and %zu more\n", texts.size() - kMostWords);
}

}  // namespace

// A control is good when it finds something.
bool Row::isGood() const {
  if (!skipped.empty()) return true;
  if (!broken.empty() || fired != points || points == 0) return false;
  return isControl ? lost > 0 : lost == 0 && left == 0;
}

Account::Account(Row row, std::string repeat, std::size_t total)
    : row_(std::move(row)), repeat_(std::move(repeat)), total_(total) {}

void Account::add(const Finding& finding) {
  ++row_.points;
  row_.fired += finding.fired ? 1 : 0;
  row_.lost += finding.lost.empty() ? 0 : 1;
  row_.left += finding.left.empty() ? 0 : 1;
  row_.gaveUp += finding.gaveUp.empty() ? 0 : 1;
  for (const std::string& kind : finding.gaveUp) ++row_.givenUp[kind];
  row_.thirdRun += finding.neededThirdRun ? 1 : 0;
  for (const std::string& name : finding.allowed) ++row_.allowed[name];
  const bool isWrong = !finding.fired || !finding.lost.empty() || !finding.left.empty();
  if (isWrong && !row_.isControl) tell(finding);
}

void Account::tell(const Finding& finding) {
  clearBar();
  if (++told_ > kMostTold) return;
  std::printf("%s, %s: point %s%s\n", row_.sweep.c_str(), row_.variant.c_str(),
              finding.point.c_str(), finding.fired ? "" : " did not fire");
  TellAll("lost", finding.lost);
  TellAll("left behind", finding.left);
  std::printf("    again, keeping the tree: %s --only %s\n", repeat_.c_str(),
              finding.point.c_str());
  std::fflush(stdout);
}

void Account::clearBar() const {
  if (IsTerminal()) std::fputs("\r\033[K", stderr);
}

void Account::show(std::size_t done) const {
  if (!IsTerminal()) return;
  const int filled = total_ == 0
                         ? kBarWidth
                         : static_cast<int>(done * static_cast<std::size_t>(kBarWidth) / total_);
  const std::string bar = std::string(static_cast<std::size_t>(filled), '#') +
                          std::string(static_cast<std::size_t>(kBarWidth - filled), '.');
  std::fprintf(stderr, "\r%s, %s [%s] %zu/%zu, %ld lost\033[K", row_.sweep.c_str(),
               row_.variant.c_str(), bar.c_str(), done, total_, row_.lost);
}

Row Account::close() {
  clearBar();
  row_.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  return std::move(row_);
}

void PrintTable(const std::vector<Row>& rows) {
  std::printf("%-18s %-25s %7s %7s %5s %6s %8s %5s %8s\n", "sweep", "variant", "points", "fired",
              "lost", "left", "given up", "third", "seconds");
  for (const Row& row : rows) {
    if (!row.skipped.empty() || !row.broken.empty()) {
      std::printf("%-18s %-25s %s: %s\n", row.sweep.c_str(), row.variant.c_str(),
                  row.broken.empty() ? "skipped" : "BROKEN",
                  (row.broken.empty() ? row.skipped : row.broken).c_str());
      continue;
    }
    std::printf("%-18s %-25s %7ld %7ld %5ld %6ld %8ld %5ld %8.1f%s\n", row.sweep.c_str(),
                row.variant.c_str(), row.points, row.fired, row.lost, row.left, row.gaveUp,
                row.thirdRun, row.seconds,
                row.isControl ? (row.isGood() ? "  (caught, as it must be)" : "  NOT CAUGHT")
                              : (row.isGood() ? "" : "  FAILED"));
  }
  for (const Row& row : rows) {
    for (const auto& [kind, count] : row.givenUp) {
      std::printf("%s, %s: given up as documented, %ld times: %s\n", row.sweep.c_str(),
                  row.variant.c_str(), count, kind.c_str());
    }
    for (const auto& [name, count] : row.allowed) {
      std::printf("%s, %s: left behind as documented, %ld times: %s\n", row.sweep.c_str(),
                  row.variant.c_str(), count, name.c_str());
    }
  }
}

}  // namespace quorvel::sweep
