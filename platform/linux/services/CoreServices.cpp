// Finds the device's root and puts the services together that work on it.
#include "platform/linux/services/CoreServices.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>

#include "platform/FileSystemRepresentation.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/PosixFailure.h"

namespace quorvel::onlinux {

namespace {

// The directory's real path as bytes, "" for "/"; false with errno.
bool RealPathOf(const Path& directory, std::string* real) {
  if (directory.string() == "/") return true;
  const FileSystemRepresentation path = directory.fileSystemRepresentation();
  // realpath would take a file as well. Real, since the mount table knows no links: a root that is
  // reached through one must compare equal.
  const UniqueDescriptor opened(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!opened) return false;
  const std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path.c_str(), nullptr),
                                                          &::free);
  if (resolved == nullptr) return false;
  if (std::string_view(resolved.get()) != "/") *real = resolved.get();
  return true;
}

// The user's name becomes a component of a path that is opened below the root: anything else would
// lead out of it.
bool IsPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

}  // namespace

// Inside its root a process has paths that begin at "/"; outside of it each one begins with the
// root, as text, since these paths are shown and stored.
CoreServices::CoreServices(const std::string& realRoot, const QVLinuxServicesOptions& options)
    : deviceRoot(options.processWillEnterRoot ? "" : StringFromFileSystemRepresentation(realRoot)),
      fileData(Path::directory(deviceRoot + "/private/var/tmp")),
      preferences(PreferencesDirectory(deviceRoot, options.preferencesUser), options.readOnly) {
  if (options.digests) sha256.emplace();
  if (options.processWillEnterRoot && !realRoot.empty()) {
    mountsInside.emplace(machineMounts, realRoot);
  }
  // What is not set here is the registry's, the icons' and the host's own.
  set.log = options.log;
  set.hostLog = options.hostLog;
  set.bundles = &bundles;
  set.propertyLists = &propertyLists;
  set.fileData = &fileData;
  set.fileSystem = &fileSystem;
  set.treeWalker = &treeWalker;
  set.preferences = &preferences;
  set.hardware = &hardware;
  set.mounts = &machineMounts;
  if (mountsInside) set.mounts = &*mountsInside;
  if (sha256) set.sha256 = &*sha256;
  set.transaction = &transaction;
  set.cpuMonitor = &cpuMonitor;
  set.crashReport = &crashReport;
}

std::unique_ptr<CoreServices> CoreServices::create(const Path& root,
                                                   const QVLinuxServicesOptions& options,
                                                   Error* error) {
  if (!IsPlainName(options.preferencesUser)) {
    SetError(error, PosixFailure(EINVAL, "The user " + options.preferencesUser));
    return nullptr;
  }
  std::string real;
  if (!RealPathOf(root, &real)) {
    const int number = errno;  // before the text is built
    SetError(error, PosixFailure(number, "Opening the device root " + root.string()));
    return nullptr;
  }
  return std::make_unique<CoreServices>(real, options);
}

}  // namespace quorvel::onlinux
