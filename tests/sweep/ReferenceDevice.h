// The device that is swept: one container of each kind that migrates, and what must survive of it.
#pragma once

#include <string>
#include <vector>

#include "tests/support/MigrationDevice.h"

namespace quorvel::sweep {

// A file or link of the user's, by what it holds: kind, mode, owner, times, bytes, attributes.
struct UserItem {
  std::string path;  // on the device, before the migration
  std::string name;  // last component
  std::string description;
};

// A file in the device's root that the migration never looks at.
inline constexpr const char* UnrelatedFile = "/unrelated";

// `host` makes the stand-alone VPN plug-in known to the registry. False when that fails.
bool MakeReferenceDevice(const std::string& root, const std::string& host, bool isSmall);

std::vector<UserItem> UserItemsOf(const std::string& root);

// The items of which no whole instance under their own name is anywhere below `root`.
std::vector<std::string> MissingAnywhere(const std::vector<UserItem>& items,
                                         const std::string& root);

}  // namespace quorvel::sweep
