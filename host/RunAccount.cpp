// Sorts what the plug-in tells by container.
#include "host/RunAccount.h"

#include <algorithm>
#include <utility>

#include "host/FailureWords.h"

namespace quorvel::host {

namespace {

// Of a container that migrates whole.
constexpr std::size_t kUsualSteps = 9;

// A group may fail once per item; this many are enough to know why, and all are in the log.
constexpr std::size_t kMostProblems = 32;

void AddCapped(std::vector<MigrationProblem>& problems, const MigrationProblem& problem) {
  // What stopped the container is always kept.
  if (problems.size() < kMostProblems || problem.stops) problems.push_back(problem);
}

}  // namespace

const MigrationProblem* ContainerResult::stoppedAt() const {
  if (outcome == MigrationOutcome::migrated || outcome == MigrationOutcome::resumed) return nullptr;
  // The last one decided: earlier ones were got over.
  const auto last = std::find_if(problems.rbegin(), problems.rend(),
                                 [](const MigrationProblem& problem) { return problem.stops; });
  return last != problems.rend() ? &*last : nullptr;
}

// Null before the first container and after the last one.
ContainerResult* RunAccount::open() {
  return open_ && *open_ < containers_.size() ? &containers_[*open_] : nullptr;
}

void RunAccount::itemsFound(std::size_t count) {
  const std::scoped_lock lock(mutex_);
  items_ = count;
  containers_.reserve(count);
  tell("found", [&] { return Json{{"items", count}}; });
}

double RunAccount::sinceStart(Clock::time_point now) const {
  return std::chrono::duration<double>(now - start_).count();
}

void RunAccount::endStep(Clock::time_point now) {
  ContainerResult* result = open();
  if (inStep_ && result != nullptr && !result->steps.empty()) {
    result->steps.back().seconds = std::chrono::duration<float>(now - stepSince_).count();
  }
  inStep_ = false;
}

void RunAccount::stepBegan(MigrationStep step) {
  std::unique_lock lock(mutex_);
  standIfHalted(lock);
  const auto now = Clock::now();
  // A removal may begin in the midst of the look that shows that nothing can be made of it.
  endStep(now);
  ContainerResult* result = open();
  if (result == nullptr) return;
  // What comes before the first step is no time of anything else.
  stepSince_ = hadStep_ ? now : since_;
  if (result->steps.empty()) result->steps.reserve(kUsualSteps);
  result->steps.push_back({step, static_cast<float>(sinceStart(stepSince_)), 0});
  inStep_ = hadStep_ = true;
}

void RunAccount::stepEnded(MigrationStep step, bool succeeded) {
  const std::scoped_lock lock(mutex_);
  endStep(Clock::now());
  tell("step", [&] { return Json{{"step", NameOf(step)}, {"succeeded", succeeded}}; });
}

void RunAccount::containerBegan(std::size_t index, const std::string& path) {
  std::unique_lock lock(mutex_);
  standIfHalted(lock);
  const auto now = Clock::now();
  // One that waits for its turn does not end before the next one begins.
  if (ContainerResult* earlier = open()) {
    endStep(now);
    earlier->seconds += std::chrono::duration<double>(now - since_).count();
  }
  if (index >= containers_.size()) containers_.resize(index + 1);
  open_ = index;
  since_ = now;
  hadStep_ = false;
  containers_[index].path = path;
  containers_[index].start = sinceStart(now);
  tell("began", [&] { return Json{{"path", path}}; });
}

void RunAccount::containerClassified(const ClassifiedContainer& container) {
  const std::scoped_lock lock(mutex_);
  if (ContainerResult* result = open()) result->is = container;
}

void RunAccount::dataContainerFound(const std::string& path) {
  const std::scoped_lock lock(mutex_);
  if (ContainerResult* result = open()) result->dataContainer = path;
}

void RunAccount::problem(const MigrationProblem& problem) {
  const std::scoped_lock lock(mutex_);
  ContainerResult* result = open();
  // Problems of the run are told while a container is open, too.
  const bool isOfRun = result == nullptr || problem.step == MigrationStep::run;
  AddCapped(isOfRun ? problems_ : result->problems, problem);
  tell("problem", [&] {
    return Json{{"step", NameOf(problem.step)},
                {"reason", NameOf(problem.reason)},
                {"path", problem.path},
                {"errno", ErrorNumberName(ErrorNumberOf(problem.error))},
                {"stops", problem.stops}};
  });
}

void RunAccount::lost(const MigrationLoss& loss) {
  const std::scoped_lock lock(mutex_);
  ContainerResult* result = open();
  if (result == nullptr) return;
  if (!result->loss) {
    result->loss = loss;
    return;
  }
  MigrationLoss& sum = *result->loss;
  sum.files += loss.files;
  sum.bytes += loss.bytes;
  sum.complete = sum.complete && loss.complete;
  for (const std::string& name : loss.userDataItems) {
    const bool isTold = std::count(sum.userDataItems.begin(), sum.userDataItems.end(), name) != 0;
    if (!isTold) sum.userDataItems.push_back(name);
  }
}

void RunAccount::containerEnded(MigrationOutcome outcome, bool stays) {
  const std::scoped_lock lock(mutex_);
  ContainerResult* result = open();
  if (result == nullptr) return;
  // The plug-in tells either as migrated; its marker says that it was begun before.
  const bool resumed =
      outcome == MigrationOutcome::migrated && result->is.kind == LegacyItemKind::marker;
  result->outcome = resumed ? MigrationOutcome::resumed : outcome;
  result->stays = stays;
  result->ended = true;
  tell("ended", [&] {
    return Json{{"identifier", result->is.identifier},
                {"outcome", NameOf(result->outcome)},
                {"stays", stays}};
  });
  const auto now = Clock::now();
  endStep(now);
  result->seconds += std::chrono::duration<double>(now - since_).count();
  open_.reset();
}

void RunAccount::groupEnded(const MigratedDirectory& group) {
  const std::scoped_lock lock(mutex_);
  // A later attempt for another app replaces what an earlier one told.
  groups_[group.identifier] = group;
}

void RunAccount::harborEnded(const MigratedDirectory& harbor) {
  const std::scoped_lock lock(mutex_);
  harbors_.push_back(harbor);
}

void RunAccount::leftBehind(const LeftBehind& item) {
  const std::scoped_lock lock(mutex_);
  leftBehind_[item.path] = item.why;
}

void RunAccount::halt(std::chrono::milliseconds patience) {
  std::unique_lock lock(mutex_);
  halting_ = true;
  stands_.wait_for(lock, patience, [this] { return standing_; });
  if (ContainerResult* result = open()) {
    const auto now = Clock::now();
    endStep(now);
    result->seconds += std::chrono::duration<double>(now - since_).count();
  }
  for (ContainerResult& container : containers_) {
    if (container.ended) continue;
    AddCapped(container.problems, {.reason = MigrationReason::interrupted, .path = container.path});
  }
  // Kept for good, so that nothing is added while the account is read.
  (void)lock.release();
}

void RunAccount::standIfHalted(std::unique_lock<std::mutex>& lock) {
  if (!halting_) return;
  standing_ = true;
  stands_.notify_all();
  // For good: the process ends while this thread stands here, between two steps.
  for (;;) stands_.wait(lock);
}

std::string RunAccount::current() const {
  const std::scoped_lock lock(mutex_);
  return open_ && *open_ < containers_.size() ? containers_[*open_].is.identifier : std::string();
}

std::size_t RunAccount::items() const {
  const std::scoped_lock lock(mutex_);
  return items_;
}

std::array<std::size_t, MigrationOutcomeNames.size()> RunAccount::counts() const {
  std::array<std::size_t, MigrationOutcomeNames.size()> counts{};
  for (const ContainerResult& container : containers_) {
    ++counts[static_cast<std::size_t>(container.outcome)];
  }
  // An account that was ended early keeps its lock.
  const std::size_t unreached = items_ - std::min(items_, containers_.size());
  counts[static_cast<std::size_t>(MigrationOutcome::left)] += unreached;
  return counts;
}

}  // namespace quorvel::host
