// Writes an account as JSON and as text.
#include "host/AccountResult.h"

#include <algorithm>
#include <map>
#include <utility>

#include "host/FailureWords.h"
#include "host/console/TerminalText.h"
#include "platform/Path.h"

namespace quorvel::host {

namespace {

constexpr std::size_t kWidestIdentifier = 48;
// A cause may stop thousands of containers; the first of them show what it is.
constexpr std::size_t kMostRows = 20;

Json TextOrNull(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

void AddError(const Error& error, Json& object) {
  object["detail"] = TextOrNull(DetailOf(error));
  object["errno"] = TextOrNull(ErrorNumberName(ErrorNumberOf(error)));
}

Json ProblemAsJson(const MigrationProblem& problem) {
  Json object;
  object["step"] = NameOf(problem.step);
  object["reason"] = NameOf(problem.reason);
  object["path"] = TextOrNull(problem.path);
  object["items"] = problem.items;
  AddError(problem.error, object);
  return object;
}

Json LossAsJson(const std::optional<MigrationLoss>& loss) {
  if (!loss) return nullptr;
  Json object;
  object["files"] = loss->files;
  object["bytes"] = loss->bytes;
  object["userDataItems"] = loss->userDataItems;
  object["complete"] = loss->complete;
  return object;
}

Json ContainerAsJson(const ContainerResult& container) {
  // "step", "reason" and "detail" are the stop's; what did not stop it comes as notes.
  const MigrationProblem* stop = container.stoppedAt();
  Json object;
  object["path"] = container.path;
  object["kind"] = NameOf(container.is.kind);
  object["identifier"] = TextOrNull(container.is.identifier);
  object["bundlePath"] = TextOrNull(container.is.bundle);
  object["outcome"] = NameOf(container.outcome);
  object["step"] = stop != nullptr ? Json(NameOf(stop->step)) : Json(nullptr);
  object["reason"] = stop != nullptr ? Json(NameOf(stop->reason)) : Json(nullptr);
  AddError(stop != nullptr ? stop->error : Error(), object);
  object["items"] = stop != nullptr ? stop->items : std::vector<std::string>();
  object["kept"] = container.stays ? Json::array({container.path}) : Json::array();
  object["lost"] = LossAsJson(container.loss);
  object["dataContainer"] = TextOrNull(container.dataContainer);
  object["seconds"] = container.seconds;
  Json notes = Json::array();
  for (const MigrationProblem& problem : container.problems) {
    if (&problem != stop) notes.push_back(ProblemAsJson(problem));
  }
  object["notes"] = std::move(notes);
  return object;
}

Json DirectoryAsJson(const MigratedDirectory& directory) {
  Json object;
  object["identifier"] = directory.identifier;
  object["path"] = TextOrNull(directory.path);
  object["destination"] = TextOrNull(directory.destination);
  object["outcome"] = NameOf(directory.outcome);
  const bool isSound = directory.reason == MigrationReason::none;
  object["reason"] = isSound ? Json(nullptr) : Json(NameOf(directory.reason));
  AddError(directory.error, object);
  return object;
}

bool WentWell(const ContainerResult& container) {
  return container.outcome == MigrationOutcome::migrated ||
         container.outcome == MigrationOutcome::resumed;
}

// The outcomes in the order of their weight for the reader, and the color that goes with each.
constexpr std::pair<MigrationOutcome, const char*> kByWeight[] = {
    {MigrationOutcome::failed, "\x1b[31m"},   {MigrationOutcome::left, "\x1b[31m"},
    {MigrationOutcome::removed, "\x1b[33m"},  {MigrationOutcome::resumed, "\x1b[32m"},
    {MigrationOutcome::migrated, "\x1b[32m"},
};

std::string Cause(const ContainerResult& container) {
  const MigrationProblem* stop = container.stoppedAt();
  if (stop == nullptr) return {};
  const int number = ErrorNumberOf(stop->error);
  return WordsFor(stop->reason) + (number != 0 ? ": " + ErrnoDescription(number) : std::string());
}

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

class AccountText {
 public:
  AccountText(const RunAccount& account, const AccountView& view)
      : account_(account), view_(view) {}

  std::string text() {
    measure();
    for (const auto& [outcome, color] : kByWeight) {
      // With --quiet only what is left to do.
      const bool isFailure =
          outcome == MigrationOutcome::failed || outcome == MigrationOutcome::left;
      if (isFailure || !view_.onlyFailures) section(outcome, color);
    }
    directories("group", groups());
    directories("harbor", account_.harbors());
    for (const MigrationProblem& problem : account_.problems()) {
      line("Problem: ", WordsFor(problem.reason), problem.path, problem.error);
    }
    if (view_.onlyFailures) return std::move(out_);
    for (const auto& [path, why] : account_.leftBehind()) {
      out_ += "Left behind: " + Printable(path) + ": " + WordsFor(why) + "\n";
    }
    return std::move(out_);
  }

 private:
  // The widest identifier that will be shown, so that names stand in a column.
  void measure() {
    for (const ContainerResult& container : account_.containers()) {
      if (WentWell(container) && !view_.all) continue;
      columns_ = std::max(columns_, DisplayWidth(Printable(container.is.identifier)));
    }
    columns_ = std::min(columns_, kWidestIdentifier);
  }

  std::vector<MigratedDirectory> groups() const {
    std::vector<MigratedDirectory> groups;
    for (const auto& [identifier, group] : account_.groups()) groups.push_back(group);
    return groups;
  }

  // Each cause once, with its containers.
  void section(MigrationOutcome outcome, const char* color) {
    // Sorted by the words, so that runs can be compared.
    std::map<std::string, std::vector<const ContainerResult*>> byCause;
    for (const ContainerResult& container : account_.containers()) {
      if (container.outcome != outcome || (WentWell(container) && !view_.all)) continue;
      byCause[Cause(container)].push_back(&container);
    }
    for (const auto& [cause, containers] : byCause) {
      out_ += view_.terminal.colors ? color + std::string(NameOf(outcome)) + "\x1b[0m"
                                    : std::string(NameOf(outcome));
      out_ += cause.empty() ? "\n" : ": " + cause + "\n";
      const std::size_t shown =
          view_.all ? containers.size() : std::min(kMostRows, containers.size());
      for (std::size_t i = 0; i < shown; ++i) row(*containers[i]);
      if (shown < containers.size()) {
        out_ += "  and " + std::to_string(containers.size() - shown) + " more (--all shows them)\n";
      }
    }
  }

  void row(const ContainerResult& container) {
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
    if (stop != nullptr) reasons(*stop, container);
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

  void reasons(const MigrationProblem& stop, const ContainerResult& container) {
    std::string items;
    for (const std::string& item : stop.items)
      items += (items.empty() ? "" : ", ") + Printable(item);
    if (!items.empty()) detail(items);
    if (stop.error) {
      detail(Printable(DetailOf(stop.error)));
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

  void directories(const char* label, const std::vector<MigratedDirectory>& list) {
    for (const MigratedDirectory& directory : list) {
      if (directory.reason == MigrationReason::none && !view_.all) continue;
      const std::string head = std::string(label) + " " + Printable(directory.identifier) + " " +
                               NameOf(directory.outcome);
      if (directory.reason == MigrationReason::none) {
        out_ += head + ": " + Printable(directory.path) + "\n";
      } else {
        line((head + ": ").c_str(), WordsFor(directory.reason), directory.path, directory.error);
      }
    }
  }

  const RunAccount& account_;
  const AccountView& view_;
  std::size_t columns_ = 3;
  std::string out_;
};

}  // namespace

void AddAccount(const RunAccount& account, Json& object) {
  const auto list = [](const auto& from, auto asJson) {
    Json out = Json::array();
    for (const auto& each : from) out.push_back(asJson(each));
    return out;
  };
  object["containers"] = list(account.containers(), ContainerAsJson);
  object["groups"] =
      list(account.groups(), [](const auto& entry) { return DirectoryAsJson(entry.second); });
  object["harbors"] = list(account.harbors(), DirectoryAsJson);
  object["leftBehind"] = list(account.leftBehind(), [](const auto& entry) {
    return Json{{"path", entry.first}, {"why", NameOf(entry.second)}};
  });
  object["problems"] = list(account.problems(), ProblemAsJson);
  object["counts"] = CountsAsJson(account);
}

Json CountsAsJson(const RunAccount& account) {
  const auto counts = account.counts();
  Json numbers;
  for (std::size_t i = 0; i < counts.size(); ++i) numbers[MigrationOutcomeNames[i]] = counts[i];
  return numbers;
}

std::size_t InstalledApps(const onlinux::RegistrySnapshot& registry) {
  return static_cast<std::size_t>(std::count_if(
      registry.bundles.begin(), registry.bundles.end(), [](const BundleProxy& bundle) {
        // Built-in apps have no bundle container.
        return bundle.foundBackingBundle && !bundle.isPlaceholder && bundle.bundleContainerPath;
      }));
}

std::string AccountAsText(const RunAccount& account, const AccountView& view) {
  return AccountText(account, view).text();
}

std::string CountsAsText(const RunAccount& account) {
  const auto counts = account.counts();
  std::string text;
  for (std::size_t i = 0; i < counts.size(); ++i) {
    text += (i == 0 ? "" : ", ") + std::to_string(counts[i]) + " " + MigrationOutcomeNames[i];
  }
  return text;
}

}  // namespace quorvel::host
