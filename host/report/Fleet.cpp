// Adds one result after another to the fleet's numbers.
#include "host/report/Fleet.h"

#include <algorithm>

namespace quorvel::host {

namespace {

// What a person looks at before choosing a device, and what a page of thousands of devices has room
// for.
constexpr std::size_t kMostExamples = 4;
constexpr std::size_t kMostSlow = 25;
constexpr std::size_t kMostUnusable = 200;
// Names come from the results; there are far fewer unless these are hostile.
constexpr std::size_t kMostNames = 500;
constexpr const char* kOther = "something else";

// A name that was there before the limit was reached goes on being counted under itself.
template <class Value>
Value& Tally(std::map<std::string, Value>& tallies, const std::string& name) {
  return tallies.size() < kMostNames || tallies.contains(name) ? tallies[name] : tallies[kOther];
}

std::string SlowestStep(const ResultContainer& container) {
  const auto slowest =
      std::max_element(container.steps.begin(), container.steps.end(),
                       [](const StepSpan& a, const StepSpan& b) { return a.seconds < b.seconds; });
  return slowest == container.steps.end() ? "" : MigrationStepNames[slowest->step];
}

// Sums are exact up to 2^64 and wrap beyond: only made-up results come near that.
void Add(const ResultLoss& loss, ResultLoss& sum) {
  sum.files += loss.files;
  sum.bytes += loss.bytes;
  sum.complete = sum.complete && loss.complete;
}

// Interruption goes before failure: an interrupted run has not succeeded either, and goes on when
// it is started again.
std::string StateOf(const RunResult& result) {
  if (result.kind == ResultKind::refused) return "not begun";
  if (!result.interruptedBy.empty()) return "interrupted";
  return result.succeeded ? "succeeded" : "failed";
}

}  // namespace

void Fleet::add(const std::string& file, const RunResult& result) {
  ++devices;
  DeviceOfNote note{
      .device = result.device, .file = file, .state = StateOf(result), .seconds = result.seconds};
  if (result.kind == ResultKind::refused) {
    ++notBegun;
    addRefusal(result);
  } else {
    addRun(result, note);
  }
  const bool hasLost = note.lost.files > 0;
  devicesThatLost += hasLost ? 1 : 0;
  devicesThatKept += note.kept > 0 ? 1 : 0;
  if (note.state != "succeeded" || hasLost || note.kept > 0) ofNote.push_back(std::move(note));
}

// The findings say it more exactly, where it was they that refused the run.
void Fleet::addRefusal(const RunResult& result) {
  bool isTold = false;
  for (const ResultProblem& finding : result.findings) {
    if (finding.step != "refuse") continue;
    addCause("not begun: " + finding.reason, result.device, false);
    isTold = true;
  }
  if (!isTold) addCause("not begun: " + result.refusalReason, result.device, false);
}

void Fleet::addRun(const RunResult& result, DeviceOfNote& note) {
  if (!result.interruptedBy.empty()) {
    ++interrupted;
  } else if (result.succeeded) {
    ++succeeded;
  } else {
    ++failed;
  }
  for (std::size_t i = 0; i < counts.size(); ++i) counts[i] += result.counts[i];
  note.failed = result.count(MigrationOutcome::failed);
  containers += result.items;
  durations.push_back(result.seconds);
  ++Tally(versions, result.versions);
  for (const ResultContainer& container : result.containers) addContainer(container, result, note);
  for (const ResultProblem& problem : result.problems) {
    addCause("of the run: " + InWords(problem), result.device, false);
  }
  Add(note.lost, lost);
}

void Fleet::addContainer(const ResultContainer& container, const RunResult& result,
                         DeviceOfNote& note) {
  steps.add(container);
  addSlow(container, result);
  if (!container.kept.empty()) ++note.kept;
  if (container.lost) Add(*container.lost, note.lost);
  const bool wentWrong =
      container.outcome == MigrationOutcome::failed || container.outcome == MigrationOutcome::left;
  if (!wentWrong) return;
  addCause(InWords(container.stop), result.device + ": " + container.name(), true);
}

void Fleet::addCause(const std::string& cause, const std::string& example, bool isContainer) {
  CauseTally& tally = Tally(causes, cause);
  if (isContainer) ++tally.containers;
  // An example of each device, rather than several of one.
  if (tally.lastDevice == devices) return;
  tally.lastDevice = devices;
  ++tally.devices;
  if (tally.examples.size() < kMostExamples) tally.examples.push_back(example);
}

// The list has a few entries: a linear search and insertion cost less than keeping a heap in order.
void Fleet::addSlow(const ResultContainer& container, const RunResult& result) {
  if (slowest.size() == kMostSlow && container.seconds <= slowest.back().seconds) return;
  const auto slower = std::find_if(slowest.begin(), slowest.end(), [&](const SlowContainer& each) {
    return each.seconds < container.seconds;
  });
  slowest.insert(slower,
                 {result.device, container.name(), container.seconds, SlowestStep(container)});
  if (slowest.size() > kMostSlow) slowest.pop_back();
}

void Fleet::addUnusable(UnusableFile file) {
  ++unusableCount;
  if (unusable.size() < kMostUnusable) unusable.push_back(std::move(file));
}

}  // namespace quorvel::host
