// migrate: prepares the host, drives the plug-in and reports.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <optional>

#include "host/Commands.h"
#include "host/FailureWords.h"
#include "host/HostServices.h"
#include "host/MigrationResult.h"
#include "host/PluginBundle.h"
#include "host/Preflight.h"
#include "host/ProgressDisplay.h"
#include "host/RunAccount.h"
#include "host/console/DeviceRoot.h"
#include "host/console/ExitCode.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

bool ShowsProgress(const Options& options, Terminal terminal) {
  if (options.progress == ProgressMode::automatic) return terminal.isTerminal && !options.quiet;
  return options.progress == ProgressMode::always;
}

// Everything that is needed from outside the device tree, then the tree itself.
bool Prepare(const Options& options, DeviceRoot& root, PluginBundle& bundle, HostServices& services,
             FatalError& error) {
  if (!root.openDevice(options.root, error) || !bundle.load(options.plugin, error)) return false;
  if (!options.logFile.empty() && !services.openLog(options.logFile, error)) return false;
  return root.lock(error) && root.enter(DeviceRoot::View::writable, error);
}

MigrationResult Drive(MigratorPlugin& plugin, const RunAccount& account, const Options& options,
                      Clock::time_point start) {
  MigrationResult result;
  const Terminal terminal = DescribeTerminal(STDERR_FILENO);
  std::optional<ProgressDisplay> display;
  if (ShowsProgress(options, terminal)) display.emplace(plugin, account, terminal);
  result.succeeded = plugin.performMigration();
  display.reset();
  result.dataClassName = plugin.dataClassName();
  result.estimatedDuration = plugin.estimatedDuration();
  result.items = account.items();
  result.progress = plugin.migrationProgress();
  result.seconds = SecondsSince(start);
  return result;
}

void ShowEstimate(const MigratorPlugin& plugin, const RunAccount& account, const Options& options) {
  if (options.json || options.quiet) return;
  const long estimate = std::lround(plugin.estimatedDuration());
  // A failure shows again when the result is written.
  (void)WriteWhole(STDOUT_FILENO, std::to_string(account.items()) +
                                      " items to migrate, estimated duration " +
                                      std::to_string(estimate) + " s.\n");
}

void ShowFindings(const Findings& findings, const Options& options) {
  if (options.json || options.quiet) return;
  (void)WriteWhole(STDERR_FILENO, FindingsAsText(findings));
}

void WarnOfIncompleteLog(const HostServices& services, const Options& options) {
  if (services.logIsWhole()) return;
  (void)WriteWhole(STDERR_FILENO, "migration-host: " + Printable(options.logFile) +
                                      ": lines of the log could not be written\n" +
                                      "The migration does not depend on it.\n");
}

int Report(const MigrationResult& result, const RunAccount& account, const Options& options) {
  const int code = result.succeeded ? ExitSucceeded : ExitFailed;
  if (options.json) return WriteResult(ResultAsJson(result, account), code);
  if (options.quiet && result.succeeded) return code;
  const int stream = options.quiet ? STDERR_FILENO : STDOUT_FILENO;
  const std::string text = ResultAsText(result, account, options, DescribeTerminal(stream));
  if (!options.quiet) return WriteResult(text, code);
  (void)WriteWhole(STDERR_FILENO, text);
  return code;
}

}  // namespace

int RunMigrate(const Options& options) {
  FatalError error;
  DeviceRoot root;
  PluginBundle bundle;
  HostServices services(DeviceAccess::change);
  RunAccount account;
  if (!Prepare(options, root, bundle, services, error)) return ReportFatal(error, options.json);
  Findings findings = RunPreflight(root.descriptor(), options.forcedFindings);
  if (Refuses(findings)) return ReportRefusal(findings, options.json);
  ShowFindings(findings, options);
  services.tell(account);
  services.install();
  const auto start = Clock::now();
  const std::unique_ptr<MigratorPlugin> plugin = bundle.create(error);
  if (plugin == nullptr) {
    for (const MigrationProblem& problem : account.problems()) {
      error.problem += ": " + Printable(problem.path) + ": " + WordsFor(problem.reason) + ": " +
                       Printable(DetailOf(problem.error));
    }
    return ReportFatal(error, options.json);
  }
  ShowEstimate(*plugin, account, options);
  MigrationResult result = Drive(*plugin, account, options, start);
  result.preflight = std::move(findings);
  WarnOfIncompleteLog(services, options);
  return Report(result, account, options);
}

}  // namespace quorvel::host
