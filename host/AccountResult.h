// An account for programs and for people: the same words for what a migration did and for what one
// would do.
#pragma once

#include <string>

#include "host/RunAccount.h"
#include "host/console/Json.h"
#include "host/console/Terminal.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"

namespace quorvel::host {

// Adds "containers", "groups", "harbors", "leftBehind", "problems" and "counts" to the object.
void AddAccount(const RunAccount& account, Json& object);

// An object with a number for each outcome.
Json CountsAsJson(const RunAccount& account);

// How many apps the registry has as a whole, those that come with the system left out.
std::size_t InstalledApps(const onlinux::RegistrySnapshot& registry);

// How an account is to be shown.
struct AccountView {
  Terminal terminal{};
  bool all = false;  // what went well, too, and every row of a long list
  bool onlyFailures = false;
  std::size_t columns = 0;  // of the terminal; 0: any number
};

// Failures first, each cause once with the containers that it stopped; then what is left for a
// person. Ends with a line feed, unless there is nothing to say.
std::string AccountAsText(const RunAccount& account, const AccountView& view);

// "3 migrated, 0 resumed, 0 removed, 0 left, 1 failed".
std::string CountsAsText(const RunAccount& account);

}  // namespace quorvel::host
