// Writes the result of a migration around its account.
#include "host/MigrationResult.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>

#include "QuorvelCommit.h"
#include "host/AccountResult.h"
#include "host/AccountText.h"
#include "host/console/Json.h"
#include "host/console/ShellWord.h"
#include "host/console/Terminal.h"
#include "host/console/TerminalText.h"
#include "shared/support/Version.h"

namespace quorvel::host {

namespace {

// The shortest number that is this float: 42.1 rather than 42.09999847412109.
double AsWritten(float number) {
  if (!std::isfinite(number)) return number;
  char digits[32];
  const auto written = std::to_chars(digits, digits + sizeof digits, number);
  double result = number;
  std::from_chars(digits, written.ptr, result);
  return result;
}

// Not by a stream or printf, which write the decimal point of the locale.
std::string Seconds(double seconds) {
  char digits[64];
  const auto written =
      std::to_chars(digits, digits + sizeof digits, seconds, std::chars_format::fixed, 2);
  return std::string(digits, written.ptr) + " s";
}

// Every word is quoted for a shell.
std::string HowToRunAgain(const Options& options) {
  std::string command = "migration-host migrate --root " + ShellWord(options.root);
  if (!options.plugin.empty()) command += " --plugin " + ShellWord(options.plugin);
  if (!options.logFile.empty()) command += " --log " + ShellWord(options.logFile);
  if (!options.device.empty()) command += " --device " + ShellWord(options.device);
  // What was gone past once refuses the next run as well.
  for (const std::string& name : options.forcedFindings) command += " --force-preflight=" + name;
  if (!options.only.empty()) command += " --only";
  for (const std::string& identifier : options.only) command += " " + ShellWord(identifier);
  return command;
}

// Below the device tree's root; the directories that a bug report asks for.
constexpr const char* kLogs = "/private/var/mobile/Library/Logs/{Corvenna,Quorvel}";

// Its name, null when the run came to its end.
Json InterruptedBy(const MigrationResult& result) {
  // Without its "SIG", and null for numbers that have no name.
  const char* name = ::sigabbrev_np(result.interruptedBy);
  return result.interruptedBy == 0 || name == nullptr ? Json(nullptr)
                                                      : Json(std::string("SIG") + name);
}

std::string Ending(const MigrationResult& result) {
  if (result.interruptedBy != 0) {
    return "The migration was interrupted by " + InterruptedBy(result).get<std::string>();
  }
  if (!result.succeeded) return "The migration failed";
  return result.items == 0 ? "Nothing to migrate" : "The migration succeeded";
}

}  // namespace

RunIdentity IdentifyRun(const PluginBundle& bundle) {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  char text[32] = "";
  if (::gmtime_r(&now, &parts) != nullptr) {
    (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  }
  return {bundle.version(), text};
}

void AddIdentity(const RunIdentity& identity, Json& object) {
  Json versions;
  versions["host"] = kBuiltVersion;
  versions["plugin"] = identity.plugin.empty() ? Json(nullptr) : Json(identity.plugin);
  versions["library"] = QVLibraryVersion();
  object["versions"] = std::move(versions);
  object["started"] = identity.started;
}

std::string ResultAsJson(const MigrationResult& result, const RunAccount& account) {
  Json object;
  AddIdentity(result.identity, object);
  object["device"] = result.device;
  object["startedAt"] = result.startedAt;
  object["dataClassName"] = result.dataClassName;
  object["estimatedDuration"] = AsWritten(result.estimatedDuration);
  object["items"] = result.items;
  object["installedBefore"] = result.installedBefore;
  object["progress"] = AsWritten(result.progress);
  object["succeeded"] = result.succeeded;
  object["interruptedBy"] = InterruptedBy(result);
  object["seconds"] = result.seconds;
  object["preflight"] = FindingsAsJson(result.preflight);
  AddAccount(account, object);
  return JsonLine(object);
}

std::string ResultAsText(const MigrationResult& result, const RunAccount& account,
                         const Options& options, int descriptor) {
  AccountView view{.terminal = DescribeTerminal(descriptor), .all = options.all};
  // In a file every line is as long as it needs to be.
  if (view.terminal.isTerminal) view.columns = TerminalColumns(descriptor);
  std::string text = FailuresAsText(account, view);
  if (!text.empty()) text += "\n";
  text += Ending(result);
  if (result.items > 0) text += ": " + CountsAsText(account);
  text += " (" + Seconds(result.seconds) + ").\n";
  if (result.items > 0 || !result.succeeded) {
    text += "Logs: " + Printable(options.root) + kLogs + "\n";
  }
  if (!result.succeeded) {
    // What to do differs: after an interruption nothing, after a failure its causes first.
    text += result.interruptedBy != 0 ? "Nothing is lost. The same command goes on:\n  "
                                      : "What was kept is taken up again when the causes are "
                                        "removed:\n  ";
    // Word for word, to be pasted.
    text += HowToRunAgain(options) + "\n";
  }
  const std::string rest = options.quiet ? std::string() : RestAsText(account, view);
  return text + (rest.empty() ? "" : "\n") + rest;
}

}  // namespace quorvel::host
