// inspect: what a migration would do, from the plug-in that would do it.
#include <unistd.h>

#include "host/AccountResult.h"
#include "host/Commands.h"
#include "host/HostServices.h"
#include "host/PluginBundle.h"
#include "host/Preflight.h"
#include "host/RunAccount.h"
#include "host/console/DeviceRoot.h"
#include "host/console/ExitCode.h"
#include "host/console/Json.h"
#include "host/console/Output.h"
#include "host/console/TerminalText.h"

namespace quorvel::host {

namespace {

std::string AsJson(const RunAccount& account, const Findings& findings) {
  Json object;
  object["items"] = account.items();
  object["preflight"] = FindingsAsJson(findings);
  AddAccount(account, object);
  return JsonLine(object);
}

std::string AsText(const RunAccount& account, const Findings& findings, const Options& options) {
  const AccountView view = {.terminal = DescribeTerminal(STDOUT_FILENO), .all = options.all};
  std::string text = AccountAsText(account, view);
  if (!text.empty()) text = "A migration begun now would end like this:\n\n" + text + "\n";
  std::string found = FindingsAsText(findings);
  if (!found.empty()) found += "\n";
  return found + text +
         (account.items() == 0 ? "Nothing to migrate.\n" : CountsAsText(account) + "\n") +
         "Nothing was changed.\n";
}

}  // namespace

int RunInspect(const Options& options) {
  FatalError error;
  DeviceRoot root;
  PluginBundle bundle;
  HostServices services(DeviceAccess::look);
  if (!root.openDevice(options.root, error) || !bundle.load(options.plugin, error) ||
      !root.enter(ViewForLooking(root), error)) {
    return ReportFatal(error, options.json);
  }
  const Findings findings = RunPreflight(root.descriptor(), {});
  services.install();
  onlinux::RegistrySnapshot registry;
  RunAccount account;
  Error failure;
  const std::unique_ptr<MigrationPreview> preview = bundle.createPreview(error);
  if (preview == nullptr) return ReportFatal(error, options.json);
  // A registry that cannot be read would answer as if it were empty.
  if (!services.registry().snapshot(&registry, &failure) || !preview->preview(account, &failure)) {
    return ReportFatal({ExitFailed, root.printable() + ": " + Printable(failure.description()),
                        "Nothing was changed"},
                       options.json);
  }
  return WriteResult(options.json ? AsJson(account, findings) : AsText(account, findings, options),
                     ExitSucceeded);
}

}  // namespace quorvel::host
