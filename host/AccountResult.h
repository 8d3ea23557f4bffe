// An account for programs: the same words for what a migration did and for what one would do.
#pragma once

#include <string>

#include "host/RunAccount.h"
#include "host/console/Json.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"

namespace quorvel::host {

// Adds "containers", "groups", "harbors", "leftBehind", "problems" and "counts" to the object.
void AddAccount(const RunAccount& account, Json& object);

// An object with a number for each outcome.
Json CountsAsJson(const RunAccount& account);

// How many apps the registry has as a whole, those that come with the system left out.
std::size_t InstalledApps(const onlinux::RegistrySnapshot& registry);

}  // namespace quorvel::host
