// Two legacy containers that claim one app: an app has one data container, where the data of the
// one that is migrated later replaces that of the earlier one.
#pragma once

#include <optional>

#include "host/HostServices.h"
#include "host/PluginBundle.h"
#include "host/RunAccount.h"
#include "host/preflight/Finding.h"

namespace quorvel::host {

// Adds a finding for each container whose data would replace another one's, as the plug-in foresees
// it.
void FindReplacedData(const RunAccount& foreseen, Findings& findings);

// For a migration, which does not look ahead otherwise. Asks the plug-in what each container is,
// and only where two claim one app what would come of them.
class SharedIdentifiers {
 public:
  // Before the tree is entered.
  SharedIdentifiers() { looking_.emplace(DeviceAccess::look); }
  // Once, after the tree was entered. A plug-in that cannot look ahead, or a tree that cannot be
  // looked at, adds nothing: the run itself says why.
  void find(const PluginBundle& bundle, Findings& findings);

 private:
  std::optional<HostServices> looking_{};
};

}  // namespace quorvel::host
