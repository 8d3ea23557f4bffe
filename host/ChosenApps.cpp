// What is there is asked of the plug-in, which decides what a container is.
#include "host/ChosenApps.h"

#include "host/Foresight.h"
#include "host/console/NearestName.h"
#include "host/console/TerminalText.h"

namespace quorvel::host {

ChosenApps::ChosenApps(const std::vector<std::string>& identifiers)
    : identifiers_(identifiers.begin(), identifiers.end()) {
  if (!isEmpty()) looking_.emplace(DeviceAccess::look);
}

bool ChosenApps::isChosen(const std::string& identifier) const {
  return identifiers_.contains(identifier);
}

// The services for looking go as soon as they have been used: those that change something are
// installed next, and a process has one set.
bool ChosenApps::foresee(const PluginBundle& bundle, const DeviceRoot& root, RunAccount& foreseen,
                         FatalError& error) {
  looking_->install();
  onlinux::RegistrySnapshot registry;
  const bool known = Foresee(bundle, *looking_, root, foreseen, registry, error);
  looking_.reset();
  return known;
}

// The plug-in is asked whether it can choose before anything else: one that cannot would migrate
// everything that it was kept from.
bool ChosenApps::areThere(const PluginBundle& bundle, const DeviceRoot& root, FatalError& error) {
  if (!bundle.selects()) {
    return Fail(error, ExitPluginUnusable, "the plug-in migrates everything or nothing",
                "Use the plug-in that was built with this host, or leave --only out");
  }
  RunAccount foreseen;
  if (!foresee(bundle, root, foreseen, error)) return false;
  std::set<std::string> there;
  std::vector<std::string> names;
  for (const ContainerResult& container : foreseen.containers()) {
    const std::string& identifier = container.is.identifier;
    if (identifier.empty() || !there.insert(identifier).second) continue;
    names.push_back(Printable(identifier));
  }
  // All that is wrong is told at once: whoever mistyped two identifiers corrects both.
  std::string problem;
  for (const std::string& identifier : identifiers_) {
    if (there.contains(identifier)) continue;
    problem += (problem.empty() ? "" : "; ") + Printable(identifier) +
               ": no container to migrate is of this app" + Suggestion(identifier, names);
  }
  if (problem.empty()) return true;
  return Fail(error, ExitRefused, problem,
              "Nothing was changed. migration-host inspect --all shows what there is",
              "unknown-identifier");
}

}  // namespace quorvel::host
