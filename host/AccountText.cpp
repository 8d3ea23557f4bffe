// Writes an account as text.
#include "host/AccountText.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "host/FailureWords.h"
#include "host/console/TerminalText.h"
#include "platform/Path.h"

namespace quorvel::host {

namespace {

constexpr std::size_t kWidestIdentifier = 48;
// So many are all shown. Of more, the first few show what it is: with up to three lines each and
// those around them they fit a screen of 24 lines.
constexpr std::size_t kShortList = 30;
constexpr std::size_t kFewRows = 4;
constexpr std::size_t kManyCauses = 5;

bool WentWell(const ContainerResult& container) {
  return container.outcome == MigrationOutcome::migrated ||
         container.outcome == MigrationOutcome::resumed;
}

bool StoppedFor(const ContainerResult& container, MigrationReason reason) {
  const MigrationProblem* why = container.stoppedAt();
  return why != nullptr && why->reason == reason;
}

// What went with something in it is one, however it ended. Nobody wanted anything of one that was
// not chosen.
bool IsFailure(const ContainerResult& container) {
  if (WentWell(container)) return container.loss.has_value();
  if (container.outcome != MigrationOutcome::removed) {
    return !StoppedFor(container, MigrationReason::notChosen);
  }
  // A note of the former service holds nothing of anybody's.
  return container.loss && !StoppedFor(container, MigrationReason::farewellFile);
}

// The outcomes in the order of their weight for the reader, and the color that goes with each.
constexpr std::pair<MigrationOutcome, const char*> kByWeight[] = {
    {MigrationOutcome::failed, "\x1b[31m"},   {MigrationOutcome::left, "\x1b[31m"},
    {MigrationOutcome::removed, "\x1b[33m"},  {MigrationOutcome::resumed, "\x1b[32m"},
    {MigrationOutcome::migrated, "\x1b[32m"},
};

std::string LossInWords(const MigrationLoss& loss) {
  std::string text = "lost " + std::to_string(loss.files) + (loss.files == 1 ? " file" : " files") +
                     " (" + std::to_string(loss.bytes) + " bytes)";
  if (!loss.complete) text += " or more";
  const char* separator = ", of the user's data: ";
  for (const std::string& item : loss.userDataItems) {
    text += separator + item;
    separator = ", ";
  }
  return text;
}

// What one cause came to. The same error number is one cause at whatever step it is met.
struct Cause {
  std::set<std::string> words{};  // what it kept from being done
  std::string number{};           // what the number means; empty without one
  std::vector<const ContainerResult*> containers{};

  // One thing that was not done belongs to the cause, several to their rows.
  bool isOfOneStep() const { return words.size() == 1; }
  std::string text() const {
    const std::string said = isOfOneStep() || number.empty() ? *words.begin() : std::string();
    return said + (said.empty() || number.empty() ? "" : ": ") + number;
  }
};

class AccountText {
 public:
  AccountText(const RunAccount& account, const AccountView& view)
      : account_(account), view_(view) {}

  std::string failures() {
    show(true);
    directories("group", groups(), true);
    directories("harbor", account_.harbors(), true);
    for (const MigrationProblem& problem : account_.problems()) {
      line("Problem: ", WordsFor(problem.reason), problem.path, problem.error);
    }
    return std::move(out_);
  }

  std::string rest() {
    if (view_.all) {
      show(false);
      directories("group", groups(), false);
      directories("harbor", account_.harbors(), false);
    }
    std::size_t shown = 0;
    for (const auto& [path, why] : account_.leftBehind()) {
      if (!view_.all && ++shown > kShortList) continue;
      out_ += "Left behind: " + Printable(path) + ": " + WordsFor(why) + "\n";
    }
    if (!view_.all) more(shown, kShortList, "");
    return std::move(out_);
  }

 private:
  using Causes = std::map<std::string, Cause>;

  // Of a long list, for each of so many causes. Where there are very many, their names must do.
  static std::size_t Few(std::size_t causes) {
    return causes > kManyCauses ? 0 : std::max<std::size_t>(1, kFewRows / causes);
  }

  // The containers that failed, or all others.
  void show(bool failures) {
    // Sorted by the words, so that runs can be compared.
    std::map<MigrationOutcome, Causes> causes;
    std::size_t rows = 0;
    std::size_t heads = 0;
    for (const ContainerResult& container : account_.containers()) {
      if (IsFailure(container) != failures) continue;
      ++rows;
      columns_ = std::max(columns_, DisplayWidth(Printable(container.is.identifier)));
      const MigrationProblem* stop = container.stoppedAt();
      const int number = stop != nullptr ? ErrorNumberOf(stop->error) : 0;
      const std::string words = stop != nullptr ? WordsFor(stop->reason) : "";
      const std::string description = number != 0 ? ErrnoDescription(number) : std::string();
      Causes& ofOutcome = causes[container.outcome];
      Cause& cause = ofOutcome[number != 0 ? description : words];
      if (cause.containers.empty()) ++heads;
      cause.words.insert(words);
      cause.number = description;
      cause.containers.push_back(&container);
    }
    columns_ = std::min(columns_, kWidestIdentifier);
    const std::size_t each = view_.all || rows <= kShortList ? rows : Few(heads);
    for (const auto& [outcome, color] : kByWeight) {
      for (const auto& [key, cause] : causes[outcome]) section(outcome, color, cause, each);
    }
  }

