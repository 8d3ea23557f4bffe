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

class MoveChecks {
 public:
  MoveChecks(Findings& findings, SpaceNeeds& needs);

  // Every entry of the legacy applications directory. How many there are.
  std::size_t containers(const std::string& applications);
  // The legacy group containers that the install map names.
  void groups(const PlistDictionary& map);

 private:
  // Where the registry puts things, or what is there of the way to it.
  struct Destination {
    std::string path{};
    std::optional<ItemFacts> facts{};
  };
  static Destination destination(const char* kind);

  void container(int applications, const std::string& name, const ItemFacts& holder);
  void carried(int container, const std::string& name, const std::string& path,
               const ItemFacts& holder);
  void group(const std::string& path);
  void copied(const std::string& source, const ItemFacts& facts, const Destination& to);
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
  std::set<std::string> seen_;
};

}  // namespace quorvel::host
