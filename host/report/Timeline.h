// A run's time: what its steps took together, and a bar for each container.
#pragma once

#include <string>
#include <vector>

#include "host/report/Result.h"

namespace quorvel::host {

// What all steps of a run, or of many, took.
struct StepTotals {
  // In the order of MigrationStep, then the time between steps.
  std::array<double, MigrationStepNames.size() + 1> seconds{};

  void add(const ResultContainer& container);
  double sum() const;
};

// One bar of all of them, with a legend that tells each one's time and share. Empty without any.
std::string StepsAsHtml(const StepTotals& totals);

// A bar for each of these containers (by their place in the result), in the order of their turns:
// when it was at work within the run, and how long by step, the longest one as wide as the page
// lets it be. A bar that ends in a mark was stopped there.
std::string TimelineAsHtml(const RunResult& result, std::vector<std::size_t> shown);

}  // namespace quorvel::host
