// Which containers a migration is confined to, where it is not to take them all.
//
// Why a service: an engineer who debugs one app wants the others untouched, and only the plug-in
// knows which container is whose. A host that migrates a device installs none.
#pragma once

#include <cstdint>
#include <string>

namespace quorvel {

class MigrationSelection {
 public:
  virtual ~MigrationSelection() = default;
  // Whether the containers of the app with this identifier are to be migrated. Asked once for each
  // container that could be, on the plug-in's thread, before anything is changed.
  virtual bool isChosen(const std::string& identifier) const = 0;
};

// A plug-in bundle that asks exports this function under this name; one that does not would migrate
// everything. What it honours is a selection of this version: where there is one, each container
// that is not chosen stays as it is, and what a run does before and after its containers is left
// out.
inline constexpr std::uint32_t MigrationSelectionVersion = 1;
inline constexpr const char* MigrationSelectionVersionName = "QVMigrationSelectionVersion";
using MigrationSelectionVersionEntry = std::uint32_t (*)();

}  // namespace quorvel
