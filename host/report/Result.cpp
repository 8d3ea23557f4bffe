// Takes from a result what is of the right type.
#include "host/report/Result.h"

#include <algorithm>
#include <cmath>

#include "host/FailureWords.h"

namespace quorvel::host {

namespace {

// In seconds. No run takes longer, and sums of such times stay exact enough.
constexpr double kCentury = 3.2e9;

// A reference to one empty value for whatever is missing: callers look no further than its type.
const Json& At(const Json& object, const char* key) {
  static const Json nothing;
  if (!object.is_object()) return nothing;
  const auto at = object.find(key);
  return at == object.end() ? nothing : *at;
}

bool TrueAt(const Json& object, const char* key) {
  const Json& value = At(object, key);
  return value.is_boolean() && value.get<bool>();
}

// A comparison that a NaN fails as well, although JSON has no way of writing one.
double Seconds(const Json& value) {
  const double seconds = value.is_number() ? value.get<double>() : 0;
  return seconds >= 0 ? std::min(seconds, kCentury) : 0;
}

std::optional<double> SecondsOrNone(const Json& value) {
  return value.is_number() ? std::optional(Seconds(value)) : std::nullopt;
}

// Negative and fractional numbers are no counts; JSON's parser tells them apart by their spelling.
std::uint64_t CountAt(const Json& object, const char* key) {
  const Json& value = At(object, key);
  return value.is_number_unsigned() ? value.get<std::uint64_t>() : 0;
}

// An empty list for anything that is none.
template <class Read>
auto ListAt(const Json& object, const char* key, Read read) {
  std::vector<decltype(read(object))> list;
  const Json& value = At(object, key);
  if (!value.is_array()) return list;
  list.reserve(value.size());
  for (const Json& each : value) list.push_back(read(each));
  return list;
}

std::vector<std::string> TextsAt(const Json& object, const char* key) {
  return ListAt(object, key,
                [](const Json& text) { return text.is_string() ? text.get<std::string>() : ""; });
}

// The number of names when the name is none of them: callers compare with that.
template <std::size_t count>
std::size_t PlaceOf(const std::string& name, const std::array<const char*, count>& names) {
  return static_cast<std::size_t>(std::find(names.begin(), names.end(), name) - names.begin());
}

ResultProblem ReadProblem(const Json& object) {
  return {.step = TextAt(object, "step"),
          .reason = TextAt(object, "reason"),
          .path = TextAt(object, "path"),
          .detail = TextAt(object, "detail"),
          .errorName = TextAt(object, "errno")};
}

ResultProblem ReadLeftBehind(const Json& object) {
  return {.reason = TextAt(object, "why"), .path = TextAt(object, "path")};
}

// A finding has no step: its severity takes that member, for which there is no use otherwise.
ResultProblem ReadFinding(const Json& object) {
  return {.step = TextAt(object, "severity"),
          .reason = TextAt(object, "name"),
          .path = TextAt(object, "path"),
          .detail = TextAt(object, "detail")};
}

std::optional<ResultLoss> ReadLoss(const Json& object) {
  if (!object.is_object()) return std::nullopt;
  return ResultLoss{CountAt(object, "files"), CountAt(object, "bytes"),
                    TextsAt(object, "userDataItems"), TrueAt(object, "complete")};
}

std::vector<StepSpan> ReadSteps(const Json& container) {
  std::vector<StepSpan> steps = ListAt(container, "steps", [](const Json& object) {
    return StepSpan{PlaceOf(TextAt(object, "step"), MigrationStepNames),
                    Seconds(At(object, "start")), Seconds(At(object, "seconds"))};
  });
  std::erase_if(steps, [](const auto& span) { return span.step >= MigrationStepNames.size(); });
  return steps;
}

ResultContainer ReadContainer(const Json& object) {
  ResultContainer container;
  container.path = TextAt(object, "path");
  container.identifier = TextAt(object, "identifier");
  const std::size_t outcome = PlaceOf(TextAt(object, "outcome"), MigrationOutcomeNames);
  // What nobody understands did not arrive as far as anybody knows.
  container.outcome = outcome < MigrationOutcomeNames.size()
                          ? static_cast<MigrationOutcome>(outcome)
                          : MigrationOutcome::failed;
  container.stop = ReadProblem(object);
  container.items = TextsAt(object, "items");
  container.kept = TextsAt(object, "kept");
  container.lost = ReadLoss(At(object, "lost"));
  container.dataContainer = TextAt(object, "dataContainer");
  container.seconds = Seconds(At(object, "seconds"));
  container.start = SecondsOrNone(At(object, "start"));
  container.steps = ReadSteps(object);
  container.notes = ListAt(object, "notes", ReadProblem);
  return container;
}

ResultDirectory ReadDirectory(const Json& object) {
  return {TextAt(object, "identifier"), TextAt(object, "path"), TextAt(object, "destination"),
          TextAt(object, "outcome"), ReadProblem(object)};
}

// In this order whatever the object's own is, so that runs of one build tally under one text.
std::string ReadVersions(const Json& versions) {
  std::string text;
  for (const char* part : {"host", "plugin", "library"}) {
    const std::string version = TextAt(versions, part);
    if (!version.empty()) text += (text.empty() ? "" : ", ") + std::string(part) + " " + version;
  }
  return text;
}

// A refusal has no containers and no times: the run was not begun. It may have findings, when it
// was these that refused it.
RunResult ReadRefusal(const Json& object) {
  RunResult result;
  result.kind = ResultKind::refused;
  result.refusal = TextAt(object, "error");
  result.refusalReason = TextAt(object, "reason");
  result.findings = ListAt(object, "preflight", ReadFinding);
  return result;
}

}  // namespace

std::string ResultContainer::directoryName() const {
  const std::size_t end = path.find_last_not_of('/');
  const std::string whole = path.substr(0, end == std::string::npos ? 0 : end + 1);
  return whole.substr(whole.rfind('/') + 1);
}

RunResult ReadRunResult(const Json& object) {
  if (At(object, "error").is_string() && At(object, "exitCode").is_number()) {
    return ReadRefusal(object);
  }
  RunResult result;
  // An inspection has all but the outcome.
  // These three keys are what pages cannot do without; all others may be missing.
  if (!At(object, "containers").is_array() || !At(object, "counts").is_object() ||
      !At(object, "succeeded").is_boolean()) {
    return result;
  }
  result.kind = ResultKind::run;
  result.device = TextAt(object, "device");
  result.started = TextAt(object, "started");
  result.startedAt = SecondsOrNone(At(object, "startedAt"));
  result.versions = ReadVersions(At(object, "versions"));
  result.succeeded = TrueAt(object, "succeeded");
  result.interruptedBy = TextAt(object, "interruptedBy");
  result.seconds = Seconds(At(object, "seconds"));
  result.items = CountAt(object, "items");
  result.installedBefore = CountAt(object, "installedBefore");
  for (std::size_t i = 0; i < result.counts.size(); ++i) {
    result.counts[i] = CountAt(At(object, "counts"), MigrationOutcomeNames[i]);
  }
  result.containers = ListAt(object, "containers", ReadContainer);
  result.groups = ListAt(object, "groups", ReadDirectory);
  result.harbors = ListAt(object, "harbors", ReadDirectory);
  result.leftBehind = ListAt(object, "leftBehind", ReadLeftBehind);
  result.problems = ListAt(object, "problems", ReadProblem);
  result.findings = ListAt(object, "preflight", ReadFinding);
  return result;
}

std::string InWords(const ResultProblem& problem) {
  const std::size_t reason = PlaceOf(problem.reason, MigrationReasonNames);
  std::string words = reason < MigrationReasonNames.size()
                          ? WordsFor(static_cast<MigrationReason>(reason))
                          : problem.reason;
  if (!problem.errorName.empty()) words += " (" + problem.errorName + ")";
  return words;
}

}  // namespace quorvel::host
