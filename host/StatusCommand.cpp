// status: a run that is at work, the last ones, and what is still to be done.
#include <unistd.h>

#include <ctime>
#include <optional>
#include <utility>

#include "host/AccountResult.h"
#include "host/AccountText.h"
#include "host/Commands.h"
#include "host/Foresight.h"
#include "host/RunRecord.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

// What is to be done is looked at only while no run is at work.
struct Status {
  std::vector<Json> runs{};  // newest first
  bool isRunning = false;
  RunAccount toDo{};
  std::optional<FatalError> unknown{};  // why it is not known what is to be done
};

// The facts are a file on the device, which may hold anything: what is missing or of another type
// is empty or zero here.
std::string Text(const Json& run, const char* key) {
  const auto at = run.find(key);
  return at != run.end() && at->is_string() ? at->get<std::string>() : std::string();
}

std::int64_t NumberOf(const Json& run, const char* key) {
  const auto at = run.find(key);
  return at != run.end() && at->is_number() ? at->get<std::int64_t>() : 0;
}

// A run that says it is at work and is not was killed, or lost power.
// Only the newest can be the one at work: runs take turns by the device's lock.
std::vector<Json> Judged(std::vector<Json> runs, bool isRunning) {
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const bool isAtWork = i == 0 && isRunning;
    if (Text(runs[i], "outcome") == "running" && !isAtWork) runs[i]["outcome"] = "killed";
  }
  return runs;
}

// Facts and lock of one moment: between the two a run may end and another begin.
void LookAtRuns(const DeviceRoot& root, Status& status) {
  std::string before;
  std::string after = ReadRuns();
  // Bounded, since a run that is at work writes again and again.
  for (int attempt = 0; attempt < 3 && (attempt == 0 || before != after); ++attempt) {
    before = std::move(after);
    status.isRunning = root.isAtWork();
    after = ReadRuns();
  }
  status.runs = Judged(RunsIn(after), status.isRunning);
}

// A run whose beginning was not told, or was told already as ended, is at work nevertheless.
const Json* RunAtWork(const Status& status) {
  const bool isTold = !status.runs.empty() && Text(status.runs.front(), "outcome") == "running";
  return status.isRunning && isTold ? &status.runs.front() : nullptr;
}

std::string AsJson(const Status& status) {
  Json object;
  object["running"] = status.isRunning;
  object["runs"] = status.runs;
  object["unknown"] = status.unknown ? Json(status.unknown->problem) : Json(nullptr);
  object["toDo"] = nullptr;
  if (!status.isRunning && !status.unknown) {
    Json toDo;
    toDo["items"] = status.toDo.items();
    AddAccount(status.toDo, toDo);
    object["toDo"] = std::move(toDo);
  }
  return JsonLine(object);
}

// What a run was limited to, with the separator before it: the first few, since there may be many.
// Empty for a run over everything, and for one of a host that did not tell.
std::string LimitAsText(const Json& run) {
  constexpr std::size_t kShown = 3;
  const auto only = run.find("only");
  if (only == run.end() || !only->is_object()) return "";
  std::string text;
  std::size_t shown = 0;
  const auto identifiers = only->find("identifiers");
  if (identifiers != only->end() && identifiers->is_array()) {
    for (const Json& identifier : *identifiers) {
      if (!identifier.is_string() || shown == kShown) break;
      text += (shown++ == 0 ? " " : ", ") + Printable(identifier.get<std::string>());
    }
  }
  const std::int64_t more = NumberOf(*only, "apps") - static_cast<std::int64_t>(shown);
  if (more > 0) text += (shown == 0 ? " " : " and ") + std::to_string(more) + " more";
  return ", limited to" + (text.empty() ? " some apps" : text);
}

// The age of the facts is shown, since a run that hangs tells nothing any more. A clock that was
// set back must not make it negative.
std::string RunningAsText(const Status& status) {
  const Json* run = RunAtWork(status);
  if (run == nullptr) return "A run is at work and has not told anything yet.\n";
  std::string text = "A run is at work since " + Printable(Text(*run, "started")) + " (process " +
                     std::to_string(NumberOf(*run, "process")) +
                     "): " + std::to_string(NumberOf(*run, "done")) + " of " +
                     std::to_string(NumberOf(*run, "items")) + " items done";
  const std::string current = Text(*run, "current");
  if (!current.empty()) text += ", now " + Printable(current);
  const std::int64_t age = std::time(nullptr) - NumberOf(*run, "told");
  text += LimitAsText(*run);
  return text + " (told " + std::to_string(std::max<std::int64_t>(age, 0)) + " s ago).\n";
}

// A run without counts was killed before its end: how far it was when it last told is all that is
// known.
std::string RunAsText(const Json& run) {
  std::string text =
      "  " + Printable(Text(run, "started")) + "  " + Padded(Printable(Text(run, "outcome")), 11);
  const auto counts = run.find("counts");
  if (counts == run.end() || !counts->is_object()) {
    return text + "  " + std::to_string(NumberOf(run, "done")) + " of " +
           std::to_string(NumberOf(run, "items")) + " items when last told" + LimitAsText(run) +
           "\n";
  }
  const char* separator = "  ";
  for (const auto& [outcome, count] : counts->items()) {
    if (!count.is_number()) continue;
    text += separator + std::to_string(count.get<std::int64_t>()) + " " + Printable(outcome);
    separator = ", ";
  }
  return text + LimitAsText(run) + "\n";
}

std::string ToDoAsText(const Status& status, const Options& options) {
  AccountView view = {.terminal = DescribeTerminal(STDOUT_FILENO), .all = options.all};
  if (view.terminal.isTerminal) view.columns = TerminalColumns(STDOUT_FILENO);
  const bool isNothing =
      FailuresAsText(status.toDo, view).empty() && RestAsText(status.toDo, view).empty();
  if (status.toDo.items() == 0 && isNothing) return "Nothing is left to migrate.\n";
  return "Still to be done: " + std::to_string(status.toDo.items()) +
         " items. A migration begun now would end like this:\n\n" +
         AccountAsText(status.toDo, view);
}

std::string AsText(const Status& status, const Options& options) {
  std::string text = status.isRunning ? RunningAsText(status) : "No run is at work.\n";
  text += status.runs.empty() ? "No run has left its facts here.\n" : "Last runs, newest first:\n";
  for (const Json& run : status.runs) text += RunAsText(run);
  if (!status.isRunning && !status.unknown) text += ToDoAsText(status, options);
  return text;
}

}  // namespace

int RunStatus(const Options& options) {
  FatalError error;
  DeviceRoot root;
  PluginBundle bundle;
  HostServices services(DeviceAccess::look);
  if (!root.openDevice(options.root, error) || !bundle.load(options.plugin, error) ||
      !root.enter(ViewForLooking(root), error)) {
    return ReportFatal(error, options.json);
  }
  Status status;
  LookAtRuns(root, status);
  // While a run is at work the tree changes under whoever looks ahead, and the registry is its own.
  if (!status.isRunning) {
    services.install();
    onlinux::RegistrySnapshot registry;
    if (!Foresee(bundle, services, root, status.toDo, registry, error)) status.unknown = error;
  }
  const int code = status.unknown ? status.unknown->exitCode : ExitSucceeded;
  const int written = WriteResult(options.json ? AsJson(status) : AsText(status, options), code);
  if (status.unknown && !options.json) return ReportFatal(*status.unknown, false);
  return written;
}

}  // namespace quorvel::host
