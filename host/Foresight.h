// What a migration begun now would do, for every command that asks.
#pragma once

#include "host/HostServices.h"
#include "host/PluginBundle.h"
#include "host/RunAccount.h"

namespace quorvel::host {

// Has the plug-in tell the account, after services.install(). False with the error: the plug-in
// cannot look ahead (exit code 3), or what it needs cannot be read (1). Nothing changes.
bool Foresee(const PluginBundle& bundle, HostServices& services, const DeviceRoot& root,
             RunAccount& account, onlinux::RegistrySnapshot& registry, FatalError& error);

}  // namespace quorvel::host