  void section(MigrationOutcome outcome, const char* color, const Cause& cause, std::size_t each) {
    out_ += view_.terminal.colors ? color + std::string(NameOf(outcome)) + "\x1b[0m"
                                  : std::string(NameOf(outcome));
    const std::string text = cause.text();
    if (!text.empty()) out_ += ": " + text;
    const std::size_t count = cause.containers.size();
    out_ += count > 1 ? " (" + std::to_string(count) + ")\n" : "\n";
    for (std::size_t i = 0; i < std::min(each, count); ++i) {
      row(*cause.containers[i], cause.isOfOneStep());
    }
    more(count, each, "  ");
  }

  void more(std::size_t count, std::size_t shown, const char* indent) {
    if (count <= shown || shown == 0) return;
    out_ += indent + ("and " + std::to_string(count - shown)) + " more (--all shows them)\n";
  }

  void row(const ContainerResult& container, bool isSaid) {
    const std::string app =
        container.is.identifier.empty() ? "-" : Printable(container.is.identifier);
    const std::string name = Printable(Path(container.path).lastPathComponent());
    // Where a line does not hold both, each has its own.
    if (view_.columns != 0 && columns_ + DisplayWidth(name) + 4 >= view_.columns) {
      // Two blanks, and a margin; never less than a few columns, whatever the terminal says.
      const std::size_t room = std::max<std::size_t>(view_.columns, 12) - 5;
      out_ += "  " + CutEnd(app, room) + "\n    " + CutEnd(name, room) + "\n";
    } else {
      out_ += "  " + Padded(CutEnd(app, columns_), columns_) + "  " + name + "\n";
    }
    const MigrationProblem* stop = container.stoppedAt();
    if (stop != nullptr) reasons(*stop, container, isSaid);
    if (container.loss) detail(LossInWords(*container.loss));
    // The one case in which a failed container is not where it was.
    if (!WentWell(container) && !container.stays && !container.dataContainer.empty()) {
      detail("the container is gone; its data is in " + Printable(container.dataContainer));
    }
    if (!view_.all) return;
    for (const MigrationProblem& problem : container.problems) {
      if (&problem != stop)
        line("    note: ", WordsFor(problem.reason), problem.path, problem.error);
    }
  }

  void reasons(const MigrationProblem& stop, const ContainerResult& container, bool isSaid) {
    std::string items;
    for (const std::string& item : stop.items)
      items += (items.empty() ? "" : ", ") + Printable(item);
    if (!items.empty()) detail(items);
    const std::string words = isSaid ? std::string() : std::string(WordsFor(stop.reason)) + ": ";
    if (stop.error) {
      detail(words + Printable(DetailOf(stop.error)));
      // Without an error record the path says what it was about.
    } else if (stop.path != container.path && !stop.path.empty()) {
      detail(Printable(stop.path));
    }
  }

  void detail(const std::string& text) { out_ += "    " + text + "\n"; }

  void line(const char* label, const char* words, const std::string& path, const Error& error) {
    out_ += label + std::string(words);
    if (!path.empty()) out_ += ": " + Printable(path);
    if (error) out_ += ": " + Printable(DetailOf(error));
    out_ += "\n";
  }

  std::vector<MigratedDirectory> groups() const {
    std::vector<MigratedDirectory> groups;
    for (const auto& [identifier, group] : account_.groups()) groups.push_back(group);
    return groups;
  }

  // As many as a short list has: the counts are to stand on the same screen.
  void directories(const char* label, const std::vector<MigratedDirectory>& list, bool failures) {
    std::map<std::pair<MigrationOutcome, MigrationReason>, std::size_t> seen;
    for (const MigratedDirectory& directory : list) {
      if ((directory.reason != MigrationReason::none) != failures) continue;
      if (++seen[{directory.outcome, directory.reason}] > kFewRows && !view_.all) continue;
      const std::string head = std::string(label) + " " + Printable(directory.identifier) + " " +
                               NameOf(directory.outcome);
      if (failures) {
        line((head + ": ").c_str(), WordsFor(directory.reason), directory.path, directory.error);
      } else {
        out_ += head + ": " + Printable(directory.path) + "\n";
      }
    }
    for (const auto& [what, count] : seen) {
      if (count <= kFewRows || view_.all) continue;
      out_ += std::string(label) + "s " + NameOf(what.first) + ": " + WordsFor(what.second) + ": ";
      more(count, kFewRows, "");
    }
  }

  const RunAccount& account_;
  const AccountView& view_;
  std::size_t columns_ = 3;
  std::string out_;
};

}  // namespace

std::string FailuresAsText(const RunAccount& account, const AccountView& view) {
  return AccountText(account, view).failures();
}

std::string RestAsText(const RunAccount& account, const AccountView& view) {
  return AccountText(account, view).rest();
}

std::string CountsAsText(const RunAccount& account) {
  const auto counts = account.counts();
  std::string text;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(counts[i]) + " " + MigrationOutcomeNames[i];
  }
  return text;
}

std::string AccountAsText(const RunAccount& account, const AccountView& view) {
  const std::string failures = FailuresAsText(account, view);
  const std::string rest = RestAsText(account, view);
  return failures + (failures.empty() ? "" : "\n") + CountsAsText(account) + "\n" +
         (rest.empty() ? "" : "\n") + rest;
}

}  // namespace quorvel::host
