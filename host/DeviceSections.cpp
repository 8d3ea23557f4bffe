// Finds everything on a device that belongs to a user.
#include "host/DeviceSections.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

#include "host/FailureWords.h"
#include "host/RegistryRecords.h"
#include "host/proof/LeavingAccessTime.h"
#include "platform/DeviceNames.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/DirectoryReader.h"
#include "platform/linux/registry/DeviceLayout.h"
#include "shared/configuration/QVGlobalConfiguration.h"

namespace quorvel::host {

namespace {

using onlinux::ContainerKind;

// The items of one directory, sorted by the bytes of their names; 0 or an errno value.
int ItemsIn(const std::string& directory, std::vector<SectionItem>& items) {
  constexpr int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  const UniqueDescriptor opened = LeavingAccessTime(
      flags, [&](int how) { return UniqueDescriptor(::open(directory.c_str(), how)); });
  if (!opened) return errno;
  onlinux::DirectoryReader reader;
  while (const auto* entry = reader.next(opened.get())) {
    SectionItem item;
    item.name = entry->name;
    // What vanished meanwhile keeps an identity of zeros, which matches nothing.
    struct stat info {};
    if (::fstatat(opened.get(), entry->name, &info, AT_SYMLINK_NOFOLLOW) == 0) {
      item.identity = {info.st_dev, info.st_ino};
      item.modified =
          static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec;
    }
    items.push_back(std::move(item));
  }
  const int failure = errno;
  std::sort(items.begin(), items.end(),
            [](const SectionItem& a, const SectionItem& b) { return a.name < b.name; });
  return failure;
}

// The sections come in the order in which a snapshot reads them: the legacy containers, groups,
// harbors, then the current layout.
class Describer {
 public:
  Describer(HostServices& services, const onlinux::RegistrySnapshot& registry,
            const RunAccount& foreseen)
      : services_(services), registry_(registry) {
    for (const ContainerResult& result : foreseen.containers()) foreseen_[result.path] = &result;
  }

  ManifestHeader describe() {
    legacyContainers();
    // The same places as the plug-in's, so that nothing is listed that it does not know.
    const QVGlobalConfiguration& configuration = QVGlobalConfiguration::sharedInstance();
    directories(SectionKind::group, configuration.oldInstallMapPath(), InstallMapGroupsKey,
                InstallMapContainerKey);
    directories(SectionKind::harbor, configuration.oldDataDirectoryPath().child(HarborMapName),
                nullptr, HarborPathKey);
    currentContainers();
    for (const BundleProxy& bundle : registry_.bundles) {
      header_.records.push_back(BundleAsJson(bundle));
    }
    for (const onlinux::SafeHarborRecord& harbor : registry_.safeHarbors) {
      header_.harbors.push_back(SafeHarborAsJson(harbor));
    }
    return std::move(header_);
  }

 private:
  // Everything there is, also what the plug-in passes over.
  void legacyContainers() {
    const Path& parent = QVGlobalConfiguration::sharedInstance().oldContainerPath();
    std::vector<SectionItem> entries;
    const int failure = ItemsIn(parent.fileSystemRepresentation().c_str(), entries);
    if (failure != 0 && failure != ENOENT) {
      add({SectionKind::stray, parent.string()}).unreadable = ErrnoDescription(failure);
    }
    for (const SectionItem& entry : entries) {
      const Path path = parent.childDirectory(StringFromFileSystemRepresentation(entry.name));
      struct stat info {};
      const bool isDirectory =
          ::lstat(path.fileSystemRepresentation().c_str(), &info) == 0 && S_ISDIR(info.st_mode);
      ManifestSection& section =
          add({isDirectory ? SectionKind::container : SectionKind::stray, path.string()});
      foresee(section);
      if (isDirectory) bundles(section);
    }
  }

  // By the path that the plug-in told. What it did not tell of, as links among the containers, has
  // no action, and nothing of it is excused later.
  void foresee(ManifestSection& section) const {
    const auto at = foreseen_.find(section.path);
    if (at == foreseen_.end()) return;
    const ContainerResult& result = *at->second;
    section.identifier = result.is.identifier;
    section.action = NameOf(result.outcome);
    if (const MigrationProblem* stop = result.stoppedAt()) {
      section.action += std::string(": ") + WordsFor(stop->reason);
    }
  }

  void bundles(ManifestSection& section) {
    const Path container = Path::directory(section.path);
    for (const SectionItem& item : section.items) bundle(section, container, "", item.name);
    const std::string payload = std::string(StagingName) + "/" + PayloadName;
    // A run that was killed left bundles there: they belong to the container as well.
    std::vector<SectionItem> staged;
    (void)ItemsIn(container.child(payload).fileSystemRepresentation().c_str(), staged);
    for (const SectionItem& item : staged) {
      bundle(section, container.childDirectory(payload), payload + "/", item.name);
    }
  }

