// Puts the Linux services together.
#include "platform/linux/services/QVLinuxServices.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "platform/FileSystemRepresentation.h"
#include "platform/UniqueDescriptor.h"
#include "platform/linux/files/PosixFailure.h"
#include "platform/linux/services/LinuxServiceParts.h"

namespace quorvel {

namespace {

// The directory's real path as bytes, "" for "/"; false with errno.
bool RealPathOf(const Path& directory, std::string* real) {
  if (directory.string() == "/") return true;
  const FileSystemRepresentation path = directory.fileSystemRepresentation();
  const UniqueDescriptor opened(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!opened) return false;
  const std::unique_ptr<char, decltype(&::free)> resolved(::realpath(path.c_str(), nullptr),
                                                          &::free);
  if (resolved == nullptr) return false;
  if (std::string_view(resolved.get()) != "/") *real = resolved.get();
  return true;
}

bool IsPlainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

onlinux::RegistryOptions RegistryOptionsFor(const std::string& deviceRoot,
                                            const QVLinuxServicesOptions& options) {
  onlinux::RegistryOptions registry;
  registry.deviceRoot = deviceRoot;
  registry.readOnly = options.readOnly;
  registry.isBlacklisted = options.isBlacklisted;
  return registry;
}

}  // namespace

QVLinuxServices::Parts::Parts(const std::string& root, const QVLinuxServicesOptions& options)
    : fileData(Path::directory(root + "/private/var/tmp")),
      preferences(onlinux::PreferencesDirectory(root, options.preferencesUser), options.readOnly),
      registry(fileSystem, bundles, RegistryOptionsFor(root, options)) {
  if (options.digests) sha256.emplace();
  set.log = options.log;
  set.hostLog = options.hostLog;
  set.workspace = &registry.workspace();
  set.installationService = &registry.installationService();
  set.bundles = &bundles;
  set.icons = &icons;
  set.propertyLists = &propertyLists;
  set.fileData = &fileData;
  set.fileSystem = &fileSystem;
  set.treeWalker = &treeWalker;
  set.preferences = &preferences;
  set.hardware = &hardware;
  set.mounts = &machineMounts;
  set.sha256 = sha256 ? &*sha256 : nullptr;
  set.transaction = &transaction;
  set.cpuMonitor = &cpuMonitor;
  set.crashReport = &crashReport;
}

QVLinuxServices::QVLinuxServices(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}

QVLinuxServices::~QVLinuxServices() = default;

const PlatformServices& QVLinuxServices::set() const { return parts_->set; }

std::unique_ptr<QVLinuxServices> QVLinuxServices::create(const Path& root,
                                                         const QVLinuxServicesOptions& options,
                                                         Error* error) {
  if (!IsPlainName(options.preferencesUser)) {
    SetError(error, onlinux::PosixFailure(EINVAL, "The user " + options.preferencesUser));
    return nullptr;
  }
  std::string real;
  if (!RealPathOf(root, &real)) {
    SetError(error, onlinux::PosixFailure(errno, "Opening the device root " + root.string()));
    return nullptr;
  }
  const std::string prefix =
      options.processWillEnterRoot ? "" : StringFromFileSystemRepresentation(real);
  auto parts = std::make_unique<Parts>(prefix, options);
  if (options.processWillEnterRoot && !real.empty()) {
    parts->mountsInside.emplace(parts->machineMounts, real);
    parts->set.mounts = &*parts->mountsInside;
  }
  return std::unique_ptr<QVLinuxServices>(new QVLinuxServices(std::move(parts)));
}

}  // namespace quorvel
