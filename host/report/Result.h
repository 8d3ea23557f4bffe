// What a run's result says, read from JSON of any origin.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/console/Json.h"
#include "platform/MigrationAccount.h"

namespace quorvel::host {

// Times are seconds since the run's beginning, never negative and never beyond a century.
// One passage of a container through a step. It may lie before its container's own start: then it
// was part of the look at all of them.
struct StepSpan {
  std::size_t step = 0;  // in the order of MigrationStep
  double start = 0;
  double seconds = 0;
};

// What went for good with a container, as the run itself counted it. Directories are not counted,
// and what one could not look into makes the count incomplete: then it is a lower bound.
struct ResultLoss {
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::vector<std::string> userDataItems{};
  bool complete = true;
};

// What did not go as it should: a container's note, or of the run.
// Also a finding or an item left behind: these have some of the members only.
struct ResultProblem {
  std::string step{};
  std::string reason{};
  std::string path{};
  std::string detail{};
  std::string errorName{};  // such as ENOSPC
};

// One legacy container and what became of it. An outcome that this host does not know is read as
// failed: what nobody understands did not arrive as far as anybody knows.
struct ResultContainer {
  std::string path{};
  std::string identifier{};
  MigrationOutcome outcome = MigrationOutcome::left;
  ResultProblem stop{};  // without a reason when nothing stopped it
  std::vector<std::string> items{};
  std::vector<std::string> kept{};
  std::optional<ResultLoss> lost{};
  std::string dataContainer{};
  double seconds = 0;
  std::optional<double> start{};  // none: it was not reached
  std::vector<StepSpan> steps{};
  std::vector<ResultProblem> notes{};

  // The directory's own, and what people call it.
  // The last component of the path, slashes at its end left out; empty for an empty path or the
  // root.
  std::string directoryName() const;
  std::string name() const { return identifier.empty() ? directoryName() : identifier; }
  // Both ways of coming to the current layout. A container that was removed or left did not.
  bool arrived() const {
    return outcome == MigrationOutcome::migrated || outcome == MigrationOutcome::resumed;
  }
};

// A group container or safe harbor.
// The outcome is kept as its text, which pages show as it stands and decide nothing by.
struct ResultDirectory {
  std::string identifier{};
  std::string path{};
  std::string destination{};
  std::string outcome{};
  ResultProblem problem{};
};

// Told by the keys that are there: an inspection has containers too, but no "succeeded", and is
// none.
enum class ResultKind {
  none,     // no result of a migration
  refused,  // the object of an error: nothing was begun
  run,
};

// Texts are as they stand in the result: for HTML they go through Escaped (Html.h). What is missing
// there, or of another type, is empty here.
// Large: a result of ten thousand containers is held whole, and reports keep no more than one.
struct RunResult {
  ResultKind kind = ResultKind::none;
  std::string device{};
  std::string started{};
  std::optional<double> startedAt{};  // seconds since 1970
  std::string versions{};
  bool succeeded = false;
  std::string interruptedBy{};
  double seconds = 0;
  std::uint64_t items = 0;
  std::uint64_t installedBefore = 0;
  std::array<std::uint64_t, MigrationOutcomeNames.size()> counts{};
  std::vector<ResultContainer> containers{};
  std::vector<ResultDirectory> groups{};
  std::vector<ResultDirectory> harbors{};
  std::vector<ResultProblem> leftBehind{};
  std::vector<ResultProblem> problems{};
  std::vector<ResultProblem> findings{};  // before the run: the reason is the finding's name
  std::string refusal{};                  // the error's text and reason
  std::string refusalReason{};

  // As the result states it, which need not be the number of its containers: neither is corrected
  // by the other.
  std::uint64_t count(MigrationOutcome outcome) const {
    return counts[static_cast<std::size_t>(outcome)];
  }
};

// What `migrate --json` printed. `object` may be anything.
// Never fails: the kind says whether there is anything to show. Nothing refers to `object`
// afterwards. Lists keep the order of the result; steps whose name is unknown are left out of a
// container's list, since they have no place in the order of the steps.
RunResult ReadRunResult(const Json& object);

// The reason in words, and the error's name behind them; a reason that this host does not know as
// it stands.
// For people; not escaped for HTML and not made printable for a terminal, because the texts may
// come from any file. The caller does one or the other.
std::string InWords(const ResultProblem& problem);

}  // namespace quorvel::host
