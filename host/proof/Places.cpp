// Knows where items go and what a migration loses in order.
#include "host/proof/Places.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "platform/DeviceNames.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/DirectoryReader.h"
#include "platform/linux/registry/DeviceLayout.h"

namespace quorvel::host {

namespace {

using onlinux::ContainerKind;

std::string Bytes(const std::string& text) { return BytesOfFileSystemRepresentation(text); }
std::string Bytes(const Path& path) { return Bytes(path.string()); }

// Empty when it cannot be listed: what is not found there then counts as missing.
// The directory itself must not be a link: a container's path is the registry's, and following it
// elsewhere would count another tree's items as having arrived.
std::vector<std::string> NamesIn(const std::string& directory) {
  std::vector<std::string> names;
  const UniqueDescriptor opened(
      ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!opened) return names;
  (void)onlinux::NamesIn(opened.get(), names);
  return names;
}

// Any other failure leaves it open whether something is there, and what may be there is not lost.
bool IsGone(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

template <typename Names>
bool IsAmong(const Names& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

bool IsBundleName(const std::string& name) {
  const std::size_t dot = name.rfind('.');
  if (dot == std::string::npos) return false;
  const std::string_view extension = std::string_view(name).substr(dot + 1);
  return extension == AppExtension || extension == VPNPluginExtension;
}

// The same item: by its number where the file system is the same, otherwise by its time.
bool IsStill(const SectionItem& item, const struct stat& now) {
  if (item.identity.device == now.st_dev) return item.identity.inode == now.st_ino;
  return item.modified ==
         static_cast<std::int64_t>(now.st_mtim.tv_sec) * 1'000'000'000 + now.st_mtim.tv_nsec;
}

const SectionBundle* BundleNamed(const ManifestSection& section, const std::string& name) {
  for (const SectionBundle& bundle : section.bundles) {
    if (NameOfItem(bundle.item) == name) return &bundle;
  }
  return nullptr;
}

}  // namespace

// A name without a slash is itself: rfind gives npos, and one more is zero.
std::string NameOfItem(const std::string& item) { return item.substr(item.rfind('/') + 1); }

// Containers come first: the places that the sections' items claim depend on what lies on disk. Of
// each item only the likeliest place is claimed, since only that is where it would replace another.
Places::Places(const onlinux::RegistrySnapshot& registry, const ManifestHeader& header,
               const ReportedLosses& reported)
    : registry_(registry), header_(header), reported_(reported) {
  findContainers();
  for (std::size_t i = 0; i < header.sections.size(); ++i) {
    for (const SectionBundle& bundle : header.sections[i].bundles) bundles_[bundle.identifier] = i;
    for (const SectionItem& item : header.sections[i].items) {
      const std::vector<Place> places = of(i, item.name);
      if (!places.empty()) claims_.insert({places.front().path, {i, &item}});
    }
  }
}

// Bundle containers alone are looked into when no record names them: an install that was cut off
// has moved its bundle there before the record says so.
void Places::findContainers() {
  std::set<std::string> recorded;
  std::set<std::string> placeholders;
  for (const BundleProxy& bundle : registry_.bundles) {
    if (bundle.bundleContainerPath) {
      recorded.insert(Bytes(*bundle.bundleContainerPath));
      if (bundle.isPlaceholder) placeholders.insert(Bytes(*bundle.bundleContainerPath));
    }
    if (!bundle.groupContainerPaths) continue;
    for (const auto& [group, path] : *bundle.groupContainerPaths) groups_[group] = Bytes(path);
  }
  const onlinux::DeviceLayout layout("");
  for (const ContainerKind kind :
       {ContainerKind::bundle, ContainerKind::data, ContainerKind::group}) {
    const std::string parent = Bytes(layout.containers(kind));
    for (const std::string& name : NamesIn(parent)) {
      std::string container = parent;
      container.append("/").append(name);
      containers_[container] = placeholders.contains(container);
      if (kind != ContainerKind::bundle || recorded.contains(container)) continue;
      for (const std::string& item : NamesIn(container)) unrecorded_.insert({item, container});
    }
  }
}

const BundleProxy* Places::record(const std::string& identifier) const {
  // A snapshot of the registry is sorted by identifier.
  const auto at = std::lower_bound(registry_.bundles.begin(), registry_.bundles.end(), identifier,
                                   [](const BundleProxy& proxy, const std::string& wanted) {
                                     return proxy.bundleIdentifier < wanted;
                                   });
  const bool found = at != registry_.bundles.end() && at->bundleIdentifier == identifier;
  return found ? &*at : nullptr;
}

std::vector<Place> Places::of(std::size_t index, const std::string& item) const {
  const ManifestSection& section = header_.sections[index];
  const std::string own = Bytes(section.path);
  switch (section.kind) {
    case SectionKind::container:
      return ofContainerItem(section, item);
    case SectionKind::stray:
      return {{own, false}};
    case SectionKind::group: {
      std::vector<Place> places;
      const auto group = groups_.find(section.identifier);
      if (group != groups_.end()) places.push_back({group->second + "/" + item, true});
      // Where it was comes after where it should be.
      places.push_back({own + "/" + item, false});
      return places;
    }
    case SectionKind::harbor:
      return {{own + "/" + item, false}};
    case SectionKind::bundle:
    case SectionKind::data:
    case SectionKind::groupData:
      return {{own + "/" + item, true}};
  }
  return {};
}

// Where the item should be comes first, then where it was, then the staging directory, in which a
// migration that was cut off may have put it.
std::vector<Place> Places::ofContainerItem(const ManifestSection& section,
                                           const std::string& item) const {
  const std::string own = Bytes(section.path);
  const std::string name = NameOfItem(item);
  const bool staged = name != item;
  std::vector<Place> places;
  if (!staged && IsAmong(UserDataItemNames, name)) {
    const BundleProxy* known = record(section.identifier);
    if (known != nullptr && known->dataContainerPath) {
      places.push_back({Bytes(*known->dataContainerPath) + "/" + name, true});
    }
  } else if (IsBundleName(name)) {
    addBundlePlaces(section, name, places);
  } else if (IsAmong(StoreMetadataItemNames, name)) {
    addMetadataPlaces(section, name, places);
  }
  places.push_back({own + "/" + item, false});
  const std::string staging = own + "/" + StagingName + "/";
  if (!staged && IsBundleName(name)) places.push_back({staging + PayloadName + "/" + name, false});
  if (!staged && IsAmong(StoreMetadataItemNames, name)) places.push_back({staging + name, false});
  return places;
}

void Places::addBundlePlaces(const ManifestSection& section, const std::string& name,
                             std::vector<Place>& places) const {
  const SectionBundle* bundle = BundleNamed(section, name);
  const BundleProxy* known = bundle != nullptr ? record(bundle->identifier) : nullptr;
  // What a placeholder's container holds was made by the migration, whatever its name.
  if (known != nullptr && !known->isPlaceholder && known->bundleContainerPath) {
    places.push_back({Bytes(*known->bundleContainerPath) + "/" + name, true});
  }
  const auto [begin, end] = unrecorded_.equal_range(name);
  for (auto at = begin; at != end; ++at) places.push_back({at->second + "/" + name, true});
}

// Store metadata follows its app's bundle, so that an install that was cut off is found by the name
// of the bundle beside which it lies.
void Places::addMetadataPlaces(const ManifestSection& section, const std::string& name,
                               std::vector<Place>& places) const {
  const BundleProxy* known = record(section.identifier);
  if (known != nullptr && !known->isPlaceholder && known->bundleContainerPath) {
    places.push_back({Bytes(*known->bundleContainerPath) + "/" + name, true});
  }
  for (const SectionBundle& bundle : section.bundles) {
    const auto [begin, end] = unrecorded_.equal_range(NameOfItem(bundle.item));
    for (auto at = begin; at != end; ++at) places.push_back({at->second + "/" + name, true});
  }
}

std::optional<std::size_t> Places::replacedBy(std::size_t section, const SectionItem& mine,
                                              const Place& place) const {
  const auto [begin, end] = claims_.equal_range(place.path);
  // Only a place that two items expected to come to can have been taken by the other.
  if (begin == end || std::next(begin) == end) return std::nullopt;
  struct stat now {};
  if (::lstat(place.path.c_str(), &now) != 0 || IsStill(mine, now)) return std::nullopt;
  for (auto at = begin; at != end; ++at) {
    if (at->second.section != section && IsStill(*at->second.item, now)) return at->second.section;
  }
  return std::nullopt;
}

// Nothing is excused while the section's directory is still there: as long as it is, the items have
// nowhere been lost in order.
std::string Places::lossOf(std::size_t index, const std::string& item) const {
  const ManifestSection& section = header_.sections[index];
  static constexpr std::string_view removal = "removed: ";
  if (!IsGone(Bytes(section.path))) return {};
  if (section.action.starts_with(removal)) return section.action.substr(removal.size());
  if (section.kind == SectionKind::container) {
    const std::string name = NameOfItem(item);
    const std::string reason = lossOfContainerItem(section, name);
    return reason.empty() ? reportedLossOf(section, name) : reason;
  }
  if (section.kind != SectionKind::bundle) return {};
  const BundleProxy* known = record(section.identifier);
  const bool replaced = known != nullptr && known->bundleContainerPath &&
                        known->bundleContainerPath->string() != section.path;
  const auto by = bundles_.find(section.identifier);
  if (!replaced || by == bundles_.end()) return {};
  return "its bundle was replaced by the one in " + header_.sections[by->second].path;
}

// Of an item at the top of a container that is gone. User data never has to be lost.
std::string Places::lossOfContainerItem(const ManifestSection& section,
                                        const std::string& name) const {
  if (IsAmong(NeverMissedNames, name)) return "a migration's own marker";
  if (name.starts_with(MoveRemainPrefix)) return "the remains of a move that was finished";
  if (IsAmong(UserDataItemNames, name)) return {};
  const SectionBundle* bundle = BundleNamed(section, name);
  // The app's own bundle, by which the container was judged.
  // Of several with that identifier the last one counts.
  const SectionBundle* first = nullptr;
  for (const SectionBundle& each : section.bundles) {
    if (each.identifier == section.identifier) first = &each;
  }
  if (first != nullptr && first->placeholder) {
    return "the app's bundle is a placeholder: only its data moves";
  }
  const BundleProxy* known = record(bundle != nullptr ? bundle->identifier : section.identifier);
  if (known == nullptr) known = record(section.identifier);
  if (known == nullptr) return {};
  // Built-in apps are the only ones there.
  if (known->bundlePath && known->bundlePath->string().starts_with("/Applications/")) {
    return "the system carries a newer copy of the app";
  }
  if (known->isPlaceholder || !known->bundlePath) return "the registry did not take the bundle";
  return {};
}

// Whatever was foreseen, the run knows what it removed.
std::string Places::reportedLossOf(const ManifestSection& section, const std::string& name) const {
  const auto told = reported_.find(section.path);
  if (told == reported_.end()) return {};
  // For user data only what the run named: anything else would hide a real loss.
  const bool excused =
      !IsAmong(UserDataItemNames, name) || told->second.userDataItems.contains(name);
  return excused ? told->second.reason : std::string();
}

}  // namespace quorvel::host
