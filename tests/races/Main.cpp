// Races with links, and trees that nobody expects: a table, and 1 when anything went wrong.
#include <CLI/CLI.hpp>
#include <cstdio>

#include "tests/races/Rows.h"

namespace quorvel::races {

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kCanLimitMemory = false;
#else
constexpr bool kCanLimitMemory = true;
#endif

// From so many rounds on the trees have their full size.
constexpr long kWhole = 1000;

// True when all is as it must be.
bool Print(const std::vector<Row>& rows, bool areRaces, const Options& options) {
  bool good = true;
  for (const Row& row : rows) {
    const bool isGood = row.isGood(areRaces);
    good = good && isGood;
    if (!row.skipped.empty()) {
      std::printf("%-24s skipped: %s\n", row.name.c_str(), row.skipped.c_str());
      continue;
    }
    const char* verdict = isGood ? "" : "  FAILED";
    if (row.isControl) verdict = isGood ? "  (caught, as it must be)" : "  NOT CAUGHT";
    std::printf("%-24s %8ld %10ld %6zu%s\n", row.name.c_str(), row.rounds, row.exchanges,
                row.wrong.size(), verdict);
    if (isGood) continue;
    for (const std::string& wrong : row.wrong) std::printf("    %s\n", wrong.c_str());
    std::printf("    again: scripts/races %ld --seed %u --only '%s'\n", options.rounds,
                options.seed, row.name.c_str());
  }
  return good;
}

int Run(const Options& options) {
  std::printf("%-24s %8s %10s %6s\n", "", "rounds", "exchanges", "wrong");
  bool good = Print(RunRaces(options), true, options);
  const bool whole = options.rounds >= kWhole;
  good = Print(RunBadTrees(options, whole, kCanLimitMemory), false, options) && good;
  return good ? 0 : 1;
}

}  // namespace

}  // namespace quorvel::races

int main(int argc, char** argv) {
  quorvel::races::Options options;
  CLI::App app("Races an operation with links that take the place of its tree", "races");
  app.add_option("rounds", options.rounds, "Of each race; from 1000 on also trees of full size")
      ->check(CLI::PositiveNumber);
  app.add_option("--only", options.only, "A row's name");
  app.add_option("--seed", options.seed, "Of the choice of what is exchanged");
  CLI11_PARSE(app, argc, argv);
  return quorvel::races::Run(options);
}
