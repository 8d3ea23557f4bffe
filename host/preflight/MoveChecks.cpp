// Looks at a container's own entries and no deeper, unless they must be copied.
#include "host/preflight/MoveChecks.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "host/console/TerminalText.h"
#include "host/proof/LeavingAccessTime.h"
#include "platform/DeviceNames.h"
#include "platform/Error.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/Path.h"
#include "platform/linux/files/DirectoryReader.h"

namespace quorvel::host {

namespace {

constexpr int kLookFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

UniqueDescriptor OpenToLook(int directory, const char* name) {
  return LeavingAccessTime(
      kLookFlags, [&](int flags) { return UniqueDescriptor(::openat(directory, name, flags)); });
}

// By name alone, as the migration looks for bundles: what they are shows when they are opened.
bool IsBundle(const Path& name) {
  return name.pathExtension() == AppExtension || name.pathExtension() == VPNPluginExtension;
}

template <typename Names>
bool Holds(const Names& names, const std::string& name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

MoveChecks::MoveChecks(Findings& findings, SpaceNeeds& needs)
    : findings_(findings),
      needs_(needs),
      data_(destination(DataContainersPath)),
      bundles_(destination(BundleContainersPath)),
      groups_(destination(GroupContainersPath)) {}

// The deepest directory that is there: what is missing below it is made in it, and is then on its
// file system.
MoveChecks::Destination MoveChecks::destination(const char* containers) {
  for (std::string path = std::string("/") + MobileHomeDirectory + containers; path.size() > 1;
       path = ParentOf(path)) {
    struct stat info {};
    // A link on the way is the device's own and leads where the registry goes, too.
    if (::stat(path.c_str(), &info) == 0) {
      const UniqueDescriptor directory(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
      return {path, directory ? FactsAt(directory.get(), "") : std::nullopt};
    }
  }
  return {};
}

std::size_t MoveChecks::containers(const std::string& applications) {
  name_ = kContainerNotMovable;
  severity_ = Severity::warning;
  const UniqueDescriptor directory = OpenToLook(AT_FDCWD, applications.c_str());
  std::vector<std::string> names;
  const auto holder = directory ? FactsAt(directory.get(), "") : std::nullopt;
  // What keeps it from being listed is told where the directories that all depends on are.
  if (!holder || onlinux::NamesIn(directory.get(), names) != 0) return 0;
  for (const std::string& name : names) container(directory.get(), name, *holder);
  return names.size();
}

// The first obstacle of a container is all that is told of it: the remedy for it is often that for
// all the others.
void MoveChecks::container(int applications, const std::string& name, const ItemFacts& holder) {
  const auto facts = FactsAt(applications, name.c_str());
  // Files and links among the containers are not moved.
  if (!facts || !S_ISDIR(facts->mode)) return;
  complained_ = false;
  const std::string path =
      std::string("/") + MobileHomeDirectory + LegacyApplicationsName + "/" + name;
  if (const auto sealed = WhatSeals(applications, name.c_str(), *facts)) {
    return complain(path, *sealed, "");
  }
  // It goes at the end; it is not moved itself.
  const auto kept = WhatKeeps(applications, name.c_str(), *facts, holder);
  if (kept) return complain(path, *kept, "");
  const UniqueDescriptor directory = OpenToLook(applications, name.c_str());
  std::vector<std::string> names;
  const int failure = directory ? onlinux::NamesIn(directory.get(), names) : errno;
  if (failure != 0) {
    return complain(path, {"it cannot be listed: " + ErrnoDescription(failure), "Repair it"}, "");
  }
  for (const std::string& entry : names) carried(directory.get(), entry, path, *facts);
}

void MoveChecks::carried(int container, const std::string& name, const std::string& path,
                         const ItemFacts& holder) {
  // The three kinds that a step carries; whatever else is there makes the container stay.
  const bool isData = Holds(UserDataItemNames, name);
  const bool isBundle = IsBundle(Path(name)) || name == StagingName;
  if (!isData && !isBundle && !Holds(StoreMetadataItemNames, name)) return;
  const auto facts = FactsAt(container, name.c_str());
  if (!facts) return;
  if (const auto kept = WhatKeeps(container, name.c_str(), *facts, holder)) {
    complain(path, *kept, name + ": ");
  }
  // Data goes to the data containers; bundles and metadata go with the bundle.
  copied(path + "/" + name, *facts, isData ? data_ : bundles_);
}

void MoveChecks::groups(const PlistDictionary& map) {
  const PlistValue* section = map.find(InstallMapGroupsKey);
  const PlistDictionary* entries = section != nullptr ? section->dictionary() : nullptr;
  if (entries == nullptr) return;
  name_ = kGroupNotMovable;
  severity_ = Severity::refuse;
  for (const PlistEntry& entry : *entries) {
    const PlistDictionary* fields = entry.value.dictionary();
    const std::string* path =
        fields != nullptr ? fields->findString(InstallMapContainerKey) : nullptr;
    if (path == nullptr || !path->starts_with('/')) continue;
    const Path directory = Path::directory(*path);
    const std::string bytes = directory.fileSystemRepresentation().c_str();
    // The root is no group container, whatever the map says; the migration refuses it as well.
    if (bytes != "/" && seen_.insert(bytes).second) group(bytes);
  }
}

// A group's items are moved one by one, whatever their names, and its directory is removed at the
// end.
void MoveChecks::group(const std::string& path) {
  complained_ = false;
  const auto facts = FactsAt(AT_FDCWD, path.c_str());
  if (!facts || !S_ISDIR(facts->mode)) return;
  if (const auto sealed = WhatSeals(AT_FDCWD, path.c_str(), *facts)) {
    return complain(path, *sealed, "");
  }
  const UniqueDescriptor directory = OpenToLook(AT_FDCWD, path.c_str());
  std::vector<std::string> names;
  const int failure = directory ? onlinux::NamesIn(directory.get(), names) : errno;
  if (failure != 0) {
    return complain(path, {"it cannot be listed: " + ErrnoDescription(failure), "Repair it"}, "");
  }
  for (const std::string& name : names) {
    const auto item = FactsAt(directory.get(), name.c_str());
    if (!item) continue;
    if (const auto kept = WhatKeeps(directory.get(), name.c_str(), *item, *facts)) {
      complain(path, *kept, name + ": ");
    }
    copied(path + "/" + name, *item, groups_);
  }
}

void MoveChecks::copied(const std::string& source, const ItemFacts& facts, const Destination& to) {
  // Within one mount a rename does, whatever the size.
  if (!to.facts || facts.mount == to.facts->mount) return;
  const int failure = needs_.addCopy(source, facts, to.path, *to.facts);
  if (failure == 0) return;
  const std::string problem = "a part of it cannot be read: " + ErrnoDescription(failure);
  complain(source, {problem, "Run as root or repair it"}, "");
}

// One finding for each container or group, as people act on these and not on single entries.
void MoveChecks::complain(const std::string& path, const Obstacle& obstacle,
                          const std::string& subject) {
  if (complained_) return;
  complained_ = true;
  const std::string item = StringFromFileSystemRepresentation(subject);
  findings_.push_back({name_, severity_, StringFromFileSystemRepresentation(path),
                       Printable(item) + obstacle.detail, obstacle.remedy});
}

}  // namespace quorvel::host
