#include "host/Inspection.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "host/DirectoryListing.h"

namespace quorvel::host {

namespace {

constexpr std::string_view MarkerName = "com.velto.quorvel.container_migrator.plist";
constexpr std::string_view FarewellName = "WhereDidMyApplicationsGo.txt";
constexpr const char* PlaceholderAttribute = "com.velto.quorveld.placeholder";
constexpr ssize_t PlaceholderAttributeSize = 4;

// What the steps move out of a container besides its bundles, or pass over.
constexpr std::array<std::string_view, 12> CarriedNames = {"Documents",
                                                           "Library",
                                                           "tmp",
                                                           "Tillkit",
                                                           "Manifest.plist",
                                                           "LorvixArtwork",
                                                           "LorvixMetadata.plist",
                                                           "GeoJSON",
                                                           "Staging",
                                                           MarkerName,
                                                           "com.velto.quorvel.migration_marker",
                                                           "com.velto.quorvel.placeholder"};

InspectedItem Item(const Path& path, std::string kind, std::string action) {
  return {path.string(), std::move(kind), std::nullopt, std::nullopt, std::move(action)};
}

// The names that a migration would stumble over after everything else has moved.
std::string Stragglers(const std::vector<std::string>& names, std::string_view bundle,
                       std::string_view second) {
  std::string list;
  for (const std::string& name : names) {
    if (name == bundle || name == second) continue;
    if (std::find(CarriedNames.begin(), CarriedNames.end(), name) != CarriedNames.end()) continue;
    list += list.empty() ? "" : ", ";
    list += name;
  }
  return list;
}

bool IsDirectory(const Path& path) { return ItemType(path) == S_IFDIR; }

// Whether both name one directory, whatever their spelling.
bool IsSameDirectory(const Path& a, const Path& b) {
  struct stat ofA {};
  struct stat ofB {};
  return ::stat(a.fileSystemRepresentation().c_str(), &ofA) == 0 &&
         ::stat(b.fileSystemRepresentation().c_str(), &ofB) == 0 && ofA.st_dev == ofB.st_dev &&
         ofA.st_ino == ofB.st_ino;
}

}  // namespace

bool Inspector::inspect(Inspection& result, Error* error) {
  std::vector<std::string> names;
  const int failure = ListDirectory(layout_.containers, names);
  if (failure != 0 && failure != ENOENT) {
    return SetError(error,
                    Error(PosixErrorDomain, failure,
                          {{LocalizedDescriptionKey, PlistValue(layout_.containers.string() + ": " +
                                                                ErrnoDescription(failure))}}));
  }
  result.items.reserve(names.size());
  for (const std::string& name : names) {
    result.items.push_back(item(layout_.containers.childDirectory(name)));
  }
  readMap(layout_.installMap, "GroupContainers", "Container", result.groups);
  readMap(layout_.harborMap, nullptr, "HarborPathKey", result.harbors);
  return true;
}

InspectedItem Inspector::item(const Path& entry) {
  const unsigned type = ItemType(entry);
  if (type == S_IFLNK) return Item(entry, "link", "skip: a symbolic link is not followed");
  if (entry.lastPathComponent() == FarewellName) {
    return Item(entry, type == S_IFDIR ? "other" : "file", "remove: left by the former service");
  }
  if (type == S_IFDIR) return container(entry);
  if (type == S_IFREG) return Item(entry, "file", "remove: regular file");
  if (type == 0) return Item(entry, "unreadable", "skip: it cannot be examined");
  return Item(entry, "other", "remove: not a directory");
}

InspectedItem Inspector::container(const Path& path) {
  std::vector<std::string> names;
  if (const int failure = ListDirectory(path, names); failure != 0) {
    return Item(path, "unreadable", "skip: it cannot be listed: " + ErrnoDescription(failure));
  }
  Path app;
  Path vpn;
  std::string appIdentifier;
  std::string vpnIdentifier;
  for (const std::string& name : names) {
    const Path entry = path.childDirectory(name);
    const bool isLink = ItemType(entry) == S_IFLNK;
    if (entry.pathExtension() == "app") {
      if (isLink) return Item(path, "App", "skip: its app is a symbolic link");
      if (auto identifier = identifierOf(entry)) {
        app = entry;
        appIdentifier = *std::move(identifier);
      }
    } else if (entry.pathExtension() == "vpnplugin") {
      if (isLink) return Item(path, "VPNBundle", "skip: its VPN plug-in is a symbolic link");
      if (auto identifier = identifierOf(entry)) {
        vpn = entry;
        vpnIdentifier = *std::move(identifier);
      }
    } else if (name == MarkerName) {
      if (isLink) return Item(path, "marker", "skip: its marker is a symbolic link");
      if (const auto begun = marker(path.child(name))) return resumed(path, *begun);
    }
  }
  if (!app.isAbsent()) {
    return {path.string(), "App", appIdentifier, app.string(),
            appAction(appIdentifier, app, vpn, names)};
  }
  if (vpn.isAbsent()) return Item(path, "empty", "remove: no bundle");
  return {path.string(), "VPNBundle", vpnIdentifier, vpn.string(),
          vpnAction(vpnIdentifier, vpn, names)};
}

InspectedItem Inspector::resumed(const Path& path, const PlistDictionary& begun) const {
  const std::string& identifier = *begun.findString("BundleIdentifier");
  const std::string& bundle = *begun.findString("BundlePath");
  const BundleProxy* known = record(identifier);
  const std::string& container = *begun.findString("ContainerPath");
  std::string action = "migrate (resume)";
  if (!IsSameDirectory(path, Path::directory(container))) {
    action = "fail: its marker names another container, " + container;
  } else if (*begun.findString("ContainerType") == "App") {
    const bool installed = known != nullptr && (known->foundBackingBundle || known->isPlaceholder);
    if (!installed && !IsDirectory(Path::directory(bundle))) {
      action = "fail: its bundle is gone and the registry does not have the app";
    }
  } else if (known == nullptr) {
    action = "fail: no record for VPN plug-in";
  }
  return {path.string(), "marker", identifier, bundle, std::move(action)};
}

std::string Inspector::appAction(const std::string& identifier, const Path& bundle, const Path& vpn,
                                 const std::vector<std::string>& names) {
  if (isPlaceholder(bundle)) return "migrate: data only, the bundle is a placeholder";
  const std::string_view second = vpn.isAbsent() ? std::string_view() : vpn.lastPathComponent();
  const std::string left = Stragglers(names, bundle.lastPathComponent(), second);
  if (!left.empty()) return "fail: no step moves " + left;
  const BundleProxy* known = record(identifier);
  const bool installed = known != nullptr && (known->foundBackingBundle || known->isPlaceholder);
  return installed ? "migrate: already registered" : "migrate";
}

std::string Inspector::vpnAction(const std::string& identifier, const Path& bundle,
                                 const std::vector<std::string>& names) {
  if (record(identifier) == nullptr) return "fail: no record for VPN plug-in";
  if (isPlaceholder(bundle)) return "migrate: data only, the bundle is a placeholder";
  const std::string left = Stragglers(names, bundle.lastPathComponent(), {});
  return left.empty() ? "migrate" : "fail: no step moves " + left;
}

// The record of a migration that was begun, when the marker can be used.
std::optional<PlistDictionary> Inspector::marker(const Path& file) {
  auto dictionary = services_.propertyLists->readDictionary(file, nullptr);
  if (dictionary == nullptr) return std::nullopt;
  for (const char* key : {"BundlePath", "ContainerType", "ContainerPath", "BundleIdentifier"}) {
    if (dictionary->findString(key) == nullptr) return std::nullopt;
  }
  const PlistValue* second = dictionary->find("SecondBundlePath");
  if (second != nullptr && second->string() == nullptr) return std::nullopt;
  return std::move(*dictionary);
}

std::optional<std::string> Inspector::identifierOf(const Path& bundle) {
  const std::unique_ptr<PKBundle> opened = services_.bundles->open(bundle);
  const std::string* identifier = opened != nullptr ? opened->identifier() : nullptr;
  return identifier != nullptr ? std::optional(*identifier) : std::nullopt;
}

bool Inspector::isPlaceholder(const Path& bundle) {
  char value[PlaceholderAttributeSize];
  return services_.fileSystem->getxattr(bundle.fileSystemRepresentation().c_str(),
                                        PlaceholderAttribute, value, sizeof value, 0,
                                        XATTR_NOFOLLOW) == PlaceholderAttributeSize;
}

const BundleProxy* Inspector::record(const std::string& identifier) const {
  const auto at = std::lower_bound(registry_.bundles.begin(), registry_.bundles.end(), identifier,
                                   [](const BundleProxy& proxy, const std::string& wanted) {
                                     return proxy.bundleIdentifier < wanted;
                                   });
  const bool found = at != registry_.bundles.end() && at->bundleIdentifier == identifier;
  return found ? &*at : nullptr;
}

// Reads a map of identifiers to dictionaries that hold a path: the file's root, or a section of it.
void Inspector::readMap(const Path& file, const char* section, const char* pathKey,
                        std::vector<InspectedDirectory>& out) {
  const auto root = services_.propertyLists->readDictionary(file, nullptr);
  if (root == nullptr) return;
  const PlistDictionary* map = root.get();
  if (section != nullptr) {
    const PlistValue* value = root->find(section);
    map = value != nullptr ? value->dictionary() : nullptr;
  }
  if (map == nullptr) return;
  for (const PlistEntry& entry : *map) {
    InspectedDirectory directory{entry.key, std::nullopt, false};
    const PlistDictionary* fields = entry.value.dictionary();
    if (const std::string* path = fields != nullptr ? fields->findString(pathKey) : nullptr) {
      directory.path = *path;
      directory.exists = IsDirectory(Path::directory(*path));
    }
    out.push_back(std::move(directory));
  }
}

}  // namespace quorvel::host
