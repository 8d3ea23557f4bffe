// Writes an account as JSON.
#include "host/AccountResult.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "host/FailureWords.h"

namespace quorvel::host {

namespace {

// Empty texts are what is not known; keys stay, so that readers need not ask for them.
Json TextOrNull(const std::string& text) { return text.empty() ? Json(nullptr) : Json(text); }

// Both the words and the symbol: people read the one, programs compare the other.
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

// To the microsecond: a timeline needs no more digits, and there are many of them.
double Rounded(double seconds) { return std::round(seconds * 1e6) / 1e6; }

Json StepsAsJson(const std::vector<StepTime>& steps) {
  Json list = Json::array();
  for (const StepTime& each : steps) {
    Json object;
    object["step"] = NameOf(each.step);
    object["start"] = Rounded(each.start);
    object["seconds"] = Rounded(each.seconds);
    list.push_back(std::move(object));
  }
  return list;
}

// Everything that the plug-in told is in it once: a problem is either the stop or one of the notes.
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
  object["start"] = container.start ? Json(Rounded(*container.start)) : Json(nullptr);
  object["steps"] = StepsAsJson(container.steps);
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

}  // namespace

// Groups and items left behind come in the order of their names, containers and harbors in that of
// the run.
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

}  // namespace quorvel::host