  void bundle(ManifestSection& section, const Path& parent, const std::string& prefix,
              const std::string& name) {
    const Path path = parent.childDirectory(StringFromFileSystemRepresentation(name));
    if (path.pathExtension() != AppExtension && path.pathExtension() != VPNPluginExtension) return;
    SectionBundle found{prefix + name, {}, isPlaceholder(path)};
    const auto opened = services_.set().bundles->open(path);
    const std::string* identifier = opened != nullptr ? opened->identifier() : nullptr;
    if (identifier != nullptr) found.identifier = *identifier;
    section.bundles.push_back(std::move(found));
  }

  // A value of another size is not the service's mark.
  bool isPlaceholder(const Path& path) const {
    char value[PlaceholderAttributeSize];
    return services_.set().fileSystem->getxattr(path.fileSystemRepresentation().c_str(),
                                                PlaceholderAttributeName, value, sizeof value, 0,
                                                XATTR_NOFOLLOW) == PlaceholderAttributeSize;
  }

  // Of a map of identifiers to dictionaries that hold a path: the file's root, or a section of it.
  void directories(SectionKind kind, const Path& file, const char* key, const char* pathKey) {
    const auto root = services_.set().propertyLists->readDictionary(file, nullptr);
    const PlistDictionary* map = root.get();
    if (map != nullptr && key != nullptr) {
      const PlistValue* value = map->find(key);
      map = value != nullptr ? value->dictionary() : nullptr;
    }
    if (map == nullptr) return;
    for (const PlistEntry& entry : *map) {
      const PlistDictionary* fields = entry.value.dictionary();
      const std::string* path = fields != nullptr ? fields->findString(pathKey) : nullptr;
      // A relative path leads nowhere on a device.
      if (path == nullptr || !path->starts_with('/')) continue;
      add({kind, Path::directory(*path).string(), entry.key});
    }
  }

  void currentContainers() {
    // The registry names containers by app, a listing by path.
    std::map<std::string, std::string> identifiers;  // by path
    const auto note = [&](const std::optional<Path>& path, const std::string& identifier) {
      if (path) identifiers[path->string()] = identifier;
    };
    for (const BundleProxy& bundle : registry_.bundles) {
      note(bundle.bundleContainerPath, bundle.bundleIdentifier);
      note(bundle.dataContainerPath, bundle.bundleIdentifier);
      // Absent when the registry could not tell them.
      if (!bundle.groupContainerPaths) continue;
      for (const auto& [group, path] : *bundle.groupContainerPaths) note(path, group);
    }
    // The process is in the tree: paths begin at its root.
    const onlinux::DeviceLayout layout("");
    for (const auto& [kind, sectionKind] :
         {std::pair(ContainerKind::bundle, SectionKind::bundle),
          std::pair(ContainerKind::data, SectionKind::data),
          std::pair(ContainerKind::group, SectionKind::groupData)}) {
      const Path parent = layout.containers(kind);
      std::vector<SectionItem> containers;
      (void)ItemsIn(parent.fileSystemRepresentation().c_str(), containers);
      for (const SectionItem& container : containers) {
        const std::string path =
            parent.childDirectory(StringFromFileSystemRepresentation(container.name)).string();
        add({sectionKind, path, identifiers[path]});
      }
    }
  }

  // A directory that is not there has no items and nothing unreadable: maps may name places that
  // were never made.
  ManifestSection& add(ManifestSection section) {
    // A stray has no items: it is one.
    if (section.kind != SectionKind::stray) {
      const std::string bytes = BytesOfFileSystemRepresentation(section.path);
      const int failure = ItemsIn(bytes, section.items);
      if (failure != 0 && failure != ENOENT) section.unreadable = ErrnoDescription(failure);
    }
    header_.sections.push_back(std::move(section));
    return header_.sections.back();
  }

  HostServices& services_;
  const onlinux::RegistrySnapshot& registry_;
  std::map<std::string, const ContainerResult*> foreseen_;
  ManifestHeader header_;
};

}  // namespace

ManifestHeader DescribeDevice(HostServices& services, const onlinux::RegistrySnapshot& registry,
                              const RunAccount& foreseen) {
  return Describer(services, registry, foreseen).describe();
}

// A map that cannot be read counts as empty: a harbor then has to be registered to be found.
std::set<std::string> HarborsOfMap(HostServices& services) {
  std::set<std::string> identifiers;
  const Path file =
      QVGlobalConfiguration::sharedInstance().oldDataDirectoryPath().child(HarborMapName);
  const auto map = services.set().propertyLists->readDictionary(file, nullptr);
  if (map == nullptr) return identifiers;
  for (const PlistEntry& entry : *map) identifiers.insert(entry.key);
  return identifiers;
}

}  // namespace quorvel::host
