// Looks into staged packages and built-in bundles by descriptor.
#include "platform/linux/registry/PackageInspection.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <set>
#include <utility>

#include "platform/ApplicationRegistry.h"
#include "platform/DeviceNames.h"
#include "platform/FileSystemRepresentation.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/DirectoryReader.h"
#include "platform/linux/registry/RegistryErrors.h"

namespace quorvel::onlinux {
namespace {

// A directory, not a link to one; -1 with errno.
UniqueDescriptor OpenDirectory(int parent, const char* name) {
  return UniqueDescriptor(::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Errors that mean "there is no such directory".
bool SaysAbsent(int number) { return number == ENOENT || number == ENOTDIR || number == ELOOP; }

const char* TypeOfExtension(std::string_view extension) {
  if (extension == "app") return BundleTypeApp;
  return extension == "vpnplugin" ? BundleTypeVPNPlugin : nullptr;
}

bool IsDirectoryEntry(int parent, const DirectoryEntry& entry) {
  if (entry.type != DT_UNKNOWN) return entry.type == DT_DIR;
  struct stat info {};
  return ::fstatat(parent, entry.name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
}

// The bundle directories in an open directory, sorted. False with errno.
bool ListBundles(const UniqueDescriptor& directory, const Path& path, std::vector<Path>* bundles) {
  DirectoryReader reader;
  while (const DirectoryEntry* entry = reader.next(directory.get())) {
    const Path child = path.childDirectory(StringFromFileSystemRepresentation(entry->name));
    if (TypeOfExtension(child.pathExtension()) != nullptr &&
        IsDirectoryEntry(directory.get(), *entry)) {
      bundles->push_back(child);
    }
  }
  const bool listed = errno == 0;
  // File systems list in different orders: sorted, one package always makes the same plan.
  if (listed) std::sort(bundles->begin(), bundles->end());
  return listed;
}

std::vector<std::string> GroupsOf(const PlistDictionary& info) {
  std::set<std::string> groups;
  const PlistValue* value = info.find(PKApplicationGroupsKey);
  if (value == nullptr || value->array() == nullptr) return {};
  for (const PlistValue& group : *value->array()) {
    if (group.string() != nullptr) groups.insert(*group.string());
  }
  return {groups.begin(), groups.end()};
}

// Takes the number at the front of the text: its digits without leading zeros.
std::string_view TakeNumber(std::string_view* text) {
  const auto end = std::min(text->find_first_not_of("0123456789"), text->size());
  std::string_view digits = text->substr(0, end);
  text->remove_prefix(end);
  digits.remove_prefix(std::min(digits.find_first_not_of('0'), digits.size()));
  return digits;
}

// Takes the text up to the next dot, and the dot.
std::string_view TakePart(std::string_view* text) {
  const auto dot = std::min(text->find('.'), text->size());
  const std::string_view part = text->substr(0, dot);
  text->remove_prefix(std::min(dot + 1, text->size()));
  return part;
}

// As strcmp: of any length, so numbers are compared as their digits.
int ComparePart(std::string_view left, std::string_view right) {
  const std::string_view a = TakeNumber(&left);
  const std::string_view b = TakeNumber(&right);
  // Without leading zeros the longer number is the larger.
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  const int order = a.compare(b);
  return order != 0 ? order : left.compare(right);
}

}  // namespace

bool IsRealDirectory(const Path& path) {
  struct stat info {};
  return ::lstat(path.fileSystemRepresentation().c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool ReadBundle(BundleReader& reader, const Path& directory, const char* type,
                BundleDescription* bundle, Error* error) {
  // Which of the three failed makes no difference to the request.
  const auto opened = reader.open(directory);
  const std::string* identifier = opened != nullptr ? opened->identifier() : nullptr;
  const PlistDictionary* info = opened != nullptr ? opened->infoDictionary() : nullptr;
  if (identifier == nullptr || identifier->empty() || info == nullptr) {
    return Fail(RegistryErrorCode::unreadableInfo,
                directory.string() + ": has no readable info dictionary with an identifier", error);
  }
  const std::string* version = info->findString(PKBundleVersionKey);
  *bundle = {directory, type, *identifier, version != nullptr ? *version : std::string(),
             GroupsOf(*info)};
  return true;
}

bool InspectPackage(BundleReader& reader, const Path& staging, PackageContents* package,
                    Error* error) {
  *package = {};
  const UniqueDescriptor directory =
      OpenDirectory(AT_FDCWD, staging.fileSystemRepresentation().c_str());
  if (!directory) {
    // No staging directory is an empty package: an earlier request took it.
    return SaysAbsent(errno) || Fail(staging.string(), error);
  }
  package->isPresent = true;
  std::vector<std::string> names;
  // What could not be listed is not taken along and keeps the staging directory from being empty,
  // and so from being removed.
  NamesIn(directory.get(), names);
  for (const char* name : StoreMetadataItemNames) {
    if (std::find(names.begin(), names.end(), name) != names.end()) {
      package->metadata.emplace_back(name);
    }
  }
  const Path payload = staging.childDirectory(PayloadName);
  UniqueDescriptor bundles = OpenDirectory(directory.get(), PayloadName);
  if (!bundles) {
    return SaysAbsent(errno) || Fail(payload.string(), error);
  }
  std::vector<Path> paths;
  if (!ListBundles(bundles, payload, &paths)) {
    return Fail(payload.string(), error);
  }
  for (const Path& path : paths) {
    BundleDescription bundle;
    if (!ReadBundle(reader, path, TypeOfExtension(path.pathExtension()), &bundle, error)) {
      return false;
    }
    package->bundles.push_back(std::move(bundle));
  }
  return true;
}

bool IsNewerVersion(std::string_view version, std::string_view than) {
  // Nobody can say which of them is the newer one.
  if (version.empty() || than.empty()) return false;
  while (!version.empty() || !than.empty()) {
    const std::string_view left = TakePart(&version);
    const std::string_view right = TakePart(&than);
    const int order = ComparePart(left, right);
    if (order != 0) return order > 0;
  }
  return false;
}

const BuiltInApps::Map* BuiltInApps::all(Error* error) {
  if (isKnown_) return &apps_;
  UniqueDescriptor directory =
      OpenDirectory(AT_FDCWD, applications_.fileSystemRepresentation().c_str());
  std::vector<Path> paths;
  if (directory ? !ListBundles(directory, applications_, &paths) : !SaysAbsent(errno)) {
    Fail(applications_.string(), error);
    return nullptr;
  }
  for (const Path& path : paths) {
    BundleDescription app;
    if (path.pathExtension() != "app" || !ReadBundle(reader_, path, BundleTypeApp, &app, nullptr)) {
      continue;
    }
    const auto [known, isFirst] = apps_.try_emplace(app.identifier, app);
    if (!isFirst && IsNewerVersion(app.version, known->second.version)) known->second = app;
  }
  // Built-in apps change with the system only, never during a run.
  isKnown_ = true;
  return &apps_;
}

const BundleDescription* BuiltInApps::find(const std::string& identifier) {
  const Map* apps = all(nullptr);
  if (apps == nullptr) return nullptr;
  const auto found = apps->find(identifier);
  return found != apps->end() ? &found->second : nullptr;
}

}  // namespace quorvel::onlinux
