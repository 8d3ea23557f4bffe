// migrate: prepares the host, drives the plug-in and reports.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <optional>

#include "host/AccountResult.h"
#include "host/ChosenApps.h"
#include "host/Commands.h"
#include "host/EventStream.h"
#include "host/FailureWords.h"
#include "host/HostServices.h"
#include "host/Interruption.h"
#include "host/MigrationResult.h"
#include "host/PluginBundle.h"
#include "host/Preflight.h"
#include "host/ProgressDisplay.h"
#include "host/RunAccount.h"
#include "host/RunRecord.h"
#include "host/SharedIdentifiers.h"
#include "host/console/DeviceRoot.h"
#include "host/console/ExitCode.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"
#include "platform/FileSystemRepresentation.h"

namespace quorvel::host {

namespace {

using Clock = std::chrono::steady_clock;

// With what reporting takes, less than the two seconds that a person waits.
constexpr std::chrono::milliseconds kPatience(1500);
// What shells add to a signal's number.
constexpr int kSignalled = 128;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

bool ShowsProgress(const Options& options, Terminal terminal) {
  if (options.progress == ProgressMode::automatic) return terminal.isTerminal && !options.quiet;
  return options.progress == ProgressMode::always;
}

// "-" is a copy of standard output, on which the result is then no text.
bool OpenEvents(const Options& options, std::optional<EventStream>& events, FatalError& error) {
  if (options.events.empty()) return true;
  UniqueDescriptor file = options.events == "-"
                              ? UniqueDescriptor(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3))
                              : OpenLogFile(options.events, error);
  if (!file) return options.events == "-";
  events.emplace(std::move(file));
  return true;
}

// Everything that is needed from outside the device tree, then the tree itself.
bool Prepare(const Options& options, DeviceRoot& root, PluginBundle& bundle, HostServices& services,
             std::optional<EventStream>& events, FatalError& error) {
  if (!root.openDevice(options.root, error) || !bundle.load(options.plugin, error)) return false;
  if (!options.logFile.empty() && !services.openLog(options.logFile, error)) return false;
  if (!OpenEvents(options, events, error)) return false;
  return root.lock(error) && root.enter(DeviceRoot::View::writable, error);
}

// As the user names it, else what its directory is called, which "." does not tell.
std::string DeviceName(const Options& options) {
  if (!options.device.empty()) return StringFromFileSystemRepresentation(options.device);
  const std::unique_ptr<char, decltype(&std::free)> whole(::realpath(options.root.c_str(), nullptr),
                                                          &std::free);
  const std::string path = whole ? whole.get() : options.root;
  return StringFromFileSystemRepresentation(path.substr(path.rfind('/') + 1));
}

double SecondsSince1970() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A registry that cannot be read is the plug-in's to meet.
std::size_t InstalledNow(HostServices& services) {
  onlinux::RegistrySnapshot registry;
  return services.registry().snapshot(&registry, nullptr) ? InstalledApps(registry) : 0;
}

// Ready to be driven; null with the error, and with what the plug-in told on the way.
std::unique_ptr<MigratorPlugin> CreatePlugin(const PluginBundle& bundle, const RunAccount& account,
                                             FatalError& error) {
  std::unique_ptr<MigratorPlugin> plugin = bundle.create(error);
  if (plugin != nullptr) return plugin;
  for (const MigrationProblem& problem : account.problems()) {
    error.problem += ": " + Printable(problem.path) + ": " + WordsFor(problem.reason) + ": " +
                     Printable(DetailOf(problem.error));
  }
  return plugin;
}

void Describe(const MigratorPlugin& plugin, Clock::time_point start, MigrationResult& result) {
  result.dataClassName = plugin.dataClassName();
  result.estimatedDuration = plugin.estimatedDuration();
  result.progress = plugin.migrationProgress();
  result.seconds = SecondsSince(start);
}

void Drive(MigratorPlugin& plugin, const RunAccount& account, const Options& options,
           MigrationResult& result) {
  const Terminal terminal = DescribeTerminal(STDERR_FILENO);
  std::optional<ProgressDisplay> display;
  if (ShowsProgress(options, terminal)) display.emplace(plugin, account, terminal);
  result.succeeded = plugin.performMigration();
  display.reset();
  result.items = account.items();
}

// What there is to do and what is done, before it begins.
void ShowEstimate(const MigratorPlugin& plugin, const RunAccount& account,
                  std::size_t installedBefore, const Options& options) {
  if (options.json || options.quiet || options.events == "-") return;
  const std::string earlier = installedBefore == 0 ? std::string()
                                                   : std::to_string(installedBefore) +
                                                         " apps were installed before this run.\n";
  const long estimate = std::lround(plugin.estimatedDuration());
  // A failure shows again when the result is written.
  (void)WriteWhole(STDOUT_FILENO,
                   std::to_string(account.items()) + " items to migrate, estimated duration " +
                       std::to_string(estimate) + " s by the system's fixed formula.\n" + earlier);
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
  const int code = result.interruptedBy != 0 ? kSignalled + result.interruptedBy
                                             : (result.succeeded ? ExitSucceeded : ExitFailed);
  if (options.json) return WriteResult(ResultAsJson(result, account), code);
  if (options.events == "-") return code;
  if (options.quiet && result.succeeded) return code;
  const int stream = options.quiet ? STDERR_FILENO : STDOUT_FILENO;
  const std::string text = ResultAsText(result, account, options, stream);
  if (!options.quiet) return WriteResult(text, code);
  (void)WriteWhole(STDERR_FILENO, text);
  return code;
}

// Who hears of the run besides its user.
struct Listeners {
  RunRecord& record;
  EventStream* events;  // may be null
};

void TellEnd(const Listeners& listeners, const MigrationResult& result, const RunAccount& account) {
  listeners.record.finish(result, account);
  if (listeners.events == nullptr) return;
  listeners.events->tell("finished", {{"succeeded", result.succeeded},
                                      {"interrupted", result.interruptedBy != 0},
                                      {"counts", CountsAsJson(account)}});
}

// Says what was done so far and ends the process: any moment is safe to end a migration at, and
// between two steps it also leaves nothing half done.
[[noreturn]] void EndEarly(MigrationResult result, const MigratorPlugin& plugin,
                           RunAccount& account, const Listeners& listeners, const Options& options,
                           Clock::time_point start) {
  result.items = account.items();
  account.halt(kPatience);
  Describe(plugin, start, result);
  if (ShowsProgress(options, DescribeTerminal(STDERR_FILENO))) {
    (void)WriteWhole(STDERR_FILENO, "\n");
  }
  TellEnd(listeners, result, account);
  const int code = Report(result, account, options);
  // What the plug-in's thread holds must not be touched any more.
  ::_exit(code);
}

// What one run needs; destroyed in the opposite order, so that what the plug-in uses outlives it.
struct Run {
  explicit Run(const Options& chosenOptions) : options(chosenOptions), chosen(options.only) {}
  const Options& options;
  DeviceRoot root;
  PluginBundle bundle;
  HostServices services{DeviceAccess::change};
  ChosenApps chosen;
  SharedIdentifiers shared;
  RunAccount account;
  std::optional<EventStream> events;
  MigrationResult result;
  FatalError error;
};

// Whether the tree may be migrated; else the exit code, of which the user has heard. Changes
// nothing on the device.
std::optional<int> RefuseToBegin(Run& run) {
  const Options& options = run.options;
  run.result.device = DeviceName(options);  // the path leads elsewhere once the tree was entered
  run.result.only = options.only;
  if (!Prepare(options, run.root, run.bundle, run.services, run.events, run.error)) {
    return ReportFatal(run.error, options.json);
  }
  run.result.identity = IdentifyRun(run.bundle);
  Findings findings = RunPreflight(run.root.descriptor());
  run.shared.find(run.bundle, findings);
  Force(options.forcedFindings, findings);
  if (Refuses(findings)) return ReportRefusal(findings, options.json);
  ShowFindings(findings, options);
  run.result.preflight = std::move(findings);
  if (!run.chosen.isEmpty() && !run.chosen.areThere(run.bundle, run.root, run.error)) {
    return ReportFatal(run.error, options.json);
  }
  return std::nullopt;
}

// The services as the plug-in is to find them, and what they hold before it changes anything.
void InstallServices(Run& run) {
  if (!run.chosen.isEmpty()) run.services.choose(run.chosen);
  run.services.tell(run.account);
  if (run.events) run.account.follow(*run.events);
  run.services.install();
  run.result.installedBefore = InstalledNow(run.services);
}

int Carry(Run& run, MigratorPlugin& plugin, Clock::time_point start) {
  MigrationResult& result = run.result;
  run.root.showAtWork();
  RunRecord record(result, plugin, run.account);
  const Listeners listeners{record, run.events ? &*run.events : nullptr};
  {
    // A copy, which nobody changes while the run goes on.
    const Interruption interruption([&, begun = result](int signal) mutable {
      begun.interruptedBy = signal;
      EndEarly(std::move(begun), plugin, run.account, listeners, run.options, start);
    });
    record.follow();
    Drive(plugin, run.account, run.options, result);
  }
  Describe(plugin, start, result);
  WarnOfIncompleteLog(run.services, run.options);
  TellEnd(listeners, result, run.account);
  return Report(result, run.account, run.options);
}

}  // namespace

int RunMigrate(const Options& options) {
  Run run(options);
  if (const std::optional<int> refused = RefuseToBegin(run)) return *refused;
  InstallServices(run);
  const auto start = Clock::now();
  run.result.startedAt = SecondsSince1970();
  run.account.countFrom(start);
  const std::unique_ptr<MigratorPlugin> plugin = CreatePlugin(run.bundle, run.account, run.error);
  if (plugin == nullptr) return ReportFatal(run.error, options.json);
  ShowEstimate(*plugin, run.account, run.result.installedBefore, options);
  return Carry(run, *plugin, start);
}

}  // namespace quorvel::host
