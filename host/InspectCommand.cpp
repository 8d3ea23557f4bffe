// inspect: what a migration would do, from the plug-in that would do it.
#include <unistd.h>

#include "host/AccountResult.h"
#include "host/AccountText.h"
#include "host/Commands.h"
#include "host/Foresight.h"
#include "host/HostServices.h"
#include "host/MigrationResult.h"
#include "host/PluginBundle.h"
#include "host/Preflight.h"
#include "host/RunAccount.h"
#include "host/SharedIdentifiers.h"
#include "host/console/DeviceRoot.h"
#include "host/console/ExitCode.h"
#include "host/console/Json.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

// What was looked at, and what a migration of it would begin with.
struct Inspection {
  RunIdentity identity;
  Findings findings;
  std::size_t installedBefore = 0;
  RunAccount account{};
};

std::string AsJson(const Inspection& inspection) {
  Json object;
  AddIdentity(inspection.identity, object);
  object["items"] = inspection.account.items();
  object["installedBefore"] = inspection.installedBefore;
  object["refused"] = Refuses(inspection.findings);
  object["preflight"] = FindingsAsJson(inspection.findings);
  AddAccount(inspection.account, object);
  return JsonLine(object);
}

// Findings come first, as they decide whether anything of what follows would happen at all.
std::string AsText(const Inspection& inspection, const Options& options) {
  const RunAccount& account = inspection.account;
  AccountView view = {.terminal = DescribeTerminal(STDOUT_FILENO), .all = options.all};
  if (view.terminal.isTerminal) view.columns = TerminalColumns(STDOUT_FILENO);
  std::string text = FindingsAsText(inspection.findings);
  if (!text.empty()) text += "\n";
  if (Refuses(inspection.findings)) {
    text += "A migration begun now would be refused. Forced past that, it would end like this:\n\n";
  } else {
    text += "A migration begun now would end like this:\n\n";
  }
  return text +
         (account.items() == 0
              ? FailuresAsText(account, view) + RestAsText(account, view) + "Nothing to migrate.\n"
              : AccountAsText(account, view)) +
         "Nothing was changed.\n";
}

}  // namespace

// No lock is taken: a person may look while a migration is at work, and what is shown is then of
// that moment. The findings are made before the services are installed, on the tree alone.
int RunInspect(const Options& options) {
  FatalError error;
  DeviceRoot root;
  PluginBundle bundle;
  HostServices services(DeviceAccess::look);
  if (!root.openDevice(options.root, error) || !bundle.load(options.plugin, error) ||
      !root.enter(ViewForLooking(root), error)) {
    return ReportFatal(error, options.json);
  }
  Inspection inspection{.identity = IdentifyRun(bundle),
                        .findings = RunPreflight(root.descriptor())};
  services.install();
  onlinux::RegistrySnapshot registry;
  if (!Foresee(bundle, services, root, inspection.account, registry, error)) {
    // A damaged registry keeps the plug-in from looking ahead, and is a finding already: that says
    // more than the plug-in's own failure.
    const bool explained = error.exitCode == ExitFailed && Refuses(inspection.findings);
    if (explained) return ReportRefusal(inspection.findings, options.json);
    return ReportFatal(error, options.json);
  }
  FindReplacedData(inspection.account, inspection.findings);
  inspection.installedBefore = InstalledApps(registry);
  return WriteResult(options.json ? AsJson(inspection) : AsText(inspection, options),
                     Refuses(inspection.findings) ? ExitRefused : ExitSucceeded);
}

}  // namespace quorvel::host
