// What became of each container, as the plug-in told it: of a migration, or of one that is only
// looked ahead to.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "host/EventStream.h"
#include "platform/MigrationAccount.h"

namespace quorvel::host {

// When a step was at work, in seconds since the run's beginning. There are nine for each container:
// half as exact is exact enough, and half as large.
struct StepTime {
  MigrationStep step = MigrationStep::introspect;
  float start = 0;
  float seconds = 0;
};

// One entry of the legacy directory, from its first sight to its end.
// Filled as the plug-in tells it; a run that ends early leaves the defaults of what it did not
// reach.
struct ContainerResult {
  std::string path{};
  ClassifiedContainer is{};
  std::string dataContainer{};  // where its data went; empty when that was not reached
  MigrationOutcome outcome = MigrationOutcome::left;  // until it is told otherwise
  bool stays = true;
  bool ended = false;  // until then the outcome is that of one that was not reached
  std::vector<MigrationProblem> problems{};  // in order
  std::optional<MigrationLoss> loss{};       // all that went, together
  double seconds = 0;
  std::optional<double> start{};  // of its turn, since the run's beginning; none: not reached
  std::vector<StepTime> steps{};  // in order, none within another

  // What it stopped at; null when nothing did.
  // The last problem that stops, since earlier ones were got over; always null for one that
  // arrived. It lives until a problem is added to the container.
  const MigrationProblem* stoppedAt() const;
};

// Written on the plug-in's thread, read on another once the run is over. While it goes on only what
// says so may be asked from elsewhere.
class RunAccount : public MigrationAccount {
 public:
  // Before the run: what times are counted from. Without it, the account's making.
  void countFrom(std::chrono::steady_clock::time_point start) { start_ = start; }
  // Before the run: what is told here is told to the stream as well, until an early end.
  void follow(EventStream& events) { events_ = &events; }

  // MigrationAccount's operations: on the plug-in's thread, each under mutex_.
  void itemsFound(std::size_t count) override;
  void stepBegan(MigrationStep step) override;
  void stepEnded(MigrationStep step, bool succeeded) override;
  void containerBegan(std::size_t index, const std::string& path) override;
  void containerClassified(const ClassifiedContainer& container) override;
  void dataContainerFound(const std::string& path) override;
  void problem(const MigrationProblem& problem) override;
  void lost(const MigrationLoss& loss) override;
  void containerEnded(MigrationOutcome outcome, bool stays) override;
  void groupEnded(const MigratedDirectory& group) override;
  void harborEnded(const MigratedDirectory& harbor) override;
  void leftBehind(const LeftBehind& item) override;

  // The identifier of the app being migrated; empty before the first. Any thread.
  std::string current() const;
  // Entries found by the plug-in's initialisation. Any thread.
  std::size_t items() const;

  // Ends the account early: the plug-in's thread stands still for good the next time that it tells
  // of a step or a container, and nothing that it tells is heard any more. Waits for that as long
  // as `patience`, and returns in any case; a step that takes longer is survived like a kill. From
  // then on the account may be read by the calling thread as after the run, items() excepted.
  void halt(std::chrono::milliseconds patience);

  // After the run, on one thread.

  // One for each item found, in that order. One that was not reached is left.
  const std::vector<ContainerResult>& containers() const { return containers_; }
  // By identifier; of a group that several apps have, what came of it in the end.
  // Only groups that the plug-in told of.
  const std::map<std::string, MigratedDirectory>& groups() const { return groups_; }
  const std::vector<MigratedDirectory>& harbors() const { return harbors_; }
  const std::map<std::string, MigrationReason>& leftBehind() const { return leftBehind_; }
  // Problems that belong to no container.
  // In the order in which they were told, up to a bound.
  const std::vector<MigrationProblem>& problems() const { return problems_; }
  // How many items ended how, in the order of MigrationOutcome: together they are items(). What an
  // early end came before is left.
  std::array<std::size_t, MigrationOutcomeNames.size()> counts() const;

 private:
  using Clock = std::chrono::steady_clock;
  // The container that things belong to now; null between two.
  ContainerResult* open();
  // Does not return once halt() was called: the plug-in's thread waits there for the process's end.
  void standIfHalted(std::unique_lock<std::mutex>& lock);
  double sinceStart(Clock::time_point now) const;
  // Ends the open container's step, if one is under way.
  void endStep(Clock::time_point now);
  // A line of the event stream, with the container at hand. Asked for only where there is a stream:
  // `fields` makes the line's other members, and there are several lines for each container.
  template <class Fields>
  void tell(const char* event, const Fields& fields) {
    if (events_ == nullptr || halting_) return;
    Json line = fields();
    if (open_) line["container"] = *open_;  // by its place among the items
    events_->tell(event, std::move(line));
  }

  // Guards everything below; halt() keeps it for good.
  mutable std::mutex mutex_;
  Clock::time_point start_ = Clock::now();
  std::condition_variable stands_;
  EventStream* events_ = nullptr;
  bool halting_ = false;
  bool standing_ = false;
  std::size_t items_ = 0;
  // Set between the container's beginning and its end.
  std::optional<std::size_t> open_;  // index of the container that things belong to
  Clock::time_point since_;
  Clock::time_point stepSince_;
  bool hadStep_ = false;  // since the open container began
  bool inStep_ = false;   // the open container's last step has no end yet
  std::vector<ContainerResult> containers_;
  std::map<std::string, MigratedDirectory> groups_;
  std::vector<MigratedDirectory> harbors_;
  std::map<std::string, MigrationReason> leftBehind_;
  // Of the run, capped: a damaged tree may tell one for each item.
  std::vector<MigrationProblem> problems_;
};

}  // namespace quorvel::host
