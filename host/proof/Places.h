// Where an item of a manifest may be after a migration, and which losses a migration orders.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/proof/ManifestSection.h"
#include "platform/ApplicationRegistry.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"

namespace quorvel::host {

// A path that may or may not exist.
struct Place {
  std::string path;        // bytes
  bool isCurrent = false;  // in a container of the current layout
};

// What a run's own result says of a container that it removed although something was still in it.
// Only user data that the run named is excused by it; for other items the container's removal is
// enough.
struct ReportedLoss {
  std::string reason;
  std::set<std::string> userDataItems;
};
using ReportedLosses = std::map<std::string, ReportedLoss>;  // by the container's path, text

// What the registry knows now, and what lies in containers that it does not know (yet): an install
// that was cut off has moved its bundle there before the record says so. One thread.
class Places {
 public:
  Places(const onlinux::RegistrySnapshot& registry, const ManifestHeader& header,
         const ReportedLosses& reported);

  // The places of an item, likeliest first. `item` is its path in the section, bytes.
  // Never empty for a section of the header; whether anything is there is the caller's to see.
  std::vector<Place> of(std::size_t section, const std::string& item) const;

  // Why the item, found in none of its places, had to be lost; empty when it had not.
  // Always empty while the section's directory is still there, or when that cannot be told.
  std::string lossOf(std::size_t section, const std::string& item) const;

  // The section, other than `section`, whose item of that name is now at the place instead of
  // `mine`: what is moved onto a place replaces what is there.
  std::optional<std::size_t> replacedBy(std::size_t section, const SectionItem& mine,
                                        const Place& place) const;

  // By binary search in the snapshot, which is sorted; null when there is none. Lives as long as
  // that.
  const BundleProxy* record(const std::string& identifier) const;
  // The containers of the current layout: their paths in bytes, and whether the registry made up
  // what is in them (a placeholder).
  const std::map<std::string, bool>& containers() const { return containers_; }

 private:
  // Which item of which section expects to come to a place.
  struct Claim {
    std::size_t section = 0;
    const SectionItem* item = nullptr;
  };
  // Lists the containers on disk and matches them with the registry's records.
  void findContainers();
  // Of a bundle: the registry's containers for its identifier, then those that no record names.
  void addBundlePlaces(const ManifestSection& section, const std::string& name,
                       std::vector<Place>& places) const;
  void addMetadataPlaces(const ManifestSection& section, const std::string& name,
                         std::vector<Place>& places) const;
  // By the item's name, as the migration goes by names.
  std::vector<Place> ofContainerItem(const ManifestSection& section, const std::string& item) const;
  // Why a migration leaves the item out of what it carries; empty for user data, which never has to
  // be lost.
  std::string lossOfContainerItem(const ManifestSection& section, const std::string& name) const;
  // What the run itself admits to have removed.
  std::string reportedLossOf(const ManifestSection& section, const std::string& name) const;

  const onlinux::RegistrySnapshot& registry_;
  const ManifestHeader& header_;
  const ReportedLosses& reported_;
  std::map<std::string, std::string> groups_;  // identifier to container, bytes
  std::map<std::string, bool> containers_;
  std::map<std::string, std::size_t> bundles_;  // identifier to a section that has such a bundle
  std::multimap<std::string, std::string> unrecorded_;  // bundle name to container, bytes
  // Two claims of one place show which item replaced another.
  std::multimap<std::string, Claim> claims_;  // by place
};

// The item's name without the directories of a staged package before it.
std::string NameOfItem(const std::string& item);

}  // namespace quorvel::host
