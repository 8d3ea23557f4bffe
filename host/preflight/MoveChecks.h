// Whether what a migration moves can be moved, and what of it must be copied.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "host/preflight/Finding.h"
#include "host/preflight/ItemFacts.h"
#include "host/preflight/SpaceNeeds.h"
#include "platform/PlistValue.h"
#include "platform/UniqueDescriptor.h"

namespace quorvel::host {

// Goes through what the migration would rename and asks, for each, what would be in the way. One
// thread; findings are added in the order in which they are met.
class MoveChecks {
 public:
  MoveChecks(Findings& findings, SpaceNeeds& needs);

  // Every entry of the legacy applications directory. How many there are.
  // A container that cannot be moved fails alone: its finding is a warning.
  std::size_t containers(const std::string& applications);
  // The legacy group containers that the install map names.
  // A finding here refuses the run: no marker speaks of what a group holds.
  void groups(const PlistDictionary& map);

 private:
  // Where the registry puts things, or what is there of the way to it.
  // The facts are of the nearest directory that exists: what would be made below it lies on the
  // same file system.
  struct Destination {
    std::string path{};
    std::optional<ItemFacts> facts{};
  };
  // `containers` is the directory of one kind of container, in the home directory.
  static Destination destination(const char* containers);

  // One entry of the legacy directory: itself, and what of it is carried elsewhere.
  void container(int applications, const std::string& name, const ItemFacts& holder);
  // An item that leaves its container, by rename or, across file systems, as a copy.
  void carried(int container, const std::string& name, const std::string& path,
               const ItemFacts& holder);
  // One group container, from the map's path.
  void group(const std::string& path);
  // Counts the item towards the space that the destination needs.
  void copied(const std::string& source, const ItemFacts& facts, const Destination& to);
  // Adds a finding, unless the container has one already.
  void complain(const std::string& path, const Obstacle& obstacle, const std::string& subject);

  Findings& findings_;
  SpaceNeeds& needs_;
  const Destination data_;
  const Destination bundles_;
  const Destination groups_;
  // How a complaint of the part at hand is told.
  const char* name_ = kContainerNotMovable;
  Severity severity_ = Severity::warning;
  bool complained_ = false;  // once for each container: the first obstacle stops it
  // Group containers that were looked at; several entries of the map may name one.
  std::set<std::string> seen_;
};

}  // namespace quorvel::host
