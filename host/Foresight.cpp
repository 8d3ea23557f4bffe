// The registry first: one that cannot be read would answer as if it were empty.
#include "host/Foresight.h"

#include <memory>

#include "host/console/TerminalText.h"

namespace quorvel::host {

bool Foresee(const PluginBundle& bundle, HostServices& services, const DeviceRoot& root,
             RunAccount& account, onlinux::RegistrySnapshot& registry, FatalError& error) {
  const std::unique_ptr<MigrationPreview> preview = bundle.createPreview(error);
  if (preview == nullptr) return false;
  Error failure;
  if (services.registry().snapshot(&registry, &failure) && preview->preview(account, &failure)) {
    return true;
  }
  return Fail(error, ExitFailed, root.printable() + ": " + Printable(failure.description()),
              "Nothing was changed");
}

}  // namespace quorvel::host
