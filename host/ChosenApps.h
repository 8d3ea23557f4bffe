// The apps that a migration is confined to.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/HostServices.h"
#include "host/PluginBundle.h"
#include "host/RunAccount.h"
#include "platform/MigrationSelection.h"

namespace quorvel::host {

class ChosenApps : public MigrationSelection {
 public:
  // Before the process is confined.
  // Identifiers given twice count once.
  explicit ChosenApps(const std::vector<std::string>& identifiers);

  // Compared as written, letter case included.
  bool isChosen(const std::string& identifier) const override;

  // Whether everything is: nothing is to be confined then.
  bool isEmpty() const { return identifiers_.empty(); }

  // In the device, once, while no services are installed. False with the error
  // for an app that no container is of, with the identifier that was probably meant, and for a
  // plug-in that knows of no choice: it would migrate everything. Nothing changes.
  bool areThere(const PluginBundle& bundle, const DeviceRoot& root, FatalError& error);

 private:
  bool foresee(const PluginBundle& bundle, const DeviceRoot& root, RunAccount& foreseen,
               FatalError& error);

  const std::set<std::string> identifiers_;
  // To look with, before those that change something are installed.
  std::optional<HostServices> looking_;
};

}  // namespace quorvel::host
