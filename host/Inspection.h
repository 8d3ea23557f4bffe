// What a migration would find in a device tree and do with it, without touching anything.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/Path.h"
#include "platform/Services.h"
#include "platform/linux/registry/ApplicationRegistryLinux.h"

namespace quorvel::host {

// Where the former service kept what a migration carries over.
struct LegacyLayout {
  Path containers;  // one directory per app
  Path installMap;
  Path harborMap;
};

// One entry of the legacy applications directory. `kind` is "App" or "VPNBundle" (a container that
// is migrated as such), "marker" (one whose migration was begun), "file", "link", "empty" (no
// usable bundle), "other" or "unreadable". `action` is a text that begins with "migrate",
// "remove", "skip" (stays, and the migration reports failure) or "fail" (is begun, stays, and the
// migration reports failure).
struct InspectedItem {
  std::string path;
  std::string kind;
  std::optional<std::string> identifier;
  std::optional<std::string> bundlePath;
  std::string action;
};

// A group container or a safe harbor, as its map has it. A damaged entry has no path.
struct InspectedDirectory {
  std::string identifier;
  std::optional<std::string> path;
  bool exists = false;
};

struct Inspection {
  std::vector<InspectedItem> items;  // in the order in which a migration looks at them
  std::vector<InspectedDirectory> groups;
  std::vector<InspectedDirectory> harbors;
};

// Looks at a device tree that the process is confined to. One thread at a time.
class Inspector {
 public:
  // Uses the bundle reader, the file system and the property lists of `services`.
  Inspector(const PlatformServices& services, const onlinux::RegistrySnapshot& registry,
            LegacyLayout layout)
      : services_(services), registry_(registry), layout_(std::move(layout)) {}

  // False with the Error when the legacy applications directory exists but cannot be listed: a
  // migration would not start either.
  bool inspect(Inspection& result, Error* error);

 private:
  InspectedItem item(const Path& entry);
  InspectedItem container(const Path& path);
  InspectedItem resumed(const Path& path, const PlistDictionary& record) const;
  std::string appAction(const std::string& identifier, const Path& bundle, const Path& vpn,
                        const std::vector<std::string>& names);
  std::string vpnAction(const std::string& identifier, const Path& bundle,
                        const std::vector<std::string>& names);
  std::optional<PlistDictionary> marker(const Path& file);
  std::optional<std::string> identifierOf(const Path& bundle);
  bool isPlaceholder(const Path& bundle);
  const BundleProxy* record(const std::string& identifier) const;
  void readMap(const Path& file, const char* section, const char* pathKey,
               std::vector<InspectedDirectory>& out);

  const PlatformServices& services_;
  const onlinux::RegistrySnapshot& registry_;
  const LegacyLayout layout_;
};

}  // namespace quorvel::host
